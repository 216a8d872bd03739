// Numbers content places of a packed chain: places are added in any order, then each gets a number
// from 0 without gaps. Takes one bit for each content byte, and one number for each 64 bits.
#pragma once

#include <bit>
#include <cstdint>

#include "pack/unpack/chain_reader.h"

namespace memlib {

class PlaceIndex {
 public:
  explicit PlaceIndex(const ChainReader &chain) noexcept : chain_(chain) {}

  // Allocates the tables. Fails with MEMERR_PACKAMEM.
  Outcome open() noexcept;

  bool contains(const ContentPlace &place) const noexcept {
    return (words()[wordOf(place)] & bitOf(place)) != 0;
  }
  // True when a place of this block has been added.
  bool containsAnyOf(std::int32_t block) const noexcept;
  void add(const ContentPlace &place) noexcept { words()[wordOf(place)] |= bitOf(place); }

  // Numbers the places and returns their count. No place may be added afterwards.
  std::uint32_t seal() noexcept;

  // REQUIRES: sealed, contains(place).
  std::uint32_t number(const ContentPlace &place) const noexcept {
    MEM_ASSERT(contains(place));
    const std::uint32_t word = wordOf(place);
    return numbers()[word] +
           static_cast<std::uint32_t>(std::popcount(words()[word] & (bitOf(place) - 1)));
  }

 private:
  std::uint32_t wordCount() const noexcept {
    return firstWords_.as<std::uint32_t>()[chain_.blockCount()];
  }
  std::uint32_t wordOf(const ContentPlace &place) const noexcept {
    return firstWords_.as<std::uint32_t>()[place.block] + place.offset / 64;
  }
  static std::uint64_t bitOf(const ContentPlace &place) noexcept {
    return std::uint64_t{1} << (place.offset % 64);
  }
  std::uint64_t *words() const noexcept { return tables_.as<std::uint64_t>(); }
  std::uint32_t *numbers() const noexcept {
    return tables_.as<std::uint32_t>(std::size_t{wordCount()} * sizeof(std::uint64_t));
  }

  const ChainReader &chain_;
  WorkStorage firstWords_;  // first word of each block, then the end of the last one
  WorkStorage tables_;      // bits, then the number of places before each word
};

}  // namespace memlib
