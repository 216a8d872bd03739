// The pack control block: the kinds of segments, their pointer fields, and its two layouts. Also
// the failures that several steps of packing and unpacking have in common.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/bytes.h"
#include "frame/outcome.h"
#include "platform/check.h"
#include "qj7mem00/mempack.h"

namespace memlib {

// A failure whose result is its code.
inline StepFailure failure(std::uint32_t code, const ErrorText &text) noexcept {
  return {.result = static_cast<std::int16_t>(code), .code = code, .text = text};
}

inline StepFailure badDescriptor(const void *pDescriptor) noexcept {
  return failure(MEMERR_PACKCBID, ErrorText("MemPackCBstructIDInvalid=").pointer(pDescriptor));
}

inline StepFailure badBlockCount(std::int32_t count) noexcept {
  const auto shown = static_cast<std::int16_t>(count);
  return failure(MEMERR_PACKBMAX, ErrorText("MaxBlocksValueBad=").decimal(shown));
}

// Characters of the version before a packed control block.
inline constexpr std::uint32_t kPackVersionLen = 4;

// Descriptors that exist in a control block with this count.
constexpr std::int32_t descriptorsPresent(std::int32_t count) noexcept {
  return count > MEM_PACK_MIN_DESCRIPTORS ? count : MEM_PACK_MIN_DESCRIPTORS;
}

inline bool isTextKind(const MemPackDescriptor &descriptor) noexcept {
  return descriptor.Type == MEM_PACK_STRING || descriptor.Type == MEM_PACK_WIDE_STRING;
}

// Pointer fields of a kind of segment. Text has none, regardless of its descriptor.
// REQUIRES: hasValidCounts(descriptor).
inline std::span<const MemPackChild> children(const MemPackDescriptor &descriptor) noexcept {
  const std::int16_t count = isTextKind(descriptor) ? std::int16_t{0} : descriptor.ChildCount;
  MEM_ASSERT(count >= 0 && count <= MEM_PACK_MAX_CHILDREN);
  return {descriptor.Children, static_cast<std::size_t>(count)};
}

inline std::span<const std::int16_t> references(const MemPackDescriptor &descriptor) noexcept {
  const std::int16_t count = isTextKind(descriptor) ? std::int16_t{0} : descriptor.ReferenceCount;
  MEM_ASSERT(count >= 0 && count <= MEM_PACK_MAX_REFERENCES);
  return {descriptor.References, static_cast<std::size_t>(count)};
}

// The entries that a descriptor's counts cover, also for text: those that conversions and byte
// swaps process. None for a count that is out of range.
inline std::span<const MemPackChild> usedChildren(const MemPackDescriptor &descriptor) noexcept {
  const std::int16_t count = descriptor.ChildCount;
  const bool isInRange = count >= 0 && count <= MEM_PACK_MAX_CHILDREN;
  return {descriptor.Children, isInRange ? static_cast<std::size_t>(count) : std::size_t{0}};
}

inline std::span<const std::int16_t> usedReferences(const MemPackDescriptor &descriptor) noexcept {
  const std::int16_t count = descriptor.ReferenceCount;
  const bool isInRange = count >= 0 && count <= MEM_PACK_MAX_REFERENCES;
  return {descriptor.References, isInRange ? static_cast<std::size_t>(count) : std::size_t{0}};
}

inline bool hasSibling(const MemPackDescriptor &descriptor) noexcept {
  return !isTextKind(descriptor) && descriptor.SiblingOff != MEM_PACK_NO_SIBLING;
}

// Bytes of a counted or self-describing segment with this first word. Less than the length of the
// word when the word is wrong.
inline constexpr std::int32_t kLengthWordLen = sizeof(std::uint16_t);
inline std::int32_t lengthByWord(const MemPackDescriptor &descriptor, std::uint16_t word) noexcept {
  if (descriptor.Type != MEM_PACK_COUNTED) return word;
  return static_cast<std::int16_t>(word) + kLengthWordLen;
}

// Calls use(offset) for each pointer field until a result is true: a failure, or the field that is
// searched for. Returns the last result.
template <class Use>
auto anyPointerField(const MemPackDescriptor &descriptor, Use use) noexcept
    -> decltype(use(std::int16_t{})) {
  if (hasSibling(descriptor)) {
    if (auto found = use(descriptor.SiblingOff)) return found;
  }
  for (const MemPackChild &child : children(descriptor)) {
    if (auto found = use(child.Offset)) return found;
  }
  for (const std::int16_t offset : references(descriptor)) {
    if (auto found = use(offset)) return found;
  }
  return {};
}

// Reads a pointer field of a segment, which may have any alignment.
inline void *loadPointer(const void *pSegment, std::int16_t offset) noexcept {
  return loadAs<void *>(bytesAt(pSegment, static_cast<std::size_t>(offset)));
}

// True when every pointer field of `width` bytes is entirely within a segment of `length` bytes.
bool pointersLieWithin(const MemPackDescriptor &descriptor, std::int64_t length,
                       std::uint32_t width = sizeof(void *)) noexcept;

// The current layout, and the old one with room for 8 children.
struct DescriptorLayout {
  std::uint32_t length;
  std::uint32_t childrenOff;
  std::uint32_t referencesOff;
  std::int16_t maxChildren;

