// Both kinds of heap: layouts, addresses, limits, chains, failures, closing, trace records. What
// only one kind has is tested in standard_heap_test.cpp and enhanced_heap_test.cpp.

#include "heapfixture.hpp"

namespace memtest {
namespace {

using refhost::Service;

class HeapTest : public HeapFixture, public ::testing::WithParamInterface<HeapKind> {
 protected:
  HeapTest() : HeapFixture(GetParam()) {}
};

INSTANTIATE_TEST_SUITE_P(Kinds, HeapTest, ::testing::Values(kStandard, kEnhanced),
                         caseName<HeapKind>);

// Opening.

using KindAndOpen = std::tuple<HeapKind, OpenCase>;

class HeapOpenTest : public HeapFixture, public ::testing::WithParamInterface<KindAndOpen> {
 protected:
  HeapOpenTest() : HeapFixture(std::get<0>(GetParam())), row(std::get<1>(GetParam())) {}

  const OpenCase row;
};

std::string kindAndNumber(const ::testing::TestParamInfo<KindAndOpen> &info) {
  return std::get<0>(info.param).name + std::to_string(info.index);
}

INSTANTIATE_TEST_SUITE_P(Arguments, HeapOpenTest,
                         ::testing::Combine(::testing::Values(kStandard, kEnhanced),
                                            ::testing::ValuesIn(kOpenCases)),
                         kindAndNumber);

TEST_P(HeapOpenTest, HeaderIsWrittenWholeAndTheRestIsLeftAsObtained) {
  const std::uint32_t areaSize = static_cast<std::uint32_t>(row.areaLen) * 1024;
  static std::uint32_t gate;
  static decltype(MEMRuntimeServices::CreateGate) create;
  gate = 0;
  create = host.runtime().CreateGate;
  host.runtime().CreateGate = [](std::uint32_t *phGate) {
    const std::uint16_t code = create(phGate);
    gate = *phGate;
    return code;
  };
  HMEMHEAP heap = open(row.areaLen, row.subPool);
  Layout expected = Layout()
                        .text(kind.eye)
                        .address(nullptr)
                        .field(kind.headerLen)
                        .field(static_cast<std::int32_t>(areaSize - kind.headerLen));
  if (isEnhanced()) {
    expected.field(gate).field(row.subPool).field(std::uint8_t{0});
    expected.field(load<std::uint8_t>(heap, 31));  // of no meaning
    expected.address(nullptr).address(heap).address(nullptr).field(areaSize);
  } else {
    expected.address(heap).address(nullptr).field(areaSize).field(row.subPool);
  }
  EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(heap, expected.bytes().size())), "");
  EXPECT_EQ(gate != 0, isEnhanced());
  EXPECT_TRUE(allBytesAre(entriesAt(heap), areaSize - kind.headerLen, kDirty));
  close(heap);
}

// An enhanced heap makes its gate first and deletes it last; its storage goes back under the gate.
TEST_P(HeapOpenTest, AsksForOneAreaAndReturnsItAtClose) {
  const std::int64_t areaSize = std::int64_t{row.areaLen} * 1024;
  HMEMHEAP heap = nullptr;
  const Lines opening = hostCalls([&] { heap = open(row.areaLen, row.subPool); });
  const Lines get = allocLines(areaSize, row.hostSubPool, row.hostKind);
  const std::string gate = std::to_string(gateOf(heap));
  const Lines closing = hostCalls([&] { close(heap); }, {{asNumber(heap), "heap"}});
  const Lines free = freeLines("heap", areaSize, row.hostSubPool);
  if (isEnhanced()) {
    EXPECT_EQ(opening, framed("MEM_EHeapOpen", joined({{"CreateGate(cell)"}, get})));
    EXPECT_EQ(closing, framed("MEM_EHeapClose",
                              joined({{"AcquireGate(" + gate + ")"},
                                      free,
                                      {"ReleaseGate(" + gate + ")", "DeleteGate(" + gate + ")"}})));
  } else {
    EXPECT_EQ(opening, framed("MEM_HeapOpen", get));
    EXPECT_EQ(closing, framed("MEM_HeapClose", free));
  }
}

TEST_P(HeapTest, OpenRefusesAreaLengthsOutside1To256) {
  for (const std::int16_t areaLen : Shorts{0, -1, 257, -32768, 32767, -255, 512}) {
    SCOPED_TRACE(areaLen);
    auto *heap = static_cast<HMEMHEAP>(untouched());
    expectOwnFailure(4050, "Invalid Area Length=" + std::to_string(areaLen),
                     [&] { return tryOpen(&heap, areaLen); });
    EXPECT_EQ(heap, untouched());
    EXPECT_EQ(host.calls(Service::CreateGate), 0U);
    EXPECT_EQ(host.calls(Service::GetStorage), 0U);
  }
}

// An enhanced heap deletes its gate then, and keeps the host's error.
TEST_P(HeapTest, OpenWithoutStorageFails) {
  const std::size_t gates = host.gateCount();
  for (const std::uint32_t hostError : {0U, kHostError}) {
    auto *heap = static_cast<HMEMHEAP>(untouched());
    host.arm(faultOf(Service::GetStorage, hostError));
    expectOwnFailure(
        4055, "MemAllocFail", [&] { return tryOpen(&heap); },
        isEnhanced() && hostError != 0 ? kHostMarks : kind.marks);
    EXPECT_EQ(heap, untouched());
    EXPECT_EQ(host.gateCount(), gates);
    expectNoGateCalls();
  }
}

TEST_P(HeapTest, OpenAndCloseRecordNothing) {
  HMEMHEAP heap = nullptr;
  expectEnds(0, [&] { return tryOpen(&heap); });
  expectEnds(0, [&] { return tryClose(heap); });
}

TEST_P(HeapTest, HeapsAreIndependent) {
  HMEMHEAP first = open(1, 3);
  HMEMHEAP second = open(2, 4);
  EXPECT_EQ(alloc(first, 16), entriesAt(first));
  EXPECT_EQ(alloc(second, 16), entriesAt(second));
  EXPECT_EQ(alloc(first, 16), entriesAt(first, 16));
  close(first);
  EXPECT_EQ(alloc(second, 16), entriesAt(second, 16));
  EXPECT_EQ(host.account(3).liveCount, 0U);
  EXPECT_EQ(host.account(4).liveBytes, 2048U);
  close(second);
}

// Single entries. All slots that take a handle give the same for the same length.

