// Process and thread context: the blocks byte by byte, the host calls in order, the process option,
// and every way in which start can fail.

#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

#include "memtest.hpp"
#include "processblocks.hpp"

namespace memtest {
namespace {

using refhost::Service;

class ProcessTest : public BoundTest {
 protected:
  ProcessTest() : BoundTest(withDirtyStorage()) {}

  void initProcess() { ASSERT_EQ(mem.MEM_ProcessInit(), 0); }
  void termProcess() { ASSERT_EQ(mem.MEM_ProcessTerm(), 0); }

  Bytes processBytes() const { return bytesOf(host.anchor(), 3248); }

  Bytes threadBlockImage() {
    Bytes image(296);
    put(image, 0, std::uint32_t{296});
    putText(image, 4, ">PST_MEMThreadBlock     ");
    put(image, 30, std::uint16_t{2});
    for (std::size_t i = 0; i < 7; ++i) put(image, 32 + i * 8, host.anchor()->Pointers[i]);
    put(image, 280, host.anchor());
    return image;
  }
};

// Process start.

TEST_F(ProcessTest, InitMakesTheBlockByteByByte) {
  initProcess();
  EXPECT_EQ(changedRanges(processBlockImage(host, SinkStep::index), processBytes()), "");
  EXPECT_EQ(host.account(1, refhost::kPoolKind).liveBytes, 3248U);
  EXPECT_EQ(host.account(1).liveCount, 1U);
  termProcess();
}

std::uint8_t flagsAtSinkStart = 0xFF;
MEMProcessBlock *startingBlock = nullptr;
MEMRuntimeServices ownRuntime;

TEST_F(ProcessTest, InitCompletesTheBlockAfterTheSinkStart) {
  ownRuntime = host.runtime();
  host.runtime().SetAnchor = [](std::int32_t zero, std::int32_t component, void *pAnchor) {
    if (pAnchor != nullptr) startingBlock = static_cast<MEMProcessBlock *>(pAnchor);
    ownRuntime.SetAnchor(zero, component, pAnchor);
  };
  mem.MEM_SinkInit = [] {
    flagsAtSinkStart = startingBlock->Flags;
    for (void *&pointer : startingBlock->Pointers) pointer = &flagsAtSinkStart;
    startingBlock->OldPackCB = 1;
    return std::int16_t{0};
  };
  initProcess();
  EXPECT_EQ(flagsAtSinkStart, 0);
  EXPECT_EQ(host.anchor()->Flags, 3);
  EXPECT_EQ(host.anchor()->OldPackCB, 0);
  for (const void *pointer : host.anchor()->Pointers) EXPECT_EQ(pointer, nullptr);
  termProcess();
}

TEST_F(ProcessTest, InitCallsTheHostInOrder) {
  host.recordCalls(true);
  initProcess();
  host.recordCalls(false);
  EXPECT_EQ(callLines(host.takeCalls(), startNames(host)), processStartLines());
  EXPECT_EQ(host.account().liveCount, 3U);
  EXPECT_EQ(host.gateCount(), 1U);
  termProcess();
}

TEST_F(ProcessTest, TermGivesEverythingBackInOrder) {
  initProcess();
  const AddressNames names = startNames(host);
  const std::uint32_t gate = host.anchor()->Gate;
  EXPECT_EQ(hostCalls([&] { termProcess(); }, names), processStopLines(SinkStep::index, gate));
  EXPECT_EQ(host.anchor(), nullptr);
  EXPECT_EQ(host.messageTable(), nullptr);
  expectNothingLeft(host);
}

TEST_F(ProcessTest, TermWithoutInitOnlyLooksTheAnchorUp) {
  EXPECT_EQ(hostCalls([&] { termProcess(); }),
            framed("MEM_ProcessTerm", {"GetAnchor(0, 3, cell)"}));
}

TEST_F(ProcessTest, SecondTermIsANoOp) {
  initProcess();
  termProcess();
  host.resetCalls();
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  EXPECT_EQ(host.calls(Service::GetAnchor), 1U);
  EXPECT_EQ(host.calls(Service::FreePoolStorage), 0U);
  EXPECT_EQ(host.calls(Service::SetAnchor), 0U);
  EXPECT_EQ(host.calls(Service::RegisterMessages), 0U);
}

TEST_F(ProcessTest, ProcessCanBeStartedAgain) {
  for (int round = 0; round < 3; ++round) {
    initProcess();
    EXPECT_EQ(changedRanges(processBlockImage(host, SinkStep::index), processBytes()), "");
    termProcess();
    expectNothingLeft(host);
  }
}

TEST_F(ProcessTest, TermReleasesEverythingWhenTheHostCannotUnprotect) {
  initProcess();
  host.arm(faultOf(Service::ProtectStorage, 777));
  termProcess();
  EXPECT_EQ(host.faultsFired(), 1U);
  EXPECT_EQ(host.anchor(), nullptr);
  expectNothingLeft(host);
}

TEST_F(ProcessTest, ProcessAndThreadCallsWriteNoRecordsOfTheirOwn) {
  MEMProcOptions options{};
  host.setTraceFlags(0xFFFFFFFFU);
  host.keepRecords(true);
  initProcess();
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  EXPECT_EQ(mem.MEMSetProcOptions(&options), 0);
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  termProcess();
  for (const refhost::TraceRecord &record : host.takeRecords()) {
    EXPECT_TRUE(record.function == "MEM_SinkInit" || record.function == "MEM_SinkTerm")
        << refhost::traceLine(record);
  }
}

// Failures of process start.

std::vector<StartFailure> startFailures() {
  std::vector<StartFailure> rows = sinkStartFailures();
  rows.push_back({Service::GetPoolStorage, 1, 3073, "MEMProcessBlock", SinkStep::none});
  return rows;
}

class StartFailureTest : public ProcessTest, public ::testing::WithParamInterface<StartFailure> {
 protected:
  bool inSink() const { return GetParam().service != Service::GetPoolStorage; }

