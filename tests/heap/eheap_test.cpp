// The enhanced heap: layouts, addresses, the free list, chains, and how each operation fails.

#include "eheapfixture.hpp"

namespace memtest {
namespace {

using refhost::Service;

using EHeapTest = EHeapFixture;

inline std::string badPointer(const void *entry) {
  return "BuffPtr=" + hex16(entry);
}

// Opening.

class EHeapOpenTest : public EHeapTest, public ::testing::WithParamInterface<OpenCase> {};

INSTANTIATE_TEST_SUITE_P(Arguments, EHeapOpenTest, ::testing::ValuesIn(kOpenCases));

TEST_P(EHeapOpenTest, HeaderIsWrittenWholeAndTheRestIsLeftAsObtained) {
  const std::uint32_t areaSize = static_cast<std::uint32_t>(GetParam().areaLen) * 1024;
  static std::uint32_t gate;
  static decltype(MEMRuntimeServices::CreateGate) create;
  create = host.runtime().CreateGate;
  host.runtime().CreateGate = [](std::uint32_t *phGate) {
    const std::uint16_t code = create(phGate);
    gate = *phGate;
    return code;
  };
  HMEMHEAP heap = open(GetParam().areaLen, GetParam().subPool);
  const Layout expected = Layout()
                              .text("ENHHEAP1")
                              .address(nullptr)
                              .field(std::uint32_t{64})
                              .field(static_cast<std::int32_t>(areaSize - 64))
                              .field(gate)
                              .field(GetParam().subPool)
                              .field(std::uint8_t{0})
                              .field(load<std::uint8_t>(heap, 31))  // of no meaning
                              .address(nullptr)
                              .address(heap)
                              .address(nullptr)
                              .field(areaSize);
  EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(heap, 60)), "");
  EXPECT_NE(gate, 0U);
  EXPECT_TRUE(allBytesAre(at(heap, 64), areaSize - 64, kDirty));
  close(heap);
}

TEST_P(EHeapOpenTest, MakesAGateThenAsksForOneAreaAndReturnsThemInReverseUnderTheGate) {
  const std::string areaSize = std::to_string(GetParam().areaLen * 1024);
  HMEMHEAP heap = nullptr;
  EXPECT_EQ(hostCalls([&] { heap = open(GetParam().areaLen, GetParam().subPool); }),
            (Lines{"MEM_EHeapOpen: EnterFrame(frame, 3)", "MEM_EHeapOpen: CreateGate(cell)",
                   "MemAlloc: EnterFrame(frame, 3)", "MemAlloc: GetAnchor(0, 3, cell)",
                   "MemAlloc: GetStorage(cell, " + areaSize + ", " +
                       std::to_string(GetParam().hostSubPool) + ", " +
                       std::to_string(GetParam().hostKind) + ")",
                   "MemAlloc: LeaveFrame(frame, 3)", "MEM_EHeapOpen: LeaveFrame(frame, 3)"}));
  const std::string gate = std::to_string(gateOf(heap));
  EXPECT_EQ(
      hostCalls([&] { close(heap); }, {{asNumber(heap), "heap"}}),
      (Lines{"MEM_EHeapClose: EnterFrame(frame, 3)", "MEM_EHeapClose: AcquireGate(" + gate + ")",
             "MEM_Free: EnterFrame(frame, 3)", "MEM_Free: GetAnchor(0, 3, cell)",
             "MEM_Free: FreeStorage(heap, " + areaSize + ", " +
                 std::to_string(GetParam().hostSubPool) + ")",
             "MEM_Free: LeaveFrame(frame, 3)", "MEM_EHeapClose: ReleaseGate(" + gate + ")",
             "MEM_EHeapClose: DeleteGate(" + gate + ")", "MEM_EHeapClose: LeaveFrame(frame, 3)"}));
}

TEST_F(EHeapTest, OpenRefusesAreaLengthsOutside1To256) {
  for (const std::int16_t areaLen : Shorts{0, -1, 257, -32768, 32767, -255, 512}) {
    SCOPED_TRACE(areaLen);
    auto *heap = static_cast<HMEMHEAP>(untouched());
    expectOwnFailure(4050, "Invalid Area Length=" + std::to_string(areaLen),
                     [&] { return mem.MEM_EHeapOpen(&heap, areaLen, kSubPool); });
    EXPECT_EQ(heap, untouched());
    EXPECT_EQ(host.calls(Service::CreateGate), 0U);
    EXPECT_EQ(host.calls(Service::GetStorage), 0U);
  }
}

TEST_F(EHeapTest, OpenWithoutGateFailsAndKeepsTheHostsError) {
  for (const std::uint16_t code : {std::uint16_t{1}, kHostCode, std::uint16_t{0xFFFF}}) {
    for (const std::uint32_t hostError : {0U, kHostError}) {
      auto *heap = static_cast<HMEMHEAP>(untouched());
      refhost::Fault fault = faultOf(Service::CreateGate, hostError);
      fault.code = code;
      host.arm(fault);
      expectOwnFailure(
          4057, "CreateGate", [&] { return mem.MEM_EHeapOpen(&heap, 1, kSubPool); },
          hostError == 0 ? kOwnMarks : kHostMarks);
      EXPECT_EQ(heap, untouched());
      EXPECT_EQ(host.calls(Service::GetStorage), 0U);
      EXPECT_EQ(host.calls(Service::DeleteGate), 0U);
    }
  }
}

TEST_F(EHeapTest, OpenWithoutStorageDeletesTheGateAndKeepsTheHostsError) {
  const std::size_t gates = host.gateCount();
  for (const std::uint32_t hostError : {0U, kHostError}) {
    auto *heap = static_cast<HMEMHEAP>(untouched());
    host.arm(faultOf(Service::GetStorage, hostError));
    expectOwnFailure(
        4055, "MemAllocFail", [&] { return mem.MEM_EHeapOpen(&heap, 1, kSubPool); },
        hostError == 0 ? kOwnMarks : kHostMarks);
    EXPECT_EQ(heap, untouched());
    EXPECT_EQ(host.gateCount(), gates);
    expectNoGateCalls();
  }
}

// Deleting the gate may cost the host's error its place in the error area.
TEST_F(EHeapTest, OpenSavesTheHostsErrorBeforeItDeletesTheGate) {
  static MEMThreadEnv *thread;
  static decltype(MEMRuntimeServices::DeleteGate) destroy;
  thread = &env();
  destroy = host.runtime().DeleteGate;
  host.runtime().DeleteGate = [](std::uint32_t hGate) {
    destroy(hGate);
    thread->Error.Code = 999;
    std::strcpy(thread->Error.NameText, "of the deletion");
  };
  HMEMHEAP heap = nullptr;
  host.arm(faultOf(Service::GetStorage, kHostError));
  expectOwnFailure(
      4055, "MemAllocFail", [&] { return mem.MEM_EHeapOpen(&heap, 1, kSubPool); }, kHostMarks);
}