class HeapEntryTest : public HeapFixture, public ::testing::WithParamInterface<EntrySlot> {
 protected:
  HeapEntryTest() : HeapFixture(GetParam().kind) {}

  std::int16_t tryTake(HMEMHEAP heap, std::int32_t len, void **ppEntry) {
    return GetParam().alloc(mem, heap, len, ppEntry);
  }

  std::uint8_t *take(HMEMHEAP heap, std::int32_t len) {
    void *entry = nullptr;
    EXPECT_EQ(tryTake(heap, len, &entry), 0) << "length " << len;
    return static_cast<std::uint8_t *>(entry);
  }

  // The call fails so, gives no entry and leaves the heap's first area alone.
  void expectRefusal(HMEMHEAP heap, std::int32_t len, std::uint32_t code, const std::string &name) {
    const Bytes before = bytesOf(heap, kSmallArea);
    void *entry = untouched();
    expectOwnFailure(code, name, [&] { return tryTake(heap, len, &entry); });
    EXPECT_EQ(entry, untouched());
    EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
    EXPECT_EQ(host.calls(Service::ReleaseGate), isEnhanced() ? 1U : 0U);
  }
};

INSTANTIATE_TEST_SUITE_P(Slots, HeapEntryTest, ::testing::ValuesIn(kEntrySlots),
                         caseName<EntrySlot>);

TEST_P(HeapEntryTest, EntriesFollowEachOtherRoundedUpTo8) {
  HMEMHEAP heap = open();
  std::uint32_t offset = 0;
  const struct {
    std::int32_t len;
    std::uint32_t taken;
  } cases[] = {{1, 8},   {7, 8},   {8, 8},   {9, 16},    {15, 16}, {16, 16}, {17, 24},
               {24, 24}, {25, 32}, {31, 32}, {100, 104}, {2, 8},   {3, 8},   {1, 8}};
  for (const auto &row : cases) {
    EXPECT_EQ(take(heap, row.len), entriesAt(heap, offset)) << "length " << row.len;
    offset += std::max(row.taken, kind.leastLen);
  }
  EXPECT_EQ(load<std::uint32_t>(heap, 16), kind.headerLen + offset);
  EXPECT_EQ(load<std::uint32_t>(heap, 20), kSmallArea - kind.headerLen - offset);
  EXPECT_EQ(flagsOf(heap), 0);
  close(heap);
}

TEST_P(HeapEntryTest, FirstAreaIsFilledToItsEnd) {
  HMEMHEAP heap = open();
  const auto most = static_cast<std::int32_t>(kSmallArea - kind.headerLen);
  EXPECT_EQ(take(heap, most), entriesAt(heap));
  EXPECT_EQ(load<std::uint32_t>(heap, 16), kSmallArea);
  EXPECT_EQ(load<std::int32_t>(heap, 20), 0);

  host.recordCalls(true);
  std::uint8_t *entry = take(heap, 1);
  std::uint8_t *area = obtained();
  EXPECT_EQ(entry, area + 24);
  EXPECT_EQ(host.account(kSubPool).liveBytes, 2 * kSmallArea);
  close(heap);
}

TEST_P(HeapEntryTest, EntryOneLongerThanTheThresholdBecomesALargeBlock) {
  HMEMHEAP heap = open();
  Bytes before = bytesOf(heap, kSmallArea);
  host.recordCalls(true);
  std::uint8_t *entry = take(heap, kSmallMost + 1);
  std::uint8_t *block = obtained();
  EXPECT_EQ(entry, block + 24);
  EXPECT_EQ(host.account(kSubPool).liveBytes, kSmallArea + 1000);
  const Layout expected = Layout().text("QQQHBLKN").address(nullptr).field(std::uint32_t{1000});
  EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(block, 20)), "");
  EXPECT_EQ(largeBlocks(heap), block);
  if (isEnhanced()) store<std::uint8_t>(before.data(), 30, kLargeMade);
  store<void *>(before.data(), kind.largeBlocksAt, block);
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "") << "but for these";
  EXPECT_EQ(take(heap, 16), entriesAt(heap));
  EXPECT_EQ(flagsOf(heap), isEnhanced() ? kLargeMade : 0) << "once set, the bit stays";
  close(heap);
}

TEST_P(HeapEntryTest, LargestShortLengthIsServed) {
  HMEMHEAP small = open(1);
  HMEMHEAP medium = open(33);  // area entries up to 33 * 1024 - 56
  host.recordCalls(true);
  EXPECT_EQ(take(medium, 32767), entriesAt(medium));
  EXPECT_EQ(load<std::uint32_t>(medium, 16), kind.headerLen + 32768U);
  EXPECT_EQ(obtained(), nullptr);
  std::uint8_t *entry = take(small, 32767);
  std::uint8_t *block = obtained();
  EXPECT_EQ(entry, block + 24);
  EXPECT_EQ(load<std::uint32_t>(block, 16), 24U + 32768U);
  std::memset(entry, 0x11, 32767);
  close(small);
  close(medium);
}

TEST_P(HeapEntryTest, RefusedAreaLeavesTheCurrentAreaCurrent) {
  HMEMHEAP heap = open();
  take(heap, 500);
  host.arm(faultOf(Service::GetStorage, kHostError));
  expectRefusal(heap, 600, 4055, kind.noArea);
  EXPECT_EQ(take(heap, 400), entriesAt(heap, 504));
  close(heap);
}

TEST_P(HeapEntryTest, RefusedLargeBlockChangesNothing) {
  HMEMHEAP heap = open();
  host.arm(faultOf(Service::GetStorage, kHostError));
  expectRefusal(heap, 969, 4055, "MemAllocBlkFail");
  EXPECT_EQ(flagsOf(heap), 0) << "no large block has been made";
  take(heap, 2000);
  for (const std::uint32_t hostError : {0U, kHostError}) {
    host.arm(faultOf(Service::GetStorage, hostError));
    expectRefusal(heap, 969, 4055, "MemAllocBlkFail");
  }
  close(heap);
}

TEST_P(HeapEntryTest, EntriesAreHandedOutAsTheHostDeliveredThem) {
  HMEMHEAP heap = open();
  EXPECT_TRUE(allBytesAre(take(heap, 400), 400, kDirty)) << "first area";
  EXPECT_TRUE(allBytesAre(take(heap, 900), 904, kDirty)) << "further area";
  EXPECT_TRUE(allBytesAre(take(heap, 5000), 5000, kDirty)) << "large block";
  close(heap);
}