  void failStart(std::uint32_t hostErrorCode) {
    refhost::Fault fault = faultOf(GetParam().service, hostErrorCode);
    fault.nth = GetParam().nth;
    std::memset(&error(), 0xEE, sizeof error());
    host.arm(fault);
    EXPECT_EQ(mem.MEM_ProcessInit(), kFailed);
    EXPECT_EQ(host.faultsFired(), 1U);
  }

  // The calls of a successful start up to the failing one, the sink's way back and the frames left.
  Lines linesOfFailure() const {
    Lines lines = linesOfFailedStart(processStartLines(), GetParam(), 1);
    if (inSink()) lines.push_back("MEM_SinkInit: LeaveFrame(frame, 3)");
    lines.push_back("MEM_ProcessInit: LeaveFrame(frame, 3)");
    return lines;
  }
};

INSTANTIATE_TEST_SUITE_P(EachHostCall, StartFailureTest, ::testing::ValuesIn(startFailures()));

TEST_P(StartFailureTest, IsRecordedInTheInnerFields) {
  failStart(0);
  MEMErrorArea expected{};
  expected.Component = 3;
  expected.ReturnCode = 0xFFFF;
  expected.InnerCode = GetParam().innerCode;
  std::strcpy(expected.InnerText, GetParam().innerText);
  EXPECT_EQ(changedRanges(bytesOf(&expected, sizeof expected), errorBytes(env())), "");
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
}

TEST_P(StartFailureTest, LeavesTheHostsOwnErrorAsTheHostLeftIt) {
  failStart(777);
  MEMErrorArea expected{};
  expected.Component = 3;
  expected.ReturnCode = 0xFFFF;
  expected.Code = 777;
  expected.InnerCode = GetParam().innerCode;
  expected.PrevInnerCode = inSink() ? 777 : 0;
  std::strcpy(expected.NameText, kHostErrorText);
  std::strcpy(expected.InnerText, GetParam().innerText);
  EXPECT_EQ(changedRanges(bytesOf(&expected, sizeof expected), errorBytes(env())), "");
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
}

TEST_P(StartFailureTest, IsNotReportedToTheTextService) {
  failStart(777);
  EXPECT_EQ(host.calls(Service::ReportError), 0U);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
}

TEST_P(StartFailureTest, EndsTheStartAtOnceAndUndoesOnlyTheSinks) {
  host.recordCalls(true);
  failStart(0);
  const std::vector<refhost::HostCall> calls = host.takeCalls();
  AddressNames names = startNames(host);
  nameReturned(names, calls);
  EXPECT_EQ(callLines(calls, names), linesOfFailure());
  host.recordCalls(false);
  if (inSink()) {
    ASSERT_NE(host.anchor(), nullptr);
    EXPECT_NE(host.messageTable(), nullptr);
    EXPECT_EQ(changedRanges(processBlockImage(host, SinkStep::none), processBytes()), "");
    EXPECT_EQ(host.account(230).liveCount, 0U);
    EXPECT_EQ(host.gateCount(), 0U);
  } else {
    EXPECT_EQ(host.anchor(), nullptr);
    EXPECT_EQ(host.messageTable(), nullptr);
  }
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
}

TEST_P(StartFailureTest, TermReleasesWhatThereIs) {
  failStart(0);
  const bool hasBlock = host.anchor() != nullptr;
  const AddressNames names = startNames(host);
  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  const Lines lines = callLines(host.takeCalls(), names);
  if (hasBlock) {
    EXPECT_EQ(lines, processStopLines(SinkStep::none, 0));
  }
  EXPECT_EQ(host.anchor(), nullptr);
  EXPECT_EQ(host.messageTable(), nullptr);
  expectNothingLeft(host);
}

TEST_P(StartFailureTest, ProcessCanBeStartedAfterwards) {
  failStart(777);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  EXPECT_EQ(mem.MEM_ProcessInit(), 0);
  EXPECT_EQ(changedRanges(Bytes(552), errorBytes(env())), "") << "the old error is left";
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
}

TEST_P(StartFailureTest, IsTheSameWithoutAThreadEnvironment) {
  host.withoutThreadEnv(true);
  refhost::Fault fault = faultOf(GetParam().service);
  fault.nth = GetParam().nth;
  host.arm(fault);
  EXPECT_EQ(mem.MEM_ProcessInit(), kFailed);
  EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  expectNothingLeft(host);
}

TEST_F(ProcessTest, AnyNonZeroResultOfTheSinkStartFailsTheStart) {
  mem.MEM_SinkInit = [] { return std::int16_t{1}; };
  EXPECT_EQ(mem.MEM_ProcessInit(), kFailed);
  EXPECT_EQ(error().Component, 3);
  EXPECT_EQ(error().ReturnCode, 0xFFFF);
  EXPECT_EQ(host.anchor()->Flags, 0);
  EXPECT_EQ(host.calls(Service::ReportError), 0U);
  termProcess();
}

// The result decides, not what a failing service has stored.

std::uint64_t strayStorage[512];

class StoringFailureTest : public ProcessTest {
 protected:
  void expectStartFailure(std::uint32_t innerCode, const char *innerText) {
    EXPECT_EQ(mem.MEM_ProcessInit(), kFailed);
    EXPECT_EQ(error().InnerCode, innerCode);
    EXPECT_STREQ(error().InnerText, innerText);
    host.restoreSlots();
    host.resetCalls();
    EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  }
};

TEST_F(StoringFailureTest, OfThePoolServiceIsAFailure) {
  const auto storeAndFail = [](std::uint16_t, std::uint32_t, void **ppArea) {
    *ppArea = strayStorage;
    return kHostCode;
  };
  host.runtime().GetPoolStorage = storeAndFail;
  expectStartFailure(3073, "MEMProcessBlock");
  EXPECT_EQ(host.calls(Service::FreePoolStorage), 0U);

  initProcess();
  host.runtime().GetPoolStorage = storeAndFail;
  EXPECT_EQ(mem.MEM_ThreadAct(), kFailed);
  EXPECT_EQ(error().Code, 3074U);
  EXPECT_EQ(error().InnerCode, kHostCode);
  EXPECT_EQ(env().pMemThreadBlk, nullptr);
  termProcess();
}

TEST_F(StoringFailureTest, OfTheGateServiceIsAFailureAndLeavesNoGate) {
  host.runtime().CreateGate = [](std::uint32_t *phGate) {
    *phGate = 77;
    return kHostCode;
  };
  expectStartFailure(4081, "CreateFailed");
  EXPECT_EQ(host.calls(Service::DeleteGate), 0U);
}

TEST_F(StoringFailureTest, OfTheStorageServiceIsAFailureAndLeavesNoBlock) {
  host.runtime().GetStorage = [](void **ppArea, std::uint32_t, std::uint16_t, std::uint16_t) {
    *ppArea = strayStorage;
    return kHostCode;
  };
  expectStartFailure(4080, "GetVSTGErr");
  EXPECT_EQ(host.calls(Service::ProtectStorage), 0U);
  EXPECT_EQ(host.calls(Service::FreeStorage), 0U);
}

class FaultSweepTest : public ProcessTest, public ::testing::WithParamInterface<Service> {};

TEST_P(FaultSweepTest, WholeLifeLeaksNothingWhicheverCallFails) {
  const auto life = [&](std::uint64_t) {
    const std::uint64_t firedBefore = host.faultsFired();
    std::int16_t result = mem.MEM_ProcessInit();
    if (result == 0) result = mem.MEM_ThreadAct();
    EXPECT_EQ(result, host.faultsFired() == firedBefore ? 0 : kFailed);
    host.disarm();
    EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
    EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
    EXPECT_EQ(host.anchor(), nullptr);
    EXPECT_EQ(host.messageTable(), nullptr);
    EXPECT_EQ(env().pMemThreadBlk, nullptr);
    expectNothingLeft(host);
  };
  EXPECT_GT(sweepFaults(host, faultOf(GetParam()), life), 0U);
  EXPECT_GT(sweepFaults(host, faultOf(GetParam(), 777), life), 0U);
}

INSTANTIATE_TEST_SUITE_P(EachService, FaultSweepTest,
                         ::testing::Values(Service::GetAnchor, Service::GetPoolStorage,
                                           Service::CreateGate, Service::GetStorage,
                                           Service::ProtectStorage));

// Threads.

TEST_F(ProcessTest, ThreadActMakesTheBlockByteByByte) {
  initProcess();
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  ASSERT_NE(env().pMemThreadBlk, nullptr);
  EXPECT_EQ(changedRanges(threadBlockImage(), bytesOf(env().pMemThreadBlk, 296)), "");
  EXPECT_EQ(host.account(2, refhost::kPoolKind).liveBytes, 296U);
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  termProcess();
}

TEST_F(ProcessTest, ThreadActCallsTheHostInOrder) {
  initProcess();
  EXPECT_EQ(hostCalls([&] { EXPECT_EQ(mem.MEM_ThreadAct(), 0); }),
            framed("MEM_ThreadAct", {"GetAnchor(0, 3, cell)", "GetPoolStorage(2, 296, cell)"}));
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  termProcess();
}

TEST_F(ProcessTest, ThreadBlockCarriesThePointersOfTheMomentItWasMade) {
  initProcess();
  std::uint8_t targets[8] = {};
  for (std::size_t i = 0; i < 7; ++i) host.anchor()->Pointers[i] = &targets[i];
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  const Bytes made = bytesOf(env().pMemThreadBlk, 296);
  EXPECT_EQ(changedRanges(threadBlockImage(), made), "");

  for (void *&pointer : host.anchor()->Pointers) pointer = &targets[7];
  EXPECT_EQ(changedRanges(made, bytesOf(env().pMemThreadBlk, 296)), "");

  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  EXPECT_EQ(changedRanges(threadBlockImage(), bytesOf(env().pMemThreadBlk, 296)), "");
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  termProcess();
}

TEST_F(ProcessTest, ThreadActWithoutAProcessFailsAndRecordsNothing) {
  fillEnv(env(), 0xEE);
  const Bytes before = envBytes(env());
  EXPECT_EQ(hostCalls([&] { EXPECT_EQ(mem.MEM_ThreadAct(), kFailed); }),
            framed("MEM_ThreadAct", {"GetAnchor(0, 3, cell)"}));
  EXPECT_EQ(changedRanges(before, envBytes(env())), "");
}

TEST_F(ProcessTest, ThreadActWithoutAThreadEnvironmentFailsAndObtainsNothing) {
  initProcess();
  host.withoutThreadEnv(true);
  host.resetCalls();
  EXPECT_EQ(mem.MEM_ThreadAct(), kFailed);
  EXPECT_EQ(host.calls(Service::GetPoolStorage), 0U);
  EXPECT_EQ(host.calls(Service::ReportError), 0U);
  host.withoutThreadEnv(false);
  EXPECT_EQ(env().pMemThreadBlk, nullptr);
  termProcess();
}

TEST_F(ProcessTest, ThreadActWithoutStorageRecordsWhyAndLeavesTheRestOfTheErrorArea) {
  initProcess();
  fillEnv(env(), 0xEE);
  const Bytes before = envBytes(env());
  host.arm(faultOf(Service::GetPoolStorage));
  EXPECT_EQ(mem.MEM_ThreadAct(), kFailed);

  EXPECT_EQ(error().Code, 3074U);
  EXPECT_EQ(error().InnerCode, 8U);
  EXPECT_EQ(error().ReturnCode, 0xFFFF);
  EXPECT_EQ(nameText(), "MEMThreadBlock");
  EXPECT_EQ(env().pMemThreadBlk, nullptr);
  // Nothing but those fields; the room after the name's terminator does not matter.
  Bytes after = envBytes(env());
  std::memcpy(&after[360], &before[360], MEM_NAME_TEXT_LEN);
  EXPECT_EQ(changedRanges(before, after), "76..77 80..87");
  termProcess();
}

TEST_F(ProcessTest, ThreadActWithoutStorageReportsTheNameField) {
  initProcess();
  host.arm(faultOf(Service::GetPoolStorage));
  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_ThreadAct(), kFailed);
  const Lines lines = callLines(host.takeCalls(), {{asNumber(error().NameText), "name"}});
  host.recordCalls(false);
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[2], "MEM_ThreadAct: GetPoolStorage(2, 296, cell)");
  EXPECT_EQ(lines[3].rfind("MEM_ThreadAct: ReportError(name, ", 0), 0U) << lines[3];
  EXPECT_EQ(lines[4], "MEM_ThreadAct: LeaveFrame(frame, 3)");
  EXPECT_EQ(host.lastReportedText(), "MEMThreadBlock");
  EXPECT_EQ(host.lastReportedDetail(), "");
  termProcess();
}

