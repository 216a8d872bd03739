#include "pack/pack_descriptors.h"

#include <algorithm>

#include "base/bytes.h"

namespace memlib {

bool pointersLieWithin(const MemPackDescriptor &descriptor, std::int64_t length,
                       std::uint32_t width) noexcept {
  return !anyPointerField(descriptor, [=](std::int16_t offset) {
    return offset < 0 || std::int64_t{offset} + width > length;
  });
}

const MemPackDescriptor &PackControlBlock::descriptor(std::int32_t index) const noexcept {
  MEM_ASSERT(index >= 0 && index < present());
  // The record declares eight descriptors; further ones follow it in the caller's storage.
  return reinterpret_cast<const MemPackDescriptor *>(
      bytesAt(pPackCB_, offsetof(MemPackCB, Descriptors)))[index];
}

bool PackControlBlock::hasValidCounts(const MemPackDescriptor &descriptor) const noexcept {
  if (isTextKind(descriptor)) return true;
  if (descriptor.ChildCount < 0 || descriptor.ChildCount > MEM_PACK_MAX_CHILDREN) return false;
  if (descriptor.ReferenceCount < 0 || descriptor.ReferenceCount > MEM_PACK_MAX_REFERENCES) {
    return false;
  }
  return std::ranges::all_of(children(descriptor), [this](const MemPackChild &child) {
    return child.Descriptor < present();
  });
}

const MemPackDescriptor *PackControlBlock::firstInvalid() const noexcept {
  for (std::int32_t i = 0; i < count(); ++i) {
    if (!hasValidCounts(descriptor(i))) return &descriptor(i);
  }
  return nullptr;
}

UsedKinds::UsedKinds(const PackControlBlock &controlBlock) noexcept : count_(controlBlock.count()) {
  if (count_ >= MEM_PACK_MIN_DESCRIPTORS) return;
  std::uint32_t before = 0;
  named_ = (1U << count_) - 1;
  while (named_ != before) {
    before = named_;
    for (std::int32_t i = 0; i < MEM_PACK_MIN_DESCRIPTORS; ++i) {
      if ((before >> i & 1U) == 0) continue;
      for (const MemPackChild &child : usedChildren(controlBlock.descriptor(i))) {
        if (child.Descriptor < MEM_PACK_MIN_DESCRIPTORS) named_ |= 1U << child.Descriptor;
      }
    }
  }
}

bool hasTooManyChildrenForOld(const PackControlBlock &controlBlock) noexcept {
  const UsedKinds used(controlBlock);
  for (std::int32_t i = 0; i < controlBlock.present(); ++i) {
    if (!used.contains(i)) continue;
    if (usedChildren(controlBlock.descriptor(i)).size() > std::size_t{kOldLayout.maxChildren})
      return true;
  }
  return false;
}

void storeUsedEntries(const MemPackDescriptor &descriptor, const DescriptorLayout &layout,
                      std::byte *pTo) noexcept {
  const auto children = usedChildren(descriptor);
  copyBytes(pTo + layout.childrenOff, children.data(), children.size_bytes());
  const auto references = usedReferences(descriptor);
  copyBytes(pTo + layout.referencesOff, references.data(), references.size_bytes());
}

void writeOldControlBlock(const PackControlBlock &controlBlock, void *pTo) noexcept {
  MEM_ASSERT(!hasTooManyChildrenForOld(controlBlock));
  storeAs(pTo, static_cast<std::int16_t>(controlBlock.count()));
  const UsedKinds used(controlBlock);
  std::byte *pDescriptor = bytesAt(pTo, sizeof(std::int16_t));
  for (std::int32_t i = 0; i < controlBlock.present(); ++i) {
    if (used.contains(i)) {
      const MemPackDescriptor &descriptor = controlBlock.descriptor(i);
      std::memcpy(pDescriptor, &descriptor, kOldLayout.childrenOff);
      storeUsedEntries(descriptor, kOldLayout, pDescriptor);
    }
    pDescriptor += kOldLayout.length;
  }
}

}  // namespace memlib
