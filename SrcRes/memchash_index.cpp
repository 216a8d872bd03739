#include "memchash_index.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "memcpack.h"
#include "memcport.h"

namespace mem {

namespace {

constexpr std::uint32_t kMaxCapacity = 0x4000000;  // a gigabyte of slots
constexpr std::uint32_t kSlotsPerNode = 16;        // of a fresh index: it is about to grow
constexpr std::uint32_t kGrowth = 4;               // of one that is full
constexpr std::uint32_t kLeastGrowth = 2;          // when so much is not to be had

bool mayBeIndexed(const MEMHashCtlBlk &ctl) noexcept {
  return ctl.KeyLen == sizeof(std::uint64_t) &&
         (ctl.pFunc == MEM_PackHashFunc || ctl.pFunc == MEM_PortHash);
}

std::int16_t subPoolOf(const MEMHashCtlBlk &ctl) noexcept {
  return static_cast<std::int16_t>(ctl.SubPool);
}

std::uint64_t nodeCount(MEMHashCtlBlk &ctl) noexcept {
  std::uint64_t count = 0;
  for (std::int32_t i = 0; i <= ctl.Max; ++i) {
    const HashNode *pNode = *ctl.bucket(static_cast<std::int16_t>(i));
    for (; pNode != nullptr; pNode = pNode->pNext) ++count;
  }
  return count;
}

}  // namespace

HashIndex **HashIndex::anchor(const CallFrame &frame) noexcept {
  const MEMThreadEnv *pThread = frame.thread();
  if (pThread == nullptr || pThread->pMemThreadBlk == nullptr) return nullptr;
  return reinterpret_cast<HashIndex **>(&pThread->pMemThreadBlk->pHashIndexes);
}

HashIndex *HashIndex::find(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept {
  HashIndex **ppAnchor = anchor(frame);
  HashIndex *pIndex = ppAnchor == nullptr ? nullptr : *ppAnchor;
  while (pIndex != nullptr && pIndex->pTable_ != &ctl) pIndex = pIndex->pNext_;
  return pIndex;
}

HashIndex *HashIndex::create(const CallFrame &frame, const MEMHashCtlBlk &ctl,
                             std::uint64_t slots) noexcept {
  HashIndex **ppAnchor = anchor(frame);
  if (ppAnchor == nullptr || slots > kMaxCapacity) return nullptr;
  const auto capacity = static_cast<std::uint32_t>(slots);
  const auto buckets = static_cast<std::uint32_t>(ctl.Max + 1);
  const auto size = static_cast<std::uint32_t>(sizeof(HashIndex) + buckets * sizeof(HashNode *) +
                                               capacity * sizeof(Slot));
  // A refusal is none of the caller's concern, nor is what storage records of itself.
  const ErrorAreaKeeper keeper(frame);
  auto *pIndex = static_cast<HashIndex *>(functionVector().MEM_Alloc(size, subPoolOf(ctl)));
  if (pIndex == nullptr) return nullptr;
  std::memset(static_cast<void *>(pIndex), 0, size);
  pIndex->pTable_ = &ctl;
  pIndex->size_ = size;
  pIndex->pSlots_ = reinterpret_cast<Slot *>(pIndex->tails() + buckets);
  pIndex->lastPlace_ = capacity - 1;
  pIndex->shift_ = 64 - static_cast<std::uint32_t>(std::countr_zero(capacity));
  pIndex->pNext_ = *ppAnchor;
  *ppAnchor = pIndex;
  return pIndex;
}

void HashIndex::noteWalked(const CallFrame &frame, MEMHashCtlBlk &ctl,
                           std::uint32_t passed) noexcept {
  if (ctl.IndexState != kNotIndexed || !mayBeIndexed(ctl)) return;
  const bool isFull = ctl.WalkedNodes == kMostWalkedNodes;
  if (!isFull) ++ctl.WalkedNodes;
  if (isFull || passed >= kLongestWalkedChain) make(frame, ctl);
}

void HashIndex::make(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
  // The last node does not count: mostly it is the one behind a power of two, and is not to double
  // the slots. After deletions it may be the only one.
  const std::uint64_t nodes = std::max<std::uint64_t>(nodeCount(ctl), 2) - 1;
  HashIndex *pIndex = create(frame, ctl, std::bit_ceil(nodes * kSlotsPerNode));
  if (pIndex == nullptr) {
    ctl.IndexState = kIndexRefused;
    return;
  }
  pIndex->fill(ctl);
  ctl.IndexState = kIndexed;
}

void HashIndex::drop(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
  if (ctl.IndexState != kIndexed) return;
  ctl.IndexState = kNotIndexed;
  if (HashIndex *pIndex = find(frame, ctl)) release(frame, ctl, pIndex);
}

// Takes an index off the thread and returns its storage.
void HashIndex::release(const CallFrame &frame, const MEMHashCtlBlk &ctl,
                        HashIndex *pIndex) noexcept {
  HashIndex **ppLink = anchor(frame);
  while (*ppLink != pIndex) ppLink = &(*ppLink)->pNext_;
  *ppLink = pIndex->pNext_;
  functionVector().MEM_Free(pIndex, pIndex->size_, subPoolOf(ctl));
}

void HashIndex::fill(MEMHashCtlBlk &ctl) noexcept {
  for (std::int32_t i = 0; i <= ctl.Max; ++i) {
    HashNode *pNode = *ctl.bucket(static_cast<std::int16_t>(i));
    for (; pNode != nullptr; pNode = pNode->pNext) {
      put(keyOf(ctl, pNode), pNode);
      tails()[i] = pNode;
    }
  }
}

void HashIndex::fillFrom(const HashIndex &smaller) noexcept {
  std::memcpy(tails(), &smaller + 1, tailsLen());
  for (std::uint32_t i = 0; i <= smaller.lastPlace_; ++i) {
    const Slot &slot = smaller.pSlots_[i];
    if (slot.pNode != nullptr) put(slot.key, slot.pNode);
  }
}

void HashIndex::grow(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
  HashIndex *pLarger = create(frame, ctl, std::uint64_t{capacity()} * kGrowth);
  if (pLarger == nullptr) pLarger = create(frame, ctl, std::uint64_t{capacity()} * kLeastGrowth);
  if (pLarger == nullptr) {
    drop(frame, ctl);
    ctl.IndexState = kIndexRefused;
    return;
  }
  pLarger->fillFrom(*this);
  release(frame, ctl, this);
}

void HashIndex::put(std::uint64_t key, HashNode *pNode) noexcept {
  *slotOf(key) = {.key = key, .pNode = pNode};
  ++count_;
}

}  // namespace mem