TEST_F(ProcessTest, ThreadActWithoutStorageReplacesTheHostsOwnError) {
  initProcess();
  host.arm(faultOf(Service::GetPoolStorage, 777));
  EXPECT_EQ(mem.MEM_ThreadAct(), kFailed);
  EXPECT_EQ(error().Code, 3074U);
  EXPECT_EQ(error().InnerCode, 8U);
  EXPECT_EQ(nameText(), "MEMThreadBlock");
  termProcess();
}

TEST_F(ProcessTest, ThreadActTwiceMakesASecondBlockAndLosesTheFirst) {
  initProcess();
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  MEMThreadBlock *const first = env().pMemThreadBlk;
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  EXPECT_NE(env().pMemThreadBlk, first);
  EXPECT_EQ(host.account(2).liveCount, 2U);
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  EXPECT_EQ(host.account(2).liveCount, 1U);
  host.runtime().FreePoolStorage(2, first);
  termProcess();
}

TEST_F(ProcessTest, ThreadTermGivesTheBlockBackInOrder) {
  initProcess();
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  const AddressNames names = {{asNumber(env().pMemThreadBlk), "thread"}};
  fillEnv(env(), 0xEE);
  Bytes before = envBytes(env());
  EXPECT_EQ(hostCalls([&] { EXPECT_EQ(mem.MEM_ThreadTerm(), 0); }, names),
            framed("MEM_ThreadTerm", {"GetAnchor(0, 3, cell)", "FreePoolStorage(2, thread)"}));
  EXPECT_EQ(host.account(2).liveCount, 0U);
  put(before, 1864, static_cast<void *>(nullptr));
  EXPECT_EQ(changedRanges(before, envBytes(env())), "");
  termProcess();
}

