// Binding and unbinding: what is written where, in which order, and what is kept.

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <set>
#include <utility>

#include "memtest.hpp"
#include "slotcalls.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr int kFirstSlot = 4;
constexpr int kLastSlot = 51;

// An address that the library may keep but must neither follow nor call.
void *untouchable(std::size_t n) {
  return reinterpret_cast<void *>(static_cast<std::uintptr_t>(0x5A5A00000001U + n * 2));
}

// A MEM function vector in the middle of a longer table of a host, all of it marked.
class MarkedVector {
 public:
  MarkedVector() {
    for (std::size_t i = 0; i < words_.size(); ++i) words_[i] = mark(i);
  }

  void *address() { return &words_[kMargin]; }
  void *slot(int number) const { return words_[kMargin + static_cast<std::size_t>(number)]; }

  MEMFunctionVector asVector() const {
    MEMFunctionVector vector;
    std::memcpy(&vector, &words_[kMargin], sizeof vector);
    return vector;
  }

  // Slots 4 to 51 that do not hold `expected`.
  int slotsOtherThan(const void *expected) const {
    int count = 0;
    for (int i = kFirstSlot; i <= kLastSlot; ++i) count += slot(i) != expected ? 1 : 0;
    return count;
  }

  // Slots 4 to 51 that still hold their mark.
  int markedSlots() const {
    int count = 0;
    for (std::size_t i = kMargin + kFirstSlot; i <= kMargin + kLastSlot; ++i) {
      count += words_[i] == mark(i) ? 1 : 0;
    }
    return count;
  }

  // Whether the words before slot 4 and after slot 51 are as they were.
  bool surroundingsUntouched() const {
    for (std::size_t i = 0; i < words_.size(); ++i) {
      const bool isOurs = i >= kMargin + kFirstSlot && i <= kMargin + kLastSlot;
      if (!isOurs && words_[i] != mark(i)) return false;
    }
    return true;
  }

 private:
  static constexpr std::size_t kMargin = 16;
  static void *mark(std::size_t i) { return untouchable(1000 + i); }

  std::array<void *, kMargin + MEM_VECTOR_LEN + kMargin> words_;
};

// The two lists that a host passes, with their cells.
class BindingLists {
 public:
  BindingLists(refhost::Host &host, void *vector)
      : BindingLists(&host.runtime(), &host.trace(), &host.text(), vector) {}

  BindingLists(MEMRuntimeServices *runtime, MEMTraceServices *trace, MEMTextServices *text,
               void *vector) {
    for (std::size_t i = 0; i < hostCells.size(); ++i) hostCells[i] = untouchable(i);
    for (std::size_t i = 0; i < serviceCells.size(); ++i) serviceCells[i] = untouchable(100 + i);
    hostCells[MEM_HOST_RUNTIME] = runtime;
    hostCells[MEM_HOST_TRACE] = trace;
    hostCells[MEM_HOST_TEXT] = text;
    hostCells[MEM_HOST_VECTOR] = vector;
    for (std::size_t i = 0; i < hostCells.size(); ++i) hostList[i] = &hostCells[i];
    for (std::size_t i = 0; i < serviceCells.size(); ++i) serviceList[i] = &serviceCells[i];
  }

  void call(std::int16_t mode, const MEMSysEnv *pSysEnv = nullptr, std::uint32_t sysFlags = 0) {
    library().bindEntry()(hostList.data(), serviceList.data(), pSysEnv, sysFlags, mode);
  }

  std::array<void *, MEM_HOST_VECTORS> hostCells{};
  std::array<void *, MEM_SERVICE_VECTORS> serviceCells{};
  std::array<void **, MEM_HOST_VECTORS> hostList{};
  std::array<void **, MEM_SERVICE_VECTORS> serviceList{};
};

void unbind(std::int16_t mode = 0) {
  library().bindEntry()(nullptr, nullptr, nullptr, 0, mode);
}

// An unbound library, a host and a marked vector.
class BindingTest : public ::testing::Test {
 protected:
  BindingTest() : lists(host, marked.address()) {}

