// Numbers as a port string writes them: decimal, least significant digit first, 0 as nothing.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "bytes.h"

namespace mem {

// Characters that putReversed may store, with those behind the end that it returns.
inline constexpr std::size_t kMostStoredDigits = 24;

// The eight decimal digits of a number below 10^8, a byte each, the least significant one in the
// low byte. Halves, quarters and digits are divided in all places of the word at once; the factors
// are rounded reciprocals of 100 and 10 that are exact below 10^4 and 10^2.
constexpr std::uint64_t spreadDigits(std::uint32_t value) noexcept {
  const std::uint64_t halves = value % 10000U | std::uint64_t{value / 10000U} << 32;
  const std::uint64_t hundreds = (halves * 10486U >> 20) & 0x0000007F0000007FU;
  const std::uint64_t quarters = (halves - hundreds * 100U) | hundreds << 16;
  const std::uint64_t tens = (quarters * 103U >> 10) & 0x000F000F000F000FU;
  return (quarters - tens * 10U) | tens << 8;
}

// Stores up to eight characters, the low byte first.
inline void putBytes(char *pTo, std::uint64_t bytes) noexcept {
  if constexpr (std::endian::native == std::endian::little) {
    storeAs(pTo, bytes);
  } else {
    for (int i = 0; i < 8; ++i) pTo[i] = static_cast<char>(bytes >> 8 * i & 0xFF);
  }
}

// Stores the digits and returns their end. REQUIRES: room for kMostStoredDigits characters.
inline char *putReversed(char *pTo, std::uint64_t value) noexcept {
  constexpr std::uint64_t kZeros = 0x3030303030303030U;
  constexpr std::uint32_t kEightDigits = 100000000;
  for (; value >= kEightDigits; value /= kEightDigits, pTo += 8) {
    putBytes(pTo, spreadDigits(static_cast<std::uint32_t>(value % kEightDigits)) + kZeros);
  }
  // The highest digit is none of the zeros, so the bytes in use are the digits of the number.
  const std::uint64_t digits = spreadDigits(static_cast<std::uint32_t>(value));
  putBytes(pTo, digits + kZeros);
  return pTo + (64 - std::countl_zero(digits) + 7) / 8;
}

}  // namespace mem
