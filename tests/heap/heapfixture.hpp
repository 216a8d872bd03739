// What tests of heaps share: the two kinds and what distinguishes them, the limits of small heaps,
// stand-ins, and a fixture that knows how heaps look in trace records and among host calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "heaptest.hpp"

namespace memtest {

inline constexpr std::int32_t kLongest = std::numeric_limits<std::int32_t>::max();
inline constexpr std::uint32_t kSmallArea = 1024;  // AreaLen 1
inline constexpr std::int32_t kSmallMost = 968;    // longest area entry of such a heap

inline std::string invalidHandle(const void *handle) {
  return "Invalid Heap Handle=" + hex16(handle);
}

template <class T>
T *pointerAt(const void *base, std::size_t offset) {
  return load<T *>(base, offset);
}

// How a heap's storage is asked for: what the caller passes and what the host gets.
struct OpenCase {
  std::int16_t areaLen;
  std::uint16_t subPool;
  std::uint16_t hostSubPool;
  std::uint16_t hostKind;
};

inline void PrintTo(const OpenCase &row, std::ostream *out) {
  *out << "AreaLen " << row.areaLen << ", SubPool " << row.subPool;
}

inline constexpr OpenCase kOpenCases[] = {
    {1, 7, 7, 1},      {1, 0, 0, 1},      {2, 230, 230, 1},
    {255, 7, 7, 1},    {256, 7, 7, 1},    {3, 32767, 32767, 1},
    {3, 0xFFFB, 5, 2}, {3, 0xFF00, 0, 2}, {3, 0x8000, 32768, 2}};

// What distinguishes the two kinds of heap. In all else they are alike.
struct HeapKind {
  const char *name;
  const char *eye;
  std::uint32_t headerLen;
  std::size_t curAreaAt;  // offsets of fields of the header
  std::size_t largeBlocksAt;
  std::uint32_t leastLen;  // what the shortest entry takes
  FailureMarks marks;      // what its failures leave
  const char *noArea;      // what it says when there is no storage for a further area
  int entrySlot;           // the slot that chains take their entries from
  const char *openName;    // in trace records
  const char *closeName;
  const char *entryName;
  MEM_HeapOpenFn *MEMFunctionVector::*open;
  MEM_HeapCloseFn *MEMFunctionVector::*close;
  MEM_HeapAllocEntryLongFn *MEMFunctionVector::*entry;
};

inline constexpr HeapKind kStandard = {
    "Standard",
    "QQQHEAP1",
    56,
    24,
    32,
    8,
    {},
    "MemAllocAreaFail",
    14,
    "MEM_HeapOpen",
    "MEM_HeapClose",
    "Mem_HeapAllocEntryLong",  // as it is
    &MEMFunctionVector::MEM_HeapOpen,
    &MEMFunctionVector::MEM_HeapClose,
    &MEMFunctionVector::MEM_HeapAllocEntryLong,
};

inline constexpr HeapKind kEnhanced = {
    "Enhanced",
    "ENHHEAP1",
    64,
    40,
    48,
    16,
    kOwnMarks,
    "MemAllocFail",
    38,
    "MEM_EHeapOpen",
    "MEM_EHeapClose",
    "MEM_EHeapAllocEntry",
    &MEMFunctionVector::MEM_EHeapOpen,
    &MEMFunctionVector::MEM_EHeapClose,
    &MEMFunctionVector::MEM_EHeapAllocEntry,
};

inline void PrintTo(const HeapKind &kind, std::ostream *out) {
  *out << kind.name;
}

// Bits of an enhanced heap's flags.
inline constexpr std::uint8_t kGateHeld = 1;
inline constexpr std::uint8_t kLargeMade = 2;

// Single entries and chains through any of the slots that give them. Lengths and counts must fit
// in what the slot takes.
using AllocFn = std::int16_t(MEMFunctionVector &, HMEMHEAP, std::int32_t len, void **ppEntry);
using ChainFn = std::int16_t(MEMFunctionVector &, HMEMHEAP, std::int32_t len, std::int32_t count,
                             std::int16_t linkOff, void **ppEntry);

inline std::int16_t allocShort(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                               void **ppEntry) {
  return mem.MEM_HeapAllocEntry(heap, static_cast<std::int16_t>(len), ppEntry);
}

inline std::int16_t allocLong(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                              void **ppEntry) {
  return mem.MEM_HeapAllocEntryLong(heap, len, ppEntry);
}

inline std::int16_t allocOwn(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                             void **ppEntry) {
  return mem.MEM_EHeapAllocEntry(heap, len, ppEntry);
}

inline std::int16_t chainShort(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                               std::int32_t count, std::int16_t linkOff, void **ppEntry) {
  return mem.MEM_HeapAllocMultEntries(heap, static_cast<std::int16_t>(len),
                                      static_cast<std::int16_t>(count), linkOff, ppEntry);
}

inline std::int16_t chainLong(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                              std::int32_t count, std::int16_t linkOff, void **ppEntry) {
  return mem.MEM_HeapAllocLongMultEntries(heap, len, count, linkOff, ppEntry);
}

inline std::int16_t chainOwnShort(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                                  std::int32_t count, std::int16_t linkOff, void **ppEntry) {
  return mem.MEM_EHeapAllocMultEntries(heap, len, static_cast<std::int16_t>(count), linkOff,
                                       ppEntry);
}

inline std::int16_t chainOwnLong(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                                 std::int32_t count, std::int16_t linkOff, void **ppEntry) {
  return mem.MEM_EHeapAllocLongMultEntries(heap, len, count, linkOff, ppEntry);
}

// A slot that gives entries of a kind of heap.
template <class Function>
struct Slot {
  const char *name;
  const HeapKind &kind;
  Function *alloc;
};
using EntrySlot = Slot<AllocFn>;
using ChainSlot = Slot<ChainFn>;

template <class Function>
void PrintTo(const Slot<Function> &slot, std::ostream *out) {
  *out << slot.name;
}

inline constexpr EntrySlot kEntrySlots[] = {
    {"StandardShort", kStandard, allocShort}, {"StandardLong", kStandard, allocLong},
    {"EnhancedOwn", kEnhanced, allocOwn},     {"EnhancedByShort", kEnhanced, allocShort},
    {"EnhancedByLong", kEnhanced, allocLong},
};

inline constexpr ChainSlot kChainSlots[] = {
    {"StandardShort", kStandard, chainShort},       {"StandardLong", kStandard, chainLong},
    {"EnhancedOwnShort", kEnhanced, chainOwnShort}, {"EnhancedOwnLong", kEnhanced, chainOwnLong},
    {"EnhancedByShort", kEnhanced, chainShort},     {"EnhancedByLong", kEnhanced, chainLong},
};

template <class Function, std::size_t count>
std::vector<Slot<Function>> slotsOf(const HeapKind &kind, const Slot<Function> (&slots)[count]) {
  std::vector<Slot<Function>> found;
  for (const Slot<Function> &slot : slots) {
    if (&slot.kind == &kind) found.push_back(slot);
  }
  return found;
}

// The entries of a chain of `count`, in order; one more when it does not end there.
inline std::vector<std::uint8_t *> entriesOf(void *first, std::size_t count, std::int16_t linkOff) {
  std::vector<std::uint8_t *> entries;
  auto *entry = static_cast<std::uint8_t *>(first);
  while (entry != nullptr && entries.size() <= count) {
    entries.push_back(entry);
    entry = pointerAt<std::uint8_t>(entry, static_cast<std::size_t>(linkOff));
  }
  return entries;
}

// Replaces storage that no test machine should have to provide.
struct HugeStorage {
  static constexpr std::uint32_t kRealLen = 64;
  inline static std::uint32_t askedSize = 0;
  inline static std::uint32_t freedSize = 0;
  alignas(8) inline static std::uint8_t bytes[kRealLen];
  inline static MEMFunctionVector own{};