  ~BindingTest() override {
    host.restoreSlots();
    unbind();
    expectNothingLeft(host);
  }

  std::uint64_t allCalls() const {
    std::uint64_t calls = 0;
    for (std::size_t i = 0; i < refhost::kServiceCount; ++i) {
      calls += host.calls(static_cast<Service>(i));
    }
    return calls;
  }

  refhost::Host host;
  MarkedVector marked;
  BindingLists lists;
};

TEST_F(BindingTest, BindFillsSlots4To51AndNothingElse) {
  lists.call(MEM_MODE_BIND);

  EXPECT_EQ(marked.markedSlots(), 0);
  for (int slot = kFirstSlot; slot <= kLastSlot; ++slot) {
    EXPECT_NE(marked.slot(slot), nullptr) << "slot " << slot;
  }
  EXPECT_TRUE(marked.surroundingsUntouched());
}

TEST_F(BindingTest, EverySlotGetsAnEntryPointOfItsOwn) {
  lists.call(MEM_MODE_BIND);

  std::set<void *> entries;
  for (int slot = kFirstSlot; slot <= kLastSlot; ++slot) entries.insert(marked.slot(slot));
  EXPECT_EQ(entries.size(), 48U);
}

TEST_F(BindingTest, BindLeavesListsAndCellsAsTheyWere) {
  const BindingLists before = lists;
  MEMSysEnv sysEnv{};
  const Bytes sysEnvBefore = bytesOf(&sysEnv, sizeof sysEnv);

  lists.call(MEM_MODE_BIND, &sysEnv, 0xFFFFFFFFU);

  EXPECT_EQ(lists.hostCells, before.hostCells);
  EXPECT_EQ(lists.serviceCells, before.serviceCells);
  EXPECT_EQ(changedRanges(sysEnvBefore, bytesOf(&sysEnv, sizeof sysEnv)), "");
}

TEST_F(BindingTest, ListsAndCellsAreReadOnlyWhileBinding) {
  lists.call(MEM_MODE_BIND);
  lists.hostCells.fill(untouchable(1));
  lists.serviceCells.fill(untouchable(2));
  lists.hostList.fill(nullptr);
  lists.serviceList.fill(nullptr);

  const MEMFunctionVector mem = marked.asVector();
  EXPECT_EQ(mem.MEM_InitQTRFTbls(), kFailed);
  EXPECT_EQ(host.calls(Service::ReportError), 1U);
  unbind();
  EXPECT_EQ(marked.slotsOtherThan(nullptr), 0);
}

TEST_F(BindingTest, UnusedVectorsMayBeNull) {
  std::fill(lists.hostCells.begin() + MEM_HOST_VECTOR + 1, lists.hostCells.end(), nullptr);
  lists.serviceCells.fill(nullptr);

  lists.call(MEM_MODE_BIND);

  const MEMFunctionVector mem = marked.asVector();
  EXPECT_EQ(mem.MEM_ProcessInit(), 0);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
}

TEST_F(BindingTest, BindOpensAndClosesOneFrameForComponent3) {
  host.recordCalls(true);
  lists.call(MEM_MODE_BIND);
  EXPECT_EQ(callLines(host.takeCalls()),
            (Lines{"PSdynamn: EnterFrame(frame, 3)", "PSdynamn: LeaveFrame(frame, 3)"}));
}

TEST_F(BindingTest, UnbindOpensAndClosesOneFrameForComponent3) {
  lists.call(MEM_MODE_BIND);
  host.recordCalls(true);
  lists.call(0);
  EXPECT_EQ(callLines(host.takeCalls()),
            (Lines{"PSdynamn: EnterFrame(frame, 3)", "PSdynamn: LeaveFrame(frame, 3)"}));
}

