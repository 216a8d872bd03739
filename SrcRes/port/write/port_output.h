// The port string under construction: a chain of chunks in the caller's heap, each filled to its
// capacity before the next one begins.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/platform.h"
#include "qj7mem00/memport.h"
#include "qj7mem00/memvect.h"

namespace memlib {

// Numbers are decimal, least significant digit first, 0 as nothing.

// Characters that putReversed may store, including those after the end that it returns, and that
// putSigned may store.
inline constexpr std::size_t kMostStoredDigits = 24;
inline constexpr std::size_t kMostStoredNumber = 1 + kMostStoredDigits;

// Three digits of a number below 1000, and how many of them the number needs.
struct ThreeDigits {
  char text[3];
  std::uint8_t length;
};
static_assert(sizeof(ThreeDigits) == 4);

inline constexpr std::uint32_t kThousand = 1000;
inline constexpr std::array<ThreeDigits, kThousand> kThreeDigits = [] {
  std::array<ThreeDigits, kThousand> all{};
  for (std::uint32_t value = 0; value < kThousand; ++value) {
    std::uint32_t left = value;
    for (char &digit : all[value].text) {
      if (left != 0) ++all[value].length;
      digit = static_cast<char>('0' + left % 10);
      left /= 10;
    }
  }
  return all;
}();

// Stores the digits and returns their end. REQUIRES: room for kMostStoredDigits characters.
inline char *putReversed(char *pTo, std::uint64_t value) noexcept {
  for (; value >= kThousand; value /= kThousand, pTo += 3) {
    std::memcpy(pTo, &kThreeDigits[value % kThousand], sizeof(ThreeDigits));
  }
  const ThreeDigits &last = kThreeDigits[value];
  std::memcpy(pTo, &last, sizeof last);
  return pTo + last.length;
}

// The same with a sign. Without a branch, because signs are unpredictable. Negation in unsigned
// arithmetic is right for the most negative value, too. REQUIRES: room for kMostStoredNumber
// characters.
inline char *putSigned(char *pTo, std::int64_t value) noexcept {
  const auto bits = static_cast<std::uint64_t>(value);
  const std::uint64_t isNegative = bits >> 63;
  *pTo = '-';
  return putReversed(pTo + isNegative, (bits ^ (0 - isNegative)) + isNegative);
}

// Appends characters. A caller may also write them itself: at most room() characters from next()
// on, then advanceTo() the address after them. Bytes stored after that address are scratch, so
// digits and the characters before a value can be stored as whole blocks. A chunk's Used is updated
// when the chunk is full and by noteUsed().
class PortOutput {
 public:
  // Scratch characters that may be stored after the appended ones.
  static constexpr std::size_t kSpill = 16;

  // Allocates the first chunk. False when there is no storage. REQUIRES: capacity >= 1.
  bool start(HMEMHEAP hMemHeap, std::int32_t capacity) noexcept;

  // Where the current chunk continues, and the room left in it.
  char *next() const noexcept { return pNext_; }
  std::size_t room() const noexcept { return roomAt(pNext_); }
  // The room from a later place in the current chunk on.
  std::size_t roomAt(const char *pTo) const noexcept {
    return static_cast<std::size_t>(pEnd_ - pTo);
  }
  void advanceTo(char *pNext) noexcept { pNext_ = pNext; }

  // Appends text. False, with the part that fits appended, when no further chunk can be allocated
  // or the header could not hold the length.
  bool append(std::string_view text) noexcept {
    if (text.size() > room()) return appendAcross(text);
    std::memcpy(pNext_, text.data(), text.size());
    pNext_ += text.size();
    return true;
  }
  bool append(char c) noexcept {
    if (pNext_ == pEnd_ && !addChunk()) return false;
    *pNext_++ = c;
    return true;
  }

  // Appends a number, least significant digit first; 0 appends nothing.
  bool appendReversed(std::uint64_t value) noexcept {
    char digits[kMostStoredDigits];
    return append(std::string_view(digits, putReversed(digits, value)));
  }
  // The same with a sign.
  bool appendSigned(std::int64_t value) noexcept {
    char digits[kMostStoredNumber];
    return append(std::string_view(digits, putSigned(digits, value)));
  }

  MEMPortChunk *first() const noexcept { return pFirst_; }
  // Number of characters in all chunks.
  std::uint32_t total() const noexcept { return total_ + used(); }

  // Overwrites the header's characters in the first chunk.
  void writeHeader(std::uint32_t structures) noexcept;

  // Updates Used of the current chunk, if there is one.
  void noteUsed() noexcept {
    if (pCurrent_ != nullptr) pCurrent_->Used = static_cast<std::int32_t>(used());
  }
  // Clears the scratch characters after the text.
  void clearSpill() noexcept;

 private:
  std::uint32_t used() const noexcept {
    return static_cast<std::uint32_t>(pNext_ - pCurrent_->Text);
  }
  // Out of line, so that the usual paths stay short.
  MEM_NOINLINE bool addChunk() noexcept;
  MEM_NOINLINE bool appendAcross(std::string_view text) noexcept;
  MEMPortChunk *obtainChunk() const noexcept;
  void begin(MEMPortChunk *pChunk) noexcept;

  HMEMHEAP hMemHeap_ = nullptr;
  std::int32_t capacity_ = 0;
  std::uint32_t total_ = 0;  // characters in the chunks before the current one
  MEMPortChunk *pFirst_ = nullptr;
  MEMPortChunk *pCurrent_ = nullptr;
  char *pNext_ = nullptr;  // where the current chunk continues
  char *pEnd_ = nullptr;   // where it is full
};

}  // namespace memlib
