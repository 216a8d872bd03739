// Formatting by the printf rules of 64-bit Windows, which the comment of formatText lists.
#pragma once

#include <cstddef>
#include <cstdint>

namespace refhost {

// Where a format's arguments come from, eight bytes each.
class FormatArgs {
 public:
  virtual ~FormatArgs() = default;
  virtual std::uint64_t next() = 0;
};

// Formats into `dest` and returns the length of the text, which is cut so that it and its
// terminator fit into `room` bytes. REQUIRES: room >= 1.
std::size_t formatBounded(char *dest, std::size_t room, const char *format, FormatArgs &args);

}  // namespace refhost