TEST_F(EHeapTest, OpenThatFailsDeletesItsGateBeforeItReports) {
  HMEMHEAP heap = nullptr;
  Lines lines = hostCalls([&] {
    host.arm(faultOf(Service::GetStorage, kHostError));
    EXPECT_EQ(mem.MEM_EHeapOpen(&heap, 1, kSubPool), kFailed);
  });
  ASSERT_EQ(lines.size(), 9U);
  EXPECT_EQ(lines[5], "MemAlloc: LeaveFrame(frame, 3)");
  EXPECT_EQ(lines[6].substr(0, 26), "MEM_EHeapOpen: DeleteGate(");
  EXPECT_EQ(lines[7], "MEM_EHeapOpen: ReportError(?, ?)");
  EXPECT_EQ(lines[8], "MEM_EHeapOpen: LeaveFrame(frame, 3)");
}

TEST_F(EHeapTest, OpenAndCloseRecordNothing) {
  HMEMHEAP heap = nullptr;
  expectEnds(0, [&] { return mem.MEM_EHeapOpen(&heap, 1, kSubPool); });
  expectEnds(0, [&] { return mem.MEM_EHeapClose(heap); });
}

TEST_F(EHeapTest, HeapsAreIndependent) {
  HMEMHEAP first = open(1, 3);
  HMEMHEAP second = open(2, 4);
  EXPECT_NE(gateOf(first), gateOf(second));
  EXPECT_EQ(alloc(first, 16), at(first, 64));
  EXPECT_EQ(alloc(second, 16), at(second, 64));
  EXPECT_EQ(alloc(first, 16), at(first, 80));
  // Nobody waits for another heap's gate.
  ASSERT_EQ(host.runtime().AcquireGate(gateOf(first)), 0);
  EXPECT_EQ(alloc(second, 16), at(second, 80));
  host.runtime().ReleaseGate(gateOf(first));
  close(first);
  EXPECT_EQ(alloc(second, 16), at(second, 96));
  EXPECT_EQ(host.account(3).liveCount, 0U);
  EXPECT_EQ(host.account(4).liveBytes, 2048U);
  close(second);
}

// Single entries. All three entry points give the same for the same length.

std::int16_t allocOwn(MEMFunctionVector &mem, HMEMHEAP heap, std::int32_t len, void **ppEntry) {
  return mem.MEM_EHeapAllocEntry(heap, len, ppEntry);
}

class EHeapEntryTest : public EHeapTest, public ::testing::WithParamInterface<AllocVariant> {
 protected:
  std::uint8_t *take(HMEMHEAP heap, std::int32_t len) {
    void *entry = nullptr;
    EXPECT_EQ(GetParam().alloc(mem, heap, len, &entry), 0) << "length " << len;
    return static_cast<std::uint8_t *>(entry);
  }

  // The call fails so, gives no entry and leaves the heap's header alone.
  void expectRefusal(HMEMHEAP heap, std::int32_t len, std::uint32_t code, const std::string &name,
                     const FailureMarks &marks = kOwnMarks) {
    const Bytes before = bytesOf(heap, kSmallArea);
    void *entry = untouched();
    expectOwnFailure(
        code, name, [&] { return GetParam().alloc(mem, heap, len, &entry); }, marks);
    EXPECT_EQ(entry, untouched());
    EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  }
};

INSTANTIATE_TEST_SUITE_P(Slots, EHeapEntryTest,
                         ::testing::Values(AllocVariant{"Own", allocOwn},
                                           AllocVariant{"StandardShort", allocShort},
                                           AllocVariant{"StandardLong", allocLong}),
                         caseName<AllocVariant>);

TEST_P(EHeapEntryTest, EntriesFollowEachOtherRoundedUpTo8With16AtLeast) {
  HMEMHEAP heap = open();
  const struct {
    std::int32_t len;
    std::uint32_t offset;
  } cases[] = {{1, 64},   {0, 80},    {-1, 96},   {-100, 112}, {8, 128},  {9, 144},   {-32768, 160},
               {15, 176}, {16, 192},  {17, 208},  {24, 232},   {25, 256}, {100, 288}, {-7, 392},
               {-8, 408}, {-15, 424}, {-16, 440}, {31, 456},   {1, 488}};
  for (const auto &row : cases) {
    EXPECT_EQ(take(heap, row.len), at(heap, row.offset)) << "length " << row.len;
  }
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 504U);
  EXPECT_EQ(load<std::int32_t>(heap, 20), 1024 - 504);
  EXPECT_EQ(flagsOf(heap), 0);
  close(heap);
}

TEST_P(EHeapEntryTest, GateIsHeldAroundTheCarving) {
  HMEMHEAP heap = open();
  const std::string gate = std::to_string(gateOf(heap));
  const Lines lines = hostCalls([&] { take(heap, 100); });
  const Lines own = {"MEM_EHeapAllocEntry: EnterFrame(frame, 3)",
                     "MEM_EHeapAllocEntry: AcquireGate(" + gate + ")",
                     "MEM_EHeapAllocEntry: ReleaseGate(" + gate + ")",
                     "MEM_EHeapAllocEntry: LeaveFrame(frame, 3)"};
  const std::size_t outer = GetParam().alloc == allocOwn ? 0 : 1;
  ASSERT_EQ(lines.size(), own.size() + 2 * outer);
  EXPECT_TRUE(std::equal(own.begin(), own.end(), lines.begin() + static_cast<int>(outer)));
  close(heap);
}

TEST_P(EHeapEntryTest, FirstAreaIsFilledToItsEnd) {
  HMEMHEAP heap = open();
  EXPECT_EQ(take(heap, 960), at(heap, 64));
  EXPECT_EQ(load<std::uint32_t>(heap, 16), kSmallArea);
  EXPECT_EQ(load<std::int32_t>(heap, 20), 0);

  host.recordCalls(true);
  std::uint8_t *entry = take(heap, 1);
  std::uint8_t *area = obtained();
  EXPECT_EQ(entry, area + 24);
  EXPECT_EQ(host.account(kSubPool).liveBytes, 2 * kSmallArea);
  close(heap);
}

