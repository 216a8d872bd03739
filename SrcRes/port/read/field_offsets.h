// The offsets at which fields were present, for the question whether an absent field has an
// alternative: another field at its offset.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "qj7mem00/memport.h"

namespace mem {

// A hash table by open addressing with at least two places a field. Large: to be made only where it
// is asked.
class OffsetSet {
 public:
  // Of fields of a definition. REQUIRES: 1 to MEM_PORT_MAX_FIELDS of them.
  OffsetSet(const MEMFieldDef *pFields, std::int32_t count) noexcept
      : pFields_(pFields),
        shift_(32 - std::bit_width(2 * static_cast<std::uint32_t>(count) - 1)),
        mask_((std::uint32_t{1} << (32 - shift_)) - 1) {
    std::memset(places_, 0, (mask_ + std::size_t{1}) * sizeof places_[0]);
  }

  void add(std::int32_t fieldIndex) noexcept {
    placeOf(pFields_[fieldIndex].Offset) = static_cast<std::uint16_t>(fieldIndex + 1);
  }
  bool has(std::int32_t offset) noexcept { return placeOf(offset) != 0; }

 private:
  static constexpr std::size_t kMostPlaces = 2 * MEM_PORT_MAX_FIELDS;

  // Where a field of the offset is, or else the free place for one. There always is one.
  std::uint16_t &placeOf(std::int32_t offset) noexcept {
    constexpr std::uint32_t kSpread = 0x9E3779B1;  // offsets are mostly multiples of 4 or 8
    std::uint32_t place = static_cast<std::uint32_t>(offset) * kSpread >> shift_;
    while (places_[place] != 0 && pFields_[places_[place] - 1].Offset != offset) {
      place = (place + 1) & mask_;
    }
    return places_[place];
  }

  const MEMFieldDef *pFields_;
  std::uint32_t shift_;
  std::uint32_t mask_;
  std::uint16_t places_[kMostPlaces];  // index of a field and 1; 0 for none
};

}  // namespace mem
