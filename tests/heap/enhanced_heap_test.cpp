// The enhanced heap alone: its gate and flags, its free list, freed entries, its trace records.
// What it shares with the standard heap is tested in heap_test.cpp.

#include <utility>

#include "heapfixture.hpp"

namespace memtest {
namespace {

using refhost::Service;

inline std::string badPointer(const void *entry) {
  return "BuffPtr=" + hex16(entry);
}

class EHeapTest : public HeapFixture {
 protected:
  EHeapTest() : HeapFixture(kEnhanced) {}

  void giveBack(HMEMHEAP heap, std::int32_t len, void *entry) {
    EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, len, entry), 0);
  }

  // The gate service was asked once, in vain, and nothing was released.
  void expectOnlyAcquireCalled() {
    EXPECT_EQ(host.calls(Service::AcquireGate), 1U);
    EXPECT_EQ(host.calls(Service::ReleaseGate), 0U);
    EXPECT_EQ(host.calls(Service::GetStorage), 0U);
  }

  // Host calls of a service between taking and releasing the heap's gate.
  static Lines gated(HMEMHEAP heap, const Lines &inner = {}) {
    const std::string gate = "Gate(" + std::to_string(load<std::uint32_t>(heap, 24)) + ")";
    return joined({{"Acquire" + gate}, inner, {"Release" + gate}});
  }

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

// Opening.

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

TEST_F(EHeapTest, NobodyWaitsForAnotherHeapsGate) {
  HMEMHEAP first = open();
  HMEMHEAP second = open();
  EXPECT_NE(gateOf(first), gateOf(second));
  ASSERT_EQ(host.runtime().AcquireGate(gateOf(first)), 0);
  EXPECT_EQ(alloc(second, 16), entriesAt(second));
  host.runtime().ReleaseGate(gateOf(first));
  close(first);
  close(second);
}

// Single entries. All three entry points give the same for the same length.

class EHeapEntryTest : public EHeapTest, public ::testing::WithParamInterface<EntrySlot> {
 protected:
  std::uint8_t *take(HMEMHEAP heap, std::int32_t len) {
    void *entry = nullptr;
    EXPECT_EQ(GetParam().alloc(mem, heap, len, &entry), 0) << "length " << len;
    return static_cast<std::uint8_t *>(entry);
  }