// The threshold is a standard heap's, so it exceeds what the first area has.
TEST_P(EHeapEntryTest, LongestAreaEntryOpensASecondArea) {
  HMEMHEAP heap = open();
  host.recordCalls(true);
  std::uint8_t *entry = take(heap, kSmallMost);
  std::uint8_t *area = obtained();
  EXPECT_EQ(entry, area + 24);
  const Layout expected = Layout()
                              .text("QQQHEAPN")
                              .address(nullptr)
                              .field(std::uint32_t{24 + 968})
                              .field(std::int32_t{32});
  EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(area, 24)), "");
  EXPECT_TRUE(allBytesAre(area + 24, 1000, kDirty));
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 8), area);
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 40), area);
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 64U) << "the abandoned area stays as it was";
  EXPECT_EQ(load<std::int32_t>(heap, 20), 960);
  EXPECT_EQ(take(heap, 32), area + 24 + 968);
  EXPECT_EQ(load<std::int32_t>(area, 20), 0);
  EXPECT_EQ(pointerAt<void>(heap, 48), nullptr);
  EXPECT_EQ(flagsOf(heap), 0);
  close(heap);
}

TEST_P(EHeapEntryTest, EntryOneLongerThanTheThresholdBecomesALargeBlock) {
  HMEMHEAP heap = open();
  Bytes before = bytesOf(heap, kSmallArea);
  host.recordCalls(true);
  std::uint8_t *entry = take(heap, kSmallMost + 1);
  std::uint8_t *block = obtained();
  EXPECT_EQ(entry, block + 24);
  EXPECT_EQ(host.account(kSubPool).liveBytes, kSmallArea + 1000);
  const Layout expected = Layout().text("QQQHBLKN").address(nullptr).field(std::uint32_t{1000});
  EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(block, 20)), "");
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 48), block);
  EXPECT_EQ(flagsOf(heap), kLargeMade);
  store<std::uint8_t>(before.data(), 30, kLargeMade);
  store<void *>(before.data(), 48, block);
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "") << "but for these two";
  EXPECT_EQ(take(heap, 16), at(heap, 64));
  EXPECT_EQ(flagsOf(heap), kLargeMade) << "once set, the bit stays";
  close(heap);
}

TEST_P(EHeapEntryTest, LargestShortLengthIsServed) {
  HMEMHEAP small = open(1);
  HMEMHEAP medium = open(33);  // area entries up to 33 * 1024 - 56
  host.recordCalls(true);
  EXPECT_EQ(take(medium, 32767), at(medium, 64));
  EXPECT_EQ(load<std::uint32_t>(medium, 16), 64U + 32768U);
  EXPECT_EQ(obtained(), nullptr);
  std::uint8_t *entry = take(small, 32767);
  std::uint8_t *block = obtained();
  EXPECT_EQ(entry, block + 24);
  EXPECT_EQ(load<std::uint32_t>(block, 16), 24U + 32768U);
  std::memset(entry, 0x11, 32767);
  close(small);
  close(medium);
}

TEST_P(EHeapEntryTest, EntriesAreHandedOutAsTheHostDeliveredThem) {
  HMEMHEAP heap = open();
  EXPECT_TRUE(allBytesAre(take(heap, 400), 400, kDirty)) << "first area";
  EXPECT_TRUE(allBytesAre(take(heap, 900), 904, kDirty)) << "further area";
  EXPECT_TRUE(allBytesAre(take(heap, 5000), 5000, kDirty)) << "large block";
  close(heap);
}

TEST_P(EHeapEntryTest, SuccessRecordsNothing) {
  HMEMHEAP heap = open();
  for (const std::int32_t len : {-5, 8, 968, 969}) {
    void *entry = nullptr;
    expectEnds(0, [&] { return GetParam().alloc(mem, heap, len, &entry); });
  }
  close(heap);
}

TEST_P(EHeapEntryTest, RefusedGateIsReportedWithTheHostsError) {
  HMEMHEAP heap = open();
  for (const std::int32_t len : {8, 968, 969}) {
    for (const std::uint32_t hostError : {0U, kHostError}) {
      host.arm(faultOf(Service::AcquireGate, hostError));
      expectRefusal(heap, len, 4057, "AcquireGate", hostError == 0 ? kOwnMarks : kHostMarks);
      expectOnlyAcquireCalled();
    }
  }
  EXPECT_EQ(take(heap, 8), at(heap, 64));
  close(heap);
}

TEST_P(EHeapEntryTest, RefusedAreaReleasesTheGateAndLeavesTheCurrentAreaCurrent) {
  HMEMHEAP heap = open();
  take(heap, 500);
  host.arm(faultOf(Service::GetStorage, kHostError));
  expectRefusal(heap, 600, 4055, "MemAllocFail");
  EXPECT_EQ(host.calls(Service::ReleaseGate), 1U);
  EXPECT_EQ(take(heap, 400), at(heap, 64 + 504));
  close(heap);
}

TEST_P(EHeapEntryTest, RefusedLargeBlockReleasesTheGateAndChangesNothing) {
  HMEMHEAP heap = open();
  host.arm(faultOf(Service::GetStorage, kHostError));
  expectRefusal(heap, 969, 4055, "MemAllocBlkFail");
  EXPECT_EQ(flagsOf(heap), 0) << "no large block has been made";
  EXPECT_EQ(host.calls(Service::ReleaseGate), 1U);
  take(heap, 2000);
  host.arm(faultOf(Service::GetStorage));
  expectRefusal(heap, 969, 4055, "MemAllocBlkFail");
  close(heap);
}

TEST_P(EHeapEntryTest, GateIsReleasedAfterTheReport) {
  HMEMHEAP heap = open();
  const std::string gate = std::to_string(gateOf(heap));
  Lines lines = hostCalls(
      [&] {
        void *entry = nullptr;
        host.arm(faultOf(Service::GetStorage));
        EXPECT_EQ(GetParam().alloc(mem, heap, 968, &entry), kFailed);
      },
      {{asNumber(error().NameText), "name"}});
  if (GetParam().alloc != allocOwn) lines = Lines(lines.begin() + 1, lines.end() - 1);
  EXPECT_EQ(
      lines,
      (Lines{"MEM_EHeapAllocEntry: EnterFrame(frame, 3)",
             "MEM_EHeapAllocEntry: AcquireGate(" + gate + ")", "MemAlloc: EnterFrame(frame, 3)",
             "MemAlloc: GetAnchor(0, 3, cell)", "MemAlloc: GetStorage(cell, 1024, 7, 1)",
             "MemAlloc: LeaveFrame(frame, 3)", "MEM_EHeapAllocEntry: ReportError(name, ?)",
             "MEM_EHeapAllocEntry: ReleaseGate(" + gate + ")",
             "MEM_EHeapAllocEntry: LeaveFrame(frame, 3)"}));
  close(heap);
}

