#include "pack/unpack/pointer_fields.h"

#include <algorithm>

#include "base/bytes.h"

namespace memlib {

namespace {

// Offsets of all pointer fields in ascending order.
class FieldOffsets {
 public:
  explicit FieldOffsets(const MemPackDescriptor &descriptor) noexcept {
    anyPointerField(descriptor, [this](std::int16_t offset) {
      offsets_[count_++] = static_cast<std::uint32_t>(offset);
      return false;
    });
    std::sort(offsets_, offsets_ + count_);
  }

  std::uint32_t count() const noexcept { return count_; }
  std::uint32_t operator[](std::uint32_t k) const noexcept { return offsets_[k]; }
  // The end of the run before field k, or of the last run.
  std::uint32_t runEnd(std::uint32_t k, std::uint32_t length) const noexcept {
    return k < count_ ? offsets_[k] : length;
  }

 private:
  std::uint32_t offsets_[MEM_PACK_MAX_CHILDREN + 1 + MEM_PACK_MAX_REFERENCES];
  std::uint32_t count_ = 0;
};

// Where segments of a type have their length. All types without a letter count as one.
std::uint16_t lengthRule(std::uint16_t type) noexcept {
  constexpr std::uint16_t kSelfDescribing = 0;
  switch (type) {
    case MEM_PACK_FIXED:
    case MEM_PACK_COUNTED:
    case MEM_PACK_STRING:
    case MEM_PACK_WIDE_STRING:
      return type;
    default:
      return kSelfDescribing;
  }
}

}  // namespace

bool haveSameFields(const MemPackDescriptor &file, const MemPackDescriptor &callers) noexcept {
  if (lengthRule(file.Type) != lengthRule(callers.Type)) return false;
  if (isTextKind(file)) return true;
  return hasSibling(file) == hasSibling(callers) &&
         references(file).size() == references(callers).size() &&
         std::ranges::equal(children(file), children(callers), {}, &MemPackChild::Descriptor,
                            &MemPackChild::Descriptor);
}

std::int64_t lastFieldEnd(const MemPackDescriptor &descriptor, std::uint32_t width) noexcept {
  std::int64_t end = 0;
  anyPointerField(descriptor, [&end, width](std::int16_t offset) {
    end = std::max(end, std::int64_t{offset} + width);
    return false;
  });
  return end;
}

bool fieldsLieApart(const MemPackDescriptor &descriptor) noexcept {
  MEM_ASSERT(pointersLieWithin(descriptor, UINT16_MAX));
  const FieldOffsets fields(descriptor);
  std::uint32_t end = descriptor.Type == MEM_PACK_FIXED ? 0 : kLengthWordLen;
  for (std::uint32_t k = 0; k < fields.count(); ++k) {
    if (fields[k] < end) return false;
    end = fields[k] + static_cast<std::uint32_t>(sizeof(void *));
  }
  return true;
}

void copyRuns(const SegmentImage &from, const std::byte *pFrom, const SegmentImage &to,
              std::byte *pTo) noexcept {
  MEM_ASSERT(haveSameFields(from.descriptor, to.descriptor));
  MEM_ASSERT(pointersLieWithin(from.descriptor, from.length, from.pointerWidth));
  MEM_ASSERT(pointersLieWithin(to.descriptor, to.length, to.pointerWidth));
  const FieldOffsets fromFields(from.descriptor);
  const FieldOffsets toFields(to.descriptor);
  std::uint32_t fromStart = 0;
  std::uint32_t toStart = 0;
  for (std::uint32_t k = 0; k <= fromFields.count(); ++k) {
    const std::uint32_t fromEnd = fromFields.runEnd(k, from.length);
    const std::uint32_t toEnd = toFields.runEnd(k, to.length);
    if (fromStart < fromEnd && toStart < toEnd) {
      copyBytes(pTo + toStart, pFrom + fromStart, std::min(fromEnd - fromStart, toEnd - toStart));
    }
    fromStart = fromEnd + from.pointerWidth;
    toStart = toEnd + to.pointerWidth;
  }
}

}  // namespace memlib
