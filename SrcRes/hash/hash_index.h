// Private index of a hash table with long chains: from a key to its node, and from a bucket to its
// last node. The table, its chains and their order do not change; insert and get only find their
// place without walking a chain.
//
// Only tables whose owner allows it get an index (owned_table.h). The owners are the library's
// packer and port string writer. Their keys are addresses that never change in place; a caller's
// keys may. Their hash functions leave many buckets empty, so chains grow with the graph.
//
// An index is in storage from the table's subpool and is linked to the thread block of the thread
// that made it. It is freed with the table or at the end of that thread. Without a thread block or
// storage the chains are walked.
//
// The table's blocks are public. A host's own services may change them, and so may other threads
// and frames without a thread block, which do not find the index. So the index alone never decides
// that a key is absent: a get walks the chain, an insert checks that the chain still ends with the
// recorded node. A node in the index must still have its key, and the list of deleted nodes must
// still begin with the recorded node; otherwise chains are walked, and an insert drops the index.
// This detects all inserts of others at the end of a chain. It detects deletions that put the node
// first in the list of deleted nodes, unless two or more happen between two inserts of the library
// and every deleted node is in use again by then.
#pragma once

#include <cstdint>

#include "frame/threadareas.h"
#include "hash/hashblocks.h"
#include "hash/owned_table.h"
#include "platform/platform.h"

