// Lengths of text that must end within a given room.
#pragma once

#include <emmintrin.h>
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
  std::uint32_t offset = 0;
  const __m128i zero = _mm_setzero_si128();
  for (; room - offset >= 32; offset += 32) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(pText + offset));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(pText + offset + 16));
    const auto ends = static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(a, zero))) |
                      static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(b, zero))) << 16;
    if (ends != 0) return offset + static_cast<std::uint32_t>(std::countr_zero(ends)) + 1;
  }
  for (; offset < room; ++offset) {
    if (pText[offset] == std::byte{0}) return offset + 1;
  }
  return 0;
}

}  // namespace mem
