// Copies of short byte ranges.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bytes.h"
#include "platform/check.h"

namespace memlib {

// Copies `length` bytes as two pieces, one at each end. The pieces may overlap.
// REQUIRES: sizeof(Piece) <= length <= 2 * sizeof(Piece).
template <class Piece>
inline void copyEnds(void *pTo, const void *pFrom, std::size_t length) noexcept {
  MEM_ASSERT(length >= sizeof(Piece) && length <= 2 * sizeof(Piece));
  const auto first = loadAs<Piece>(pFrom);
  const auto last = loadAs<Piece>(bytesAt(pFrom, length - sizeof(Piece)));
  storeAs(pTo, first);
  storeAs(bytesAt(pTo, length - sizeof(Piece)), last);
}

// Copies `length` bytes between ranges that do not overlap. Optimised for short lengths: a pair of
// overlapping stores is faster than a call of memcpy.
inline void copyBytes(void *pTo, const void *pFrom, std::size_t length) noexcept {
  struct Block {
    std::uint64_t words[2];
  };
  constexpr std::size_t kPairLen = 2 * sizeof(Block);
  if (length > 2 * kPairLen) {
    std::memcpy(pTo, pFrom, length);
  } else if (length > kPairLen) {
    const std::size_t second = length - kPairLen;
    copyEnds<Block>(pTo, pFrom, kPairLen);
    copyEnds<Block>(bytesAt(pTo, second), bytesAt(pFrom, second), kPairLen);
  } else if (length >= sizeof(Block)) {
    copyEnds<Block>(pTo, pFrom, length);
  } else if (length >= sizeof(std::uint64_t)) {
    copyEnds<std::uint64_t>(pTo, pFrom, length);
  } else if (length >= sizeof(std::uint32_t)) {
    copyEnds<std::uint32_t>(pTo, pFrom, length);
  } else {
    for (std::size_t i = 0; i < length; ++i) *bytesAt(pTo, i) = *bytesAt(pFrom, i);
  }
}

}  // namespace memlib
