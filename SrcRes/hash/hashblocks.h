// Control block and nodes of a hash table. The offsets are contract.
#pragma once

#include <cstdint>

#include "base/bytes.h"
#include "qj7mem00/memvect.h"

namespace memlib {

inline constexpr Eyecatcher kHashEye = "QQQQHASH";

// A stored record with its link; callers see the record's address. The record follows.
struct HashNode {
  HashNode *pNext;  // in the bucket's chain, or in the list of deleted nodes

  void *record() noexcept { return bytesAt(this, sizeof(HashNode)); }
};

// Its address is the table's handle. Bucket heads, Max + 1 of them, follow.
struct MEMHashCtlBlk {
  char Eyecatcher[8];  // first byte blank once closed
  std::int16_t KeyOff;
  std::int16_t KeyLen;
  std::int16_t Max;          // highest bucket index
  std::uint16_t IndexState;  // the library's own: see hash_index.h
  MEMHashFunc pFunc;
  std::uint16_t SubPool;
  std::uint16_t WalkedNodes;  // the library's own
  std::uint32_t CtlBlkLen;
  HMEMHEAP hMemHeap;
  HashNode *pFreeEntries;  // deleted nodes, latest first

  HashNode **bucket(std::int16_t index) noexcept {
    return reinterpret_cast<HashNode **>(bytesAt(this, sizeof(MEMHashCtlBlk))) + index;
  }
};
MEM_CHECK_SIZE(MEMHashCtlBlk, 48);
MEM_CHECK_OFFSET(MEMHashCtlBlk, KeyOff, 8);
MEM_CHECK_OFFSET(MEMHashCtlBlk, KeyLen, 10);
MEM_CHECK_OFFSET(MEMHashCtlBlk, Max, 12);
MEM_CHECK_OFFSET(MEMHashCtlBlk, pFunc, 16);
MEM_CHECK_OFFSET(MEMHashCtlBlk, SubPool, 24);
MEM_CHECK_OFFSET(MEMHashCtlBlk, CtlBlkLen, 28);
MEM_CHECK_OFFSET(MEMHashCtlBlk, hMemHeap, 32);
MEM_CHECK_OFFSET(MEMHashCtlBlk, pFreeEntries, 40);

inline const void *keyIn(const MEMHashCtlBlk &ctl, const void *pRecord) noexcept {
  return static_cast<const std::byte *>(pRecord) + ctl.KeyOff;
}

// Calls `visit(index, pNode)` for the nodes of all buckets, in the order of a scan. The next node
// is read after the call.
template <class Visit>
void forEachNode(MEMHashCtlBlk &ctl, Visit visit) noexcept {
  for (std::int32_t i = 0; i <= ctl.Max; ++i) {
    const auto index = static_cast<std::int16_t>(i);
    for (HashNode *pNode = *ctl.bucket(index); pNode != nullptr; pNode = pNode->pNext) {
      visit(index, pNode);
    }
  }
}

inline MEMHashCtlBlk *table(HMEMHASH hMemHash) noexcept {
  return reinterpret_cast<MEMHashCtlBlk *>(hMemHash);
}

inline bool isTable(HMEMHASH hMemHash) noexcept {
  return hMemHash != nullptr && hasEyecatcher(hMemHash, kHashEye);
}

}  // namespace memlib
