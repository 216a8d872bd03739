// One structure text while it is read: the definition, the bytes that are read into, and which
// fields came so far.
#pragma once

#include <cstdint>
#include <cstring>

#include "port/port_defs.h"

namespace memlib {

// What a structure text is read into: bytes of one entry of the caller's heap. An embedded
// structure lies within the entry of the structure around it.
struct StructBytes {
  std::byte *pEntry;
  std::int64_t entryLen;
  std::int64_t offset;  // of the structure in the entry

  std::byte *at(std::int64_t structOffset) const noexcept { return pEntry + offset + structOffset; }
  // True when `length` bytes at an offset of the structure lie in the entry.
  bool holds(std::int64_t structOffset, std::int64_t length) const noexcept {
    const std::int64_t start = offset + structOffset;
    return start >= 0 && length >= 0 && start <= entryLen - length;
  }
};

// Which fields of a definition were present. Mostly they come one by one from the first to the
// last, so those at the front are counted and the others, if there are any, marked.
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
  // Fields from `first` up to the one before `behind`.
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
  // True when all of the first `count` are known to have been present without a look at each.
  bool hasFront(std::int32_t count) const noexcept { return front_ >= count; }

 private:
  MEM_NOINLINE void mark(std::int32_t i) noexcept {
    if (!hasBits_) std::memset(bits_, 0, sizeof bits_);
    hasBits_ = true;
    bits_[i / 64] |= std::uint64_t{1} << (i % 64);
  }

  std::int32_t front_ = 0;  // all fields below were present
  bool hasBits_ = false;
  std::uint64_t bits_[MEM_PORT_MAX_FIELDS / 64];  // fields that came out of turn
};

struct StructText {
  const MEMStructDef *pDef = nullptr;
  std::int32_t fields = 0;  // of the definition
  int nesting = 0;
  std::int64_t size = 0;  // bytes of the structure with its elements
  StructBytes bytes;
  std::int64_t lastCount = 0;    // occurrences of the last field so far
  std::int32_t expected = 0;     // index of the field that comes next in an ordered text
  bool isExpectedFirst = false;  // known: the fields in front of it have lower identifiers
  SeenFields seen;
};

}  // namespace memlib