  // Bytes of a control block with this count of descriptors.
  constexpr std::uint32_t controlBlockLen(std::int32_t count) const noexcept {
    return static_cast<std::uint32_t>(sizeof(std::int16_t)) +
           static_cast<std::uint32_t>(descriptorsPresent(count)) * length;
  }
};
inline constexpr DescriptorLayout kCurrentLayout{
    sizeof(MemPackDescriptor), offsetof(MemPackDescriptor, Children),
    offsetof(MemPackDescriptor, References), MEM_PACK_MAX_CHILDREN};
inline constexpr DescriptorLayout kOldLayout{58, 10, 42, 8};

// Stores the used entries of a descriptor, unchanged, in a descriptor of that layout at `pTo`.
void storeUsedEntries(const MemPackDescriptor &descriptor, const DescriptorLayout &layout,
                      std::byte *pTo) noexcept;

// View of a caller's control block. Descriptors up to index 7 exist regardless of the count.
class PackControlBlock {
 public:
  explicit PackControlBlock(const MemPackCB *pPackCB) noexcept : pPackCB_(pPackCB) {}

  bool exists() const noexcept { return pPackCB_ != nullptr && pPackCB_->Count >= 1; }
  const MemPackCB *address() const noexcept { return pPackCB_; }

  // REQUIRES for the rest: exists().
  std::int32_t count() const noexcept {
    MEM_ASSERT(exists());
    return pPackCB_->Count;
  }
  std::int32_t present() const noexcept { return descriptorsPresent(count()); }
  std::uint32_t length() const noexcept { return kCurrentLayout.controlBlockLen(count()); }

  // REQUIRES: index < present().
  const MemPackDescriptor &descriptor(std::int32_t index) const noexcept;

  // True when the descriptor's counts and child kinds are in range. For text any values are in
  // range.
  bool hasValidCounts(const MemPackDescriptor &descriptor) const noexcept;

  // The first of the counted descriptors without valid counts, or null.
  const MemPackDescriptor *firstInvalid() const noexcept;

 private:
  const MemPackCB *pPackCB_;
};

// The kinds of a control block that conversions and byte swaps process: those within the count, and
// those beyond it that a used kind names as a child.
class UsedKinds {
 public:
  // REQUIRES: controlBlock.exists().
  explicit UsedKinds(const PackControlBlock &controlBlock) noexcept;

  bool contains(std::int32_t index) const noexcept {
    return index < count_ || (index < MEM_PACK_MIN_DESCRIPTORS && (named_ >> index & 1U) != 0);
  }

 private:
  std::int32_t count_;
  std::uint32_t named_ = 0;  // one bit for each kind that exists regardless of the count
};

// True when a used kind has more child entries than the old layout can hold.
bool hasTooManyChildrenForOld(const PackControlBlock &controlBlock) noexcept;

// Writes the used kinds in the old layout, native byte order.
// REQUIRES: pTo has kOldLayout.controlBlockLen() zero bytes,
// !hasTooManyChildrenForOld(controlBlock).
void writeOldControlBlock(const PackControlBlock &controlBlock, void *pTo) noexcept;

}  // namespace memlib
