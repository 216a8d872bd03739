// Processes text eight characters at a time: runs of digits, and runs of plain characters, which
// are not escaped. Reads nothing at or after the end that the caller passes. Also the parts of a
// text that the standard library gives only with a check.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/bytes.h"
#include "platform/check.h"

namespace memlib {

// Parts of a text whose range is known to be valid. The standard library's functions check the
// range and throw; code that can throw links in a runtime that allocates storage when the library
// is loaded. REQUIRES: count <= text.size().
inline std::string_view firstOf(std::string_view text, std::size_t count) noexcept {
  MEM_ASSERT(count <= text.size());
  return {text.data(), count};
}
inline std::string_view behind(std::string_view text, std::size_t count) noexcept {
  MEM_ASSERT(count <= text.size());
  return {text.data() + count, text.size() - count};
}

// Eight characters, the first one in the lowest byte.
using TextWord = std::uint64_t;
static_assert(std::endian::native == std::endian::little);

inline constexpr std::size_t kTextWordLen = sizeof(TextWord);
inline constexpr std::uint32_t kTextWordDigits = 100000000;  // 10 to the power of the word's length

constexpr TextWord everyByte(char c) noexcept {
  return static_cast<unsigned char>(c) * TextWord{0x0101010101010101};
}

// The index of the lowest mark. Marks are bits in the bytes of a word. Only the lowest one is
// reliable; those above it may come from a carry.
constexpr std::size_t charactersBelow(TextWord marks) noexcept {
  return static_cast<std::size_t>(std::countr_zero(marks)) / 8;  // without a mark: all characters
}

// Marks the characters that are not digits, in a word whose digits are already values. Marks are
// the highest bits of their bytes.
constexpr TextWord marksOfNonDigits(TextWord values) noexcept {
  return (values | (values + everyByte(0x7F - 9))) & everyByte('\x80');
}
// The bytes below the lowest mark. REQUIRES: there is one.
inline TextWord bytesBelow(TextWord marks) noexcept {
  MEM_ASSERT(marks != 0);
  return (marks ^ (marks - 1)) >> 8;
}

constexpr TextWord marksOfZeros(TextWord word) noexcept {
  return (word - everyByte(1)) & ~word & everyByte('\x80');
}
// Marks the characters that end plain text: the closing quote or the "/" of an escape. Equals
// marksOfZeros of both differences; a byte and its differences have the same highest bit.
constexpr TextWord marksOfSpecials(TextWord word, char quote) noexcept {
  const TextWord quotes = (word ^ everyByte(quote)) - everyByte(1);
  const TextWord escapes = (word ^ everyByte('/')) - everyByte(1);
  return (quotes | escapes) & ~word & everyByte('\x80');
}

// The number in eight bytes of 0 to 9; the lowest byte is the least significant digit. Each step
// combines two adjacent values in the place of the upper one; no sum overflows its place.
constexpr std::uint32_t reversedNumber(TextWord values) noexcept {
  values = values * (10 + (TextWord{1} << 8)) >> 8 & 0x00FF00FF00FF00FF;
  values = values * (100 + (TextWord{1} << 16)) >> 16 & 0x0000FFFF0000FFFF;
  return static_cast<std::uint32_t>(values * (10000 + (TextWord{1} << 32)) >> 32);
}
static_assert(reversedNumber(0x0807060504030201) == 87654321);
static_assert(reversedNumber(0x0909090909090909) == kTextWordDigits - 1);

constexpr bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

// Fewer than a word of reversed digits, least significant first.
struct ShortNumber {
  std::uint32_t value;
  const char *pBehind;  // null when there are more digits
};

// REQUIRES: a word of characters at `p`.
inline ShortNumber shortNumber(const char *p) noexcept {
  const TextWord values = loadAs<TextWord>(p) ^ everyByte('0');
  const TextWord others = marksOfNonDigits(values);
  if (others == 0) return {0, nullptr};
  return {reversedNumber(values & bytesBelow(others)), p + charactersBelow(others)};
}

// The same, optimised for numbers of one or two digits whose length rarely changes. The processor
// then predicts where the text continues.
inline ShortNumber shorterNumber(const char *p) noexcept {
  if (isDigit(p[0])) {
    const auto first = static_cast<std::uint32_t>(p[0] - '0');
    if (!isDigit(p[1])) return {first, p + 1};
    if (!isDigit(p[2])) return {first + 10 * static_cast<std::uint32_t>(p[1] - '0'), p + 2};
  }
  return shortNumber(p);
}

// Any number of reversed digits. Excess digits wrap in 64 bits.
class ReversedDigits {
 public:
  std::uint64_t value() const noexcept { return value_; }

  // Reads the digits at `p` and returns the address after them.
  const char *take(const char *p, const char *pEnd) noexcept {
    for (; pEnd - p >= static_cast<std::ptrdiff_t>(kTextWordLen); p += kTextWordLen) {
      const ShortNumber rest = shortNumber(p);
      if (rest.pBehind != nullptr) {
        value_ += rest.value * weight_;
        return rest.pBehind;
      }
      const TextWord values = loadAs<TextWord>(p) ^ everyByte('0');
      value_ += reversedNumber(values) * weight_;
      weight_ *= kTextWordDigits;
    }
    for (; p != pEnd && isDigit(*p); ++p) {
      value_ += static_cast<std::uint64_t>(*p - '0') * weight_;
      weight_ *= 10;
    }
    return p;
  }

 private:
  std::uint64_t value_ = 0;
  std::uint64_t weight_ = 1;
};

// Whether a zero is a plain character. Writers escape it.
enum class Zeros : bool { plain, escaped };

// Number of plain characters before the first `quote`, "/" or escaped zero.
inline std::size_t plainLength(std::string_view text, char quote,
                               Zeros zeros = Zeros::plain) noexcept {
  std::size_t i = 0;
  for (; text.size() - i >= kTextWordLen; i += kTextWordLen) {
    const auto word = loadAs<TextWord>(text.data() + i);
    TextWord marks = marksOfSpecials(word, quote);
    if (zeros == Zeros::escaped) marks |= marksOfZeros(word);
    if (marks != 0) return i + charactersBelow(marks);
  }
  const auto isPlain = [quote, zeros](char c) noexcept {
    return c != quote && c != '/' && (c != '\0' || zeros == Zeros::plain);
  };
  while (i < text.size() && isPlain(text.data()[i])) ++i;
  return i;
}

}  // namespace memlib
