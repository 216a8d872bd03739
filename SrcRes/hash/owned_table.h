// What the owner of a hash table may do besides the table's services: allow it a private index
// (hash_index.h), and ask ahead for what will be looked up there.
#pragma once

#include <cstddef>

#include "frame/callframe.h"

namespace memlib {

// To be called when a table with the hash function `pFunc` has been opened through the vector. The
// owner vouches that keys never change in place, and that the function depends on nothing but the
// key. Without effect unless the handle is that of the table which the library has opened last on
// this thread, for this function: a host may have put a service of its own into the slot, and
// nothing is known of its handles. Keys of other lengths than 8 get no index.
void allowIndex(const CallFrame &frame, HMEMHASH hMemHash, MEMHashFunc pFunc) noexcept;

// An index as its table's owner sees it.
class KeyLookahead {
 public:
  // Asks for a key's slot, and a little later for what the owner will read of the record behind it,
  // some time before the key is looked up.
  void wantSlot(const void *pKey) const noexcept;
  void wantRecord(const void *pKey, std::size_t offset) const noexcept;
};

// The index of a table when it is so large that its owner had better ask for keys ahead, else null:
// also when the host has put other services into the table's slots, since nothing is known of its
// handle then. Valid until the table is changed or closed.
const KeyLookahead *indexToAskAhead(const CallFrame &frame, HMEMHASH hMemHash) noexcept;

}  // namespace memlib
