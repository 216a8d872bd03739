// The standard heap: layouts, addresses, limits, failures, trace records and the slots it uses.

#include "heapfixture.hpp"

namespace memtest {
namespace {

using refhost::Service;

class HeapTest : public HeapFixture {
 protected:
  HMEMHEAP open(std::int16_t areaLen = 1, std::uint16_t subPool = kSubPool) {
    HMEMHEAP heap = nullptr;
    EXPECT_EQ(mem.MEM_HeapOpen(&heap, areaLen, subPool), 0);
    return heap;
  }

  void close(HMEMHEAP heap) { EXPECT_EQ(mem.MEM_HeapClose(heap), 0); }

  std::uint8_t *alloc(HMEMHEAP heap, std::int32_t len) {
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(heap, len, &entry), 0);
    return static_cast<std::uint8_t *>(entry);
  }
};

// Opening.

class HeapOpenTest : public HeapTest, public ::testing::WithParamInterface<OpenCase> {};

INSTANTIATE_TEST_SUITE_P(Arguments, HeapOpenTest, ::testing::ValuesIn(kOpenCases));

TEST_P(HeapOpenTest, HeaderIsWrittenWholeAndTheRestIsLeftAsObtained) {
  const std::uint32_t areaSize = static_cast<std::uint32_t>(GetParam().areaLen) * 1024;
  HMEMHEAP heap = open(GetParam().areaLen, GetParam().subPool);
  const Layout expected = Layout()
                              .text("QQQHEAP1")
                              .address(nullptr)
                              .field(std::uint32_t{56})
                              .field(static_cast<std::int32_t>(areaSize - 56))
                              .address(heap)
                              .address(nullptr)
                              .field(areaSize)
                              .field(GetParam().subPool);
  EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(heap, 46)), "");
  EXPECT_TRUE(allBytesAre(at(heap, 56), areaSize - 56, kDirty));
  close(heap);
}

TEST_P(HeapOpenTest, AsksForOneAreaAndReturnsItAtClose) {
  const std::string areaSize = std::to_string(GetParam().areaLen * 1024);
  HMEMHEAP heap = nullptr;
  EXPECT_EQ(hostCalls([&] { heap = open(GetParam().areaLen, GetParam().subPool); }),
            (Lines{"MEM_HeapOpen: EnterFrame(frame, 3)", "MemAlloc: EnterFrame(frame, 3)",
                   "MemAlloc: GetAnchor(0, 3, cell)",
                   "MemAlloc: GetStorage(cell, " + areaSize + ", " +
                       std::to_string(GetParam().hostSubPool) + ", " +
                       std::to_string(GetParam().hostKind) + ")",
                   "MemAlloc: LeaveFrame(frame, 3)", "MEM_HeapOpen: LeaveFrame(frame, 3)"}));
  EXPECT_EQ(hostCalls([&] { close(heap); }, {{asNumber(heap), "heap"}}),
            (Lines{"MEM_HeapClose: EnterFrame(frame, 3)", "MEM_Free: EnterFrame(frame, 3)",
                   "MEM_Free: GetAnchor(0, 3, cell)",
                   "MEM_Free: FreeStorage(heap, " + areaSize + ", " +
                       std::to_string(GetParam().hostSubPool) + ")",
                   "MEM_Free: LeaveFrame(frame, 3)", "MEM_HeapClose: LeaveFrame(frame, 3)"}));
}

TEST_F(HeapTest, OpenRefusesAreaLengthsOutside1To256) {
  for (const std::int16_t areaLen : Shorts{0, -1, 257, -32768, 32767, -255, 512}) {
    SCOPED_TRACE(areaLen);
    auto *heap = static_cast<HMEMHEAP>(untouched());
    expectFails(4050, "Invalid Area Length=" + std::to_string(areaLen), NameBy::kMessage,
                [&] { return mem.MEM_HeapOpen(&heap, areaLen, kSubPool); });
    EXPECT_EQ(heap, untouched());
    EXPECT_EQ(host.calls(Service::GetStorage), 0U);
  }
}

TEST_F(HeapTest, OpenWithoutStorageFails) {
  for (const std::uint32_t hostError : {0U, 777U}) {
    auto *heap = static_cast<HMEMHEAP>(untouched());
    host.arm(faultOf(Service::GetStorage, hostError));
    expectFails(4055, "MemAllocFail", NameBy::kMessage,
                [&] { return mem.MEM_HeapOpen(&heap, 1, kSubPool); });
    EXPECT_EQ(heap, untouched());
  }
}

TEST_F(HeapTest, OpenAndCloseRecordNothing) {
  HMEMHEAP heap = nullptr;
  expectEnds(0, [&] { return mem.MEM_HeapOpen(&heap, 1, kSubPool); });
  expectEnds(0, [&] { return mem.MEM_HeapClose(heap); });
}

TEST_F(HeapTest, HeapsAreIndependent) {
  HMEMHEAP first = open(1, 3);
  HMEMHEAP second = open(2, 4);
  EXPECT_EQ(alloc(first, 8), at(first, 56));
  EXPECT_EQ(alloc(second, 8), at(second, 56));
  EXPECT_EQ(alloc(first, 8), at(first, 64));
  close(first);
  EXPECT_EQ(alloc(second, 8), at(second, 64));
  EXPECT_EQ(host.account(3).liveCount, 0U);
  EXPECT_EQ(host.account(4).liveBytes, 2048U);
  close(second);
}

// Single entries. Both entry points give the same for the same length.

