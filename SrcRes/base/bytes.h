// Loads and stores of values at addresses that may be unaligned or hold another type, byte swaps,
// copies of short ranges, and the comparison of eye-catchers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/check.h"

namespace memlib {

template <class T>
inline T loadAs(const void *pFrom) noexcept {
  T value;
  std::memcpy(&value, pFrom, sizeof value);
  return value;
}

template <class T>
inline void storeAs(void *pTo, T value) noexcept {
  std::memcpy(pTo, &value, sizeof value);
}

template <class T>
constexpr T byteSwapped(T value) noexcept {
  static_assert(sizeof(T) == 2 || sizeof(T) == 4);
  const auto bits = static_cast<std::uint32_t>(value);
  if constexpr (sizeof(T) == 2) {
    return static_cast<T>(((bits & 0xFF) << 8) | ((bits >> 8) & 0xFF));
  } else {
    return static_cast<T>((bits << 24) | ((bits & 0xFF00) << 8) | ((bits >> 8) & 0xFF00) |
                          (bits >> 24));
  }
}

inline std::byte *bytesAt(void *pBase, std::size_t offset) noexcept {
  return static_cast<std::byte *>(pBase) + offset;
}

inline const std::byte *bytesAt(const void *pBase, std::size_t offset) noexcept {
  return static_cast<const std::byte *>(pBase) + offset;
}

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

// An eye-catcher is eight characters without a terminator at the start of a control block.
inline constexpr std::size_t kEyecatcherLen = 8;
using Eyecatcher = char[kEyecatcherLen + 1];

inline bool hasEyecatcher(const void *pBlock, const Eyecatcher &expected) noexcept {
  return std::memcmp(pBlock, expected, kEyecatcherLen) == 0;
}

inline void writeEyecatcher(void *pBlock, const Eyecatcher &text) noexcept {
  std::memcpy(pBlock, text, kEyecatcherLen);
}

}  // namespace memlib
