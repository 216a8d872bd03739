// Pointer fields of a segment under two control blocks: the file's and the caller's.
#pragma once

#include <cstdint>

#include "pack/pack_descriptors.h"

namespace memlib {

// True when both describe the same kind of segment: the same way to tell its length and the same
// pointer fields, at whatever offsets. A self-describing kind may have another letter here than in
// the file of an EBCDIC writer.
bool haveSameFields(const MemPackDescriptor &file, const MemPackDescriptor &callers) noexcept;

// Control blocks are told apart by the root's first child pointer and, in files with so many
// descriptors, by the second one too.
inline constexpr std::int32_t kSecondChildCompared = 21;

// The offset in descriptor 0's k-th child entry as it is stored, used or not.
inline std::int16_t rootChildOffset(const PackControlBlock &controlBlock, std::size_t k) noexcept {
  return controlBlock.descriptor(0).Children[k].Offset;
}

// The end of the last pointer field when fields are `width` bytes long, 0 without fields.
std::int64_t lastFieldEnd(const MemPackDescriptor &descriptor, std::uint32_t width) noexcept;

// True when no pointer field lies over another one or over the length word of its segment, so that
// each can be stored without changing what else is stored.
// REQUIRES: the fields lie within the segment.
bool fieldsLieApart(const MemPackDescriptor &descriptor) noexcept;

// One side of a copy between layouts.
struct SegmentImage {
  const MemPackDescriptor &descriptor;
  std::uint32_t length;
  std::uint32_t pointerWidth;
};

// Copies what lies between the pointer fields, run by run in the order of the offsets. What a new
// run has beyond the old one stays as it is, what it lacks is cut.
// REQUIRES: haveSameFields(); the pointer fields of each image lie within its length.
void copyRuns(const SegmentImage &from, const std::byte *pFrom, const SegmentImage &to,
              std::byte *pTo) noexcept;

}  // namespace memlib
