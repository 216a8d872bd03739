// Standard heaps: allocation of many small entries that are released together.
#include "heap/heap_parts.h"

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

constexpr EntrySource kStandardEntries{&MEMFunctionVector::MEM_HeapAllocEntryLong, false};

std::int16_t failComposed(CallFrame &frame, std::uint32_t code, const ErrorText &text) noexcept {
  return failComposed(frame, code, text, false);
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

}  // namespace

std::int16_t MEM_HeapOpen(HMEMHEAP *phMemHeap, std::int16_t AreaLen,
                          std::uint16_t SubPool) noexcept {
  CallFrame frame(kHeapOpen, ErrorArea::clear);
  frame.traceEntry("Parms: phMemHeap=%lX, AreaLen=%hd, SubPool=%hd", phMemHeap, AreaLen, SubPool);
  if (AreaLen < 1 || AreaLen > kMaxAreaKB) {
    return failComposed(frame, MEMERR_HEAPSIZE, ErrorText("Invalid Area Length=").decimal(AreaLen));
  }
  const std::uint32_t areaSize = static_cast<std::uint32_t>(AreaLen) * 1024;
  auto *pHeap = static_cast<MEMHeapHeader *>(getHeapStorage(areaSize, SubPool));
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
  freeLargeBlocks(frame, heap, kLineBlockFreed, "Freeing Large Heap Block, ptr=%p, size=%lu");
  freeAreas(frame, heap, kLineAreaFreed, "Freeing Std Heap Area, ptr=%p, size=%lu");
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
  if (fitsInArea(aligned, heap.AreaSize)) {
    if (aligned > heap.pCurArea->FreeLen &&
        !addArea(frame, heap, kLineAreaObtained, "Allocating Std Heap area, ptr=%p, size=%lu")) {
      return failStorage(frame, "MemAllocAreaFail");
    }
    *ppEntry = carveEntry(*heap.pCurArea, entryLen);
  } else {
    void *pEntry = addLargeBlock(frame, heap, entryLen, kLineBlockObtained,
                                 "Allocating Large Heap block, ptr=%p, size=%lu");
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
  return allocChain(frame, hMemHeap, {Len, NumEnties, LinkOff}, kStandardEntries, ppEntry);
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
  return allocChain(frame, hMemHeap, {Len, NumEnties, LinkOff}, kStandardEntries, ppEntry);
}

}  // namespace mem