  // Host calls of the enhanced heap's own slot, as they are through this one.
  static Lines throughSlot(const Lines &inner) {
    const Lines own = framed("MEM_EHeapAllocEntry", inner);
    if (GetParam().alloc == allocShort) return framed("MEM_HeapAllocEntry", own);
    return GetParam().alloc == allocLong ? framed("Mem_HeapAllocEntryLong", own) : own;
  }
};

INSTANTIATE_TEST_SUITE_P(Slots, EHeapEntryTest,
                         ::testing::ValuesIn(slotsOf(kEnhanced, kEntrySlots)), caseName<EntrySlot>);

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
  EXPECT_EQ(hostCalls([&] { take(heap, 100); }), throughSlot(gated(heap)));
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

TEST_P(EHeapEntryTest, RefusedGateIsReportedWithTheHostsError) {
  HMEMHEAP heap = open();
  for (const std::int32_t len : {8, 968, 969}) {
    for (const std::uint32_t hostError : {0U, kHostError}) {
      host.arm(faultOf(Service::AcquireGate, hostError));
      const Bytes before = bytesOf(heap, kSmallArea);
      void *entry = untouched();
      expectOwnFailure(
          4057, "AcquireGate", [&] { return GetParam().alloc(mem, heap, len, &entry); },
          hostError == 0 ? kOwnMarks : kHostMarks);
      expectOnlyAcquireCalled();
      EXPECT_EQ(entry, untouched());
      EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
    }
  }
  EXPECT_EQ(take(heap, 8), at(heap, 64));
  close(heap);
}

TEST_P(EHeapEntryTest, GateIsReleasedAfterTheReport) {
  HMEMHEAP heap = open();
  const Lines lines = hostCalls(
      [&] {
        void *entry = nullptr;
        host.arm(faultOf(Service::GetStorage));
        EXPECT_EQ(GetParam().alloc(mem, heap, 968, &entry), kFailed);
      },
      {{asNumber(error().NameText), "name"}});
  const Lines inner = joined({allocLines(1024, kSubPool), {"ReportError(name, ?)"}});
  EXPECT_EQ(lines, throughSlot(gated(heap, inner)));
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

// Freeing.

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
  EXPECT_EQ(hostCalls([&] { giveBack(heap, 20, entry); }, {{asNumber(entry), "entry"}}),
            framed("MEM_EHeapFreeEntry", joined({{"CheckStorage(entry, 24)"}, gated(heap)})));
  close(heap);
}

TEST_F(EHeapTest, LargeEntryIsOnlyChecked) {
  HMEMHEAP heap = open();
  std::uint8_t *entry = alloc(heap, 969);
  std::uint8_t *block = entry - 24;
  const Bytes before = bytesOf(block, 1000);
  const Bytes area = bytesOf(heap, kSmallArea);
  const Lines expected = framed("MEM_EHeapFreeEntry", {"CheckStorage(block, 1000)"});
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

class EHeapChainTest : public EHeapTest, public ::testing::WithParamInterface<ChainSlot> {
 protected:
  std::vector<std::uint8_t *> take(HMEMHEAP heap, std::int32_t len, std::int32_t count,
                                   std::int16_t linkOff) {
    void *first = nullptr;
    EXPECT_EQ(GetParam().alloc(mem, heap, len, count, linkOff, &first), 0);
    return entriesOf(first, static_cast<std::size_t>(count), linkOff);
  }
};

INSTANTIATE_TEST_SUITE_P(Slots, EHeapChainTest,
                         ::testing::ValuesIn(slotsOf(kEnhanced, kChainSlots)), caseName<ChainSlot>);

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

TEST_P(EHeapChainTest, GateIsTakenForEachEntryAndNotForTheChain) {
  HMEMHEAP heap = open();
  const Lines entry = framed("MEM_EHeapAllocEntry", gated(heap));
  const bool isLong = GetParam().alloc == chainLong || GetParam().alloc == chainOwnLong;
  const std::string chain = isLong ? "AllocLongMultEntries" : "AllocMultEntries";
  Lines expected = framed("MEM_EHeap" + chain, joined({entry, entry, entry}));
  const bool isOwn = GetParam().alloc == chainOwnShort || GetParam().alloc == chainOwnLong;
  if (!isOwn) expected = framed("MEM_Heap" + chain, expected);
  EXPECT_EQ(hostCalls([&] { take(heap, 16, 3, 0); }), expected);
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

// The gate and the flags.

// Notes, at every service that an operation uses, what the heap's flags are and whether the gate is
// held at that moment: "AcquireGate: flags 0, free". One at a time; the slots keep the forwarders
// until the host restores them.
class GateWatch {
 public:
  GateWatch(refhost::Host &host, HMEMHEAP heap)
      : host_(host),
        heap_(heap),
        runtime_(host.runtime()),
        mem_(host.vector()),
        report_(host.text().ReportError) {
    watch_ = this;
    host.runtime().AcquireGate = [](std::uint32_t hGate) {
      watch_->note("AcquireGate");
      return watch_->runtime_.AcquireGate(hGate);
    };
    host.runtime().ReleaseGate = [](std::uint32_t hGate) {
      watch_->note("ReleaseGate");
      watch_->runtime_.ReleaseGate(hGate);
    };
    host.runtime().CheckStorage = [](const void *area, std::uint32_t length) {
      watch_->note("CheckStorage");
      return watch_->runtime_.CheckStorage(area, length);
    };
    host.vector().MEM_Alloc = [](std::uint32_t size, std::int16_t subPool) {
      watch_->note("MEM_Alloc");
      return watch_->mem_.MEM_Alloc(size, subPool);
    };
    host.vector().MEM_Free = [](void *area, std::uint32_t size, std::int16_t subPool) {
      watch_->note("MEM_Free");
      watch_->mem_.MEM_Free(area, size, subPool);
    };
    host.text().ReportError = [](char *text, const char *detail) {
      watch_->note("ReportError");
      watch_->report_(text, detail);
    };
  }
  GateWatch(const GateWatch &) = delete;
  GateWatch &operator=(const GateWatch &) = delete;

  Lines take() { return std::exchange(lines_, {}); }

 private:
  void note(const std::string &service) {
    const bool isHeld = host_.heldGateCount() != 0;
    lines_.push_back(service + ": flags " + std::to_string(load<std::uint8_t>(heap_, 30)) +
                     (isHeld ? ", held" : ", free"));
  }

  inline static GateWatch *watch_ = nullptr;
  refhost::Host &host_;
  HMEMHEAP const heap_;
  const MEMRuntimeServices runtime_;
  const MEMFunctionVector mem_;
  decltype(MEMTextServices::ReportError) const report_;
  Lines lines_;
};

TEST_F(EHeapTest, FlagsTellThatTheGateIsHeldWhileItIs) {
  HMEMHEAP heap = open();
  GateWatch watch(host, heap);
  std::uint8_t *entry = alloc(heap, 900);
  EXPECT_EQ(watch.take(), (Lines{"AcquireGate: flags 0, free", "ReleaseGate: flags 0, held"}));
  alloc(heap, 900);
  EXPECT_EQ(watch.take(), (Lines{"AcquireGate: flags 0, free", "MEM_Alloc: flags 1, held",
                                 "ReleaseGate: flags 0, held"}));
  giveBack(heap, 900, entry);
  EXPECT_EQ(watch.take(), (Lines{"CheckStorage: flags 0, free", "AcquireGate: flags 0, free",
                                 "ReleaseGate: flags 0, held"}));
  entry = alloc(heap, 969);
  EXPECT_EQ(watch.take(), (Lines{"AcquireGate: flags 0, free", "MEM_Alloc: flags 1, held",
                                 "ReleaseGate: flags 2, held"}));
  alloc(heap, 969);
  EXPECT_EQ(watch.take(), (Lines{"AcquireGate: flags 2, free", "MEM_Alloc: flags 3, held",
                                 "ReleaseGate: flags 2, held"}));
  giveBack(heap, 969, entry);
  EXPECT_EQ(watch.take(), (Lines{"CheckStorage: flags 2, free"}));
  void *first = nullptr;
  EXPECT_EQ(mem.MEM_EHeapAllocMultEntries(heap, 16, 2, 0, &first), 0);
  EXPECT_EQ(watch.take(), (Lines{"AcquireGate: flags 2, free", "ReleaseGate: flags 2, held",
                                 "AcquireGate: flags 2, free", "ReleaseGate: flags 2, held"}));
  EXPECT_EQ(flagsOf(heap), kLargeMade);
  host.restoreSlots();
  close(heap);
}

TEST_F(EHeapTest, FlagsAtFailures) {
  HMEMHEAP heap = open();
  std::uint8_t *entry = alloc(heap, 16);
  void *cell = nullptr;
  GateWatch watch(host, heap);
  for (const std::int32_t len : {968, 969}) {
    host.arm(faultOf(Service::GetStorage));
    EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, len, &cell), kFailed);
    EXPECT_EQ(watch.take(), (Lines{"AcquireGate: flags 0, free", "MEM_Alloc: flags 1, held",
                                   "ReportError: flags 1, held", "ReleaseGate: flags 0, held"}));
  }
  host.arm(faultOf(Service::AcquireGate));
  EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, 8, &cell), kFailed);
  EXPECT_EQ(watch.take(), (Lines{"AcquireGate: flags 0, free", "ReportError: flags 0, free"}));
  host.arm(faultOf(Service::AcquireGate));
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, 8, entry), kFailed);
  EXPECT_EQ(watch.take(), (Lines{"CheckStorage: flags 0, free", "AcquireGate: flags 0, free",
                                 "ReportError: flags 0, free"}));
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, 8, nullptr), kFailed);
  EXPECT_EQ(watch.take(), (Lines{"CheckStorage: flags 0, free", "ReportError: flags 0, free"}));
  EXPECT_EQ(flagsOf(heap), 0);
  host.restoreSlots();
  close(heap);
}

