// Private index of a hash table whose chains have grown long: from a key to its node, and from a
// bucket to its last node. The table itself, its chains and their order stay as they are; insert
// and get only find their place without walking a chain.
//
// Only tables whose owner has allowed it get one (owned_table.h): the library's packer and port
// string writer. Their keys are addresses that never change in place, as a caller's keys may; and
// their hash functions leave many buckets empty, so that chains grow with the graph.
//
// An index lives in storage from the table's subpool, hangs on the thread block of the thread that
// made it, and goes with the table or with that thread. Without a thread block or storage the
// chains are walked.
//
// The table's blocks are public: a host's own services may work on them, and so may other threads
// and frames without a thread block, which do not find the index. So it never tells that a key is
// absent without a look at the chain: a get walks it, an insert sees that it ends as noted. A node
// that the index knows still has to have its key, and the list of deleted nodes to begin as noted;
// else chains are walked, and an insert gives the index up. This sees all inserts of others, and
// deletions unless there are two or more between two inserts of the library and every deleted node
// is in use again by then.
#pragma once

#include <cstdint>

#include "frame/threadareas.h"
#include "hash/hashblocks.h"
#include "hash/owned_table.h"
#include "platform/platform.h"

namespace memlib {

// A table with chains up to this long is walked, and makes no storage calls of its own, ...
inline constexpr std::uint32_t kLongestWalkedChain = 64;
// ... as long as it has no more nodes than this. The port string writer's buckets are many: short
// chains all over storage take as long to walk as a long one.
inline constexpr std::uint16_t kMostWalkedNodes = 2048;

// States of a table: MEMHashCtlBlk.IndexState. Without an index, WalkedNodes is the number of nodes
// inserted since the table was opened or has lost its index, up to kMostWalkedNodes. A host that
// opens tables itself may leave anything in both, so the states are numbers that nobody stores by
// chance.
inline constexpr std::uint16_t kNeverIndexed = 0;  // not allowed, or storage for one was refused
inline constexpr std::uint16_t kMayBeIndexed = 0x4D49;
// Another index is made only when the table has grown by kMostWalkedNodes, since making one takes
// long, and others may go on as they did.
inline constexpr std::uint16_t kIndexLost = 0x4C49;
// The upper byte when the table has an index. The lower one, and WalkedNodes, tell which (mark()):
// a thread may come upon one of an earlier table at the same address, or one that the table has
// lost elsewhere.
inline constexpr std::uint16_t kIndexed = 0xD600;

inline bool isIndexed(const MEMHashCtlBlk &ctl) noexcept {
  return (ctl.IndexState & 0xFF00) == kIndexed;
}

class HashIndex : public ThreadArea, public KeyLookahead {
 public:
  // The table's index, or null: also where the table has one that this frame cannot find, and where
  // others have deleted nodes since.
  static HashIndex *of(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept {
    return isIndexed(ctl) ? find(frame, ctl) : nullptr;
  }

  // Takes note of a node that has become the last of a chain with `passed` nodes in front of it.
  // Makes an index of all that the table holds when it has grown enough, if it is a table that may
  // have one and there is storage for it.
  static void noteWalked(const CallFrame &frame, MEMHashCtlBlk &ctl, std::uint32_t passed) noexcept;

  // For an insert: if the table has an index, it is wrong or not to be found.
  static void lose(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
    if (isIndexed(ctl)) markLost(frame, ctl);
  }

  // For a delete: returns the table's index, if it has one.
  static void drop(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

  // For open: makes the table the one that the thread's next allowIndex() is about.
  static void noteOpened(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

  // For open and close: returns all that the thread has for a table at this address.
  static void forget(const CallFrame &frame, const MEMHashCtlBlk *pTable) noexcept;

  // A key's place in the index, valid until a node is added.
  struct Slot {
    std::uint64_t key;
    HashNode *pNode;  // null in a free slot: the index does not have the key
  };
  Slot *slotOf(const void *pKey) const noexcept { return slotOf(loadAs<std::uint64_t>(pKey)); }

  // The node with the key, or null when only a walk tells whether there is one.
  HashNode *nodeWith(const MEMHashCtlBlk &ctl, const void *pKey) const noexcept {
    const Slot *pSlot = slotOf(pKey);
    return pSlot->pNode != nullptr && stillHolds(ctl, *pSlot) ? pSlot->pNode : nullptr;
  }

  // True when the key's slot tells what a walk of the key's bucket would: the node with the key, or
  // that there is none.
  bool canTell(MEMHashCtlBlk &ctl, const Slot &slot, std::int16_t index) const noexcept {
    return slot.pNode != nullptr ? stillHolds(ctl, slot) : stillEnds(ctl, index);
  }

  // The null link at the end of a bucket's chain, if the index can tell of the bucket.
  HashNode **endOf(MEMHashCtlBlk &ctl, std::int16_t index) const noexcept {
    HashNode *pTail = pTails_[index].pNode;
    return pTail == nullptr ? ctl.bucket(index) : &pTail->pNext;
  }

  // Takes note of a node that has become the last of its bucket; `pSlot` is its key's. The index
  // may move or, for want of storage, vanish: it is not to be used afterwards.
  static void add(const CallFrame &frame, MEMHashCtlBlk &ctl, HashIndex *pIndex, Slot *pSlot,
                  std::int16_t index, HashNode *pNode) noexcept {
    const std::uint64_t key = keyOf(ctl, pNode);
    *pSlot = {.key = key, .pNode = pNode};
    pIndex->noteTail(index, key, pNode);
    pIndex->pFreeEntries_ = ctl.pFreeEntries;
    ++pIndex->count_;
    if (pIndex->count_ > pIndex->capacity() / 2) pIndex->grow(frame, ctl);
  }

  // Where a key belongs, whether or not another key has the place.
  const Slot *firstSlotOf(const void *pKey) const noexcept {
    return &pSlots_[placeOf(loadAs<std::uint64_t>(pKey))];
  }

  // True when look-ups are likely to wait for storage: the slots are more than near caches hold.
  bool isLarge() const noexcept { return capacity() >= kLargeCapacity; }

  // For checks (hash_check.cpp): true when what the index tells is what a walk would tell.
  bool isValid(MEMHashCtlBlk &ctl) const noexcept;

 private:
  static constexpr std::uint32_t kLargeCapacity = 0x20000;  // 2 MB of slots

  static HashIndex *find(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept;
  MEM_NOINLINE static void markLost(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;
  static HashIndex *create(const CallFrame &frame, const MEMHashCtlBlk &ctl,
                           std::uint64_t slots) noexcept;
  static const void *keyIn(const MEMHashCtlBlk &ctl, HashNode *pNode) noexcept {
    return bytesAt(pNode->record(), static_cast<std::size_t>(ctl.KeyOff));
  }
  static std::uint64_t keyOf(const MEMHashCtlBlk &ctl, HashNode *pNode) noexcept {
    return loadAs<std::uint64_t>(keyIn(ctl, pNode));
  }
  // True when a node that was noted with its key still has it.
  static bool stillHolds(const MEMHashCtlBlk &ctl, const Slot &noted) noexcept {
    return keyOf(ctl, noted.pNode) == noted.key;
  }
  // True when a bucket's chain ends as noted. Empty buckets come in no order: no branch for them.
  bool stillEnds(MEMHashCtlBlk &ctl, std::int16_t index) const noexcept {
    const Tail &tail = pTails_[index];
    const void *pKey = tail.pNode == nullptr ? &tail.key : keyIn(ctl, tail.pNode);
    return *endOf(ctl, index) == nullptr && loadAs<std::uint64_t>(pKey) == tail.key;
  }

  // What its table holds in IndexState and WalkedNodes: bits of the index's address. Two that there
  // are at a time differ in them, unless they are a multiple of 256 MB apart.
  std::uint32_t mark() const noexcept {
    const auto bits = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(this) >> 4);
    return std::uint32_t{kIndexed} << 16 | (bits & 0xFFFFFF);
  }
  void markTable(MEMHashCtlBlk &ctl) const noexcept {
    ctl.IndexState = static_cast<std::uint16_t>(mark() >> 16);
    ctl.WalkedNodes = static_cast<std::uint16_t>(mark());
  }
  bool isRightFor(const MEMHashCtlBlk &ctl) const noexcept {
    return pTable_ == &ctl && mark() == (std::uint32_t{ctl.IndexState} << 16 | ctl.WalkedNodes) &&
           pFreeEntries_ == ctl.pFreeEntries;
  }

  bool hasValidSlots() const noexcept;
  bool knowsChain(MEMHashCtlBlk &ctl, std::int16_t index, std::uint32_t &known) const noexcept;
  MEM_NOINLINE static void make(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;
  MEM_NOINLINE void grow(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;
  void fill(MEMHashCtlBlk &ctl) noexcept;
  void fillFrom(const HashIndex &smaller) noexcept;
  void put(const Slot &entry) noexcept;
  Slot *slotOf(std::uint64_t key) const noexcept;
  std::uint32_t placeOf(std::uint64_t key) const noexcept;
  MEM_NOINLINE Slot *seekElsewhere(std::uint64_t key) const noexcept;
  std::uint32_t capacity() const noexcept { return lastPlace_ + 1; }
  void noteTail(std::int32_t index, std::uint64_t key, HashNode *pNode) noexcept {
    pTails_[index] = {.pNode = pNode, .key = key};
  }

  // The last node of a bucket, null where it is empty, and its key.
  struct Tail {
    HashNode *pNode;
    std::uint64_t key;
  };

  const MEMHashCtlBlk *pTable_;
  Slot *pSlots_;                  // a power of 2, at most half of them in use
  Tail *pTails_;                  // one for each bucket, behind the slots
  const HashNode *pFreeEntries_;  // the table's when it was changed last
  std::uint32_t lastPlace_;       // of a slot: one less than a power of 2
  std::uint32_t shift_;           // leaves the bits of a place of a 64-bit product
  std::uint32_t count_;           // slots in use
  std::uint32_t bucketCount_;     // of the table
  std::uint16_t walkedBefore_;    // the table's WalkedNodes before it had an index
};

// Spreads consecutive numbers evenly over the upper bits of a product.
inline constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15U;

// What hangs on a thread are indexes of its tables.
inline HashIndex *HashIndex::find(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept {
  ThreadArea *const *ppAreas = threadAreas(frame);
  auto *pIndex = ppAreas == nullptr ? nullptr : static_cast<HashIndex *>(*ppAreas);
  while (pIndex != nullptr && !pIndex->isRightFor(ctl)) {
    pIndex = static_cast<HashIndex *>(pIndex->pNext);
  }
  return pIndex;
}

// Where a key belongs. Structures that lie together are met together, so the addresses of one page
// have places side by side, one for 16 bytes; the pages are spread by a multiplication.
inline std::uint32_t HashIndex::placeOf(std::uint64_t key) const noexcept {
  const auto ofPage = static_cast<std::uint32_t>(((key >> 12) * kSpread) >> shift_);
  return (ofPage + static_cast<std::uint32_t>(key % 4096 / 16)) & lastPlace_;
}

// The slot with the key, or the free one where it belongs.
inline HashIndex::Slot *HashIndex::slotOf(std::uint64_t key) const noexcept {
  Slot *pSlot = &pSlots_[placeOf(key)];
  return pSlot->pNode == nullptr || pSlot->key == key ? pSlot : seekElsewhere(key);
}

}  // namespace memlib