TEST_P(HeapEntryTest, SuccessRecordsNothing) {
  HMEMHEAP heap = open();
  for (const std::int32_t len : {isEnhanced() ? -5 : 1, 8, 968, 969}) {
    void *entry = nullptr;
    expectEnds(0, [&] { return tryTake(heap, len, &entry); });
  }
  close(heap);
}

// Areas.

TEST_P(HeapTest, FurtherAreaIsLinkedBehindTheOldOneAndBecomesCurrent) {
  HMEMHEAP heap = open();
  alloc(heap, 800);
  host.recordCalls(true);
  std::uint8_t *entry = alloc(heap, 200);
  std::uint8_t *second = obtained();
  EXPECT_EQ(entry, second + 24);
  const Layout expected = Layout()
                              .text("QQQHEAPN")
                              .address(nullptr)
                              .field(std::uint32_t{24 + 200})
                              .field(std::int32_t{1024 - 24 - 200});
  EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(second, 24)), "");
  EXPECT_TRUE(allBytesAre(second + 24, 1000, kDirty));
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 8), second);
  EXPECT_EQ(curArea(heap), second);
  EXPECT_EQ(load<std::uint32_t>(heap, 16), kind.headerLen + 800U) << "abandoned, and as it was";
  EXPECT_EQ(load<std::uint32_t>(heap, 20), kSmallArea - kind.headerLen - 800U);

  alloc(heap, 900);
  std::uint8_t *third = obtained();
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 8), second);
  EXPECT_EQ(pointerAt<std::uint8_t>(second, 8), third);
  EXPECT_EQ(pointerAt<std::uint8_t>(third, 8), nullptr);
  EXPECT_EQ(curArea(heap), third);
  EXPECT_EQ(load<std::int32_t>(second, 20), 800);
  close(heap);
}

TEST_P(HeapTest, HeapNeverReturnsToAnEarlierArea) {
  HMEMHEAP heap = open();
  alloc(heap, 16);
  host.recordCalls(true);
  alloc(heap, 960);  // leaves most of the first area
  std::uint8_t *second = obtained();
  EXPECT_EQ(alloc(heap, 40), second + 24 + 960) << "a further area has 40 bytes after 960";
  EXPECT_EQ(load<std::int32_t>(second, 20), 0);
  std::uint8_t *entry = alloc(heap, 1);  // would fit in the first area
  std::uint8_t *third = obtained();
  EXPECT_EQ(entry, third + 24);
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 8), second);
  EXPECT_EQ(pointerAt<std::uint8_t>(second, 8), third);
  EXPECT_EQ(pointerAt<std::uint8_t>(third, 8), nullptr);
  EXPECT_EQ(curArea(heap), third);
  close(heap);
}

TEST_P(HeapTest, EntryThatExactlyFitsStaysInItsArea) {
  HMEMHEAP heap = open();
  alloc(heap, 800);
  const auto rest = static_cast<std::int32_t>(kSmallArea - kind.headerLen - 800);
  EXPECT_EQ(alloc(heap, rest - 7), entriesAt(heap, 800));
  EXPECT_EQ(load<std::int32_t>(heap, 20), 0);
  EXPECT_EQ(host.account(kSubPool).liveCount, 1U);
  close(heap);
}

TEST_P(HeapTest, ThresholdOfAStandardHeapsFirstAreaHoldsInFurtherAreas) {
  HMEMHEAP heap = open();
  alloc(heap, static_cast<std::int32_t>(kSmallArea - kind.headerLen));
  host.recordCalls(true);
  alloc(heap, 16);
  std::uint8_t *second = obtained();
  EXPECT_EQ(load<std::int32_t>(second, 20), 984);
  std::uint8_t *entry = alloc(heap, 976);  // fits in the area, but is above the threshold
  std::uint8_t *block = obtained();
  EXPECT_EQ(entry, block + 24);
  EXPECT_EQ(eyecatcher(block), "QQQHBLKN");
  EXPECT_EQ(load<std::int32_t>(second, 20), 984) << "large blocks leave the current area alone";
  EXPECT_EQ(alloc(heap, 968), second + 40);
  close(heap);
}

TEST_P(HeapTest, ThresholdGrowsWithTheArea) {
  for (const std::int16_t areaLen : Shorts{1, 2, 7, 64, 256}) {
    SCOPED_TRACE(areaLen);
    const std::int32_t most =
        areaLen * 1024 - 56;  // of which an enhanced heap's first area lacks 8
    HMEMHEAP heap = open(areaLen);
    EXPECT_EQ(alloc(heap, isEnhanced() ? most - 8 : most), entriesAt(heap));
    EXPECT_EQ(host.account(kSubPool).liveCount, 1U);
    alloc(heap, most);
    EXPECT_EQ(largeBlocks(heap), nullptr);
    EXPECT_EQ(host.account(kSubPool).liveCount, 2U);
    std::uint8_t *entry = alloc(heap, most + 1);
    EXPECT_EQ(largeBlocks(heap), entry - 24);
    EXPECT_EQ(eyecatcher(entry - 24), "QQQHBLKN");
    EXPECT_EQ(load<std::uint32_t>(entry - 24, 16), 24U + static_cast<std::uint32_t>(most) + 8U);
    EXPECT_EQ(host.account(kSubPool).liveBytes, 2 * static_cast<std::uint64_t>(areaLen) * 1024 +
                                                    24 + static_cast<std::uint64_t>(most) + 8);
    close(heap);
  }
}

// Large blocks.

TEST_P(HeapTest, LargeBlocksAreChainedNewestFirst) {
  HMEMHEAP heap = open();
  host.recordCalls(true);
  std::uint8_t *previous = nullptr;
  for (const std::int32_t len : {969, 976, 977, 4000, 100000}) {
    std::uint8_t *entry = alloc(heap, len);
    std::uint8_t *block = obtained();
    const auto blockSize = static_cast<std::uint32_t>(24 + (len + 7) / 8 * 8);
    EXPECT_EQ(entry, block + 24);
    const Layout expected = Layout().text("QQQHBLKN").address(previous).field(blockSize);
    EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(block, 20)), "") << "length " << len;
    EXPECT_TRUE(allBytesAre(entry, static_cast<std::size_t>(len), kDirty));
    EXPECT_EQ(largeBlocks(heap), block);
    previous = block;
  }
  EXPECT_EQ(alloc(heap, 8), entriesAt(heap));
  close(heap);
}

