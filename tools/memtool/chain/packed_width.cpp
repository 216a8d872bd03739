#include "packed_width.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "packed_head.hpp"

namespace memtool {
namespace {

constexpr std::int32_t kNarrow = 4;
constexpr std::int32_t kWide = 8;
// This many pointer fields are unlikely to be at multiples of 8 by chance.
constexpr std::size_t kTellingFields = 3;

// Visits all segments that a reader finds with either width: both read a block and an offset from
// the first four bytes of a pointer field. Ignores pointers that lead nowhere.
class Reach {
 public:
  explicit Reach(const PackedChain &chain) : chain_(chain), isReached_(chain.kinds.size(), false) {
    for (const Block &block : chain.blocks) isVisited_.emplace_back(block.used, false);
  }

  void run(Place root) {
    take(0, root);
    while (!waiting_.empty()) {
      const auto [kind, place] = waiting_.back();
      waiting_.pop_back();
      follow(kind, place);
    }
  }

  bool isReached(std::size_t kind) const { return isReached_[kind]; }
  // Pointers that are not null, counted by whether the four bytes after their first four are zero.
  std::uint64_t followedByZeros() const { return followedByZeros_; }
  std::uint64_t followedByOthers() const { return followedByOthers_; }

 private:
  // Each place is visited once, so that the time is proportional to the file's length.
  void take(std::uint16_t kind, Place place) {
    const Kind &descriptor = chain_.kinds[kind];
    if (!descriptor.isDescribed || isText(descriptor.form)) return;
    if (isVisited_[place.block][place.offset]) return;
    isVisited_[place.block][place.offset] = true;
    isReached_[kind] = true;
    waiting_.emplace_back(kind, place);
  }

  void follow(std::uint16_t kind, Place segment) {
    const Kind &descriptor = chain_.kinds[kind];
    for (const MemPackChild &child : descriptor.children) {
      if (const auto target = read(segment, child.Offset)) take(child.Descriptor, *target);
    }
    for (const std::int16_t reference : descriptor.references) read(segment, reference);
    if (!descriptor.hasSibling()) return;
    if (const auto target = read(segment, descriptor.siblingOff)) take(kind, *target);
  }

  std::optional<Place> read(Place segment, std::int16_t fieldOffset) {
    const std::int64_t start = std::int64_t{segment.offset} + fieldOffset;
    const std::uint32_t used = chain_.blocks[segment.block].used;
    if (start < 0 || start + kNarrow > used) return {};
    const Place field{segment.block, static_cast<std::uint32_t>(start)};
    const std::int16_t block = chain_.signedNumber(chain_.fileOffset(field));
    const std::int16_t offset = chain_.signedNumber(chain_.fileOffset(field) + 2);
    const bool isNull = block == 0 && offset == 0;
    if (isNull || block < 0 || static_cast<std::size_t>(block) >= chain_.blocks.size()) return {};
    const Place target{static_cast<std::uint32_t>(block), static_cast<std::uint32_t>(offset)};
    if (offset < 0 || target.offset >= chain_.blocks[target.block].used) return {};
    if (start + kWide <= used) noteWhatFollows({field.block, field.offset + kNarrow});
    return target;
  }

  void noteWhatFollows(Place place) {
    const std::string_view bytes = chain_.bytesAt(place, kNarrow);
    const bool isZero = std::all_of(bytes.begin(), bytes.end(), [](char c) { return c == 0; });
    ++(isZero ? followedByZeros_ : followedByOthers_);
  }

  const PackedChain &chain_;
  std::vector<bool> isReached_;               // of each kind
  std::vector<std::vector<bool>> isVisited_;  // of each block's bytes
  std::vector<std::pair<std::uint16_t, Place>> waiting_;
  std::uint64_t followedByZeros_ = 0;
  std::uint64_t followedByOthers_ = 0;
};

// Whether the pointer fields of some kinds are possible with one width.
struct Layouts {
  bool areApart = true;    // no field overlaps another or passes the end of a fixed segment
  bool areAligned = true;  // fields and lengths of fixed segments are multiples of the width

  void add(const Kind &kind, const std::vector<std::int32_t> &offsets, std::int32_t width) {
    areApart = areApart && offsets.front() >= 0;
    for (std::size_t i = 1; i < offsets.size(); ++i) {
      areApart = areApart && offsets[i] - offsets[i - 1] >= width;
    }
    for (const std::int32_t offset : offsets) areAligned = areAligned && offset % width == 0;
    if (kind.form != Form::Fixed) return;
    areApart = areApart && offsets.back() + width <= kind.fixedLen;
    areAligned = areAligned && kind.fixedLen % width == 0;
  }
  bool areOfCompiler() const { return areApart && areAligned; }
};

// The chain consists of one segment of fixed length.
bool isRootAlone(const PackedChain &chain, Place root) {
  const Kind &kind = chain.kinds[0];
  return kind.form == Form::Fixed && root.block + 1 == chain.blocks.size() &&
         root.offset + std::uint32_t{kind.fixedLen} == chain.blocks[root.block].used;
}

// Damage to one number of the control block must not make 8-byte pointers look like 4-byte ones.
// The upper halves of 8-byte pointers are zero, so bytes other than zero after a pointer are
// required.
bool isNarrow(const Layouts &narrow, const Layouts &wide, const Reach &reach, bool isAlone) {
  if (!narrow.areApart) return false;
  if (!wide.areApart) return reach.followedByOthers() > 0 || isAlone;
  return narrow.areAligned && !wide.areAligned &&
         reach.followedByOthers() > reach.followedByZeros();
}

}  // namespace

PointerWidth findPointerWidth(const PackedChain &chain) {
  const std::optional<Place> root = rootPlace(chain);
  if (!root) return {};
  Reach reach(chain);
  reach.run(*root);
  Layouts narrow;
  Layouts wide;
  std::size_t fields = 0;
  for (std::size_t i = 0; i < chain.kinds.size(); ++i) {
    if (!reach.isReached(i)) continue;
    const std::vector<std::int32_t> offsets = chain.kinds[i].pointerOffsets();
    if (offsets.empty()) continue;
    fields += offsets.size();
    narrow.add(chain.kinds[i], offsets, kNarrow);
    wide.add(chain.kinds[i], offsets, kWide);
  }
  if (isNarrow(narrow, wide, reach, isRootAlone(chain, *root))) return {kNarrow, false};
  return {kWide, !(wide.areOfCompiler() && fields >= kTellingFields)};
}

}  // namespace memtool
