#include "pack/chain_check.h"

#include <algorithm>

#include "pack/chain_builder.h"

namespace memlib {

bool ChainCheck::isValid(const ChainBuilder &chain) noexcept {
  if (chain.pFirst_ == nullptr) return chain.pCurrent_ == nullptr;
  std::int32_t last = -1;
  const MemPackBlock *pLast = nullptr;
  for (const MemPackBlock *pBlock = chain.pFirst_; pBlock != nullptr; pBlock = pBlock->pNext) {
    if (++last > chain.blockNumber_) return false;
    pLast = pBlock;
    if (pBlock->UsedLen < ChainBuilder::kFirstSegmentOff || pBlock->UsedLen > chain.end_) {
      return false;
    }
    const std::byte *const pBytes = bytesAt(pBlock, 0);
    const bool isRestZero =
        std::all_of(pBytes + ChainBuilder::kUsedStart + pBlock->UsedLen, pBytes + chain.blockLen_,
                    [](std::byte byte) { return byte == std::byte{0}; });
    if (!isRestZero) return false;
  }
  return last == chain.blockNumber_ && pLast == chain.pCurrent_ && pLast->UsedLen == chain.used_;
}

bool ChainCheck::isLast(const ChainBuilder &chain, const PlacedItem &item,
                        std::int64_t length) noexcept {
  const MemPackBlock &block = *chain.pCurrent_;
  const auto place = std::bit_cast<MemPackRelPtr>(item.relPtr);
  return length >= 0 && place.Block == chain.blockNumber_ && place.Offset >= 0 &&
         place.Offset + length == chain.used_ && chain.used_ <= chain.end_ &&
         block.UsedLen == chain.used_ && block.pNext == nullptr &&
         item.pBytes == bytesAt(&block, static_cast<std::size_t>(ChainBuilder::kUsedStart) +
                                            static_cast<std::size_t>(place.Offset));
}

}  // namespace memlib
