// Enhanced heaps from several threads at once: no overlap, no lost entry, and a gate that is taken
// and released exactly as often as the work needs.

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <thread>

#include "heaptest.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr std::size_t kThreads = 8;
constexpr int kRounds = 4000;
constexpr std::int16_t kAreaLen = 4;
constexpr std::uint32_t kAreaSize = kAreaLen * 1024;
constexpr std::uint32_t kLongestInArea = kAreaSize - 56;

std::uint32_t takenBy(std::int32_t len) {
  return std::max(16U, (static_cast<std::uint32_t>(std::max(len, 1)) + 7) / 8 * 8);
}

struct Entry {
  std::uint8_t *address;
  std::int32_t len;
  std::size_t heap;
  std::uint8_t fill;
  bool isFreed = false;

  std::uint32_t taken() const { return takenBy(len); }
  bool isLarge() const { return taken() > kLongestInArea; }
  bool isIntact() const {
    if (!isFreed) return allBytesAre(address, taken(), fill);
    return allBytesAre(address, 8, 0) && load<std::uint32_t>(address, 8) == taken() &&
           allBytesAre(address + 12, taken() - 12, 0);
  }
};

// What one thread does, and what it holds in the end. Results are collected, not asserted: the
// threads must not share a test's state.
struct Worker {
  MEMFunctionVector &mem;
  const std::vector<HMEMHEAP> &heaps;
  std::uint64_t seed;
  bool usesStandardSlots;
  std::vector<Entry> entries{};
  std::uint64_t gateUses = 0;
  int wrongs = 0;

  void check(bool isRight) { wrongs += isRight ? 0 : 1; }

  static std::int32_t someLength(Random &random) {
    if (random.oneIn(20)) return static_cast<std::int32_t>(random.between(3000, 9000));
    return static_cast<std::int32_t>(random.between(0, 300)) - 20;
  }

  // All bytes of the entry are this thread's from now on.
  void keep(std::uint8_t *address, std::int32_t len, std::size_t heap) {
    const auto fill = static_cast<std::uint8_t>(seed * 31 + entries.size() + 1);
    entries.push_back({address, len, heap, fill});
    std::memset(address, fill, entries.back().taken());
  }

  void alloc(Random &random) {
    const std::size_t heap = random.below(heaps.size());
    const std::int32_t len = someLength(random);
    void *entry = nullptr;
    std::int16_t result = 0;
    if (!usesStandardSlots) {
      result = mem.MEM_EHeapAllocEntry(heaps[heap], len, &entry);
    } else if (random.oneIn(2)) {
      result = mem.MEM_HeapAllocEntry(heaps[heap], static_cast<std::int16_t>(len), &entry);
    } else {
      result = mem.MEM_HeapAllocEntryLong(heaps[heap], len, &entry);
    }
    ++gateUses;
    check(result == 0 && entry != nullptr);
    if (entry != nullptr) keep(static_cast<std::uint8_t *>(entry), len, heap);
  }

  void chain(Random &random) {
    const std::size_t heap = random.below(heaps.size());
    const std::int32_t len = someLength(random);
    const auto count = static_cast<std::int16_t>(random.between(1, 6));
    const std::int16_t linkOff = static_cast<std::int16_t>(random.below(takenBy(len) - 7));
    void *first = nullptr;
    const bool isShort = random.oneIn(2);
    const std::int16_t result = chainOf(heaps[heap], isShort, len, count, linkOff, &first);
    gateUses += static_cast<std::uint64_t>(count);
    check(result == 0);
    int found = 0;
    for (auto *entry = static_cast<std::uint8_t *>(first); entry != nullptr; ++found) {
      auto *next = load<std::uint8_t *>(entry, static_cast<std::size_t>(linkOff));
      keep(entry, len, heap);
      entry = next;
    }
    check(found == count);
  }