// Areas and large blocks.

TEST_F(EHeapTest, HeapNeverReturnsToAnEarlierArea) {
  HMEMHEAP heap = open();
  alloc(heap, 16);
  host.recordCalls(true);
  alloc(heap, 960);  // leaves 944 bytes of the first area
  std::uint8_t *second = obtained();
  EXPECT_EQ(alloc(heap, 40), second + 24 + 960) << "a further area has 40 bytes behind 960";
  EXPECT_EQ(load<std::int32_t>(second, 20), 0);
  std::uint8_t *entry = alloc(heap, 1);  // would fit in the first area
  std::uint8_t *third = obtained();
  EXPECT_EQ(entry, third + 24);
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 8), second);
  EXPECT_EQ(pointerAt<std::uint8_t>(second, 8), third);
  EXPECT_EQ(pointerAt<std::uint8_t>(third, 8), nullptr);
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 40), third);
  close(heap);
}

TEST_F(EHeapTest, EntryThatExactlyFitsStaysInItsArea) {
  HMEMHEAP heap = open();
  alloc(heap, 800);
  EXPECT_EQ(alloc(heap, 153), at(heap, 864)) << "160 bytes are free";
  EXPECT_EQ(load<std::int32_t>(heap, 20), 0);
  EXPECT_EQ(host.account(kSubPool).liveCount, 1U);
  close(heap);
}

TEST_F(EHeapTest, ThresholdGrowsWithTheArea) {
  for (const std::int16_t areaLen : Shorts{1, 2, 7, 64, 256}) {
    SCOPED_TRACE(areaLen);
    const std::int32_t most = areaLen * 1024 - 56;
    HMEMHEAP heap = open(areaLen);
    EXPECT_EQ(alloc(heap, most - 8), at(heap, 64));
    alloc(heap, most);
    EXPECT_EQ(pointerAt<void>(heap, 48), nullptr);
    EXPECT_EQ(host.account(kSubPool).liveCount, 2U);
    std::uint8_t *entry = alloc(heap, most + 1);
    EXPECT_EQ(pointerAt<std::uint8_t>(heap, 48), entry - 24);
    EXPECT_EQ(load<std::uint32_t>(entry - 24, 16), 24U + static_cast<std::uint32_t>(most) + 8U);
    close(heap);
  }
}

TEST_F(EHeapTest, LargeBlocksAreChainedNewestFirst) {
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
    EXPECT_EQ(pointerAt<std::uint8_t>(heap, 48), block);
    previous = block;
  }
  EXPECT_EQ(alloc(heap, 8), at(heap, 64));
  close(heap);
}

TEST_F(EHeapTest, LengthsUpToTheLimitDoNotWrap) {
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
    giveBack(heap, row.len, HugeStorage::bytes + 24);
    EXPECT_EQ(checkedLen, row.blockSize);
    EXPECT_EQ(alloc(heap, 8), at(heap, 64)) << "the area is as before";
    close(heap);
    EXPECT_EQ(HugeStorage::freedSize, row.blockSize);
  }
}

TEST_F(EHeapTest, LengthThatTheHostCannotServeIsRefused) {
  HMEMHEAP heap = open();
  for (const std::int32_t len : {kLongest, kLongest - 7, kLongest - 23}) {
    void *entry = untouched();
    expectOwnFailure(4055, "MemAllocBlkFail",
                     [&] { return mem.MEM_EHeapAllocEntry(heap, len, &entry); });
    EXPECT_EQ(entry, untouched());
  }
  EXPECT_EQ(alloc(heap, 8), at(heap, 64));
  close(heap);
}

TEST_F(EHeapTest, NegativeLengthsUpToTheLimitGive16Bytes) {
  HMEMHEAP heap = open();
  std::size_t offset = 64;
  for (const std::int32_t len : {-kLongest - 1, -kLongest, -65536, -65535, -70000}) {
    EXPECT_EQ(alloc(heap, len), at(heap, offset)) << "length " << len;
    offset += 16;
  }
  std::uint8_t *entry = alloc(heap, 16);
  for (const std::int32_t len : {-kLongest - 1, -kLongest, 0, 1, 16}) giveBack(heap, len, entry);
  close(heap);
}

// The free list. Nothing in the library fills it, so these lists are made by hand.

TEST_F(EHeapTest, FreeEntryOfTheExactSizeIsTakenFromTheHead) {
  HMEMHEAP heap = open();
  std::uint8_t *second = freeItem(heap, 32, nullptr);
  std::uint8_t *first = freeItem(heap, 32, second);
  std::uint8_t *behind = alloc(heap, 16);
  std::memset(behind, 0xBB, 16);
  setFreeList(heap, first);
  Bytes before = bytesOf(heap, kSmallArea);
  const Lines calls = hostCalls([&] { EXPECT_EQ(alloc(heap, 30), first); });
  EXPECT_EQ(calls.size(), 4U) << "frames and the gate";
  EXPECT_EQ(freeListOf(heap), second);
  EXPECT_TRUE(allBytesAre(first, 32, 0));
  // Nothing but the list head and the entry has changed.
  std::memset(before.data() + (first - at(heap, 0)), 0, 32);
  store<void *>(before.data(), 32, second);
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  EXPECT_EQ(alloc(heap, 25), second);
  EXPECT_EQ(freeListOf(heap), nullptr);
  EXPECT_EQ(alloc(heap, 32), behind + 16) << "the list is empty";
  close(heap);
}

TEST_F(EHeapTest, FreeEntryIsUnlinkedFromTheMiddleAndTheEnd) {
  HMEMHEAP heap = open();
  std::uint8_t *last = freeItem(heap, 24, nullptr);
  std::uint8_t *third = freeItem(heap, 48, last);
  std::uint8_t *second = freeItem(heap, 32, third);
  std::uint8_t *first = freeItem(heap, 16, second);
  setFreeList(heap, first);
  EXPECT_EQ(alloc(heap, 48), third);
  EXPECT_TRUE(allBytesAre(third, 48, 0));
  EXPECT_EQ(freeListOf(heap), first);
  EXPECT_EQ(pointerAt<std::uint8_t>(first, 0), second);
  EXPECT_EQ(pointerAt<std::uint8_t>(second, 0), last) << "the predecessor takes the link";
  EXPECT_EQ(load<std::uint32_t>(second, 8), 32U);
  EXPECT_TRUE(allBytesAre(second + 12, 20, 0xEE));
  EXPECT_EQ(alloc(heap, 24), last);
  EXPECT_EQ(pointerAt<std::uint8_t>(second, 0), nullptr);
  EXPECT_EQ(alloc(heap, -100), first) << "16 bytes";
  EXPECT_EQ(freeListOf(heap), second);
  EXPECT_EQ(alloc(heap, 32), second);
  EXPECT_EQ(freeListOf(heap), nullptr);
  close(heap);
}