class HeapEntryTest : public HeapTest, public ::testing::WithParamInterface<AllocVariant> {
 protected:
  std::uint8_t *take(HMEMHEAP heap, std::int32_t len) {
    void *entry = nullptr;
    EXPECT_EQ(GetParam().alloc(mem, heap, len, &entry), 0) << "length " << len;
    return static_cast<std::uint8_t *>(entry);
  }
};

INSTANTIATE_TEST_SUITE_P(Lengths, HeapEntryTest,
                         ::testing::Values(AllocVariant{"Short", allocShort},
                                           AllocVariant{"Long", allocLong}),
                         caseName<AllocVariant>);

TEST_P(HeapEntryTest, EntriesFollowEachOtherRoundedUpTo8) {
  HMEMHEAP heap = open();
  const struct {
    std::int32_t len;
    std::uint32_t offset;
  } cases[] = {{1, 56},   {1, 64},   {7, 72},    {8, 80},  {9, 88},  {15, 104},
               {16, 120}, {17, 136}, {100, 160}, {2, 264}, {3, 272}, {1, 280}};
  for (const auto &row : cases) {
    EXPECT_EQ(take(heap, row.len), at(heap, row.offset)) << "length " << row.len;
  }
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 288U);
  EXPECT_EQ(load<std::int32_t>(heap, 20), 1024 - 288);
  close(heap);
}

TEST_P(HeapEntryTest, AreaEntriesReachNoHostStorageService) {
  HMEMHEAP heap = open();
  const Lines lines = hostCalls([&] { take(heap, 100); });
  for (const std::string &line : lines) {
    EXPECT_TRUE(line.find("Frame(") != std::string::npos) << line;
  }
  EXPECT_EQ(lines.size(), GetParam().alloc == allocShort ? 4U : 2U);
  close(heap);
}

TEST_P(HeapEntryTest, LongestAreaEntryFillsTheFirstArea) {
  HMEMHEAP heap = open();
  EXPECT_EQ(take(heap, kSmallMost), at(heap, 56));
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
  const Bytes before = bytesOf(heap, kSmallArea);
  host.recordCalls(true);
  std::uint8_t *entry = take(heap, kSmallMost + 1);
  std::uint8_t *block = obtained();
  EXPECT_EQ(entry, block + 24);
  EXPECT_EQ(host.account(kSubPool).liveBytes, kSmallArea + 1000);
  const Layout expected = Layout().text("QQQHBLKN").address(nullptr).field(std::uint32_t{1000});
  EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(block, 20)), "");
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 32), block);
  store<void *>(heap, 32, nullptr);
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "") << "only the chain head changes";
  store<void *>(heap, 32, block);
  close(heap);
}

TEST_P(HeapEntryTest, LargestShortLengthIsServed) {
  HMEMHEAP small = open(1);
  HMEMHEAP medium = open(33);  // area entries up to 33 * 1024 - 56
  host.recordCalls(true);
  EXPECT_EQ(take(medium, 32767), at(medium, 56));
  EXPECT_EQ(load<std::uint32_t>(medium, 16), 56U + 32768U);
  EXPECT_EQ(obtained(), nullptr);
  std::uint8_t *entry = take(small, 32767);
  std::uint8_t *block = obtained();
  EXPECT_EQ(entry, block + 24);
  EXPECT_EQ(load<std::uint32_t>(block, 16), 24U + 32768U);
  std::memset(entry, 0x11, 32767);
  close(small);
  close(medium);
}

TEST_P(HeapEntryTest, LengthsBelow1AreRefused) {
  HMEMHEAP heap = open();
  const Bytes before = bytesOf(heap, kSmallArea);
  for (const std::int32_t len : {0, -1, -7, -8, -32768}) {
    void *entry = untouched();
    expectFails(4051, "Entry Length=" + std::to_string(len) + " too small", NameBy::kMessage,
                [&] { return GetParam().alloc(mem, heap, len, &entry); });
    EXPECT_EQ(entry, untouched());
  }
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  close(heap);
}

TEST_P(HeapEntryTest, RefusedAreaLeavesTheCurrentAreaCurrent) {
  HMEMHEAP heap = open();
  take(heap, 500);
  const Bytes before = bytesOf(heap, kSmallArea);
  void *entry = untouched();
  host.arm(faultOf(Service::GetStorage, 777));
  expectFails(4055, "MemAllocAreaFail", NameBy::kMessage,
              [&] { return GetParam().alloc(mem, heap, 600, &entry); });
  EXPECT_EQ(entry, untouched());
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  EXPECT_EQ(take(heap, 400), at(heap, 56 + 504));
  close(heap);
}

TEST_P(HeapEntryTest, RefusedLargeBlockChangesNothing) {
  HMEMHEAP heap = open();
  take(heap, 2000);
  const Bytes before = bytesOf(heap, kSmallArea);
  void *entry = untouched();
  host.arm(faultOf(Service::GetStorage, 777));
  expectFails(4055, "MemAllocBlkFail", NameBy::kMessage,
              [&] { return GetParam().alloc(mem, heap, 969, &entry); });
  EXPECT_EQ(entry, untouched());
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
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
  for (const std::int32_t len : {8, 968, 969}) {
    void *entry = nullptr;
    expectEnds(0, [&] { return GetParam().alloc(mem, heap, len, &entry); });
  }
  close(heap);
}

// Areas.

