// Start and stop of the string sink, called on their own. How process start passes on the failures
// of the sink's start is in process_test.cpp.

#include <algorithm>
#include <cstddef>
#include <functional>

#include "memtest.hpp"
#include "processblocks.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr std::size_t kSinkFrom = 96;
constexpr std::size_t kSinkTo = 3224;

// A process whose sink is stopped. Storage from the host is dirty.
class SinkStartTest : public BoundTest {
 protected:
  SinkStartTest() : BoundTest(withDirtyStorage()) {
    EXPECT_EQ(mem.MEM_ProcessInit(), 0);
    EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  }

  ~SinkStartTest() override {
    host.disarm();
    host.restoreSlots();
    EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  }

  MEMProcessBlock &block() { return *host.anchor(); }

  // The gate of process start has been the first one.
  static constexpr std::uint32_t kSecondGate = 2;

  // With the sink stopped the string services change nothing and ask the host for nothing.
  void expectNoStringCallServes() {
    const char *pNarrow = "cell";
    const char16_t *pWide = u"cell";
    const Bytes before = sinkBytes();
    const std::function<std::int16_t()> calls[] = {
        [&] { return mem.MEM_SinkString("ab", &pNarrow); },
        [&] { return mem.MEM_SinkVerify("ab", &pNarrow, nullptr); },
        [&] { return mem.MEM_SinkDelete("ab"); },
        [&] { return mem.MEM_WSinkString(u"ab", &pWide); },
        [&] { return mem.MEM_WSinkVerify(u"ab", &pWide, nullptr); },
        [&] { return mem.MEM_WSinkDelete(u"ab"); },
    };
    for (const auto &call : calls) {
      std::memset(&error(), 0xEE, sizeof error());
      EXPECT_EQ(call(), kFailed);
      EXPECT_EQ(error().Component, 3);
      EXPECT_EQ(error().ReturnCode, 0xFFFF);
      EXPECT_EQ(error().Code, 4086U);
      EXPECT_EQ(nameText(), "");
      EXPECT_EQ(error().InnerCode, 0U);
    }
    EXPECT_STREQ(pNarrow, "cell");
    EXPECT_EQ(std::u16string(pWide), u"cell");
    for (const Service service :
         {Service::AcquireGate, Service::GetStorage, Service::ProtectStorage}) {
      EXPECT_EQ(host.calls(service), 0U) << refhost::serviceName(service);
    }
    EXPECT_EQ(changedRanges(before, sinkBytes()), "");
  }

  // The sink's part of the process block.
  Bytes sinkBytes() {
    const Bytes all = bytesOf(&block(), 3248);
    return Bytes(all.begin() + kSinkFrom, all.begin() + kSinkTo);
  }

  Bytes sinkImage(SinkStep step) {
    Bytes image(3248);
    putSink(image, host, step);
    return Bytes(image.begin() + kSinkFrom, image.begin() + kSinkTo);
  }
};

TEST_F(SinkStartTest, InitFillsTheProcessAnchorByteByByte) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  EXPECT_EQ(changedRanges(sinkImage(SinkStep::index), sinkBytes()), "");
  EXPECT_EQ(host.account(230, 0).liveBytes, 0x44000U + 16384U);
  EXPECT_EQ(host.gateCount(), 1U);
  EXPECT_EQ(host.heldGateCount(), 0U);
}

TEST_F(SinkStartTest, InitCallsTheHostInOrder) {
  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  EXPECT_EQ(callLines(host.takeCalls(), startNames(host)), sinkStartLines());
  host.recordCalls(false);
}

TEST_F(SinkStartTest, InitLeavesTheRestOfTheProcessBlockAlone) {
  std::memset(block().Pointers, 0xEE, sizeof block().Pointers);
  block().OldPackCB = 0xEE;
  const Bytes before = bytesOf(&block(), 3248);
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  Bytes after = bytesOf(&block(), 3248);
  std::copy(before.begin() + kSinkFrom, before.begin() + kSinkTo, after.begin() + kSinkFrom);
  EXPECT_EQ(changedRanges(before, after), "");
}

