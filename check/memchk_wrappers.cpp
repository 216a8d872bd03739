#include "memchk_wrappers.hpp"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

#include "memchk_layer.hpp"

#if defined(_MSC_VER) && !defined(__clang__)
#include <intrin.h>
#define MEMCHK_CALLER _ReturnAddress()
#else
#define MEMCHK_CALLER __builtin_return_address(0)
#endif

namespace memchk {

constinit std::atomic<Layer *> attachedLayer{nullptr};

namespace {

// The functions that were in the slots. Kept after the layer has ended, for callers that still have
// a wrapper.
constinit MEMFunctionVector inner{};

// The component's call that the thread is in. Services call each other through the vector; these
// calls belong to the component's call.
struct Current {
  Place place;
  std::uint64_t entries = 0;  // made by slots 14 and 38 on this thread
};
thread_local Current current;

// One call of a wrapper. It stays correct if a fault ends a call inside it without its destructor.
class Call {
 public:
  Call(std::uint32_t slot, const void *pCaller)
      : layer_(attachedLayer.load(std::memory_order_acquire)), outer_(current.place), slot_(slot) {
    if (layer_ == nullptr) return;
    if (!outer_.isKnown()) current.place = layer_->enter(slot, pCaller);
  }
  ~Call() { current.place = outer_; }
  Call(const Call &) = delete;
  Call &operator=(const Call &) = delete;

  Layer *operator->() const noexcept { return layer_; }
  bool isWatched() const noexcept { return layer_ != nullptr; }
  bool isComponents() const noexcept { return !outer_.isKnown(); }
  const Place &place() const noexcept { return current.place; }

  // A function of the component will be called: its calls are calls of the component.
  void letCallBack() noexcept { current.place = {}; }

  void use(const void *pHandle) const {
    if (isWatched() && isComponents()) layer_->useHandle(pHandle, place());
  }

  // Changes what is only counted, if a layer is attached.
  template <class Change>
  void change(Change changeCounts) const {
    if (isWatched()) layer_->change(changeCounts);
  }

  // Counts the call and returns its result.
  template <class Result>
  Result finish(Result result, bool failed) const noexcept {
    if (isWatched()) layer_->count(slot_, failed);
    return result;
  }
  std::int16_t finish(std::int16_t result) const noexcept {
    const bool isPlain =
        result == MEMERR_HASHDKEY || result == MEMERR_HASHNFND || result == MEMERR_SINKNFND;
    return finish(result, result != 0 && !isPlain);
  }

