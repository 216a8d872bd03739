// Pointer fields of a segment under two control blocks: the file's and the caller's.
#pragma once

#include <cstdint>

#include "pack/pack_descriptors.h"

namespace memlib {

// True when both describe the same kind of segment: the length is stored in the same way, and the
// pointer fields are the same, at any offsets. A self-describing kind may have another letter here
// than in the file of an EBCDIC writer.
bool haveSameFields(const MemPackDescriptor &file, const MemPackDescriptor &callers) noexcept;

// Control blocks are distinguished by the root's first child pointer and, in files with at least
// this many descriptors, by the second one too.
inline constexpr std::int32_t kSecondChildCompared = 21;

// The stored offset in descriptor 0's k-th child entry, used or not.
inline std::int16_t rootChildOffset(const PackControlBlock &controlBlock, std::size_t k) noexcept {
  return controlBlock.descriptor(0).Children[k].Offset;
}

// The end of the last pointer field if fields are `width` bytes long; 0 without fields.
std::int64_t lastFieldEnd(const MemPackDescriptor &descriptor, std::uint32_t width) noexcept;

// True when no pointer field overlaps another one or the length word of its segment, so that each
// can be stored without changing the others.
// REQUIRES: the fields are within the segment.
bool fieldsLieApart(const MemPackDescriptor &descriptor) noexcept;

// One side of a copy between layouts.
struct SegmentImage {
  const MemPackDescriptor &descriptor;
  std::uint32_t length;
  std::uint32_t pointerWidth;
};

// Copies the runs of bytes between the pointer fields in the order of their offsets. If a new run
// is longer, its rest is not written; if it is shorter, the old run is cut.
// REQUIRES: haveSameFields(); the pointer fields of each image are within its length.
void copyRuns(const SegmentImage &from, const std::byte *pFrom, const SegmentImage &to,
              std::byte *pTo) noexcept;

}  // namespace memlib