TEST_P(HeapTest, LengthsUpToTheLimitDoNotWrap) {
  HugeStorage::standIn(mem);
  static std::uint32_t checkedLen;
  host.runtime().CheckStorage = [](const void *area, std::uint32_t length) {
    checkedLen = area == HugeStorage::bytes ? length : 0;
    return std::uint16_t{0};
  };
  const struct {
    std::int32_t len;
    std::uint32_t blockSize;
  } cases[] = {{kLongest, 2147483672U},
               {kLongest - 6, 2147483672U},
               {kLongest - 7, 2147483664U},
               {kLongest - 23, 2147483648U},
               {0x40000000, 0x40000018U}};
  for (const auto &row : cases) {
    SCOPED_TRACE(row.len);
    HMEMHEAP heap = open(256);
    EXPECT_EQ(alloc(heap, row.len), HugeStorage::bytes + 24);
    EXPECT_EQ(HugeStorage::askedSize, row.blockSize);
    EXPECT_EQ(load<std::uint32_t>(HugeStorage::bytes, 16), row.blockSize);
    if (isEnhanced()) {
      EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, row.len, HugeStorage::bytes + 24), 0);
      EXPECT_EQ(checkedLen, row.blockSize);
    }
    EXPECT_EQ(alloc(heap, 8), entriesAt(heap)) << "the area is as before";
    close(heap);
    EXPECT_EQ(HugeStorage::freedSize, row.blockSize);
  }
}

TEST_P(HeapTest, LengthThatTheHostCannotServeIsRefused) {
  HMEMHEAP heap = open();
  for (const std::int32_t len : {kLongest, kLongest - 7, kLongest - 23}) {
    void *entry = untouched();
    expectOwnFailure(4055, "MemAllocBlkFail", [&] { return tryAlloc(heap, len, &entry); });
    EXPECT_EQ(entry, untouched());
  }
  EXPECT_EQ(alloc(heap, 8), entriesAt(heap));
  close(heap);
}

// Handles.

struct HandleCase {
  const char *name;
  const HeapKind &kind;
  NameBy nullBy;   // how a null handle is named
  NameBy wrongBy;  // how another block is named
  std::int16_t (*call)(MEMFunctionVector &, HMEMHEAP, void **);
};

void PrintTo(const HandleCase &row, std::ostream *out) {
  *out << row.name;
}

const HandleCase kHandleCases[] = {
    {"HeapClose", kStandard, NameBy::kItself, NameBy::kItself,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **) { return mem.MEM_HeapClose(heap); }},
    // What is no enhanced heap goes on to the long entry, whose failure it is then.
    {"HeapAllocEntry", kStandard, NameBy::kItself, NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_HeapAllocEntry(heap, 8, ppEntry);
     }},
    {"HeapAllocEntryLong", kStandard, NameBy::kStanding, NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_HeapAllocEntryLong(heap, 8, ppEntry);
     }},
    // Chains report a wrong handle before a wrong count, link offset or length.
    {"HeapAllocMultEntries", kStandard, NameBy::kStanding, NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_HeapAllocMultEntries(heap, 0, 0, -1, ppEntry);
     }},
    {"HeapAllocLongMultEntries", kStandard, NameBy::kStanding, NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_HeapAllocLongMultEntries(heap, 0, 0, -1, ppEntry);
     }},
    {"EHeapClose", kEnhanced, NameBy::kStanding, NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **) { return mem.MEM_EHeapClose(heap); }},
    {"EHeapAllocEntry", kEnhanced, NameBy::kMessage, NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapAllocEntry(heap, 8, ppEntry);
     }},
    {"EHeapFreeEntry", kEnhanced, NameBy::kMessage, NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapFreeEntry(heap, 8, ppEntry);
     }},
    {"EHeapFreeLargeEntry", kEnhanced, NameBy::kMessage, NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapFreeEntry(heap, 1000000, ppEntry);
     }},
    {"EHeapAllocMultEntries", kEnhanced, NameBy::kMessage, NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapAllocMultEntries(heap, 8, 0, -1, ppEntry);
     }},
    {"EHeapAllocLongMultEntries", kEnhanced, NameBy::kMessage, NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapAllocLongMultEntries(heap, 8, 0, -1, ppEntry);
     }},
};

class HeapHandleTest : public HeapFixture, public ::testing::WithParamInterface<HandleCase> {
 protected:
  HeapHandleTest() : HeapFixture(GetParam().kind) {}

  void expectRefused(const void *handle) {
    void *entry = untouched();
    const NameBy nameBy = handle == nullptr ? GetParam().nullBy : GetParam().wrongBy;
    const std::string name = nameBy == NameBy::kStanding ? kStandingText : invalidHandle(handle);
    auto *heap = const_cast<HMEMHEAP>(static_cast<const MEMHeapObject *>(handle));
    expectFails(
        4056, name, nameBy, [&] { return GetParam().call(mem, heap, &entry); }, kind.marks);
    EXPECT_EQ(entry, untouched());
    expectNoGateCalls();
    EXPECT_EQ(host.calls(Service::CheckStorage), 0U);
  }

  void expectRefusedUnchanged(const void *block, std::size_t length) {
    const Bytes before = bytesOf(block, length);
    expectRefused(block);
    EXPECT_EQ(changedRanges(before, bytesOf(block, length)), "");
  }
};

INSTANTIATE_TEST_SUITE_P(Operations, HeapHandleTest, ::testing::ValuesIn(kHandleCases),
                         caseName<HandleCase>);

TEST_P(HeapHandleTest, NullIsRefused) {
  expectRefused(nullptr);
}

TEST_P(HeapHandleTest, OtherBlocksAreRefused) {
  for (const char *start : {"QQQHEAP2", "QQQHEAPN", "QQQHBLKN", "QQQQHASH", "QQQCELL1", "qqqheap1",
                            " QQHEAP1", "\0QQHEAP1", "QQQHEAP ", "ENHHEAP2", "ENHHEAPN", "enhheap1",
                            " NHHEAP1", "\0NHHEAP1", "ENHHEAP ", "\0\0\0\0\0\0\0"}) {
    SCOPED_TRACE(start);
    alignas(8) char block[128];              // long enough for any header
    std::memset(block, 0x11, sizeof block);  // bit 0 of what would be the flags is set
    std::memcpy(block, start, 8);
    expectRefusedUnchanged(block, sizeof block);
  }
}