TEST_F(HeapTest, FurtherAreaIsLinkedBehindTheOldOneAndBecomesCurrent) {
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
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 24), second);
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 56U + 800U) << "the abandoned area stays as it was";
  EXPECT_EQ(load<std::int32_t>(heap, 20), 168);

  alloc(heap, 900);
  std::uint8_t *third = obtained();
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 8), second);
  EXPECT_EQ(pointerAt<std::uint8_t>(second, 8), third);
  EXPECT_EQ(pointerAt<std::uint8_t>(third, 8), nullptr);
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 24), third);
  EXPECT_EQ(load<std::int32_t>(second, 20), 800);
  close(heap);
}

TEST_F(HeapTest, HeapNeverReturnsToAnEarlierArea) {
  HMEMHEAP heap = open();
  alloc(heap, 8);
  host.recordCalls(true);
  alloc(heap, 968);  // leaves 960 bytes of the first area
  std::uint8_t *second = obtained();
  EXPECT_EQ(alloc(heap, 32), second + 24 + 968) << "a further area has 32 bytes behind 968";
  EXPECT_EQ(load<std::int32_t>(second, 20), 0);
  std::uint8_t *entry = alloc(heap, 1);  // would fit in the first area
  std::uint8_t *third = obtained();
  EXPECT_EQ(entry, third + 24);
  close(heap);
}

TEST_F(HeapTest, EntryThatExactlyFitsStaysInItsArea) {
  HMEMHEAP heap = open();
  alloc(heap, 800);
  EXPECT_EQ(alloc(heap, 161), at(heap, 856)) << "168 bytes are free";
  EXPECT_EQ(load<std::int32_t>(heap, 20), 0);
  EXPECT_EQ(host.account(kSubPool).liveCount, 1U);
  close(heap);
}

TEST_F(HeapTest, ThresholdOfTheFirstAreaHoldsInFurtherAreas) {
  HMEMHEAP heap = open();
  alloc(heap, 968);
  host.recordCalls(true);
  alloc(heap, 8);
  std::uint8_t *second = obtained();
  EXPECT_EQ(load<std::int32_t>(second, 20), 992);
  std::uint8_t *entry = alloc(heap, 976);  // fits in the area, but is above the threshold
  std::uint8_t *block = obtained();
  EXPECT_EQ(entry, block + 24);
  EXPECT_EQ(eyecatcher(block), "QQQHBLKN");
  EXPECT_EQ(load<std::int32_t>(second, 20), 992) << "large blocks leave the current area alone";
  EXPECT_EQ(alloc(heap, 968), second + 32);
  close(heap);
}

TEST_F(HeapTest, ThresholdGrowsWithTheArea) {
  for (const std::int16_t areaLen : Shorts{1, 2, 7, 64, 256}) {
    SCOPED_TRACE(areaLen);
    const std::int32_t most = areaLen * 1024 - 56;
    HMEMHEAP heap = open(areaLen);
    EXPECT_EQ(alloc(heap, most), at(heap, 56));
    EXPECT_EQ(host.account(kSubPool).liveCount, 1U);
    alloc(heap, most + 1);
    EXPECT_EQ(eyecatcher(pointerAt<void>(heap, 32)), "QQQHBLKN");
    EXPECT_EQ(host.account(kSubPool).liveBytes, static_cast<std::uint64_t>(areaLen) * 1024 + 24 +
                                                    static_cast<std::uint64_t>(most) + 8);
    close(heap);
  }
}

// Large blocks.

TEST_F(HeapTest, LargeBlocksAreChainedNewestFirst) {
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
    EXPECT_EQ(pointerAt<std::uint8_t>(heap, 32), block);
    previous = block;
  }
  EXPECT_EQ(alloc(heap, 8), at(heap, 56));
  close(heap);
}

TEST_F(HeapTest, LengthsUpToTheLimitDoNotWrap) {
  HugeStorage::standIn(mem);
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
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(heap, row.len, &entry), 0);
    EXPECT_EQ(HugeStorage::askedSize, row.blockSize);
    EXPECT_EQ(entry, HugeStorage::bytes + 24);
    EXPECT_EQ(load<std::uint32_t>(HugeStorage::bytes, 16), row.blockSize);
    EXPECT_EQ(alloc(heap, 8), at(heap, 56)) << "the area is as before";
    close(heap);
    EXPECT_EQ(HugeStorage::freedSize, row.blockSize);
  }
}

TEST_F(HeapTest, LengthThatTheHostCannotServeIsRefused) {
  HMEMHEAP heap = open();
  for (const std::int32_t len : {kLongest, kLongest - 7, kLongest - 23}) {
    void *entry = untouched();
    expectFails(4055, "MemAllocBlkFail", NameBy::kMessage,
                [&] { return mem.MEM_HeapAllocEntryLong(heap, len, &entry); });
    EXPECT_EQ(entry, untouched());
  }
  EXPECT_EQ(alloc(heap, 8), at(heap, 56));
  close(heap);
}

TEST_F(HeapTest, LongLengthsBelow1AreRefused) {
  HMEMHEAP heap = open();
  for (const std::int32_t len : {-65535, -65536, -kLongest, -kLongest - 1}) {
    void *entry = untouched();
    expectFails(4051, "Entry Length=" + std::to_string(len) + " too small", NameBy::kMessage,
                [&] { return mem.MEM_HeapAllocEntryLong(heap, len, &entry); });
    EXPECT_EQ(entry, untouched());
  }
  close(heap);
}

// Handles.

struct HandleCase {
  const char *name;
  NameBy nullBy;   // how a null handle is named
  NameBy wrongBy;  // how another block is named
  std::int16_t (*call)(MEMFunctionVector &, HMEMHEAP, void **);
};

void PrintTo(const HandleCase &row, std::ostream *out) {
  *out << row.name;
}

