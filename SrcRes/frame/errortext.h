// Composes error texts. The library formats these itself, so that a failing call with clear trace
// flags makes no format call and no text is ever used as a format.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qj7mem00/memhost.h"

namespace memlib {

class ErrorText {
 public:
  // `lead` is the fixed part before the value, or the whole text.
  explicit ErrorText(const char *lead = "") noexcept { text(lead); }

  ErrorText &text(const char *pText) noexcept;
  ErrorText &decimal(std::int64_t value) noexcept;           // %hd, %ld
  ErrorText &hex(std::uint64_t value, int digits) noexcept;  // upper case, leading zeros
  ErrorText &pointer(const void *pAddress) noexcept;         // %p: 16 digits

  const char *c_str() const noexcept { return text_; }

 private:
  void append(char c) noexcept;

  char text_[MEM_MESSAGE_TEXT_LEN] = {};
  std::size_t length_ = 0;
};

}  // namespace memlib
