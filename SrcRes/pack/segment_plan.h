// What the packer needs to know of a kind of segment, read from its descriptor once and not again
// for every segment.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>

#include "pack/pack_descriptors.h"

namespace memlib {

// A pointer field that points to text.
struct TextField {
  std::int16_t Offset;
  bool isWide;
};

// The plan of one descriptor. Text has no pointer fields, regardless of its descriptor.
class SegmentPlan {
 public:
  SegmentPlan() noexcept = default;  // without a descriptor
  void make(const PackControlBlock &controlBlock, std::uint16_t index) noexcept;

  bool isOf(std::uint16_t index) const noexcept { return index_ == index; }

  // False when the descriptor's counts or child kinds are out of range; then nothing else is set.
  bool isValid() const noexcept { return isValid_; }
  bool pointersLieWithin(std::int64_t length) const noexcept { return length >= pointersEnd_; }

  std::span<const TextField> texts() const noexcept { return {texts_, textCount_}; }
  // Child pointers to segments.
  std::span<const MemPackChild> children() const noexcept { return {children_, childCount_}; }
  // All pointers to segments in the order of the fix-up: sibling, children, references.
  std::span<const std::int16_t> links() const noexcept { return {links_, linkCount_}; }
  bool hasSibling() const noexcept { return hasSibling_; }
  // REQUIRES: hasSibling().
  std::int16_t sibling() const noexcept {
    MEM_ASSERT(hasSibling_);
    return links_[0];
  }

 private:
  static constexpr std::uint16_t kNoDescriptor = 0xFFFF;  // counts are signed

  void addField(std::int16_t offset) noexcept;
  void addLink(std::int16_t offset) noexcept;
  void addChild(const MemPackChild &child, const MemPackDescriptor &kind) noexcept;

  std::uint16_t index_ = kNoDescriptor;
  bool isValid_;
  bool hasSibling_;
  std::uint8_t textCount_;
  std::uint8_t childCount_;
  std::uint8_t linkCount_;
  std::int64_t pointersEnd_;  // least length of a segment with all pointer fields
  TextField texts_[MEM_PACK_MAX_CHILDREN];
  MemPackChild children_[MEM_PACK_MAX_CHILDREN];
  std::int16_t links_[1 + MEM_PACK_MAX_CHILDREN + MEM_PACK_MAX_REFERENCES];
};

inline void SegmentPlan::make(const PackControlBlock &controlBlock, std::uint16_t index) noexcept {
  const MemPackDescriptor &descriptor = controlBlock.descriptor(index);
  index_ = index;
  isValid_ = controlBlock.hasValidCounts(descriptor);
  hasSibling_ = memlib::hasSibling(descriptor);
  textCount_ = childCount_ = linkCount_ = 0;
  pointersEnd_ = std::numeric_limits<std::int64_t>::min();
  if (!isValid_) return;
  if (hasSibling_) addLink(descriptor.SiblingOff);
  for (const MemPackChild &child : memlib::children(descriptor)) {
    addChild(child, controlBlock.descriptor(child.Descriptor));
  }
  for (const std::int16_t offset : references(descriptor)) addLink(offset);
}

inline void SegmentPlan::addField(std::int16_t offset) noexcept {
  constexpr std::int64_t kNoLength = std::numeric_limits<std::int64_t>::max();
  const std::int64_t end = offset < 0 ? kNoLength : offset + std::int64_t{sizeof(void *)};
  pointersEnd_ = std::max(pointersEnd_, end);
}

inline void SegmentPlan::addLink(std::int16_t offset) noexcept {
  addField(offset);
  links_[linkCount_++] = offset;
}

inline void SegmentPlan::addChild(const MemPackChild &child,
                                  const MemPackDescriptor &kind) noexcept {
  if (isTextKind(kind)) {
    addField(child.Offset);
    texts_[textCount_++] = {child.Offset, kind.Type == MEM_PACK_WIDE_STRING};
  } else {
    addLink(child.Offset);
    children_[childCount_++] = child;
  }
}

// The plans of a control block, each made on first use.
class PlanTable {
 public:
  explicit PlanTable(const PackControlBlock &controlBlock) noexcept : controlBlock_(controlBlock) {}

  // Valid until the next call for another descriptor: in a control block with many descriptors
  // several share a place. REQUIRES: index < present().
  const SegmentPlan &of(std::uint16_t index) noexcept {
    MEM_ASSERT(index < controlBlock_.present());
    SegmentPlan &plan = plans_[index % kPlaces];
    if (!plan.isOf(index)) plan.make(controlBlock_, index);
    return plan;
  }

 private:
  static constexpr std::size_t kPlaces = 8;

  const PackControlBlock &controlBlock_;
  SegmentPlan plans_[kPlaces];
};

}  // namespace memlib