TEST_F(EHeapTest, FirstOfSeveralFreeEntriesOfTheSizeIsTaken) {
  HMEMHEAP heap = open();
  std::uint8_t *third = freeItem(heap, 40, nullptr);
  std::uint8_t *second = freeItem(heap, 40, third);
  std::uint8_t *first = freeItem(heap, 16, second);
  setFreeList(heap, first);
  EXPECT_EQ(alloc(heap, 40), second);
  EXPECT_EQ(pointerAt<std::uint8_t>(first, 0), third);
  close(heap);
}

TEST_F(EHeapTest, FreeEntriesOfOtherSizesAreLeftAlone) {
  HMEMHEAP heap = open();
  std::uint8_t *second = freeItem(heap, 48, nullptr);
  std::uint8_t *first = freeItem(heap, 16, second);
  setFreeList(heap, first);
  const Bytes before = bytesOf(first, 16);
  EXPECT_EQ(alloc(heap, 40), at(heap, 128)) << "no larger entry, no splitting";
  EXPECT_EQ(alloc(heap, 17), at(heap, 168));
  EXPECT_EQ(alloc(heap, 49), at(heap, 192));
  EXPECT_EQ(freeListOf(heap), first);
  EXPECT_EQ(changedRanges(before, bytesOf(first, 16)), "");
  EXPECT_EQ(pointerAt<std::uint8_t>(second, 0), nullptr);
  EXPECT_TRUE(allBytesAre(second + 12, 36, 0xEE));
  close(heap);
}

TEST_F(EHeapTest, FreeListServesAlsoWhereTheAreaIsFull) {
  HMEMHEAP heap = open();
  std::uint8_t *item = freeItem(heap, 960, nullptr);
  setFreeList(heap, item);
  EXPECT_EQ(alloc(heap, 953), item);
  EXPECT_TRUE(allBytesAre(item, 960, 0));
  EXPECT_EQ(host.account(kSubPool).liveCount, 1U);
  close(heap);
}

TEST_F(EHeapTest, LongestAreaEntryComesFromTheFreeListAndLargeOnesDoNot) {
  HMEMHEAP heap = open();
  std::uint8_t *large = freeItem(heap, 976, nullptr);
  std::uint8_t *longest = freeItem(heap, 968, large);
  setFreeList(heap, longest);
  EXPECT_EQ(alloc(heap, 968), longest);
  EXPECT_EQ(freeListOf(heap), large);
  std::uint8_t *entry = alloc(heap, 976);
  EXPECT_NE(entry, large);
  EXPECT_EQ(eyecatcher(entry - 24), "QQQHBLKN");
  EXPECT_EQ(freeListOf(heap), large);
  close(heap);
}

TEST_F(EHeapTest, ChainsAndStandardEntryPointsTakeFromTheFreeListToo) {
  HMEMHEAP heap = open();
  std::uint8_t *third = freeItem(heap, 32, nullptr);
  std::uint8_t *second = freeItem(heap, 32, third);
  std::uint8_t *first = freeItem(heap, 32, second);
  setFreeList(heap, first);
  void *entry = nullptr;
  ASSERT_EQ(mem.MEM_EHeapAllocMultEntries(heap, 32, 2, 8, &entry), 0);
  EXPECT_EQ(entry, first);
  EXPECT_TRUE(allBytesAre(first, 8, 0));
  EXPECT_EQ(pointerAt<std::uint8_t>(first, 8), second);
  EXPECT_TRUE(allBytesAre(second, 32, 0));
  ASSERT_EQ(mem.MEM_HeapAllocEntryLong(heap, 32, &entry), 0);
  EXPECT_EQ(entry, third);
  EXPECT_EQ(freeListOf(heap), nullptr);
  close(heap);
}

// Giving back.

TEST_F(EHeapTest, FreedEntryIsClearedAndHoldsLinkAndSize) {
  const struct {
    std::int32_t len;
    std::uint32_t aligned;
  } cases[] = {
      {-kLongest - 1, 16}, {-100, 16}, {0, 16}, {1, 16}, {16, 16}, {17, 24}, {24, 24}, {25, 32},
      {500, 504}};
  for (const auto &row : cases) {
    SCOPED_TRACE(row.len);
    HMEMHEAP heap = open();
    alloc(heap, 40);
    std::uint8_t *entry = alloc(heap, row.len);
    std::memset(entry, 0x77, row.aligned);
    Bytes expected = bytesOf(heap, kSmallArea);
    const auto offset = static_cast<std::size_t>(entry - at(heap, 0));
    std::memset(expected.data() + offset, 0, row.aligned);
    store(expected.data(), offset + 8, row.aligned);
    expectEnds(0, [&] { return mem.MEM_EHeapFreeEntry(heap, row.len, entry); });
    EXPECT_EQ(changedRanges(expected, bytesOf(heap, kSmallArea)), "");
    EXPECT_EQ(freeListOf(heap), nullptr) << "the list is never filled";
    close(heap);
  }
}

TEST_F(EHeapTest, FreedEntryTakesTheListHeadAsItsLink) {
  HMEMHEAP heap = open();
  std::uint8_t *head = freeItem(heap, 48, nullptr);
  std::uint8_t *entry = alloc(heap, 24);
  setFreeList(heap, head);
  giveBack(heap, 24, entry);
  EXPECT_EQ(pointerAt<std::uint8_t>(entry, 0), head);
  EXPECT_EQ(load<std::uint32_t>(entry, 8), 24U);
  EXPECT_TRUE(allBytesAre(entry + 12, 12, 0));
  EXPECT_EQ(freeListOf(heap), head);
  EXPECT_EQ(load<std::uint32_t>(head, 8), 48U);
  EXPECT_TRUE(allBytesAre(head + 12, 36, 0xEE));
  close(heap);
}

