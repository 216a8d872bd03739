// Every request of storage refused in turn, over one script of heap and hash table calls. The
// models show for each call what a refusal at that place must give.

#include <memory>

#include "heapmodel.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr TableShape kSmallNodes = {4, 4, 4, firstByteModulo<4>, 100, 1, 7};
constexpr TableShape kLargeNodes = {0, 8, 2, firstByteModulo<2>, 2000, 2, 8};

class HeapHashFaultTest : public HeapHashTest {
 protected:
  HeapHashFaultTest() : watch(mem), stage{host, mem, watch, kDirty} {}

  // First area, further areas and large blocks, singly and in chains.
  static void fill(CheckedHeap &heap) {
    heap.alloc(500, true);
    heap.alloc(500, true);
    heap.alloc(900, false);
    heap.alloc(969, true);
    heap.alloc(70000, false);
    heap.alloc(8, true);
    heap.chain(300, 7, 8, true);
    heap.chain(1500, 3, 100, false);
    heap.alloc(968, true);
  }

  static void fill(CheckedTable &table) {
    for (std::uint64_t key = 0; key < 20; ++key) table.insert(key);
    for (std::uint64_t key = 0; key < 20; key += 3) table.remove(key);
    for (std::uint64_t key = 15; key < 30; ++key) table.insert(key);
    table.scan({1, 2, 3});
    for (std::uint64_t key = 0; key < 40; ++key) table.get(key);
  }

  // Once the host has storage again, objects serve whatever they refused before.
  static void useAndClose(CheckedHeap &heap) {
    if (!heap.isOpen()) return;
    heap.check();
    const std::size_t before = heap.entryCount();
    fill(heap);
    EXPECT_EQ(heap.entryCount(), before + 17);
    heap.close();
  }

  static void useAndClose(CheckedTable &table) {
    if (!table.isOpen()) return;
    table.check();
    fill(table);
    for (std::uint64_t key = 0; key < 30; ++key) table.insert(key);
    EXPECT_EQ(table.recordCount(), 30U);
    table.close();
  }

  void runScript() {
    CheckedHeap heap(stage, 1, 7);
    if (heap.isOpen()) fill(heap);
    CheckedTable small(stage, kSmallNodes);
    if (small.isOpen()) fill(small);
    CheckedHeap late(stage, 256, 0xFFFB);
    if (late.isOpen()) late.alloc(300000, false);
    CheckedTable large(stage, kLargeNodes);
    if (large.isOpen()) fill(large);
    host.disarm();
    useAndClose(large);
    useAndClose(heap);
    useAndClose(small);
    if (late.isOpen()) late.close();
  }

  VectorWatch watch;
  Stage stage;
};

TEST_F(HeapHashFaultTest, EveryRefusedStorageIsReportedAndLeavesObjectsUsable) {
  const refhost::Account before = host.account();
  const std::uint64_t refused =
      sweepFaults(host, faultOf(Service::GetStorage, 777), [&](std::uint64_t) {
        runScript();
        EXPECT_EQ(host.account().liveBytes, before.liveBytes);
        EXPECT_EQ(host.account().liveCount, before.liveCount);
      });
  EXPECT_GT(refused, 30U) << "the script asks for storage that often";
}

TEST_F(HeapHashFaultTest, NoRefusalMeansNoFailure) {
  runScript();
  EXPECT_TRUE(reports.empty());
}

TEST_F(HeapHashFaultTest, EachFailureIsReportedOnce) {
  refhost::Fault always = faultOf(Service::GetStorage);
  always.andAllLater = true;
  HMEMHEAP heap = nullptr;
  ASSERT_EQ(mem.MEM_HeapOpen(&heap, 1, kSubPool), 0);
  HMEMHASH table = nullptr;
  ASSERT_EQ(mem.MEM_HashOpen(&table, 0, 4, 0, firstByteModulo<1>, 1, kSubPool), 0);
  const Bytes input(2000);
  void *entry = nullptr;
  HMEMHEAP otherHeap = nullptr;
  HMEMHASH otherTable = nullptr;
  host.arm(always);
  EXPECT_EQ(mem.MEM_HeapAllocEntry(heap, 1000, &entry), kFailed);
  EXPECT_EQ(reports.size(), 1U);
  EXPECT_EQ(mem.MEM_HeapAllocMultEntries(heap, 500, 2, 0, &entry), kFailed);
  EXPECT_EQ(reports.size(), 2U);
  EXPECT_EQ(mem.MEM_HashInsEntry(table, 2000, input.data(), &entry), kFailed);
  EXPECT_EQ(reports.size(), 3U);
  EXPECT_EQ(mem.MEM_HeapOpen(&otherHeap, 1, kSubPool), kFailed);
  EXPECT_EQ(mem.MEM_HashOpen(&otherTable, 0, 4, 0, firstByteModulo<1>, 1, kSubPool), kFailed);
  EXPECT_EQ(reports.size(), 5U);
  host.disarm();
  EXPECT_EQ(mem.MEM_HashClose(table), 0);
  EXPECT_EQ(mem.MEM_HeapClose(heap), 0);
}

// A host that takes storage back by doing nothing: closing goes on to the end.
TEST_F(HeapHashFaultTest, CloseGoesOnWhenTheHostKeepsStorage) {
  CheckedHeap heap(stage, 1, 7);
  ASSERT_TRUE(heap.isOpen());
  fill(heap);
  CheckedTable table(stage, kSmallNodes);
  ASSERT_TRUE(table.isOpen());
  fill(table);
  watch.keepFreed = true;
  heap.close();
  table.close();
}

}  // namespace
}  // namespace memtest
