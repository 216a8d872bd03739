// Chooses the segments of a chain that are shown: by kind, by place, or as those that a walk from a
// segment reaches.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "packed_chain.hpp"

namespace memtool {

// The options of the command line; empty members do not filter.
struct ChainFilter {
  std::string kind;  // a number of the control block
  std::string at;    // BLOCK:OFFSET
  std::string root;  // BLOCK:OFFSET
  std::optional<std::uint32_t> depth;
  std::optional<std::uint64_t> limit;

  bool isEmpty() const { return kind.empty() && at.empty() && root.empty() && !depth && !limit; }
};

// Finds segments by place.
class SegmentIndex {
 public:
  explicit SegmentIndex(const PackedChain &chain);

  std::optional<std::size_t> beginningAt(Place place) const;
  // The segment that contains the byte.
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
  // Throws UnknownValue for a kind or a place that the chain does not have. The time is
  // proportional to the number of segments, also in damaged chains.
  ChainSelection(const PackedChain &chain, const ChainFilter &filter);

  bool isWhole() const { return isWhole_; }
  std::size_t shown() const { return isWhole_ ? chain_.segments.size() : segments_.size(); }
  // The segments that the filter matches, including those beyond the limit.
  std::size_t matching() const { return isWhole_ ? chain_.segments.size() : matching_; }
  std::size_t leftOut() const { return matching() - shown(); }
  const Segment &segment(std::size_t index) const {
    return chain_.segments[isWhole_ ? index : segments_[index]];
  }
  // Levels of indentation of a segment in the shown tree.
  std::uint32_t indentOf(std::size_t index) const;

  // Index in the chain of the segment of --root; none without --root.
  std::optional<std::size_t> root() const { return root_; }
  // The filter in words: ", from 1:2 on, of kind 1, down to depth 2".
  const std::string &text() const { return text_; }

 private:
  void addAround(std::string_view at);
  void addMatching(const ChainFilter &filter);

  const PackedChain &chain_;
  bool isWhole_ = true;
  bool isAround_ = false;  // --at: one segment, then those that it points to
  std::size_t matching_ = 0;
  std::uint32_t level_ = 0;  // of the root
  std::optional<std::size_t> root_;
  std::vector<std::uint32_t> segments_;  // by index in the chain
  std::string text_;
};

// "1:34". Throws UnknownValue, which names `option`, for other texts.
Place placeFrom(std::string_view text, std::string_view option);

// Index after the last segment that a walk from a segment reaches: the segments below it, its
// following siblings and the segments below those. They are contiguous in the list of segments.
// References are not followed.
std::size_t walkEnd(const PackedChain &chain, std::size_t root);

// For each child or sibling pointer that leads to a segment, the index of that segment; else 0.
std::vector<std::uint32_t> ownedTargets(const PackedChain &chain);

// Index of the segment that begins at the place `text`, or has bytes or a text there. Throws
// UnknownValue, which names `option`.
std::size_t segmentAt(const PackedChain &chain, std::string_view text, std::string_view option);

}  // namespace memtool
