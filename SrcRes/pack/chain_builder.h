// The chain of blocks that the packer fills: where items go, and when a new block is started.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

#include "base/bytes.h"
#include "pack/pack_descriptors.h"
#include "platform/check.h"
#include "platform/platform.h"
#include "qj7mem00/mempack.h"

namespace memlib {

enum class Placement {
  done,
  tooLong,       // no block of this length can hold the item
  noStorage,     // no storage for a further block
  tooManyBlocks  // the chain would exceed MEM_PACK_MAX_BLOCKS
};

// The failure of an item that was not placed. `tooLong` is the failure of an item too long for
// every block.
inline StepFailure notPlaced(Placement placement, const StepFailure &tooLong) noexcept {
  if (placement == Placement::tooLong) return tooLong;
  if (placement == Placement::tooManyBlocks) return badBlockCount(MEM_PACK_MAX_BLOCKS + 1);
  return failure(MEMERR_PACKAMEM, ErrorText("NthBlkMemAllocFail"));
}

// A MemPackRelPtr as one word. Storing it in parts and then reading it as a whole would stall the
// processor.
using RelPtrWord = std::uint64_t;
static_assert(sizeof(RelPtrWord) == sizeof(MemPackRelPtr));

// Where an item was put: its bytes, and its relative pointer for the pointer fields.
struct PlacedItem {
  std::byte *pBytes = nullptr;
  RelPtrWord relPtr = 0;
};

// A packed chain under construction. The blocks belong to the caller of the library as soon as they
// are linked; nothing is freed here.
//
// Invariants: the current block is the last of the chain; used <= min(block length - 8, 65535),
// counted from block offset 8; every item starts at a content offset of at most 32767, so that a
// signed 16-bit offset finds it; all unwritten bytes are zero.
class ChainBuilder {
 public:
  explicit ChainBuilder(std::int32_t blockLen) noexcept
      : blockLen_(blockLen), end_(std::min(std::int64_t{blockLen} - kUsedStart, kMaxUsed)) {}

  // Allocates block 0. Null when there is no storage. REQUIRES: canHoldHeader().
  MemPackBlock *start() noexcept;

  bool canHoldHeader() const noexcept { return blockLen_ >= kContentStart; }

  // True when version and control block fit in the first block.
  bool canHoldControlBlock(std::uint32_t controlBlockLen) const noexcept;

  // Reserves `length` bytes in the current block, for the version and the control block.
  // REQUIRES: canHoldControlBlock().
  std::byte *append(std::uint32_t length) noexcept;

  // Reserves room for a segment, in a new block if the current one is too full.
  Placement placeSegment(std::int64_t length, PlacedItem &item) noexcept {
    if (!canHold(length, kFirstSegmentOff)) return Placement::tooLong;
    return fits(used_, length) ? put(used_, length, item)
                               : putInNewBlock(kFirstSegmentOff, length, item);
  }

  // Reserves `reserved` bytes for a string; wide text gets a content offset that is a multiple of
  // 4.
  Placement placeString(std::int64_t reserved, bool isWide, PlacedItem &item) noexcept {
    if (!canHold(reserved, kFirstStringOff)) return Placement::tooLong;
    const std::uint32_t aligned = isWide ? (used_ + 3U) & ~3U : used_;
    return fits(aligned, reserved) ? put(aligned, reserved, item)
                                   : putInNewBlock(kFirstStringOff, reserved, item);
  }

  // For checks (chain_check.cpp): true when the blocks are in order, their used lengths are right
  // and all bytes after these are zero. True for a chain that has not been started.
  bool isValid() const noexcept;

 private:
  static constexpr std::int64_t kUsedStart = 8;  // used lengths and content offsets count from here
  static constexpr std::int32_t kContentStart = 10;  // block offset of the first content byte
  static constexpr std::uint32_t kFirstSegmentOff =
      2;  // content offset of the first item in a new block
  static constexpr std::uint32_t kFirstStringOff = 4;
  static constexpr std::int64_t kMaxUsed = 0xFFFF;      // used lengths are 16-bit
  static constexpr std::uint32_t kMaxItemOff = 0x7FFF;  // relative offsets are signed 16-bit

  // True when a new block whose first item starts at `firstOff` can hold `length` bytes.
  bool canHold(std::int64_t length, std::uint32_t firstOff) const noexcept {
    return length <= blockLen_ - MEM_PACK_BLOCK_OVERHEAD && length <= kMaxUsed - firstOff;
  }
  bool fits(std::uint32_t offset, std::int64_t length) const noexcept {
    return offset + length <= end_ && offset <= kMaxItemOff;
  }
  RelPtrWord relPtrTo(std::uint32_t offset) const noexcept {
    return std::bit_cast<RelPtrWord>(MemPackRelPtr{.Block = static_cast<std::int16_t>(blockNumber_),
                                                   .Offset = static_cast<std::int16_t>(offset),
                                                   .Reserved4 = 0});
  }
  Placement put(std::uint32_t offset, std::int64_t length, PlacedItem &item) noexcept {
    item.pBytes = bytesAt(pCurrent_, static_cast<std::size_t>(kUsedStart) + offset);
    item.relPtr = relPtrTo(offset);
    setUsed(offset + static_cast<std::uint32_t>(length));
    MEM_ASSERT_VALID(isLast(item, length));
    return Placement::done;
  }
  Placement putInNewBlock(std::uint32_t firstOff, std::int64_t length, PlacedItem &item) noexcept {
    const Placement added = addBlock(firstOff);
    return added == Placement::done ? put(firstOff, length, item) : added;
  }
  void setUsed(std::uint32_t used) noexcept {
    used_ = used;
    pCurrent_->UsedLen = static_cast<std::uint16_t>(used);
  }
  // For checks: true when an item of `length` bytes is the last one of the current block and ends
  // it.
  bool isLast(const PlacedItem &item, std::int64_t length) const noexcept;
  MemPackBlock *obtainBlock() const noexcept;
  MEM_NOINLINE Placement addBlock(std::uint32_t firstOff) noexcept;

  std::int64_t blockLen_;
  std::int64_t end_;  // of the content of every block
  MemPackBlock *pFirst_ = nullptr;
  MemPackBlock *pCurrent_ = nullptr;
  std::uint32_t used_ = 0;        // of the current block
  std::int32_t blockNumber_ = 0;  // of the current block
};

}  // namespace memlib
