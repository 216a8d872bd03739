// Enhanced heaps: heaps that threads share. Each has its own gate, held while its chains are read
// or changed.
#include "heap/heap_parts.h"

namespace memlib {

namespace {

constexpr EntryPoint kEHeapOpen{"MEM_EHeapOpen", kSourceHeap, 897, 958};
constexpr EntryPoint kEHeapClose{"MEM_EHeapClose", kSourceHeap, 1004, 1077};
constexpr EntryPoint kEHeapAllocEntry{"MEM_EHeapAllocEntry", kSourceHeap, 1126, 1268};
constexpr EntryPoint kEHeapFreeEntry{"MEM_EHeapFreeEntry", kSourceHeap, 1317, 1401};
constexpr EntryPoint kEHeapAllocMult{"MEM_EHeapAllocMultEntries", kSourceHeap, 1452, 1516};
constexpr EntryPoint kEHeapAllocLongMult{"MEM_EHeapAllocLongMultEntries", kSourceHeap, 1567, 1631};

constexpr StorageLine kHeaderObtained{939,
                                      "Allocating Enhanced Heap header block, ptr=%p, size=%lu"};
constexpr StorageLine kBlockFreed{1036, "Freeing Large Heap block, ptr=%p, size=%lu"};
constexpr StorageLine kAreaFreed{1058, "Freeing std Heap area, ptr=%p, size=%lu"};
constexpr StorageLine kAreaObtained{1196, "Allocating Std Heap block, ptr=%p, size=%lu"};
constexpr StorageLine kBlockObtained{1234, "Allocating Large Heap block, ptr=%08X, size=%lu"};

MEMEHeapHeader &header(HMEMHEAP hMemHeap) noexcept {
  return *reinterpret_cast<MEMEHeapHeader *>(hMemHeap);
}

// Any length is valid. Lengths too small for a free item, including 0 and negative ones, become the
// smallest length.
std::int64_t enhancedEntryLen(std::int32_t Len) noexcept {
  const std::int64_t aligned = alignedEntryLen(Len);
  return aligned < kMinEHeapEntryLen ? kMinEHeapEntryLen : aligned;
}

std::int16_t failHandle(CallFrame &frame, HMEMHEAP hMemHeap) noexcept {
  return failComposed(frame, kEnhancedKind, MEMERR_HEAPBHDL,
                      ErrorText("Invalid Heap Handle=").pointer(hMemHeap));
}

std::int16_t failEntry(CallFrame &frame, const void *pEntry) noexcept {
  return failComposed(frame, kEnhancedKind, MEMERR_HEAPENTRY,
                      ErrorText("BuffPtr=").pointer(pEntry));
}

// Records the failure of a gate service: its code and text become the inner ones.
std::int16_t failGate(CallFrame &frame, const char *pService) noexcept {
  frame.keepHostError();
  return failComposed(frame, kEnhancedKind, MEMERR_HEAPGATE, ErrorText(pService));
}

// Holds a heap's gate until the end of its scope. On failure that is after the report, so that the
// error is complete before another thread continues. Only the operation that acquired the gate
// releases it; the flag in the header is only for observers.
class HeldGate {
 public:
  explicit HeldGate(MEMEHeapHeader &heap) noexcept
      : heap_(heap), isHeld_(runtimeServices().AcquireGate(heap.hGate) == 0) {
    if (isHeld_) heap_.Flags |= kGateHeld;
  }
  ~HeldGate() noexcept {
    if (!isHeld_) return;
    heap_.Flags &= static_cast<std::uint8_t>(~kGateHeld);
    runtimeServices().ReleaseGate(heap_.hGate);
  }
  HeldGate(const HeldGate &) = delete;
  HeldGate &operator=(const HeldGate &) = delete;

  bool isHeld() const noexcept { return isHeld_; }

