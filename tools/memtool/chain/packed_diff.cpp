#include "packed_diff.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "packed_report.hpp"
#include "packed_selection.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::uint32_t kMostShownText = 60;  // characters
constexpr std::size_t kMostShownBytes = 8;
constexpr std::uint32_t kLengthWord = 2;

bool tellsLength(Form form) {
  return form == Form::Counted || form == Form::SelfDescribing;
}

// A chain as a graph.
class ChainGraph {
 public:
  explicit ChainGraph(const PackedChain &read)
      : chain(read), index_(read), targets_(ownedTargets(read)) {}

  // The segment that a pointer leads to. REQUIRES: it is not null and leads to a segment.
  std::size_t target(std::size_t pointer) const {
    const Pointer &from = chain.pointers[pointer];
    if (from.field != Field::Reference) return targets_[pointer];
    return index_.beginningAt(from.target).value_or(0);  // valid chains have one
  }

  const PackedChain &chain;

 private:
  SegmentIndex index_;
  std::vector<std::uint32_t> targets_;  // of owning pointers
};

std::string shownText(const PackedChain &chain, std::uint32_t index) {
  Text text = chain.texts[index];
  const std::uint32_t unit = text.isWide ? chain.version->wideSize : 1;
  const bool isLong = text.length / unit > kMostShownText + 1;
  if (isLong) text.length = (kMostShownText + 1) * unit;
  return inQuotes(chain.utf8Of(text), kMostShownText) + (isLong ? "…" : "");
}

// The text in units of UTF-16, for writers with wide characters of 2 or 4 bytes.
std::u16string unitsOf(const PackedChain &chain, const Text &text) {
  std::u16string units;
  const std::size_t start = chain.fileOffset(text.place);
  const std::uint32_t size = chain.version->wideSize;
  for (std::size_t at = start; at < start + text.length - size; at += size) {
    std::uint32_t unit = chain.number(at);
    if (size == 4) {
      const std::uint32_t second = chain.number(at + 2);
      unit = chain.version->isBigEndian ? unit << 16 | second : second << 16 | unit;
    }
    if (unit >= 0x10000) units += static_cast<char16_t>(0xD800 + ((unit - 0x10000) >> 10));
    units += static_cast<char16_t>(unit < 0x10000 ? unit : 0xDC00 + ((unit - 0x10000) & 0x3FF));
  }
  return units;
}

// One string is the other one with each group of 2, 4 or 8 bytes reversed.
bool isTurned(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  std::vector<bool> mayEnd(a.size() + 1, false);
  mayEnd[0] = true;
  for (std::size_t at = 0; at < a.size(); ++at) {
    if (!mayEnd[at]) continue;
    for (const std::size_t length : {1U, 2U, 4U, 8U}) {
      if (length > a.size() - at) break;
      const std::string_view part = b.substr(at, length);
      if (std::equal(part.rbegin(), part.rend(), a.begin() + static_cast<std::ptrdiff_t>(at))) {
        mayEnd[at + length] = true;
      }
    }
  }
  return mayEnd[a.size()];
}

bool isZero(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == 0; });
}

std::string shownBytes(std::string_view bytes, std::size_t from) {
  const std::string_view part = bytes.substr(std::min(from, bytes.size()), kMostShownBytes);
  if (part.empty()) return "no bytes";
  std::string hex;
  for (const char byte : part) {
    hex += fmt::format("{}{:02X}", hex.empty() ? "" : " ", static_cast<std::uint8_t>(byte));
  }
  return hex + (from + part.size() < bytes.size() ? " …" : "");
}

class ChainDiff {
 public:
  ChainDiff(const PackedChain &a, const PackedChain &b, const DifferenceSink &sink)
      : a_(a),
        b_(b),
        mayPad_(a.pointerWidth != b.pointerWidth),
        mayTurn_(a.version->isBigEndian != b.version->isBigEndian),
        lastText_(a.texts.size(), {kNoText, false}),
        walk_(a.segments.size(), b.segments.size(), placeOf(a), placeOf(b), sink) {}

