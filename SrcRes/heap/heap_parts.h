// What both kinds of heap do alike: storage for areas and large blocks through the vector, carving
// from the current area, chains of entries. Entry points and failures stay with their units.
#pragma once

#include <cstdint>

#include "frame/callframe.h"
#include "heap/heapblocks.h"
#include "qj7mem00/memvect.h"

namespace mem {

inline bool isStandardHeap(HMEMHEAP hMemHeap) noexcept {
  return hMemHeap != nullptr && hasEyecatcher(hMemHeap, kHeapEye);
}

inline bool isEnhancedHeap(HMEMHEAP hMemHeap) noexcept {
  return hMemHeap != nullptr && hasEyecatcher(hMemHeap, kEHeapEye);
}

inline void *getHeapStorage(std::uint32_t size, std::uint16_t subPool) noexcept {
  return functionVector().MEM_Alloc(size, static_cast<std::int16_t>(subPool));
}

inline void freeHeapStorage(void *pArea, std::uint32_t size, std::uint16_t subPool) noexcept {
  functionVector().MEM_Free(pArea, size, static_cast<std::int16_t>(subPool));
}

// Fills the fields that every area begins with; `headerLen` is what the area's header takes.
inline void initArea(MEMHeapArea &area, const Eyecatcher &eye, std::uint32_t headerLen,
                     std::uint32_t areaSize) noexcept {
  writeEyecatcher(area.Eyecatcher, eye);
  area.pNextArea = nullptr;
  area.NextFreeOff = headerLen;
  area.FreeLen = static_cast<std::int32_t>(areaSize - headerLen);
}

inline bool fitsInArea(std::int64_t aligned, std::uint32_t areaSize) noexcept {
  return aligned <= static_cast<std::int64_t>(areaSize) - kAreaEntryOverhead;
}

// The next `aligned` bytes of an area. REQUIRES: they are free.
inline void *carveEntry(MEMHeapArea &area, std::uint32_t aligned) noexcept {
  void *pEntry = bytesAt(&area, area.NextFreeOff);
  area.NextFreeOff += aligned;
  area.FreeLen -= static_cast<std::int32_t>(aligned);
  return pEntry;
}

// The two headers keep these fields at different offsets, so what works on either is a template.
// `line` and `format` ("…, ptr=%p, size=%lu") are those of the storage trace.

// Puts a new area behind the current one and makes it current; what is left of the old one is
// abandoned. False, with nothing changed, when there is no storage.
template <class Header>
bool addArea(CallFrame &frame, Header &heap, std::int32_t line, const char *format) noexcept {
  auto *pArea = static_cast<MEMHeapArea *>(getHeapStorage(heap.AreaSize, heap.SubPool));
  if (pArea == nullptr) return false;
  frame.trace(kStorageRecord, line, format, pArea, heap.AreaSize);
  initArea(*pArea, kAreaEye, sizeof(MEMHeapArea), heap.AreaSize);
  heap.pCurArea->pNextArea = pArea;
  heap.pCurArea = pArea;
  return true;
}

// An entry in a block of its own, or null when there is no storage.
template <class Header>
void *addLargeBlock(CallFrame &frame, Header &heap, std::uint32_t aligned, std::int32_t line,
                    const char *format) noexcept {
  const auto blockSize = static_cast<std::uint32_t>(sizeof(MEMHeapLargeBlock) + aligned);
  auto *pBlock = static_cast<MEMHeapLargeBlock *>(getHeapStorage(blockSize, heap.SubPool));
  if (pBlock == nullptr) return nullptr;
  frame.trace(kStorageRecord, line, format, pBlock, blockSize);
  writeEyecatcher(pBlock->Eyecatcher, kLargeBlockEye);
  pBlock->pNextBlock = heap.pLargeBlocks;
  pBlock->BlockSize = blockSize;
  heap.pLargeBlocks = pBlock;
  return bytesAt(pBlock, sizeof(MEMHeapLargeBlock));
}

template <class Header>
void freeLargeBlocks(CallFrame &frame, const Header &heap, std::int32_t line,
                     const char *format) noexcept {
  MEMHeapLargeBlock *pBlock = heap.pLargeBlocks;
  while (pBlock != nullptr) {
    MEMHeapLargeBlock *pNext = pBlock->pNextBlock;
    frame.trace(kStorageRecord, line, format, pBlock, pBlock->BlockSize);
    freeHeapStorage(pBlock, pBlock->BlockSize, heap.SubPool);
    pBlock = pNext;
  }
}

// Kills the handle, then frees the areas, the header with the first of them: nothing of `heap` may
// be read afterwards.
template <class Header>
void freeAreas(CallFrame &frame, Header &heap, std::int32_t line, const char *format) noexcept {
  const std::uint32_t areaSize = heap.AreaSize;
  const std::uint16_t subPool = heap.SubPool;
  MEMHeapArea *pArea = &heap.FirstArea;
  // A stale handle fails the eye-catcher test as long as the storage is not reused.
  std::memset(pArea->Eyecatcher, 0, sizeof pArea->Eyecatcher);
  while (pArea != nullptr) {
    MEMHeapArea *pNext = pArea->pNextArea;
    frame.trace(kStorageRecord, line, format, pArea, areaSize);
    freeHeapStorage(pArea, areaSize, subPool);
    pArea = pNext;
  }
}

// A failure whose text goes through the free message text. The enhanced heap marks the component.
std::int16_t failComposed(CallFrame &frame, std::uint32_t code, const ErrorText &text,
                          bool marksComponent) noexcept;

// A chain of entries as a caller asks for it.
struct EntryChain {
  std::int32_t Len;
  std::int32_t NumEnties;
  std::int16_t LinkOff;
};

// Where the entries of a chain come from, and how the failures of that kind of heap look.
struct EntrySource {
  MEM_HeapAllocEntryLongFn *MEMFunctionVector::*slot;
  bool marksComponent;
};

// Ends a multiple allocation: checks the count and the link offset, takes the entries one by one
// from the source's slot, links each to the next at `LinkOff`, the last to nothing, and stores the
// first. When an allocation fails its error stands and the entries made so far stay in the heap.
std::int16_t allocChain(CallFrame &frame, HMEMHEAP hMemHeap, const EntryChain &chain,
                        const EntrySource &source, void **ppEntry) noexcept;

// Ends a call with the result of another service; a failure's error stands.
std::int16_t passOn(CallFrame &frame, std::int16_t result) noexcept;

// The two entry points that are called past the vector, within this room: a standard heap's
// multiple allocations pass an enhanced heap's handle on to them.
std::int16_t MEM_EHeapAllocMultEntries(HMEMHEAP hMemHeap, std::int32_t Len, std::int16_t NumEnties,
                                       std::int16_t LinkOff, void **ppEntry) noexcept;
std::int16_t MEM_EHeapAllocLongMultEntries(HMEMHEAP hMemHeap, std::int32_t Len,
                                           std::int32_t NumEnties, std::int16_t LinkOff,
                                           void **ppEntry) noexcept;

}  // namespace mem
