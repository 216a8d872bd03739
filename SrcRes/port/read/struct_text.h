// One structure text while it is read: the definition, the target bytes, and the fields that were
// present so far.
#pragma once

#include <cstdint>
#include <cstring>

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

}  // namespace memlib
