// The walk over a packed chain: depth first from the root, each segment, then its children, then
// its sibling, exactly as the packer wrote them.
#pragma once

#include <cstdint>

#include "pack/unpack/chain_reader.h"

namespace mem {

// A child pointer that leads to text.
struct TextUse {
  ContentPlace segment;      // that holds the pointer
  std::uint16_t descriptor;  // of that segment
  std::uint16_t child;       // entry of the pointer
  ContentPlace text;
  bool isWide;
};

// What a visitor must have:
//   Outcome visit(std::uint16_t descriptor, const ContentPlace &place)
//       called for each segment before anything is read of it
//   Outcome visitText(const TextUse &use)
//   Outcome pointer(const ContentPlace &segment, std::int16_t offset, ContentPlace &target,
//                   bool &isNull)
//       called once for each child and sibling pointer of a visited segment
//   kTooDeep
//       text of the failure when the structure has too many levels
template <class Visitor>
class ChainWalk {
 public:
  ChainWalk(const PackedChain &chain, Visitor &visitor) noexcept
      : chain_(chain), visitor_(visitor) {}

  Outcome run(const ContentPlace &root) noexcept {
    Level &first = levels_[0];
    first = {.descriptor = 0, .nextChild = 0, .place = root};
    depth_ = 0;
    if (Outcome failed = visitor_.visit(first.descriptor, first.place)) return failed;
    while (depth_ >= 0) {
      if (Outcome failed = advance()) return failed;
    }
    return {};
  }

 private:
  struct Level {
    std::uint16_t descriptor;
    std::uint16_t nextChild;  // next child entry to examine
    ContentPlace place;
  };

  const MemPackDescriptor &kind(std::uint16_t descriptor) const noexcept {
    return chain_.controlBlock().descriptor(descriptor);
  }

  // One step: into the next child, else on to the sibling, else up.
  Outcome advance() noexcept {
    Level &level = levels_[depth_];
    bool isTaken = false;
    if (Outcome failed = takeChild(level, isTaken)) return failed;
    if (isTaken) return {};
    if (Outcome failed = takeSibling(level, isTaken)) return failed;
    if (!isTaken) --depth_;
    return {};
  }

  // Text is dealt with where its pointer is; it takes no level.
  Outcome takeChild(Level &level, bool &isTaken) noexcept {
    const auto all = children(kind(level.descriptor));
    while (level.nextChild < all.size()) {
      const std::uint16_t entry = level.nextChild++;
      const MemPackChild &child = all[entry];
      Level below{.descriptor = child.Descriptor, .nextChild = 0, .place = {}};
      bool isNull = false;
      if (Outcome failed = visitor_.pointer(level.place, child.Offset, below.place, isNull)) {
        return failed;
      }
      if (isNull) continue;
      const MemPackDescriptor &childKind = kind(child.Descriptor);
      if (isTextKind(childKind)) {
        const TextUse use{level.place, level.descriptor, entry, below.place,
                          childKind.Type == MEM_PACK_WIDE_STRING};
        if (Outcome failed = visitor_.visitText(use)) return failed;
        continue;
      }
      if (depth_ + 1 == MEM_PACK_MAX_LEVELS) {
        return failure(MEMERR_PACKSTAK, ErrorText(Visitor::kTooDeep));
      }
      isTaken = true;
      levels_[++depth_] = below;
      return visitor_.visit(below.descriptor, below.place);
    }
    return {};
  }

  Outcome takeSibling(Level &level, bool &isTaken) noexcept {
    const MemPackDescriptor &descriptor = kind(level.descriptor);
    if (!hasSibling(descriptor)) return {};
    ContentPlace next{};
    bool isNull = false;
    if (Outcome failed = visitor_.pointer(level.place, descriptor.SiblingOff, next, isNull)) {
      return failed;
    }
    if (isNull) return {};
    isTaken = true;
    level = {.descriptor = level.descriptor, .nextChild = 0, .place = next};
    return visitor_.visit(level.descriptor, level.place);
  }

  const PackedChain &chain_;
  Visitor &visitor_;
  Level levels_[MEM_PACK_MAX_LEVELS];
  std::int32_t depth_ = 0;  // current level; -1 once the walk is over
};

}  // namespace mem
