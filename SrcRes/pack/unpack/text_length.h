// Where text that must end within a given room ends.
#pragma once

#include <cstdint>

#include "base/bytes.h"
#include "platform/textscan.h"

namespace mem {

// Bytes of the text at `pText` with its terminator, 0 when it does not end within `room` bytes.
// Nothing beyond the room is read.
template <class Unit>
std::uint32_t textLength(const std::byte *pText, std::uint32_t room) noexcept {
  for (std::uint32_t end = sizeof(Unit); end <= room; end += sizeof(Unit)) {
    if (loadAs<Unit>(pText + end - sizeof(Unit)) == 0) return end;
  }
  return 0;
}

template <>
inline std::uint32_t textLength<std::uint16_t>(const std::byte *pText,
                                               std::uint32_t room) noexcept {
  const std::size_t most = room / sizeof(char16_t);
  const std::size_t units = wideLengthWithin(pText, most);
  return units < most ? static_cast<std::uint32_t>((units + 1) * sizeof(char16_t)) : 0;
}

template <>
inline std::uint32_t textLength<std::uint8_t>(const std::byte *pText, std::uint32_t room) noexcept {
  const std::size_t length = narrowLengthWithin(pText, room);
  return length < room ? static_cast<std::uint32_t>(length) + 1 : 0;
}

}  // namespace mem
