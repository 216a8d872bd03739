#include "pack/segment_plan.h"

#include <algorithm>
#include <limits>

namespace memlib {

void SegmentPlan::make(const PackControlBlock &controlBlock, std::uint16_t index) noexcept {
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

void SegmentPlan::addField(std::int16_t offset) noexcept {
  constexpr std::int64_t kNoLength = std::numeric_limits<std::int64_t>::max();
  const std::int64_t end = offset < 0 ? kNoLength : offset + std::int64_t{sizeof(void *)};
  pointersEnd_ = std::max(pointersEnd_, end);
}

void SegmentPlan::addLink(std::int16_t offset) noexcept {
  addField(offset);
  links_[linkCount_++] = offset;
}

void SegmentPlan::addChild(const MemPackChild &child, const MemPackDescriptor &kind) noexcept {
  if (isTextKind(kind)) {
    addField(child.Offset);
    texts_[textCount_++] = {child.Offset, kind.Type == MEM_PACK_WIDE_STRING};
  } else {
    addLink(child.Offset);
    children_[childCount_++] = child;
  }
}

}  // namespace memlib