TEST_F(SinkStartTest, InitStartsWithAnEmptyMapAndAProtectedStringSpace) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  const std::uint8_t *const base = block().Segments[0].pBase;
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(changedRanges(Bytes(16384), bytesOf(base, 16384)), "") << "a granule is in use";
  EXPECT_FALSE(host.isReadOnly(base));
  EXPECT_FALSE(host.isReadOnly(base + 16383));
  EXPECT_TRUE(host.isReadOnly(base + 16384));
  EXPECT_TRUE(host.isReadOnly(base + 0x43FFF));
}

TEST_F(SinkStartTest, ErrorThatTheAnchorLookUpLeavesIsCleared) {
  static MEMRuntimeServices own;
  static MEMThreadEnv *pEnv = nullptr;
  own = host.runtime();
  pEnv = &env();
  host.runtime().GetAnchor = [](std::int32_t zero, std::int32_t component, void **ppAnchor) {
    pEnv->Error.Code = 777;
    return own.GetAnchor(zero, component, ppAnchor);
  };
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  EXPECT_EQ(changedRanges(Bytes(552), errorBytes(env())), "");
}

TEST_F(SinkStartTest, SinkCanBeStartedAndStoppedAgain) {
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(mem.MEM_SinkInit(), 0);
    EXPECT_EQ(changedRanges(sinkImage(SinkStep::index), sinkBytes()), "");
    EXPECT_EQ(mem.MEM_SinkTerm(), 0);
    EXPECT_EQ(host.account(230).liveCount, 0U);
    EXPECT_EQ(host.gateCount(), 0U);
  }
}

TEST_F(SinkStartTest, InitOfARunningSinkChangesNothing) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  const char *pSunk = nullptr;
  EXPECT_EQ(mem.MEM_SinkString("known", &pSunk), 0);
  const Bytes before = sinkBytes();
  std::memset(&error(), 0xEE, sizeof error());
  host.keepRecords(true);
  host.setTraceFlags(0xFFFFFFFFU);
  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  host.recordCalls(false);
  host.setTraceFlags(0);
  EXPECT_EQ(callLines(host.takeCalls()),
            (Lines{"MEM_SinkInit: EnterFrame(frame, 3)", "MEM_SinkInit: GetAnchor(0, 3, cell)",
                   "MEM_SinkInit: WriteRecord()", "MEM_SinkInit: LeaveFrame(frame, 3)"}));
  EXPECT_EQ(recordLines(host.takeRecords()),
            Lines{"STDX MEM_SinkInit(..\\SrcRes\\MEMCSTRG:231) Return=SUCCESS"});
  EXPECT_EQ(changedRanges(Bytes(552), errorBytes(env())), "");
  EXPECT_EQ(changedRanges(before, sinkBytes()), "");

  const char *pFound = nullptr;
  EXPECT_EQ(mem.MEM_SinkVerify("known", &pFound, nullptr), 0);
  EXPECT_EQ(pFound, pSunk);
  EXPECT_EQ(mem.MEM_SinkString("other", &pFound), 0);
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(host.account(230).liveCount, 0U);
  EXPECT_EQ(host.gateCount(), 0U);
}

TEST_F(SinkStartTest, OnlyTheSuccessfulExitIsTraced) {
  host.keepRecords(true);
  for (const std::uint32_t flags : {0xFFFFFFFFU, ~std::uint32_t{MEM_TRACE_EXIT}}) {
    host.setTraceFlags(flags);
    EXPECT_EQ(mem.MEM_SinkInit(), 0);
    EXPECT_EQ(mem.MEM_SinkTerm(), 0);
    const std::vector<refhost::TraceRecord> records = host.takeRecords();
    ASSERT_EQ(records.size(), (flags & MEM_TRACE_EXIT) != 0 ? 2U : 0U);
    for (const refhost::TraceRecord &record : records) {
      EXPECT_EQ(record.type, "STDX");
      EXPECT_EQ(record.source, "..\\SrcRes\\MEMCSTRG");
      EXPECT_EQ(record.text, "Return=SUCCESS");
    }
    if (records.empty()) continue;
    EXPECT_EQ(records[0].function, "MEM_SinkInit");
    EXPECT_EQ(records[1].function, "MEM_SinkTerm");
  }
}

// Failures of the start.

class SinkFailureTest : public SinkStartTest, public ::testing::WithParamInterface<StartFailure> {
 protected:
  void failStart(std::uint32_t hostErrorCode) {
    refhost::Fault fault = faultOf(GetParam().service, hostErrorCode);
    fault.nth = GetParam().nth;
    const std::uint64_t firedBefore = host.faultsFired();
    host.arm(fault);
    EXPECT_EQ(mem.MEM_SinkInit(), kFailed);
    EXPECT_EQ(host.faultsFired(), firedBefore + 1);
  }
};

