#include "memcstrg_compare.h"

#include <cstring>

#include "bytes.h"

namespace mem {

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
  const auto *pBytes = static_cast<const std::uint8_t *>(pText);
  std::size_t length = 0;
  if (isWide) {
    while (loadAs<char16_t>(pBytes + length) != 0) length += sizeof(char16_t);
  } else {
    length = std::strlen(reinterpret_cast<const char *>(pBytes));
  }
  return {pBytes, length, isWide};
}

// Within the input's length a copy that ends early needs no test of its own: the input has no two
// zero bytes there, so the copy's first differing byte is one of its terminating zeros, and
// smaller.
int PSTssecmp(const SinkText &input, const std::uint8_t *pCopy, std::size_t room) noexcept {
  const std::size_t limit = input.length < room ? input.length : room;
  const std::size_t i = firstDifference(input.pBytes, pCopy, limit);
  if (i < limit) return input.pBytes[i] < pCopy[i] ? -1 : 1;
  return endsAt(pCopy, input.length) ? 0 : -1;
}

std::size_t copyEnd(const std::uint8_t *pCopy) noexcept {
  std::size_t end = 0;
  while (pCopy[end] != 0 || pCopy[end + 1] != 0) end += 2;
  return end;
}

}  // namespace mem