  std::int16_t chainOf(HMEMHEAP heap, bool isShort, std::int32_t len, std::int16_t count,
                       std::int16_t linkOff, void **ppFirst) {
    if (!usesStandardSlots) {
      return isShort ? mem.MEM_EHeapAllocMultEntries(heap, len, count, linkOff, ppFirst)
                     : mem.MEM_EHeapAllocLongMultEntries(heap, len, count, linkOff, ppFirst);
    }
    return isShort ? mem.MEM_HeapAllocMultEntries(heap, static_cast<std::int16_t>(len), count,
                                                  linkOff, ppFirst)
                   : mem.MEM_HeapAllocLongMultEntries(heap, len, count, linkOff, ppFirst);
  }

  void giveBack(Random &random) {
    if (entries.empty()) return;
    Entry &entry = entries[random.below(entries.size())];
    check(entry.isIntact());
    check(mem.MEM_EHeapFreeEntry(heaps[entry.heap], entry.len, entry.address) == 0);
    if (entry.isLarge()) return;
    ++gateUses;
    entry.isFreed = true;
    check(entry.isIntact());
  }

  void giveBackWrong(Random &random) {
    char none[32] = {};
    HMEMHEAP heap = heaps[random.below(heaps.size())];
    check(mem.MEM_EHeapFreeEntry(heap, random.oneIn(2) ? 16 : 100000, none) == kFailed);
  }

  void run() {
    check(mem.MEM_ThreadAct() == 0);
    Random random(seed);
    for (int i = 0; i < kRounds; ++i) {
      switch (random.below(10)) {
        case 0:
          chain(random);
          break;
        case 1:
        case 2:
        case 3:
          giveBack(random);
          break;
        case 4:
          giveBackWrong(random);
          break;
        default:
          alloc(random);
      }
    }
    for (const Entry &entry : entries) check(entry.isIntact());
    check(mem.MEM_ThreadTerm() == 0);
  }
};

class EHeapThreadTest : public HeapHashTest {
 protected:
  EHeapThreadTest() {
    // The fixture's reports are of one thread only.
    host.text().ReportError = [](char *, const char *) {};
  }

  HMEMHEAP open() {
    HMEMHEAP heap = nullptr;
    EXPECT_EQ(mem.MEM_EHeapOpen(&heap, kAreaLen, kSubPool), 0);
    return heap;
  }

  std::vector<Worker> runWorkers(const std::vector<HMEMHEAP> &heaps, std::uint64_t seed,
                                 bool useStandardSlots = false) {
    std::vector<Worker> workers;
    for (std::size_t i = 0; i < kThreads; ++i) {
      workers.push_back({mem, heaps, seed + i, useStandardSlots && i % 2 == 0});
    }
    std::vector<std::thread> threads;
    for (Worker &worker : workers) threads.emplace_back([&worker] { worker.run(); });
    for (std::thread &thread : threads) thread.join();
    return workers;
  }

  // Every byte that a heap has carved is part of exactly one entry, and every large block is one.
  static void expectTiled(HMEMHEAP heap, std::size_t number, const std::vector<Worker> &workers) {
    std::map<std::uint8_t *, std::uint32_t> inAreas;
    std::map<std::uint8_t *, std::uint32_t> large;
    for (const Worker &worker : workers) {
      for (const Entry &entry : worker.entries) {
        EXPECT_TRUE(entry.isIntact());
        if (entry.heap != number) continue;
        auto &entries = entry.isLarge() ? large : inAreas;
        EXPECT_TRUE(entries.emplace(entry.address, entry.taken()).second) << "allocated twice";
      }
    }
    std::uint8_t *area = at(heap, 0);
    for (std::uint32_t offset = kEHeapHeaderLen; area != nullptr; offset = kAreaHeaderLen) {
      const auto used = load<std::uint32_t>(area, 16);
      EXPECT_EQ(used + load<std::uint32_t>(area, 20), kAreaSize);
      while (offset < used) {
        const auto found = inAreas.find(area + offset);
        ASSERT_NE(found, inAreas.end()) << "an entry is lost or overlaps another";
        offset += found->second;
        inAreas.erase(found);
      }
      EXPECT_EQ(offset, used);
      area = load<std::uint8_t *>(area, 8);
    }
    EXPECT_TRUE(inAreas.empty()) << "entries outside the heap";
    auto *block = load<std::uint8_t *>(heap, 48);
    for (; block != nullptr; block = load<std::uint8_t *>(block, 8)) {
      const auto found = large.find(block + 24);
      ASSERT_NE(found, large.end());
      EXPECT_EQ(load<std::uint32_t>(block, 16), found->second + 24);
      large.erase(found);
    }
    EXPECT_TRUE(large.empty()) << "large entries outside the heap";
    EXPECT_EQ(load<std::uint8_t>(heap, 30), 2);
    EXPECT_EQ(load<void *>(heap, 32), nullptr);
  }

