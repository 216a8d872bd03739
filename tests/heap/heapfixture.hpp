// What tests of both kinds of heap share: the limits of small heaps, stand-ins, and a fixture that
// knows how heaps look in trace records.
#pragma once

#include <cstddef>
#include <cstdint>
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

// Single entries and chains through any of the slots that give them. Lengths and counts must fit
// in what the slot takes.
using AllocFn = std::int16_t(MEMFunctionVector &, HMEMHEAP, std::int32_t len, void **ppEntry);
using ChainFn = std::int16_t(MEMFunctionVector &, HMEMHEAP, std::int32_t len, std::int32_t count,
                             std::int16_t linkOff, void **ppEntry);

struct AllocVariant {
  const char *name;
  AllocFn *alloc;
};

struct ChainVariant {
  const char *name;
  ChainFn *alloc;
};

inline void PrintTo(const AllocVariant &variant, std::ostream *out) {
  *out << variant.name;
}

inline void PrintTo(const ChainVariant &variant, std::ostream *out) {
  *out << variant.name;
}

inline std::int16_t allocShort(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                               void **ppEntry) {
  return mem.MEM_HeapAllocEntry(heap, static_cast<std::int16_t>(len), ppEntry);
}

inline std::int16_t allocLong(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                              void **ppEntry) {
  return mem.MEM_HeapAllocEntryLong(heap, len, ppEntry);
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

// Stands in for storage that no test machine should have to provide.
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

class HeapFixture : public HeapHashTest {
 protected:
  static constexpr std::uint32_t kBoth = MEM_TRACE_ENTRY | MEM_TRACE_EXIT;
  static constexpr char kSource[] = "(..\\SrcRes\\MEMCHEAP) ";
  static constexpr char kLongName[] = "Mem_HeapAllocEntryLong";  // as it is

  explicit HeapFixture(refhost::Options options = withDirtyStorage()) : HeapHashTest(options) {}

  // The start of the area or block that the last storage call delivered.
  std::uint8_t *obtained() {
    void *last = nullptr;
    for (const refhost::HostCall &call : host.takeCalls()) {
      if (call.service != refhost::Service::GetStorage) continue;
      last = reinterpret_cast<void *>(call.result);
    }
    return static_cast<std::uint8_t *>(last);
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
};

}  // namespace memtest