TEST_P(HeapHandleTest, FurtherAreaIsNoHandle) {
  HMEMHEAP heap = open();
  alloc(heap, 968);
  expectRefusedUnchanged(alloc(heap, 968) - 24, kSmallArea);
  close(heap);
}

TEST_P(HeapHandleTest, HeapOfTheOtherKindIsRefusedWhereItIsNotPassedOn) {
  HMEMHEAP standard = nullptr;
  HMEMHEAP enhanced = nullptr;
  ASSERT_EQ(mem.MEM_HeapOpen(&standard, 1, kSubPool), 0);
  ASSERT_EQ(mem.MEM_EHeapOpen(&enhanced, 1, kSubPool), 0);
  if (isEnhanced()) expectRefusedUnchanged(standard, kSmallArea);
  if (GetParam().name == std::string("HeapClose")) expectRefusedUnchanged(enhanced, kSmallArea);
  EXPECT_EQ(mem.MEM_EHeapClose(enhanced), 0);
  EXPECT_EQ(mem.MEM_HeapClose(standard), 0);
}

TEST_P(HeapHandleTest, ClosedHeapIsRefusedWhileItsStorageIsNotReused) {
  VectorWatch watch(mem);
  watch.keepFreed = true;
  HMEMHEAP heap = open();
  close(heap);
  expectRefused(heap);
}

TEST_P(HeapHandleTest, StandingMessageIsCutAt63Characters) {
  const std::string letters = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ+-";
  for (const std::size_t length : {0U, 1U, 62U, 63U, 64U, 128U, 255U}) {
    std::string text;
    while (text.size() < length) text += letters;
    text.resize(length);
    setMessageText(text);
    void *entry = untouched();
    EXPECT_EQ(GetParam().call(mem, nullptr, &entry), kFailed);
    const NameBy nameBy = GetParam().nullBy;
    expectError(4056, nameBy == NameBy::kStanding ? text.substr(0, 63) : invalidHandle(nullptr),
                kind.marks);
    EXPECT_EQ(messageText(), nameBy == NameBy::kMessage ? invalidHandle(nullptr) : text);
  }
}

// Chains.

class HeapChainTest : public HeapFixture, public ::testing::WithParamInterface<ChainSlot> {
 protected:
  HeapChainTest() : HeapFixture(GetParam().kind) {}

  std::int16_t tryTake(HMEMHEAP heap, std::int32_t len, std::int32_t count, std::int16_t linkOff,
                       void **ppEntry) {
    return GetParam().alloc(mem, heap, len, count, linkOff, ppEntry);
  }

  std::vector<std::uint8_t *> take(HMEMHEAP heap, std::int32_t len, std::int32_t count,
                                   std::int16_t linkOff) {
    void *first = nullptr;
    EXPECT_EQ(tryTake(heap, len, count, linkOff, &first), 0);
    const auto entries = entriesOf(first, static_cast<std::size_t>(count), linkOff);
    EXPECT_EQ(entries.size(), static_cast<std::size_t>(count));
    return entries;
  }

  // The call fails so and changes neither the cell nor the heap.
  void expectRefusal(HMEMHEAP heap, std::int32_t len, std::int32_t count, std::int16_t linkOff,
                     std::uint32_t code, const std::string &name) {
    const Bytes before = bytesOf(heap, kSmallArea);
    void *entry = untouched();
    expectOwnFailure(code, name, [&] { return tryTake(heap, len, count, linkOff, &entry); });
    expectNoGateCalls();
    EXPECT_EQ(entry, untouched());
    EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  }
};

bool hasLongLength(const ChainSlot &slot) {
  return slot.alloc != chainShort;
}

bool hasLongCount(const ChainSlot &slot) {
  return slot.alloc == chainLong || slot.alloc == chainOwnLong;
}

INSTANTIATE_TEST_SUITE_P(Slots, HeapChainTest, ::testing::ValuesIn(kChainSlots),
                         caseName<ChainSlot>);

TEST_P(HeapChainTest, OneEntryHasANullLink) {
  HMEMHEAP heap = open();
  const auto entries = take(heap, 24, 1, 8);
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0], entriesAt(heap));
  EXPECT_TRUE(allBytesAre(entries[0], 8, kDirty));
  EXPECT_TRUE(allBytesAre(entries[0] + 8, 8, 0));
  EXPECT_TRUE(allBytesAre(entries[0] + 16, 8, kDirty));
  EXPECT_EQ(load<std::uint32_t>(heap, 16), kind.headerLen + 24U);
  close(heap);
}

TEST_P(HeapChainTest, EntriesAreConsecutiveAndOnlyLinksAreWritten) {
  for (const std::int16_t linkOff : Shorts{0, 3, 12, 16}) {  // any offset, aligned or not
    SCOPED_TRACE(linkOff);
    HMEMHEAP heap = open();
    const auto entries = take(heap, 21, 5, linkOff);
    ASSERT_EQ(entries.size(), 5U);
    const auto link = static_cast<std::size_t>(linkOff);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      EXPECT_EQ(entries[i], entriesAt(heap, 24 * i));
      EXPECT_TRUE(allBytesAre(entries[i], link, kDirty));
      EXPECT_TRUE(allBytesAre(entries[i] + link + 8, 24 - link - 8, kDirty));
    }
    const std::size_t used = kind.headerLen + 5 * 24;
    EXPECT_TRUE(allBytesAre(at(heap, used), kSmallArea - used, kDirty));
    close(heap);
  }
}

TEST_P(HeapChainTest, LinkMayLieBeyondTheEntry) {
  HMEMHEAP heap = open();
  void *first = nullptr;
  ASSERT_EQ(tryTake(heap, 8, 3, 20, &first), 0);
  const std::size_t step = kind.leastLen;
  EXPECT_EQ(first, entriesAt(heap));
  EXPECT_TRUE(allBytesAre(entriesAt(heap), 20, kDirty));
  EXPECT_EQ(pointerAt<std::uint8_t>(entriesAt(heap), 20), entriesAt(heap, step));
  EXPECT_EQ(pointerAt<std::uint8_t>(entriesAt(heap, step), 20), entriesAt(heap, 2 * step));
  EXPECT_EQ(pointerAt<std::uint8_t>(entriesAt(heap, 2 * step), 20), nullptr);
  EXPECT_EQ(load<std::uint32_t>(heap, 16), kind.headerLen + 3 * step);
  close(heap);
}

