#include "memcpack_blocks.h"

#include "hostaccess.h"

namespace mem {

namespace {

constexpr std::int64_t kUsedStart = 8;  // used lengths and content offsets count from here
constexpr std::uint32_t kVersionLen = 4;

}  // namespace

MemPackBlock *BlockChain::obtainBlock() const noexcept {
  const auto length = static_cast<std::uint32_t>(blockLen_);
  void *pBlock = functionVector().MEM_Alloc(length, 0);
  // What stays unwritten must carry nothing of the host's old storage into a file.
  if (pBlock != nullptr) std::memset(pBlock, 0, length);
  return static_cast<MemPackBlock *>(pBlock);
}

void BlockChain::setUsed(std::uint32_t used) noexcept {
  used_ = used;
  pCurrent_->UsedLen = static_cast<std::uint16_t>(used);
}

MemPackBlock *BlockChain::start() noexcept {
  pCurrent_ = obtainBlock();
  if (pCurrent_ != nullptr) setUsed(kFirstSegmentOff);
  return pCurrent_;
}

bool BlockChain::canHoldControlBlock(std::uint32_t controlBlockLen) const noexcept {
  const std::int64_t length = static_cast<std::int64_t>(controlBlockLen) + kVersionLen;
  return canHold(length, kFirstSegmentOff);
}

std::byte *BlockChain::append(std::uint32_t length) noexcept {
  std::byte *pBytes = bytesAt(pCurrent_, static_cast<std::size_t>(kUsedStart) + used_);
  setUsed(used_ + length);
  return pBytes;
}

// True when a fresh block whose first item starts at `firstOff` can hold `length` bytes.
bool BlockChain::canHold(std::int64_t length, std::uint32_t firstOff) const noexcept {
  return length <= blockLen_ - MEM_PACK_BLOCK_OVERHEAD && length <= kMaxUsed - firstOff;
}

bool BlockChain::fits(std::uint32_t offset, std::int64_t length) const noexcept {
  const std::int64_t end = offset + length;
  return end <= blockLen_ - kUsedStart && end <= kMaxUsed && offset <= kMaxItemOff;
}

Placement BlockChain::addBlock(std::uint32_t firstOff) noexcept {
  if (blockNumber_ + 1 >= MEM_PACK_MAX_BLOCKS) return Placement::tooManyBlocks;
  MemPackBlock *pBlock = obtainBlock();
  if (pBlock == nullptr) return Placement::noStorage;
  pCurrent_->pNext = pBlock;
  pCurrent_ = pBlock;
  ++blockNumber_;
  setUsed(firstOff);
  return Placement::done;
}

void BlockChain::put(std::uint32_t offset, std::int64_t length, PlacedItem &item) noexcept {
  item.pBytes = bytesAt(pCurrent_, static_cast<std::size_t>(kUsedStart) + offset);
  item.relPtr = {.Block = static_cast<std::int16_t>(blockNumber_),
                 .Offset = static_cast<std::int16_t>(offset),
                 .Reserved4 = 0};
  setUsed(offset + static_cast<std::uint32_t>(length));
}

Placement BlockChain::placeSegment(std::int64_t length, PlacedItem &item) noexcept {
  if (!canHold(length, kFirstSegmentOff)) return Placement::tooLong;
  if (!fits(used_, length)) {
    const Placement added = addBlock(kFirstSegmentOff);
    if (added != Placement::done) return added;
  }
  put(used_, length, item);
  return Placement::done;
}

Placement BlockChain::placeString(std::int64_t reserved, bool isWide, PlacedItem &item) noexcept {
  if (!canHold(reserved, kFirstStringOff)) return Placement::tooLong;
  const std::uint32_t aligned = isWide ? (used_ + 3U) & ~3U : used_;
  if (fits(aligned, reserved)) {
    put(aligned, reserved, item);
    return Placement::done;
  }
  const Placement added = addBlock(kFirstStringOff);
  if (added == Placement::done) put(used_, reserved, item);
  return added;
}

}  // namespace mem
