#include "packed_claims.hpp"

#include <algorithm>

#include "packed_head.hpp"

namespace memtool {
namespace {

constexpr std::uint64_t kLeastTries = 1 << 20;
constexpr std::uint64_t kTriesOfByte = 64;

}  // namespace

Claims::Claims(const PackedChain &chain)
    : chain_(chain),
      blocks_(chain.blocks.size()),
      triesLeft_(kLeastTries + kTriesOfByte * chain.bytes.size()) {
  for (std::size_t i = 0; i < blocks_.size(); ++i) {
    blocks_[i].owners.resize(chain.blocks[i].used, Owner::None);
    const std::uint32_t head = i == 0 ? kHeadLen + chain.controlBlockLen : kFirstContent;
    take({static_cast<std::uint32_t>(i), 0}, head, Owner::Head);
  }
}

Owner Claims::take(Place place, std::uint32_t length, Owner owner) {
  const auto first = blocks_[place.block].owners.begin() + place.offset;
  const auto last = first + length;
  const auto taken = std::find_if(first, last, [](Owner old) { return old != Owner::None; });
  if (taken != last) {
    spend(static_cast<std::uint64_t>(taken - first));
    return *taken;
  }
  std::fill(first, last, owner == Owner::SegmentStart ? Owner::Segment : owner);
  if (length > 0) *first = owner;
  taken_ += length;
  return Owner::None;
}

Owner Claims::takeNarrow(Place place, bool mayShareEnd, std::uint32_t &length) {
  BlockClaims &block = blocks_[place.block];
  const auto next = block.narrow.upper_bound(place.offset);
  if (next != block.narrow.begin()) {
    const auto before = std::prev(next);
    if (place.offset < before->second) {
      if (!mayShareEnd && place.offset != before->first) return Owner::Narrow;
      length = before->second - place.offset;
      return Owner::None;
    }
  }
  // Up to the NUL, or to a text that was taken before: its NUL ends this one, too.
  const std::string_view content = chain_.content(place.block);
  const std::uint32_t stop =
      next == block.narrow.end() ? static_cast<std::uint32_t>(content.size()) : next->first;
  const std::size_t nul = content.substr(0, stop).find('\0', place.offset);
  std::uint32_t end = stop;
  if (nul != std::string_view::npos) {
    end = static_cast<std::uint32_t>(nul) + 1;
  } else if (next == block.narrow.end()) {
    length = 0;
    spend(content.size() - place.offset);
    return Owner::None;
  } else if (!mayShareEnd) {
    return Owner::Narrow;
  }
  const Owner other = take(place, end - place.offset, Owner::Narrow);
  if (other != Owner::None) return other;
  if (nul == std::string_view::npos) {
    end = next->second;
    block.narrow.erase(next);
  }
  block.narrow.emplace(place.offset, end);
  length = end - place.offset;
  return Owner::None;
}

}  // namespace memtool