const HandleCase kHandleCases[] = {
    {"HeapClose", NameBy::kItself, NameBy::kItself,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **) { return mem.MEM_HeapClose(heap); }},
    // What is no enhanced heap goes on to the long entry, whose failure it is then.
    {"HeapAllocEntry", NameBy::kItself, NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_HeapAllocEntry(heap, 8, ppEntry);
     }},
    {"HeapAllocEntryLong", NameBy::kStanding, NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_HeapAllocEntryLong(heap, 8, ppEntry);
     }},
    {"HeapAllocMultEntries", NameBy::kStanding, NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_HeapAllocMultEntries(heap, 8, 2, 0, ppEntry);
     }},
    {"HeapAllocLongMultEntries", NameBy::kStanding, NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_HeapAllocLongMultEntries(heap, 8, 2, 0, ppEntry);
     }},
};

class HeapHandleTest : public HeapTest, public ::testing::WithParamInterface<HandleCase> {
 protected:
  void expectRefused(const void *handle, NameBy nameBy) {
    void *entry = untouched();
    const std::string name = nameBy == NameBy::kStanding ? kStandingText : invalidHandle(handle);
    auto *heap = const_cast<HMEMHEAP>(static_cast<const MEMHeapObject *>(handle));
    expectFails(4056, name, nameBy, [&] { return GetParam().call(mem, heap, &entry); });
    EXPECT_EQ(entry, untouched());
  }

  // A block that begins with these eight characters and is long enough for any header.
  const void *block(const char *start) {
    std::memset(block_, 0x11, sizeof block_);
    std::memcpy(block_, start, 8);
    return block_;
  }

 private:
  alignas(8) char block_[128];
};

INSTANTIATE_TEST_SUITE_P(Operations, HeapHandleTest, ::testing::ValuesIn(kHandleCases),
                         caseName<HandleCase>);

TEST_P(HeapHandleTest, NullIsRefused) {
  expectRefused(nullptr, GetParam().nullBy);
}

TEST_P(HeapHandleTest, OtherBlocksAreRefused) {
  for (const char *start : {"QQQHEAP2", "QQQHEAPN", "QQQHBLKN", "QQQQHASH", "QQQCELL1", "qqqheap1",
                            " QQHEAP1", "ENHHEAP2", "\0QQHEAP1", "QQQHEAP "}) {
    SCOPED_TRACE(start);
    expectRefused(block(start), GetParam().wrongBy);
  }
  const std::uint64_t zeros[16] = {};
  expectRefused(zeros, GetParam().wrongBy);
}

TEST_P(HeapHandleTest, FurtherAreaIsNoHandle) {
  HMEMHEAP heap = open();
  alloc(heap, 968);
  std::uint8_t *entry = alloc(heap, 8);
  const Bytes before = bytesOf(entry - 24, kSmallArea);
  expectRefused(entry - 24, GetParam().wrongBy);
  EXPECT_EQ(changedRanges(before, bytesOf(entry - 24, kSmallArea)), "");
  close(heap);
}

TEST_P(HeapHandleTest, ClosedHeapIsRefusedWhileItsStorageIsNotReused) {
  VectorWatch watch(mem);
  watch.keepFreed = true;
  HMEMHEAP heap = open();
  close(heap);
  expectRefused(heap, GetParam().wrongBy);
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
    const bool standing = GetParam().nullBy == NameBy::kStanding;
    expectError(4056, standing ? text.substr(0, 63) : invalidHandle(nullptr));
    EXPECT_EQ(messageText(), text);
  }
}

// Chains.

class HeapChainTest : public HeapTest, public ::testing::WithParamInterface<ChainVariant> {
 protected:
  bool isShort() const { return GetParam().alloc == chainShort; }

  std::vector<std::uint8_t *> take(HMEMHEAP heap, std::int32_t len, std::int32_t count,
                                   std::int16_t linkOff) {
    void *first = nullptr;
    EXPECT_EQ(GetParam().alloc(mem, heap, len, count, linkOff, &first), 0);
    const auto entries = entriesOf(first, static_cast<std::size_t>(count), linkOff);
    EXPECT_EQ(entries.size(), static_cast<std::size_t>(count));
    return entries;
  }
};

INSTANTIATE_TEST_SUITE_P(Lengths, HeapChainTest,
                         ::testing::Values(ChainVariant{"Short", chainShort},
                                           ChainVariant{"Long", chainLong}),
                         caseName<ChainVariant>);

TEST_P(HeapChainTest, OneEntryHasANullLink) {
  HMEMHEAP heap = open();
  const auto entries = take(heap, 24, 1, 8);
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0], at(heap, 56));
  EXPECT_TRUE(allBytesAre(entries[0], 8, kDirty));
  EXPECT_TRUE(allBytesAre(entries[0] + 8, 8, 0));
  EXPECT_TRUE(allBytesAre(entries[0] + 16, 8, kDirty));
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 56U + 24U);
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
      EXPECT_EQ(entries[i], at(heap, 56 + 24 * i));
      EXPECT_TRUE(allBytesAre(entries[i], link, kDirty));
      EXPECT_TRUE(allBytesAre(entries[i] + link + 8, 24 - link - 8, kDirty));
    }
    EXPECT_TRUE(allBytesAre(at(heap, 56 + 5 * 24), 1024 - 56 - 5 * 24, kDirty));
    close(heap);
  }
}