TEST_P(HeapChainTest, ChainRunsThroughAreas) {
  HMEMHEAP heap = open();
  alloc(heap, 900);  // less than 70 bytes are left
  host.recordCalls(true);
  const auto entries = take(heap, 300, 5, 0);
  std::vector<std::uint8_t *> areas;
  for (const refhost::HostCall &call : host.takeCalls()) {
    if (call.service != Service::GetStorage) continue;
    areas.push_back(reinterpret_cast<std::uint8_t *>(call.result));
  }
  ASSERT_EQ(areas.size(), 2U);  // 1000 bytes hold three entries of 304
  EXPECT_EQ(entries,
            (std::vector<std::uint8_t *>{areas[0] + 24, areas[0] + 24 + 304, areas[0] + 24 + 608,
                                         areas[1] + 24, areas[1] + 24 + 304}));
  close(heap);
}

TEST_P(HeapChainTest, ChainOfLargeBlocks) {
  HMEMHEAP heap = open();
  const auto entries = take(heap, 32767, 3, 32760);
  ASSERT_EQ(entries.size(), 3U);
  for (const std::uint8_t *entry : entries) {
    EXPECT_EQ(eyecatcher(entry - 24), "QQQHBLKN");
    EXPECT_EQ(load<std::uint32_t>(entry - 24, 16), 24U + 32768U);
  }
  EXPECT_EQ(largeBlocks(heap), entries[2] - 24);
  EXPECT_EQ(host.account(kSubPool).liveCount, 4U);
  close(heap);
}

TEST_P(HeapChainTest, CountBelow1IsRefused) {
  HMEMHEAP heap = open();
  for (const std::int32_t count : {0, -1, -32768}) {
    expectRefusal(heap, 8, count, 0, 4053,
                  "Num of entries=" + std::to_string(count) + " too small");
  }
  close(heap);
}

TEST_P(HeapChainTest, NegativeLinkOffsetIsRefused) {
  HMEMHEAP heap = open();
  for (const std::int16_t linkOff : Shorts{-1, -8, -32768}) {
    expectRefusal(heap, 8, 1, linkOff, 4054,
                  "Link offset=" + std::to_string(linkOff) + " less than zero");
  }
  close(heap);
}

TEST_P(HeapChainTest, ChecksCountThenLinkOffsetThenLength) {
  HMEMHEAP heap = open();
  expectRefusal(heap, 0, 0, -1, 4053, "Num of entries=0 too small");
  expectRefusal(heap, 0, 1, -1, 4054, "Link offset=-1 less than zero");
  if (!isEnhanced()) {  // which serves any length
    expectRefusal(heap, 0, 1, 0, 4051, "Entry Length=0 too small");
    expectRefusal(heap, -1, 1, 0, 4051, "Entry Length=-1 too small");
  }
  close(heap);
}

TEST_P(HeapChainTest, FailureInTheMiddleKeepsWhatWasCarved) {
  HMEMHEAP heap = open();
  refhost::Fault second = faultOf(Service::GetStorage, kHostError);
  second.nth = 2;
  host.arm(second);
  void *entry = untouched();
  expectOwnFailure(4055, kind.noArea, [&] { return tryTake(heap, 400, 9, 8, &entry); });
  EXPECT_EQ(entry, untouched());
  EXPECT_EQ(host.calls(Service::AcquireGate), isEnhanced() ? 5U : 0U);
  EXPECT_EQ(host.calls(Service::ReleaseGate), isEnhanced() ? 5U : 0U);
  // Two entries in the first area and two in the second are linked; the last has no end mark.
  std::uint8_t *area = curArea(heap);
  ASSERT_NE(static_cast<void *>(area), heap);
  EXPECT_EQ(pointerAt<std::uint8_t>(entriesAt(heap), 8), entriesAt(heap, 400));
  EXPECT_EQ(pointerAt<std::uint8_t>(entriesAt(heap, 400), 8), area + 24);
  EXPECT_EQ(pointerAt<std::uint8_t>(area + 24, 8), area + 424);
  EXPECT_TRUE(allBytesAre(area + 424, 400, kDirty));
  EXPECT_EQ(pointerAt<void>(area, 8), nullptr);
  EXPECT_EQ(alloc(heap, 100), area + 824);
  close(heap);
}

TEST_P(HeapChainTest, LargeBlockRefusedInTheMiddle) {
  HMEMHEAP heap = open();
  refhost::Fault third = faultOf(Service::GetStorage);
  third.nth = 3;
  host.arm(third);
  void *entry = untouched();
  expectOwnFailure(4055, "MemAllocBlkFail", [&] { return tryTake(heap, 5000, 3, 0, &entry); });
  EXPECT_EQ(entry, untouched());
  EXPECT_EQ(host.account(kSubPool).liveCount, 3U);
  close(heap);
}

TEST_P(HeapChainTest, SuccessRecordsNothing) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  expectEnds(0, [&] { return tryTake(heap, 500, 4, 0, &entry); });
  close(heap);
}

TEST_P(HeapChainTest, EachEntryComesThroughTheKindsSlotUntilOneFails) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open();
  watch.uses.clear();
  const AddressNames names = {{asNumber(heap), "heap"}};
  const auto use = [&](std::int32_t len) {
    return std::to_string(kind.entrySlot) + "(heap, " + std::to_string(len) + ')';
  };
  take(heap, 12, 3, 0);
  EXPECT_EQ(watch.takeLines(names), Lines(3, use(12)));
  const std::int32_t large = hasLongLength(GetParam()) ? 100000 : 30000;
  take(heap, large, 2, 0);
  const std::string block = "8(" + std::to_string(large + 24) + ", 7)";
  EXPECT_EQ(watch.takeLines(names), (Lines{use(large), block, use(large), block}));
  const std::int32_t negative = hasLongLength(GetParam()) ? -70000 : -5;
  for (const std::int16_t result : Shorts{-1, 5, -32768}) {
    (isEnhanced() ? watch.enhancedResult : watch.longResult) = result;
    void *entry = untouched();
    expectEnds(-1, [&] { return tryTake(heap, negative, 3, 0, &entry); });
    EXPECT_EQ(watch.takeLines(names), Lines{use(negative)});
    EXPECT_EQ(entry, untouched());
  }
  close(heap);
}

TEST_P(HeapChainTest, LongestChain) {
  const std::int32_t count = hasLongCount(GetParam()) ? 65537 : 32767;
  HMEMHEAP heap = open(256);
  take(heap, 8, count, 0);
  close(heap);
}

