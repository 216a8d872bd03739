#include "base/listends.h"
#include "hash/hash_index.h"

namespace memlib {

namespace {

bool nodesEnd(const HashNode *pFirst) noexcept {
  return listEnds(pFirst, offsetof(HashNode, pNext));
}

bool isWholeBlock(const MEMHashCtlBlk &ctl) noexcept {
  const auto buckets = static_cast<std::size_t>(ctl.Max + 1);
  return hasEyecatcher(&ctl, kHashEye) && ctl.Max >= -1 &&
         ctl.CtlBlkLen == sizeof(MEMHashCtlBlk) + buckets * sizeof(HashNode *);
}

bool isOfBucket(const MEMHashCtlBlk &ctl, HashNode *pNode, std::int32_t index) noexcept {
  return ctl.pFunc(keyIn(ctl, pNode->record())) == index;
}

bool isValidChain(MEMHashCtlBlk &ctl, std::int32_t index) noexcept {
  HashNode *pNode = *ctl.bucket(static_cast<std::int16_t>(index));
  if (!nodesEnd(pNode)) return false;
  if (ctl.IndexState == kNeverIndexed) return true;
  for (; pNode != nullptr; pNode = pNode->pNext) {
    if (!isOfBucket(ctl, pNode, index)) return false;
  }
  return true;
}

}  // namespace

bool isValidTable(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
  if (!isWholeBlock(ctl) || !nodesEnd(ctl.pFreeEntries)) return false;
  for (std::int32_t index = 0; index <= ctl.Max; ++index) {
    if (!isValidChain(ctl, index)) return false;
  }
  const HashIndex *pIndex = HashIndex::of(frame, ctl);
  return pIndex == nullptr || pIndex->isValid(ctl);
}

bool HashIndex::isValid(MEMHashCtlBlk &ctl) const noexcept {
  if (bucketCount_ != static_cast<std::uint32_t>(ctl.Max + 1) || !hasValidSlots()) return false;
  std::uint32_t known = 0;
  bool tellsOfAll = true;
  for (std::int32_t i = 0; i <= ctl.Max; ++i) {
    const auto index = static_cast<std::int16_t>(i);
    // If others have changed a bucket, the index does not answer for it.
    if (!stillEnds(ctl, index)) {
      tellsOfAll = false;
    } else if (!knowsChain(ctl, index, known)) {
      return false;
    }
  }
  return !tellsOfAll || known == count_;
}

bool HashIndex::hasValidSlots() const noexcept {
  std::uint32_t used = 0;
  for (std::uint32_t i = 0; i <= lastPlace_; ++i) {
    const Slot &slot = pSlots_[i];
    if (slot.pNode == nullptr) continue;
    if (slotOf(slot.key) != &slot) return false;
    ++used;
  }
  return used == count_ && count_ <= capacity() / 2;
}

// Adds to `known` the nodes that have slots. Of two nodes with one key only the first has a slot.
bool HashIndex::knowsChain(MEMHashCtlBlk &ctl, std::int16_t index,
                           std::uint32_t &known) const noexcept {
  const HashNode *pLast = nullptr;
  for (HashNode *pNode = *ctl.bucket(index); pNode != nullptr; pNode = pNode->pNext) {
    const Slot *pSlot = slotOf(keyOf(ctl, pNode));
    if (pSlot->pNode == nullptr || !stillHolds(ctl, *pSlot)) return false;
    if (pSlot->pNode == pNode) ++known;
    pLast = pNode;
  }
  return pTails_[index].pNode == pLast;
}

}  // namespace memlib
