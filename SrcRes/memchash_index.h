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
  HashNode **endOf(MEMHashCtlBlk &ctl, std::int16_t index) noexcept;

  // Takes note of a node that has become the last of its bucket; `pSlot` is its key's. The index
  // may move or, for want of storage, vanish: it is not to be used afterwards.
  static void add(const CallFrame &frame, MEMHashCtlBlk &ctl, HashIndex *pIndex, Slot *pSlot,
                  std::int16_t index, HashNode *pNode) noexcept;

  // Asks for a key's slot, and a little later for what the user will read of the record behind it,
  // some time before the key is looked up.
  void wantSlot(const void *pKey) const noexcept { MEM_PREFETCH(firstSlotOf(pKey)); }
  void wantRecord(const void *pKey, std::size_t offset) const noexcept {
    const Slot *pSlot = firstSlotOf(pKey);
    // To ask for an address that is not there takes long.
    const void *pWanted = pSlot;
    if (pSlot->pNode != nullptr) pWanted = bytesAt(pSlot->pNode->record(), offset);
    MEM_PREFETCH(pWanted);
  }

  // True when look-ups are likely to wait for storage: the slots are more than near caches hold.
  bool isLarge() const noexcept { return capacity_ >= kLargeCapacity; }

 private:
  static constexpr std::uint32_t kLargeCapacity = 0x20000;  // 2 MB of slots

  static HashIndex *find(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept;
  static HashIndex **anchor(const CallFrame &frame) noexcept;
  static HashIndex *create(const CallFrame &frame, const MEMHashCtlBlk &ctl,
                           std::uint64_t slots) noexcept;
  static void make(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;
  static void release(const CallFrame &frame, const MEMHashCtlBlk &ctl, HashIndex *pIndex) noexcept;
  void fill(MEMHashCtlBlk &ctl) noexcept;
  void fillFrom(const HashIndex &smaller) noexcept;
  void put(std::uint64_t key, HashNode *pNode) noexcept;
  Slot *slotOf(std::uint64_t key) const noexcept;
  std::uint32_t placeOf(std::uint64_t key) const noexcept;
  Slot *firstSlotOf(const void *pKey) const noexcept {
    return &slots()[placeOf(loadAs<std::uint64_t>(pKey))];
  }
  Slot *slots() const noexcept;
  HashNode **tails() noexcept { return reinterpret_cast<HashNode **>(this + 1); }

  const MEMHashCtlBlk *pTable_;
  HashIndex *pNext_;        // further index of the thread
  std::uint32_t size_;      // bytes of storage
  std::uint32_t buckets_;   // entries of tails()
  std::uint32_t capacity_;  // entries of slots(), a power of 2, at most half of them in use
  std::uint32_t count_;
  std::uint32_t shift_;  // leaves the bits of a place of a 64-bit product
};

}  // namespace mem