TEST_F(EHeapTest, OtherBitsOfTheFlagsAreLeftAlone) {
  HMEMHEAP heap = open();
  store<std::uint8_t>(heap, 30, 0xFC);
  std::uint8_t *entry = alloc(heap, 16);
  EXPECT_EQ(flagsOf(heap), 0xFC);
  giveBack(heap, 16, entry);
  EXPECT_EQ(flagsOf(heap), 0xFC);
  alloc(heap, 2000);
  EXPECT_EQ(flagsOf(heap), 0xFE);
  close(heap);
}

// The flags are shared: that they show a held gate does not mean that this call holds it.
TEST_F(EHeapTest, GateThatIsHeldElsewhereIsNeverReleasedByAFailure) {
  HMEMHEAP heap = open();
  std::uint8_t *entry = alloc(heap, 16);
  std::uint8_t *large = alloc(heap, 2000);
  ASSERT_EQ(host.runtime().AcquireGate(gateOf(heap)), 0);
  store<std::uint8_t>(heap, 30, kGateHeld | kLargeMade);
  void *cell = nullptr;
  const auto expectStillHeld = [&](std::uint32_t code, const auto &call) {
    host.resetCalls();
    EXPECT_EQ(call(), kFailed);
    EXPECT_EQ(error().Code, code);
    EXPECT_EQ(host.heldGateCount(), 1U);
    EXPECT_EQ(host.calls(Service::ReleaseGate), 0U);
    EXPECT_EQ(flagsOf(heap), kGateHeld | kLargeMade);
  };
  expectStillHeld(4058, [&] { return mem.MEM_EHeapFreeEntry(heap, 16, nullptr); });
  expectStillHeld(4058, [&] { return mem.MEM_EHeapFreeEntry(heap, 2000, large + 8); });
  host.arm(faultOf(Service::AcquireGate));
  expectStillHeld(4057, [&] { return mem.MEM_EHeapFreeEntry(heap, 16, entry); });
  host.arm(faultOf(Service::AcquireGate));
  expectStillHeld(4057, [&] { return mem.MEM_EHeapAllocEntry(heap, 16, &cell); });
  expectStillHeld(4053, [&] { return chainOwnLong(mem, heap, 16, 0, 0, &cell); });
  host.arm(faultOf(Service::AcquireGate));
  expectStillHeld(4057, [&] { return mem.MEM_EHeapClose(heap); });
  store<std::uint8_t>(heap, 30, kLargeMade);
  host.runtime().ReleaseGate(gateOf(heap));
  close(heap);
}