TEST_P(HeapChainTest, LengthsAndCountsBeyond16Bits) {
  HMEMHEAP heap = open(256);
  if (hasLongLength(GetParam())) {
    const auto entries = take(heap, 65536 + 300000, 2, 32767);
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(load<std::uint32_t>(entries[0] - 24, 16), 365536U + 24U);
  }
  if (hasLongCount(GetParam())) {
    for (const std::int32_t count : {-65536, -65535, -kLongest - 1}) {
      expectRefusal(heap, 8, count, 0, 4053,
                    "Num of entries=" + std::to_string(count) + " too small");
    }
    void *entry = untouched();
    expectOwnFailure(4055, "MemAllocBlkFail",
                     [&] { return tryTake(heap, kLongest, kLongest, 0, &entry); });
  }
  close(heap);
}

// Closing.

TEST_P(HeapTest, CloseFreesLargeBlocksNewestFirstThenAreasOldestFirst) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open(1, 0xFFFB);
  std::uint8_t *block1 = alloc(heap, 2000) - 24;
  std::uint8_t *area2 = (alloc(heap, 960), alloc(heap, 900)) - 24;
  std::uint8_t *block2 = alloc(heap, 969) - 24;
  std::uint8_t *area3 = alloc(heap, 800) - 24;
  if (isEnhanced()) {  // which changes nothing of it
    EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, 800, area3 + 24), 0);
    EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, 969, block2 + 24), 0);
  }
  const std::string gate = std::to_string(gateOf(heap));
  watch.uses.clear();
  watch.keepFreed = true;
  watch.soilFreed = true;  // whoever reads what is freed goes astray
  const Lines calls = hostCalls([&] { close(heap); });
  Lines uses = watch.takeLines({{asNumber(heap), "heap"},
                                {asNumber(area2), "area2"},
                                {asNumber(area3), "area3"},
                                {asNumber(block1), "block1"},
                                {asNumber(block2), "block2"}});
  if (!isEnhanced()) {  // the watch notes the test's own call
    EXPECT_EQ(uses.front(), "11(heap)");
    uses.erase(uses.begin());
  }
  EXPECT_EQ(uses, (Lines{"9(block2, 1000, -5)", "9(block1, 2024, -5)", "9(heap, 1024, -5)",
                         "9(area2, 1024, -5)", "9(area3, 1024, -5)"}));
  EXPECT_EQ(calls, framed(kind.closeName, isEnhanced() ? Lines{"AcquireGate(" + gate + ")",
                                                               "ReleaseGate(" + gate + ")",
                                                               "DeleteGate(" + gate + ")"}
                                                       : Lines{}));
  watch.releaseKept();
  EXPECT_EQ(host.account(5, 2).liveCount, 0U);
}

TEST_P(HeapTest, EyecatcherIsClearedBetweenBlocksAndAreas) {
  static HMEMHEAP heap;
  static refhost::Host *pHost;
  static std::size_t heldGates;
  static Lines seen;
  static MEMFunctionVector own;
  heap = open();
  pHost = &host;
  heldGates = isEnhanced() ? 1 : 0;
  seen.clear();
  own = mem;
  alloc(heap, 2000);
  alloc(heap, 968);
  alloc(heap, 968);
  mem.MEM_Free = [](void *area, std::uint32_t size, std::int16_t subPool) {
    EXPECT_EQ(pHost->heldGateCount(), heldGates);
    if (size != kSmallArea) {
      seen.push_back("block: " + eyecatcher(heap));
    } else if (area == heap) {
      seen.push_back("header: " + eyecatcher(heap));
    }
    own.MEM_Free(area, size, subPool);
  };
  close(heap);
  EXPECT_EQ(seen, (Lines{std::string("block: ") + kind.eye, "header: " + std::string(8, '\0')}));
}

TEST_P(HeapTest, FreeThatDoesNothingIsNotExamined) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open();
  alloc(heap, 2000);
  watch.keepFreed = true;
  expectEnds(0, [&] { return tryClose(heap); });
}

// Slots.

TEST_P(HeapTest, StorageComesThroughSlots8And9) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open(2, 0xFFFB);
  alloc(heap, static_cast<std::int32_t>(2048 - kind.headerLen));
  alloc(heap, 16);
  alloc(heap, 3000);
  // The watch notes the test's own calls too, but for those of enhanced heaps at open and close.
  const std::string slot = std::to_string(kind.entrySlot) + "(?, ";
  const std::string first = slot + std::to_string(2048 - kind.headerLen) + ")";
  const Lines expected = {"8(2048, -5)", first,          slot + "16)",
                          "8(2048, -5)", slot + "3000)", "8(3024, -5)"};
  EXPECT_EQ(watch.takeLines(), joined({isEnhanced() ? Lines{} : Lines{"10(2, 65531)"}, expected}));
  close(heap);
  EXPECT_EQ(watch.takeUsesOf(9).size(), 3U);
}

TEST_P(HeapTest, RefusalBySlot8IsARefusedStorage) {
  VectorWatch watch(mem);
  auto *heap = static_cast<HMEMHEAP>(untouched());
  watch.refuseStorage = 1;
  expectOwnFailure(4055, "MemAllocFail", [&] { return tryOpen(&heap); });
  EXPECT_EQ(heap, untouched());
  heap = open();
  void *entry = untouched();
  watch.refuseStorage = 1;
  expectOwnFailure(4055, "MemAllocBlkFail",
                   [&] { return mem.MEM_HeapAllocEntry(heap, 2000, &entry); });
  alloc(heap, 968);
  watch.refuseStorage = 1;
  expectOwnFailure(4055, kind.noArea, [&] { return mem.MEM_HeapAllocEntry(heap, 968, &entry); });
  EXPECT_EQ(entry, untouched());
  close(heap);
}

// Trace records.

TEST_P(HeapTest, TraceOfOpenAndClose) {
  HMEMHEAP heap = nullptr;
  EXPECT_EQ(
      heapTraced(kBoth, [&] { tryOpen(&heap, 3, 0xFFFB); }),
      (Lines{entryLine(kind.openName, "phMemHeap=" + lowHex(&heap) + ", AreaLen=3, SubPool=-5"),
             exitLine(kind.openName)}));
  EXPECT_EQ(
      heapTraced(kBoth, [&] { close(heap); }),
      (Lines{entryLine(kind.closeName, "hMemHeap=" + lowHex(heap)), exitLine(kind.closeName)}));
}

