#include "pack/pack_descriptors.h"

#include <algorithm>

namespace mem {

namespace {

bool liesWithin(std::int16_t offset, std::uint32_t width, std::int64_t length) noexcept {
  return offset >= 0 && std::int64_t{offset} + width <= length;
}

// Offsets in an old descriptor; the first 10 bytes are those of a current one.
constexpr std::size_t kCommonLen = 10;
constexpr std::size_t kOldChildrenOff = 10;
constexpr std::size_t kOldReferencesOff = 42;

void writeOldDescriptor(const MemPackDescriptor &descriptor, std::byte *pTo) noexcept {
  std::memcpy(pTo, &descriptor, kCommonLen);
  const auto children = usedChildren(descriptor);
  if (!children.empty()) std::memcpy(pTo + kOldChildrenOff, children.data(), children.size_bytes());
  const auto references = usedReferences(descriptor);
  if (!references.empty()) {
    std::memcpy(pTo + kOldReferencesOff, references.data(), references.size_bytes());
  }
}

}  // namespace

bool pointersLieWithin(const MemPackDescriptor &descriptor, std::int64_t length,
                       std::uint32_t width) noexcept {
  if (hasSibling(descriptor) && !liesWithin(descriptor.SiblingOff, width, length)) return false;
  for (const MemPackChild &child : children(descriptor)) {
    if (!liesWithin(child.Offset, width, length)) return false;
  }
  for (const std::int16_t offset : references(descriptor)) {
    if (!liesWithin(offset, width, length)) return false;
  }
  return true;
}

const MemPackDescriptor &PackControlBlock::descriptor(std::int32_t index) const noexcept {
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

std::uint32_t oldControlBlockLen(std::int32_t count) noexcept {
  const std::int32_t kinds = std::max<std::int32_t>(count, MEM_PACK_MIN_DESCRIPTORS);
  return static_cast<std::uint32_t>(sizeof(std::int16_t)) +
         static_cast<std::uint32_t>(kinds) * kOldDescriptorLen;
}

bool hasTooManyChildrenForOld(const PackControlBlock &controlBlock) noexcept {
  const UsedKinds used(controlBlock);
  for (std::int32_t i = 0; i < controlBlock.present(); ++i) {
    if (!used.contains(i)) continue;
    if (usedChildren(controlBlock.descriptor(i)).size() > kOldMaxChildren) return true;
  }
  return false;
}

void writeOldControlBlock(const PackControlBlock &controlBlock, void *pTo) noexcept {
  storeAs(pTo, static_cast<std::int16_t>(controlBlock.count()));
  const UsedKinds used(controlBlock);
  std::byte *pDescriptor = bytesAt(pTo, sizeof(std::int16_t));
  for (std::int32_t i = 0; i < controlBlock.present(); ++i) {
    if (used.contains(i)) writeOldDescriptor(controlBlock.descriptor(i), pDescriptor);
    pDescriptor += kOldDescriptorLen;
  }
}

}  // namespace mem
