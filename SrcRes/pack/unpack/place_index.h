// Numbers content places of a packed chain: places are added in any order, then each gets a number
// from 0 without gaps. Takes one bit for each content byte, and one number for each 64 bits.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

#include "pack/unpack/chain_reader.h"

namespace memlib {

class PlaceIndex {
 public:
  explicit PlaceIndex(const ChainReader &chain) noexcept : chain_(chain) {}

  // Allocates the tables. Fails with MEMERR_PACKAMEM. At most 32,767 blocks of 1,024 words: all
  // sizes are far below 2^32.
  Outcome open() noexcept {
    const std::int32_t blocks = chain_.blockCount();
    if (!firstWords_.obtain((static_cast<std::uint32_t>(blocks) + 1) * 4)) {
      return failure(MEMERR_PACKAMEM, ErrorText("PrevBlkOffsetTblCallocFail"));
    }
    for (std::int32_t i = 0; i < blocks; ++i) {
      firstWords()[i + 1] = firstWords()[i] + (chain_.usedLen(i) + 63) / 64;
    }
    constexpr std::uint32_t kEntryLen = sizeof(std::uint64_t) + sizeof(std::uint32_t);
    if (!tables_.obtain(wordCount() * kEntryLen)) {
      return failure(MEMERR_PACKAMEM, ErrorText("UnpackBlkMemAllocFail"));
    }
    return {};
  }

  bool contains(const ContentPlace &place) const noexcept {
    return (words()[wordOf(place)] & bitOf(place)) != 0;
  }
  // True when a place of this block has been added.
  bool containsAnyOf(std::int32_t block) const noexcept {
    return std::any_of(words() + firstWords()[block], words() + firstWords()[block + 1],
                       [](std::uint64_t word) { return word != 0; });
  }
  void add(const ContentPlace &place) noexcept { words()[wordOf(place)] |= bitOf(place); }

  // Numbers the places and returns their count. No place may be added afterwards.
  std::uint32_t seal() noexcept {
    std::uint32_t count = 0;
    for (std::uint32_t word = 0; word < wordCount(); ++word) {
      numbers()[word] = count;
      count += static_cast<std::uint32_t>(std::popcount(words()[word]));
    }
    return count;
  }

  // REQUIRES: sealed, contains(place).
  std::uint32_t number(const ContentPlace &place) const noexcept {
    MEM_ASSERT(contains(place));
    const std::uint32_t word = wordOf(place);
    return numbers()[word] +
           static_cast<std::uint32_t>(std::popcount(words()[word] & (bitOf(place) - 1)));
  }

 private:
  std::uint32_t *firstWords() const noexcept { return firstWords_.as<std::uint32_t>(); }
  std::uint32_t wordCount() const noexcept { return firstWords()[chain_.blockCount()]; }
  std::uint32_t wordOf(const ContentPlace &place) const noexcept {
    return firstWords()[place.block] + place.offset / 64;
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
