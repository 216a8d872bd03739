// What all services share: the trace frame, the thread environment, trace records and the error
// area. Tests named EverySlot run once for each slot of the vector.

#include <array>
#include <cstddef>
#include <optional>

#include "memtest.hpp"
#include "slotcalls.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr std::uint32_t kAllTraceFlags = 0xFFFFFFFFU;

// One frame as the host's enter and leave calls saw it.
struct SeenFrame {
  MEMTraceFrame *pFrame = nullptr;
  MEMTraceFrame atEnter{};
  MEMTraceFrame atLeave{};
  std::int32_t enterComponent = 0;
  std::int32_t leaveComponent = 0;
};

// Watches all frames from now on. The upper half of the result of each is marked after the host
// has entered it.
class FrameWatch {
 public:
  static constexpr std::uint32_t kUpperHalf = 0xABCD0000U;

  explicit FrameWatch(refhost::Host &host) : own_(host.runtime()) {
    watch_ = this;
    host.runtime().EnterFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
      watch_->enter(pFrame, component);
    };
    host.runtime().LeaveFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
      watch_->leave(pFrame, component);
    };
  }

  std::vector<SeenFrame> frames;  // in the order of entering
  std::size_t mostOpen = 0;

 private:
  void enter(MEMTraceFrame *pFrame, std::int32_t component) {
    SeenFrame seen;
    seen.pFrame = pFrame;
    seen.atEnter = *pFrame;
    seen.enterComponent = component;
    open_.push_back(frames.size());
    frames.push_back(seen);
    if (open_.size() > mostOpen) mostOpen = open_.size();
    own_.EnterFrame(pFrame, component);
    pFrame->Result |= kUpperHalf;
  }

  void leave(MEMTraceFrame *pFrame, std::int32_t component) {
    ASSERT_FALSE(open_.empty());
    SeenFrame &seen = frames[open_.back()];
    open_.pop_back();
    EXPECT_EQ(seen.pFrame, pFrame) << "frames are left in reverse order";
    seen.atLeave = *pFrame;
    seen.leaveComponent = component;
    own_.LeaveFrame(pFrame, component);
  }

  inline static FrameWatch *watch_ = nullptr;
  const MEMRuntimeServices own_;
  std::vector<std::size_t> open_;
};

// Leaves old bytes where the next call puts its locals.
void soilStack() {
  volatile unsigned char soiled[16384];
  for (volatile unsigned char &byte : soiled) byte = 0xEE;
}

class EverySlotTest : public BoundTest, public ::testing::WithParamInterface<SlotCall> {
 protected:
  const SlotCall &row() const { return GetParam(); }

  // Prepares, lets `arrange` set the circumstances, makes the one call, lets `examine` see what it
  // left, and cleans up.
  template <class Arrange, class Examine>
  Result run(Arrange arrange, Examine examine) {
    Scene scene(host);
    if (row().prepare != nullptr) row().prepare(scene);
    arrange();
    soilStack();
    const Result result = row().call(scene);
    examine();
    host.restoreSlots();
    host.setTraceFlags(0);
    host.withoutThreadEnv(false);
    if (row().cleanUp != nullptr) row().cleanUp(scene);
    return result;
  }

  Result runPlainly() {
    return run([] {}, [] {});
  }

  std::uint64_t traceCallsWith(std::uint32_t flags) {
    std::uint64_t calls = 0;
    run(
        [&] {
          host.setTraceFlags(flags);
          host.resetCalls();
        },
        [&] { calls = traceCalls(host); });
    return calls;
  }

  std::vector<refhost::TraceRecord> recordsWith(std::uint32_t flags) {
    std::vector<refhost::TraceRecord> records;
    run(
        [&] {
          host.setTraceFlags(flags);
          host.keepRecords(true);
        },
        [&] { records = host.takeRecords(); });
    return records;
  }

  // Exception records do not depend on flags; all others must be of the type that was asked for.
  void expectOnlyRecordsOf(const std::string &type, std::uint32_t flags) {
    for (const refhost::TraceRecord &record : recordsWith(flags)) {
      if (record.type != "EXCP") {
        EXPECT_EQ(record.type, type) << refhost::traceLine(record);
      }
    }
  }
};