  ChainComparison run() {
    if (!a_.chain.segments.empty() && !b_.chain.segments.empty()) {
      walk_.begin(0, 0);
      while (const auto pair = walk_.next()) {
        compare(a_.chain.segments[pair->a], b_.chain.segments[pair->b]);
      }
    }
    made_.compared = walk_.pairs();
    made_.differences = walk_.differences();
    return made_;
  }

  // True unless only one root is a text, or both are texts and differ.
  bool haveEqualRoots() {
    if (a_.chain.segments.empty() != b_.chain.segments.empty()) return false;
    return !a_.chain.segments.empty() || haveEqualText(0, 0);
  }

 private:
  static GraphWalk::PlaceOf placeOf(const PackedChain &chain) {
    return [&chain](std::size_t node) { return textOf(chain.segments[node].place); };
  }

  const Kind &kindOf(const ChainGraph &graph, const Segment &segment) const {
    return graph.chain.kinds[segment.kind];
  }

  void compare(const Segment &a, const Segment &b) {
    const Kind &kindA = kindOf(a_, a);
    const Kind &kindB = kindOf(b_, b);
    if (a.kind != b.kind) {
      walk_.differ("kind", std::to_string(a.kind), std::to_string(b.kind));
    } else if (nativeType(kindA) != nativeType(kindB)) {
      walk_.differ("type", typeName(kindA), typeName(kindB));
    } else if (hasSameFields(a, b)) {
      comparePointers(a, b);
      compareBytes(a, b);
    } else {
      walk_.differ("pointer fields", fieldList(a_, a), fieldList(b_, b));
    }
  }

  bool hasSameFields(const Segment &a, const Segment &b) const {
    if (a.pointerCount != b.pointerCount) return false;
    for (std::size_t i = 0; i < a.pointerCount; ++i) {
      const Pointer &one = a_.chain.pointers[a.firstPointer + i];
      const Pointer &other = b_.chain.pointers[b.firstPointer + i];
      if (one.field != other.field || one.kind != other.kind ||
          isOfText(a_, one) != isOfText(b_, other)) {
        return false;
      }
    }
    return orderOf(a_, a) == orderOf(b_, b);
  }

  static bool isOfText(const ChainGraph &graph, const Pointer &pointer) {
    return pointer.field == Field::Child && isText(graph.chain.kinds[pointer.kind].form);
  }