TEST_F(EHeapTest, CloseWithoutTheGateLeavesTheHeapOpen) {
  HMEMHEAP heap = open();
  alloc(heap, 2000);
  const Bytes before = bytesOf(heap, kSmallArea);
  const refhost::Account account = host.account();
  for (const std::uint32_t hostError : {0U, kHostError}) {
    host.arm(faultOf(Service::AcquireGate, hostError));
    expectOwnFailure(
        4057, "AcquireGate", [&] { return mem.MEM_EHeapClose(heap); },
        hostError == 0 ? kOwnMarks : kHostMarks);
    expectOnlyAcquireCalled();
    EXPECT_EQ(host.calls(Service::DeleteGate), 0U);
    EXPECT_EQ(host.account().liveBytes, account.liveBytes);
    EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  }
  EXPECT_EQ(alloc(heap, 8), at(heap, 64));
  close(heap);
}

// Slots.

TEST_F(EHeapTest, StandardEntryPointsUseSlot38) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open();
  watch.uses.clear();
  const AddressNames names = {{asNumber(heap), "heap"}};
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_HeapAllocEntry(heap, -32768, &entry), 0);
  EXPECT_EQ(entry, at(heap, 64));
  EXPECT_EQ(watch.takeLines(names), (Lines{"12(heap, -32768)", "38(heap, -32768)"}));
  EXPECT_EQ(mem.MEM_HeapAllocEntryLong(heap, 70000, &entry), 0);
  EXPECT_EQ(watch.takeLines(names), (Lines{"14(heap, 70000)", "38(heap, 70000)", "8(70024, 7)"}));
  close(heap);
}

// Trace records.

