#include "hash/hash_index.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>

namespace memlib {

namespace {

constexpr std::uint32_t kMaxCapacity = 0x4000000;  // a gigabyte of slots
constexpr std::uint32_t kSlotsPerNode = 16;        // of a new index, which is about to grow
constexpr std::uint32_t kGrowth = 4;               // of a full index
constexpr std::uint32_t kLeastGrowth = 2;          // when there is no storage for that

std::uint64_t nodeCount(MEMHashCtlBlk &ctl) noexcept {
  std::uint64_t count = 0;
  forEachNode(ctl, [&count](std::int16_t, const HashNode *) noexcept { ++count; });
  return count;
}

void want(const void *pWanted) noexcept {
  MEM_PREFETCH(pWanted);
  // g++ treats a function that only prefetches as one without effect and drops calls of it.
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace

HashIndex *HashIndex::create(const CallFrame &frame, const MEMHashCtlBlk &ctl,
                             std::uint64_t slots) noexcept {
  ThreadArea **ppAreas = threadAreas(frame);
  if (ppAreas == nullptr || slots > kMaxCapacity) return nullptr;
  const auto capacity = static_cast<std::uint32_t>(slots);
  const auto buckets = static_cast<std::uint32_t>(ctl.Max + 1);
  const auto areaLen = static_cast<std::uint32_t>(sizeof(HashIndex) + capacity * sizeof(Slot) +
                                                  buckets * sizeof(Tail));
  const auto storagePool = static_cast<std::int16_t>(ctl.SubPool);
  // A refused allocation does not fail the caller's request, so its error must not be recorded.
  const ErrorAreaKeeper keeper(frame);
  auto *pIndex = static_cast<HashIndex *>(functionVector().MEM_Alloc(areaLen, storagePool));
  if (pIndex == nullptr) return nullptr;
  std::memset(static_cast<void *>(pIndex), 0, areaLen);
  pIndex->pTable_ = &ctl;
  pIndex->size = areaLen;
  pIndex->subPool = storagePool;
  pIndex->pSlots_ = reinterpret_cast<Slot *>(pIndex + 1);
  pIndex->pTails_ = reinterpret_cast<Tail *>(pIndex->pSlots_ + capacity);
  pIndex->bucketCount_ = buckets;
  pIndex->pFreeEntries_ = ctl.pFreeEntries;
  pIndex->lastPlace_ = capacity - 1;
  pIndex->shift_ = 64 - static_cast<std::uint32_t>(std::countr_zero(capacity));
  pIndex->pNext = *ppAreas;
  *ppAreas = pIndex;
  return pIndex;
}

void HashIndex::noteWalked(const CallFrame &frame, MEMHashCtlBlk &ctl,
                           std::uint32_t passed) noexcept {
  const bool isLost = ctl.IndexState == kIndexLost;
  if ((ctl.IndexState != kMayBeIndexed && !isLost) || ctl.KeyLen != sizeof(std::uint64_t)) return;
  if (isLost) forget(frame, &ctl);  // the lost index may be this thread's
  const bool isFull = ctl.WalkedNodes == kMostWalkedNodes;
  if (!isFull) ++ctl.WalkedNodes;
  const bool isSmall = ctl.WalkedNodes <= kFewNodes;
  const bool isLong = passed >= (isSmall ? kLongestWalkedChain : kLongestOfMany);
  if (isFull || (isLong && !isLost)) make(frame, ctl);
}

void HashIndex::make(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
  if (threadAreas(frame) == nullptr) return;
  // An index is made when a table exceeds a limit that is a power of two. Counting the node just
  // inserted would double the number of slots, so it is left out. After deletions it may be the
  // only node.
  const std::uint64_t nodes = std::max<std::uint64_t>(nodeCount(ctl), 2) - 1;
  HashIndex *pIndex = create(frame, ctl, std::bit_ceil(nodes * kSlotsPerNode));
  if (pIndex == nullptr) {
    ctl.IndexState = kNeverIndexed;
    return;
  }
  pIndex->walkedBefore_ = ctl.WalkedNodes;
  pIndex->fill(ctl);
  pIndex->markTable(ctl);
}

void HashIndex::markLost(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
  ctl.IndexState = kIndexLost;
  ctl.WalkedNodes = 0;
  forget(frame, &ctl);
}

void HashIndex::drop(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
  if (!isIndexed(ctl)) return;
  const HashIndex *pIndex = find(frame, ctl);
  if (pIndex == nullptr) return markLost(frame, ctl);
  ctl.IndexState = kMayBeIndexed;
  ctl.WalkedNodes = pIndex->walkedBefore_;
  forget(frame, &ctl);
}

void HashIndex::noteOpened(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
  if (MEMThreadBlock *pThreadBlk = threadBlock(frame)) pThreadBlk->pOpenedTable = &ctl;
}

void HashIndex::forget(const CallFrame &frame, const MEMHashCtlBlk *pTable) noexcept {
  MEMThreadBlock *pThreadBlk = threadBlock(frame);
  if (pThreadBlk == nullptr) return;
  if (pThreadBlk->pOpenedTable == pTable) pThreadBlk->pOpenedTable = nullptr;
  ThreadArea **ppLink = threadAreas(frame);
  while (*ppLink != nullptr) {
    if (static_cast<HashIndex *>(*ppLink)->pTable_ == pTable) {
      releaseThreadArea(ppLink);
    } else {
      ppLink = &(*ppLink)->pNext;
    }
  }
}

void HashIndex::fill(MEMHashCtlBlk &ctl) noexcept {
  forEachNode(ctl, [this, &ctl](std::int16_t index, HashNode *pNode) noexcept {
    const std::uint64_t key = keyOf(ctl, pNode);
    noteTail(index, key, pNode);
    put({.key = key, .pNode = pNode});
  });
}

void HashIndex::fillFrom(const HashIndex &smaller) noexcept {
  std::memcpy(pTails_, smaller.pTails_, bucketCount_ * sizeof(Tail));
  for (std::uint32_t i = 0; i <= smaller.lastPlace_; ++i) {
    if (smaller.pSlots_[i].pNode != nullptr) put(smaller.pSlots_[i]);
  }
}

void HashIndex::grow(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
  HashIndex *pLarger = create(frame, ctl, std::uint64_t{capacity()} * kGrowth);
  if (pLarger == nullptr) pLarger = create(frame, ctl, std::uint64_t{capacity()} * kLeastGrowth);
  if (pLarger == nullptr) {
    drop(frame, ctl);
    ctl.IndexState = kNeverIndexed;
    return;
  }
  pLarger->walkedBefore_ = walkedBefore_;
  pLarger->fillFrom(*this);
  pLarger->markTable(ctl);
  ThreadArea **ppLink = &pLarger->pNext;
  while (*ppLink != this) ppLink = &(*ppLink)->pNext;
  releaseThreadArea(ppLink);
}

// Called when another key has the key's place. Keys less than 16 bytes apart would overfill the
// places of their page, so the search continues at a place chosen by their lowest bits: keys with
// the same lowest bits stay adjacent for 256 bytes. For all other keys it continues at the next
// place.
HashIndex::Slot *HashIndex::seekElsewhere(std::uint64_t key) const noexcept {
  std::uint32_t place = placeOf(key) + 1;
  if (key % 16 != 0) {
    const std::uint64_t group = key / 256 * 16 + key % 16;
    place = static_cast<std::uint32_t>(((group * kSpread) >> shift_) + key % 256 / 16);
  }
  Slot *pSlot = &pSlots_[place & lastPlace_];
  while (pSlot->pNode != nullptr && pSlot->key != key) {
    pSlot = pSlot == &pSlots_[lastPlace_] ? pSlots_ : pSlot + 1;
  }
  return pSlot;
}

// Others may have inserted a key twice. A walk finds the first one, so the index keeps it.
void HashIndex::put(const Slot &entry) noexcept {
  Slot *pSlot = slotOf(entry.key);
  if (pSlot->pNode != nullptr) return;
  *pSlot = entry;
  ++count_;
}

// The table may have been closed by a frame that could not clear the thread's record of it, and its
// storage may have a new owner, which must not be overwritten. So the eye-catcher is checked.
void allowIndex(const CallFrame &frame, HMEMHASH hMemHash, MEMHashFunc pFunc) noexcept {
  MEMThreadBlock *pThreadBlk = threadBlock(frame);
  if (pThreadBlk == nullptr || pThreadBlk->pOpenedTable != hMemHash) return;
  pThreadBlk->pOpenedTable = nullptr;
  if (!isTable(hMemHash)) return;
  MEMHashCtlBlk &ctl = *table(hMemHash);
  if (ctl.pFunc == pFunc) ctl.IndexState = kMayBeIndexed;
}

void KeyLookahead::wantSlot(const void *pKey) const noexcept {
  want(static_cast<const HashIndex *>(this)->firstSlotOf(pKey));
}

// Prefetching an unmapped address is slow.
void KeyLookahead::wantRecord(const void *pKey, std::size_t offset) const noexcept {
  const HashIndex::Slot *pSlot = static_cast<const HashIndex *>(this)->firstSlotOf(pKey);
  const void *pWanted = pSlot;
  if (pSlot->pNode != nullptr) pWanted = bytesAt(pSlot->pNode->record(), offset);
  want(pWanted);
}

}  // namespace memlib
