// Bytes that no component may use: filled with a pattern and checked later. Memory checkers, which
// deny all other access to them, do not report what the functions here do.
#pragma once

#include <cstddef>
#include <cstdint>

namespace memchk::zones {

inline constexpr std::uint8_t kZone = 0xFB;   // before and after entries
inline constexpr std::uint8_t kFreed = 0xDF;  // in freed entries and cells

// Where a pattern was overwritten: from the first changed byte, at `offset`, to the last one.
// Without damage `length` is 0.
struct Damage {
  std::size_t offset = 0;
  std::size_t length = 0;
  explicit operator bool() const noexcept { return length != 0; }
};

void fill(void *pBytes, std::size_t length, std::uint8_t pattern) noexcept;
Damage look(const void *pBytes, std::size_t length, std::uint8_t pattern) noexcept;

// Short copies to and from denied bytes.
void copyIn(void *pTo, const void *pFrom, std::size_t length) noexcept;
void copyOut(void *pTo, const void *pFrom, std::size_t length) noexcept;

}  // namespace memchk::zones
