#include "memchk_zones.hpp"

#include "memchk_checkers.hpp"

// The functions that use denied bytes are compiled without sanitizers. They call nothing.
#if defined(__clang__) || defined(__GNUC__)
#define MEMCHK_UNSEEN __attribute__((no_sanitize("address", "thread", "undefined"), noinline))
#else
#define MEMCHK_UNSEEN
#endif

namespace memchk::zones {

namespace {

#if defined(__clang__) || defined(__GNUC__)
using Word __attribute__((aligned(1), may_alias)) = std::uint64_t;
#else
using Word = std::uint8_t;
#endif

constexpr Word kEachByte = static_cast<Word>(0x0101010101010101ULL);

MEMCHK_UNSEEN void fillUnseen(std::uint8_t *pBytes, std::size_t length,
                              std::uint8_t pattern) noexcept {
  const Word word = pattern * kEachByte;
  for (; length >= sizeof(Word); length -= sizeof(Word), pBytes += sizeof(Word)) {
    *reinterpret_cast<Word *>(pBytes) = word;
  }
  for (; length > 0; --length) *pBytes++ = pattern;
}

MEMCHK_UNSEEN Damage lookUnseen(const std::uint8_t *pBytes, std::size_t length,
                                std::uint8_t pattern) noexcept {
  const Word word = pattern * kEachByte;
  std::size_t first = 0;
  while (length - first >= sizeof(Word) &&
         *reinterpret_cast<const Word *>(pBytes + first) == word) {
    first += sizeof(Word);
  }
  while (first < length && pBytes[first] == pattern) ++first;
  if (first == length) return {};
  std::size_t end = length;
  while (pBytes[end - 1] == pattern) --end;
  return {first, end - first};
}

MEMCHK_UNSEEN void copyUnseen(std::uint8_t *pTo, const std::uint8_t *pFrom,
                              std::size_t length) noexcept {
  for (std::size_t i = 0; i < length; ++i) pTo[i] = pFrom[i];
}

}  // namespace

void fill(void *pBytes, std::size_t length, std::uint8_t pattern) noexcept {
  const checkers::Leave leave;
  fillUnseen(static_cast<std::uint8_t *>(pBytes), length, pattern);
}

Damage look(const void *pBytes, std::size_t length, std::uint8_t pattern) noexcept {
  const checkers::Leave leave;
  return lookUnseen(static_cast<const std::uint8_t *>(pBytes), length, pattern);
}

void copyIn(void *pTo, const void *pFrom, std::size_t length) noexcept {
  const checkers::Leave leave;
  copyUnseen(static_cast<std::uint8_t *>(pTo), static_cast<const std::uint8_t *>(pFrom), length);
}

void copyOut(void *pTo, const void *pFrom, std::size_t length) noexcept {
  copyIn(pTo, pFrom, length);
}

}  // namespace memchk::zones
