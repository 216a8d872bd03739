// Numbers as a port string writes them: decimal, least significant digit first, 0 as nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace memlib {

// Characters that putReversed may store, including those after the end that it returns.
inline constexpr std::size_t kMostStoredDigits = 24;

// Three digits of a number below 1000, and how many of them the number needs.
struct ThreeDigits {
  char text[3];
  std::uint8_t length;
};
static_assert(sizeof(ThreeDigits) == 4);

inline constexpr std::uint32_t kThousand = 1000;
inline constexpr std::array<ThreeDigits, kThousand> kThreeDigits = [] {
  std::array<ThreeDigits, kThousand> all{};
  for (std::uint32_t value = 0; value < kThousand; ++value) {
    std::uint32_t left = value;
    for (char &digit : all[value].text) {
      if (left != 0) ++all[value].length;
      digit = static_cast<char>('0' + left % 10);
      left /= 10;
    }
  }
  return all;
}();

// Stores the digits and returns their end. REQUIRES: room for kMostStoredDigits characters.
inline char *putReversed(char *pTo, std::uint64_t value) noexcept {
  for (; value >= kThousand; value /= kThousand, pTo += 3) {
    std::memcpy(pTo, &kThreeDigits[value % kThousand], sizeof(ThreeDigits));
  }
  const ThreeDigits &last = kThreeDigits[value];
  std::memcpy(pTo, &last, sizeof last);
  return pTo + last.length;
}

}  // namespace memlib