TEST_F(EHeapTest, TraceOfEntries) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  const std::string handle = "hMemHeap=" + lowHex(heap);
  const std::string cell = ", ppEntry=" + lowHex(&entry);
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_EHeapAllocEntry(heap, -17, &entry); }),
            (Lines{entryLine("MEM_EHeapAllocEntry", handle + ", Len=-17" + cell),
                   exitLine("MEM_EHeapAllocEntry")}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_EHeapFreeEntry(heap, -17, entry); }),
            (Lines{entryLine("MEM_EHeapFreeEntry", handle + ", Len=-17, ppEntry=" + lowHex(entry)),
                   exitLine("MEM_EHeapFreeEntry")}));
  EXPECT_EQ(heapTraced(kBoth, [&] { mem.MEM_EHeapAllocEntry(heap, 70000, &entry); }),
            (Lines{entryLine("MEM_EHeapAllocEntry", handle + ", Len=70000" + cell),
                   exitLine("MEM_EHeapAllocEntry")}));
  EXPECT_EQ(
      traced(kBoth, [&] { mem.MEM_EHeapFreeEntry(heap, 70000, entry); }),
      (Lines{entryLine("MEM_EHeapFreeEntry", handle + ", Len=70000, ppEntry=" + lowHex(entry)),
             exitLine("MEM_EHeapFreeEntry")}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_HeapAllocEntry(heap, 17, &entry); }),
            (Lines{entryLine("MEM_HeapAllocEntry", handle + ", Len=17" + cell),
                   entryLine("MEM_EHeapAllocEntry", handle + ", Len=17" + cell),
                   exitLine("MEM_EHeapAllocEntry"), exitLine("MEM_HeapAllocEntry")}));
  close(heap);
}

TEST_F(EHeapTest, TraceOfChains) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  const std::string handle = "hMemHeap=" + lowHex(heap);
  const std::string cell = ", ppEntry=" + lowHex(&entry);
  const std::string count = ", NumEnties= 2, LinkOff=8";
  const struct {
    ChainFn *chain;
    const char *standard;
    const char *own;
  } cases[] = {
      {chainOwnShort, nullptr, "MEM_EHeapAllocMultEntries"},
      {chainOwnLong, nullptr, "MEM_EHeapAllocLongMultEntries"},
      {chainShort, "MEM_HeapAllocMultEntries", "MEM_EHeapAllocMultEntries"},
      {chainLong, "MEM_HeapAllocLongMultEntries", "MEM_EHeapAllocLongMultEntries"},
  };
  for (const auto &row : cases) {
    Lines lines = traced(kBoth, [&] { row.chain(mem, heap, 16, 2, 8, &entry); });
    if (row.standard != nullptr) {
      ASSERT_EQ(lines.size(), 8U);
      EXPECT_EQ(lines.front(), entryLine(row.standard, handle + ", Len=16" + count + cell));
      EXPECT_EQ(lines.back(), exitLine(row.standard));
      lines = Lines(lines.begin() + 1, lines.end() - 1);
    }
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[0], entryLine(row.own, handle + ", Len=16" + count + cell));
    // The single entry's cell is the chain's own business.
    for (const std::size_t i : {1U, 3U}) {
      const std::string start = entryLine("MEM_EHeapAllocEntry", handle + ", Len=16, ppEntry=");
      EXPECT_EQ(lines[i].find(start), 0U) << lines[i];
      EXPECT_EQ(lines[i + 1], exitLine("MEM_EHeapAllocEntry"));
    }
    EXPECT_EQ(lines[5], exitLine(row.own));
  }
  close(heap);
}

