#include "pack/unpack/place_index.h"

#include <algorithm>

namespace memlib {

// At most 32,767 blocks of 1,024 words: all sizes are far below 2^32.
Outcome PlaceIndex::open() noexcept {
  const std::int32_t blocks = chain_.blockCount();
  if (!firstWords_.obtain((static_cast<std::uint32_t>(blocks) + 1) * 4)) {
    return failure(MEMERR_PACKAMEM, ErrorText("PrevBlkOffsetTblCallocFail"));
  }
  auto *pFirstWords = firstWords_.as<std::uint32_t>();
  for (std::int32_t i = 0; i < blocks; ++i) {
    pFirstWords[i + 1] = pFirstWords[i] + (chain_.usedLen(i) + 63) / 64;
  }
  const auto entryLen = static_cast<std::uint32_t>(sizeof(std::uint64_t) + sizeof(std::uint32_t));
  if (!tables_.obtain(wordCount() * entryLen)) {
    return failure(MEMERR_PACKAMEM, ErrorText("UnpackBlkMemAllocFail"));
  }
  return {};
}

bool PlaceIndex::containsAnyOf(std::int32_t block) const noexcept {
  const auto *pFirstWords = firstWords_.as<std::uint32_t>();
  return std::any_of(words() + pFirstWords[block], words() + pFirstWords[block + 1],
                     [](std::uint64_t word) { return word != 0; });
}

std::uint32_t PlaceIndex::seal() noexcept {
  std::uint32_t count = 0;
  for (std::uint32_t word = 0; word < wordCount(); ++word) {
    numbers()[word] = count;
    count += static_cast<std::uint32_t>(std::popcount(words()[word]));
  }
  return count;
}

}  // namespace memlib
