// Lengths of text that must end within a given room.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "bytes.h"

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
inline std::uint32_t textLength<std::uint8_t>(const std::byte *pText, std::uint32_t room) noexcept {
  const void *pEnd = std::memchr(pText, 0, room);
  if (pEnd == nullptr) return 0;
  return static_cast<std::uint32_t>(static_cast<const std::byte *>(pEnd) - pText) + 1;
}

}  // namespace mem