// Counts the slots of a vector that are set while its filling frame is entered and left.
class SlotWatch {
 public:
  SlotWatch(refhost::Host &host, const MarkedVector &vector) : own_(host.runtime()) {
    watch_ = this;
    vector_ = &vector;
    host.runtime().EnterFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
      watch_->atEnter.push_back(watch_->setSlots());
      watch_->own_.EnterFrame(pFrame, component);
    };
    host.runtime().LeaveFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
      watch_->atLeave.push_back(watch_->setSlots());
      watch_->own_.LeaveFrame(pFrame, component);
    };
  }

  std::vector<int> atEnter;
  std::vector<int> atLeave;

 private:
  int setSlots() const { return 48 - vector_->markedSlots() - nullSlots(); }
  int nullSlots() const { return 48 - vector_->slotsOtherThan(nullptr); }

  inline static SlotWatch *watch_ = nullptr;
  const MEMRuntimeServices own_;
  const MarkedVector *vector_;
};

TEST_F(BindingTest, SlotsAreFilledInsideTheFrame) {
  const SlotWatch watch(host, marked);
  lists.call(MEM_MODE_BIND);
  EXPECT_EQ(watch.atEnter, (std::vector<int>{0}));
  EXPECT_EQ(watch.atLeave, (std::vector<int>{48}));
}

TEST_F(BindingTest, SlotsAreClearedInsideTheFrameAndTheHostIsForgottenAfterIt) {
  lists.call(MEM_MODE_BIND);
  const SlotWatch watch(host, marked);
  unbind();
  EXPECT_EQ(watch.atEnter, (std::vector<int>{48}));
  EXPECT_EQ(watch.atLeave, (std::vector<int>{0}));
  EXPECT_EQ(marked.slotsOtherThan(nullptr), 0);
}

class UnbindModeTest : public BindingTest, public ::testing::WithParamInterface<std::int16_t> {};

TEST_P(UnbindModeTest, ClearsSlots4To51AndNothingElse) {
  lists.call(MEM_MODE_BIND);
  lists.call(GetParam());
  EXPECT_EQ(marked.slotsOtherThan(nullptr), 0);
  EXPECT_TRUE(marked.surroundingsUntouched());

  host.resetCalls();
  unbind();
  EXPECT_EQ(allCalls(), 0U) << "the host was still known";
}

TEST_P(UnbindModeTest, ReadsNeitherListNorSystemEnvironment) {
  lists.call(MEM_MODE_BIND);
  unbind(GetParam());
  EXPECT_EQ(marked.slotsOtherThan(nullptr), 0);
}

// 257 and -255 have the low byte of 1.
INSTANTIATE_TEST_SUITE_P(AnyModeButOne, UnbindModeTest,
                         ::testing::Values<std::int16_t>(0, 2, -1, 3, 257, -255, 32767, -32768));

TEST_F(BindingTest, UnbindWhileUnboundMakesNoHostCallAndWritesNothing) {
  lists.call(0);
  lists.call(2);
  unbind(-1);
  EXPECT_EQ(allCalls(), 0U);
  EXPECT_EQ(marked.markedSlots(), 48);
  EXPECT_TRUE(marked.surroundingsUntouched());
}

TEST_F(BindingTest, SecondUnbindDoesNothing) {
  lists.call(MEM_MODE_BIND);
  lists.call(0);
  host.resetCalls();
  const MarkedVector before = marked;

  lists.call(0);

  EXPECT_EQ(allCalls(), 0U);
  for (int slot = 0; slot <= kLastSlot; ++slot) EXPECT_EQ(marked.slot(slot), before.slot(slot));
}

TEST_F(BindingTest, BindingAgainAfterUnbindGivesTheSameEntryPoints) {
  lists.call(MEM_MODE_BIND);
  const MarkedVector first = marked;
  lists.call(0);
  lists.call(MEM_MODE_BIND);
  for (int slot = 0; slot <= kLastSlot; ++slot) EXPECT_EQ(marked.slot(slot), first.slot(slot));
}

TEST_F(BindingTest, BindingTwiceWritesTheSlotsAgain) {
  lists.call(MEM_MODE_BIND);
  const MarkedVector first = marked;
  static_cast<void **>(marked.address())[8] = untouchable(7);  // replaced by the host

  lists.call(MEM_MODE_BIND);

  for (int slot = 0; slot <= kLastSlot; ++slot) EXPECT_EQ(marked.slot(slot), first.slot(slot));
}

// Enter calls that reach a second table of runtime services.
int enteredThroughSecondTable = 0;
MEMRuntimeServices firstTable;

