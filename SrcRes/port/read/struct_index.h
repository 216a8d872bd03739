// The structures of a port string by their numbers, and the pointer fields that wait for them.
#pragma once

#include <cstdint>

#include "base/bytes.h"
#include "qj7mem00/memvect.h"

namespace memlib {

// A pointer field that waits for its structure. The field itself holds the address of the next
// waiting field meanwhile, but it may be written over by hostile text, so that nothing is ever
// followed through it.
struct WaitingField {
  std::byte *pField;
  WaitingField *pNext;
};

// Lives in a heap of its own. Without a destructor: a fault may end a call anywhere, so whoever
// called closes the heap.
class StructIndex {
 public:
  // The heap while it is open, else null.
  HMEMHEAP heap() const noexcept { return hHeap_; }

  // False when a heap or an entry could not be obtained.
  bool open(std::uint32_t count) noexcept;

  // Links a field to a structure by its number, 0 for none: at once when the structure is there
  // already. False for a number that no structure has and when an entry could not be obtained.
  bool link(std::uint32_t number, std::byte *pField) noexcept {
    if (number > present_) return wait(number - 1, pField);
    storeAs<void *>(pField, number == 0 ? nullptr : pStructs_[number - 1]);
    return true;
  }

  // The next structure is there: all fields that wait for it are linked. It is the one being read.
  // REQUIRES: called for the indexes from 0 on, one by one.
  void settle(std::uint32_t index, void *pStruct) noexcept;

 private:
  void *allocate(std::int64_t length) noexcept;
  bool wait(std::uint32_t index, std::byte *pField) noexcept;

  HMEMHEAP hHeap_ = nullptr;
  std::uint32_t count_ = 0;            // structures that the header promises
  std::uint32_t present_ = 0;          // structures that are there, with the one being read
  void **pStructs_ = nullptr;          // address of each structure, or its chain's first field
  WaitingField **pWaiting_ = nullptr;  // the reader's own record of the chains
};

}  // namespace memlib