INSTANTIATE_TEST_SUITE_P(EverySlot, EverySlotTest, ::testing::ValuesIn(slotCalls()), slotCallName);

// The frame.

TEST_P(EverySlotTest, EntersFirstAndLeavesLastForComponent3) {
  std::vector<refhost::HostCall> calls;
  run([&] { host.recordCalls(true); },
      [&] {
        calls = host.takeCalls();
        host.recordCalls(false);
      });

  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls.front().service, Service::EnterFrame);
  EXPECT_EQ(calls.back().service, Service::LeaveFrame);
  EXPECT_EQ(calls.front().args[0], calls.back().args[0]) << "another frame was left";
  EXPECT_EQ(calls.front().args[1], 3U);
  EXPECT_EQ(calls.back().args[1], 3U);
}

TEST_P(EverySlotTest, EntersFramesThatAreZeroButForTheName) {
  std::vector<SeenFrame> frames;
  std::optional<FrameWatch> watch;
  run([&] { watch.emplace(host); }, [&] { frames = watch->frames; });

  ASSERT_FALSE(frames.empty());
  for (SeenFrame &seen : frames) {
    ASSERT_NE(seen.atEnter.pName, nullptr);
    EXPECT_NE(std::string(seen.atEnter.pName), "");
    EXPECT_EQ(seen.atLeave.pName, seen.atEnter.pName);
    seen.atEnter.pName = nullptr;
    EXPECT_EQ(changedRanges(Bytes(64), bytesOf(&seen.atEnter, 64)), "");
    EXPECT_EQ(seen.enterComponent, 3);
    EXPECT_EQ(seen.leaveComponent, 3);
  }
}

TEST_P(EverySlotTest, WritesOnlyTheLowHalfOfTheResultInTheFrame) {
  std::vector<SeenFrame> frames;
  std::optional<FrameWatch> watch;
  const Result result = run([&] { watch.emplace(host); }, [&] { frames = watch->frames; });

  ASSERT_FALSE(frames.empty());
  for (const SeenFrame &seen : frames) {
    EXPECT_EQ(seen.atLeave.Result & 0xFFFF0000U, FrameWatch::kUpperHalf);
  }
  if (result) {
    EXPECT_EQ(static_cast<std::int16_t>(frames.front().atLeave.Result), *result);
  }
}

TEST_P(EverySlotTest, LeavesTheHostsPartsOfTheFrameAlone) {
  static MEMRuntimeServices own;
  static std::vector<Bytes> before;
  static std::vector<Bytes> after;
  own = host.runtime();
  before.clear();
  after.clear();
  // The host's own: 0 to 31 and 40 to 55. Frames are left in reverse order.
  const auto arrange = [&] {
    host.runtime().EnterFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
      own.EnterFrame(pFrame, component);
      std::memset(pFrame->Reserved40, 0xC3, sizeof pFrame->Reserved40);
      before.push_back(bytesOf(pFrame, 36));
    };
    host.runtime().LeaveFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
      after.push_back(bytesOf(pFrame, 36));
      EXPECT_EQ(changedRanges(Bytes(16, 0xC3), bytesOf(pFrame->Reserved40, 16)), "");
      own.LeaveFrame(pFrame, component);
    };
  };
  run(arrange, [] {
    ASSERT_EQ(before.size(), after.size());
    EXPECT_EQ(changedRanges(before.front(), after.back()), "");
  });
}

// The error area.

TEST_P(EverySlotTest, ClearsTheErrorAreaOrLeavesItAloneAsPromised) {
  Bytes before;
  Bytes after;
  Bytes afterCleanStart;
  const auto runWith = [&](std::uint8_t pattern, Bytes &left) {
    run(
        [&] {
          fillEnv(env(), 0);
          std::memset(&error(), pattern, sizeof error());
          before = errorBytes(env());
        },
        [&] { left = errorBytes(env()); });
  };
  runWith(0x00, afterCleanStart);
  runWith(0xEE, after);
  if (row().clearsErrorArea) {
    EXPECT_EQ(changedRanges(afterCleanStart, after), "") << "old bytes are left";
  } else {
    EXPECT_EQ(changedRanges(before, after), "") << "bytes were written";
  }
}

