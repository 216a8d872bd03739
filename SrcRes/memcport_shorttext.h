// Short texts that are pointed to, as most are: where they end, whether all of their characters
// stand for themselves, and their copy, from a few wide loads.
//
// The loads may reach beyond a text, but not out of the page in which it begins. So they fault when
// reading the text does, and only then.
#pragma once

#include <bit>
#include <cstdint>

#include "memcport_digits.h"
#include "platform.h"

namespace mem {

#if MEM_HAS_SSE2

// Characters of a text and what follows it.
class TextBlock {
 public:
  static constexpr std::uint32_t kLen = 32;

  // REQUIRES: kLen characters that can be read, though they may be somebody else's.
  MEM_READS_BEYOND explicit TextBlock(const char *pFrom) noexcept
      : low_(_mm_loadu_si128(reinterpret_cast<const __m128i *>(pFrom))),
        high_(_mm_loadu_si128(reinterpret_cast<const __m128i *>(pFrom) + 1)) {}

  bool hasEnd() const noexcept { return ends() != 0; }
  // REQUIRES: the text ends in the block.
  std::uint32_t length() const noexcept {
    return static_cast<std::uint32_t>(std::countr_zero(ends()));
  }
  // True when no character of the text, as far as the block has it, stands behind "/".
  bool isPlain() const noexcept {
    const std::uint32_t inFront = (ends() - 1) & ~ends();  // all of them without an end
    return ((places('"') | places('/')) & inFront) == 0;
  }

  void store(char *pTo) const noexcept {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(pTo), low_);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(pTo) + 1, high_);
  }

 private:
  std::uint32_t ends() const noexcept { return places('\0'); }
  // One bit for each character that is `c`.
  std::uint32_t places(char c) const noexcept {
    const __m128i wanted = _mm_set1_epi8(c);
    const int low = _mm_movemask_epi8(_mm_cmpeq_epi8(low_, wanted));
    const int high = _mm_movemask_epi8(_mm_cmpeq_epi8(high_, wanted));
    return static_cast<std::uint32_t>(low) | static_cast<std::uint32_t>(high) << 16;
  }

  __m128i low_;
  __m128i high_;
};

// Characters that putShortText may store, with those behind the end that it returns.
inline constexpr std::size_t kMostShortText = kMostStoredDigits + 1 + 2 * TextBlock::kLen;

// Stores the length of a text and the text between double quotes, and returns the end of that.
// Null when the text is not short or has characters to escape, or lies at the end of a page.
// REQUIRES: room for kMostShortText characters.
inline char *putShortText(char *pTo, const char *pText) noexcept {
  constexpr std::uintptr_t kPageLen = 4096;  // of the smallest pages of these processors
  constexpr std::uintptr_t kLastPlace = kPageLen - 2 * TextBlock::kLen;
  if (reinterpret_cast<std::uintptr_t>(pText) % kPageLen > kLastPlace) return nullptr;
  const TextBlock first(pText);
  if (!first.isPlain()) return nullptr;
  if (first.hasEnd()) {
    pTo = putReversed(pTo, first.length());
    first.store(pTo + 1);
    *pTo = '"';
    pTo += 1 + first.length();
  } else {
    const TextBlock second(pText + TextBlock::kLen);
    if (!second.hasEnd() || !second.isPlain()) return nullptr;
    const std::uint32_t length = TextBlock::kLen + second.length();
    pTo = putReversed(pTo, length);
    first.store(pTo + 1);
    second.store(pTo + 1 + TextBlock::kLen);
    *pTo = '"';
    pTo += 1 + length;
  }
  *pTo = '"';
  return pTo + 1;
}

#else

inline constexpr std::size_t kMostShortText = 0;

inline char *putShortText(char *, const char *) noexcept {
  return nullptr;
}

#endif

}  // namespace mem
