// The walk over a packed chain: depth first from the root, each segment, then its children, then
// its sibling, exactly as the packer wrote them.
#pragma once

#include <cstdint>
#include <optional>

#include "pack/unpack/chain_reader.h"

namespace memlib {

// The target of a pointer. No value: the pointer is null.
using PointerTarget = std::optional<ContentPlace>;

// A child pointer to text.
struct TextUse {
  ContentPlace segment;      // with the pointer
  std::uint16_t descriptor;  // of that segment
  std::uint16_t child;       // entry of the pointer
  ContentPlace text;
  bool isWide;
};

// What a visitor must have:
//   Outcome visit(std::uint16_t descriptor, const ContentPlace &place)
//       called for each segment before anything is read of it
//   Outcome visitText(const TextUse &use)
//   Outcome pointer(const ContentPlace &segment, std::int16_t offset, PointerTarget &target)
//       called once for each child and sibling pointer of a visited segment, with no target
//   kTooDeep
//       text of the failure when the structure has too many levels
template <class Visitor>
class ChainWalk {
 public:
  ChainWalk(const ChainReader &chain, Visitor &visitor) noexcept
      : chain_(chain), visitor_(visitor) {}

  Outcome run(const ContentPlace &root) noexcept {
    depth_ = 0;
    if (Outcome failed = begin(0, root)) return failed;
    while (depth_ >= 0) {
      if (Outcome failed = advance()) return failed;
    }
    return {};
  }

 private:
  // A level of the traversal stack.
  struct Level {
    std::uint16_t descriptor;
    std::uint16_t nextChild;  // next child entry to examine
    ContentPlace place;
  };

  const MemPackDescriptor &kind(std::uint16_t descriptor) const noexcept {
    return chain_.controlBlock().descriptor(descriptor);
  }

  // Makes a segment the current level.
  Outcome begin(std::uint16_t descriptor, const ContentPlace &place) noexcept {
    levels_[depth_] = {.descriptor = descriptor, .nextChild = 0, .place = place};
    return visitor_.visit(descriptor, place);
  }

  // One step: down to the next child that is a segment, else to the sibling, else up. Text is
  // visited where its pointer is and takes no level.
  Outcome advance() noexcept {
    Level &level = levels_[depth_];
    const MemPackDescriptor &descriptor = kind(level.descriptor);
    const auto all = children(descriptor);
    while (level.nextChild < all.size()) {
      const std::uint16_t entry = level.nextChild++;
      const MemPackDescriptor &childKind = kind(all[entry].Descriptor);
      PointerTarget target;
      if (Outcome failed = visitor_.pointer(level.place, all[entry].Offset, target)) return failed;
      if (!target) continue;
      if (!isTextKind(childKind)) return goDown(all[entry].Descriptor, *target);
      const bool isWide = childKind.Type == MEM_PACK_WIDE_STRING;
      const TextUse use{level.place, level.descriptor, entry, *target, isWide};
      if (Outcome failed = visitor_.visitText(use)) return failed;
    }
    return goOnToSibling(level, descriptor);
  }

  Outcome goDown(std::uint16_t descriptor, const ContentPlace &place) noexcept {
    if (depth_ + 1 == MEM_PACK_MAX_LEVELS) {
      return failure(MEMERR_PACKSTAK, ErrorText(Visitor::kTooDeep));
    }
    ++depth_;
    return begin(descriptor, place);
  }

  Outcome goOnToSibling(const Level &level, const MemPackDescriptor &descriptor) noexcept {
    PointerTarget target;
    if (hasSibling(descriptor)) {
      if (Outcome failed = visitor_.pointer(level.place, descriptor.SiblingOff, target)) {
        return failed;
      }
    }
    if (target) return begin(level.descriptor, *target);
    --depth_;
    return {};
  }

  const ChainReader &chain_;
  Visitor &visitor_;
  Level levels_[MEM_PACK_MAX_LEVELS];
  std::int32_t depth_ = 0;  // current level; -1 once the walk is over
};

}  // namespace memlib