TEST_P(EverySlotTest, TouchesNothingElseInTheThreadEnvironment) {
  constexpr std::size_t kErrorEnd = 64 + 552;
  constexpr std::size_t kMessage = 1232;
  constexpr std::size_t kMessageEnd = kMessage + MEM_MESSAGE_TEXT_LEN;
  constexpr std::size_t kTraceBuf = 1848;
  Bytes before;
  Bytes after;
  run(
      [&] {
        fillEnv(env(), 0xEE);
        before = envBytes(env());
      },
      [&] { after = envBytes(env()); });

  const auto expectSame = [&](std::size_t from, std::size_t to) {
    const auto part = [&](const Bytes &bytes) {
      return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                   bytes.begin() + static_cast<std::ptrdiff_t>(to));
    };
    EXPECT_EQ(changedRanges(part(before), part(after)), "") << "counted from " << from;
  };
  expectSame(0, 64);
  expectSame(kErrorEnd, kMessage);
  expectSame(kMessageEnd, kTraceBuf + 16);  // up to the thread block's address
}

TEST_P(EverySlotTest, LeavesNoErrorBehindOnSuccess) {
  const auto arrange = [&] { std::memset(&error(), 0, sizeof error()); };
  std::string changed;
  const Result result =
      run(arrange, [&] { changed = changedRanges(Bytes(552), errorBytes(env())); });
  if (!result || *result == 0) {
    EXPECT_EQ(changed, "");
    EXPECT_EQ(host.calls(Service::ReportError), 0U);
  }
}

// What may be missing.

TEST_P(EverySlotTest, WorksWithoutAThreadEnvironment) {
  const Result usual = runPlainly();
  const Bytes before = envBytes(env());
  const Result result = run(
      [&] {
        host.setTraceFlags(kAllTraceFlags);
        host.withoutThreadEnv(true);
        std::memset(&error(), 0xEE, sizeof error());
      },
      [&] {
        EXPECT_EQ(changedRanges(Bytes(552, 0xEE), errorBytes(env())), "");
        std::memcpy(&error(), &before[64], sizeof error());
      });
  // A thread block has nowhere to hang, and the sink's wide services refuse to work; everything
  // else goes as usual.
  const bool needsThreadEnv = row().slot == 6 || (row().slot >= 45 && row().slot <= 47);
  EXPECT_EQ(result, needsThreadEnv ? Result(kFailed) : usual);
}

TEST_P(EverySlotTest, WorksWithoutATraceBuffer) {
  const Result usual = runPlainly();
  MEMTraceBuf *const pTraceBuf = env().pTraceBuf;
  const Result result = run(
      [&] {
        host.setTraceFlags(kAllTraceFlags);
        host.resetCalls();
        env().pTraceBuf = nullptr;
      },
      [&] {
        EXPECT_EQ(traceCalls(host), 0U);
        EXPECT_EQ(env().pTraceBuf, nullptr);
        env().pTraceBuf = pTraceBuf;
      });
  EXPECT_EQ(result, usual);
}

TEST_P(EverySlotTest, WorksWithoutAThreadBlock) {
  const Result usual = runPlainly();
  MEMThreadBlock *pThreadBlk = nullptr;
  const Result result = run(
      [&] {
        pThreadBlk = env().pMemThreadBlk;
        env().pMemThreadBlk = nullptr;
      },
      [&] {
        if (row().slot == 6) return;  // the one that makes it
        EXPECT_EQ(env().pMemThreadBlk, nullptr);
        env().pMemThreadBlk = pThreadBlk;
      });
  EXPECT_EQ(result, usual);
}

// Trace flags.

TEST_P(EverySlotTest, WritesAndFormatsNothingWithClearFlags) {
  EXPECT_EQ(traceCallsWith(0), 0U);
}

TEST_P(EverySlotTest, WritesAndFormatsNothingUnderFlagsWithoutAMeaning) {
  constexpr std::uint32_t kMeaningful =
      MEM_TRACE_ENTRY | MEM_TRACE_EXIT | MEM_TRACE_STORAGE | MEM_TRACE_SINK;
  EXPECT_EQ(traceCallsWith(~kMeaningful), 0U);
}

