// Code points of UTF-16 and UTF-32 text at any address, aligned or not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace refhost {

inline constexpr char32_t kReplacement = 0xFFFD;
inline constexpr char32_t kLastCodePoint = 0x10FFFF;

inline bool isHighSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
inline bool isLowSurrogate(char32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}
inline bool isSurrogate(char32_t unit) {
  return isHighSurrogate(unit) || isLowSurrogate(unit);
}

// Unit number `index` (char16_t or char32_t) of a text at any address.
template <class Unit>
Unit loadUnit(const void *text, std::size_t index) {
  Unit unit;
  std::memcpy(&unit, static_cast<const char *>(text) + index * sizeof(Unit), sizeof(Unit));
  return unit;
}

template <class Unit>
std::size_t unitsToTerminator(const void *text) {
  std::size_t count = 0;
  while (loadUnit<Unit>(text, count) != 0) ++count;
  return count;
}

// A code point with the number of its units. A unit that begins no code point is invalid and counts
// as one.
struct Decoded {
  char32_t codePoint;
  std::size_t units;
  bool isValid;
};

// REQUIRES: index < count.
Decoded decodeUtf16(const void *text, std::size_t index, std::size_t count);
Decoded decodeUtf32(const void *text, std::size_t index);

// Stores 1 to 4 bytes at `out` and returns their number.
std::size_t encodeUtf8(char32_t codePoint, char (&out)[4]);

// Invalid units become U+FFFD, a null text "(null)".
std::string utf8FromUtf16(const char16_t *text);

}  // namespace refhost