TEST_F(EHeapTest, FreedStorageIsNotHandedOutAgain) {
  HMEMHEAP heap = open();
  std::uint8_t *first = alloc(heap, 32);
  std::uint8_t *second = alloc(heap, 32);
  giveBack(heap, 32, second);
  giveBack(heap, 32, first);
  giveBack(heap, 32, first);  // once more does the same
  EXPECT_EQ(alloc(heap, 32), second + 32);
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 64U + 96U);
  EXPECT_EQ(host.account(kSubPool).liveBytes, kSmallArea);
  close(heap);
  EXPECT_EQ(host.account(kSubPool).liveBytes, 0U);
}

TEST_F(EHeapTest, AreaEntryIsCheckedBeforeTheGateIsTaken) {
  HMEMHEAP heap = open();
  std::uint8_t *entry = alloc(heap, 20);
  const std::string gate = std::to_string(gateOf(heap));
  EXPECT_EQ(hostCalls([&] { giveBack(heap, 20, entry); }, {{asNumber(entry), "entry"}}),
            (Lines{"MEM_EHeapFreeEntry: EnterFrame(frame, 3)",
                   "MEM_EHeapFreeEntry: CheckStorage(entry, 24)",
                   "MEM_EHeapFreeEntry: AcquireGate(" + gate + ")",
                   "MEM_EHeapFreeEntry: ReleaseGate(" + gate + ")",
                   "MEM_EHeapFreeEntry: LeaveFrame(frame, 3)"}));
  close(heap);
}

TEST_F(EHeapTest, LargeEntryIsOnlyChecked) {
  HMEMHEAP heap = open();
  std::uint8_t *entry = alloc(heap, 969);
  std::uint8_t *block = entry - 24;
  const Bytes before = bytesOf(block, 1000);
  const Bytes area = bytesOf(heap, kSmallArea);
  const Lines expected = {"MEM_EHeapFreeEntry: EnterFrame(frame, 3)",
                          "MEM_EHeapFreeEntry: CheckStorage(block, 1000)",
                          "MEM_EHeapFreeEntry: LeaveFrame(frame, 3)"};
  for (int time = 0; time < 2; ++time) {
    EXPECT_EQ(hostCalls([&] { giveBack(heap, 969, entry); }, {{asNumber(block), "block"}}),
              expected);
    EXPECT_EQ(changedRanges(before, bytesOf(block, 1000)), "");
    EXPECT_EQ(changedRanges(area, bytesOf(heap, kSmallArea)), "");
  }
  expectEnds(0, [&] { return mem.MEM_EHeapFreeEntry(heap, 976, entry); });
  EXPECT_EQ(host.account(kSubPool).liveBytes, kSmallArea + 1000U) << "until close";
  EXPECT_NE(alloc(heap, 969), entry);
  close(heap);
}

TEST_F(EHeapTest, LengthTellsAreaEntriesFromLargeOnes) {
  HMEMHEAP heap = open();
  std::uint8_t *entry = alloc(heap, 968);
  std::memset(entry, 0x77, 968);
  giveBack(heap, 968, entry);
  EXPECT_EQ(load<std::uint32_t>(entry, 8), 968U);
  EXPECT_TRUE(allBytesAre(entry + 12, 956, 0));
  // The same address with a length that only a large block can have.
  const Bytes before = bytesOf(entry, 968);
  expectOwnFailure(4058, badPointer(entry),
                   [&] { return mem.MEM_EHeapFreeEntry(heap, 969, entry); });
  expectNoGateCalls();
  EXPECT_EQ(changedRanges(before, bytesOf(entry, 968)), "");
  close(heap);
}

TEST_F(EHeapTest, PointerThatTheStorageCheckRefusesIsRefusedWithoutTheGate) {
  HMEMHEAP heap = open();
  std::uint8_t *entry = alloc(heap, 16);
  char foreign[64] = {};
  const std::uint8_t *const end = at(heap, kSmallArea);
  const Bytes before = bytesOf(heap, kSmallArea);
  for (const std::int32_t len : {-3, 16, 32, 968, 969, 2000, kLongest}) {
    for (const void *wrong :
         {static_cast<const void *>(nullptr), static_cast<const void *>(foreign),
          static_cast<const void *>(end - 8)}) {
      SCOPED_TRACE(len);
      expectOwnFailure(4058, badPointer(wrong), [&] {
        return mem.MEM_EHeapFreeEntry(heap, len, const_cast<void *>(wrong));
      });
      expectNoGateCalls();
      EXPECT_EQ(host.calls(Service::CheckStorage), 1U);
    }
  }
  // Whatever number the check answers with.
  for (const std::uint16_t code : {std::uint16_t{1}, std::uint16_t{0xFFFF}}) {
    refhost::Fault fault = faultOf(Service::CheckStorage, kHostError);
    fault.code = code;
    host.arm(fault);
    expectOwnFailure(4058, badPointer(entry),
                     [&] { return mem.MEM_EHeapFreeEntry(heap, 16, entry); });
    expectNoGateCalls();
  }
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  giveBack(heap, 16, entry);
  close(heap);
}

TEST_F(EHeapTest, LargeEntryThatIsNoneIsRefused) {
  HMEMHEAP heap = open(2);
  std::uint8_t *entry = alloc(heap, 5000);
  std::uint8_t *inArea = alloc(heap, 1900);
  const Bytes before = bytesOf(entry - 24, 5024);
  const auto expectBad = [&](std::int32_t len, std::uint8_t *wrong) {
    expectOwnFailure(4058, badPointer(wrong),
                     [&] { return mem.MEM_EHeapFreeEntry(heap, len, wrong); });
    expectNoGateCalls();
  };
  expectBad(5001, entry);       // longer than the block
  expectBad(2000, entry + 8);   // storage, but not at the start of an entry
  expectBad(1993, inArea);      // an area entry with a length of large ones
  expectBad(5000, entry - 24);  // the block itself
  store<char>(entry - 24, 7, 'X');
  expectBad(5000, entry);
  store<char>(entry - 24, 7, 'N');
  EXPECT_EQ(changedRanges(before, bytesOf(entry - 24, 5024)), "");
  giveBack(heap, 5000, entry);
  // A refusing check is the last word, whatever the block begins with.
  host.arm(faultOf(Service::CheckStorage, kHostError));
  expectBad(5000, entry);
  close(heap);
}

TEST_F(EHeapTest, RefusedGateLeavesTheEntryAsItWas) {
  HMEMHEAP heap = open();
  std::uint8_t *entry = alloc(heap, 24);
  const Bytes before = bytesOf(heap, kSmallArea);
  for (const std::uint32_t hostError : {0U, kHostError}) {
    host.arm(faultOf(Service::AcquireGate, hostError));
    expectOwnFailure(
        4057, "AcquireGate", [&] { return mem.MEM_EHeapFreeEntry(heap, 24, entry); },
        hostError == 0 ? kOwnMarks : kHostMarks);
    expectOnlyAcquireCalled();
    EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  }
  giveBack(heap, 24, entry);
  close(heap);
}

