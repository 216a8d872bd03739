#include "platform/textscan.h"

#include "platform/check.h"

namespace memlib {

namespace {

const std::byte *at(const void *pText, std::size_t offset) noexcept {
  return static_cast<const std::byte *>(pText) + offset;
}

bool isZeroUnit(const void *pText, std::size_t unit) noexcept {
  char16_t value;
  std::memcpy(&value, at(pText, unit * sizeof value), sizeof value);
  return value == 0;
}

#if MEM_HAS_SSE2

constexpr std::size_t kStep = sizeof(__m128i);
constexpr std::size_t kStepUnits = kStep / sizeof(char16_t);

const __m128i *stepAt(const void *pText, std::size_t offset) noexcept {
  return reinterpret_cast<const __m128i *>(at(pText, offset));
}

// The first zero unit of one or more steps.
template <class Bits>
std::size_t unitAt(std::size_t offset, Bits zeros) noexcept {
  return (offset + static_cast<std::uint32_t>(std::countr_zero(zeros))) / sizeof(char16_t);
}

bool isPlain(__m128i characters, char quote) noexcept {
  const __m128i quotes = _mm_cmpeq_epi8(characters, _mm_set1_epi8(quote));
  const __m128i escapes = _mm_cmpeq_epi8(characters, _mm_set1_epi8('/'));
  return _mm_movemask_epi8(_mm_or_si128(quotes, escapes)) == 0;
}

bool copyPlainStep(std::byte *pTo, const char *pFrom, char quote) noexcept {
  const __m128i step = _mm_loadu_si128(stepAt(pFrom, 0));
  if (!isPlain(step, quote)) return false;
  _mm_storeu_si128(reinterpret_cast<__m128i *>(pTo), step);
  return true;
}

// REQUIRES: length >= kStep. The last step may overlap the one before it.
bool copyPlainSteps(std::byte *pTo, const char *pFrom, std::size_t length, char quote) noexcept {
  const std::size_t last = length - kStep;
  for (std::size_t i = 0; i < last; i += kStep) {
    if (!copyPlainStep(pTo + i, pFrom + i, quote)) return false;
  }
  return copyPlainStep(pTo + last, pFrom + last, quote);
}

// Text of one to two halves, which may overlap.
template <class Half>
bool copyPlainHalves(std::byte *pTo, const char *pFrom, std::size_t length, char quote) noexcept {
  const std::size_t behind = length - sizeof(Half);
  Half first;
  Half last;
  std::memcpy(&first, pFrom, sizeof first);
  std::memcpy(&last, pFrom + behind, sizeof last);
  // The zeros that fill up halves of less than 8 characters are plain.
  const __m128i both =
      _mm_set_epi64x(static_cast<std::int64_t>(last), static_cast<std::int64_t>(first));
  if (!isPlain(both, quote)) return false;
  std::memcpy(pTo, &first, sizeof first);
  std::memcpy(pTo + behind, &last, sizeof last);
  return true;
}

#endif

#if MEM_READS_ALIGNED

constexpr std::size_t kStride = 4 * kStep;

// The zero units of a stride; each step has a quarter of the bits.
std::uint64_t zerosOfStride(const __m128i *pSteps) noexcept {
  const __m128i none = _mm_setzero_si128();
  const __m128i a = _mm_cmpeq_epi16(_mm_load_si128(pSteps), none);
  const __m128i b = _mm_cmpeq_epi16(_mm_load_si128(pSteps + 1), none);
  const __m128i c = _mm_cmpeq_epi16(_mm_load_si128(pSteps + 2), none);
  const __m128i d = _mm_cmpeq_epi16(_mm_load_si128(pSteps + 3), none);
  if (_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d))) == 0) return 0;
  const auto bits = [](__m128i zeros, int step) noexcept {
    return static_cast<std::uint64_t>(_mm_movemask_epi8(zeros)) << 16 * step;
  };
  return bits(a, 0) | bits(b, 1) | bits(c, 2) | bits(d, 3);
}

#endif

// Character by character.
bool copyPlainEach(std::byte *pTo, const char *pFrom, std::size_t length, char quote) noexcept {
  for (std::size_t i = 0; i < length; ++i) {
    if (pFrom[i] == quote || pFrom[i] == '/') return false;
    pTo[i] = static_cast<std::byte>(pFrom[i]);
  }
  return true;
}

}  // namespace

std::size_t plainWideLength(const void *pText) noexcept {
  std::size_t units = 0;
  while (!isZeroUnit(pText, units)) ++units;
  return units;
}

#if MEM_READS_ALIGNED
// Single steps up to an aligned stride, which never crosses a page either.
std::size_t wideLengthFrom(const void *pText, std::size_t offset) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(pText);
  MEM_ASSERT((address + offset) % kStep == 0);
  for (; (address + offset) % kStride != 0; offset += kStep) {
    const std::uint32_t zeros = zeroUnits(_mm_load_si128(stepAt(pText, offset)));
    if (zeros != 0) return unitAt(offset, zeros);
  }
  for (;; offset += kStride) {
    const std::uint64_t zeros = zerosOfStride(stepAt(pText, offset));
    if (zeros != 0) return unitAt(offset, zeros);
  }
}
#endif

std::size_t wideLengthWithin(const void *pText, std::size_t most) noexcept {
  std::size_t units = 0;
#if MEM_HAS_SSE2
  for (; most - units >= kStepUnits; units += kStepUnits) {
    const std::size_t offset = units * sizeof(char16_t);
    const std::uint32_t zeros = zeroUnits(_mm_loadu_si128(stepAt(pText, offset)));
    if (zeros != 0) return unitAt(offset, zeros);
  }
#endif
  while (units < most && !isZeroUnit(pText, units)) ++units;
  return units;
}

bool copyPlain(std::byte *pTo, const char *pFrom, std::size_t length, char quote) noexcept {
#if MEM_HAS_SSE2
  if (length >= kStep) return copyPlainSteps(pTo, pFrom, length, quote);
  if (length >= 8) return copyPlainHalves<std::uint64_t>(pTo, pFrom, length, quote);
  if (length >= 4) return copyPlainHalves<std::uint32_t>(pTo, pFrom, length, quote);
#endif
  return copyPlainEach(pTo, pFrom, length, quote);
}

}  // namespace memlib