TEST_P(EverySlotTest, WritesNothingButEntryRecordsUnderBit0) {
  expectOnlyRecordsOf("STDE", 1);
}

TEST_P(EverySlotTest, WritesNothingButExitRecordsUnderBit1) {
  expectOnlyRecordsOf("STDX", 2);
}

TEST_P(EverySlotTest, WritesNothingButStorageRecordsUnderBit4) {
  expectOnlyRecordsOf("SL05", 16);
}

TEST_P(EverySlotTest, WritesNothingButSinkDetailUnderBit31) {
  expectOnlyRecordsOf("SL32", 0x80000000U);
}

TEST_P(EverySlotTest, NamesItselfInItsRecords) {
  for (const refhost::TraceRecord &record : recordsWith(kAllTraceFlags)) {
    // Process start and stop have no records of their own, but the sink's start and stop do; the
    // port string writer asks the heap, which has records, too.
    const bool isOthers = row().slot < 6 || row().slot == 41;
    if (!isOthers) {
      EXPECT_EQ(record.function, row().traceName) << refhost::traceLine(record);
    }
    EXPECT_EQ(record.source.rfind("..\\SrcRes\\MEMC", 0), 0U) << refhost::traceLine(record);
  }
}

TEST_P(EverySlotTest, GivesTheSameResultWhateverTheFlags) {
  const Result usual = runPlainly();
  const Result traced = run([&] { host.setTraceFlags(kAllTraceFlags); }, [] {});
  EXPECT_EQ(traced, usual);
}

// How the area is cleared depends on its address and on what is used in it.
class ErrorAreaTest : public BoundTest, public ::testing::WithParamInterface<std::size_t> {
 protected:
  // Entry points see a thread environment that begins GetParam() bytes after a multiple of 64.
  ErrorAreaTest() {
    ownRuntime = host.runtime();
    placed = reinterpret_cast<MEMThreadEnv *>(storage_ + GetParam());
    host.runtime().EnterFrame = [](MEMTraceFrame *pFrame, std::int32_t component) {
      ownRuntime.EnterFrame(pFrame, component);
      pFrame->pThreadEnv = placed;
    };
  }

  static MEMRuntimeServices ownRuntime;
  static MEMThreadEnv *placed;

 private:
  alignas(64) std::uint8_t storage_[sizeof(MEMThreadEnv) + 64] = {};
};

MEMRuntimeServices ErrorAreaTest::ownRuntime;
MEMThreadEnv *ErrorAreaTest::placed;

INSTANTIATE_TEST_SUITE_P(Places, ErrorAreaTest, ::testing::Range<std::size_t>(0, 64, 8));

TEST_P(ErrorAreaTest, OneUsedByteAnywhereIsClearedAndNothingElse) {
  fillEnv(*placed, 0xEE);
  std::memset(&placed->Error, 0, sizeof placed->Error);
  const Bytes clean = envBytes(*placed);
  for (std::size_t place = 0; place < sizeof placed->Error; ++place) {
    reinterpret_cast<std::uint8_t *>(&placed->Error)[place] = place % 2 == 0 ? 0x01 : 0x80;
    mem.MEM_Free(mem.MEM_Alloc(24, 7), 24, 7);
    ASSERT_EQ(changedRanges(clean, envBytes(*placed)), "") << "used: " << place;
  }
}

// Trace records in detail, with services whose records are fixed.

struct TraceCase {
  std::uint32_t flags;
  bool entry;
  bool exit;
};

void PrintTo(const TraceCase &traceCase, std::ostream *out) {
  *out << "flags " << traceCase.flags;
}

class TraceFlagTest : public BoundTest, public ::testing::WithParamInterface<TraceCase> {
 protected:
  TraceFlagTest() {
    host.setTraceFlags(GetParam().flags);
    host.keepRecords(true);
  }

  Lines expected(const std::string &entry, const std::string &exit) const {
    Lines lines;
    if (GetParam().entry) lines.push_back(entry);
    if (GetParam().exit) lines.push_back(exit);
    return lines;
  }
};

