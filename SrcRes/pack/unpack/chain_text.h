// Texts of a packed chain: their lengths, and the conversion of wide text to this platform's
// UTF-16.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bytes.h"
#include "pack/pack_descriptors.h"
#include "pack/unpack/workstorage.h"
#include "platform/textscan.h"

namespace memlib {

class ChainReader;

// Bytes of the text at `pText` with its terminator, 0 when it does not end within `room` bytes.
// Nothing beyond the room is read. Units are 1, 2 or 4 bytes long.
template <std::uint32_t kUnitLen>
std::uint32_t textLength(const std::byte *pText, std::uint32_t room) noexcept {
  const std::size_t most = room / kUnitLen;
  std::size_t units = 0;
  if constexpr (kUnitLen == 1) {
    units = narrowLengthWithin(pText, most);
  } else if constexpr (kUnitLen == sizeof(char16_t)) {
    units = wideLengthWithin(pText, most);
  } else {
    while (units < most && loadAs<std::uint32_t>(pText + units * kUnitLen) != 0) ++units;
  }
  return units < most ? static_cast<std::uint32_t>(units + 1) * kUnitLen : 0;
}
std::uint32_t textLength(const std::byte *pText, std::uint32_t room,
                         std::uint32_t unitLen) noexcept;

// Converts wide text to native UTF-16 in place. Allocates a work area for the first text that needs
// it and keeps it.
class TextConverter {
 public:
  explicit TextConverter(const ChainReader &chain) noexcept : chain_(chain) {}

  // `pText` holds `length` bytes of the writer's wide text, terminator included; on success it
  // holds native UTF-16 with a terminator.
  Outcome convert(std::byte *pText, std::uint32_t length) noexcept;

 private:
  Outcome narrowUnits(std::byte *pText, std::uint32_t length) noexcept;

  const ChainReader &chain_;
  WorkStorage area_;
};

}  // namespace memlib
