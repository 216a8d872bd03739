// The standard heap alone: lengths that it refuses, what it passes on to other slots, its trace
// records. What it shares with the enhanced heap is tested in heap_test.cpp.

#include "heapfixture.hpp"

namespace memtest {
namespace {

using refhost::Service;

class StandardHeapTest : public HeapFixture {
 protected:
  static constexpr char kLongName[] = "Mem_HeapAllocEntryLong";  // as it is

  StandardHeapTest() : HeapFixture(kStandard) {}
};

// Single entries.

TEST_F(StandardHeapTest, AreaEntriesReachNoHostStorageService) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  const Lines inner = framed(kLongName);
  EXPECT_EQ(hostCalls([&] { allocLong(mem, heap, 100, &entry); }), inner);
  EXPECT_EQ(hostCalls([&] { allocShort(mem, heap, 100, &entry); }),
            framed("MEM_HeapAllocEntry", inner));
  close(heap);
}

TEST_F(StandardHeapTest, LengthsBelow1AreRefused) {
  HMEMHEAP heap = open();
  const Bytes before = bytesOf(heap, kSmallArea);
  const auto expectRefused = [&](AllocFn *pAlloc, std::int32_t len) {
    void *entry = untouched();
    expectOwnFailure(4051, "Entry Length=" + std::to_string(len) + " too small",
                     [&] { return pAlloc(mem, heap, len, &entry); });
    EXPECT_EQ(entry, untouched());
  };
  for (const std::int32_t len : {0, -1, -7, -8, -32768}) {
    expectRefused(allocShort, len);
    expectRefused(allocLong, len);
  }
  for (const std::int32_t len : {-65535, -65536, -kLongest, -kLongest - 1}) {
    expectRefused(allocLong, len);
  }
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  close(heap);
}

// Slots.

// The watch notes the test's own calls too, as the first of each list.
class StandardRoutingTest : public StandardHeapTest {
 protected:
  StandardRoutingTest() : watch(mem) { std::memcpy(enhancedBlock_, "ENHHEAP1", 8); }

  HMEMHEAP enhanced() { return reinterpret_cast<HMEMHEAP>(enhancedBlock_); }

  VectorWatch watch;

 private:
  alignas(8) char enhancedBlock_[128] = {};
};

TEST_F(StandardRoutingTest, ShortEntryGoesToSlot14AndPassesItsResultBack) {
  HMEMHEAP heap = open();
  watch.uses.clear();
  const AddressNames names = {{asNumber(heap), "heap"}};
  for (const std::int16_t result : Shorts{0, -1, 1, 4056, 32767, -32768}) {
    void *entry = untouched();
    watch.longResult = result;
    expectEnds(result, [&] { return mem.MEM_HeapAllocEntry(heap, -2, &entry); });
    EXPECT_EQ(watch.takeLines(names), (Lines{"12(heap, -2)", "14(heap, -2)"}));
    EXPECT_EQ(watch.lastEntryCell, &entry);
    EXPECT_EQ(entry, untouched());
  }
  watch.longResult.reset();
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_HeapAllocEntry(heap, 32767, &entry), 0);
  EXPECT_EQ(watch.takeLines(names), (Lines{"12(heap, 32767)", "14(heap, 32767)", "8(32792, 7)"}));
  close(heap);
}

TEST_F(StandardRoutingTest, UnknownHandleGoesToSlot14) {
  alignas(8) char block[128] = "QQQNONE1";
  watch.longResult = 77;
  void *entry = untouched();
  expectEnds(77,
             [&] { return mem.MEM_HeapAllocEntry(reinterpret_cast<HMEMHEAP>(block), 8, &entry); });
  EXPECT_EQ(watch.takeLines({{asNumber(block), "block"}}), (Lines{"12(block, 8)", "14(block, 8)"}));
}