INSTANTIATE_TEST_SUITE_P(Flags, TraceFlagTest,
                         ::testing::Values(TraceCase{0, false, false}, TraceCase{1, true, false},
                                           TraceCase{2, false, true}, TraceCase{3, true, true},
                                           TraceCase{16, false, false}, TraceCase{17, true, false},
                                           TraceCase{18, false, true}, TraceCase{19, true, true},
                                           TraceCase{0x80000000U, false, false},
                                           TraceCase{0xFFFFFFFFU, true, true},
                                           TraceCase{0xFFFFFFFCU, false, false}));

TEST_P(TraceFlagTest, AllocWritesTheRecordsAskedFor) {
  void *area = mem.MEM_Alloc(24, 7);
  const std::string low = refhost::formatText("%lX", area);
  EXPECT_EQ(recordLines(host.takeRecords()),
            expected("STDE MemAlloc(..\\SrcRes\\MEMCSERV:117) Parms: Size=24, SubPool=7",
                     "STDX MemAlloc(..\\SrcRes\\MEMCSERV:133) 2:Return=" + low));
  host.runtime().FreeStorage(area, 24, 7);
}

TEST_P(TraceFlagTest, FreeWritesTheRecordsAskedFor) {
  Scene scene(host);
  obtainArea(scene);
  const std::string low = refhost::formatText("%lX", scene.area);
  mem.MEM_Free(scene.area, kSceneSize, kSceneSubPool);
  EXPECT_EQ(recordLines(host.takeRecords()),
            expected("STDE MEM_Free(..\\SrcRes\\MEMCSERV:175) Parms: pArea=" + low + ", SubPool=7",
                     "STDX MEM_Free(..\\SrcRes\\MEMCSERV:182) 2:Return=VOID"));
}

TEST_P(TraceFlagTest, FailingCallWritesNoExitRecord) {
  EXPECT_EQ(mem.MEM_InitQTRFTbls(), kFailed);
  Lines lines;
  if (GetParam().entry) {
    lines.push_back("STDE MEM_InitQTRFTbls(..\\SrcRes\\MEMCSERV:228) Init QTRF Tables entered");
  }
  EXPECT_EQ(recordLines(host.takeRecords()), lines);
}

// The arguments of the last trace call, and what was in the trace buffer at that time.
struct RecordCall {
  int calls = 0;
  std::int32_t component = 0;
  std::int32_t zero = -1;
  std::uint32_t textLen = 0;
  std::string text;
};
RecordCall lastRecord;
MEMTraceBuf *watchedBuf = nullptr;

void seeRecord(std::int32_t component, std::int32_t zero, const char *, const char *, const char *,
               std::int32_t) {
  ++lastRecord.calls;
  lastRecord.component = component;
  lastRecord.zero = zero;
  lastRecord.textLen = watchedBuf->TextLen;
  lastRecord.text = watchedBuf->Text;
}

std::int32_t shortFormat(char *pDest, const char *, ...) {
  std::strcpy(pDest, "seventeen letters");
  return 9;
}

class TraceBufferTest : public BoundTest {
 protected:
  TraceBufferTest() {
    watchedBuf = env().pTraceBuf;
    watchedBuf->TextLen = 0xEEEEEEEEU;
    lastRecord = {};
    host.trace().WriteRecord = seeRecord;
  }
};

TEST_F(TraceBufferTest, FixedTextIsCopiedWithItsLengthAndNotFormatted) {
  host.setTraceFlags(MEM_TRACE_EXIT);
  Scene scene(host);
  obtainArea(scene);
  mem.MEM_Free(scene.area, kSceneSize, kSceneSubPool);
  EXPECT_EQ(host.calls(Service::Format), 0U);
  EXPECT_EQ(lastRecord.calls, 1);
  EXPECT_EQ(lastRecord.component, 3);
  EXPECT_EQ(lastRecord.zero, 0);
  EXPECT_EQ(lastRecord.textLen, 13U);
  EXPECT_EQ(lastRecord.text.substr(0, 13), "2:Return=VOID");
}

