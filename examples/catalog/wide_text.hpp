// Wide text that grows piece by piece, in a concatenation buffer of the library.
#pragma once

#include <string_view>

#include "refhost.hpp"

namespace catalog {

// One thread at a time.
class WideText {
 public:
  // Throws ServiceError when there is no storage, as `append` does.
  explicit WideText(refhost::Host &host);
  ~WideText();
  WideText(const WideText &) = delete;
  WideText &operator=(const WideText &) = delete;

  // REQUIRES: a terminated text.
  void append(const char16_t *text);

  // Valid until the next `append`.
  std::u16string_view view() const { return {buffer_.pText, buffer_.Len}; }

 private:
  refhost::Host &host_;
  MEMCatCB buffer_{};
};

}  // namespace catalog
