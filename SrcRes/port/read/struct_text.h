// One structure text while it is read: the definition, the target bytes, and the fields that were
// present so far.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "platform/check.h"
#include "platform/platform.h"
#include "port/port_defs.h"

namespace memlib {

// The target of a structure text: bytes of one entry of the caller's heap. An embedded structure is
// in the entry of the structure that contains it.
struct StructBytes {
  std::byte *pEntry;
  std::int64_t entryLen;
  std::int64_t offset;  // of the structure in the entry

  std::byte *at(std::int64_t structOffset) const noexcept { return pEntry + offset + structOffset; }
  // True when `length` bytes at an offset of the structure are within the entry.
  bool holds(std::int64_t structOffset, std::int64_t length) const noexcept {
    const std::int64_t start = offset + structOffset;
    return start >= 0 && length >= 0 && start <= entryLen - length;
  }
};

// Which fields of a definition were present. Texts usually have all fields in order, so the present
// fields at the front are counted and only the others are marked.
class SeenFields {
 public:
  SeenFields() noexcept {}  // bits_ is cleared when it is needed

  void add(std::int32_t i) noexcept {
    if (i == front_) {
      ++front_;
    } else if (i > front_) {
      mark(i);
    }
  }
  // The fields from `first` up to, but not including, `behind`.
  void addRange(std::int32_t first, std::int32_t behind) noexcept {
    if (first == front_) {
      front_ = behind;
    } else {
      for (std::int32_t i = first; i < behind; ++i) add(i);
    }
  }
  bool has(std::int32_t i) const noexcept {
    return i < front_ || (hasBits_ && (bits_[i / 64] >> (i % 64) & 1) != 0);
  }
  // True when the count alone shows that the first `count` fields were all present.
  bool hasFront(std::int32_t count) const noexcept { return front_ >= count; }

 private:
  MEM_NOINLINE void mark(std::int32_t i) noexcept {
    if (!hasBits_) std::memset(bits_, 0, sizeof bits_);
    hasBits_ = true;
    bits_[i / 64] |= std::uint64_t{1} << (i % 64);
  }

  std::int32_t front_ = 0;  // all fields below were present
  bool hasBits_ = false;
  std::uint64_t bits_[MEM_PORT_MAX_FIELDS / 64];  // fields that came out of order
};

struct StructText {
  const MEMStructDef *pDef = nullptr;
  std::int32_t fields = 0;  // of the definition
  int nesting = 0;
  std::int64_t size = 0;  // bytes of the structure with its elements
  StructBytes bytes;
  std::int64_t lastCount = 0;    // occurrences of the last field so far
  std::int32_t expected = 0;     // index of the field that comes next in an ordered text
  bool isExpectedFirst = false;  // the fields before it have lower identifiers
  SeenFields seen;
};

// The offsets of the fields that are present, to find out whether an absent field has an
// alternative: another field at its offset. A hash table with open addressing and at least two
// places for each field, filled on first use.
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
