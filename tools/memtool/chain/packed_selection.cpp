#include "packed_selection.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <numeric>
#include <tuple>

#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::size_t kMostQuoted = 40;

// The number if all of `text` is a decimal number, else none.
std::optional<std::uint32_t> numberFrom(std::string_view text) {
  std::uint32_t number = 0;
  const char *const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number);
  if (text.empty() || read.ec != std::errc() || read.ptr != end) return {};
  return number;
}

bool leadsToSegment(const Pointer &pointer) {
  return !pointer.isNull && !pointer.isFaulty && pointer.text == kNoText;
}

// The first segment with a pointer to a text that contains the byte.
std::optional<std::size_t> holderOfTextAt(const PackedChain &chain, Place place) {
  const auto holds = [place](const Text &text) {
    return text.place.block == place.block && text.place.offset <= place.offset &&
           place.offset - text.place.offset < text.length;
  };
  for (std::size_t i = 0; i < chain.segments.size(); ++i) {
    const Segment &segment = chain.segments[i];
    for (std::size_t k = 0; k < segment.pointerCount; ++k) {
      const Pointer &pointer = chain.pointers[segment.firstPointer + k];
      if (pointer.text != kNoText && holds(chain.texts[pointer.text])) return i;
    }
  }
  return {};
}

std::uint16_t kindFrom(const PackedChain &chain, const std::string &text) {
  const std::optional<std::uint32_t> kind = numberFrom(text);
  if (kind && *kind < chain.kinds.size() && chain.kinds[*kind].isDescribed) {
    return static_cast<std::uint16_t>(*kind);
  }
  throw UnknownValue(fmt::format(
      "--kind: there is no kind {} of segments; {}", inQuotes(text, kMostQuoted),
      chain.readKindCount() == 0
          ? "no kind could be read"
          : fmt::format("the control block has kinds 0 to {}", chain.readKindCount() - 1)));
}

// True for a segment of the kind; for a kind of text, if the segment points to such a text.
bool isOfKind(const PackedChain &chain, const Segment &segment, std::uint16_t kind) {
  if (!isText(chain.kinds[kind].form)) return segment.kind == kind;
  for (std::size_t i = 0; i < segment.pointerCount; ++i) {
    const Pointer &pointer = chain.pointers[segment.firstPointer + i];
    if (pointer.field == Field::Child && pointer.kind == kind && !pointer.isNull) return true;
  }
  return false;
}

}  // namespace

SegmentIndex::SegmentIndex(const PackedChain &chain)
    : chain_(chain), byPlace_(chain.segments.size()) {
  std::iota(byPlace_.begin(), byPlace_.end(), 0U);
  std::sort(byPlace_.begin(), byPlace_.end(), [&](std::uint32_t a, std::uint32_t b) {
    const Segment &first = chain.segments[a];
    const Segment &second = chain.segments[b];
    // A segment without bytes may have the place of another segment.
    return std::tie(first.place, first.length, a) < std::tie(second.place, second.length, b);
  });
}

std::optional<std::size_t> SegmentIndex::notAfter(Place place) const {
  const auto next = std::upper_bound(
      byPlace_.begin(), byPlace_.end(), place,
      [&](Place wanted, std::uint32_t i) { return wanted < chain_.segments[i].place; });
  if (next == byPlace_.begin()) return {};
  return *std::prev(next);
}

std::optional<std::size_t> SegmentIndex::beginningAt(Place place) const {
  const auto found = notAfter(place);
  if (!found || chain_.segments[*found].place != place) return {};
  return found;
}

std::optional<std::size_t> SegmentIndex::holding(Place place) const {
  const auto found = notAfter(place);
  if (!found) return {};
  const Segment &segment = chain_.segments[*found];
  const bool isIn =
      segment.place == place ||
      (segment.place.block == place.block && place.offset - segment.place.offset < segment.length);
  return isIn ? found : std::nullopt;
}

Place placeFrom(std::string_view text, std::string_view option) {
  const std::size_t colon = text.find(':');
  if (colon != std::string_view::npos) {
    const std::optional<std::uint32_t> block = numberFrom(text.substr(0, colon));
    const std::optional<std::uint32_t> offset = numberFrom(text.substr(colon + 1));
    if (block && offset) return {*block, *offset};
  }
  throw UnknownValue(fmt::format("{}: {} is not a place; a place is BLOCK:OFFSET, for example 1:34",
                                 option, inQuotes(text, kMostQuoted)));
}