TEST_F(BindingTest, BindingTwiceReplacesWhatWasKept) {
  lists.call(MEM_MODE_BIND);

  firstTable = host.runtime();
  MEMRuntimeServices secondTable = firstTable;
  secondTable.EnterFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
    ++enteredThroughSecondTable;
    firstTable.EnterFrame(pFrame, component);
  };
  MarkedVector secondVector;
  BindingLists secondLists(&secondTable, &host.trace(), &host.text(), secondVector.address());
  enteredThroughSecondTable = 0;
  secondLists.call(MEM_MODE_BIND);
  EXPECT_EQ(enteredThroughSecondTable, 1);

  EXPECT_EQ(secondVector.markedSlots(), 0);
  EXPECT_EQ(marked.slotsOtherThan(nullptr), 48) << "the first vector is the host's to deal with";
  EXPECT_EQ(marked.asVector().MEM_InitQTRFTbls(), kFailed);
  EXPECT_EQ(enteredThroughSecondTable, 2);

  unbind();
  EXPECT_EQ(enteredThroughSecondTable, 3);
  EXPECT_EQ(secondVector.slotsOtherThan(nullptr), 0);
  EXPECT_EQ(marked.slotsOtherThan(nullptr), 48);
}

TEST_F(BindingTest, BindAndUnbindLeaveTheThreadEnvironmentAlone) {
  MEMThreadEnv &env = host.thread();
  fillEnv(env, 0xEE);
  const Bytes before = envBytes(env);

  lists.call(MEM_MODE_BIND);
  EXPECT_EQ(changedRanges(before, envBytes(env)), "");
  lists.call(0);
  EXPECT_EQ(changedRanges(before, envBytes(env)), "");
}

TEST_F(BindingTest, BindAndUnbindWorkWithoutAThreadEnvironment) {
  host.withoutThreadEnv(true);
  lists.call(MEM_MODE_BIND);
  EXPECT_EQ(marked.markedSlots(), 0);
  lists.call(0);
  EXPECT_EQ(marked.slotsOtherThan(nullptr), 0);
}

TEST_F(BindingTest, BindAndUnbindWriteNoTraceRecord) {
  host.setTraceFlags(0xFFFFFFFFU);
  lists.call(MEM_MODE_BIND);
  lists.call(0);
  EXPECT_EQ(traceCalls(host), 0U);
}

// Slot numbers.

class SlotOrderTest : public BoundTest, public ::testing::WithParamInterface<SlotCall> {};

TEST_P(SlotOrderTest, HeaderHasTheServiceInItsSlot) {
  EXPECT_EQ(GetParam().offset, static_cast<std::size_t>(GetParam().slot) * 8);
}

TEST_P(SlotOrderTest, EntryPointEntersAFrameUnderItsTraceName) {
  const SlotCall &row = GetParam();
  Scene scene(host);
  if (row.prepare != nullptr) row.prepare(scene);
  host.recordCalls(true);
  row.call(scene);
  const std::vector<refhost::HostCall> calls = host.takeCalls();
  host.recordCalls(false);
  if (row.cleanUp != nullptr) row.cleanUp(scene);

  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.front().service, Service::EnterFrame);
  EXPECT_EQ(calls.front().frame, row.traceName);
}

INSTANTIATE_TEST_SUITE_P(EverySlot, SlotOrderTest, ::testing::ValuesIn(slotCalls()), slotCallName);

TEST(SlotTable, CoversSlots4To51InOrder) {
  int next = kFirstSlot;
  for (const SlotCall &row : slotCalls()) EXPECT_EQ(row.slot, next++) << row.name;
  EXPECT_EQ(next, kLastSlot + 1);
}

// Slots that the host patches after binding.

int patchedCalls = 0;
MEMRuntimeServices ownRuntime;
MEMTraceServices ownTrace;
MEMTextServices ownText;

std::int32_t patchedFormat(char *pDest, const char *, ...) {
  ++patchedCalls;
  std::strcpy(pDest, "patched");
  return 7;
}

