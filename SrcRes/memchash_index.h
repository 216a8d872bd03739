// Private index of a hash table whose chains have grown long: from a key to its node, and from a
// bucket to its last node. The table itself, its chains and their order stay as they are; insert
// and get only find their place without walking a chain.
//
// Only tables of the library's own packer and port string writer get one. Their keys are addresses
// that never change in place, as a caller's keys may; and their hash functions leave many buckets
// empty, so that chains grow with the graph.
//
// An index lives in storage from the table's subpool, hangs on the thread block of the table's one
// thread, and goes with the table. Without a thread block or storage the chains are walked.
#pragma once

#include <atomic>
#include <cstdint>

#include "callframe.h"
#include "hashblocks.h"
#include "platform.h"

namespace mem {

// A table with chains up to this long is walked, and makes no storage calls of its own, ...
inline constexpr std::uint32_t kLongestWalkedChain = 64;
// ... as long as it has no more nodes than this. The port string writer's buckets are many: short
// chains all over storage take as long to walk as a long one.
inline constexpr std::uint16_t kMostWalkedNodes = 2048;

// States of a table: MEMHashCtlBlk.IndexState.
inline constexpr std::uint16_t kNotIndexed = 0;
inline constexpr std::uint16_t kIndexed = 1;
inline constexpr std::uint16_t kIndexRefused = 2;  // there was no storage; not asked for again

class HashIndex {
 public:
  // The table's index, or null.
  static HashIndex *of(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept {
    return ctl.IndexState == kIndexed ? find(frame, ctl) : nullptr;
  }

  // Takes note of a node that has become the last of a chain with `passed` nodes in front of it.
  // Makes an index of all that the table holds when it has grown enough, if it is a table that may
  // have one and there is storage for it.
  static void noteWalked(const CallFrame &frame, MEMHashCtlBlk &ctl, std::uint32_t passed) noexcept;

  // Returns the table's index, if it has one.
  static void drop(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

  // A key's place in the index, valid until a node is added.
  struct Slot {
    std::uint64_t key;
    HashNode *pNode;  // null in a free slot: the table does not have the key
  };
  Slot *slotOf(const void *pKey) const noexcept { return slotOf(loadAs<std::uint64_t>(pKey)); }

  // The null link at the end of a bucket's chain.
  HashNode **endOf(MEMHashCtlBlk &ctl, std::int16_t index) noexcept {
    HashNode *pTail = tails()[index];
    return pTail == nullptr ? ctl.bucket(index) : &pTail->pNext;
  }

  // Takes note of a node that has become the last of its bucket; `pSlot` is its key's. The index
  // may move or, for want of storage, vanish: it is not to be used afterwards.
  static void add(const CallFrame &frame, MEMHashCtlBlk &ctl, HashIndex *pIndex, Slot *pSlot,
                  std::int16_t index, HashNode *pNode) noexcept {
    pIndex->tails()[index] = pNode;
    *pSlot = {.key = keyOf(ctl, pNode), .pNode = pNode};
    ++pIndex->count_;
    if (pIndex->count_ > pIndex->capacity() / 2) pIndex->grow(frame, ctl);
  }

  // Asks for a key's slot, and a little later for what the user will read of the record behind it,
  // some time before the key is looked up.
  void wantSlot(const void *pKey) const noexcept { want(firstSlotOf(pKey)); }
  void wantRecord(const void *pKey, std::size_t offset) const noexcept {
    const Slot *pSlot = firstSlotOf(pKey);
    // To ask for an address that is not there takes long.
    const void *pWanted = pSlot;
    if (pSlot->pNode != nullptr) pWanted = bytesAt(pSlot->pNode->record(), offset);
    want(pWanted);
  }

  // True when look-ups are likely to wait for storage: the slots are more than near caches hold.
  bool isLarge() const noexcept { return capacity() >= kLargeCapacity; }

 private:
  static constexpr std::uint32_t kLargeCapacity = 0x20000;  // 2 MB of slots

  static void want(const void *pWanted) noexcept {
    MEM_PREFETCH(pWanted);
    // g++ takes a function that only asks ahead for one without effect, and drops calls of it.
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }

  static HashIndex *find(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept;
  static HashIndex **anchor(const CallFrame &frame) noexcept;
  static HashIndex *create(const CallFrame &frame, const MEMHashCtlBlk &ctl,
                           std::uint64_t slots) noexcept;
  static std::uint64_t keyOf(const MEMHashCtlBlk &ctl, HashNode *pNode) noexcept {
    return loadAs<std::uint64_t>(bytesAt(pNode->record(), static_cast<std::size_t>(ctl.KeyOff)));
  }
  MEM_NOINLINE static void make(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;
  static void release(const CallFrame &frame, const MEMHashCtlBlk &ctl, HashIndex *pIndex) noexcept;
  MEM_NOINLINE void grow(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;
  void fill(MEMHashCtlBlk &ctl) noexcept;
  void fillFrom(const HashIndex &smaller) noexcept;
  void put(std::uint64_t key, HashNode *pNode) noexcept;
  Slot *slotOf(std::uint64_t key) const noexcept;
  std::uint32_t placeOf(std::uint64_t key) const noexcept;
  Slot *firstSlotOf(const void *pKey) const noexcept {
    return &pSlots_[placeOf(loadAs<std::uint64_t>(pKey))];
  }
  std::uint32_t capacity() const noexcept { return lastPlace_ + 1; }
  HashNode **tails() noexcept { return reinterpret_cast<HashNode **>(this + 1); }
  std::size_t tailsLen() const noexcept {
    return static_cast<std::size_t>(pTable_->Max + 1) * sizeof(HashNode *);
  }

  const MEMHashCtlBlk *pTable_;
  HashIndex *pNext_;         // further index of the thread
  Slot *pSlots_;             // behind tails(); a power of 2, at most half of them in use
  std::uint32_t lastPlace_;  // of a slot: one less than a power of 2
  std::uint32_t shift_;      // leaves the bits of a place of a 64-bit product
  std::uint32_t count_;      // slots in use
  std::uint32_t size_;       // bytes of storage
};

// Where a key belongs. Structures that lie together are met together, so the addresses of one page
// have places side by side; the pages are spread by a multiplication.
inline std::uint32_t HashIndex::placeOf(std::uint64_t key) const noexcept {
  const auto ofPage = static_cast<std::uint32_t>(((key >> 12) * 0x9E3779B97F4A7C15U) >> shift_);
  return (ofPage + static_cast<std::uint32_t>(key % 4096 / 16)) & lastPlace_;
}

// The slot with the key, or the free one where it belongs.
inline HashIndex::Slot *HashIndex::slotOf(std::uint64_t key) const noexcept {
  Slot *pSlot = &pSlots_[placeOf(key)];
  while (pSlot->pNode != nullptr && pSlot->key != key) {
    pSlot = pSlot == &pSlots_[lastPlace_] ? pSlots_ : pSlot + 1;
  }
  return pSlot;
}

}  // namespace mem