TEST_P(HeapChainTest, LinkMayLieBeyondTheEntry) {
  HMEMHEAP heap = open();
  void *first = nullptr;
  ASSERT_EQ(GetParam().alloc(mem, heap, 8, 3, 20, &first), 0);
  EXPECT_EQ(first, at(heap, 56));
  // Entries at 56, 64 and 72 with links at 76, 84 and 92.
  EXPECT_TRUE(allBytesAre(at(heap, 56), 20, kDirty));
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 76), at(heap, 64));
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 84), at(heap, 72));
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 92), nullptr);
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 80U);
  close(heap);
}

TEST_P(HeapChainTest, ChainRunsThroughAreas) {
  HMEMHEAP heap = open();
  alloc(heap, 900);  // 68 bytes are left
  host.recordCalls(true);
  const auto entries = take(heap, 300, 5, 0);
  std::vector<std::uint8_t *> areas;
  for (const refhost::HostCall &call : host.takeCalls()) {
    if (call.service != Service::GetStorage) continue;
    areas.push_back(reinterpret_cast<std::uint8_t *>(call.result));
  }
  ASSERT_EQ(areas.size(), 2U);  // 1000 bytes hold three entries of 304
  ASSERT_EQ(entries.size(), 5U);
  EXPECT_EQ(entries[0], areas[0] + 24);
  EXPECT_EQ(entries[2], areas[0] + 24 + 608);
  EXPECT_EQ(entries[3], areas[1] + 24);
  EXPECT_EQ(entries[4], areas[1] + 24 + 304);
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
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 32), entries[2] - 24);
  EXPECT_EQ(host.account(kSubPool).liveCount, 4U);
  close(heap);
}

TEST_P(HeapChainTest, CountBelow1IsRefused) {
  HMEMHEAP heap = open();
  const Bytes before = bytesOf(heap, kSmallArea);
  for (const std::int32_t count : {0, -1, -32768}) {
    void *entry = untouched();
    expectFails(4053, "Num of entries=" + std::to_string(count) + " too small", NameBy::kMessage,
                [&] { return GetParam().alloc(mem, heap, 8, count, 0, &entry); });
    EXPECT_EQ(entry, untouched());
  }
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  close(heap);
}

TEST_P(HeapChainTest, NegativeLinkOffsetIsRefused) {
  HMEMHEAP heap = open();
  const Bytes before = bytesOf(heap, kSmallArea);
  for (const std::int16_t linkOff : Shorts{-1, -8, -32768}) {
    void *entry = untouched();
    expectFails(4054, "Link offset=" + std::to_string(linkOff) + " less than zero",
                NameBy::kMessage,
                [&] { return GetParam().alloc(mem, heap, 8, 1, linkOff, &entry); });
    EXPECT_EQ(entry, untouched());
  }
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  close(heap);
}

TEST_P(HeapChainTest, ChecksHandleThenCountThenLinkOffsetThenLength) {
  HMEMHEAP heap = open();
  void *entry = untouched();
  expectFails(4056, kStandingText, NameBy::kStanding,
              [&] { return GetParam().alloc(mem, nullptr, 0, 0, -1, &entry); });
  expectFails(4053, "Num of entries=0 too small", NameBy::kMessage,
              [&] { return GetParam().alloc(mem, heap, 0, 0, -1, &entry); });
  expectFails(4054, "Link offset=-1 less than zero", NameBy::kMessage,
              [&] { return GetParam().alloc(mem, heap, 0, 1, -1, &entry); });
  expectFails(4051, "Entry Length=0 too small", NameBy::kMessage,
              [&] { return GetParam().alloc(mem, heap, 0, 1, 0, &entry); });
  expectFails(4051, "Entry Length=-1 too small", NameBy::kMessage,
              [&] { return GetParam().alloc(mem, heap, -1, 1, 0, &entry); });
  EXPECT_EQ(entry, untouched());
  close(heap);
}

TEST_P(HeapChainTest, FailureInTheMiddleKeepsWhatWasCarved) {
  HMEMHEAP heap = open();
  refhost::Fault second = faultOf(Service::GetStorage, 777);
  second.nth = 2;
  host.arm(second);
  void *entry = untouched();
  expectFails(4055, "MemAllocAreaFail", NameBy::kMessage,
              [&] { return GetParam().alloc(mem, heap, 400, 9, 8, &entry); });
  EXPECT_EQ(entry, untouched());
  // Two entries in the first area and two in the second are linked; the last has no end mark.
  auto *area = pointerAt<std::uint8_t>(heap, 24);
  ASSERT_NE(static_cast<void *>(area), heap);
  EXPECT_EQ(pointerAt<std::uint8_t>(at(heap, 56), 8), at(heap, 456));
  EXPECT_EQ(pointerAt<std::uint8_t>(at(heap, 456), 8), area + 24);
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
  expectFails(4055, "MemAllocBlkFail", NameBy::kMessage,
              [&] { return GetParam().alloc(mem, heap, 5000, 3, 0, &entry); });
  EXPECT_EQ(entry, untouched());
  EXPECT_EQ(host.account(kSubPool).liveCount, 3U);
  close(heap);
}

TEST_P(HeapChainTest, SuccessRecordsNothing) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  expectEnds(0, [&] { return GetParam().alloc(mem, heap, 500, 4, 0, &entry); });
  close(heap);
}

TEST_F(HeapTest, LongestShortChain) {
  HMEMHEAP heap = open(256);
  void *entry = nullptr;
  ASSERT_EQ(mem.MEM_HeapAllocMultEntries(heap, 8, 32767, 0, &entry), 0);
  std::int32_t count = 0;
  for (; entry != nullptr; entry = pointerAt<void>(entry, 0)) ++count;
  EXPECT_EQ(count, 32767);
  close(heap);
}

