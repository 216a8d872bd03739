// Which segments of a chain are shown: those that a user asks for by kind, by place, or by what a
// walk from one of them reaches.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "packed_chain.hpp"

namespace memtool {

// What the user wrote; empty members ask for nothing.
struct ChainFilter {
  std::string kind;  // a number of the control block
  std::string at;    // BLOCK:OFFSET
  std::string root;  // BLOCK:OFFSET
  std::optional<std::uint32_t> depth;
  std::optional<std::uint64_t> limit;

  bool isEmpty() const { return kind.empty() && at.empty() && root.empty() && !depth && !limit; }
};

// Segments by where they begin.
class SegmentIndex {
 public:
  explicit SegmentIndex(const PackedChain &chain);

  std::optional<std::size_t> beginningAt(Place place) const;
  // The one that has the byte.
  std::optional<std::size_t> holding(Place place) const;

 private:
  std::optional<std::size_t> notAfter(Place place) const;

  const PackedChain &chain_;
  std::vector<std::uint32_t> byPlace_;
};

class ChainSelection {
 public:
  // All segments.
  explicit ChainSelection(const PackedChain &chain);
  // Throws UnknownValue for a kind or a place that the chain does not have. Takes time in
  // proportion to the segments, also when they are damaged.
  ChainSelection(const PackedChain &chain, const ChainFilter &filter);

  bool isWhole() const { return isWhole_; }
  std::size_t shown() const { return isWhole_ ? chain_.segments.size() : segments_.size(); }
  // Those that were asked for, with the ones beyond the limit.
  std::size_t matching() const { return isWhole_ ? chain_.segments.size() : matching_; }
  std::size_t leftOut() const { return matching() - shown(); }
  const Segment &segment(std::size_t index) const {
    return chain_.segments[isWhole_ ? index : segments_[index]];
  }
  // Steps to the right for a segment in the tree that is shown.
  std::uint32_t indentOf(std::size_t index) const;

  // Index in the chain of the segment where the walk begins; none when all of it is shown.
  std::optional<std::size_t> root() const { return root_; }
  // ", of kind 1, from 1:2 on, down to 2 levels below it": what was asked for.
  const std::string &text() const { return text_; }

 private:
  void addAround(std::string_view at);
  void addMatching(const ChainFilter &filter);

  const PackedChain &chain_;
  bool isWhole_ = true;
  bool isAround_ = false;  // one segment, then what it points to
  std::size_t matching_ = 0;
  std::uint32_t level_ = 0;  // of the root
  std::optional<std::size_t> root_;
  std::vector<std::uint32_t> segments_;  // by index in the chain
  std::string text_;
};

// "1:34". Throws UnknownValue, which names `option`, for other texts.
Place placeFrom(std::string_view text, std::string_view option);

// Index behind the last segment that a walk from one of them reaches: what hangs below that one,
// and its further siblings with what hangs below them. They lie one behind the other. References
// are not followed.
std::size_t walkEnd(const PackedChain &chain, std::size_t root);

// Of each child or sibling pointer that leads to a segment, the segment's index.
std::vector<std::uint32_t> ownedTargets(const PackedChain &chain);

// Index of the segment that begins at `text`, or has bytes or a text there. Throws UnknownValue.
std::size_t segmentAt(const PackedChain &chain, std::string_view text, std::string_view option);

}  // namespace memtool
