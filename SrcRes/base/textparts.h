// Substrings whose range is known to be valid. The standard library's functions check the range and
// throw; code that can throw links in a runtime that allocates storage when the library is loaded.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/check.h"

namespace memlib {

// REQUIRES: count <= text.size().
inline std::string_view firstOf(std::string_view text, std::size_t count) noexcept {
  MEM_ASSERT(count <= text.size());
  return {text.data(), count};
}
inline std::string_view behind(std::string_view text, std::size_t count) noexcept {
  MEM_ASSERT(count <= text.size());
  return {text.data() + count, text.size() - count};
}

}  // namespace memlib