TEST_F(EHeapTest, FailuresHaveNoExitRecord) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  const std::string cell = ", ppEntry=" + lowHex(&entry);
  const std::string handle = "hMemHeap=" + lowHex(heap);
  HMEMHEAP other = nullptr;
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_EHeapOpen(&other, -32768, 0x8000); }),
            (Lines{entryLine("MEM_EHeapOpen",
                             "phMemHeap=" + lowHex(&other) + ", AreaLen=-32768, SubPool=-32768")}));
  host.arm(faultOf(Service::CreateGate));
  EXPECT_EQ(traced(MEM_TRACE_EXIT, [&] { mem.MEM_EHeapOpen(&other, 1, 7); }), (Lines{}));
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(heapTraced(MEM_TRACE_EXIT, [&] { mem.MEM_EHeapOpen(&other, 1, 7); }), (Lines{}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_EHeapClose(nullptr); }),
            (Lines{entryLine("MEM_EHeapClose", "hMemHeap=0")}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_EHeapAllocEntry(nullptr, -kLongest - 1, &entry); }),
            (Lines{entryLine("MEM_EHeapAllocEntry", "hMemHeap=0, Len=-2147483648" + cell)}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_EHeapFreeEntry(heap, kLongest, nullptr); }),
            (Lines{entryLine("MEM_EHeapFreeEntry", handle + ", Len=2147483647, ppEntry=0")}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_EHeapFreeEntry(heap, 8, nullptr); }),
            (Lines{entryLine("MEM_EHeapFreeEntry", handle + ", Len=8, ppEntry=0")}));
  EXPECT_EQ(traced(kBoth, [&] { chainOwnShort(mem, heap, -70000, -2, -3, &entry); }),
            (Lines{entryLine("MEM_EHeapAllocMultEntries",
                             handle + ", Len=-70000, NumEnties= -2, LinkOff=-3" + cell)}));
  EXPECT_EQ(traced(kBoth, [&] { chainOwnLong(mem, heap, -1, -70000, -3, &entry); }),
            (Lines{entryLine("MEM_EHeapAllocLongMultEntries",
                             handle + ", Len=-1, NumEnties= -70000, LinkOff=-3" + cell)}));
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(heapTraced(MEM_TRACE_EXIT, [&] { chainShort(mem, heap, 480, 3, 0, &entry); }),
            (Lines{exitLine("MEM_EHeapAllocEntry"), exitLine("MEM_EHeapAllocEntry")}));
  host.arm(faultOf(Service::AcquireGate));
  EXPECT_EQ(traced(MEM_TRACE_EXIT, [&] { mem.MEM_EHeapClose(heap); }), (Lines{}));
  close(heap);
}

TEST_F(EHeapTest, StorageLinesOfOneLife) {
  HMEMHEAP heap = nullptr;
  void *entry = nullptr;
  const auto linesOf = [this](auto call) { return traced(MEM_TRACE_STORAGE, call); };

  Lines lines = linesOf([&] { heap = open(3); });
  EXPECT_EQ(lines, (Lines{storageLine("MEM_EHeapOpen", "Allocating Enhanced Heap header block" +
                                                           atLine(heap, 3072))}));
  EXPECT_EQ(linesOf([&] { entry = alloc(heap, 1984); }), (Lines{}));
  EXPECT_EQ(linesOf([&] { giveBack(heap, 1984, entry); }), (Lines{}));

  lines = linesOf([&] { entry = alloc(heap, 1992); });
  void *const area = at(entry, 0) - 24;
  EXPECT_EQ(lines, (Lines{storageLine("MEM_EHeapAllocEntry",
                                      "Allocating Std Heap block" + atLine(area, 3072))}));

  lines = linesOf([&] { entry = alloc(heap, 3017); });
  void *const block = at(entry, 0) - 24;
  const std::string eightDigits = refhost::formatText("%08X", block);
  EXPECT_EQ(eightDigits.size(), 8U);
  EXPECT_EQ(lines, (Lines{storageLine("MEM_EHeapAllocEntry", "Allocating Large Heap block, ptr=" +
                                                                 eightDigits + ", size=3048")}));
  EXPECT_EQ(linesOf([&] { giveBack(heap, 3017, entry); }), (Lines{}));

  lines = linesOf([&] { chainOwnShort(mem, heap, 8, 2, 0, &entry); });
  EXPECT_EQ(lines, (Lines{}));
  const std::string standard = "Mem_HeapAllocEntryLong";
  lines = linesOf([&] { mem.MEM_HeapAllocEntryLong(heap, 8, &entry); });
  EXPECT_EQ(lines, (Lines{storageLine(standard, "Enhanced heap")}));
  lines = linesOf([&] { chainShort(mem, heap, 8, 2, 0, &entry); });
  EXPECT_EQ(lines, (Lines{storageLine("MEM_HeapAllocMultEntries", "Enhanced heap")}));
  lines = linesOf([&] { chainLong(mem, heap, 8, 2, 0, &entry); });
  EXPECT_EQ(lines, (Lines{storageLine("MEM_HeapAllocLongMultEntries", "Enhanced heap")}));

  lines = linesOf([&] { close(heap); });
  EXPECT_EQ(lines,
            (Lines{storageLine("MEM_EHeapClose", "Freeing Large Heap block" + atLine(block, 3048)),
                   storageLine("MEM_EHeapClose", "Freeing std Heap area" + atLine(heap, 3072)),
                   storageLine("MEM_EHeapClose", "Freeing std Heap area" + atLine(area, 3072))}));
}

