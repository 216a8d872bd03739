// The structures of a port string by their numbers, and the pointer fields that wait for them.
#pragma once

#include <cstdint>

#include "base/bytes.h"
#include "qj7mem00/memvect.h"

namespace memlib {

// A pointer field that waits for its structure. Meanwhile the field contains the address of the
// next waiting field, but hostile text may overwrite it, so that address is never followed.
struct WaitingField {
  std::byte *pField;
  WaitingField *pNext;
};

// Has its own heap. Without a destructor: a fault may end a call anywhere, so the caller closes the
// heap.
class StructIndex {
 public:
  // The heap while it is open, else null.
  HMEMHEAP heap() const noexcept { return hHeap_; }

  // False when a heap or an entry could not be allocated.
  bool open(std::uint32_t count) noexcept;

  // Links a field to a structure by its number; 0 means none. The field waits if the structure does
  // not exist yet. False for a number that no structure has, and when an entry could not be
  // allocated.
  bool link(std::uint32_t number, std::byte *pField) noexcept {
    if (number > present_) return wait(number - 1, pField);
    storeAs<void *>(pField, number == 0 ? nullptr : pStructs_[number - 1]);
    return true;
  }

  // Adds the next structure, which is about to be read, and links all fields that wait for it.
  // REQUIRES: called for the indexes from 0 on, one by one.
  void settle(std::uint32_t index, void *pStruct) noexcept;

 private:
  bool wait(std::uint32_t index, std::byte *pField) noexcept;

  HMEMHEAP hHeap_ = nullptr;
  std::uint32_t count_ = 0;    // structures according to the header
  std::uint32_t present_ = 0;  // structures so far, including the one being read
  void **pStructs_ = nullptr;  // address of each structure, or of the first field that waits for it
  WaitingField **pWaiting_ = nullptr;  // the reader's own record of the waiting fields
};

}  // namespace memlib