  // The segment's pointers by ascending offset.
  static std::vector<std::size_t> orderOf(const ChainGraph &graph, const Segment &segment) {
    std::vector<std::size_t> order(segment.pointerCount);
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) {
      return graph.chain.pointers[segment.firstPointer + x].offset <
             graph.chain.pointers[segment.firstPointer + y].offset;
    });
    return order;
  }

  static std::string fieldList(const ChainGraph &graph, const Segment &segment) {
    std::string list;
    for (const std::size_t i : orderOf(graph, segment)) {
      const Pointer &pointer = graph.chain.pointers[segment.firstPointer + i];
      if (!list.empty()) list += ", ";
      list += nameOf(pointer.field);
      if (pointer.field == Field::Child) list += fmt::format(" of kind {}", pointer.kind);
    }
    return list.empty() ? "none" : list;
  }

  void comparePointers(const Segment &a, const Segment &b) {
    std::size_t child = 0;
    std::size_t reference = 0;
    for (std::size_t i = 0; i < a.pointerCount; ++i) {
      const Pointer &one = a_.chain.pointers[a.firstPointer + i];
      const Pointer &other = b_.chain.pointers[b.firstPointer + i];
      std::string name = nameOf(one.field);
      if (one.field == Field::Child) name += fmt::format(" {}", child++);
      if (one.field == Field::Reference) name += fmt::format(" {}", reference++);
      if (isOfText(a_, one)) {
        compareTexts(name, one, other);
      } else {
        walk_.follow(name, targetOf(a_, a.firstPointer + i), targetOf(b_, b.firstPointer + i));
      }
    }
  }

  static std::optional<std::size_t> targetOf(const ChainGraph &graph, std::size_t pointer) {
    if (graph.chain.pointers[pointer].isNull) return {};
    return graph.target(pointer);
  }

  void compareTexts(const std::string &name, const Pointer &a, const Pointer &b) {
    if (a.isNull && b.isNull) return;
    if (!a.isNull && !b.isNull && haveEqualText(a.text, b.text)) return;
    walk_.differ(name, a.isNull ? "null" : shownText(a_.chain, a.text),
                 b.isNull ? "null" : shownText(b_.chain, b.text));
  }

  // Many pointers may share the same two texts, which are compared once.
  bool haveEqualText(std::uint32_t a, std::uint32_t b) {
    auto &[last, isEqual] = lastText_[a];
    if (last != b) {
      last = b;
      isEqual = isEqualText(a_.chain.texts[a], b_.chain.texts[b]);
    }
    return isEqual;
  }

  bool isEqualText(const Text &a, const Text &b) const {
    if (a.isWide != b.isWide) return false;
    if (a.isWide) return unitsOf(a_.chain, a) == unitsOf(b_.chain, b);
    if (a.length != b.length) return false;
    if (a_.chain.version->isEbcdic != b_.chain.version->isEbcdic) {
      const std::string_view bytesA = a_.chain.bytesAt(a.place, a.length);
      if (bytesA == b_.chain.bytesAt(b.place, b.length)) return true;  // not translated
      return a_.chain.utf8Of(a) == b_.chain.utf8Of(b);
    }
    return a_.chain.bytesAt(a.place, a.length) == b_.chain.bytesAt(b.place, b.length);
  }

  // The bytes before, between and after the pointer fields, without the length that the segment
  // begins with: it follows from the other bytes.
  std::vector<PackedChain::Run> runsOf(const ChainGraph &graph, const Segment &segment) const {
    std::vector<PackedChain::Run> runs;
    std::uint32_t from = tellsLength(kindOf(graph, segment).form) ? kLengthWord : 0;
    const auto add = [&](std::uint32_t to) {
      const std::uint32_t length = to > from ? to - from : 0;
      const Place place{segment.place.block, segment.place.offset + from};
      runs.push_back({from, graph.chain.bytesAt(place, length)});
    };
    for (const std::size_t i : orderOf(graph, segment)) {
      const auto offset =
          static_cast<std::uint32_t>(graph.chain.pointers[segment.firstPointer + i].offset);
      add(offset);
      from = offset + graph.chain.pointerWidth;
    }
    add(segment.length);
    return runs;
  }

  void compareBytes(const Segment &a, const Segment &b) {
    const std::vector<PackedChain::Run> runsA = runsOf(a_, a);
    const std::vector<PackedChain::Run> runsB = runsOf(b_, b);
    for (std::size_t i = 0; i < runsA.size(); ++i) {
      std::string_view one = runsA[i].bytes;
      std::string_view other = runsB[i].bytes;
      const std::size_t common = std::min(one.size(), other.size());
      if (mayPad_ && isZero(one.substr(common)) && isZero(other.substr(common))) {
        one = one.substr(0, common);
        other = other.substr(0, common);
      }
      if (one == other) continue;
      if (mayTurn_ && isTurned(one, other)) {
        ++made_.turned;
        continue;
      }
      const auto differing = std::mismatch(
          one.begin(), one.begin() + static_cast<std::ptrdiff_t>(common), other.begin());
      const auto at = static_cast<std::size_t>(differing.first - one.begin());
      walk_.differ(fmt::format("bytes at +{}", runsA[i].offset + at), shownBytes(one, at),
                   shownBytes(other, at));
    }
  }

  ChainGraph a_;
  ChainGraph b_;
  bool mayPad_;
  bool mayTurn_;
  std::vector<std::pair<std::uint32_t, bool>> lastText_;  // of each text of the first chain
  GraphWalk walk_;
  ChainComparison made_;
};

}  // namespace

ChainComparison compareChains(const PackedChain &a, const PackedChain &b,
                              const DifferenceSink &sink) {
  ChainDiff diff(a, b, sink);
  ChainComparison made = diff.run();
  if (diff.haveEqualRoots()) return made;
  ++made.differences;
  const auto shown = [](const PackedChain &chain) {
    return chain.segments.empty() ? shownText(chain, 0) : "a segment";
  };
  sink({"root", "root", shown(a), shown(b), textOf(*a.root), textOf(*b.root)});
  return made;
}

}  // namespace memtool
