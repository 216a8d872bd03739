// Conversion of UTF-32 to UTF-16, both in the machine's byte order.
#pragma once

#include <cstdint>

namespace memlib {

// Results other than 0 = success.
inline constexpr std::uint16_t kConvertBadInput = 1;  // a value that is not a character
inline constexpr std::uint16_t kConvertNoRoom = 2;

// Converts the NUL-terminated text at `pIn` into at most `outLen` bytes at `pOut`, the terminator
// included.
std::uint16_t utf32ToUtf16(const void *pIn, void *pOut, std::int32_t outLen) noexcept;

}  // namespace memlib
