// Who has which bytes of a chain's blocks. Each byte has one owner; narrow texts alone may be
// shared, whole or by their ends.
#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "packed_chain.hpp"

namespace memtool {

enum class Owner : std::uint8_t { None, Head, SegmentStart, Segment, Wide, Narrow };

class Claims {
 public:
  explicit Claims(const PackedChain &chain);

  // Takes the range unless one of its bytes has an owner; returns that owner then.
  // REQUIRES: the range lies within its block.
  Owner take(Place place, std::uint32_t length, Owner owner);

  // Takes the bytes of the narrow text at `place` up to its NUL. It may be one that is known, and
  // with `mayShareEnd` it may share its end with other narrow texts. `length` is 0 when there is no
  // NUL in the block. Each byte is looked at once, however many texts share it.
  Owner takeNarrow(Place place, bool mayShareEnd, std::uint32_t &length);

  std::uint64_t taken() const { return taken_; }

 private:
  struct BlockClaims {
    std::vector<Owner> owners;                      // of each content byte
    std::map<std::uint32_t, std::uint32_t> narrow;  // start and end of texts that lie apart
  };

  const PackedChain &chain_;
  std::vector<BlockClaims> blocks_;
  std::uint64_t taken_ = 0;
};

}  // namespace memtool
