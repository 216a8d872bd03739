// The enhanced heap among the others: handles, the gate and the flags, closing, the slots it uses,
// trace records, hosts without a thread environment.

#include <utility>

#include "eheapfixture.hpp"

namespace memtest {
namespace {

using refhost::Service;

using EHeapUseTest = EHeapFixture;

// Handles.

struct HandleCase {
  const char *name;
  NameBy nameBy;
  std::int16_t (*call)(MEMFunctionVector &, HMEMHEAP, void **);
};

void PrintTo(const HandleCase &row, std::ostream *out) {
  *out << row.name;
}

const HandleCase kHandleCases[] = {
    {"EHeapClose", NameBy::kStanding,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **) { return mem.MEM_EHeapClose(heap); }},
    {"EHeapAllocEntry", NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapAllocEntry(heap, 8, ppEntry);
     }},
    {"EHeapFreeEntry", NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapFreeEntry(heap, 8, ppEntry);
     }},
    {"EHeapFreeLargeEntry", NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapFreeEntry(heap, 1000000, ppEntry);
     }},
    {"EHeapAllocMultEntries", NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapAllocMultEntries(heap, 8, 0, -1, ppEntry);
     }},
    {"EHeapAllocLongMultEntries", NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHEAP heap, void **ppEntry) {
       return mem.MEM_EHeapAllocLongMultEntries(heap, 8, 0, -1, ppEntry);
     }},
};

class EHeapHandleTest : public EHeapUseTest, public ::testing::WithParamInterface<HandleCase> {
 protected:
  void expectRefused(const void *handle) {
    void *entry = untouched();
    const NameBy nameBy = GetParam().nameBy;
    const std::string name = nameBy == NameBy::kStanding ? kStandingText : invalidHandle(handle);
    auto *heap = const_cast<HMEMHEAP>(static_cast<const MEMHeapObject *>(handle));
    expectFails(
        4056, name, nameBy, [&] { return GetParam().call(mem, heap, &entry); }, kOwnMarks);
    EXPECT_EQ(entry, untouched());
    expectNoGateCalls();
    EXPECT_EQ(host.calls(Service::CheckStorage), 0U);
  }
};

INSTANTIATE_TEST_SUITE_P(Operations, EHeapHandleTest, ::testing::ValuesIn(kHandleCases),
                         caseName<HandleCase>);

TEST_P(EHeapHandleTest, NullIsRefused) {
  expectRefused(nullptr);
}

TEST_P(EHeapHandleTest, OtherBlocksAreRefused) {
  for (const char *start : {"QQQHEAP1", "ENHHEAP2", "ENHHEAPN", "QQQHEAPN", "QQQHBLKN", "QQQQHASH",
                            "QQQCELL1", "enhheap1", " NHHEAP1", "\0NHHEAP1", "ENHHEAP "}) {
    SCOPED_TRACE(start);
    alignas(8) char block[128];
    std::memset(block, 0x11, sizeof block);  // bit 0 of what would be the flags is set
    std::memcpy(block, start, 8);
    const Bytes before = bytesOf(block, sizeof block);
    expectRefused(block);
    EXPECT_EQ(changedRanges(before, bytesOf(block, sizeof block)), "");
  }
}

TEST_P(EHeapHandleTest, StandardHeapAndFurtherAreaAreRefused) {
  HMEMHEAP standard = nullptr;
  ASSERT_EQ(mem.MEM_HeapOpen(&standard, 1, kSubPool), 0);
  const Bytes before = bytesOf(standard, kSmallArea);
  expectRefused(standard);
  EXPECT_EQ(changedRanges(before, bytesOf(standard, kSmallArea)), "");
  EXPECT_EQ(mem.MEM_HeapClose(standard), 0);
  HMEMHEAP heap = open();
  expectRefused(alloc(heap, 968) - 24);
  close(heap);
}

TEST_P(EHeapHandleTest, ClosedHeapIsRefusedWhileItsStorageIsNotReused) {
  VectorWatch watch(mem);
  watch.keepFreed = true;
  HMEMHEAP heap = open();
  close(heap);
  expectRefused(heap);
}

TEST_F(EHeapUseTest, CloseShowsTheStandingMessageCutAt63Characters) {
  const std::string letters = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ+-";
  for (const std::size_t length : {0U, 1U, 62U, 63U, 64U, 128U, 255U}) {
    std::string text;
    while (text.size() < length) text += letters;
    text.resize(length);
    setMessageText(text);
    EXPECT_EQ(mem.MEM_EHeapClose(nullptr), kFailed);
    expectError(4056, text.substr(0, 63), kOwnMarks);
    EXPECT_EQ(messageText(), text);
  }
}