class PatchedSlotTest : public BoundTest {
 protected:
  PatchedSlotTest() {
    ownRuntime = host.runtime();
    ownTrace = host.trace();
    ownText = host.text();
    patchedCalls = 0;
  }
};

TEST_F(PatchedSlotTest, FrameServicesAreCalledFromTheirSlots) {
  host.runtime().EnterFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
    ++patchedCalls;
    ownRuntime.EnterFrame(pFrame, component);
  };
  host.runtime().LeaveFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
    patchedCalls += 10;
    ownRuntime.LeaveFrame(pFrame, component);
  };
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  EXPECT_EQ(patchedCalls, 11);
}

TEST_F(PatchedSlotTest, StorageServicesAreCalledFromTheirSlots) {
  static std::uint64_t storage[2];
  host.runtime().GetStorage = [](void **ppArea, std::uint32_t, std::uint16_t, std::uint16_t) {
    ++patchedCalls;
    *ppArea = storage;
    return std::uint16_t{0};
  };
  host.runtime().FreeStorage = [](void *pArea, std::uint32_t, std::uint16_t) {
    patchedCalls += pArea == storage ? 10 : 100;
  };
  void *area = mem.MEM_Alloc(16, 3);
  EXPECT_EQ(area, storage);
  mem.MEM_Free(area, 16, 3);
  EXPECT_EQ(patchedCalls, 11);
}

TEST_F(PatchedSlotTest, AnchorServicesAreCalledFromTheirSlots) {
  host.runtime().GetAnchor = [](std::int32_t zero, std::int32_t component, void **ppAnchor) {
    ++patchedCalls;
    return ownRuntime.GetAnchor(zero, component, ppAnchor);
  };
  host.runtime().SetAnchor = [](std::int32_t zero, std::int32_t component, void *pAnchor) {
    patchedCalls += 1000;
    ownRuntime.SetAnchor(zero, component, pAnchor);
  };
  EXPECT_EQ(mem.MEM_ProcessInit(), 0);
  EXPECT_EQ(patchedCalls, 1001) << "the sink's start looks the anchor up";
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  EXPECT_EQ(patchedCalls, 2003);
}

TEST_F(PatchedSlotTest, TraceServicesAreCalledFromTheirSlots) {
  host.trace().Format = patchedFormat;
  host.trace().WriteRecord = [](std::int32_t component, std::int32_t zero, const char *pType,
                                const char *pSource, const char *pFunction, std::int32_t line) {
    patchedCalls += 10;
    ownTrace.WriteRecord(component, zero, pType, pSource, pFunction, line);
  };
  host.setTraceFlags(MEM_TRACE_ENTRY);
  host.keepRecords(true);
  Scene scene(host);
  obtainArea(scene);
  mem.MEM_Free(scene.area, kSceneSize, kSceneSubPool);
  EXPECT_EQ(patchedCalls, 11);
  EXPECT_EQ(recordLines(host.takeRecords()),
            (Lines{"STDE MEM_Free(..\\SrcRes\\MEMCSERV:175) patched"}));
}

TEST_F(PatchedSlotTest, TextServicesAreCalledFromTheirSlots) {
  host.text().ReportError = [](char *pErrorText, const char *pDetail) {
    ++patchedCalls;
    ownText.ReportError(pErrorText, pDetail);
  };
  EXPECT_EQ(mem.MEM_InitQTRFTbls(), kFailed);
  EXPECT_EQ(patchedCalls, 1);
}

// Process start and stop reach the sink through the vector, as any caller does.
TEST_F(PatchedSlotTest, SinkStartAndStopAreCalledFromTheVector) {
  mem.MEM_SinkInit = [] {
    ++patchedCalls;
    return std::int16_t{0};
  };
  mem.MEM_SinkTerm = [] {
    patchedCalls += 10;
    return std::int16_t{0};
  };
  EXPECT_EQ(mem.MEM_ProcessInit(), 0);
  EXPECT_EQ(patchedCalls, 1);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  EXPECT_EQ(patchedCalls, 11);
  EXPECT_EQ(host.calls(Service::CreateGate), 0U);
}

}  // namespace
}  // namespace memtest