TEST_F(ProcessTest, ThreadTermWithoutAThreadBlockIsANoOp) {
  initProcess();
  EXPECT_EQ(hostCalls([&] { EXPECT_EQ(mem.MEM_ThreadTerm(), 0); }),
            framed("MEM_ThreadTerm", {"GetAnchor(0, 3, cell)"}));
  termProcess();
}

TEST_F(ProcessTest, ThreadTermWithoutAProcessLeavesTheThreadBlock) {
  initProcess();
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  MEMThreadBlock *const block = env().pMemThreadBlk;
  termProcess();

  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  EXPECT_EQ(env().pMemThreadBlk, block);
  EXPECT_EQ(host.account(2).liveCount, 1U);
  env().pMemThreadBlk = nullptr;
  host.runtime().FreePoolStorage(2, block);
}

TEST_F(ProcessTest, ThreadTermWithoutAThreadEnvironmentIsANoOp) {
  initProcess();
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  host.withoutThreadEnv(true);
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  host.withoutThreadEnv(false);
  EXPECT_NE(env().pMemThreadBlk, nullptr);
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  termProcess();
}

TEST_F(ProcessTest, EachThreadHasABlockOfItsOwn) {
  initProcess();
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  const MEMThreadBlock *const own = env().pMemThreadBlk;

  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(mem.MEM_ThreadAct(), 0);
        const MEMThreadBlock *block = host.thread().pMemThreadBlk;
        ASSERT_NE(block, nullptr);
        EXPECT_NE(block, own);
        EXPECT_EQ(block->pProcessBlk, host.anchor());
        void *area = mem.MEM_Alloc(64, 7);
        EXPECT_NE(area, nullptr);
        mem.MEM_Free(area, 64, 7);
        EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
        EXPECT_EQ(host.thread().pMemThreadBlk, nullptr);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();

  EXPECT_EQ(env().pMemThreadBlk, own);
  EXPECT_EQ(host.account(2).liveCount, 1U);
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  termProcess();
}