TEST_P(HeapTest, OpenCallsStorageBetweenItsRecords) {
  HMEMHEAP heap = nullptr;
  const Lines lines = traced(kBoth | MEM_TRACE_STORAGE, [&] { heap = open(); });
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[0].find(std::string("STDE ") + kind.openName), 0U);
  EXPECT_EQ(lines[1].substr(0, 13), "STDE MemAlloc");
  EXPECT_EQ(lines[2].substr(0, 13), "STDX MemAlloc");
  EXPECT_EQ(lines[3], storageLine(kind.openName, std::string("Allocating ") + kind.name +
                                                     " Heap header block" + atLine(heap, 1024)));
  EXPECT_EQ(lines[4], exitLine(kind.openName));
  close(heap);
}

TEST_P(HeapTest, FailedStorageHasNoStorageLine) {
  HMEMHEAP heap = open();
  alloc(heap, 960);
  void *entry = nullptr;
  const Lines regular = isEnhanced() ? Lines{} : Lines{storageLine(kind.entryName, "Regular heap")};
  for (const std::int32_t len : {968, 969}) {
    host.arm(faultOf(Service::GetStorage));
    EXPECT_EQ(storageTraced([&] { tryAlloc(heap, len, &entry); }), regular);
  }
  HMEMHEAP other = nullptr;
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(storageTraced([&] { tryOpen(&other); }), (Lines{}));
  close(heap);
}

TEST_P(HeapTest, StorageLinesNeedBit4) {
  const Lines lines = traced(0xFFFFFFFFU & ~MEM_TRACE_STORAGE, [&] {
    HMEMHEAP heap = open();
    alloc(heap, 968);
    alloc(heap, 968);
    alloc(heap, 969);
    void *entry = nullptr;
    mem.MEM_HeapAllocMultEntries(heap, 8, 2, 0, &entry);
    close(heap);
  });
  EXPECT_FALSE(lines.empty());
  for (const std::string &line : lines) EXPECT_NE(line.substr(0, 4), "SL05") << line;
}

TEST_P(HeapTest, ExitRecordsOfFixedTextAreNotFormatted) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  host.setTraceFlags(MEM_TRACE_EXIT | MEM_TRACE_STORAGE);
  host.resetCalls();
  mem.MEM_HeapAllocMultEntries(heap, 8, 3, 0, &entry);
  EXPECT_EQ(host.calls(Service::Format), 0U);
  // A standard heap has 4 exits and 4 times "Regular heap"; an enhanced one has the exit of its own
  // chain, too, and records its kind once.
  EXPECT_EQ(host.calls(Service::WriteRecord), isEnhanced() ? 6U : 8U);
  host.setTraceFlags(0);
  close(heap);
}

TEST_P(HeapTest, TracePointsHaveTheirOwnLineNumbers) {
  TracePoints points("..\\SrcRes\\MEMCHEAP");
  const auto lifeOf = [&](const HeapKind &other) {
    HMEMHEAP heap = nullptr;
    void *entry = nullptr;
    (mem.*other.open)(&heap, 1, kSubPool);
    for (const std::int32_t len : {968, 968, 969}) (mem.*other.entry)(heap, len, &entry);
    if (other.entrySlot == kEnhanced.entrySlot) {
      mem.MEM_EHeapFreeEntry(heap, 969, entry);
      chainOwnShort(mem, heap, 8, 1, 0, &entry);
      chainOwnLong(mem, heap, 8, 1, 0, &entry);
    } else {
      mem.MEM_HeapAllocEntry(heap, 8, &entry);
      chainShort(mem, heap, 8, 1, 0, &entry);
      chainLong(mem, heap, 8, 1, 0, &entry);
    }
    (mem.*other.close)(heap);
  };
  for (int time = 0; time < 2; ++time) {
    points.add("", recordsOf(0xFFFFFFFFU, [&] { lifeOf(kind); }));
  }
  // Six operations with entry and exit. Storage lines: 1 of open, 2 of close; of entries 3 of a
  // standard heap and 2 of an enhanced one; 1 of each chain of a standard heap.
  EXPECT_EQ(points.count(), isEnhanced() ? 17U : 20U);
  points.add("", recordsOf(0xFFFFFFFFU, [&] { lifeOf(isEnhanced() ? kStandard : kEnhanced); }));
  EXPECT_EQ(points.count(), 17U + 20U);
}

// Hosts without a thread environment or trace buffer.

TEST_P(HeapTest, MissingThreadEnvironmentIsTolerated) {
  host.setTraceFlags(0xFFFFFFFFU);
  host.withoutThreadEnv(true);
  const Bytes before = envBytes(env());
  HMEMHEAP heap = open();
  for (const std::int32_t len : {968, 968, 969}) alloc(heap, len);
  void *entry = untouched();
  EXPECT_EQ(tryAlloc(nullptr, 8, &entry), kFailed);
  for (const ChainSlot &slot : slotsOf(isEnhanced() ? kEnhanced : kStandard, kChainSlots)) {
    EXPECT_EQ(slot.alloc(mem, heap, 8, 0, 0, &entry), kFailed);
    EXPECT_EQ(slot.alloc(mem, heap, 8, 1, -1, &entry), kFailed);
    EXPECT_EQ(slot.alloc(mem, nullptr, 8, 1, 0, &entry), kFailed);
    EXPECT_EQ(entry, untouched());
    void *chain = nullptr;
    EXPECT_EQ(slot.alloc(mem, heap, 8, 2, 0, &chain), 0);
  }
  HMEMHEAP other = nullptr;
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(tryOpen(&other), kFailed);
  EXPECT_EQ(tryClose(nullptr), kFailed);
  close(heap);
  EXPECT_EQ(changedRanges(before, envBytes(env())), "");
  host.withoutThreadEnv(false);
  host.setTraceFlags(0);
}

TEST_P(HeapTest, MissingTraceBufferIsTolerated) {
  MEMTraceBuf *const buffer = env().pTraceBuf;
  env().pTraceBuf = nullptr;
  host.setTraceFlags(0xFFFFFFFFU);
  HMEMHEAP heap = open();
  for (const std::int32_t len : {968, 968, 969}) alloc(heap, len);
  void *entry = nullptr;
  EXPECT_EQ(chainShort(mem, heap, 8, 2, 0, &entry), 0);
  close(heap);
  host.setTraceFlags(0);
  env().pTraceBuf = buffer;
}

}  // namespace
}  // namespace memtest