INSTANTIATE_TEST_SUITE_P(EachHostCall, SinkFailureTest, ::testing::ValuesIn(sinkStartFailures()));

TEST_P(SinkFailureTest, IsRecordedInTheInnerFieldsAboveTheHostsCode) {
  std::memset(&error(), 0xEE, sizeof error());
  failStart(777);
  EXPECT_EQ(error().Component, 3);
  EXPECT_EQ(error().ReturnCode, 0xFFFF);
  EXPECT_EQ(error().Code, 777U);
  EXPECT_EQ(error().InnerCode, GetParam().innerCode);
  EXPECT_EQ(error().PrevInnerCode, 777U);
  EXPECT_STREQ(error().NameText, kHostErrorText);
  EXPECT_STREQ(error().InnerText, GetParam().innerText);
}

TEST_P(SinkFailureTest, WritesNoRecord) {
  host.setTraceFlags(0xFFFFFFFFU);
  failStart(0);
  EXPECT_EQ(traceCalls(host), 0U);
  host.setTraceFlags(0);
}

TEST_P(SinkFailureTest, GivesBackWhatItHas) {
  host.recordCalls(true);
  failStart(0);
  host.recordCalls(false);
  const std::vector<refhost::HostCall> calls = host.takeCalls();
  AddressNames names;
  nameReturned(names, calls);
  Lines expected = linesOfFailedStart(sinkStartLines(), GetParam(), kSecondGate);
  expected.push_back("MEM_SinkInit: LeaveFrame(frame, 3)");
  EXPECT_EQ(callLines(calls, names), expected);
  EXPECT_EQ(host.account(230).liveCount, 0U);
  EXPECT_EQ(host.gateCount(), 0U);
  EXPECT_EQ(changedRanges(Bytes(kSinkTo - kSinkFrom), sinkBytes()), "");
}

TEST_P(SinkFailureTest, LeavesNothingForTheStop) {
  failStart(0);
  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(callLines(host.takeCalls()), sinkStopLines(SinkStep::none, 0));
  host.recordCalls(false);
}

// What fails during the cleanup is neither reported nor a reason to keep anything.
TEST_P(SinkFailureTest, FirstFailureIsTheOneThatIsKept) {
  refhost::Fault fault = faultOf(GetParam().service, 777);
  fault.nth = GetParam().nth;
  host.arm(fault);
  static MEMThreadEnv *pEnv = nullptr;
  static MEMRuntimeServices own;
  pEnv = &env();
  own = host.runtime();
  host.runtime().DeleteGate = [](std::uint32_t hGate) {
    pEnv->Error = {};
    pEnv->Error.Code = 888;
    own.DeleteGate(hGate);
  };
  host.runtime().ProtectStorage = [](void *pArea, std::uint32_t length, std::uint16_t subPool,
                                     std::uint16_t mode) -> std::uint16_t {
    if (mode == MEM_PROTECT_READ_ONLY) return own.ProtectStorage(pArea, length, subPool, mode);
    pEnv->Error.Code = 889;
    return 8;
  };
  EXPECT_EQ(mem.MEM_SinkInit(), kFailed);
  EXPECT_EQ(error().Component, 3);
  EXPECT_EQ(error().ReturnCode, 0xFFFF);
  EXPECT_EQ(error().Code, 777U);
  EXPECT_STREQ(error().NameText, kHostErrorText);
  EXPECT_EQ(error().InnerCode, GetParam().innerCode);
  EXPECT_EQ(error().PrevInnerCode, 777U);
  EXPECT_STREQ(error().InnerText, GetParam().innerText);
  EXPECT_EQ(host.account(230).liveCount, 0U);
  EXPECT_EQ(host.gateCount(), 0U);
}

TEST_P(SinkFailureTest, SinkCanBeStartedAfterwards) {
  for (const bool withStop : {false, true}) {
    failStart(777);
    if (withStop) {
      EXPECT_EQ(mem.MEM_SinkTerm(), 0);
    }
    EXPECT_EQ(mem.MEM_SinkInit(), 0);
    EXPECT_EQ(changedRanges(sinkImage(SinkStep::index), sinkBytes()), "");
    EXPECT_EQ(changedRanges(Bytes(552), errorBytes(env())), "");
    EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  }
}