// The process option.

struct OptionCase {
  std::uint8_t set;
  std::uint8_t value;
};

void PrintTo(const OptionCase &row, std::ostream *out) {
  *out << "set " << int{row.set} << " value " << int{row.value};
}

class OptionTest : public ProcessTest, public ::testing::WithParamInterface<OptionCase> {};

INSTANTIATE_TEST_SUITE_P(Records, OptionTest,
                         ::testing::Values(OptionCase{0, 0}, OptionCase{0, 1}, OptionCase{0, 255},
                                           OptionCase{1, 0}, OptionCase{1, 1}, OptionCase{1, 2},
                                           OptionCase{1, 255}, OptionCase{2, 7},
                                           OptionCase{128, 64}, OptionCase{255, 1}));

TEST_P(OptionTest, ChangesTheOptionByteOnlyWhenTheSwitchIsSet) {
  constexpr std::size_t kOptionByte = 3224;
  initProcess();
  host.anchor()->OldPackCB = 0x55;
  Bytes expected = processBytes();
  if (GetParam().set != 0) expected[kOptionByte] = GetParam().value;
  // Exactly as long as the record is read: 65 bytes, with junk in between.
  const auto record = std::make_unique<std::uint8_t[]>(65);
  std::memset(record.get(), 0xEE, 65);
  record[0] = GetParam().set;
  record[64] = GetParam().value;

  EXPECT_EQ(mem.MEMSetProcOptions(reinterpret_cast<const MEMProcOptions *>(record.get())), 0);
  EXPECT_EQ(changedRanges(expected, processBytes()), "");
  termProcess();
}

