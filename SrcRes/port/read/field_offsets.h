// The offsets of the fields that are present, to find out whether an absent field has an
// alternative: another field at its offset.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "platform/check.h"
#include "port/read/struct_text.h"

namespace memlib {

// A hash table with open addressing and at least two places for each field, filled on first use.
class PresentOffsets {
 public:
  // REQUIRES: 1 to MEM_PORT_MAX_FIELDS fields.
  explicit PresentOffsets(const StructText &text) noexcept
      : seen_(text.seen), pFields_(text.pDef->Fields), count_(text.fields) {
    MEM_ASSERT(text.fields >= 1 && text.fields <= MEM_PORT_MAX_FIELDS);
  }

  bool has(std::int32_t offset) noexcept {
    if (!isFilled_) fill();
    return placeOf(offset) != 0;
  }

 private:
  static constexpr std::size_t kMostPlaces = 2 * MEM_PORT_MAX_FIELDS;

  MEM_NOINLINE void fill() noexcept {
    const auto bits =
        static_cast<std::uint32_t>(std::bit_width(2 * static_cast<std::uint32_t>(count_) - 1));
    shift_ = 32 - bits;
    mask_ = (std::uint32_t{1} << bits) - 1;
    std::memset(places_, 0, (mask_ + std::size_t{1}) * sizeof places_[0]);
    for (std::int32_t i = 0; i < count_; ++i) {
      if (seen_.has(i)) placeOf(pFields_[i].Offset) = static_cast<std::uint16_t>(i + 1);
    }
    isFilled_ = true;
  }

  // The place of a field with the offset, or else the free place for it. One always exists.
  std::uint16_t &placeOf(std::int32_t offset) noexcept {
    constexpr std::uint32_t kSpread = 0x9E3779B1;  // for offsets that are multiples of 4 or 8
    std::uint32_t place = static_cast<std::uint32_t>(offset) * kSpread >> shift_;
    while (places_[place] != 0 && pFields_[places_[place] - 1].Offset != offset) {
      place = (place + 1) & mask_;
    }
    return places_[place];
  }

  const SeenFields &seen_;
  const MEMFieldDef *const pFields_;
  const std::int32_t count_;
  bool isFilled_ = false;
  std::uint32_t shift_ = 0;
  std::uint32_t mask_ = 0;
  std::uint16_t places_[kMostPlaces];  // index of a field plus 1; 0 for none
};

}  // namespace memlib