TEST_P(SinkFailureTest, StringCallsFailInternallyAfterIt) {
  failStart(0);
  host.resetCalls();
  expectNoStringCallServes();
}

TEST_F(SinkStartTest, StringCallsOfAStoppedSinkFailInternally) {
  host.resetCalls();
  expectNoStringCallServes();
}

// Handles of gates.

// A host whose handles count from 0.
class ZeroGateTest : public SinkStartTest {
 protected:
  ZeroGateTest() {
    own_ = host.runtime();
    made_ = 0;
    host.runtime().CreateGate = [](std::uint32_t *phGate) {
      const std::uint16_t code = own_.CreateGate(&made_);
      if (code == 0) *phGate = 0;
      return code;
    };
    host.runtime().DeleteGate = [](std::uint32_t hGate) { own_.DeleteGate(made_ + hGate); };
    host.runtime().AcquireGate = [](std::uint32_t hGate) {
      return own_.AcquireGate(made_ + hGate);
    };
    host.runtime().ReleaseGate = [](std::uint32_t hGate) { own_.ReleaseGate(made_ + hGate); };
  }

  static inline MEMRuntimeServices own_;
  static inline std::uint32_t made_ = 0;
};

TEST_F(ZeroGateTest, GateIsUsedAndDeleted) {
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(mem.MEM_SinkInit(), 0);
    EXPECT_EQ(block().Gate, 0U);
    const char *pSunk = nullptr;
    EXPECT_EQ(mem.MEM_SinkString("text", &pSunk), 0);
    EXPECT_EQ(mem.MEM_SinkInit(), 0) << "runs already";
    EXPECT_EQ(host.gateCount(), 1U);
    EXPECT_EQ(mem.MEM_SinkTerm(), 0);
    EXPECT_EQ(host.gateCount(), 0U);
    EXPECT_EQ(mem.MEM_SinkTerm(), 0);
    for (const refhost::Misuse &misuse : host.takeMisuses()) ADD_FAILURE() << misuse.what;
  }
}

TEST_F(ZeroGateTest, GateOfAFailedStartIsDeletedOnce) {
  for (const StartFailure &row : sinkStartFailures()) {
    SCOPED_TRACE(::testing::PrintToString(row));
    refhost::Fault fault = faultOf(row.service);
    fault.nth = row.nth;
    host.arm(fault);
    EXPECT_EQ(mem.MEM_SinkInit(), kFailed);
    host.disarm();
    EXPECT_EQ(host.gateCount(), 0U);
    EXPECT_EQ(host.account(230).liveCount, 0U);
    EXPECT_EQ(mem.MEM_SinkTerm(), 0);
    for (const refhost::Misuse &misuse : host.takeMisuses()) ADD_FAILURE() << misuse.what;
  }
}

// Stop.

TEST_F(SinkStartTest, TermGivesEverythingBackInOrder) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  const AddressNames names = startNames(host);
  const std::uint32_t gate = block().Gate;
  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(callLines(host.takeCalls(), names), sinkStopLines(SinkStep::index, gate));
  host.recordCalls(false);
}

TEST_F(SinkStartTest, TermClearsTheProcessAnchor) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  block().Segments[0].Counter = 5;
  block().Segments[0].UsedLen = 6;
  block().Segments[0].TextLen = 7;
  block().Used = 8;
  block().Act = 9;
  block().Garbage = 10;
  block().First = 11;
  block().End = 12;
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(changedRanges(Bytes(kSinkTo - kSinkFrom), sinkBytes()), "");
}

TEST_F(SinkStartTest, TermOfAStoppedSinkReleasesNothing) {
  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(callLines(host.takeCalls()), sinkStopLines(SinkStep::none, 0));
  host.recordCalls(false);
}

TEST_F(SinkStartTest, TermLeavesTheRestOfTheProcessBlockAlone) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  std::memset(block().Pointers, 0xEE, sizeof block().Pointers);
  block().OldPackCB = 0xEE;
  const Bytes before = bytesOf(&block(), 3248);
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  Bytes after = bytesOf(&block(), 3248);
  std::copy(before.begin() + kSinkFrom, before.begin() + kSinkTo, after.begin() + kSinkFrom);
  EXPECT_EQ(changedRanges(before, after), "");
}

