// Finds the end of text and copies plain text with the widest loads that every processor of the
// platform has. The place that searches for the end of wide text, and of narrow text of limited
// length. Exceptions: trace records, which copy text while they scan it, and the port writer's
// CharSZ fields.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/platform.h"

namespace memlib {

#if MEM_HAS_SSE2
// One bit for each byte of a unit that is zero.
inline std::uint32_t zeroUnits(__m128i units) noexcept {
  return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi16(units, _mm_setzero_si128())));
}
#endif

// Counts the units before the terminator one by one.
std::size_t plainWideLength(const void *pText) noexcept;

#if MEM_READS_ALIGNED
// As wideLength, for text without a terminator in the first `offset` bytes.
// REQUIRES: the address at `offset` is a multiple of 16.
std::size_t wideLengthFrom(const void *pText, std::size_t offset) noexcept;
#endif

// Units before the zero unit that ends the text. The text may have any alignment. Only pages that
// contain part of the text are read.
inline std::size_t wideLength(const void *pText) noexcept {
#if MEM_READS_ALIGNED
  const auto address = reinterpret_cast<std::uintptr_t>(pText);
  if (address % sizeof(char16_t) != 0) return plainWideLength(pText);
  const auto before = static_cast<std::uint32_t>(address % sizeof(__m128i));
  const auto *pFirst = reinterpret_cast<const __m128i *>(address & ~std::uintptr_t{15});
  const std::uint32_t zeros = zeroUnits(_mm_load_si128(pFirst)) >> before;
  if (zeros == 0) return wideLengthFrom(pText, sizeof(__m128i) - before);
  return static_cast<std::uint32_t>(std::countr_zero(zeros)) / sizeof(char16_t);
#else
  return plainWideLength(pText);
#endif
}

// The same for text that may lack a terminator: at most `most` units; nothing after them is read.
std::size_t wideLengthWithin(const void *pText, std::size_t most) noexcept;

// Characters before the NUL that ends narrow text, at most `most`; nothing after them is read.
// Inline for the first ones, because most texts are short.
inline std::size_t narrowLengthWithin(const void *pText, std::size_t most) noexcept {
  const auto *pBytes = static_cast<const std::byte *>(pText);
  std::size_t looked = 0;
#if MEM_HAS_SSE2
  for (; most - looked >= 2 * sizeof(__m128i); looked += 2 * sizeof(__m128i)) {
    const auto *pHalves = reinterpret_cast<const __m128i *>(pBytes + looked);
    const __m128i low = _mm_cmpeq_epi8(_mm_loadu_si128(pHalves), _mm_setzero_si128());
    const __m128i high = _mm_cmpeq_epi8(_mm_loadu_si128(pHalves + 1), _mm_setzero_si128());
    const std::uint32_t zeros = static_cast<std::uint32_t>(_mm_movemask_epi8(low)) |
                                static_cast<std::uint32_t>(_mm_movemask_epi8(high)) << 16;
    if (zeros != 0) return looked + static_cast<std::uint32_t>(std::countr_zero(zeros));
  }
#endif
  const void *pEnd = std::memchr(pBytes + looked, 0, most - looked);
  if (pEnd == nullptr) return most;
  return static_cast<std::size_t>(static_cast<const std::byte *>(pEnd) - pBytes);
}

// Copies text and returns true if neither `quote` nor "/" is in it. Otherwise `pTo` holds some of
// its characters. Reads and stores nothing outside the text. Out of line: inlined into the port
// string writer, it makes the writer's loop slower.
MEM_NOINLINE bool copyPlain(std::byte *pTo, const char *pFrom, std::size_t length,
                            char quote) noexcept;

}  // namespace memlib