namespace {

// A walk visits the segments in the order of the list: each child or sibling pointer leads to the
// next of them. Calls `enter` with the index of each such pointer and of the segment. Returns the
// index after the last segment.
template <class Enter>
std::size_t walkFrom(const PackedChain &chain, std::size_t root, const Enter &enter) {
  struct Level {
    std::size_t segment;
    std::size_t nextPointer;
  };
  std::size_t end = root + 1;
  std::vector<Level> levels{{root, 0}};
  const auto descend = [&](std::size_t pointer) {
    if (end == chain.segments.size()) return;
    enter(pointer, end);
    levels.push_back({end++, 0});
  };
  while (!levels.empty()) {
    Level &level = levels.back();
    const Segment &segment = chain.segments[level.segment];
    if (level.nextPointer < segment.pointerCount) {
      const std::size_t index = segment.firstPointer + level.nextPointer++;
      const Pointer &pointer = chain.pointers[index];
      if (pointer.field == Field::Child && leadsToSegment(pointer)) descend(index);
      continue;
    }
    levels.pop_back();
    if (segment.pointerCount == 0) continue;
    const Pointer &first = chain.pointers[segment.firstPointer];
    if (first.field == Field::Sibling && leadsToSegment(first)) descend(segment.firstPointer);
  }
  return end;
}

}  // namespace

std::size_t walkEnd(const PackedChain &chain, std::size_t root) {
  return walkFrom(chain, root, [](std::size_t, std::size_t) {});
}

std::vector<std::uint32_t> ownedTargets(const PackedChain &chain) {
  std::vector<std::uint32_t> targets(chain.pointers.size(), 0);
  if (chain.segments.empty()) return targets;
  walkFrom(chain, 0, [&](std::size_t pointer, std::size_t segment) {
    targets[pointer] = static_cast<std::uint32_t>(segment);
  });
  return targets;
}

std::size_t segmentAt(const PackedChain &chain, std::string_view text, std::string_view option) {
  const Place place = placeFrom(text, option);
  if (place.block >= chain.blocks.size()) {
    throw UnknownValue(fmt::format("{}: there is no block {}; the chain has {}", option,
                                   place.block, countOf(chain.blocks.size(), "block")));
  }
  if (const auto segment = SegmentIndex(chain).holding(place)) return *segment;
  if (const auto segment = holderOfTextAt(chain, place)) return *segment;
  const std::uint32_t used = chain.blocks[place.block].used;
  throw UnknownValue(
      place.offset >= used
          ? fmt::format("{}: block {} has {} bytes, none at {}", option, place.block, used,
                        place.offset)
          : fmt::format("{}: no segment or text that was read is at {}", option, textOf(place)));
}

ChainSelection::ChainSelection(const PackedChain &chain) : chain_(chain) {}

ChainSelection::ChainSelection(const PackedChain &chain, const ChainFilter &filter)
    : chain_(chain), isWhole_(filter.isEmpty()) {
  if (isWhole_) return;
  if (filter.at.empty()) {
    addMatching(filter);
  } else {
    addAround(filter.at);
  }
  matching_ = segments_.size();
  if (filter.limit && *filter.limit < segments_.size()) {
    segments_.resize(static_cast<std::size_t>(*filter.limit));
  }
}

void ChainSelection::addMatching(const ChainFilter &filter) {
  std::size_t first = 0;
  std::size_t end = chain_.segments.size();
  if (!filter.root.empty()) {
    root_ = segmentAt(chain_, filter.root, "--root");
    level_ = chain_.segments[*root_].level;
    first = *root_;
    end = walkEnd(chain_, first);
    text_ += fmt::format(", from {} on", textOf(chain_.segments[*root_].place));
  }
  std::optional<std::uint16_t> kind;
  if (!filter.kind.empty()) {
    kind = kindFrom(chain_, filter.kind);
    text_ += fmt::format(", {} kind {}", isText(chain_.kinds[*kind].form) ? "with text of" : "of",
                         *kind);
  }
  if (filter.depth) text_ += fmt::format(", down to depth {}", *filter.depth);
  for (std::size_t i = first; i < end; ++i) {
    const Segment &segment = chain_.segments[i];
    if (kind && !isOfKind(chain_, segment, *kind)) continue;
    if (filter.depth && segment.level - level_ > *filter.depth) continue;
    segments_.push_back(static_cast<std::uint32_t>(i));
  }
}

void ChainSelection::addAround(std::string_view at) {
  const std::size_t found = segmentAt(chain_, at, "--at");
  const Segment &segment = chain_.segments[found];
  isAround_ = true;
  text_ = fmt::format(", at {} with what it points to", textOf(segment.place));
  segments_.push_back(static_cast<std::uint32_t>(found));
  const SegmentIndex index(chain_);
  for (std::size_t k = 0; k < segment.pointerCount; ++k) {
    const Pointer &pointer = chain_.pointers[segment.firstPointer + k];
    if (!leadsToSegment(pointer)) continue;
    const auto target = index.beginningAt(pointer.target);
    if (!target) continue;
    const auto number = static_cast<std::uint32_t>(*target);
    if (std::find(segments_.begin(), segments_.end(), number) == segments_.end()) {
      segments_.push_back(number);
    }
  }
}

std::uint32_t ChainSelection::indentOf(std::size_t index) const {
  if (isAround_) return index == 0 ? 0 : 1;
  return segment(index).level - level_;
}

}  // namespace memtool
