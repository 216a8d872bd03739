#include "memcheap.h"

#include "bytes.h"
#include "callframe.h"
#include "heapblocks.h"
#include "unbuilt.h"

namespace mem {

namespace {

constexpr EntryPoint kHeapOpen{"MEM_HeapOpen", kSourceHeap, 164, 214};
constexpr EntryPoint kHeapClose{"MEM_HeapClose", kSourceHeap, 258, 321};
constexpr EntryPoint kHeapAllocEntry{"MEM_HeapAllocEntry", kSourceHeap, 368, 402};
constexpr EntryPoint kHeapAllocEntryLong{"Mem_HeapAllocEntryLong", kSourceHeap, 451, 577};
constexpr EntryPoint kHeapAllocMult{"MEM_HeapAllocMultEntries", kSourceHeap, 628, 709};
constexpr EntryPoint kHeapAllocLongMult{"MEM_HeapAllocLongMultEntries", kSourceHeap, 760, 841};

// Line numbers of the storage trace.
constexpr std::int32_t kLineHeaderObtained = 197;
constexpr std::int32_t kLineBlockFreed = 284;
constexpr std::int32_t kLineAreaFreed = 306;
constexpr std::int32_t kLineAllocDispatch = 470;
constexpr std::int32_t kLineAreaObtained = 521;
constexpr std::int32_t kLineBlockObtained = 553;
constexpr std::int32_t kLineMultDispatch = 647;
constexpr std::int32_t kLineLongMultDispatch = 779;

MEMHeapHeader *header(HMEMHEAP hMemHeap) noexcept {
  return reinterpret_cast<MEMHeapHeader *>(hMemHeap);
}

bool isStandardHeap(HMEMHEAP hMemHeap) noexcept {
  return hMemHeap != nullptr && hasEyecatcher(hMemHeap, kHeapEye);
}

bool isEnhancedHeap(HMEMHEAP hMemHeap) noexcept {
  return hMemHeap != nullptr && hasEyecatcher(hMemHeap, kEHeapEye);
}

std::int16_t failComposed(CallFrame &frame, std::uint32_t code, const ErrorText &text) noexcept {
  return frame.fail({.code = code, .text = text.c_str(), .wording = Wording::composed});
}

std::int16_t failStorage(CallFrame &frame, const char *pText) noexcept {
  return failComposed(frame, MEMERR_HEAPAMEM, ErrorText(pText));
}

std::int16_t failHandle(CallFrame &frame, HMEMHEAP hMemHeap) noexcept {
  return frame.fail({.code = MEMERR_HEAPBHDL,
                     .text = ErrorText("Invalid Heap Handle=").pointer(hMemHeap).c_str()});
}

// The long and the multiple allocations show the free message text of an earlier failure in the
// name field instead of the handle; hosts know them by it.
std::int16_t failHandleWithStandingText(CallFrame &frame) noexcept {
  return frame.fail({.code = MEMERR_HEAPBHDL, .wording = Wording::standing});
}

void *getStorage(const MEMHeapHeader &heap, std::uint32_t size) noexcept {
  return functionVector().MEM_Alloc(size, static_cast<std::int16_t>(heap.SubPool));
}

void freeStorage(void *pArea, std::uint32_t size, std::uint16_t subPool) noexcept {
  functionVector().MEM_Free(pArea, size, static_cast<std::int16_t>(subPool));
}

void initArea(MEMHeapArea &area, const Eyecatcher &eye, std::uint32_t headerLen,
              std::uint32_t areaSize) noexcept {
  writeEyecatcher(area.Eyecatcher, eye);
  area.pNextArea = nullptr;
  area.NextFreeOff = headerLen;
  area.FreeLen = static_cast<std::int32_t>(areaSize - headerLen);
}

// Puts a new area behind the current one and makes it current; what is left of the old one is
// abandoned. False, with nothing changed, when there is no storage.
bool addArea(CallFrame &frame, MEMHeapHeader &heap) noexcept {
  auto *pArea = static_cast<MEMHeapArea *>(getStorage(heap, heap.AreaSize));
  if (pArea == nullptr) return false;
  frame.trace(kStorageRecord, kLineAreaObtained, "Allocating Std Heap area, ptr=%p, size=%lu",
              pArea, heap.AreaSize);
  initArea(*pArea, kAreaEye, sizeof(MEMHeapArea), heap.AreaSize);
  heap.pCurArea->pNextArea = pArea;
  heap.pCurArea = pArea;
  return true;
}

void *carveEntry(MEMHeapArea &area, std::uint32_t aligned) noexcept {
  void *pEntry = bytesAt(&area, area.NextFreeOff);
  area.NextFreeOff += aligned;
  area.FreeLen -= static_cast<std::int32_t>(aligned);
  return pEntry;
}

// An entry in a block of its own, or null when there is no storage.
void *addLargeBlock(CallFrame &frame, MEMHeapHeader &heap, std::uint32_t aligned) noexcept {
  const auto blockSize = static_cast<std::uint32_t>(sizeof(MEMHeapLargeBlock) + aligned);
  auto *pBlock = static_cast<MEMHeapLargeBlock *>(getStorage(heap, blockSize));
  if (pBlock == nullptr) return nullptr;
  frame.trace(kStorageRecord, kLineBlockObtained, "Allocating Large Heap block, ptr=%p, size=%lu",
              pBlock, blockSize);
  writeEyecatcher(pBlock->Eyecatcher, kLargeBlockEye);
  pBlock->pNextBlock = heap.pLargeBlocks;
  pBlock->BlockSize = blockSize;
  heap.pLargeBlocks = pBlock;
  return bytesAt(pBlock, sizeof(MEMHeapLargeBlock));
}

void freeLargeBlocks(CallFrame &frame, const MEMHeapHeader &heap) noexcept {
  MEMHeapLargeBlock *pBlock = heap.pLargeBlocks;
  while (pBlock != nullptr) {
    MEMHeapLargeBlock *pNext = pBlock->pNextBlock;
    frame.trace(kStorageRecord, kLineBlockFreed, "Freeing Large Heap Block, ptr=%p, size=%lu",
                pBlock, pBlock->BlockSize);
    freeStorage(pBlock, pBlock->BlockSize, heap.SubPool);
    pBlock = pNext;
  }
}

// Frees the header first, so everything still needed of it is read before.
void freeAreas(CallFrame &frame, MEMHeapHeader &heap) noexcept {
  const std::uint32_t areaSize = heap.AreaSize;
  const std::uint16_t subPool = heap.SubPool;
  MEMHeapArea *pArea = &heap.FirstArea;
  while (pArea != nullptr) {
    MEMHeapArea *pNext = pArea->pNextArea;
    frame.trace(kStorageRecord, kLineAreaFreed, "Freeing Std Heap Area, ptr=%p, size=%lu", pArea,
                areaSize);
    freeStorage(pArea, areaSize, subPool);
    pArea = pNext;
  }
}

// The chain behind both multiple allocations: `NumEnties` entries from slot 14, each holding the
// address of the next at `LinkOff`.
std::int16_t allocChain(CallFrame &frame, HMEMHEAP hMemHeap, std::int32_t Len,
                        std::int32_t NumEnties, std::int16_t LinkOff, void **ppEntry) noexcept {
  if (NumEnties < 1) {
    return failComposed(frame, MEMERR_HEAPNUME,
                        ErrorText("Num of entries=").decimal(NumEnties).text(" too small"));
  }
  if (LinkOff < 0) {
    return failComposed(frame, MEMERR_HEAPLOFF,
                        ErrorText("Link offset=").decimal(LinkOff).text(" less than zero"));
  }
  const auto linkOff = static_cast<std::size_t>(LinkOff);
  void *pFirst = nullptr;
  void *pLast = nullptr;
  for (std::int32_t i = 0; i < NumEnties; ++i) {
    void *pEntry = nullptr;
    if (functionVector().MEM_HeapAllocEntryLong(hMemHeap, Len, &pEntry) != 0) {
      return frame.finish(-1);  // the allocation's error stands
    }
    if (pFirst == nullptr) {
      pFirst = pEntry;
    } else {
      storeAs(bytesAt(pLast, linkOff), pEntry);
    }
    pLast = pEntry;
  }
  storeAs<void *>(bytesAt(pLast, linkOff), nullptr);
  *ppEntry = pFirst;
  return frame.succeed();
}

// A result that another service of the vector returned for this call; its error stands.
std::int16_t passOn(CallFrame &frame, std::int16_t result) noexcept {
  return result == 0 ? frame.succeed() : frame.finish(result);
}

}  // namespace

std::int16_t MEM_HeapOpen(HMEMHEAP *phMemHeap, std::int16_t AreaLen,
                          std::uint16_t SubPool) noexcept {
  CallFrame frame(kHeapOpen, ErrorArea::clear);
  frame.traceEntry("Parms: phMemHeap=%lX, AreaLen=%hd, SubPool=%hd", phMemHeap, AreaLen, SubPool);
  if (AreaLen < 1 || AreaLen > kMaxAreaKB) {
    return failComposed(frame, MEMERR_HEAPSIZE, ErrorText("Invalid Area Length=").decimal(AreaLen));
  }
  const std::uint32_t areaSize = static_cast<std::uint32_t>(AreaLen) * 1024;
  auto *pHeap = static_cast<MEMHeapHeader *>(
      functionVector().MEM_Alloc(areaSize, static_cast<std::int16_t>(SubPool)));
  if (pHeap == nullptr) return failStorage(frame, "MemAllocFail");
  frame.trace(kStorageRecord, kLineHeaderObtained,
              "Allocating Standard Heap header block, ptr=%p, size=%lu", pHeap, areaSize);
  initArea(pHeap->FirstArea, kHeapEye, sizeof(MEMHeapHeader), areaSize);
  pHeap->pCurArea = &pHeap->FirstArea;
  pHeap->pLargeBlocks = nullptr;
  pHeap->AreaSize = areaSize;
  pHeap->SubPool = SubPool;
  *phMemHeap = reinterpret_cast<HMEMHEAP>(pHeap);
  return frame.succeed();
}

std::int16_t MEM_HeapClose(HMEMHEAP hMemHeap) noexcept {
  CallFrame frame(kHeapClose, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX", hMemHeap);
  if (!isStandardHeap(hMemHeap)) return failHandle(frame, hMemHeap);
  MEMHeapHeader &heap = *header(hMemHeap);
  freeLargeBlocks(frame, heap);
  // A stale handle fails the eye-catcher test as long as the storage is not reused.
  std::memset(heap.FirstArea.Eyecatcher, 0, sizeof heap.FirstArea.Eyecatcher);
  freeAreas(frame, heap);
  return frame.succeed();
}

std::int16_t MEM_HeapAllocEntry(HMEMHEAP hMemHeap, std::int16_t Len, void **ppEntry) noexcept {
  CallFrame frame(kHeapAllocEntry, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%hd, ppEntry=%lX", hMemHeap, Len, ppEntry);
  if (hMemHeap == nullptr) return failHandle(frame, hMemHeap);
  const MEMFunctionVector &vector = functionVector();
  return passOn(frame, isEnhancedHeap(hMemHeap)
                           ? vector.MEM_EHeapAllocEntry(hMemHeap, Len, ppEntry)
                           : vector.MEM_HeapAllocEntryLong(hMemHeap, Len, ppEntry));
}

std::int16_t MEM_HeapAllocEntryLong(HMEMHEAP hMemHeap, std::int32_t Len, void **ppEntry) noexcept {
  CallFrame frame(kHeapAllocEntryLong, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%ld, ppEntry=%lX", hMemHeap, Len, ppEntry);
  if (hMemHeap == nullptr) return failHandleWithStandingText(frame);
  if (isEnhancedHeap(hMemHeap)) {
    frame.trace(kStorageRecord, kLineAllocDispatch, "Enhanced heap");
    return passOn(frame, functionVector().MEM_EHeapAllocEntry(hMemHeap, Len, ppEntry));
  }
  frame.trace(kStorageRecord, kLineAllocDispatch, "Regular heap");
  if (!isStandardHeap(hMemHeap)) return failHandleWithStandingText(frame);
  if (Len < 1) {
    return failComposed(frame, MEMERR_HEAPEMIN,
                        ErrorText("Entry Length=").decimal(Len).text(" too small"));
  }
  MEMHeapHeader &heap = *header(hMemHeap);
  const std::int64_t aligned = alignedEntryLen(Len);
  const auto entryLen = static_cast<std::uint32_t>(aligned);
  if (aligned <= static_cast<std::int64_t>(heap.AreaSize) - kAreaEntryOverhead) {
    if (aligned > heap.pCurArea->FreeLen && !addArea(frame, heap)) {
      return failStorage(frame, "MemAllocAreaFail");
    }
    *ppEntry = carveEntry(*heap.pCurArea, entryLen);
  } else {
    void *pEntry = addLargeBlock(frame, heap, entryLen);
    if (pEntry == nullptr) return failStorage(frame, "MemAllocBlkFail");
    *ppEntry = pEntry;
  }
  return frame.succeed();
}

std::int16_t MEM_HeapAllocMultEntries(HMEMHEAP hMemHeap, std::int16_t Len, std::int16_t NumEnties,
                                      std::int16_t LinkOff, void **ppEntry) noexcept {
  CallFrame frame(kHeapAllocMult, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%hd, NumEnties= %hd, LinkOff=%hd, ppEntry=%lX",
                   hMemHeap, Len, NumEnties, LinkOff, ppEntry);
  if (hMemHeap == nullptr) return failHandleWithStandingText(frame);
  if (isEnhancedHeap(hMemHeap)) {
    frame.trace(kStorageRecord, kLineMultDispatch, "Enhanced heap");
    return passOn(frame, MEM_EHeapAllocMultEntries(hMemHeap, Len, NumEnties, LinkOff, ppEntry));
  }
  frame.trace(kStorageRecord, kLineMultDispatch, "Regular heap");
  if (!isStandardHeap(hMemHeap)) return failHandleWithStandingText(frame);
  return allocChain(frame, hMemHeap, Len, NumEnties, LinkOff, ppEntry);
}

std::int16_t MEM_HeapAllocLongMultEntries(HMEMHEAP hMemHeap, std::int32_t Len,
                                          std::int32_t NumEnties, std::int16_t LinkOff,
                                          void **ppEntry) noexcept {
  CallFrame frame(kHeapAllocLongMult, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%ld, NumEnties= %ld, LinkOff=%hd, ppEntry=%lX",
                   hMemHeap, Len, NumEnties, LinkOff, ppEntry);
  if (hMemHeap == nullptr) return failHandleWithStandingText(frame);
  if (isEnhancedHeap(hMemHeap)) {
    frame.trace(kStorageRecord, kLineLongMultDispatch, "Enhanced heap");
    return passOn(frame, MEM_EHeapAllocLongMultEntries(hMemHeap, Len, NumEnties, LinkOff, ppEntry));
  }
  frame.trace(kStorageRecord, kLineLongMultDispatch, "Regular heap");
  if (!isStandardHeap(hMemHeap)) return failHandleWithStandingText(frame);
  return allocChain(frame, hMemHeap, Len, NumEnties, LinkOff, ppEntry);
}

}  // namespace mem
