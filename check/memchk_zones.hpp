// Bytes that nobody may touch, filled with a pattern and looked at later. Sanitizers do not see
// what is done here, and valgrind lets it pass: the bytes are denied to everybody else.
#pragma once

#include <cstddef>
#include <cstdint>

namespace memchk::zones {

inline constexpr std::uint8_t kZone = 0xFB;   // before and after entries
inline constexpr std::uint8_t kFreed = 0xDF;  // in freed entries and cells

// What has been written to: `length` bytes from `offset` on, the unchanged ones between included.
// No damage has length 0.
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
