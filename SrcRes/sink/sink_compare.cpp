#include "sink/sink_compare.h"

#include <cstring>

#include "base/bytes.h"
#include "platform/textscan.h"

namespace memlib {

namespace {

// First position below `limit` at which the two differ, or `limit`.
std::size_t firstDifference(const std::uint8_t *pInput, const std::uint8_t *pCopy,
                            std::size_t limit) noexcept {
  std::size_t i = 0;
  while (i + 8 <= limit && loadAs<std::uint64_t>(pInput + i) == loadAs<std::uint64_t>(pCopy + i)) {
    i += 8;
  }
  while (i < limit && pInput[i] == pCopy[i]) ++i;
  return i;
}

// True when a copy ends where an input of `length` bytes does: its next two bytes are zero, three
// at an odd position.
bool endsAt(const std::uint8_t *pCopy, std::size_t length) noexcept {
  const bool isOdd = length % 2 != 0;
  return pCopy[length] == 0 && pCopy[length + 1] == 0 && (!isOdd || pCopy[length + 2] == 0);
}

}  // namespace

SinkText measureText(const void *pText, bool isWide) noexcept {
  const std::size_t length =
      isWide ? wideLength(pText) * sizeof(char16_t) : std::strlen(static_cast<const char *>(pText));
  return {static_cast<const std::uint8_t *>(pText), length, isWide};
}

// A copy that is shorter than the input needs no separate test: the input has no two zero bytes
// there, so the first differing byte of the copy is one of its terminating zeros, which is smaller.
int PSTssecmp(const SinkText &input, const std::uint8_t *pCopy, std::size_t room) noexcept {
  const std::size_t limit = input.length < room ? input.length : room;
  const std::size_t i = firstDifference(input.pBytes, pCopy, limit);
  if (i < limit) return input.pBytes[i] < pCopy[i] ? -1 : 1;
  return endsAt(pCopy, input.length) ? 0 : -1;
}

std::size_t copyEnd(const std::uint8_t *pCopy) noexcept {
  return wideLength(pCopy) * sizeof(char16_t);
}

}  // namespace memlib