TEST_F(HeapTest, LongChainTakesCountsAndLengthsBeyond16Bits) {
  HMEMHEAP heap = open(256);
  void *entry = nullptr;
  ASSERT_EQ(mem.MEM_HeapAllocLongMultEntries(heap, 8, 65537, 0, &entry), 0);
  std::int32_t count = 0;
  for (; entry != nullptr; entry = pointerAt<void>(entry, 0)) ++count;
  EXPECT_EQ(count, 65537);

  ASSERT_EQ(mem.MEM_HeapAllocLongMultEntries(heap, 65536 + 300000, 2, 32767, &entry), 0);
  EXPECT_EQ(load<std::uint32_t>(at(entry, 0) - 24, 16), 365536U + 24U);
  close(heap);
}

TEST_F(HeapTest, LongChainShowsCountsBeyond16Bits) {
  HMEMHEAP heap = open();
  void *entry = untouched();
  for (const std::int32_t count : {-65536, -65535, -kLongest - 1}) {
    expectFails(4053, "Num of entries=" + std::to_string(count) + " too small", NameBy::kMessage,
                [&] { return mem.MEM_HeapAllocLongMultEntries(heap, 8, count, 0, &entry); });
  }
  expectFails(4055, "MemAllocBlkFail", NameBy::kMessage, [&] {
    return mem.MEM_HeapAllocLongMultEntries(heap, kLongest, kLongest, 0, &entry);
  });
  close(heap);
}

// Closing.

class HeapCloseTest : public HeapTest {};

TEST_F(HeapCloseTest, FreesLargeBlocksNewestFirstThenAreasOldestFirst) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open(1, 0xFFFB);
  std::uint8_t *block1 = alloc(heap, 2000) - 24;
  std::uint8_t *area2 = (alloc(heap, 968), alloc(heap, 900)) - 24;
  std::uint8_t *block2 = alloc(heap, 969) - 24;
  std::uint8_t *area3 = alloc(heap, 800) - 24;
  watch.uses.clear();
  watch.keepFreed = true;
  watch.soilFreed = true;  // whoever reads what is freed goes astray
  close(heap);
  EXPECT_EQ(watch.takeLines({{asNumber(heap), "heap"},
                             {asNumber(area2), "area2"},
                             {asNumber(area3), "area3"},
                             {asNumber(block1), "block1"},
                             {asNumber(block2), "block2"}}),
            (Lines{"11(heap)", "9(block2, 1000, -5)", "9(block1, 2024, -5)", "9(heap, 1024, -5)",
                   "9(area2, 1024, -5)", "9(area3, 1024, -5)"}));
  watch.releaseKept();
  EXPECT_EQ(host.account(5, 2).liveCount, 0U);
}

TEST_F(HeapCloseTest, EyecatcherIsClearedBetweenBlocksAndAreas) {
  static HMEMHEAP heap;
  static Lines seen;
  static MEMFunctionVector own;
  heap = open();
  seen.clear();
  own = mem;
  alloc(heap, 2000);
  alloc(heap, 968);
  alloc(heap, 968);
  mem.MEM_Free = [](void *area, std::uint32_t size, std::int16_t subPool) {
    if (size != kSmallArea) {
      seen.push_back("block: " + eyecatcher(heap));
    } else if (area == heap) {
      seen.push_back("header: " + eyecatcher(heap));
    }
    own.MEM_Free(area, size, subPool);
  };
  close(heap);
  EXPECT_EQ(seen, (Lines{"block: QQQHEAP1", "header: " + std::string(8, '\0')}));
}

TEST_F(HeapCloseTest, FreeThatDoesNothingIsNotExamined) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open();
  alloc(heap, 2000);
  watch.keepFreed = true;
  expectEnds(0, [&] { return mem.MEM_HeapClose(heap); });
}

TEST_F(HeapCloseTest, EnhancedHeapIsRefused) {
  alignas(8) char block[128] = "ENHHEAP1";
  const Bytes before = bytesOf(block, sizeof block);
  auto *heap = reinterpret_cast<HMEMHEAP>(block);
  expectFails(4056, invalidHandle(heap), NameBy::kItself, [&] { return mem.MEM_HeapClose(heap); });
  EXPECT_EQ(changedRanges(before, bytesOf(block, sizeof block)), "");
}

// Slots.

// The watch notes the test's own calls too, as the first of each list.
class HeapRoutingTest : public HeapTest {
 protected:
  HeapRoutingTest() : watch(mem) { std::memcpy(enhancedBlock_, "ENHHEAP1", 8); }

  HMEMHEAP enhanced() { return reinterpret_cast<HMEMHEAP>(enhancedBlock_); }

  VectorWatch watch;

 private:
  alignas(8) char enhancedBlock_[128] = {};
};

TEST_F(HeapRoutingTest, StorageComesThroughSlots8And9) {
  HMEMHEAP heap = open(2, 0xFFFB);
  alloc(heap, 2000 - 8);
  alloc(heap, 16);
  alloc(heap, 3000);
  EXPECT_EQ(watch.takeLines(), (Lines{"10(2, 65531)", "8(2048, -5)", "14(?, 1992)", "14(?, 16)",
                                      "8(2048, -5)", "14(?, 3000)", "8(3024, -5)"}));
  close(heap);
  EXPECT_EQ(watch.takeUsesOf(9).size(), 3U);
}