TEST_F(StandardRoutingTest, EnhancedHeapGoesToSlot38) {
  const AddressNames names = {{asNumber(enhanced()), "heap"}};
  for (const std::int16_t result : Shorts{0, -1, 77, -32768}) {
    watch.enhancedResult = result;
    void *entry = untouched();
    expectEnds(result, [&] { return mem.MEM_HeapAllocEntry(enhanced(), -3, &entry); });
    EXPECT_EQ(watch.takeLines(names), (Lines{"12(heap, -3)", "38(heap, -3)"}));
    EXPECT_EQ(watch.lastEntryCell, &entry);

    expectEnds(result, [&] { return mem.MEM_HeapAllocEntryLong(enhanced(), -70000, &entry); });
    EXPECT_EQ(watch.takeLines(names), (Lines{"14(heap, -70000)", "38(heap, -70000)"}));
    EXPECT_EQ(watch.lastEntryCell, &entry);
    EXPECT_EQ(entry, untouched());
  }
}

TEST_F(StandardRoutingTest, ChainsOfEnhancedHeapsDoNotGoThroughTheVector) {
  static int calls;
  calls = 0;
  mem.MEM_EHeapAllocMultEntries = [](HMEMHEAP, std::int32_t, std::int16_t, std::int16_t, void **) {
    ++calls;
    return std::int16_t{0};
  };
  mem.MEM_EHeapAllocLongMultEntries = [](HMEMHEAP, std::int32_t, std::int32_t, std::int16_t,
                                         void **) {
    ++calls;
    return std::int16_t{0};
  };
  watch.enhancedResult = std::int16_t{-1};  // no entry can be made of the block
  void *entry = untouched();
  EXPECT_EQ(mem.MEM_HeapAllocMultEntries(enhanced(), 8, 1, 0, &entry), kFailed);
  EXPECT_EQ(mem.MEM_HeapAllocLongMultEntries(enhanced(), 8, 1, 0, &entry), kFailed);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(entry, untouched());
}

// Trace records.

using StandardTraceTest = StandardHeapTest;

TEST_F(StandardTraceTest, Entries) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  const std::string handle = "hMemHeap=" + lowHex(heap);
  const std::string cell = ", ppEntry=" + lowHex(&entry);
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapAllocEntry(heap, 17, &entry); }),
            (Lines{entryLine("MEM_HeapAllocEntry", handle + ", Len=17" + cell),
                   entryLine(kLongName, handle + ", Len=17" + cell), exitLine(kLongName),
                   exitLine("MEM_HeapAllocEntry")}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapAllocEntryLong(heap, 900, &entry); }).size(), 2U);
  EXPECT_EQ(heapTraced(kBoth, [&] { mem.MEM_HeapAllocEntryLong(heap, 70000, &entry); }),
            (Lines{entryLine(kLongName, handle + ", Len=70000" + cell), exitLine(kLongName)}));
  close(heap);
}

TEST_F(StandardTraceTest, Chains) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  const std::string handle = "hMemHeap=" + lowHex(heap);
  const std::string cell = ", ppEntry=" + lowHex(&entry);
  // The single entry's cell is the chain's own business.
  Lines lines = traced(kBoth, [&] { mem.MEM_HeapAllocMultEntries(heap, 16, 2, 8, &entry); });
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_EQ(lines[0], entryLine("MEM_HeapAllocMultEntries",
                                handle + ", Len=16, NumEnties= 2, LinkOff=8" + cell));
  for (const std::size_t i : {1U, 3U}) {
    EXPECT_EQ(lines[i].find(entryLine(kLongName, handle + ", Len=16, ppEntry=")), 0U) << lines[i];
    EXPECT_EQ(lines[i + 1], exitLine(kLongName));
  }
  EXPECT_EQ(lines[5], exitLine("MEM_HeapAllocMultEntries"));

  lines = heapTraced(kBoth, [&] { mem.MEM_HeapAllocLongMultEntries(heap, 70000, 1, 12, &entry); });
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], entryLine("MEM_HeapAllocLongMultEntries",
                                handle + ", Len=70000, NumEnties= 1, LinkOff=12" + cell));
  EXPECT_EQ(lines[3], exitLine("MEM_HeapAllocLongMultEntries"));
  close(heap);
}