 private:
  Layer *const layer_;
  const Place outer_;
  const std::uint32_t slot_;
};

// --- heaps

template <std::uint32_t slot, auto open, HeapKind kind>
std::int16_t openHeap(HMEMHEAP *phMemHeap, std::int16_t AreaLen, std::uint16_t SubPool) noexcept {
  const Call call(slot, MEMCHK_CALLER);
  const std::int16_t result = (inner.*open)(phMemHeap, AreaLen, SubPool);
  if (result == 0 && call.isWatched() && phMemHeap != nullptr) {
    call->heapOpened(*phMemHeap, kind, call.place());
  }
  return call.finish(result);
}

template <std::uint32_t slot, auto close>
std::int16_t closeHeap(HMEMHEAP hMemHeap) noexcept {
  const Call call(slot, MEMCHK_CALLER);
  call.use(hMemHeap);
  Layer::Heaps::node_type heap;
  if (call.isWatched()) heap = call->beginHeapClose(hMemHeap, call.place());
  const std::int16_t result = (inner.*close)(hMemHeap);
  if (!heap.empty()) call->endHeapClose(std::move(heap), result == 0, call.place());
  return call.finish(result);
}

// A service that calls slot 14 or 38 for each entry. A service of the host's own may not.
template <std::uint32_t slot, auto service, class... Args>
std::int16_t makeEntries(HMEMHEAP hMemHeap, Args... args) noexcept {
  const Call call(slot, MEMCHK_CALLER);
  call.use(hMemHeap);
  const std::uint64_t before = current.entries;
  const std::int16_t result = (inner.*service)(hMemHeap, args...);
  if (result == 0 && call.isWatched() && current.entries == before) {
    call->heapNotSeenWhole(hMemHeap);
  }
  return call.finish(result);
}

// From this length on, an entry that the host refuses with red zones is requested again without:
// a host's limit for single requests must be the same as without the layer.
constexpr std::int32_t kLongEntry = 0x100000;

// Allocates one entry. On success the cell gets the component's address; on failure it keeps what
// it holds.
template <auto service>
std::int16_t makeEntry(const Call &call, const HeapShape &shape, HMEMHEAP hMemHeap,
                       std::int32_t Len, void **ppEntry) {
  std::uint32_t zone = shape.zoneOf(Len, call->zone());
  void *const pBefore = *ppEntry;
  const auto attempt = [&](std::int32_t length) {
    *ppEntry = nullptr;
    return (inner.*service)(hMemHeap, length, ppEntry);
  };
  const std::int64_t whole = zone == 0 ? Len : alignedLen(shape.kind, Len) + 2 * std::int64_t{zone};
  std::int16_t result = attempt(static_cast<std::int32_t>(whole));
  if (result != 0 && zone != 0 && Len >= kLongEntry) {
    zone = 0;
    result = attempt(Len);
  }
  auto *pMade = static_cast<std::byte *>(*ppEntry);
  if (result != 0 || pMade == nullptr) {
    *ppEntry = pBefore;
    return result;
  }
  *ppEntry = pMade + zone;
  if (call->checks()) shape.fillZones(*ppEntry, Len, zone);
  call->entryMade(hMemHeap, *ppEntry, Len, zone, call.place());
  ++current.entries;
  return result;
}

std::int16_t allocEntryLong(HMEMHEAP hMemHeap, std::int32_t Len, void **ppEntry) noexcept {
  const Call call(14, MEMCHK_CALLER);
  call.use(hMemHeap);
  const auto pass = [&] {
    return call.finish(inner.MEM_HeapAllocEntryLong(hMemHeap, Len, ppEntry));
  };
  if (!call.isWatched() || ppEntry == nullptr) return pass();
  const std::optional<HeapShape> shape = call->shapeOf(hMemHeap);
  if (shape && shape->kind == HeapKind::enhanced) {  // calls slot 38
    const std::uint64_t before = current.entries;
    const std::int16_t result = pass();
    if (result == 0 && current.entries == before) call->heapNotSeenWhole(hMemHeap);
    return result;
  }
  if (!shape || Len < 1) return pass();
  return call.finish(
      makeEntry<&MEMFunctionVector::MEM_HeapAllocEntryLong>(call, *shape, hMemHeap, Len, ppEntry));
}

std::int16_t enhancedAllocEntry(HMEMHEAP hMemHeap, std::int32_t Len, void **ppEntry) noexcept {
  const Call call(38, MEMCHK_CALLER);
  call.use(hMemHeap);
  const auto shape = call.isWatched() ? call->shapeOf(hMemHeap) : std::nullopt;
  if (!shape || shape->kind != HeapKind::enhanced || ppEntry == nullptr) {
    return call.finish(inner.MEM_EHeapAllocEntry(hMemHeap, Len, ppEntry));
  }
  return call.finish(
      makeEntry<&MEMFunctionVector::MEM_EHeapAllocEntry>(call, *shape, hMemHeap, Len, ppEntry));
}

std::int16_t enhancedFreeEntry(HMEMHEAP hMemHeap, std::int32_t Len, void *pEntry) noexcept {
  const Call call(39, MEMCHK_CALLER);
  call.use(hMemHeap);
  const auto shape = call.isWatched() ? call->shapeOf(hMemHeap) : std::nullopt;
  if (!shape || shape->kind != HeapKind::enhanced) {
    return call.finish(inner.MEM_EHeapFreeEntry(hMemHeap, Len, pEntry));
  }
  const Layer::EntryFree begun = call->beginEntryFree(hMemHeap, Len, pEntry, call.place());
  const std::int16_t result = inner.MEM_EHeapFreeEntry(hMemHeap, begun.length, pEntry);
  call->endEntryFree(begun, hMemHeap, pEntry, result == 0, call.place());
  return call.finish(result);
}

// --- pools

std::int16_t openPool(HMEMCELL *phMemCell, std::int32_t AreaLen, std::int32_t CellLen,
                      std::int16_t SubPool) noexcept {
  const Call call(15, MEMCHK_CALLER);
  const std::int16_t result = inner.MEM_CellOpen(phMemCell, AreaLen, CellLen, SubPool);
  if (result == 0 && call.isWatched() && phMemCell != nullptr) {
    call->poolOpened(*phMemCell, call.place());
  }
  return call.finish(result);
}

std::int16_t closePool(HMEMCELL hMemCell) noexcept {
  const Call call(16, MEMCHK_CALLER);
  call.use(hMemCell);
  Layer::Pools::node_type pool;
  if (call.isWatched()) pool = call->beginPoolClear(hMemCell, call.place());
  const std::int16_t result = inner.MEM_CellClose(hMemCell);
  if (!pool.empty()) call->endPoolClose(std::move(pool), result == 0, call.place());
  return call.finish(result);
}

std::int16_t clearPool(HMEMCELL hMemCell) noexcept {
  const Call call(17, MEMCHK_CALLER);
  call.use(hMemCell);
  Layer::Pools::node_type pool;
  if (call.isWatched()) pool = call->beginPoolClear(hMemCell, call.place());
  const std::int16_t result = inner.MEM_CellClear(hMemCell);
  if (!pool.empty()) call->endPoolClear(std::move(pool), result == 0);
  return call.finish(result);
}

std::int16_t allocCell(HMEMCELL hMemCell, void **ppCell) noexcept {
  const Call call(18, MEMCHK_CALLER);
  call.use(hMemCell);
  if (!call.isWatched() || ppCell == nullptr) {
    return call.finish(inner.MEM_CellAllocEntry(hMemCell, ppCell));
  }
  call->adoptPool(hMemCell);
  call->beginCellAlloc(hMemCell, call.place());
  void *const pBefore = *ppCell;
  *ppCell = nullptr;
  const std::int16_t result = inner.MEM_CellAllocEntry(hMemCell, ppCell);
  void *const pCell = result == 0 ? *ppCell : nullptr;
  call->endCellAlloc(hMemCell, pCell, call.place());
  if (pCell == nullptr) *ppCell = pBefore;
  return call.finish(result);
}

std::int16_t freeCell(HMEMCELL hMemCell, void *pEntry) noexcept {
  const Call call(19, MEMCHK_CALLER);
  call.use(hMemCell);
  if (!call.isWatched()) return call.finish(inner.MEM_CellFreeEntry(hMemCell, pEntry));
  call->adoptPool(hMemCell);
  void *const pFreed = call->beginCellFree(hMemCell, pEntry, call.place());
  const std::int16_t result = inner.MEM_CellFreeEntry(hMemCell, pFreed);
  call->endCellFree(hMemCell, pFreed, result == 0, call.place());
  return call.finish(result);
}

// --- port strings: the calls for their entries belong to the component's call

std::int16_t writePort(const MEMStructDef *pDefs, std::uint32_t StructID, const void *pStruct,
                       std::int32_t ChunkLen, HMEMHEAP hMemHeap, std::uint32_t *pTotalLen,
                       MEMPortChunk **ppFirstChunk) noexcept {
  const Call call(41, MEMCHK_CALLER);
  call.use(hMemHeap);
  return call.finish(inner.MEM_StructToPortStr(pDefs, StructID, pStruct, ChunkLen, hMemHeap,
                                               pTotalLen, ppFirstChunk));
}

std::int16_t readPort(const MEMStructDef *pDefs, const MEMPortChunk *pFirstChunk, HMEMHEAP hMemHeap,
                      void **ppStruct) noexcept {
  const Call call(42, MEMCHK_CALLER);
  call.use(hMemHeap);
  return call.finish(inner.MEM_PortStrToStruct(pDefs, pFirstChunk, hMemHeap, ppStruct));
}

std::int16_t readPortText(const MEMStructDef *pDefs, const char *pText, std::uint32_t Len,
                          HMEMHEAP hMemHeap, void **ppStruct) noexcept {
  const Call call(44, MEMCHK_CALLER);
  call.use(hMemHeap);
  return call.finish(inner.MEM_Port1StrToStruct(pDefs, pText, Len, hMemHeap, ppStruct));
}

// --- services that are only counted

template <class Function>
struct Counting;
template <class Result, class... Args>
struct Counting<Result(Args...)> {
  template <std::uint32_t slot, auto service>
  static Result call(Args... args) noexcept {
    Call made(slot, MEMCHK_CALLER);
    if constexpr (std::is_void_v<Result>) {
      (inner.*service)(args...);
      made.finish(0, false);
    } else if constexpr (std::is_pointer_v<Result>) {
      const Result result = (inner.*service)(args...);
      return made.finish(result, result == nullptr);
    } else {
      return made.finish((inner.*service)(args...));
    }
  }
};

std::int16_t openTable(HMEMHASH *phHash, std::int16_t KeyOff, std::int16_t KeyLen, std::int16_t Max,
                       MEMHashFunc pFunc, std::int16_t AreaLen, std::uint16_t SubPool) noexcept {
  constexpr std::size_t kHeapPlace = 32;
  const Call call(20, MEMCHK_CALLER);
  const std::int16_t result =
      inner.MEM_HashOpen(phHash, KeyOff, KeyLen, Max, pFunc, AreaLen, SubPool);
  if (result == 0) {
    call.change([&](Layer::Counted &counted) {
      TableRecord &table = counted.tables[*phHash];
      table = {};
      table.opened = call.place();
      const auto *pBlock = reinterpret_cast<const char *>(*phHash);
      if (std::memcmp(pBlock, "QQQQHASH", 8) == 0) {
        std::memcpy(&table.pHeap, pBlock + kHeapPlace, sizeof table.pHeap);
      }
      ++counted.tableCount.opened;
    });
  }
  return call.finish(result);
}

std::int16_t closeTable(HMEMHASH hMemHash) noexcept {
  const Call call(21, MEMCHK_CALLER);
  const std::int16_t result = inner.MEM_HashClose(hMemHash);
  if (result == 0) {
    call.change([&](Layer::Counted &counted) {
      counted.tableCount.closed += counted.tables.erase(hMemHash);
    });
  }
  return call.finish(result);
}

template <class Change>
void changeTable(const Call &call, HMEMHASH hMemHash, Change change) {
  call.change([&](Layer::Counted &counted) {
    const auto found = counted.tables.find(hMemHash);
    if (found != counted.tables.end()) change(found->second);
  });
}

std::int16_t insertRecord(HMEMHASH hMemHash, std::int16_t Len, const void *pInputEntry,
                          void **ppNewEntry) noexcept {
  const Call call(22, MEMCHK_CALLER);
  const std::int16_t result = inner.MEM_HashInsEntry(hMemHash, Len, pInputEntry, ppNewEntry);
  changeTable(call, hMemHash, [&](TableRecord &table) {
    if (result == 0) table.usage.add(static_cast<std::uint64_t>(Len));
    if (result == MEMERR_HASHDKEY) ++table.duplicates;
  });
  return call.finish(result);
}

std::int16_t getRecord(HMEMHASH hMemHash, const void *pKey, void **ppEntry) noexcept {
  const Call call(23, MEMCHK_CALLER);
  const std::int16_t result = inner.MEM_HashGetEntry(hMemHash, pKey, ppEntry);
  changeTable(call, hMemHash, [&](TableRecord &table) {
    if (result == 0) ++table.found;
    if (result == MEMERR_HASHNFND) ++table.notFound;
  });
  return call.finish(result);
}

// All records of a table have the same length.
std::int16_t deleteRecord(HMEMHASH hMemHash, const void *pKey) noexcept {
  const Call call(48, MEMCHK_CALLER);
  const std::int16_t result = inner.MEM_HashDelEntry(hMemHash, pKey);
  changeTable(call, hMemHash, [&](TableRecord &table) {
    if (result == 0) table.usage.remove(table.usage.liveBytes / table.usage.live());
  });
  return call.finish(result);
}

std::int16_t scanTable(HMEMHASH hMemHash, MEMScanFunc pFct, void *pParm) noexcept {
  Call call(49, MEMCHK_CALLER);
  call.letCallBack();
  return call.finish(inner.MEM_HashScan(hMemHash, pFct, pParm));
}

std::int16_t openBuffer(MEMCatCB *pCatCB) noexcept {
  const Call call(26, MEMCHK_CALLER);
  const std::int16_t result = inner.MEM_CatOpen(pCatCB);
  if (result == 0) {
    call.change([&](Layer::Counted &counted) {
      BufferRecord buffer;
      buffer.opened = call.place();
      buffer.storage = buffer.peakStorage = pCatCB->BlkLen;
      buffer.pText = pCatCB->pText;
      counted.buffers[pCatCB] = buffer;
      ++counted.bufferCount.opened;
    });
  }
  return call.finish(result);
}

std::int16_t closeBuffer(MEMCatCB *pCatCB) noexcept {
  const Call call(27, MEMCHK_CALLER);
  const std::int16_t result = inner.MEM_CatClose(pCatCB);
  if (result == 0) {
    call.change([&](Layer::Counted &counted) {
      counted.bufferCount.closed += counted.buffers.erase(pCatCB);
    });
  }
  return call.finish(result);
}

// Slot 28 calls this slot, too.
std::int16_t appendText(MEMCatCB *pCatCB, const char16_t *pText, std::int32_t Len) noexcept {
  const Call call(29, MEMCHK_CALLER);
  const std::int16_t result = inner.MEM_MemCat(pCatCB, pText, Len);
  if (result == 0) {
    call.change([&](Layer::Counted &counted) {
      const auto found = counted.buffers.find(pCatCB);
      if (found == counted.buffers.end()) return;
      BufferRecord &buffer = found->second;
      buffer.usage.add(static_cast<std::uint64_t>(Len) * sizeof(char16_t));
      buffer.storage = pCatCB->BlkLen;
      buffer.peakStorage = std::max(buffer.peakStorage, buffer.storage);
      if (buffer.pText != pCatCB->pText) ++buffer.moves;
      buffer.pText = pCatCB->pText;
    });
  }
  return call.finish(result);
}

template <std::uint32_t slot, auto service, class Unit>
std::int16_t sinkText(const Unit *pText, const Unit **ppSunk) noexcept {
  const Call call(slot, MEMCHK_CALLER);
  const std::int16_t result = (inner.*service)(pText, ppSunk);
  if (result == 0 && call.isWatched()) {
    const std::uint64_t bytes =
        (std::char_traits<Unit>::length(*ppSunk) + 1) * std::uint64_t{sizeof(Unit)};
    call->change([&](Layer::Counted &counted) {
      counted.sink.asked.add(bytes);
      SinkRecord::Copy &copy = counted.sink.byAddress[*ppSunk];
      if (copy.uses++ != 0) return;
      copy.bytes = bytes;
      counted.sink.copies.add(bytes);
    });
  }
  return call.finish(result);
}

template <std::uint32_t slot, auto service, class Unit>
std::int16_t deleteText(const Unit *pSunk) noexcept {
  const Call call(slot, MEMCHK_CALLER);
  const std::int16_t result = (inner.*service)(pSunk);
  if (result == 0) {
    call.change([&](Layer::Counted &counted) {
      const auto copy = counted.sink.byAddress.find(pSunk);
      if (copy == counted.sink.byAddress.end()) return;
      counted.sink.asked.remove(copy->second.bytes);
      if (--copy->second.uses != 0) return;
      counted.sink.copies.remove(copy->second.bytes);
      counted.sink.byAddress.erase(copy);
    });
  }
  return call.finish(result);
}

template <std::uint32_t slot, auto service, class Unit>
std::int16_t verifyText(const Unit *pText, const Unit **ppSunk, void *pReserved) noexcept {
  const Call call(slot, MEMCHK_CALLER);
  const std::int16_t result = (inner.*service)(pText, ppSunk, pReserved);
  call.change([&](Layer::Counted &counted) {
    if (result == 0) ++counted.sink.found;
    if (result == MEMERR_SINKNFND) ++counted.sink.notFound;
  });
  return call.finish(result);
}

std::int16_t endSink() noexcept {
  const Call call(32, MEMCHK_CALLER);
  const std::int16_t result = inner.MEM_SinkTerm();
  if (result == 0) {
    call.change([](Layer::Counted &counted) {
      counted.sink.asked.removeAll();
      counted.sink.copies.removeAll();
      counted.sink.byAddress.clear();
    });
  }
  return call.finish(result);
}

using Vector = MEMFunctionVector;

// Every service of a heap or a pool.
MEMFunctionVector checkingWrappers() noexcept {
  MEMFunctionVector own{};
  own.MEM_HeapOpen = openHeap<10, &Vector::MEM_HeapOpen, HeapKind::standard>;
  own.MEM_HeapClose = closeHeap<11, &Vector::MEM_HeapClose>;
  own.MEM_HeapAllocEntry = makeEntries<12, &Vector::MEM_HeapAllocEntry>;
  own.MEM_HeapAllocMultEntries = makeEntries<13, &Vector::MEM_HeapAllocMultEntries>;
  own.MEM_HeapAllocEntryLong = allocEntryLong;
  own.MEM_CellOpen = openPool;
  own.MEM_CellClose = closePool;
  own.MEM_CellClear = clearPool;
  own.MEM_CellAllocEntry = allocCell;
  own.MEM_CellFreeEntry = freeCell;
  own.MEM_EHeapOpen = openHeap<36, &Vector::MEM_EHeapOpen, HeapKind::enhanced>;
  own.MEM_EHeapClose = closeHeap<37, &Vector::MEM_EHeapClose>;
  own.MEM_EHeapAllocEntry = enhancedAllocEntry;
  own.MEM_EHeapFreeEntry = enhancedFreeEntry;
  own.MEM_EHeapAllocMultEntries = makeEntries<40, &Vector::MEM_EHeapAllocMultEntries>;
  own.MEM_StructToPortStr = writePort;
  own.MEM_PortStrToStruct = readPort;
  own.MEM_Port1StrToStruct = readPortText;
  own.MEM_HeapAllocLongMultEntries = makeEntries<50, &Vector::MEM_HeapAllocLongMultEntries>;
  own.MEM_EHeapAllocLongMultEntries = makeEntries<51, &Vector::MEM_EHeapAllocLongMultEntries>;
  return own;
}

// The other services from slot 8 on.
void addCountingWrappers(MEMFunctionVector &own) noexcept {
  own.MEM_HashOpen = openTable;
  own.MEM_HashClose = closeTable;
  own.MEM_HashInsEntry = insertRecord;
  own.MEM_HashGetEntry = getRecord;
  own.MEM_HashDelEntry = deleteRecord;
  own.MEM_HashScan = scanTable;
  own.MEM_CatOpen = openBuffer;
  own.MEM_CatClose = closeBuffer;
  own.MEM_MemCat = appendText;
  own.MEM_SinkString = sinkText<33, &Vector::MEM_SinkString, char>;
  own.MEM_SinkDelete = deleteText<34, &Vector::MEM_SinkDelete, char>;
  own.MEM_SinkVerify = verifyText<35, &Vector::MEM_SinkVerify, char>;
  own.MEM_WSinkString = sinkText<45, &Vector::MEM_WSinkString, char16_t>;
  own.MEM_WSinkDelete = deleteText<46, &Vector::MEM_WSinkDelete, char16_t>;
  own.MEM_WSinkVerify = verifyText<47, &Vector::MEM_WSinkVerify, char16_t>;
  own.MEM_SinkTerm = endSink;
#define MEMCHK_COUNT(slot, name) \
  if (slot >= 8 && own.name == nullptr) own.name = Counting<name##Fn>::call<slot, &Vector::name>;
  MEM_VECTOR_SLOTS(MEMCHK_COUNT)
#undef MEMCHK_COUNT
}

constinit MEMFunctionVector wrappers{};  // the attached ones; null where there is none

}  // namespace

bool isBound(const MEMFunctionVector &vector) noexcept {
  bool isFilled = true;
#define MEMCHK_ASK(slot, name) isFilled = isFilled && vector.name != nullptr;
  MEM_VECTOR_SLOTS(MEMCHK_ASK)
#undef MEMCHK_ASK
  return isFilled;
}

void wrapSlots(MEMFunctionVector &vector, bool all) noexcept {
  inner = vector;
  wrappers = checkingWrappers();
  if (all) addCountingWrappers(wrappers);
#define MEMCHK_WRAP(slot, name) \
  if (wrappers.name != nullptr) vector.name = wrappers.name;
  MEM_VECTOR_SLOTS(MEMCHK_WRAP)
#undef MEMCHK_WRAP
}

void unwrapSlots(MEMFunctionVector &vector) noexcept {
#define MEMCHK_UNWRAP(slot, name) \
  if (wrappers.name != nullptr && vector.name == wrappers.name) vector.name = inner.name;
  MEM_VECTOR_SLOTS(MEMCHK_UNWRAP)
#undef MEMCHK_UNWRAP
}

}  // namespace memchk
