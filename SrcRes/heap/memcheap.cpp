// Standard heaps: allocation of many small entries that are released together.
#include "heap/heap_parts.h"

namespace memlib {

namespace {

constexpr EntryPoint kHeapOpen{"MEM_HeapOpen", kSourceHeap, 164, 214};
constexpr EntryPoint kHeapClose{"MEM_HeapClose", kSourceHeap, 258, 321};
constexpr EntryPoint kHeapAllocEntry{"MEM_HeapAllocEntry", kSourceHeap, 368, 402};
constexpr EntryPoint kHeapAllocEntryLong{"Mem_HeapAllocEntryLong", kSourceHeap, 451, 577};
constexpr EntryPoint kHeapAllocMult{"MEM_HeapAllocMultEntries", kSourceHeap, 628, 709};
constexpr EntryPoint kHeapAllocLongMult{"MEM_HeapAllocLongMultEntries", kSourceHeap, 760, 841};

constexpr StorageLine kHeaderObtained{197,
                                      "Allocating Standard Heap header block, ptr=%p, size=%lu"};
constexpr StorageLine kBlockFreed{284, "Freeing Large Heap Block, ptr=%p, size=%lu"};
constexpr StorageLine kAreaFreed{306, "Freeing Std Heap Area, ptr=%p, size=%lu"};
constexpr StorageLine kAreaObtained{521, "Allocating Std Heap area, ptr=%p, size=%lu"};
constexpr StorageLine kBlockObtained{553, "Allocating Large Heap block, ptr=%p, size=%lu"};

// Line numbers of the storage trace that shows which kind of heap an allocation got.
constexpr std::int32_t kLineAllocKind = 470;
constexpr std::int32_t kLineMultKind = 647;
constexpr std::int32_t kLineLongMultKind = 779;

MEMHeapHeader &header(HMEMHEAP hMemHeap) noexcept {
  return *reinterpret_cast<MEMHeapHeader *>(hMemHeap);
}

enum class HandleKind { standard, enhanced, invalid };

// The kind of an allocation's handle. Traced unless the handle is null.
inline HandleKind tracedKind(CallFrame &frame, HMEMHEAP hMemHeap, std::int32_t line) noexcept {
  if (hMemHeap == nullptr) return HandleKind::invalid;
  if (isEnhancedHeap(hMemHeap)) {
    frame.trace(kStorageRecord, line, "Enhanced heap");
    return HandleKind::enhanced;
  }
  frame.trace(kStorageRecord, line, "Regular heap");
  return isStandardHeap(hMemHeap) ? HandleKind::standard : HandleKind::invalid;
}

// Ends a call with the result of another service. The error of a failure remains recorded.
std::int16_t passOn(CallFrame &frame, std::int16_t result) noexcept {
  return result == 0 ? frame.succeed() : frame.finish(result);
}

std::int16_t failHandle(CallFrame &frame, HMEMHEAP hMemHeap) noexcept {
  return frame.fail({.code = MEMERR_HEAPBHDL,
                     .text = ErrorText("Invalid Heap Handle=").pointer(hMemHeap).c_str()});
}

// The long and the multiple allocations show the free message text of an earlier failure in the
// name field instead of the handle. Hosts rely on it.
std::int16_t failHandleWithStandingText(CallFrame &frame) noexcept {
  return frame.fail({.code = MEMERR_HEAPBHDL, .wording = Wording::standing});
}

}  // namespace

std::int16_t MEM_HeapOpen(HMEMHEAP *phMemHeap, std::int16_t AreaLen,
                          std::uint16_t SubPool) noexcept {
  CallFrame frame(kHeapOpen, ErrorArea::clear);
  frame.traceEntry("Parms: phMemHeap=%lX, AreaLen=%hd, SubPool=%hd", phMemHeap, AreaLen, SubPool);
  if (!isAreaLen(AreaLen)) return failAreaLen(frame, kStandardKind, AreaLen);
  auto *pHeap = makeHeap<MEMHeapHeader>(frame, kHeapEye, AreaLen, SubPool, kHeaderObtained);
  if (pHeap == nullptr) return failStorage(frame, kStandardKind, "MemAllocFail");
  MEM_ASSERT_VALID(isValid(*pHeap));
  *phMemHeap = reinterpret_cast<HMEMHEAP>(pHeap);
  return frame.succeed();
}

std::int16_t MEM_HeapClose(HMEMHEAP hMemHeap) noexcept {
  CallFrame frame(kHeapClose, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX", hMemHeap);
  if (!isStandardHeap(hMemHeap)) return failHandle(frame, hMemHeap);
  MEMHeapHeader &heap = header(hMemHeap);
  MEM_ASSERT_VALID(isValid(heap));
  freeLargeBlocks(frame, heap, kBlockFreed);
  freeAreas(frame, heap, kAreaFreed);
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
  const HandleKind kind = tracedKind(frame, hMemHeap, kLineAllocKind);
  if (kind == HandleKind::invalid) return failHandleWithStandingText(frame);
  if (kind == HandleKind::enhanced) {
    return passOn(frame, functionVector().MEM_EHeapAllocEntry(hMemHeap, Len, ppEntry));
  }
  if (Len < 1) {
    return failComposed(frame, kStandardKind, MEMERR_HEAPEMIN,
                        ErrorText("Entry Length=").decimal(Len).text(" too small"));
  }
  MEMHeapHeader &heap = header(hMemHeap);
  const std::int64_t aligned = alignedEntryLen(Len);
  const auto entryLen = static_cast<std::uint32_t>(aligned);
  const bool inArea = fitsInArea(aligned, heap.AreaSize);
  void *pEntry = inArea ? addAreaEntry(frame, heap, entryLen, kAreaObtained)
                        : addLargeEntry(frame, heap, entryLen, kBlockObtained);
  MEM_ASSERT_VALID(isValid(heap));
  if (pEntry == nullptr) {
    return failStorage(frame, kStandardKind, inArea ? "MemAllocAreaFail" : "MemAllocBlkFail");
  }
  *ppEntry = pEntry;
  return frame.succeed();
}

std::int16_t MEM_HeapAllocMultEntries(HMEMHEAP hMemHeap, std::int16_t Len, std::int16_t NumEnties,
                                      std::int16_t LinkOff, void **ppEntry) noexcept {
  CallFrame frame(kHeapAllocMult, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%hd, NumEnties= %hd, LinkOff=%hd, ppEntry=%lX",
                   hMemHeap, Len, NumEnties, LinkOff, ppEntry);
  const HandleKind kind = tracedKind(frame, hMemHeap, kLineMultKind);
  if (kind == HandleKind::invalid) return failHandleWithStandingText(frame);
  if (kind == HandleKind::enhanced) {
    return passOn(frame, MEM_EHeapAllocMultEntries(hMemHeap, Len, NumEnties, LinkOff, ppEntry));
  }
  return allocChain(frame, kStandardKind, hMemHeap, {Len, NumEnties, LinkOff}, ppEntry);
}

std::int16_t MEM_HeapAllocLongMultEntries(HMEMHEAP hMemHeap, std::int32_t Len,
                                          std::int32_t NumEnties, std::int16_t LinkOff,
                                          void **ppEntry) noexcept {
  CallFrame frame(kHeapAllocLongMult, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%ld, NumEnties= %ld, LinkOff=%hd, ppEntry=%lX",
                   hMemHeap, Len, NumEnties, LinkOff, ppEntry);
  const HandleKind kind = tracedKind(frame, hMemHeap, kLineLongMultKind);
  if (kind == HandleKind::invalid) return failHandleWithStandingText(frame);
  if (kind == HandleKind::enhanced) {
    return passOn(frame, MEM_EHeapAllocLongMultEntries(hMemHeap, Len, NumEnties, LinkOff, ppEntry));
  }
  return allocChain(frame, kStandardKind, hMemHeap, {Len, NumEnties, LinkOff}, ppEntry);
}

}  // namespace memlib
