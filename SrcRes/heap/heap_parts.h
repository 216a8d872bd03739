// What both kinds of heap have in common: storage for areas and large blocks through the vector,
// carving from the current area, chains of entries, failures. The entry points are in their units.
#pragma once

#include <cstdint>

#include "frame/callframe.h"
#include "heap/heapblocks.h"
#include "platform/check.h"
#include "qj7mem00/memvect.h"

namespace memlib {

inline bool isStandardHeap(HMEMHEAP hMemHeap) noexcept {
  return hMemHeap != nullptr && hasEyecatcher(hMemHeap, kHeapEye);
}

inline bool isEnhancedHeap(HMEMHEAP hMemHeap) noexcept {
  return hMemHeap != nullptr && hasEyecatcher(hMemHeap, kEHeapEye);
}

// For checks (heap_check.cpp): true when the heap's invariants hold: its lists end, every area and
// large block has a valid header, and the current area is the last one.
bool isValid(const MEMHeapHeader &heap) noexcept;

// The same, the flag for large blocks is right, and every free entry is storage that was allocated
// before.
// REQUIRES: no other thread changes the heap: its gate is held, or its handle is not yet known.
bool isValid(const MEMEHeapHeader &heap) noexcept;

// A line of the storage trace: its number, and its format with a block's address and size.
struct StorageLine {
  std::int32_t number;
  const char *format;
};

// Allocates an area or a large block and traces it. Null when there is no storage.
inline void *getHeapStorage(CallFrame &frame, std::uint32_t size, std::uint16_t subPool,
                            const StorageLine &line) noexcept {
  void *pBlock = functionVector().MEM_Alloc(size, static_cast<std::int16_t>(subPool));
  if (pBlock != nullptr) frame.trace(kStorageRecord, line.number, line.format, pBlock, size);
  return pBlock;
}

inline void freeHeapStorage(CallFrame &frame, void *pBlock, std::uint32_t size,
                            std::uint16_t subPool, const StorageLine &line) noexcept {
  frame.trace(kStorageRecord, line.number, line.format, pBlock, size);
  functionVector().MEM_Free(pBlock, size, static_cast<std::int16_t>(subPool));
}

// Fills the fields that every area begins with; `headerLen` is the length of the area's header.
inline void initArea(MEMHeapArea &area, const Eyecatcher &eye, std::uint32_t headerLen,
                     std::uint32_t areaSize) noexcept {
  writeEyecatcher(area.Eyecatcher, eye);
  area.pNextArea = nullptr;
  area.NextFreeOff = headerLen;
  area.FreeLen = static_cast<std::int32_t>(areaSize - headerLen);
}

// The next `aligned` bytes of an area. REQUIRES: they are free.
inline void *carveEntry(MEMHeapArea &area, std::uint32_t aligned) noexcept {
  MEM_ASSERT(static_cast<std::int64_t>(aligned) <= area.FreeLen);
  void *pEntry = bytesAt(&area, area.NextFreeOff);
  area.NextFreeOff += aligned;
  area.FreeLen -= static_cast<std::int32_t>(aligned);
  return pEntry;
}

// The two headers have these fields at different offsets, so functions for both are templates. Code
// for rare cases is out of line, so that carving does not pay for it.

// Makes a heap in a first area of `AreaLen` KB. Null when there is no storage. The caller fills the
// header fields that only one kind of heap has.
template <class Header>
Header *makeHeap(CallFrame &frame, const Eyecatcher &eye, std::int16_t AreaLen,
                 std::uint16_t SubPool, const StorageLine &line) noexcept {
  const std::uint32_t areaSize = static_cast<std::uint32_t>(AreaLen) * 1024;
  auto *pHeap = static_cast<Header *>(getHeapStorage(frame, areaSize, SubPool, line));
  if (pHeap == nullptr) return nullptr;
  initArea(pHeap->FirstArea, eye, sizeof(Header), areaSize);
  pHeap->pCurArea = &pHeap->FirstArea;
  pHeap->pLargeBlocks = nullptr;
  pHeap->AreaSize = areaSize;
  pHeap->SubPool = SubPool;
  return pHeap;
}

// Appends a new area and makes it current; the rest of the old one stays unused. False, with
// nothing changed, when there is no storage.
template <class Header>
MEM_NOINLINE bool addArea(CallFrame &frame, Header &heap, const StorageLine &line) noexcept {
  auto *pArea =
      static_cast<MEMHeapArea *>(getHeapStorage(frame, heap.AreaSize, heap.SubPool, line));
  if (pArea == nullptr) return false;
  initArea(*pArea, kAreaEye, sizeof(MEMHeapArea), heap.AreaSize);
  heap.pCurArea->pNextArea = pArea;
  heap.pCurArea = pArea;
  return true;
}

// Allocates an entry from the current area, or from a new one when the rest is too short. Null,
// with nothing changed, when there is no storage.
template <class Header>
void *addAreaEntry(CallFrame &frame, Header &heap, std::uint32_t aligned,
                   const StorageLine &line) noexcept {
  if (static_cast<std::int64_t>(aligned) > heap.pCurArea->FreeLen && !addArea(frame, heap, line)) {
    return nullptr;
  }
  return carveEntry(*heap.pCurArea, aligned);
}

// As addAreaEntry, in a block of its own.
template <class Header>
MEM_NOINLINE void *addLargeEntry(CallFrame &frame, Header &heap, std::uint32_t aligned,
                                 const StorageLine &line) noexcept {
  const auto blockSize = static_cast<std::uint32_t>(sizeof(MEMHeapLargeBlock) + aligned);
  auto *pBlock =
      static_cast<MEMHeapLargeBlock *>(getHeapStorage(frame, blockSize, heap.SubPool, line));
  if (pBlock == nullptr) return nullptr;
  writeEyecatcher(pBlock->Eyecatcher, kLargeBlockEye);
  pBlock->pNextBlock = heap.pLargeBlocks;
  pBlock->BlockSize = blockSize;
  heap.pLargeBlocks = pBlock;
  return bytesAt(pBlock, sizeof(MEMHeapLargeBlock));
}

template <class Header>
void freeLargeBlocks(CallFrame &frame, const Header &heap, const StorageLine &line) noexcept {
  MEMHeapLargeBlock *pBlock = heap.pLargeBlocks;
  while (pBlock != nullptr) {
    MEMHeapLargeBlock *pNext = pBlock->pNextBlock;
    freeHeapStorage(frame, pBlock, pBlock->BlockSize, heap.SubPool, line);
    pBlock = pNext;
  }
}

// Invalidates the handle, then frees the areas. The header is freed with the first area, so `heap`
// must not be read afterwards.
template <class Header>
void freeAreas(CallFrame &frame, Header &heap, const StorageLine &line) noexcept {
  const std::uint32_t areaSize = heap.AreaSize;
  const std::uint16_t subPool = heap.SubPool;
  MEMHeapArea *pArea = &heap.FirstArea;
  // A stale handle fails the eye-catcher test until the storage is reused.
  std::memset(pArea->Eyecatcher, 0, sizeof pArea->Eyecatcher);
  while (pArea != nullptr) {
    MEMHeapArea *pNext = pArea->pNextArea;
    freeHeapStorage(frame, pArea, areaSize, subPool, line);
    pArea = pNext;
  }
}

// What differs between the calls of the two kinds of heap.
struct HeapKind {
  MEM_HeapAllocEntryLongFn *MEMFunctionVector::*entrySlot;  // the entries of chains come from here
  bool marksComponent;                                      // failures set the component number
};
inline constexpr HeapKind kStandardKind{&MEMFunctionVector::MEM_HeapAllocEntryLong, false};
inline constexpr HeapKind kEnhancedKind{&MEMFunctionVector::MEM_EHeapAllocEntry, true};

// Records a failure whose text is composed in the free message text.
std::int16_t failComposed(CallFrame &frame, const HeapKind &kind, std::uint32_t code,
                          const ErrorText &text) noexcept;

std::int16_t failStorage(CallFrame &frame, const HeapKind &kind, const char *pText) noexcept;

inline bool isAreaLen(std::int16_t AreaLen) noexcept {
  return AreaLen >= 1 && AreaLen <= kMaxAreaKB;
}
std::int16_t failAreaLen(CallFrame &frame, const HeapKind &kind, std::int16_t AreaLen) noexcept;

// The arguments of a multiple allocation.
struct EntryChain {
  std::int32_t Len;
  std::int32_t NumEnties;
  std::int16_t LinkOff;
};

// Ends a multiple allocation: checks the count and the link offset, takes the entries one by one
// from the kind's slot, links each to the next at `LinkOff`, the last to nothing, and stores the
// first. When an allocation fails, its error remains recorded and the entries made so far stay in
// the heap.
std::int16_t allocChain(CallFrame &frame, const HeapKind &kind, HMEMHEAP hMemHeap,
                        const EntryChain &chain, void **ppEntry) noexcept;

// The two entry points that are called directly, not through the vector, within this room: the
// multiple allocations of a standard heap pass an enhanced heap's handle to them.
std::int16_t MEM_EHeapAllocMultEntries(HMEMHEAP hMemHeap, std::int32_t Len, std::int16_t NumEnties,
                                       std::int16_t LinkOff, void **ppEntry) noexcept;
std::int16_t MEM_EHeapAllocLongMultEntries(HMEMHEAP hMemHeap, std::int32_t Len,
                                           std::int32_t NumEnties, std::int16_t LinkOff,
                                           void **ppEntry) noexcept;

}  // namespace memlib