// Gives the sink a further block, as a full sink would have.
void addSegment(refhost::Host &host, MEMSinkSegment &segment) {
  void *area = nullptr;
  ASSERT_EQ(host.runtime().GetStorage(&area, kSinkBlockLen, kSinkSubPool, 0), 0);
  segment.pBase = static_cast<std::uint8_t *>(area);
  segment.pSpace = segment.pBase + kSinkMapLen;
  segment.pLast = segment.pBase + kSinkBlockLen - 1;
  segment.pMap = segment.pBase;
  ASSERT_EQ(host.runtime().ProtectStorage(segment.pSpace, 0x40000, kSinkSubPool, 16), 0);
}

TEST_F(SinkStartTest, TermReleasesEveryCountedEntryThatHasABlockAndClearsAllCounted) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  AddressNames names = startNames(host);
  // Entry 1 has no block but old counts; entry 2 has one; entry 3 is not counted.
  block().Segments[1].Counter = 0xEE;
  block().Segments[1].FreeLen = 0xEE;
  addSegment(host, block().Segments[2]);
  names[asNumber(block().Segments[2].pBase)] = "base 2";
  names[asNumber(block().Segments[2].pSpace)] = "space 2";
  std::memset(&block().Segments[3], 0xEE, sizeof block().Segments[3]);
  block().SegmentCount = 3;
  const std::uint32_t gate = block().Gate;

  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(callLines(host.takeCalls(), names),
            nested(sinkStopLines(SinkStep::index, gate), 4,
                   {"MEM_SinkTerm: ProtectStorage(space 2, 262144, 230, 32)",
                    "MEM_SinkTerm: FreeStorage(base 2, 278528, 230)"}));
  host.recordCalls(false);
  EXPECT_EQ(changedRanges(Bytes(3 * 48), bytesOf(block().Segments, 3 * 48)), "");
  EXPECT_EQ(block().SegmentCount, 0);
  EXPECT_EQ(changedRanges(Bytes(48, 0xEE), bytesOf(&block().Segments[3], 48)), "");
  std::memset(&block().Segments[3], 0, sizeof block().Segments[3]);
}

TEST_F(SinkStartTest, TermVisitsAll64Entries) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  for (int i = 1; i < 64; ++i) addSegment(host, block().Segments[i]);
  block().SegmentCount = 64;
  host.resetCalls();
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(host.calls(Service::ProtectStorage), 64U);
  EXPECT_EQ(host.account(230).liveCount, 0U);
  EXPECT_EQ(changedRanges(Bytes(kSinkTo - kSinkFrom), sinkBytes()), "");
}

TEST_F(SinkStartTest, TermReturnsTheIndexWithItsOwnLength) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  // A grown index.
  host.runtime().FreeStorage(block().pIndex, block().IndexLen, kSinkSubPool);
  ASSERT_EQ(host.runtime().GetStorage(&block().pIndex, 24576, kSinkSubPool, 0), 0);
  block().IndexLen = 24576;
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(host.account(230).liveCount, 0U);
}

TEST_F(SinkStartTest, TermIgnoresFailuresOfTheHost) {
  EXPECT_EQ(mem.MEM_SinkInit(), 0);
  std::memset(&error(), 0xEE, sizeof error());
  host.arm(faultOf(Service::ProtectStorage));
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(host.faultsFired(), 1U);
  EXPECT_EQ(host.account(230).liveCount, 0U);
  EXPECT_EQ(host.gateCount(), 0U);
  EXPECT_EQ(changedRanges(Bytes(552, 0xEE), errorBytes(env())), "");
}

// Without a process block.

class SinkWithoutProcessTest : public BoundTest {};

TEST_F(SinkWithoutProcessTest, TermOnlyLooksTheAnchorUp) {
  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_SinkTerm(), 0);
  EXPECT_EQ(callLines(host.takeCalls()), sinkStopLines(SinkStep::none, 0));
}

TEST_F(SinkWithoutProcessTest, InitFailsAndObtainsNothing) {
  EXPECT_EQ(mem.MEM_SinkInit(), kFailed);
  EXPECT_EQ(host.calls(Service::CreateGate), 0U);
  EXPECT_EQ(host.calls(Service::GetStorage), 0U);
}

}  // namespace
}  // namespace memtest
