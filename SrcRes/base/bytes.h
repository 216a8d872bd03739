// Loads and stores of values at addresses that may be unaligned or hold another type, byte swaps,
// and the comparison of eye-catchers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

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
