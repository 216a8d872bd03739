// Short texts that are pointed to, as most are: their copy, and whether all of their characters
// stand for themselves, from a few wide loads. Nothing behind a text is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/bytes.h"
#include "platform/platform.h"
#include "port/write/digits.h"

namespace mem {

#if MEM_HAS_SSE2

// Copies a text piece by piece, and looks for characters that stand behind "/".
class ShortTextCopy {
 public:
  static constexpr std::size_t kMostLen = 64;

  // REQUIRES: length <= kMostLen.
  ShortTextCopy(char *pTo, const char *pFrom, std::size_t length) noexcept
      : pTo_(pTo), pFrom_(pFrom) {
    if (length > 2 * kBlockLen) {
      copyBlock(kBlockLen);
      copyBlock(length - 2 * kBlockLen);
    }
    if (length >= kBlockLen) {
      copyBlock(0);
      copyBlock(length - kBlockLen);
    } else if (length >= sizeof(std::uint64_t)) {
      copyPair<std::uint64_t>(length);
    } else if (length >= sizeof(std::uint32_t)) {
      copyPair<std::uint32_t>(length);
    } else {
      for (std::size_t i = 0; i < length; ++i) copyOne(i);
    }
  }

  bool isPlain() const noexcept { return _mm_movemask_epi8(specials_) == 0; }

 private:
  static constexpr std::size_t kBlockLen = sizeof(__m128i);

  void look(__m128i characters) noexcept {
    const __m128i quotes = _mm_cmpeq_epi8(characters, _mm_set1_epi8('"'));
    const __m128i slashes = _mm_cmpeq_epi8(characters, _mm_set1_epi8('/'));
    specials_ = _mm_or_si128(specials_, _mm_or_si128(quotes, slashes));
  }
  void copyBlock(std::size_t place) noexcept {
    const auto block = loadAs<__m128i>(pFrom_ + place);
    storeAs(pTo_ + place, block);
    look(block);
  }
  // A piece of one to two words, by its ends.
  template <class Word>
  void copyPair(std::size_t length) noexcept {
    const std::size_t last = length - sizeof(Word);
    const auto low = loadAs<Word>(pFrom_);
    const auto high = loadAs<Word>(pFrom_ + last);
    storeAs(pTo_, low);
    storeAs(pTo_ + last, high);
    look(_mm_set_epi64x(static_cast<std::int64_t>(high), static_cast<std::int64_t>(low)));
  }
  void copyOne(std::size_t place) noexcept {
    pTo_[place] = pFrom_[place];
    look(_mm_cvtsi32_si128(pFrom_[place]));
  }

  char *pTo_;
  const char *pFrom_;
  __m128i specials_ = _mm_setzero_si128();
};

// Characters that putShortText may store, with those behind the end that it returns.
inline constexpr std::size_t kMostShortText = kMostStoredDigits + 2 + ShortTextCopy::kMostLen;

// Stores the length of a text and the text between double quotes, and returns the end of that.
// Null when the text is not short or has characters to escape.
// REQUIRES: room for kMostShortText characters.
inline char *putShortText(char *pTo, const char *pText) noexcept {
  const std::size_t length = std::strlen(pText);
  if (length > ShortTextCopy::kMostLen) return nullptr;
  pTo = putReversed(pTo, length);
  if (!ShortTextCopy(pTo + 1, pText, length).isPlain()) return nullptr;
  *pTo = '"';
  pTo += 1 + length;
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