TEST_F(HeapRoutingTest, RefusalBySlot8IsARefusedStorage) {
  auto *heap = static_cast<HMEMHEAP>(untouched());
  watch.refuseStorage = 1;
  expectFails(4055, "MemAllocFail", NameBy::kMessage,
              [&] { return mem.MEM_HeapOpen(&heap, 1, kSubPool); });
  EXPECT_EQ(heap, untouched());
  heap = open();
  void *entry = untouched();
  watch.refuseStorage = 1;
  expectFails(4055, "MemAllocBlkFail", NameBy::kMessage,
              [&] { return mem.MEM_HeapAllocEntry(heap, 2000, &entry); });
  alloc(heap, 968);
  watch.refuseStorage = 1;
  expectFails(4055, "MemAllocAreaFail", NameBy::kMessage,
              [&] { return mem.MEM_HeapAllocEntry(heap, 1, &entry); });
  EXPECT_EQ(entry, untouched());
  close(heap);
}

TEST_F(HeapRoutingTest, ShortEntryGoesToSlot14AndPassesItsResultBack) {
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

TEST_F(HeapRoutingTest, UnknownHandleGoesToSlot14) {
  alignas(8) char block[128] = "QQQNONE1";
  watch.longResult = 77;
  void *entry = untouched();
  expectEnds(77,
             [&] { return mem.MEM_HeapAllocEntry(reinterpret_cast<HMEMHEAP>(block), 8, &entry); });
  EXPECT_EQ(watch.takeLines({{asNumber(block), "block"}}), (Lines{"12(block, 8)", "14(block, 8)"}));
}

TEST_F(HeapRoutingTest, EnhancedHeapGoesToSlot38) {
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

TEST_F(HeapRoutingTest, ChainsOfEnhancedHeapsDoNotGoThroughTheVector) {
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

TEST_F(HeapRoutingTest, ChainsTakeEachEntryThroughSlot14) {
  HMEMHEAP heap = open();
  watch.uses.clear();
  const AddressNames names = {{asNumber(heap), "heap"}};
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_HeapAllocMultEntries(heap, 12, 3, 0, &entry), 0);
  EXPECT_EQ(watch.takeLines(names), (Lines{"14(heap, 12)", "14(heap, 12)", "14(heap, 12)"}));
  EXPECT_EQ(mem.MEM_HeapAllocLongMultEntries(heap, 100000, 2, 0, &entry), 0);
  EXPECT_EQ(watch.takeLines(names),
            (Lines{"14(heap, 100000)", "8(100024, 7)", "14(heap, 100000)", "8(100024, 7)"}));
  close(heap);
}

TEST_F(HeapRoutingTest, ChainsEndAtTheFirstFailureOfSlot14) {
  HMEMHEAP heap = open();
  for (const std::int16_t result : Shorts{-1, 5, -32768}) {
    watch.uses.clear();
    watch.longResult = result;
    void *entry = untouched();
    expectEnds(-1, [&] { return mem.MEM_HeapAllocMultEntries(heap, -5, 3, 0, &entry); });
    expectEnds(-1, [&] { return mem.MEM_HeapAllocLongMultEntries(heap, -70000, 3, 0, &entry); });
    EXPECT_EQ(watch.takeLines({{asNumber(heap), "heap"}}),
              (Lines{"14(heap, -5)", "14(heap, -70000)"}));
    EXPECT_EQ(entry, untouched());
  }
  close(heap);
}

// Trace records.

using HeapTraceTest = HeapTest;

TEST_F(HeapTraceTest, OpenAndClose) {
  HMEMHEAP heap = nullptr;
  EXPECT_EQ(
      heapTraced(kBoth, [&] { mem.MEM_HeapOpen(&heap, 3, 0xFFFB); }),
      (Lines{entryLine("MEM_HeapOpen", "phMemHeap=" + lowHex(&heap) + ", AreaLen=3, SubPool=-5"),
             exitLine("MEM_HeapOpen")}));
  EXPECT_EQ(
      heapTraced(kBoth, [&] { close(heap); }),
      (Lines{entryLine("MEM_HeapClose", "hMemHeap=" + lowHex(heap)), exitLine("MEM_HeapClose")}));
}

TEST_F(HeapTraceTest, OpenCallsStorageBetweenItsRecords) {
  HMEMHEAP heap = nullptr;
  const Lines lines = traced(kBoth | MEM_TRACE_STORAGE, [&] { heap = open(); });
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[0].substr(0, 17), "STDE MEM_HeapOpen");
  EXPECT_EQ(lines[1].substr(0, 13), "STDE MemAlloc");
  EXPECT_EQ(lines[2].substr(0, 13), "STDX MemAlloc");
  EXPECT_EQ(lines[3], storageLine("MEM_HeapOpen",
                                  "Allocating Standard Heap header block" + atLine(heap, 1024)));
  EXPECT_EQ(lines[4], exitLine("MEM_HeapOpen"));
  close(heap);
}

TEST_F(HeapTraceTest, Entries) {
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

TEST_F(HeapTraceTest, Chains) {
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

TEST_F(HeapTraceTest, FailuresHaveNoExitRecord) {
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

TEST_F(HeapTraceTest, StorageLinesOfOneLife) {
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

TEST_F(HeapTraceTest, StorageLinesStandBetweenTheStorageCallAndWhatFollows) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  mem.MEM_HeapAllocEntry(heap, 968, &entry);
  const Lines grown = hostCalls([&] {
    host.setTraceFlags(MEM_TRACE_STORAGE);
    mem.MEM_HeapAllocEntryLong(heap, 8, &entry);
  });
  EXPECT_EQ(grown, (Lines{std::string(kLongName) + ": EnterFrame(frame, 3)",
                          std::string(kLongName) + ": WriteRecord()",  // a fixed text
                          "MemAlloc: EnterFrame(frame, 3)", "MemAlloc: GetAnchor(0, 3, cell)",
                          "MemAlloc: GetStorage(cell, 1024, 7, 1)",
                          "MemAlloc: LeaveFrame(frame, 3)", std::string(kLongName) + ": Format()",
                          std::string(kLongName) + ": WriteRecord()",
                          std::string(kLongName) + ": LeaveFrame(frame, 3)"}));
  host.setTraceFlags(0);
  mem.MEM_HeapClose(heap);

  heap = open();
  host.setTraceFlags(MEM_TRACE_STORAGE);
  EXPECT_EQ(hostCalls([&] { close(heap); }, {{asNumber(heap), "heap"}}),
            (Lines{"MEM_HeapClose: EnterFrame(frame, 3)", "MEM_HeapClose: Format()",
                   "MEM_HeapClose: WriteRecord()", "MEM_Free: EnterFrame(frame, 3)",
                   "MEM_Free: GetAnchor(0, 3, cell)", "MEM_Free: FreeStorage(heap, 1024, 7)",
                   "MEM_Free: LeaveFrame(frame, 3)", "MEM_HeapClose: LeaveFrame(frame, 3)"}));
}

TEST_F(HeapTraceTest, StorageLinesNeedBit4) {
  HMEMHEAP heap = nullptr;
  const std::uint32_t flags = 0xFFFFFFFFU & ~MEM_TRACE_STORAGE;
  const Lines lines = traced(flags, [&] {
    heap = open();
    alloc(heap, 968);
    alloc(heap, 968);
    alloc(heap, 969);
    void *entry = nullptr;
    mem.MEM_HeapAllocMultEntries(heap, 8, 2, 0, &entry);
    close(heap);
  });
  for (const std::string &line : lines) EXPECT_NE(line.substr(0, 4), "SL05") << line;
}

TEST_F(HeapTraceTest, KindOfHeapIsTracedBeforeTheHandleIsRefused) {
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

TEST_F(HeapTraceTest, EnhancedHeap) {
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

TEST_F(HeapTraceTest, ExitRecordsOfFixedTextAreNotFormatted) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  host.setTraceFlags(MEM_TRACE_EXIT | MEM_TRACE_STORAGE);
  host.resetCalls();
  mem.MEM_HeapAllocMultEntries(heap, 8, 3, 0, &entry);
  EXPECT_EQ(host.calls(Service::Format), 0U);
  EXPECT_EQ(host.calls(Service::WriteRecord), 8U);  // 4 exits, 4 times "Regular heap"
  host.setTraceFlags(0);
  close(heap);
}

TEST_F(HeapTraceTest, TracePointsHaveTheirOwnLineNumbers) {
  TracePoints points("..\\SrcRes\\MEMCHEAP");
  const auto life = [&] {
    HMEMHEAP heap = open();
    void *entry = nullptr;
    mem.MEM_HeapAllocEntry(heap, 968, &entry);
    mem.MEM_HeapAllocEntry(heap, 968, &entry);
    mem.MEM_HeapAllocEntry(heap, 969, &entry);
    mem.MEM_HeapAllocMultEntries(heap, 8, 1, 0, &entry);
    mem.MEM_HeapAllocLongMultEntries(heap, 8, 1, 0, &entry);
    close(heap);
  };
  points.add("", recordsOf(0xFFFFFFFFU, life));
  points.add("", recordsOf(0xFFFFFFFFU, life));
  // Six operations with entry and exit; storage lines: 1 of open, 3 of the long entry, 1 of each
  // chain, 2 of close.
  EXPECT_EQ(points.count(), 20U);
}

// Hosts without a thread environment or trace buffer.

TEST_F(HeapTest, MissingThreadEnvironmentIsTolerated) {
  host.setTraceFlags(0xFFFFFFFFU);
  host.withoutThreadEnv(true);
  const Bytes before = envBytes(env());
  HMEMHEAP heap = open();
  alloc(heap, 968);
  alloc(heap, 968);
  alloc(heap, 969);
  void *entry = untouched();
  EXPECT_EQ(mem.MEM_HeapAllocEntry(heap, 0, &entry), kFailed);
  EXPECT_EQ(mem.MEM_HeapAllocMultEntries(heap, 8, 0, 0, &entry), kFailed);
  EXPECT_EQ(mem.MEM_HeapAllocMultEntries(heap, 8, 1, -1, &entry), kFailed);
  EXPECT_EQ(mem.MEM_HeapAllocLongMultEntries(nullptr, 8, 1, 0, &entry), kFailed);
  EXPECT_EQ(entry, untouched());
  EXPECT_EQ(mem.MEM_HeapAllocLongMultEntries(heap, 8, 2, 0, &entry), 0);
  EXPECT_EQ(mem.MEM_HeapClose(nullptr), kFailed);
  close(heap);
  EXPECT_EQ(changedRanges(before, envBytes(env())), "");
  host.withoutThreadEnv(false);
  host.setTraceFlags(0);
}

TEST_F(HeapTest, MissingTraceBufferIsTolerated) {
  MEMTraceBuf *const buffer = env().pTraceBuf;
  env().pTraceBuf = nullptr;
  host.setTraceFlags(0xFFFFFFFFU);
  HMEMHEAP heap = open();
  alloc(heap, 968);
  alloc(heap, 968);
  alloc(heap, 969);
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_HeapAllocMultEntries(heap, 8, 2, 0, &entry), 0);
  close(heap);
  host.setTraceFlags(0);
  env().pTraceBuf = buffer;
}

}  // namespace
}  // namespace memtest