 private:
  MEMEHeapHeader &heap_;
  const bool isHeld_;
};

// Unlinks the first free entry of exactly this size, clears and returns it. Null when the list has
// none. The library never links entries into the list: a free only prepares them.
void *takeFreeEntry(MEMEHeapHeader &heap, std::uint32_t aligned) noexcept {
  void *pLink = &heap.pFreeEntries;
  while (void *pItem = loadAs<void *>(pLink)) {
    const auto item = loadAs<MEMEHeapFreeItem>(pItem);
    if (item.EntrySize == aligned) {
      storeAs(pLink, item.pNextFree);
      std::memset(pItem, 0, aligned);
      return pItem;
    }
    pLink = pItem;  // an item begins with its link
  }
  return nullptr;
}

// REQUIRES: the gate is held. Null, with nothing changed, when there is no storage.
void *takeAreaEntry(CallFrame &frame, MEMEHeapHeader &heap, std::uint32_t aligned) noexcept {
  MEM_ASSERT((heap.Flags & kGateHeld) != 0);
  if (void *pEntry = takeFreeEntry(heap, aligned)) return pEntry;
  return addAreaEntry(frame, heap, aligned, kAreaObtained);
}

// As takeAreaEntry, for an entry that is too long for an area.
void *takeLargeEntry(CallFrame &frame, MEMEHeapHeader &heap, std::uint32_t aligned) noexcept {
  void *pEntry = addLargeEntry(frame, heap, aligned, kBlockObtained);
  if (pEntry != nullptr) heap.Flags |= kHasLargeBlock;
  return pEntry;
}

// True when the entry belongs to a large block and the block is accessible storage up to this
// length. The block stays until the heap is closed, so there is nothing else to do.
bool isLargeEntry(const void *pEntry, std::int64_t aligned) noexcept {
  const auto blockAddress = reinterpret_cast<std::uintptr_t>(pEntry) - sizeof(MEMHeapLargeBlock);
  const auto *pBlock = reinterpret_cast<const void *>(blockAddress);
  const auto blockSize =
      static_cast<std::uint32_t>(aligned) + static_cast<std::uint32_t>(sizeof(MEMHeapLargeBlock));
  return runtimeServices().CheckStorage(pBlock, blockSize) == 0 &&
         hasEyecatcher(pBlock, kLargeBlockEye);
}

// Clears an area entry and fills the fields of a free item. The free list is not changed: freed
// storage is not allocated again and returns to the host at close.
void prepareFreeEntry(const MEMEHeapHeader &heap, void *pEntry, std::uint32_t aligned) noexcept {
  std::memset(pEntry, 0, aligned);
  storeAs(bytesAt(pEntry, offsetof(MEMEHeapFreeItem, pNextFree)), heap.pFreeEntries);
  storeAs(bytesAt(pEntry, offsetof(MEMEHeapFreeItem, EntrySize)), aligned);
}

}  // namespace

std::int16_t MEM_EHeapOpen(HMEMHEAP *phMemHeap, std::int16_t AreaLen,
                           std::uint16_t SubPool) noexcept {
  CallFrame frame(kEHeapOpen, ErrorArea::clear);
  frame.traceEntry("Parms: phMemHeap=%lX, AreaLen=%hd, SubPool=%hd", phMemHeap, AreaLen, SubPool);
  if (!isAreaLen(AreaLen)) return failAreaLen(frame, kEnhancedKind, AreaLen);
  std::uint32_t hGate = 0;
  if (runtimeServices().CreateGate(&hGate) != 0) return failGate(frame, "CreateGate");
  auto *pHeap = makeHeap<MEMEHeapHeader>(frame, kEHeapEye, AreaLen, SubPool, kHeaderObtained);
  if (pHeap == nullptr) {
    frame.keepHostError();
    runtimeServices().DeleteGate(hGate);
    return failStorage(frame, kEnhancedKind, "MemAllocFail");
  }
  pHeap->hGate = hGate;
  pHeap->Flags = 0;
  pHeap->pFreeEntries = nullptr;
  MEM_ASSERT_VALID(isValid(*pHeap));
  *phMemHeap = reinterpret_cast<HMEMHEAP>(pHeap);
  return frame.succeed();
}

std::int16_t MEM_EHeapClose(HMEMHEAP hMemHeap) noexcept {
  CallFrame frame(kEHeapClose, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX", hMemHeap);
  if (!isEnhancedHeap(hMemHeap)) {
    // As for a standard heap, the text of an earlier failure is shown instead of the handle.
    return frame.fail(
        {.code = MEMERR_HEAPBHDL, .wording = Wording::standing, .marksComponent = true});
  }
  MEMEHeapHeader &heap = header(hMemHeap);
  const std::uint32_t hGate = heap.hGate;
  if (runtimeServices().AcquireGate(hGate) != 0) return failGate(frame, "AcquireGate");
  MEM_ASSERT_VALID(isValid(heap));
  freeLargeBlocks(frame, heap, kBlockFreed);
  freeAreas(frame, heap, kAreaFreed);
  runtimeServices().ReleaseGate(hGate);
  runtimeServices().DeleteGate(hGate);
  return frame.succeed();
}

std::int16_t MEM_EHeapAllocEntry(HMEMHEAP hMemHeap, std::int32_t Len, void **ppEntry) noexcept {
  CallFrame frame(kEHeapAllocEntry, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%ld, ppEntry=%lX", hMemHeap, Len, ppEntry);
  if (!isEnhancedHeap(hMemHeap)) return failHandle(frame, hMemHeap);
  MEMEHeapHeader &heap = header(hMemHeap);
  const std::int64_t aligned = enhancedEntryLen(Len);
  const auto entryLen = static_cast<std::uint32_t>(aligned);
  {
    const HeldGate gate(heap);
    if (!gate.isHeld()) return failGate(frame, "AcquireGate");
    const bool inArea = fitsInArea(aligned, heap.AreaSize);
    void *pEntry =
        inArea ? takeAreaEntry(frame, heap, entryLen) : takeLargeEntry(frame, heap, entryLen);
    MEM_ASSERT_VALID(isValid(heap));
    if (pEntry == nullptr) {
      return failStorage(frame, kEnhancedKind, inArea ? "MemAllocFail" : "MemAllocBlkFail");
    }
    *ppEntry = pEntry;
  }
  return frame.succeed();
}

std::int16_t MEM_EHeapFreeEntry(HMEMHEAP hMemHeap, std::int32_t Len, void *pEntry) noexcept {
  CallFrame frame(kEHeapFreeEntry, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%ld, ppEntry=%lX", hMemHeap, Len, pEntry);
  if (!isEnhancedHeap(hMemHeap)) return failHandle(frame, hMemHeap);
  MEMEHeapHeader &heap = header(hMemHeap);
  const std::int64_t aligned = enhancedEntryLen(Len);
  if (!fitsInArea(aligned, heap.AreaSize)) {
    return isLargeEntry(pEntry, aligned) ? frame.succeed() : failEntry(frame, pEntry);
  }
  const auto entryLen = static_cast<std::uint32_t>(aligned);
  if (runtimeServices().CheckStorage(pEntry, entryLen) != 0) return failEntry(frame, pEntry);
  {
    const HeldGate gate(heap);
    if (!gate.isHeld()) return failGate(frame, "AcquireGate");
    prepareFreeEntry(heap, pEntry, entryLen);
    MEM_ASSERT_VALID(isValid(heap));
  }
  return frame.succeed();
}

std::int16_t MEM_EHeapAllocMultEntries(HMEMHEAP hMemHeap, std::int32_t Len, std::int16_t NumEnties,
                                       std::int16_t LinkOff, void **ppEntry) noexcept {
  CallFrame frame(kEHeapAllocMult, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%ld, NumEnties= %hd, LinkOff=%hd, ppEntry=%lX",
                   hMemHeap, Len, NumEnties, LinkOff, ppEntry);
  if (!isEnhancedHeap(hMemHeap)) return failHandle(frame, hMemHeap);
  return allocChain(frame, kEnhancedKind, hMemHeap, {Len, NumEnties, LinkOff}, ppEntry);
}

std::int16_t MEM_EHeapAllocLongMultEntries(HMEMHEAP hMemHeap, std::int32_t Len,
                                           std::int32_t NumEnties, std::int16_t LinkOff,
                                           void **ppEntry) noexcept {
  CallFrame frame(kEHeapAllocLongMult, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHeap=%lX, Len=%ld, NumEnties= %ld, LinkOff=%hd, ppEntry=%lX",
                   hMemHeap, Len, NumEnties, LinkOff, ppEntry);
  if (!isEnhancedHeap(hMemHeap)) return failHandle(frame, hMemHeap);
  return allocChain(frame, kEnhancedKind, hMemHeap, {Len, NumEnties, LinkOff}, ppEntry);
}

}  // namespace memlib