TEST_F(StandardTraceTest, FailuresHaveNoExitRecord) {
  HMEMHEAP heap = open();
  alloc(heap, 900);
  void *entry = nullptr;
  const std::string cell = ", ppEntry=" + lowHex(&entry);
  const std::string handle = "hMemHeap=" + lowHex(heap);
  HMEMHEAP other = nullptr;
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapOpen(&other, -32768, 0x8000); }),
            (Lines{entryLine("MEM_HeapOpen",
                             "phMemHeap=" + lowHex(&other) + ", AreaLen=-32768, SubPool=-32768")}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapClose(nullptr); }),
            (Lines{entryLine("MEM_HeapClose", "hMemHeap=0")}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapAllocEntry(nullptr, -7, &entry); }),
            (Lines{entryLine("MEM_HeapAllocEntry", "hMemHeap=0, Len=-7" + cell)}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapAllocEntry(heap, -7, &entry); }),
            (Lines{entryLine("MEM_HeapAllocEntry", handle + ", Len=-7" + cell),
                   entryLine(kLongName, handle + ", Len=-7" + cell)}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapAllocEntryLong(heap, -kLongest - 1, &entry); }),
            (Lines{entryLine(kLongName, handle + ", Len=-2147483648" + cell)}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapAllocMultEntries(heap, -1, -2, -3, &entry); }),
            (Lines{entryLine("MEM_HeapAllocMultEntries",
                             handle + ", Len=-1, NumEnties= -2, LinkOff=-3" + cell)}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapAllocLongMultEntries(heap, -1, -70000, -3, &entry); }),
            (Lines{entryLine("MEM_HeapAllocLongMultEntries",
                             handle + ", Len=-1, NumEnties= -70000, LinkOff=-3" + cell)}));
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(heapTraced(MEM_TRACE_EXIT, [&] { mem.MEM_HeapAllocEntry(heap, 500, &entry); }),
            (Lines{}));
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(
      heapTraced(MEM_TRACE_EXIT, [&] { mem.MEM_HeapAllocMultEntries(heap, 60, 3, 0, &entry); }),
      (Lines{exitLine(kLongName)}));
  close(heap);
}

TEST_F(StandardTraceTest, StorageLinesOfOneLife) {
  HMEMHEAP heap = nullptr;
  void *entry = nullptr;
  const std::string regular = storageLine(kLongName, "Regular heap");
  const auto linesOf = [this](auto call) { return traced(MEM_TRACE_STORAGE, call); };

  Lines lines = linesOf([&] { heap = open(2); });
  EXPECT_EQ(lines, (Lines{storageLine("MEM_HeapOpen", "Allocating Standard Heap header block" +
                                                          atLine(heap, 2048))}));
  lines = linesOf([&] { mem.MEM_HeapAllocEntry(heap, 1992, &entry); });
  EXPECT_EQ(lines, (Lines{regular}));

  lines = linesOf([&] { mem.MEM_HeapAllocEntry(heap, 8, &entry); });
  void *const area = at(entry, 0) - 24;
  EXPECT_EQ(
      lines,
      (Lines{regular, storageLine(kLongName, "Allocating Std Heap area" + atLine(area, 2048))}));
  lines = linesOf([&] { mem.MEM_HeapAllocEntryLong(heap, 1993, &entry); });
  void *const block = at(entry, 0) - 24;
  EXPECT_EQ(lines, (Lines{regular, storageLine(kLongName, "Allocating Large Heap block" +
                                                              atLine(block, 2024))}));
  lines = linesOf([&] { mem.MEM_HeapAllocMultEntries(heap, 8, 2, 0, &entry); });
  EXPECT_EQ(lines,
            (Lines{storageLine("MEM_HeapAllocMultEntries", "Regular heap"), regular, regular}));
  lines = linesOf([&] { mem.MEM_HeapAllocLongMultEntries(heap, 8, 1, 0, &entry); });
  EXPECT_EQ(lines, (Lines{storageLine("MEM_HeapAllocLongMultEntries", "Regular heap"), regular}));

  lines = linesOf([&] { close(heap); });
  EXPECT_EQ(lines,
            (Lines{storageLine("MEM_HeapClose", "Freeing Large Heap Block" + atLine(block, 2024)),
                   storageLine("MEM_HeapClose", "Freeing Std Heap Area" + atLine(heap, 2048)),
                   storageLine("MEM_HeapClose", "Freeing Std Heap Area" + atLine(area, 2048))}));
}