  static void standIn(MEMFunctionVector &mem) {
    own = mem;
    mem.MEM_Alloc = alloc;
    mem.MEM_Free = release;
  }

  static void *alloc(std::uint32_t size, std::int16_t subPool) {
    if (size < 0x40000000U) return own.MEM_Alloc(size, subPool);
    askedSize = size;
    return bytes;
  }
  static void release(void *area, std::uint32_t size, std::int16_t subPool) {
    if (area == bytes) {
      freedSize = size;
    } else {
      own.MEM_Free(area, size, subPool);
    }
  }
};

// A test of one kind of heap. A failure must leave no gate held.
class HeapFixture : public HeapHashTest {
 protected:
  using Service = refhost::Service;

  static constexpr std::uint32_t kBoth = MEM_TRACE_ENTRY | MEM_TRACE_EXIT;
  static constexpr char kSource[] = "(..\\SrcRes\\MEMCHEAP) ";

  explicit HeapFixture(const HeapKind &kindOfHeap)
      : HeapHashTest(withDirtyStorage()), kind(kindOfHeap) {}

  bool isEnhanced() const { return kind.entrySlot == kEnhanced.entrySlot; }

  std::int16_t tryOpen(HMEMHEAP *phMemHeap, std::int16_t areaLen = 1,
                       std::uint16_t subPool = kSubPool) {
    return (mem.*kind.open)(phMemHeap, areaLen, subPool);
  }
  std::int16_t tryClose(HMEMHEAP heap) { return (mem.*kind.close)(heap); }

