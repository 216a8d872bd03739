#include "base/listends.h"
#include "heap/heap_parts.h"

namespace memlib {

namespace {

constexpr std::uint32_t kMaxAreaSize = kMaxAreaKB * 1024;

bool isWholeUnits(std::uint64_t length) noexcept {
  return length % 8 == 0;
}

bool isAreaValid(const MEMHeapArea &area, const Eyecatcher &eye, std::uint32_t headerLen,
                 std::uint32_t areaSize) noexcept {
  return hasEyecatcher(&area, eye) && area.NextFreeOff >= headerLen &&
         isWholeUnits(area.NextFreeOff) && area.FreeLen >= 0 &&
         area.NextFreeOff + std::int64_t{area.FreeLen} == areaSize;
}

template <class Header>
bool areAreasValid(const Header &heap, const Eyecatcher &eye) noexcept {
  if (heap.AreaSize == 0 || heap.AreaSize > kMaxAreaSize || heap.AreaSize % 1024 != 0) return false;
  if (!isAreaValid(heap.FirstArea, eye, sizeof(Header), heap.AreaSize)) return false;
  if (!listEnds(&heap, offsetof(MEMHeapArea, pNextArea))) return false;
  const MEMHeapArea *pLast = &heap.FirstArea;
  while (const MEMHeapArea *pArea = pLast->pNextArea) {
    if (!isAreaValid(*pArea, kAreaEye, sizeof(MEMHeapArea), heap.AreaSize)) return false;
    pLast = pArea;
  }
  return heap.pCurArea == pLast;
}

template <class Header>
bool areLargeBlocksValid(const Header &heap) noexcept {
  constexpr std::int64_t kBlockHeaderLen = sizeof(MEMHeapLargeBlock);
  if (!listEnds(heap.pLargeBlocks, offsetof(MEMHeapLargeBlock, pNextBlock))) return false;
  for (const MEMHeapLargeBlock *pBlock = heap.pLargeBlocks; pBlock != nullptr;
       pBlock = pBlock->pNextBlock) {
    if (!hasEyecatcher(pBlock, kLargeBlockEye) || !isWholeUnits(pBlock->BlockSize) ||
        fitsInArea(pBlock->BlockSize - kBlockHeaderLen, heap.AreaSize)) {
      return false;
    }
  }
  return true;
}

// True when a piece is within the allocated part of one of the areas.
bool isHandedOut(const MEMEHeapHeader &heap, const void *pPiece, std::uint32_t length) noexcept {
  std::uint32_t headerLen = sizeof(MEMEHeapHeader);
  for (const MEMHeapArea *pArea = &heap.FirstArea; pArea != nullptr; pArea = pArea->pNextArea) {
    // For a piece before this area the offset is beyond any area.
    const std::uintptr_t offset =
        reinterpret_cast<std::uintptr_t>(pPiece) - reinterpret_cast<std::uintptr_t>(pArea);
    if (offset >= headerLen && offset <= pArea->NextFreeOff && isWholeUnits(offset)) {
      return length <= pArea->NextFreeOff - offset;
    }
    headerLen = sizeof(MEMHeapArea);
  }
  return false;
}

bool areFreeEntriesValid(const MEMEHeapHeader &heap) noexcept {
  if (!listEnds(heap.pFreeEntries, offsetof(MEMEHeapFreeItem, pNextFree))) return false;
  for (const MEMEHeapFreeItem *pItem = heap.pFreeEntries; pItem != nullptr;
       pItem = pItem->pNextFree) {
    if (pItem->EntrySize < kMinEHeapEntryLen || !isWholeUnits(pItem->EntrySize) ||
        !fitsInArea(pItem->EntrySize, heap.AreaSize) ||
        !isHandedOut(heap, pItem, pItem->EntrySize)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool isValid(const MEMHeapHeader &heap) noexcept {
  return areAreasValid(heap, kHeapEye) && areLargeBlocksValid(heap);
}

bool isValid(const MEMEHeapHeader &heap) noexcept {
  return areAreasValid(heap, kEHeapEye) && areLargeBlocksValid(heap) &&
         ((heap.Flags & kHasLargeBlock) != 0) == (heap.pLargeBlocks != nullptr) &&
         areFreeEntriesValid(heap);
}

}  // namespace memlib
