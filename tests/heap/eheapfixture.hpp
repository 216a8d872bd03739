// What tests of the enhanced heap share beside what they share with those of the standard heap.
#pragma once

#include <cstdint>
#include <string>

#include "heapfixture.hpp"

namespace memtest {

// Bits of the header's flags.
inline constexpr std::uint8_t kGateHeld = 1;
inline constexpr std::uint8_t kLargeMade = 2;

inline std::int16_t chainOwnShort(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                                  std::int32_t count, std::int16_t linkOff, void **ppEntry) {
  return mem.MEM_EHeapAllocMultEntries(heap, len, static_cast<std::int16_t>(count), linkOff,
                                       ppEntry);
}

inline std::int16_t chainOwnLong(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len,
                                 std::int32_t count, std::int16_t linkOff, void **ppEntry) {
  return mem.MEM_EHeapAllocLongMultEntries(heap, len, count, linkOff, ppEntry);
}

class EHeapFixture : public HeapFixture {
 protected:
  using Service = refhost::Service;

  HMEMHEAP open(std::int16_t areaLen = 1, std::uint16_t subPool = kSubPool) {
    HMEMHEAP heap = nullptr;
    EXPECT_EQ(mem.MEM_EHeapOpen(&heap, areaLen, subPool), 0);
    return heap;
  }

  void close(HMEMHEAP heap) { EXPECT_EQ(mem.MEM_EHeapClose(heap), 0); }

  std::uint8_t *alloc(HMEMHEAP heap, std::int32_t len) {
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, len, &entry), 0);
    return static_cast<std::uint8_t *>(entry);
  }

  void giveBack(HMEMHEAP heap, std::int32_t len, void *entry) {
    EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, len, entry), 0);
  }

  template <class Call>
  void expectOwnFailure(std::uint32_t code, const std::string &name, Call call,
                        const FailureMarks &marks = kOwnMarks) {
    expectFails(code, name, NameBy::kMessage, call, marks);
    EXPECT_EQ(host.heldGateCount(), 0U);
  }

  void expectNoGateCalls() {
    EXPECT_EQ(host.calls(Service::AcquireGate), 0U);
    EXPECT_EQ(host.calls(Service::ReleaseGate), 0U);
  }

  // The gate service was asked once, in vain, and nothing was released.
  void expectOnlyAcquireCalled() {
    EXPECT_EQ(host.calls(Service::AcquireGate), 1U);
    EXPECT_EQ(host.calls(Service::ReleaseGate), 0U);
    EXPECT_EQ(host.calls(Service::GetStorage), 0U);
  }

  static std::uint32_t gateOf(HMEMHEAP heap) { return load<std::uint32_t>(heap, 24); }
  static std::uint8_t flagsOf(HMEMHEAP heap) { return load<std::uint8_t>(heap, 30); }
  static void *freeListOf(HMEMHEAP heap) { return pointerAt<void>(heap, 32); }
  static void setFreeList(HMEMHEAP heap, void *item) { store(heap, 32, item); }

  // An entry made into a member of a free list by hand.
  std::uint8_t *freeItem(HMEMHEAP heap, std::uint32_t size, void *next) {
    std::uint8_t *item = alloc(heap, static_cast<std::int32_t>(size));
    std::memset(item, 0xEE, size);
    store(item, 0, next);
    store(item, 8, size);
    return item;
  }
};

}  // namespace memtest
