// Where text that must end within a given room ends.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "base/bytes.h"
#include "platform/platform.h"
#include "platform/textscan.h"

namespace mem {

#if MEM_HAS_SSE2
// One bit for each of 32 bytes that is zero.
inline std::uint32_t zerosOf32(const std::byte *pText) noexcept {
  const auto *pHalves = reinterpret_cast<const __m128i *>(pText);
  const __m128i low = _mm_cmpeq_epi8(_mm_loadu_si128(pHalves), _mm_setzero_si128());
  const __m128i high = _mm_cmpeq_epi8(_mm_loadu_si128(pHalves + 1), _mm_setzero_si128());
  return static_cast<std::uint32_t>(_mm_movemask_epi8(low)) |
         static_cast<std::uint32_t>(_mm_movemask_epi8(high)) << 16;
}
#endif

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
  std::uint32_t looked = 0;
#if MEM_HAS_SSE2
  // Most texts are short: calling for them would cost more than looking at them.
  for (; room - looked >= 32; looked += 32) {
    const std::uint32_t zeros = zerosOf32(pText + looked);
    if (zeros != 0) return looked + static_cast<std::uint32_t>(std::countr_zero(zeros)) + 1;
  }
#endif
  const void *pEnd = std::memchr(pText + looked, 0, room - looked);
  if (pEnd == nullptr) return 0;
  return static_cast<std::uint32_t>(static_cast<const std::byte *>(pEnd) - pText) + 1;
}

}  // namespace mem