namespace memlib {

// The chains of a table are walked, without any storage calls, while they are up to this long ...
inline constexpr std::uint32_t kLongestWalkedChain = 64;
// ... or, once the table has more than a few nodes, up to this long ...
inline constexpr std::uint32_t kLongestOfMany = 16;
inline constexpr std::uint16_t kFewNodes = 128;
// ... and the table has at most this many nodes. The port string writer has many buckets, and many
// short chains spread over storage take as long to walk as one long chain.
inline constexpr std::uint16_t kMostWalkedNodes = 2048;

// States of a table: MEMHashCtlBlk.IndexState. Without an index, WalkedNodes is the number of nodes
// inserted since the table was opened or lost its index, up to kMostWalkedNodes. A host that opens
// tables itself may leave any values in both fields, so the states are numbers that are unlikely by
// chance. Only kIndexed, which is recognised by one byte, is less unlikely: such a table of keys of
// 8 bytes gets an index with its 2,049th node, although nobody allowed it.
inline constexpr std::uint16_t kNeverIndexed = 0;  // not allowed, or storage for one was refused
inline constexpr std::uint16_t kMayBeIndexed = 0x4D49;
// A new index is made only after the table has grown by kMostWalkedNodes: making one is slow, and
// others may continue to change the table.
inline constexpr std::uint16_t kIndexLost = 0x4C49;
// The upper byte when the table has an index. The lower byte and WalkedNodes identify the index
// (mark()): a thread may find one of an earlier table at the same address, or one that the table
// lost on another thread.
inline constexpr std::uint16_t kIndexed = 0xD600;

inline bool isIndexed(const MEMHashCtlBlk &ctl) noexcept {
  return (ctl.IndexState & 0xFF00) == kIndexed;
}

class HashIndex : public ThreadArea, public KeyLookahead {
 public:
  // The table's index, or null. Also null when this frame cannot find the index, and when others
  // have deleted nodes since the last change.
  static HashIndex *of(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept {
    return isIndexed(ctl) ? find(frame, ctl) : nullptr;
  }

  // Counts a new node at the end of a chain with `passed` nodes before it. Makes an index of the
  // whole table when the table has grown enough, may have an index and there is storage for it.
  static void noteWalked(const CallFrame &frame, MEMHashCtlBlk &ctl, std::uint32_t passed) noexcept;

  // For an insert that could not use the index: an index of the table is wrong, or this frame
  // cannot find it.
  static void lose(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept {
    if (isIndexed(ctl)) markLost(frame, ctl);
  }

  // For a delete: frees the table's index, if it has one.
  static void drop(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

  // For open: records the table for the thread's next allowIndex().
  static void noteOpened(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

  // For open and close: frees all that the thread has for a table at this address.
  static void forget(const CallFrame &frame, const MEMHashCtlBlk *pTable) noexcept;

  // A key's place in the index, valid until a node is added.
  struct Slot {
    std::uint64_t key;
    HashNode *pNode;  // null in a free slot: the index does not have the key
  };
  Slot *slotOf(const void *pKey) const noexcept { return slotOf(loadAs<std::uint64_t>(pKey)); }

  // True when the node in a slot that is not free still has its key.
  static bool stillHolds(const MEMHashCtlBlk &ctl, const Slot &noted) noexcept {
    return keyOf(ctl, noted.pNode) == noted.key;
  }

  // True when a bucket's chain still ends with the recorded node, so a key whose slot is free is
  // not in the bucket. No branch for empty buckets: it would be unpredictable.
  bool stillEnds(MEMHashCtlBlk &ctl, std::int16_t index) const noexcept {
    const Tail &tail = pTails_[index];
    const void *pKey = tail.pNode == nullptr ? &tail.key : keyIn(ctl, tail.pNode->record());
    return *endOf(ctl, index) == nullptr && loadAs<std::uint64_t>(pKey) == tail.key;
  }

  // The last link of a bucket's chain, which is null unless others have changed the chain.
  HashNode **endOf(MEMHashCtlBlk &ctl, std::int16_t index) const noexcept {
    HashNode *pTail = pTails_[index].pNode;
    return pTail == nullptr ? ctl.bucket(index) : &pTail->pNext;
  }

  // Adds a node that has become the last of its bucket; `pSlot` is its key's slot. The index may
  // move, or be freed when there is no storage: do not use it afterwards.
  static void add(const CallFrame &frame, MEMHashCtlBlk &ctl, HashIndex *pIndex, Slot *pSlot,
                  std::int16_t index, HashNode *pNode) noexcept {
    const std::uint64_t key = keyOf(ctl, pNode);
    *pSlot = {.key = key, .pNode = pNode};
    pIndex->noteTail(index, key, pNode);
    pIndex->pFreeEntries_ = ctl.pFreeEntries;
    ++pIndex->count_;
    if (pIndex->count_ > pIndex->capacity() / 2) pIndex->grow(frame, ctl);
  }

  // The place of a key, which may hold another key.
  const Slot *firstSlotOf(const void *pKey) const noexcept {
    return &pSlots_[placeOf(loadAs<std::uint64_t>(pKey))];
  }

  // True when look-ups are likely to miss the caches: there are more slots than the near caches
  // hold.
  bool isLarge() const noexcept { return capacity() >= kLargeCapacity; }

  // For checks (hash_check.cpp): true when the index gives the same answers as a walk.
  bool isValid(MEMHashCtlBlk &ctl) const noexcept;

 private:
  static constexpr std::uint32_t kLargeCapacity = 0x20000;  // 2 MB of slots

  static HashIndex *find(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept;
  MEM_NOINLINE static void markLost(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;
  static HashIndex *create(const CallFrame &frame, const MEMHashCtlBlk &ctl,
                           std::uint64_t slots) noexcept;
  static std::uint64_t keyOf(const MEMHashCtlBlk &ctl, HashNode *pNode) noexcept {
    return loadAs<std::uint64_t>(keyIn(ctl, pNode->record()));
  }

  // The value for the table's IndexState and WalkedNodes: bits of the index's address. The marks of
  // two existing indexes differ, unless the indexes are a multiple of 256 MB apart.
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
  Tail *pTails_;                  // one for each bucket, after the slots
  const HashNode *pFreeEntries_;  // the table's, at its last change
  std::uint32_t lastPlace_;       // of a slot: one less than a power of 2
  std::uint32_t shift_;           // reduces a 64-bit product to the bits of a place
  std::uint32_t count_;           // slots in use
  std::uint32_t bucketCount_;     // of the table
  std::uint16_t walkedBefore_;    // the table's WalkedNodes before it had an index
};

// Spreads consecutive numbers evenly over the upper bits of a product.
inline constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15U;

// The areas of a thread are indexes of its tables.
inline HashIndex *HashIndex::find(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept {
  ThreadArea *const *ppAreas = threadAreas(frame);
  auto *pIndex = ppAreas == nullptr ? nullptr : static_cast<HashIndex *>(*ppAreas);
  while (pIndex != nullptr && !pIndex->isRightFor(ctl)) {
    pIndex = static_cast<HashIndex *>(pIndex->pNext);
  }
  return pIndex;
}

// The place of a key. Structures that are close in memory are reached close in time, so the
// addresses of one page have adjacent places, one for each 16 bytes. A multiplication spreads the
// pages.
inline std::uint32_t HashIndex::placeOf(std::uint64_t key) const noexcept {
  const auto ofPage = static_cast<std::uint32_t>(((key >> 12) * kSpread) >> shift_);
  return (ofPage + static_cast<std::uint32_t>(key % 4096 / 16)) & lastPlace_;
}

// The slot with the key, or the free slot for it.
inline HashIndex::Slot *HashIndex::slotOf(std::uint64_t key) const noexcept {
  Slot *pSlot = &pSlots_[placeOf(key)];
  return pSlot->pNode == nullptr || pSlot->key == key ? pSlot : seekElsewhere(key);
}

// For checks (hash_check.cpp): true when the control block is valid, all chains and the list of
// deleted nodes end, each record of a table that may have an index is in the bucket that its hash
// function returns, and the index, if the frame finds one, gives the same answers as a walk of the
// chains. A caller's hash function is not called, because the host could notice. Changes nothing.
bool isValidTable(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

}  // namespace memlib
