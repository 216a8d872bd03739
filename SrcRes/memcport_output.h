// The port string under construction: a chain of chunks in the caller's heap, each filled to its
// capacity before the next is begun.
#pragma once

#include <cstdint>
#include <string_view>

#include "qj7mem00/memport.h"
#include "qj7mem00/memvect.h"

namespace mem {

class PortOutput {
 public:
  // Obtains the first chunk. False when there is no storage. REQUIRES: capacity >= 1.
  bool start(HMEMHEAP hMemHeap, std::int32_t capacity) noexcept;

  // Appends text; false, with what fitted appended, when no further chunk can be obtained.
  bool append(std::string_view text) noexcept;
  bool append(char c) noexcept { return append(std::string_view(&c, 1)); }

  // A number, least significant digit first; 0 writes nothing.
  bool appendReversed(std::uint64_t value) noexcept;

  MEMPortChunk *first() const noexcept { return pFirst_; }
  std::uint32_t total() const noexcept { return total_; }

  // Overwrites the header's characters in the first chunk.
  void writeHeader(std::uint32_t structures) noexcept;

 private:
  MEMPortChunk *obtainChunk() const noexcept;

  HMEMHEAP hMemHeap_ = nullptr;
  std::int32_t capacity_ = 0;
  MEMPortChunk *pFirst_ = nullptr;
  MEMPortChunk *pCurrent_ = nullptr;
  std::uint32_t total_ = 0;  // characters
};

}  // namespace mem
