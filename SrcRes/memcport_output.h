// The port string under construction: a chain of chunks in the caller's heap, each filled to its
// capacity before the next is begun.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "qj7mem00/memport.h"
#include "qj7mem00/memvect.h"

namespace mem {

class PortOutput {
 public:
  // Obtains the first chunk. False when there is no storage. REQUIRES: capacity >= 1.
  bool start(HMEMHEAP hMemHeap, std::int32_t capacity) noexcept;

  // Appends text; false, with what fitted appended, when no further chunk can be obtained or no
  // header could tell the length.
  bool append(std::string_view text) noexcept {
    if (text.size() > room_) return appendAcross(text);
    std::memcpy(pNext_, text.data(), text.size());
    advance(text.size());
    return true;
  }
  bool append(char c) noexcept {
    if (room_ == 0 && !addChunk()) return false;
    *pNext_ = c;
    advance(1);
    return true;
  }

  // A number, least significant digit first; 0 writes nothing.
  bool appendReversed(std::uint64_t value) noexcept {
    if (room_ < kMostDigits) return appendReversedAcross(value);
    advance(putReversed(pNext_, value));
    return true;
  }

  MEMPortChunk *first() const noexcept { return pFirst_; }
  // Characters in all chunks.
  std::uint32_t total() const noexcept {
    return total_ + static_cast<std::uint32_t>(pCurrent_->Used);
  }

  // Overwrites the header's characters in the first chunk.
  void writeHeader(std::uint32_t structures) noexcept;

 private:
  static constexpr std::size_t kMostDigits = 20;

  // Writes at most kMostDigits digits and returns how many.
  static std::size_t putReversed(char *pTo, std::uint64_t value) noexcept {
    std::size_t count = 0;
    for (; value != 0; value /= 10) pTo[count++] = static_cast<char>('0' + value % 10);
    return count;
  }

  void advance(std::size_t length) noexcept {
    pNext_ += length;
    room_ -= length;
    pCurrent_->Used += static_cast<std::int32_t>(length);
  }

  bool addChunk() noexcept;
  bool appendAcross(std::string_view text) noexcept;
  bool appendReversedAcross(std::uint64_t value) noexcept;
  MEMPortChunk *obtainChunk() const noexcept;
  void begin(MEMPortChunk *pChunk) noexcept;

  HMEMHEAP hMemHeap_ = nullptr;
  std::int32_t capacity_ = 0;
  MEMPortChunk *pFirst_ = nullptr;
  MEMPortChunk *pCurrent_ = nullptr;
  char *pNext_ = nullptr;    // where the current chunk goes on
  std::size_t room_ = 0;     // characters that it still takes
  std::uint32_t total_ = 0;  // characters in the chunks before it
};

}  // namespace mem