// Chains. Enhanced heaps give them through their own slots and through those of standard heaps.

class EHeapChainTest : public EHeapTest, public ::testing::WithParamInterface<ChainVariant> {
 protected:
  std::vector<std::uint8_t *> take(HMEMHEAP heap, std::int32_t len, std::int32_t count,
                                   std::int16_t linkOff) {
    void *first = nullptr;
    EXPECT_EQ(GetParam().alloc(mem, heap, len, count, linkOff, &first), 0);
    const auto entries = entriesOf(first, static_cast<std::size_t>(count), linkOff);
    EXPECT_EQ(entries.size(), static_cast<std::size_t>(count));
    return entries;
  }

  // The call fails so and changes neither the cell nor the heap.
  void expectRefusal(HMEMHEAP heap, std::int32_t count, std::int16_t linkOff, std::uint32_t code,
                     const std::string &name) {
    const Bytes before = bytesOf(heap, kSmallArea);
    void *entry = untouched();
    expectOwnFailure(code, name,
                     [&] { return GetParam().alloc(mem, heap, 8, count, linkOff, &entry); });
    expectNoGateCalls();
    EXPECT_EQ(entry, untouched());
    EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  }
};

INSTANTIATE_TEST_SUITE_P(Slots, EHeapChainTest,
                         ::testing::Values(ChainVariant{"OwnShort", chainOwnShort},
                                           ChainVariant{"OwnLong", chainOwnLong},
                                           ChainVariant{"StandardShort", chainShort},
                                           ChainVariant{"StandardLong", chainLong}),
                         caseName<ChainVariant>);

TEST_P(EHeapChainTest, OneEntryHasANullLink) {
  HMEMHEAP heap = open();
  const auto entries = take(heap, 24, 1, 8);
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_EQ(entries[0], at(heap, 64));
  EXPECT_TRUE(allBytesAre(entries[0], 8, kDirty));
  EXPECT_TRUE(allBytesAre(entries[0] + 8, 8, 0));
  EXPECT_TRUE(allBytesAre(entries[0] + 16, 8, kDirty));
  close(heap);
}

TEST_P(EHeapChainTest, EntriesAreConsecutiveAndOnlyLinksAreWritten) {
  for (const std::int16_t linkOff : Shorts{0, 3, 12, 16}) {  // any offset, aligned or not
    SCOPED_TRACE(linkOff);
    HMEMHEAP heap = open();
    const auto entries = take(heap, 21, 5, linkOff);
    ASSERT_EQ(entries.size(), 5U);
    const auto link = static_cast<std::size_t>(linkOff);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      EXPECT_EQ(entries[i], at(heap, 64 + 24 * i));
      EXPECT_TRUE(allBytesAre(entries[i], link, kDirty));
      EXPECT_TRUE(allBytesAre(entries[i] + link + 8, 24 - link - 8, kDirty));
    }
    EXPECT_TRUE(allBytesAre(at(heap, 64 + 5 * 24), 1024 - 64 - 5 * 24, kDirty));
    close(heap);
  }
}

TEST_P(EHeapChainTest, ShortLengthsGiveEntriesOf16Bytes) {
  for (const std::int32_t len : {-32768, -5, 0, 1, 16}) {
    SCOPED_TRACE(len);
    HMEMHEAP heap = open();
    const auto entries = take(heap, len, 3, 8);
    ASSERT_EQ(entries.size(), 3U);
    for (std::size_t i = 0; i < entries.size(); ++i) EXPECT_EQ(entries[i], at(heap, 64 + 16 * i));
    close(heap);
  }
}

TEST_P(EHeapChainTest, LinkMayLieBeyondTheEntry) {
  HMEMHEAP heap = open();
  void *first = nullptr;
  ASSERT_EQ(GetParam().alloc(mem, heap, 8, 3, 20, &first), 0);
  // Entries at 64, 80 and 96 with links at 84, 100 and 116.
  EXPECT_EQ(first, at(heap, 64));
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 84), at(heap, 80));
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 100), at(heap, 96));
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 116), nullptr);
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 112U);
  close(heap);
}

TEST_P(EHeapChainTest, ChainRunsThroughAreasAndLargeBlocks) {
  HMEMHEAP heap = open();
  const auto entries = take(heap, 400, 5, 0);  // two in each area
  ASSERT_EQ(entries.size(), 5U);
  auto *second = pointerAt<std::uint8_t>(heap, 8);
  auto *third = pointerAt<std::uint8_t>(second, 8);
  EXPECT_EQ(entries, (std::vector<std::uint8_t *>{at(heap, 64), at(heap, 464), second + 24,
                                                  second + 424, third + 24}));
  const auto large = take(heap, 32767, 3, 32760);
  ASSERT_EQ(large.size(), 3U);
  for (const std::uint8_t *entry : large) EXPECT_EQ(eyecatcher(entry - 24), "QQQHBLKN");
  EXPECT_EQ(pointerAt<std::uint8_t>(heap, 48), large[2] - 24);
  close(heap);
}

TEST_P(EHeapChainTest, GateIsTakenForEachEntryAndNotForTheChain) {
  HMEMHEAP heap = open();
  const std::string gate = std::to_string(gateOf(heap));
  Lines lines = hostCalls([&] { take(heap, 16, 3, 0); });
  Lines inner;
  for (const std::string &line : lines) {
    if (line.find("MEM_EHeapAllocEntry: ") == 0) inner.push_back(line.substr(21));
  }
  Lines expected;
  for (int i = 0; i < 3; ++i) {
    for (const std::string &line :
         {std::string("EnterFrame(frame, 3)"), "AcquireGate(" + gate + ")",
          "ReleaseGate(" + gate + ")", std::string("LeaveFrame(frame, 3)")}) {
      expected.push_back(line);
    }
  }
  EXPECT_EQ(inner, expected);
  // Around them are the chain's own frame and, through a standard slot, that slot's.
  const bool isOwn = GetParam().alloc == chainOwnShort || GetParam().alloc == chainOwnLong;
  EXPECT_EQ(lines.size(), expected.size() + (isOwn ? 2U : 4U));
  close(heap);
}