TEST_F(ProcessTest, SetProcOptionsCallsTheHostInOrder) {
  initProcess();
  MEMProcOptions options{};
  options.Set = 1;
  EXPECT_EQ(hostCalls([&] { EXPECT_EQ(mem.MEMSetProcOptions(&options), 0); }),
            framed("MEMSetProcOptions", {"GetAnchor(0, 3, cell)"}));
  termProcess();
}

TEST_F(ProcessTest, NullOptionRecordChangesNothing) {
  initProcess();
  host.anchor()->OldPackCB = 0x55;
  const Bytes before = processBytes();
  EXPECT_EQ(mem.MEMSetProcOptions(nullptr), 0);
  EXPECT_EQ(changedRanges(before, processBytes()), "");
  termProcess();
}

TEST_F(ProcessTest, SetProcOptionsWithoutAProcessSucceeds) {
  MEMProcOptions options{};
  options.Set = 1;
  options.OldPackCB = 1;
  EXPECT_EQ(mem.MEMSetProcOptions(&options), 0);
  EXPECT_EQ(mem.MEMSetProcOptions(nullptr), 0);
  initProcess();
  EXPECT_EQ(host.anchor()->OldPackCB, 0);
  termProcess();
}

// A host that reports success without storing an address has given no storage.
TEST_F(ProcessTest, StorageWithoutAnAddressIsNone) {
  const auto own = host.runtime().GetPoolStorage;
  const auto lie = [](std::uint16_t, std::uint32_t, void **) -> std::uint16_t { return 0; };
  host.runtime().GetPoolStorage = lie;
  EXPECT_EQ(mem.MEM_ProcessInit(), kFailed);
  EXPECT_EQ(error().InnerCode, 3073U);
  EXPECT_STREQ(error().InnerText, "MEMProcessBlock");
  host.runtime().GetPoolStorage = own;
  initProcess();
  host.runtime().GetPoolStorage = lie;
  EXPECT_EQ(mem.MEM_ThreadAct(), kFailed);
  EXPECT_EQ(error().Code, 3074U);
  EXPECT_EQ(error().InnerCode, 0U);
  EXPECT_EQ(env().pMemThreadBlk, nullptr);
  host.runtime().GetPoolStorage = own;
  termProcess();
}

}  // namespace
}  // namespace memtest
