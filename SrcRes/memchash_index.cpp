#include "memchash_index.h"

#include <bit>
#include <cstring>

#include "memcpack.h"
#include "memcport.h"

namespace mem {

namespace {

constexpr std::uint32_t kMaxCapacity = 0x4000000;  // a gigabyte of slots
constexpr std::uint32_t kSlotsPerNode = 8;  // at least, of a fresh index: it is about to grow

bool mayBeIndexed(const MEMHashCtlBlk &ctl) noexcept {
  return ctl.KeyLen == sizeof(std::uint64_t) &&
         (ctl.pFunc == MEM_PackHashFunc || ctl.pFunc == MEM_PortHash);
}

std::uint64_t keyOf(const MEMHashCtlBlk &ctl, HashNode *pNode) noexcept {
  return loadAs<std::uint64_t>(static_cast<const std::byte *>(pNode->record()) + ctl.KeyOff);
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
  pIndex->buckets_ = buckets;
  pIndex->capacity_ = capacity;
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
  HashIndex *pIndex = create(frame, ctl, std::bit_ceil(nodeCount(ctl) * kSlotsPerNode));
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
  std::memcpy(tails(), &smaller + 1, buckets_ * sizeof(HashNode *));
  const Slot *pSlots = smaller.slots();
  for (std::uint32_t i = 0; i < smaller.capacity_; ++i) {
    if (pSlots[i].pNode != nullptr) put(pSlots[i].key, pSlots[i].pNode);
  }
}

HashNode **HashIndex::endOf(MEMHashCtlBlk &ctl, std::int16_t index) noexcept {
  HashNode *pTail = tails()[index];
  return pTail == nullptr ? ctl.bucket(index) : &pTail->pNext;
}

void HashIndex::add(const CallFrame &frame, MEMHashCtlBlk &ctl, HashIndex *pIndex, Slot *pSlot,
                    std::int16_t index, HashNode *pNode) noexcept {
  pIndex->tails()[index] = pNode;
  *pSlot = {.key = keyOf(ctl, pNode), .pNode = pNode};
  ++pIndex->count_;
  if (pIndex->count_ <= pIndex->capacity_ / 2) return;
  HashIndex *pLarger = create(frame, ctl, std::uint64_t{pIndex->capacity_} * 2);
  if (pLarger == nullptr) {
    drop(frame, ctl);
    ctl.IndexState = kIndexRefused;
    return;
  }
  pLarger->fillFrom(*pIndex);
  release(frame, ctl, pIndex);
}

void HashIndex::put(std::uint64_t key, HashNode *pNode) noexcept {
  *slotOf(key) = {.key = key, .pNode = pNode};
  ++count_;
}

HashIndex::Slot *HashIndex::slots() const noexcept {
  return reinterpret_cast<Slot *>(
      const_cast<HashNode **>(reinterpret_cast<HashNode *const *>(this + 1)) + buckets_);
}

// Where a key belongs. Structures that lie together are met together, so the addresses of one page
// have places side by side; the pages are spread by a multiplication.
std::uint32_t HashIndex::placeOf(std::uint64_t key) const noexcept {
  const auto ofPage = static_cast<std::uint32_t>(((key >> 12) * 0x9E3779B97F4A7C15U) >> shift_);
  return (ofPage + static_cast<std::uint32_t>(key % 4096 / 16)) & (capacity_ - 1);
}

// The slot with the key, or the free one where it belongs.
HashIndex::Slot *HashIndex::slotOf(std::uint64_t key) const noexcept {
  Slot *pSlots = slots();
  std::uint32_t place = placeOf(key);
  while (pSlots[place].pNode != nullptr && pSlots[place].key != key) {
    place = (place + 1) & (capacity_ - 1);
  }
  return &pSlots[place];
}

}  // namespace mem