TEST_F(EHeapUseTest, StandardCloseRefusesAnEnhancedHeap) {
  HMEMHEAP heap = open();
  const Bytes before = bytesOf(heap, kSmallArea);
  expectFails(4056, invalidHandle(heap), NameBy::kItself, [&] { return mem.MEM_HeapClose(heap); });
  expectNoGateCalls();
  EXPECT_EQ(changedRanges(before, bytesOf(heap, kSmallArea)), "");
  EXPECT_EQ(alloc(heap, 8), at(heap, 64));
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

TEST_F(EHeapUseTest, FlagsTellThatTheGateIsHeldWhileItIs) {
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

TEST_F(EHeapUseTest, FlagsAtFailures) {
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

TEST_F(EHeapUseTest, OtherBitsOfTheFlagsAreLeftAlone) {
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
TEST_F(EHeapUseTest, GateThatIsHeldElsewhereIsNeverReleasedByAFailure) {
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

// Closing.

TEST_F(EHeapUseTest, CloseFreesLargeBlocksNewestFirstThenAreasOldestFirst) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open(1, 0xFFFB);
  std::uint8_t *block1 = alloc(heap, 2000) - 24;
  std::uint8_t *area2 = (alloc(heap, 960), alloc(heap, 900)) - 24;
  std::uint8_t *block2 = alloc(heap, 969) - 24;
  std::uint8_t *area3 = alloc(heap, 800) - 24;
  giveBack(heap, 800, area3 + 24);
  giveBack(heap, 969, block2 + 24);
  const std::uint32_t gate = gateOf(heap);
  watch.uses.clear();
  watch.keepFreed = true;
  watch.soilFreed = true;  // whoever reads what is freed goes astray
  const Lines calls = hostCalls([&] { close(heap); });
  EXPECT_EQ(watch.takeLines({{asNumber(heap), "heap"},
                             {asNumber(area2), "area2"},
                             {asNumber(area3), "area3"},
                             {asNumber(block1), "block1"},
                             {asNumber(block2), "block2"}}),
            (Lines{"9(block2, 1000, -5)", "9(block1, 2024, -5)", "9(heap, 1024, -5)",
                   "9(area2, 1024, -5)", "9(area3, 1024, -5)"}));
  EXPECT_EQ(calls, (Lines{"MEM_EHeapClose: EnterFrame(frame, 3)",
                          "MEM_EHeapClose: AcquireGate(" + std::to_string(gate) + ")",
                          "MEM_EHeapClose: ReleaseGate(" + std::to_string(gate) + ")",
                          "MEM_EHeapClose: DeleteGate(" + std::to_string(gate) + ")",
                          "MEM_EHeapClose: LeaveFrame(frame, 3)"}));
  watch.releaseKept();
  EXPECT_EQ(host.account(5, 2).liveCount, 0U);
}

TEST_F(EHeapUseTest, EyecatcherIsClearedUnderTheGateBetweenBlocksAndAreas) {
  static HMEMHEAP heap;
  static refhost::Host *pHost;
  static Lines seen;
  static MEMFunctionVector own;
  heap = open();
  pHost = &host;
  seen.clear();
  own = mem;
  alloc(heap, 2000);
  alloc(heap, 968);
  mem.MEM_Free = [](void *area, std::uint32_t size, std::int16_t subPool) {
    EXPECT_EQ(pHost->heldGateCount(), 1U);
    if (size != kSmallArea) {
      seen.push_back("block: " + eyecatcher(heap));
    } else if (area == heap) {
      seen.push_back("header: " + eyecatcher(heap));
    }
    own.MEM_Free(area, size, subPool);
  };
  close(heap);
  EXPECT_EQ(seen, (Lines{"block: ENHHEAP1", "header: " + std::string(8, '\0')}));
}

TEST_F(EHeapUseTest, CloseWithoutTheGateLeavesTheHeapOpen) {
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

TEST_F(EHeapUseTest, CloseGoesOnWhenStorageIsNotTakenBack) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open();
  alloc(heap, 2000);
  watch.keepFreed = true;
  expectEnds(0, [&] { return mem.MEM_EHeapClose(heap); });
}

// Slots.

TEST_F(EHeapUseTest, StorageComesThroughSlots8And9) {
  VectorWatch watch(mem);
  HMEMHEAP heap = open(2, 0xFFFB);
  alloc(heap, 2048 - 56);
  alloc(heap, 3000);
  // The watch notes the test's own calls too.
  EXPECT_EQ(watch.takeLines(),
            (Lines{"8(2048, -5)", "38(?, 1992)", "8(2048, -5)", "38(?, 3000)", "8(3024, -5)"}));
  close(heap);
  EXPECT_EQ(watch.takeUsesOf(9).size(), 3U);
}

TEST_F(EHeapUseTest, RefusalBySlot8IsARefusedStorage) {
  VectorWatch watch(mem);
  auto *heap = static_cast<HMEMHEAP>(untouched());
  watch.refuseStorage = 1;
  expectOwnFailure(4055, "MemAllocFail", [&] { return mem.MEM_EHeapOpen(&heap, 1, kSubPool); });
  EXPECT_EQ(heap, untouched());
  heap = open();
  void *entry = untouched();
  watch.refuseStorage = 1;
  expectOwnFailure(4055, "MemAllocBlkFail",
                   [&] { return mem.MEM_EHeapAllocEntry(heap, 2000, &entry); });
  watch.refuseStorage = 1;
  expectOwnFailure(4055, "MemAllocFail",
                   [&] { return mem.MEM_EHeapAllocEntry(heap, 968, &entry); });
  EXPECT_EQ(entry, untouched());
  close(heap);
}

TEST_F(EHeapUseTest, StandardEntryPointsUseSlot38) {
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

TEST_F(EHeapUseTest, TraceOfOpenAndClose) {
  HMEMHEAP heap = nullptr;
  EXPECT_EQ(
      heapTraced(kBoth, [&] { mem.MEM_EHeapOpen(&heap, 3, 0xFFFB); }),
      (Lines{entryLine("MEM_EHeapOpen", "phMemHeap=" + lowHex(&heap) + ", AreaLen=3, SubPool=-5"),
             exitLine("MEM_EHeapOpen")}));
  EXPECT_EQ(
      heapTraced(kBoth, [&] { close(heap); }),
      (Lines{entryLine("MEM_EHeapClose", "hMemHeap=" + lowHex(heap)), exitLine("MEM_EHeapClose")}));
}

TEST_F(EHeapUseTest, TraceOfEntries) {
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

TEST_F(EHeapUseTest, TraceOfChains) {
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

TEST_F(EHeapUseTest, FailuresHaveNoExitRecord) {
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

TEST_F(EHeapUseTest, StorageLinesOfOneLife) {
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

TEST_F(EHeapUseTest, StorageLinesStandBetweenTheStorageCallAndWhatFollows) {
  HMEMHEAP heap = nullptr;
  host.setTraceFlags(MEM_TRACE_STORAGE);
  Lines lines = hostCalls([&] { heap = open(); });
  EXPECT_EQ(lines, (Lines{"MEM_EHeapOpen: EnterFrame(frame, 3)", "MEM_EHeapOpen: CreateGate(cell)",
                          "MemAlloc: EnterFrame(frame, 3)", "MemAlloc: GetAnchor(0, 3, cell)",
                          "MemAlloc: GetStorage(cell, 1024, 7, 1)",
                          "MemAlloc: LeaveFrame(frame, 3)", "MEM_EHeapOpen: Format()",
                          "MEM_EHeapOpen: WriteRecord()", "MEM_EHeapOpen: LeaveFrame(frame, 3)"}));
  const std::string gate = std::to_string(gateOf(heap));
  const std::string name = "MEM_EHeapAllocEntry: ";
  for (const std::int32_t len : {968, 969}) {
    const std::string size = len == 968 ? "1024" : "1000";
    EXPECT_EQ(hostCalls([&] { alloc(heap, len); }),
              (Lines{name + "EnterFrame(frame, 3)", name + "AcquireGate(" + gate + ")",
                     "MemAlloc: EnterFrame(frame, 3)", "MemAlloc: GetAnchor(0, 3, cell)",
                     "MemAlloc: GetStorage(cell, " + size + ", 7, 1)",
                     "MemAlloc: LeaveFrame(frame, 3)", name + "Format()", name + "WriteRecord()",
                     name + "ReleaseGate(" + gate + ")", name + "LeaveFrame(frame, 3)"}));
  }
  lines = hostCalls([&] { close(heap); });
  ASSERT_GT(lines.size(), 4U);
  EXPECT_EQ(lines[1], "MEM_EHeapClose: AcquireGate(" + gate + ")");
  EXPECT_EQ(lines[2], "MEM_EHeapClose: Format()");
  EXPECT_EQ(lines[3], "MEM_EHeapClose: WriteRecord()");
  EXPECT_EQ(lines[4], "MEM_Free: EnterFrame(frame, 3)");
  host.setTraceFlags(0);
}

TEST_F(EHeapUseTest, ExitRecordsAreWrittenWhenTheGateIsFree) {
  HMEMHEAP heap = open();
  const std::string gate = std::to_string(gateOf(heap));
  host.setTraceFlags(MEM_TRACE_EXIT);
  std::uint8_t *entry = nullptr;
  std::string name = "MEM_EHeapAllocEntry: ";
  EXPECT_EQ(hostCalls([&] { entry = alloc(heap, 8); }),
            (Lines{name + "EnterFrame(frame, 3)", name + "AcquireGate(" + gate + ")",
                   name + "ReleaseGate(" + gate + ")", name + "WriteRecord()",
                   name + "LeaveFrame(frame, 3)"}));
  name = "MEM_EHeapFreeEntry: ";
  EXPECT_EQ(hostCalls([&] { giveBack(heap, 8, entry); }, {{asNumber(entry), "entry"}}),
            (Lines{name + "EnterFrame(frame, 3)", name + "CheckStorage(entry, 16)",
                   name + "AcquireGate(" + gate + ")", name + "ReleaseGate(" + gate + ")",
                   name + "WriteRecord()", name + "LeaveFrame(frame, 3)"}));
  const Lines lines = hostCalls([&] { close(heap); });
  ASSERT_GT(lines.size(), 4U);
  name = "MEM_EHeapClose: ";
  EXPECT_EQ(Lines(lines.end() - 4, lines.end()),
            (Lines{name + "ReleaseGate(" + gate + ")", name + "DeleteGate(" + gate + ")",
                   name + "WriteRecord()", name + "LeaveFrame(frame, 3)"}));
  host.setTraceFlags(0);
}

TEST_F(EHeapUseTest, FailedStorageHasNoStorageLine) {
  HMEMHEAP heap = open();
  void *entry = nullptr;
  for (const std::int32_t len : {968, 969}) {
    host.arm(faultOf(Service::GetStorage));
    EXPECT_EQ(traced(MEM_TRACE_STORAGE, [&] { mem.MEM_EHeapAllocEntry(heap, len, &entry); }),
              (Lines{}));
  }
  HMEMHEAP other = nullptr;
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(traced(MEM_TRACE_STORAGE, [&] { mem.MEM_EHeapOpen(&other, 1, 7); }), (Lines{}));
  close(heap);
}

TEST_F(EHeapUseTest, StorageLinesNeedBit4) {
  const Lines lines = traced(0xFFFFFFFFU & ~MEM_TRACE_STORAGE, [&] {
    HMEMHEAP heap = open();
    alloc(heap, 968);
    alloc(heap, 969);
    close(heap);
  });
  EXPECT_FALSE(lines.empty());
  for (const std::string &line : lines) EXPECT_NE(line.substr(0, 4), "SL05") << line;
}

TEST_F(EHeapUseTest, TracePointsOfBothKindsOfHeapHaveTheirOwnLineNumbers) {
  TracePoints points("..\\SrcRes\\MEMCHEAP");
  const auto life = [&] {
    HMEMHEAP heap = open();
    giveBack(heap, 968, alloc(heap, 968));
    alloc(heap, 969);
    void *entry = nullptr;
    mem.MEM_EHeapAllocMultEntries(heap, 8, 1, 0, &entry);
    mem.MEM_EHeapAllocLongMultEntries(heap, 8, 1, 0, &entry);
    close(heap);
  };
  points.add("", recordsOf(0xFFFFFFFFU, life));
  points.add("", recordsOf(0xFFFFFFFFU, life));
  // Six operations with entry and exit; storage lines: 1 of open, 2 of the entry, 2 of close.
  EXPECT_EQ(points.count(), 17U);
  points.add("", recordsOf(0xFFFFFFFFU, [&] {
               HMEMHEAP heap = nullptr;
               void *entry = nullptr;
               mem.MEM_HeapOpen(&heap, 1, kSubPool);
               mem.MEM_HeapAllocEntry(heap, 968, &entry);
               mem.MEM_HeapAllocEntry(heap, 968, &entry);
               mem.MEM_HeapAllocEntry(heap, 969, &entry);
               mem.MEM_HeapAllocMultEntries(heap, 8, 1, 0, &entry);
               mem.MEM_HeapAllocLongMultEntries(heap, 8, 1, 0, &entry);
               mem.MEM_HeapClose(heap);
             }));
  EXPECT_EQ(points.count(), 17U + 20U);
}

// Hosts without a thread environment or trace buffer.

TEST_F(EHeapUseTest, MissingThreadEnvironmentIsTolerated) {
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

TEST_F(EHeapUseTest, MissingTraceBufferIsTolerated) {
  MEMTraceBuf *const buffer = env().pTraceBuf;
  env().pTraceBuf = nullptr;
  host.setTraceFlags(0xFFFFFFFFU);
  HMEMHEAP heap = open();
  alloc(heap, 968);
  giveBack(heap, 969, alloc(heap, 969));
  void *entry = nullptr;
  EXPECT_EQ(chainShort(mem, heap, 8, 2, 0, &entry), 0);
  close(heap);
  host.setTraceFlags(0);
  env().pTraceBuf = buffer;
}

}  // namespace
}  // namespace memtest