  HMEMHEAP open(std::int16_t areaLen = 1, std::uint16_t subPool = kSubPool) {
    HMEMHEAP heap = nullptr;
    EXPECT_EQ(tryOpen(&heap, areaLen, subPool), 0);
    return heap;
  }
  void close(HMEMHEAP heap) { EXPECT_EQ(tryClose(heap), 0); }

  std::int16_t tryAlloc(HMEMHEAP heap, std::int32_t len, void **ppEntry) {
    return (mem.*kind.entry)(heap, len, ppEntry);
  }
  std::uint8_t *alloc(HMEMHEAP heap, std::int32_t len) {
    void *entry = nullptr;
    EXPECT_EQ(tryAlloc(heap, len, &entry), 0);
    return static_cast<std::uint8_t *>(entry);
  }

  // The first area after its header.
  std::uint8_t *entriesAt(HMEMHEAP heap, std::size_t offset = 0) const {
    return at(heap, kind.headerLen + offset);
  }
  std::uint8_t *curArea(HMEMHEAP heap) const {
    return pointerAt<std::uint8_t>(heap, kind.curAreaAt);
  }
  std::uint8_t *largeBlocks(HMEMHEAP heap) const {
    return pointerAt<std::uint8_t>(heap, kind.largeBlocksAt);
  }
  std::uint32_t gateOf(HMEMHEAP heap) const {
    return isEnhanced() ? load<std::uint32_t>(heap, 24) : 0;
  }
  std::uint8_t flagsOf(HMEMHEAP heap) const {
    return isEnhanced() ? load<std::uint8_t>(heap, 30) : std::uint8_t{0};
  }

  // The start of the area or block that the last storage call delivered.
  std::uint8_t *obtained() {
    void *last = nullptr;
    for (const refhost::HostCall &call : host.takeCalls()) {
      if (call.service == Service::GetStorage) last = reinterpret_cast<void *>(call.result);
    }
    return static_cast<std::uint8_t *>(last);
  }

  // `call` fails in the way of this kind of heap.
  template <class Call>
  void expectOwnFailure(std::uint32_t code, const std::string &name, Call call) {
    expectOwnFailure(code, name, call, kind.marks);
  }
  template <class Call>
  void expectOwnFailure(std::uint32_t code, const std::string &name, Call call,
                        const FailureMarks &marks) {
    expectFails(code, name, NameBy::kMessage, call, marks);
    EXPECT_EQ(host.heldGateCount(), 0U);
  }

  void expectNoGateCalls() {
    EXPECT_EQ(host.calls(Service::AcquireGate), 0U);
    EXPECT_EQ(host.calls(Service::ReleaseGate), 0U);
  }

  static std::string entryLine(const std::string &name, const std::string &text) {
    return "STDE " + name + kSource + "Parms: " + text;
  }
  static std::string exitLine(const std::string &name) {
    return "STDX " + name + kSource + "Return=SUCCESS";
  }
  static std::string storageLine(const std::string &name, const std::string &text) {
    return "SL05 " + name + kSource + text;
  }
  static std::string atLine(const void *address, std::uint32_t size) {
    return ", ptr=" + hex16(address) + ", size=" + std::to_string(size);
  }

  // The lines of heaps only.
  template <class Call>
  Lines heapTraced(std::uint32_t flags, Call call) {
    Lines lines;
    for (const std::string &line : traced(flags, call)) {
      if (line.find(kSource) != std::string::npos) lines.push_back(line);
    }
    return lines;
  }
  Lines storageTraced(const std::function<void()> &call) { return traced(MEM_TRACE_STORAGE, call); }

  const HeapKind &kind;
};

}  // namespace memtest
