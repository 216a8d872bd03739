// The chain of blocks that the packer fills: where items go, and when a new block is started.
#pragma once

#include <cstdint>

#include "bytes.h"
#include "qj7mem00/mempack.h"

namespace mem {

enum class Placement {
  done,
  tooLong,       // no block of this length can hold the item
  noStorage,     // a further block could not be obtained
  tooManyBlocks  // the chain would pass MEM_PACK_MAX_BLOCKS
};

// Where an item was put: its bytes, and its relative pointer for the pointer fields.
struct PlacedItem {
  std::byte *pBytes = nullptr;
  MemPackRelPtr relPtr{};
};

// A packed chain under construction. The blocks belong to the caller of the library from the moment
// they are linked; nothing is released here.
//
// Invariants: the current block is the last of the chain; used <= min(block length - 8, 65535),
// counted from block offset 8; every item starts at a content offset of at most 32767, so that a
// signed 16-bit offset finds it; all bytes that were not written are zero.
class BlockChain {
 public:
  explicit BlockChain(std::int32_t blockLen) noexcept : blockLen_(blockLen) {}

  // Obtains block 0. Null when there is no storage. REQUIRES: canHoldHeader().
  MemPackBlock *start() noexcept;

  bool canHoldHeader() const noexcept { return blockLen_ >= kContentStart; }

  // True when version and control block fit in the first block.
  bool canHoldControlBlock(std::uint32_t controlBlockLen) const noexcept;

  // Room for `length` bytes in the current block, for the version and the control block.
  // REQUIRES: canHoldControlBlock().
  std::byte *append(std::uint32_t length) noexcept;

  // Room for a segment, in a new block where the current one is too full.
  Placement placeSegment(std::int64_t length, PlacedItem &item) noexcept;

  // Room of `reserved` bytes for a string, wide text at a content offset that is a multiple of 4.
  Placement placeString(std::int64_t reserved, bool isWide, PlacedItem &item) noexcept;

 private:
  static constexpr std::int32_t kContentStart = 10;     // block offset of the first content byte
  static constexpr std::uint32_t kFirstSegmentOff = 2;  // content offsets in a fresh block
  static constexpr std::uint32_t kFirstStringOff = 4;
  static constexpr std::int64_t kMaxUsed = 0xFFFF;      // used lengths are 16-bit
  static constexpr std::uint32_t kMaxItemOff = 0x7FFF;  // relative offsets are signed 16-bit

  bool canHold(std::int64_t length, std::uint32_t firstOff) const noexcept;
  bool fits(std::uint32_t offset, std::int64_t length) const noexcept;
  MemPackBlock *obtainBlock() const noexcept;
  Placement addBlock(std::uint32_t firstOff) noexcept;
  void put(std::uint32_t offset, std::int64_t length, PlacedItem &item) noexcept;
  void setUsed(std::uint32_t used) noexcept;

  std::int64_t blockLen_;
  MemPackBlock *pCurrent_ = nullptr;
  std::uint32_t used_ = 0;        // of the current block
  std::int32_t blockNumber_ = 0;  // of the current block
};

}  // namespace mem