TEST_F(TraceBufferTest, EntryTextOfTheTableServiceHas24Characters) {
  host.setTraceFlags(MEM_TRACE_ENTRY);
  mem.MEM_InitQTRFTbls();
  EXPECT_EQ(host.calls(Service::Format), 0U);
  EXPECT_EQ(lastRecord.calls, 1);
  EXPECT_EQ(lastRecord.textLen, 24U);
  EXPECT_EQ(lastRecord.text.substr(0, 24), "Init QTRF Tables entered");
}

TEST_F(TraceBufferTest, FormattedTextHasTheLengthThatTheHostReturned) {
  host.trace().Format = shortFormat;
  host.setTraceFlags(MEM_TRACE_EXIT);
  void *area = mem.MEM_Alloc(24, 7);
  host.runtime().FreeStorage(area, 24, 7);
  EXPECT_EQ(lastRecord.calls, 1);
  EXPECT_EQ(lastRecord.component, 3);
  EXPECT_EQ(lastRecord.zero, 0);
  EXPECT_EQ(lastRecord.textLen, 9U);
  EXPECT_EQ(lastRecord.text, "seventeen letters");
}

// A host that cannot format says so by a negative length: records are then without text.
std::int32_t refuseFormat(char *, const char *, ...) {
  return -1;
}

TEST_F(TraceBufferTest, NegativeLengthIsARecordWithoutText) {
  host.trace().Format = refuseFormat;
  for (const std::uint32_t flag : {MEM_TRACE_ENTRY, MEM_TRACE_EXIT}) {
    watchedBuf->TextLen = 0xEEEEEEEEU;
    host.setTraceFlags(flag);
    void *area = mem.MEM_Alloc(24, 7);
    host.runtime().FreeStorage(area, 24, 7);
    EXPECT_EQ(lastRecord.textLen, 0U);
  }
  EXPECT_EQ(lastRecord.calls, 2);
}

TEST_F(TraceBufferTest, OnlyLengthAndTextOfTheBufferAreWritten) {
  std::memset(watchedBuf->Reserved0, 0xEE, sizeof watchedBuf->Reserved0);
  std::memset(watchedBuf->Reserved36, 0xEE, sizeof watchedBuf->Reserved36);
  host.setTraceFlags(kAllTraceFlags);
  void *area = mem.MEM_Alloc(24, 7);
  mem.MEM_Free(area, 24, 7);
  EXPECT_EQ(changedRanges(Bytes(32, 0xEE), bytesOf(watchedBuf->Reserved0, 32)), "");
  EXPECT_EQ(changedRanges(Bytes(4, 0xEE), bytesOf(watchedBuf->Reserved36, 4)), "");
}

TEST_F(TraceBufferTest, ThreadsTraceFlagsAreReadAtEveryCall) {
  Scene scene(host);
  for (const std::uint32_t flags : {2U, 0U, 2U}) {
    host.setTraceFlags(flags);
    obtainArea(scene);
    mem.MEM_Free(scene.area, kSceneSize, kSceneSubPool);
  }
  EXPECT_EQ(lastRecord.calls, 2);
}

// Results of host services: only 16 bits count.

constexpr std::uint32_t kJunk = 0xABCD0000U;
MEMRuntimeServices ownRuntime;

std::uint32_t getAnchorWithJunk(std::int32_t zero, std::int32_t component, void **ppAnchor) {
  return kJunk | ownRuntime.GetAnchor(zero, component, ppAnchor);
}
std::uint32_t createGateWithJunk(std::uint32_t *phGate) {
  return kJunk | ownRuntime.CreateGate(phGate);
}
std::uint32_t getPoolStorageWithJunk(std::uint16_t subPool, std::uint32_t length, void **ppArea) {
  return kJunk | ownRuntime.GetPoolStorage(subPool, length, ppArea);
}
std::uint32_t getStorageWithJunk(void **ppArea, std::uint32_t length, std::uint16_t subPool,
                                 std::uint16_t kind) {
  return kJunk | ownRuntime.GetStorage(ppArea, length, subPool, kind);
}
std::uint32_t protectStorageWithJunk(void *pArea, std::uint32_t length, std::uint16_t subPool,
                                     std::uint16_t mode) {
  return kJunk | ownRuntime.ProtectStorage(pArea, length, subPool, mode);
}

