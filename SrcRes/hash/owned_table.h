// What the owner of a hash table may do in addition to the table's services: allow a private index
// (hash_index.h) and prefetch what it will look up there.
#pragma once

#include <cstddef>

#include "frame/callframe.h"

namespace memlib {

// Call this after opening a table with the hash function `pFunc` through the vector. The owner
// guarantees that keys never change in place and that the function depends only on the key. Has an
// effect only when the handle is that of the table that the library opened last on this thread,
// with this function: the host may have replaced the slot, and the handles of its service are
// unknown. Only keys of 8 bytes get an index.
void allowIndex(const CallFrame &frame, HMEMHASH hMemHash, MEMHashFunc pFunc) noexcept;

// The owner's view of an index.
class KeyLookahead {
 public:
  // Prefetch a key's slot and, a little later, the part of the key's record that the owner will
  // read. Call both some time before the key is looked up.
  void wantSlot(const void *pKey) const noexcept;
  void wantRecord(const void *pKey, std::size_t offset) const noexcept;
};

// The index of a table if it is large enough that prefetching keys pays off, else null. Also null
// when the host has replaced the table's slots, because its handle is then unknown. Valid until the
// table is changed or closed.
const KeyLookahead *indexToAskAhead(const CallFrame &frame, HMEMHASH hMemHash) noexcept;

}  // namespace memlib