TEST_P(EHeapChainTest, CountBelow1IsRefused) {
  HMEMHEAP heap = open();
  for (const std::int32_t count : {0, -1, -32768}) {
    expectRefusal(heap, count, 0, 4053, "Num of entries=" + std::to_string(count) + " too small");
  }
  close(heap);
}

TEST_P(EHeapChainTest, NegativeLinkOffsetIsRefused) {
  HMEMHEAP heap = open();
  for (const std::int16_t linkOff : Shorts{-1, -8, -32768}) {
    expectRefusal(heap, 1, linkOff, 4054,
                  "Link offset=" + std::to_string(linkOff) + " less than zero");
  }
  expectRefusal(heap, 0, -1, 4053, "Num of entries=0 too small");  // the count comes first
  close(heap);
}

TEST_P(EHeapChainTest, FailureInTheMiddleKeepsWhatWasCarved) {
  HMEMHEAP heap = open();
  refhost::Fault second = faultOf(Service::GetStorage, kHostError);
  second.nth = 2;
  host.arm(second);
  void *entry = untouched();
  expectOwnFailure(4055, "MemAllocFail",
                   [&] { return GetParam().alloc(mem, heap, 400, 9, 8, &entry); });
  EXPECT_EQ(entry, untouched());
  EXPECT_EQ(host.calls(Service::AcquireGate), 5U);
  EXPECT_EQ(host.calls(Service::ReleaseGate), 5U);
  // Two entries in the first area and two in the second are linked; the last has no end mark.
  auto *area = pointerAt<std::uint8_t>(heap, 40);
  ASSERT_NE(static_cast<void *>(area), heap);
  EXPECT_EQ(pointerAt<std::uint8_t>(at(heap, 64), 8), at(heap, 464));
  EXPECT_EQ(pointerAt<std::uint8_t>(at(heap, 464), 8), area + 24);
  EXPECT_EQ(pointerAt<std::uint8_t>(area + 24, 8), area + 424);
  EXPECT_TRUE(allBytesAre(area + 424, 400, kDirty));
  EXPECT_EQ(alloc(heap, 100), area + 824);
  close(heap);
}

TEST_P(EHeapChainTest, GateRefusedInTheMiddle) {
  HMEMHEAP heap = open();
  refhost::Fault third = faultOf(Service::AcquireGate, kHostError);
  third.nth = 3;
  host.arm(third);
  void *entry = untouched();
  expectOwnFailure(
      4057, "AcquireGate", [&] { return GetParam().alloc(mem, heap, 16, 5, 8, &entry); },
      kHostMarks);
  EXPECT_EQ(entry, untouched());
  EXPECT_EQ(host.calls(Service::AcquireGate), 3U);
  EXPECT_EQ(host.calls(Service::ReleaseGate), 2U);
  EXPECT_EQ(pointerAt<std::uint8_t>(at(heap, 64), 8), at(heap, 80));
  EXPECT_TRUE(allBytesAre(at(heap, 80), 16, kDirty));
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 96U);
  close(heap);
}

TEST_P(EHeapChainTest, SuccessRecordsNothing) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  expectEnds(0, [&] { return GetParam().alloc(mem, heap, 500, 4, 0, &entry); });
  close(heap);
}

TEST_P(EHeapChainTest, EachEntryComesThroughSlot38) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open();
  watch.uses.clear();
  const AddressNames names = {{asNumber(heap), "heap"}};
  take(heap, 12, 3, 0);
  EXPECT_EQ(watch.takeLines(names), (Lines{"38(heap, 12)", "38(heap, 12)", "38(heap, 12)"}));
  for (const std::int16_t result : Shorts{-1, 5, -32768}) {
    watch.enhancedResult = result;
    void *entry = untouched();
    expectEnds(-1, [&] { return GetParam().alloc(mem, heap, -5, 3, 0, &entry); });
    EXPECT_EQ(watch.takeLines(names), (Lines{"38(heap, -5)"}));
    EXPECT_EQ(entry, untouched());
  }
  close(heap);
}

TEST_P(EHeapChainTest, EntriesOfAReplacedSlot38AreLinked) {
  static std::uint8_t entries[3][24];
  static int next;
  std::memset(entries, 0x66, sizeof entries);
  next = 3;
  mem.MEM_EHeapAllocEntry = [](HMEMHEAP, std::int32_t, void **ppEntry) {
    *ppEntry = entries[--next];
    return std::int16_t{0};
  };
  HMEMHEAP heap = open();
  void *first = nullptr;
  EXPECT_EQ(GetParam().alloc(mem, heap, 24, 3, 16, &first), 0);
  EXPECT_EQ(first, entries[2]);
  EXPECT_EQ(pointerAt<void>(entries[2], 16), entries[1]);
  EXPECT_EQ(pointerAt<void>(entries[1], 16), entries[0]);
  EXPECT_EQ(pointerAt<void>(entries[0], 16), nullptr);
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 64U);
  close(heap);
}

TEST_F(EHeapTest, LongestShortChain) {
  HMEMHEAP heap = open(256);
  for (const auto &chain : {chainOwnShort, chainShort}) {
    void *entry = nullptr;
    ASSERT_EQ(chain(mem, heap, 8, 32767, 0, &entry), 0);
    EXPECT_EQ(entriesOf(entry, 32767, 0).size(), 32767U);
  }
  close(heap);
}

TEST_F(EHeapTest, LongChainTakesCountsAndLengthsBeyond16Bits) {
  HMEMHEAP heap = open(256);
  for (const auto &chain : {chainOwnLong, chainLong}) {
    void *entry = nullptr;
    ASSERT_EQ(chain(mem, heap, 8, 65537, 0, &entry), 0);
    EXPECT_EQ(entriesOf(entry, 65537, 0).size(), 65537U);
  }
  for (const auto &chain : {chainOwnShort, chainOwnLong, chainLong}) {
    void *entry = nullptr;
    ASSERT_EQ(chain(mem, heap, 65536 + 300000, 2, 32767, &entry), 0);
    EXPECT_EQ(load<std::uint32_t>(at(entry, 0) - 24, 16), 365536U + 24U);
  }
  void *entry = untouched();
  for (const std::int32_t count : {-65536, -65535, -kLongest - 1}) {
    expectOwnFailure(4053, "Num of entries=" + std::to_string(count) + " too small",
                     [&] { return chainOwnLong(mem, heap, 8, count, 0, &entry); });
  }
  expectOwnFailure(4055, "MemAllocBlkFail",
                   [&] { return chainOwnLong(mem, heap, kLongest, kLongest, 0, &entry); });
  close(heap);
}

}  // namespace
}  // namespace memtest