class HostResultTest : public BoundTest {
 protected:
  HostResultTest() {
    ownRuntime = host.runtime();
    putAs(host.runtime().GetAnchor, getAnchorWithJunk);
    putAs(host.runtime().CreateGate, createGateWithJunk);
    putAs(host.runtime().GetPoolStorage, getPoolStorageWithJunk);
    putAs(host.runtime().GetStorage, getStorageWithJunk);
    putAs(host.runtime().ProtectStorage, protectStorageWithJunk);
  }
};

TEST_F(HostResultTest, UpperHalfOfASuccessIsIgnored) {
  EXPECT_EQ(mem.MEM_ProcessInit(), 0);
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  void *area = mem.MEM_Alloc(24, 7);
  EXPECT_NE(area, nullptr);
  mem.MEM_Free(area, 24, 7);
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
}

TEST_F(HostResultTest, UpperHalfOfAFailureIsNotRecorded) {
  EXPECT_EQ(mem.MEM_ProcessInit(), 0);
  host.arm(faultOf(Service::GetPoolStorage));
  EXPECT_EQ(mem.MEM_ThreadAct(), kFailed);
  EXPECT_EQ(error().InnerCode, 8U);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
}

// Cells that a service is to store into.

int dirtyCells = 0;

class CellTest : public BoundTest {
 protected:
  CellTest() {
    ownRuntime = host.runtime();
    dirtyCells = 0;
  }
};

TEST_F(CellTest, CellsAreClearBeforeAServiceStoresIntoThem) {
  host.runtime().GetAnchor = [](std::int32_t zero, std::int32_t component, void **ppAnchor) {
    dirtyCells += *ppAnchor != nullptr ? 1 : 0;
    return ownRuntime.GetAnchor(zero, component, ppAnchor);
  };
  host.runtime().CreateGate = [](std::uint32_t *phGate) {
    dirtyCells += *phGate != 0 ? 1 : 0;
    return ownRuntime.CreateGate(phGate);
  };
  host.runtime().GetPoolStorage = [](std::uint16_t subPool, std::uint32_t length, void **ppArea) {
    dirtyCells += *ppArea != nullptr ? 1 : 0;
    return ownRuntime.GetPoolStorage(subPool, length, ppArea);
  };
  host.runtime().GetStorage = [](void **ppArea, std::uint32_t length, std::uint16_t subPool,
                                 std::uint16_t kind) {
    dirtyCells += *ppArea != nullptr ? 1 : 0;
    return ownRuntime.GetStorage(ppArea, length, subPool, kind);
  };
  for (const SlotCall &row : slotCalls()) {
    Scene scene(host);
    if (row.prepare != nullptr) row.prepare(scene);
    soilStack();
    row.call(scene);
    if (row.cleanUp != nullptr) row.cleanUp(scene);
    EXPECT_EQ(dirtyCells, 0) << row.name;
  }
}

TEST_F(CellTest, AnchorServiceThatStoresNothingMeansNoProcessBlock) {
  EXPECT_EQ(mem.MEM_ProcessInit(), 0);
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  MEMThreadBlock *const pThreadBlk = env().pMemThreadBlk;

  host.runtime().GetAnchor = [](std::int32_t, std::int32_t, void **) { return std::uint16_t{0}; };
  soilStack();
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  EXPECT_EQ(env().pMemThreadBlk, pThreadBlk);
  EXPECT_EQ(mem.MEM_ThreadAct(), kFailed);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  EXPECT_NE(host.anchor(), nullptr);

  host.restoreSlots();
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
}

TEST_F(CellTest, StorageServiceThatStoresNothingYieldsNull) {
  host.runtime().GetStorage = [](void **, std::uint32_t, std::uint16_t, std::uint16_t) {
    return std::uint16_t{0};
  };
  soilStack();
  EXPECT_EQ(mem.MEM_Alloc(24, 7), nullptr);
}

}  // namespace
}  // namespace memtest
