// Parts of a text that are known to be there. The standard library's own check their range and
// throw, and what can throw brings storage that is obtained when the library is loaded.
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
