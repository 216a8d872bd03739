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

namespace mem {

// Chains up to this long are walked; the table then makes no storage calls of its own.
inline constexpr std::uint32_t kLongestWalkedChain = 64;

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

  // Makes an index of all that the table holds, if it is a table that may have one and there is
  // storage for it.
  static void make(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

  // Returns the table's index, if it has one.
  static void drop(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

  // The node with the key, or null.
  HashNode *node(const void *pKey) const noexcept;

  // The null link at the end of a bucket's chain.
  HashNode **endOf(MEMHashCtlBlk &ctl, std::int16_t index) noexcept;

  // Takes note of a node that has just become the last of its bucket. The index may move or, for
  // want of storage, vanish: it is not to be used afterwards.
  static void add(const CallFrame &frame, MEMHashCtlBlk &ctl, HashIndex *pIndex, std::int16_t index,
                  HashNode *pNode) noexcept;

 private:
  struct Slot {
    std::uint64_t key;
    HashNode *pNode;  // null in a free slot
  };

  static HashIndex *find(const CallFrame &frame, const MEMHashCtlBlk &ctl) noexcept;
  static HashIndex **anchor(const CallFrame &frame) noexcept;
  static HashIndex *create(const CallFrame &frame, const MEMHashCtlBlk &ctl,
                           std::uint32_t capacity) noexcept;
  static void release(const CallFrame &frame, const MEMHashCtlBlk &ctl, HashIndex *pIndex) noexcept;
  void fill(MEMHashCtlBlk &ctl) noexcept;
  void fillFrom(const HashIndex &smaller) noexcept;
  void put(std::uint64_t key, HashNode *pNode) noexcept;
  Slot *slotOf(std::uint64_t key) const noexcept;
  Slot *slots() const noexcept;
  HashNode **tails() noexcept { return reinterpret_cast<HashNode **>(this + 1); }

  const MEMHashCtlBlk *pTable_;
  HashIndex *pNext_;        // further index of the thread
  std::uint32_t size_;      // bytes of storage
  std::uint32_t buckets_;   // entries of tails()
  std::uint32_t capacity_;  // entries of slots(), a power of 2, at most half of them in use
  std::uint32_t count_;
};

}  // namespace mem
