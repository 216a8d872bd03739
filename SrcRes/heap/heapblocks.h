// Control blocks of the heaps. Both kinds of heap are chains of areas; the eye-catcher
// distinguishes the handles. The offsets are contract.
//
//   first area          | MEMHeapHeader or MEMEHeapHeader | entries ... | free |
//   further areas       | MEMHeapArea | entries ...                     | free |
//   large blocks        | MEMHeapLargeBlock | one entry |
//
// NextFreeOff + FreeLen is the area size in every area. Entries are carved only from the current
// area, which is the last one of the chain.
#pragma once

#include <cstdint>

#include "base/bytes.h"
#include "qj7mem00/membase.h"
#include "qj7mem00/memvect.h"

namespace memlib {

inline constexpr Eyecatcher kHeapEye = "QQQHEAP1";
inline constexpr Eyecatcher kEHeapEye = "ENHHEAP1";
inline constexpr Eyecatcher kAreaEye = "QQQHEAPN";
inline constexpr Eyecatcher kLargeBlockEye = "QQQHBLKN";

// Header of every area after the first.
struct MEMHeapArea {
  char Eyecatcher[8];
  MEMHeapArea *pNextArea;     // null in the last area
  std::uint32_t NextFreeOff;  // offset in this area of the first free byte
  std::int32_t FreeLen;       // bytes from there to the area's end
};
MEM_CHECK_SIZE(MEMHeapArea, 24);
MEM_CHECK_OFFSET(MEMHeapArea, pNextArea, 8);
MEM_CHECK_OFFSET(MEMHeapArea, NextFreeOff, 16);
MEM_CHECK_OFFSET(MEMHeapArea, FreeLen, 20);

// A separate block for an entry that is too long for an area; the entry follows.
struct MEMHeapLargeBlock {
  char Eyecatcher[8];
  MEMHeapLargeBlock *pNextBlock;
  std::uint32_t BlockSize;  // bytes allocated, this header included
  std::uint32_t Reserved20;
};
MEM_CHECK_SIZE(MEMHeapLargeBlock, 24);
MEM_CHECK_OFFSET(MEMHeapLargeBlock, pNextBlock, 8);
MEM_CHECK_OFFSET(MEMHeapLargeBlock, BlockSize, 16);

// What an enhanced heap writes into a freed area entry.
struct MEMEHeapFreeItem {
  MEMEHeapFreeItem *pNextFree;
  std::uint32_t EntrySize;
  std::uint32_t Reserved12;
};
MEM_CHECK_OFFSET(MEMEHeapFreeItem, EntrySize, 8);

// Standard heap. Its handle is this block's address.
struct MEMHeapHeader {
  MEMHeapArea FirstArea;
  MEMHeapArea *pCurArea;
  MEMHeapLargeBlock *pLargeBlocks;  // latest first
  std::uint32_t AreaSize;
  std::uint16_t SubPool;
  std::uint8_t Reserved46[10];
};
MEM_CHECK_SIZE(MEMHeapHeader, 56);
MEM_CHECK_OFFSET(MEMHeapHeader, pCurArea, 24);
MEM_CHECK_OFFSET(MEMHeapHeader, pLargeBlocks, 32);
MEM_CHECK_OFFSET(MEMHeapHeader, AreaSize, 40);
MEM_CHECK_OFFSET(MEMHeapHeader, SubPool, 44);

// Flags of an enhanced heap.
inline constexpr std::uint8_t kGateHeld = 0x01;  // by the current operation
inline constexpr std::uint8_t kHasLargeBlock = 0x02;

// Enhanced heap. Its first fields are those of an area; the others have other offsets than in a
// standard heap.
struct MEMEHeapHeader {
  MEMHeapArea FirstArea;
  std::uint32_t hGate;
  std::uint16_t SubPool;
  std::uint8_t Flags;  // kGateHeld, kHasLargeBlock
  std::uint8_t Reserved31;
  MEMEHeapFreeItem *pFreeEntries;
  MEMHeapArea *pCurArea;
  MEMHeapLargeBlock *pLargeBlocks;
  std::uint32_t AreaSize;
  std::uint8_t Reserved60[4];
};
MEM_CHECK_SIZE(MEMEHeapHeader, 64);
MEM_CHECK_OFFSET(MEMEHeapHeader, hGate, 24);
MEM_CHECK_OFFSET(MEMEHeapHeader, SubPool, 28);
MEM_CHECK_OFFSET(MEMEHeapHeader, Flags, 30);
MEM_CHECK_OFFSET(MEMEHeapHeader, pFreeEntries, 32);
MEM_CHECK_OFFSET(MEMEHeapHeader, pCurArea, 40);
MEM_CHECK_OFFSET(MEMEHeapHeader, pLargeBlocks, 48);
MEM_CHECK_OFFSET(MEMEHeapHeader, AreaSize, 56);

inline constexpr std::int16_t kMaxAreaKB = 256;

// Entries of up to AreaSize minus this come from areas; longer ones get a large block. The same for
// every area of both kinds of heap, regardless of the length of its header.
inline constexpr std::uint32_t kAreaEntryOverhead = sizeof(MEMHeapHeader);

inline bool fitsInArea(std::int64_t aligned, std::uint32_t areaSize) noexcept {
  return aligned <= static_cast<std::int64_t>(areaSize) - kAreaEntryOverhead;
}

// A freed entry of an enhanced heap must have room for a free item's link and size.
inline constexpr std::int64_t kMinEHeapEntryLen = 16;

// Entry lengths are multiples of 8. 64-bit, so that no 32-bit length wraps.
inline std::int64_t alignedEntryLen(std::int32_t Len) noexcept {
  return (static_cast<std::int64_t>(Len) + 7) & ~std::int64_t{7};
}

// Reads the parts of a handle that an allocation reads first: the eye-catcher and the header. An
// unreadable handle then faults here, and not inside a service whose frame would never be left.
inline void readHandle(HMEMHEAP hMemHeap) noexcept {
  if (hMemHeap == nullptr) return;
  std::size_t length = 0;
  if (hasEyecatcher(hMemHeap, kHeapEye)) length = sizeof(MEMHeapHeader);
  if (hasEyecatcher(hMemHeap, kEHeapEye)) length = sizeof(MEMEHeapHeader);
  if (length == 0) return;  // refused by the service
  static_cast<void>(reinterpret_cast<const volatile char *>(hMemHeap)[length - 1]);
}

}  // namespace memlib
