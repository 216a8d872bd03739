#include "frame/errortext.h"

namespace memlib {

void ErrorText::append(char c) noexcept {
  if (length_ + 1 < sizeof text_) text_[length_++] = c;
}

ErrorText &ErrorText::text(const char *pText) noexcept {
  while (*pText != '\0') append(*pText++);
  return *this;
}

ErrorText &ErrorText::decimal(std::int64_t value) noexcept {
  char digits[20];
  std::size_t count = 0;
  // Negation in unsigned arithmetic is right for the smallest value, too.
  std::uint64_t rest =
      value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  do {
    digits[count++] = static_cast<char>('0' + rest % 10);
    rest /= 10;
  } while (rest != 0);
  if (value < 0) append('-');
  while (count > 0) append(digits[--count]);
  return *this;
}

ErrorText &ErrorText::hex(std::uint64_t value, int digits) noexcept {
  for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) {
    append("0123456789ABCDEF"[(value >> shift) & 0xF]);
  }
  return *this;
}

ErrorText &ErrorText::pointer(const void *pAddress) noexcept {
  return hex(reinterpret_cast<std::uintptr_t>(pAddress), 16);
}

}  // namespace memlib