TEST_F(EHeapTest, StorageLinesStandBetweenTheStorageCallAndWhatFollows) {
  const Lines written = {"Format()", "WriteRecord()"};
  HMEMHEAP heap = nullptr;
  host.setTraceFlags(MEM_TRACE_STORAGE);
  EXPECT_EQ(
      hostCalls([&] { heap = open(); }),
      framed("MEM_EHeapOpen", joined({{"CreateGate(cell)"}, allocLines(1024, kSubPool), written})));
  for (const std::int32_t len : {968, 969}) {
    const Lines inner = joined({allocLines(len == 968 ? 1024 : 1000, kSubPool), written});
    EXPECT_EQ(hostCalls([&] { alloc(heap, len); }),
              framed("MEM_EHeapAllocEntry", gated(heap, inner)));
  }
  const std::string gate = "Gate(" + std::to_string(gateOf(heap)) + ")";
  const Lines lines = hostCalls([&] { close(heap); });
  ASSERT_GT(lines.size(), 5U);
  Lines begun = framed("MEM_EHeapClose", joined({{"Acquire" + gate}, written}));
  begun.back() = "MEM_Free: EnterFrame(frame, 3)";
  EXPECT_EQ(Lines(lines.begin(), lines.begin() + 5), begun);
  host.setTraceFlags(0);
}

TEST_F(EHeapTest, ExitRecordsAreWrittenWhenTheGateIsFree) {
  HMEMHEAP heap = open();
  const std::string gate = "Gate(" + std::to_string(gateOf(heap)) + ")";
  host.setTraceFlags(MEM_TRACE_EXIT);
  std::uint8_t *entry = nullptr;
  EXPECT_EQ(hostCalls([&] { entry = alloc(heap, 8); }),
            framed("MEM_EHeapAllocEntry", joined({gated(heap), {"WriteRecord()"}})));
  EXPECT_EQ(hostCalls([&] { giveBack(heap, 8, entry); }, {{asNumber(entry), "entry"}}),
            framed("MEM_EHeapFreeEntry",
                   joined({{"CheckStorage(entry, 16)"}, gated(heap), {"WriteRecord()"}})));
  const Lines lines = hostCalls([&] { close(heap); });
  ASSERT_GT(lines.size(), 4U);
  const Lines end = framed("MEM_EHeapClose", {"Release" + gate, "Delete" + gate, "WriteRecord()"});
  EXPECT_EQ(Lines(lines.end() - 4, lines.end()), Lines(end.begin() + 1, end.end()));
  host.setTraceFlags(0);
}

// A host without a thread environment.

TEST_F(EHeapTest, FailuresWithoutAThreadEnvironmentAreTolerated) {
  host.setTraceFlags(0xFFFFFFFFU);
  host.withoutThreadEnv(true);
  const Bytes before = envBytes(env());
  HMEMHEAP heap = open();
  alloc(heap, 968);
  giveBack(heap, 969, alloc(heap, 969));
  giveBack(heap, 8, alloc(heap, 8));
  void *entry = untouched();
  EXPECT_EQ(mem.MEM_EHeapAllocEntry(nullptr, 8, &entry), kFailed);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, 969, heap), kFailed);
  EXPECT_EQ(chainOwnShort(mem, heap, 8, 0, 0, &entry), kFailed);
  EXPECT_EQ(chainOwnLong(mem, heap, 8, 1, -1, &entry), kFailed);
  for (const Service service : {Service::CreateGate, Service::GetStorage}) {
    HMEMHEAP other = nullptr;
    host.arm(faultOf(service));
    EXPECT_EQ(mem.MEM_EHeapOpen(&other, 1, kSubPool), kFailed);
  }
  host.arm(faultOf(Service::AcquireGate));
  EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, 8, &entry), kFailed);
  EXPECT_EQ(entry, untouched());
  EXPECT_EQ(chainOwnLong(mem, heap, 8, 2, 0, &entry), 0);
  EXPECT_EQ(mem.MEM_EHeapClose(nullptr), kFailed);
  close(heap);
  EXPECT_EQ(changedRanges(before, envBytes(env())), "");
  host.withoutThreadEnv(false);
  host.setTraceFlags(0);
}

}  // namespace
}  // namespace memtest