TEST_F(StandardTraceTest, StorageLinesStandBetweenTheStorageCallAndWhatFollows) {
  HMEMHEAP heap = open();
  alloc(heap, 968);
  host.setTraceFlags(MEM_TRACE_STORAGE);
  EXPECT_EQ(hostCalls([&] { alloc(heap, 8); }),
            framed(kLongName, joined({{"WriteRecord()"},  // a fixed text
                                      allocLines(1024, kSubPool),
                                      {"Format()", "WriteRecord()"}})));
  host.setTraceFlags(0);
  close(heap);

  heap = open();
  host.setTraceFlags(MEM_TRACE_STORAGE);
  EXPECT_EQ(hostCalls([&] { close(heap); }, {{asNumber(heap), "heap"}}),
            framed("MEM_HeapClose",
                   joined({{"Format()", "WriteRecord()"}, freeLines("heap", 1024, kSubPool)})));
}

TEST_F(StandardTraceTest, KindOfHeapIsTracedBeforeTheHandleIsRefused) {
  alignas(8) char block[128] = "QQQNONE1";
  auto *heap = reinterpret_cast<HMEMHEAP>(block);
  void *entry = nullptr;
  const std::uint32_t flags = kBoth | MEM_TRACE_STORAGE;
  Lines lines = traced(flags, [&] { mem.MEM_HeapAllocEntryLong(heap, 8, &entry); });
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1], storageLine(kLongName, "Regular heap"));
  lines = traced(flags, [&] { mem.MEM_HeapAllocMultEntries(heap, 8, 1, 0, &entry); });
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1], storageLine("MEM_HeapAllocMultEntries", "Regular heap"));
  lines = traced(flags, [&] { mem.MEM_HeapAllocLongMultEntries(heap, 8, 1, 0, &entry); });
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1], storageLine("MEM_HeapAllocLongMultEntries", "Regular heap"));
  EXPECT_EQ(traced(MEM_TRACE_STORAGE,
                   [&] {
                     mem.MEM_HeapAllocEntryLong(nullptr, 8, &entry);
                     mem.MEM_HeapAllocMultEntries(nullptr, 8, 1, 0, &entry);
                     mem.MEM_HeapAllocLongMultEntries(nullptr, 8, 1, 0, &entry);
                   }),
            (Lines{}))
      << "null is no kind of heap";
}

TEST_F(StandardTraceTest, EnhancedHeap) {
  VectorWatch watch(mem);
  alignas(8) char block[128] = "ENHHEAP1";
  auto *heap = reinterpret_cast<HMEMHEAP>(block);
  void *entry = nullptr;
  const std::string parms = "hMemHeap=" + lowHex(heap) + ", Len=8, ppEntry=" + lowHex(&entry);
  const std::uint32_t flags = kBoth | MEM_TRACE_STORAGE;
  watch.enhancedResult = std::int16_t{0};
  EXPECT_EQ(traced(flags, [&] { mem.MEM_HeapAllocEntryLong(heap, 8, &entry); }),
            (Lines{entryLine(kLongName, parms), storageLine(kLongName, "Enhanced heap"),
                   exitLine(kLongName)}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapAllocEntry(heap, 8, &entry); }),
            (Lines{entryLine("MEM_HeapAllocEntry", parms), exitLine("MEM_HeapAllocEntry")}));
  watch.enhancedResult = std::int16_t{-1};
  EXPECT_EQ(traced(flags, [&] { mem.MEM_HeapAllocEntryLong(heap, 8, &entry); }),
            (Lines{entryLine(kLongName, parms), storageLine(kLongName, "Enhanced heap")}));

  for (const auto &chain : {chainShort, chainLong}) {
    const std::string name =
        chain == chainShort ? "MEM_HeapAllocMultEntries" : "MEM_HeapAllocLongMultEntries";
    const Lines lines = traced(MEM_TRACE_STORAGE, [&] { chain(mem, heap, 8, 1, 0, &entry); });
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], storageLine(name, "Enhanced heap"));
  }
}

}  // namespace
}  // namespace memtest