  // Lets the workers loose on so many heaps and checks all that they leave.
  void stress(std::size_t heapCount, bool useStandardSlots) {
    const std::uint64_t seed = firstSeed(20250417);
    SCOPED_TRACE(seedNote(seed));
    std::vector<HMEMHEAP> heaps;
    for (std::size_t i = 0; i < heapCount; ++i) heaps.push_back(open());
    host.resetCalls();
    const std::vector<Worker> workers = runWorkers(heaps, seed, useStandardSlots);
    std::uint64_t gateUses = 0;
    for (const Worker &worker : workers) {
      EXPECT_EQ(worker.wrongs, 0);
      gateUses += worker.gateUses;
    }
    EXPECT_EQ(host.calls(Service::AcquireGate), gateUses);
    EXPECT_EQ(host.calls(Service::ReleaseGate), gateUses);
    EXPECT_EQ(host.heldGateCount(), 0U);
    for (std::size_t i = 0; i < heaps.size(); ++i) expectTiled(heaps[i], i, workers);
    for (HMEMHEAP heap : heaps) EXPECT_EQ(mem.MEM_EHeapClose(heap), 0);
    EXPECT_EQ(host.account(kSubPool).liveBytes, 0U);
    EXPECT_EQ(host.account(kSubPool).liveCount, 0U);
  }
};

TEST_F(EHeapThreadTest, OneHeapServesAllThreads) {
  stress(1, false);
}

TEST_F(EHeapThreadTest, TwoHeapsServeAllThreadsAtOnce) {
  stress(2, false);
}

TEST_F(EHeapThreadTest, StandardEntryPointsServeThreadsToo) {
  stress(1, true);
}

// Holds one thread inside its allocation, under the gate, until it is let go.
struct Detained {
  inline static std::atomic<bool> isInside{false};
  inline static std::atomic<bool> mayGo{false};
  inline static MEMFunctionVector own{};

  static void *alloc(std::uint32_t size, std::int16_t subPool) {
    isInside = true;
    while (!mayGo) std::this_thread::yield();
    return own.MEM_Alloc(size, subPool);
  }
};

TEST_F(EHeapThreadTest, FailuresLeaveAGateAloneThatAnotherThreadHolds) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  ASSERT_EQ(mem.MEM_EHeapAllocEntry(heap, 16, &entry), 0);
  Detained::own = mem;
  Detained::isInside = false;
  Detained::mayGo = false;
  mem.MEM_Alloc = Detained::alloc;
  void *large = nullptr;
  std::int16_t result = kFailed;
  std::thread holder([&] { result = mem.MEM_EHeapAllocEntry(heap, 10000, &large); });
  while (!Detained::isInside) std::this_thread::yield();

  char none[32] = {};
  void *cell = nullptr;
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, 16, none), kFailed);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, 10000, none), kFailed);
  host.arm(faultOf(Service::AcquireGate));
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, 16, entry), kFailed);
  host.arm(faultOf(Service::AcquireGate));
  EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, 16, &cell), kFailed);
  EXPECT_EQ(mem.MEM_EHeapAllocMultEntries(heap, 16, 0, 0, &cell), kFailed);
  EXPECT_EQ(host.heldGateCount(), 1U);

  Detained::mayGo = true;
  holder.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(host.heldGateCount(), 0U);
  EXPECT_TRUE(host.takeMisuses().empty());
  EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, 16, &cell), 0);
  EXPECT_EQ(cell, at(entry, 16));
  EXPECT_EQ(mem.MEM_EHeapClose(heap), 0);
}

}  // namespace
}  // namespace memtest
