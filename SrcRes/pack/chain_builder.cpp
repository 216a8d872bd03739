#include "pack/chain_builder.h"

#include "frame/hostaccess.h"

namespace memlib {

MemPackBlock *ChainBuilder::obtainBlock() const noexcept {
  const auto length = static_cast<std::uint32_t>(blockLen_);
  void *pBlock = functionVector().MEM_Alloc(length, 0);
  // Unwritten bytes must not carry old contents of the host's storage into a file.
  if (pBlock != nullptr) std::memset(pBlock, 0, length);
  return static_cast<MemPackBlock *>(pBlock);
}

MemPackBlock *ChainBuilder::start() noexcept {
  MEM_ASSERT(canHoldHeader());
  pFirst_ = pCurrent_ = obtainBlock();
  if (pCurrent_ != nullptr) setUsed(kFirstSegmentOff);
  return pCurrent_;
}

bool ChainBuilder::canHoldControlBlock(std::uint32_t controlBlockLen) const noexcept {
  const std::int64_t length = static_cast<std::int64_t>(controlBlockLen) + kPackVersionLen;
  return canHold(length, kFirstSegmentOff);
}

std::byte *ChainBuilder::append(std::uint32_t length) noexcept {
  MEM_ASSERT(fits(used_, length));
  std::byte *pBytes = bytesAt(pCurrent_, static_cast<std::size_t>(kUsedStart) + used_);
  setUsed(used_ + length);
  return pBytes;
}

Placement ChainBuilder::addBlock(std::uint32_t firstOff) noexcept {
  if (blockNumber_ + 1 >= MEM_PACK_MAX_BLOCKS) return Placement::tooManyBlocks;
  MemPackBlock *pBlock = obtainBlock();
  if (pBlock == nullptr) return Placement::noStorage;
  pCurrent_->pNext = pBlock;
  pCurrent_ = pBlock;
  ++blockNumber_;
  setUsed(firstOff);
  return Placement::done;
}

}  // namespace memlib
