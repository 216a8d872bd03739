#include <algorithm>

#include "pack/chain_builder.h"

namespace memlib {

bool ChainBuilder::isValid() const noexcept {
  if (pFirst_ == nullptr) return pCurrent_ == nullptr;
  std::int32_t last = -1;
  const MemPackBlock *pLast = nullptr;
  for (const MemPackBlock *pBlock = pFirst_; pBlock != nullptr; pBlock = pBlock->pNext) {
    if (++last > blockNumber_) return false;
    pLast = pBlock;
    if (pBlock->UsedLen < kFirstSegmentOff || pBlock->UsedLen > end_) return false;
    const std::byte *const pBytes = bytesAt(pBlock, 0);
    const bool isRestZero = std::all_of(pBytes + kUsedStart + pBlock->UsedLen, pBytes + blockLen_,
                                        [](std::byte byte) { return byte == std::byte{0}; });
    if (!isRestZero) return false;
  }
  return last == blockNumber_ && pLast == pCurrent_ && pLast->UsedLen == used_;
}

bool ChainBuilder::isLast(const PlacedItem &item, std::int64_t length) const noexcept {
  const auto place = std::bit_cast<MemPackRelPtr>(item.relPtr);
  return length >= 0 && place.Block == blockNumber_ && place.Offset >= 0 &&
         place.Offset + length == used_ && used_ <= end_ && pCurrent_->UsedLen == used_ &&
         pCurrent_->pNext == nullptr &&
         item.pBytes == bytesAt(pCurrent_, static_cast<std::size_t>(kUsedStart) +
                                               static_cast<std::size_t>(place.Offset));
}

}  // namespace memlib
