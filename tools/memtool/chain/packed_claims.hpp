// Which item owns which bytes of a chain's blocks. Each byte has one owner; only narrow texts may
// be shared, whole or by their ends.
#pragma once

#include <algorithm>
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

  // Takes the range and returns None. If one of its bytes has an owner, takes nothing and returns
  // that owner. REQUIRES: the range is within its block.
  Owner take(Place place, std::uint32_t length, Owner owner);

  // Takes the bytes of the narrow text at `place` up to its NUL. It may have been taken before, and
  // with `mayShareEnd` it may share its end with other narrow texts. `length` is 0 when there is no
  // NUL in the block. Each byte is read once, however many texts share it.
  Owner takeNarrow(Place place, bool mayShareEnd, std::uint32_t &length);

  // REQUIRES: the place is within its block.
  Owner ownerOf(Place place) const { return blocks_[place.block].owners[place.offset]; }

  std::uint64_t taken() const { return taken_; }

  // How many more bytes may be read in failed attempts to take a range. Without this limit the time
  // would grow with the square of a file in which everything overlaps.
  std::uint64_t triesLeft() const { return triesLeft_; }
  void spend(std::uint64_t bytes) { triesLeft_ -= std::min(triesLeft_, bytes); }

 private:
  struct BlockClaims {
    std::vector<Owner> owners;                      // of each content byte
    std::map<std::uint32_t, std::uint32_t> narrow;  // start and end of separate texts
  };

  const PackedChain &chain_;
  std::vector<BlockClaims> blocks_;
  std::uint64_t taken_ = 0;
  std::uint64_t triesLeft_;
};

}  // namespace memtool
