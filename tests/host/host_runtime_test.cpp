// Binding, frames, anchors, messages, call recording and faults of the reference host.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "refhost.hpp"

namespace {

using refhost::HostCall;
using refhost::Service;

// A stand-in for the library's binding entry that notes what it is given.
struct Bound {
  std::vector<void *> host;
  std::vector<void *> services;
  const MEMSysEnv *sysEnv = nullptr;
  std::int16_t mode = -100;
} bound;

int16_t processInit() {
  return 0;
}

void fakeEntry(void **const *ppHostVectors, void **const *ppServiceVectors,
               const MEMSysEnv *pSysEnv, std::uint32_t, std::int16_t mode) {
  bound = {};
  bound.mode = mode;
  if (mode != MEM_MODE_BIND) return;
  bound.sysEnv = pSysEnv;
  for (int i = 0; i < MEM_HOST_VECTORS; ++i) bound.host.push_back(*ppHostVectors[i]);
  for (int i = 0; i < MEM_SERVICE_VECTORS; ++i) bound.services.push_back(*ppServiceVectors[i]);
  static_cast<MEMFunctionVector *>(bound.host[MEM_HOST_VECTOR])->MEM_ProcessInit = processInit;
}

TEST(HostBinding, HandsOverItsVectorsAndUnusedOnes) {
  refhost::Host host;
  host.bind(fakeEntry);
  EXPECT_EQ(bound.mode, 1);
  EXPECT_EQ(bound.sysEnv, &host.sysEnv());
  EXPECT_EQ(bound.host[MEM_HOST_RUNTIME], &host.runtime());
  EXPECT_EQ(bound.host[MEM_HOST_TRACE], &host.trace());
  EXPECT_EQ(bound.host[MEM_HOST_TEXT], &host.text());
  EXPECT_EQ(bound.host[MEM_HOST_VECTOR], &host.vector());
  std::set<void *> others(bound.host.begin() + 4, bound.host.end());
  others.insert(bound.services.begin(), bound.services.end());
  EXPECT_EQ(others.size(), 1U);
  EXPECT_EQ(others.count(nullptr), 0U);
  for (const void *slot : host.vector().HostSlots) EXPECT_NE(slot, nullptr);
  host.unbind(fakeEntry, -1);
  EXPECT_EQ(bound.mode, -1);
}

TEST(HostBinding, OptionsSetThePlatformBlock) {
  {
    refhost::Host host({.bigEndian = true});
    EXPECT_EQ(host.sysEnv().PlatformFlags, MEM_PLATFORM_BIG_ENDIAN);
  }
  refhost::Host host({.nullSysEnv = true});
  EXPECT_EQ(host.sysEnv().PlatformFlags, 0U);
  host.bind(fakeEntry);
  EXPECT_EQ(bound.sysEnv, nullptr);
}

TEST(HostBinding, RestoreSlotsPutsBackServicesAndEntryPoints) {
  refhost::Host host;
  const auto getStorage = host.runtime().GetStorage;
  host.bind(fakeEntry);
  host.runtime().GetStorage = nullptr;
  host.trace().Format = nullptr;
  host.text().ReportError = nullptr;
  host.vector().MEM_ProcessInit = nullptr;
  host.restoreSlots();
  EXPECT_EQ(host.runtime().GetStorage, getStorage);
  EXPECT_NE(host.trace().Format, nullptr);
  EXPECT_NE(host.text().ReportError, nullptr);
  EXPECT_EQ(host.vector().MEM_ProcessInit, processInit);
}

TEST(HostBinding, OneHostAtATime) {
  {
    refhost::Host host;
    EXPECT_THROW(refhost::Host second, std::logic_error);
  }
  refhost::Host next;
  EXPECT_EQ(next.thread().pMemThreadBlk, nullptr);
}

TEST(HostBinding, ANewHostStartsWithFreshThreads) {
  {
    refhost::Host host;
    host.thread().Error.Code = 1;
  }
  refhost::Host host;
  EXPECT_EQ(host.thread().Error.Code, 0U);
}

TEST(HostBindingDeathTest, UnusedSlotsTellWhatWasCalled) {
  refhost::Host host;
  host.bind(fakeEntry);
  const auto firstSlot = [](void *vector) { return *static_cast<MEMReservedSlot *>(vector); };
  EXPECT_DEATH(host.runtime().Reserved9[3](), "reserved slot of the runtime services");
  EXPECT_DEATH(host.trace().Reserved10[0](), "reserved slot of the trace services");
  EXPECT_DEATH(host.text().Reserved9[0](), "reserved slot of the text services");
  EXPECT_DEATH(firstSlot(bound.host[4])(), "service vector that is not for this library");
}

TEST(HostLibrary, AMissingFileIsRefusedWithItsName) {
  try {
    refhost::Library library("no-such-library.so");
    FAIL() << "loaded";
  } catch (const std::runtime_error &error) {
    EXPECT_NE(std::string(error.what()).find("no-such-library.so"), std::string::npos);
  }
}

class HostRuntimeTest : public ::testing::Test {
 protected:
  void enter(MEMTraceFrame &frame, const char *name) {
    frame = {};
    frame.pName = name;
    host_.runtime().EnterFrame(&frame, MEM_COMPONENT);
  }
  void leave(MEMTraceFrame &frame) { host_.runtime().LeaveFrame(&frame, MEM_COMPONENT); }

  void expectMisuse(Service service, const std::string &what) {
    const auto misuses = host_.takeMisuses();
    ASSERT_EQ(misuses.size(), 1U);
    EXPECT_EQ(misuses[0].service, service);
    EXPECT_EQ(misuses[0].what, what);
  }

  refhost::Host host_;
  MEMTraceFrame outer_{};
  MEMTraceFrame inner_{};
};

TEST_F(HostRuntimeTest, FramesCarryEnvironmentAndFlags) {
  host_.setTraceFlags(MEM_TRACE_ENTRY);
  enter(outer_, "outer");
  host_.setTraceFlags(MEM_TRACE_EXIT);
  enter(inner_, "inner");
  EXPECT_EQ(outer_.pThreadEnv, &host_.thread());
  EXPECT_EQ(outer_.TraceFlags, MEM_TRACE_ENTRY);
  EXPECT_EQ(inner_.TraceFlags, MEM_TRACE_EXIT);
  EXPECT_EQ(outer_.Result, 0U);
  leave(inner_);
  leave(outer_);
  EXPECT_TRUE(host_.takeMisuses().empty());
}

TEST_F(HostRuntimeTest, EnvironmentCanBeMissing) {
  host_.withoutThreadEnv(true);
  enter(outer_, "outer");
  EXPECT_EQ(outer_.pThreadEnv, nullptr);
  void *area = nullptr;
  EXPECT_NE(host_.runtime().GetPoolStorage(1, 0xFFFFFFFF, &area), 0);
  EXPECT_EQ(host_.thread().Error.Code, 0U);
  leave(outer_);
  host_.withoutThreadEnv(false);
  enter(outer_, "outer");
  EXPECT_EQ(outer_.pThreadEnv, &host_.thread());
  leave(outer_);
}

TEST_F(HostRuntimeTest, FramesLeftOutOfOrderAreReported) {
  enter(outer_, "outer");
  enter(inner_, "inner");
  leave(outer_);
  expectMisuse(Service::LeaveFrame, "frame \"outer\" was left before frames inside it");
  leave(inner_);
  expectMisuse(Service::LeaveFrame, "frame \"inner\" was left before frames inside it");
}

TEST_F(HostRuntimeTest, FramesThatWereNotEnteredAreReported) {
  inner_.pName = "inner";
  leave(inner_);
  expectMisuse(Service::LeaveFrame, "frame \"inner\" was not entered on this thread");
  enter(outer_, "outer");
  leave(outer_);
  leave(outer_);
  expectMisuse(Service::LeaveFrame, "frame \"outer\" was not entered on this thread");
  enter(outer_, "outer");
  std::thread([this] { leave(outer_); }).join();
  expectMisuse(Service::LeaveFrame, "frame \"outer\" was not entered on this thread");
  leave(outer_);
  EXPECT_TRUE(host_.takeMisuses().empty());
}

TEST_F(HostRuntimeTest, KeepsTheAnchor) {
  MEMProcessBlock block{};
  void *found = &found;
  EXPECT_EQ(host_.runtime().GetAnchor(0, MEM_COMPONENT, &found), 0);
  EXPECT_EQ(found, nullptr);
  host_.runtime().SetAnchor(0, MEM_COMPONENT, &block);
  EXPECT_EQ(host_.runtime().GetAnchor(0, MEM_COMPONENT, &found), 0);
  EXPECT_EQ(found, &block);
  EXPECT_EQ(host_.anchor(), &block);
}

TEST_F(HostRuntimeTest, OtherComponentsAreReported) {
  host_.runtime().SetAnchor(0, 4, nullptr);
  expectMisuse(Service::SetAnchor, "component 4 is not known: it must be 3");
  host_.runtime().EnterFrame(&outer_, -1);
  expectMisuse(Service::EnterFrame, "component -1 is not known: it must be 3");
}

TEST_F(HostRuntimeTest, KeepsABoundedNumberOfMisuses) {
  const std::size_t kept = refhost::kKeptMisuses;
  const auto misuse = [this] { host_.runtime().SetAnchor(0, 4, nullptr); };
  for (std::size_t i = 0; i < kept; ++i) misuse();
  EXPECT_EQ(host_.takeMisuses().size(), kept);
  for (std::size_t i = 0; i < kept + 3; ++i) misuse();
  const auto misuses = host_.takeMisuses();
  ASSERT_EQ(misuses.size(), kept + 1);
  EXPECT_EQ(misuses[kept - 1].what, "component 4 is not known: it must be 3");
  EXPECT_EQ(misuses[kept].service, Service::SetAnchor);
  EXPECT_EQ(misuses[kept].what, "3 more misuses were not kept");
  EXPECT_TRUE(host_.takeMisuses().empty());
}

TEST_F(HostRuntimeTest, LooksMessagesUpInTheRegisteredTable) {
  const MEMMessageRow table[] = {{4030, 0, "MEMERR_HASHAMEM", "CtlBlk getmain failed", ""},
                                 {4031, 0, "MEMERR_HASHBHDL", "Bad Hash CtlBlk handle", ""},
                                 {0, 0, "", "", nullptr}};
  EXPECT_FALSE(host_.message(4031));
  host_.runtime().RegisterMessages(MEM_COMPONENT, table);
  EXPECT_EQ(host_.messageTable(), table);
  ASSERT_TRUE(host_.message(4031));
  EXPECT_EQ(host_.message(4031)->name, "MEMERR_HASHBHDL");
  EXPECT_EQ(host_.message(4031)->text, "Bad Hash CtlBlk handle");
  EXPECT_FALSE(host_.message(3080));
  EXPECT_FALSE(host_.message(0));
  host_.runtime().RegisterMessages(MEM_COMPONENT, nullptr);
  EXPECT_FALSE(host_.message(4031));
}

TEST_F(HostRuntimeTest, EveryServiceHasAName) {
  std::set<std::string_view> names;
  for (std::size_t i = 0; i < refhost::kServiceCount; ++i) {
    names.insert(refhost::serviceName(static_cast<Service>(i)));
  }
  EXPECT_EQ(names.size(), refhost::kServiceCount);
  EXPECT_EQ(refhost::serviceName(Service::GetAnchor), "GetAnchor");
  EXPECT_EQ(refhost::serviceName(Service::ConvertText), "ConvertText");
  EXPECT_EQ(refhost::serviceName(Service::FilterException), "FilterException");
}

TEST_F(HostRuntimeTest, CountsCallsOfAllThreadsUntilReset) {
  void *anchor = nullptr;
  host_.runtime().GetAnchor(0, MEM_COMPONENT, &anchor);
  std::thread([&] { host_.runtime().GetAnchor(0, MEM_COMPONENT, &anchor); }).join();
  EXPECT_EQ(host_.calls(Service::GetAnchor), 2U);
  EXPECT_EQ(host_.calls(Service::SetAnchor), 0U);
  host_.resetCalls();
  EXPECT_EQ(host_.calls(Service::GetAnchor), 0U);
  host_.runtime().GetAnchor(0, MEM_COMPONENT, &anchor);
  EXPECT_EQ(host_.calls(Service::GetAnchor), 1U);
}

TEST_F(HostRuntimeTest, RecordsCallsInOrderWithFrameArgumentsAndResult) {
  host_.recordCalls(true);
  enter(outer_, "outer");
  enter(inner_, "inner");
  void *area = nullptr;
  host_.runtime().GetStorage(&area, 24, 5, 2);
  leave(inner_);
  host_.runtime().FreeStorage(area, 24, 5);
  EXPECT_EQ(host_.runtime().AcquireGate(9), refhost::kNoGate);
  leave(outer_);
  host_.recordCalls(false);
  host_.runtime().CheckStorage(nullptr, 1);
  host_.takeMisuses();

  struct Expected {
    Service service;
    const char *frame;
  };
  const Expected expected[] = {{Service::EnterFrame, "outer"},  {Service::EnterFrame, "inner"},
                               {Service::GetStorage, "inner"},  {Service::LeaveFrame, "inner"},
                               {Service::FreeStorage, "outer"}, {Service::AcquireGate, "outer"},
                               {Service::LeaveFrame, "outer"}};
  const std::vector<HostCall> calls = host_.takeCalls();
  ASSERT_EQ(calls.size(), std::size(expected));
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].service, expected[i].service) << i;
    EXPECT_EQ(calls[i].frame, expected[i].frame) << i;
  }
  EXPECT_EQ(calls[0].args[0], reinterpret_cast<std::uintptr_t>(&outer_));
  EXPECT_EQ(calls[0].args[1], std::uint64_t{MEM_COMPONENT});
  EXPECT_EQ(calls[2].args,
            (std::array<std::uint64_t, 4>{reinterpret_cast<std::uintptr_t>(&area), 24, 5, 2}));
  EXPECT_EQ(calls[2].result, reinterpret_cast<std::uintptr_t>(area));
  EXPECT_EQ(calls[5].result, refhost::kNoGate);
  EXPECT_TRUE(host_.takeCalls().empty());
}

class HostFaultTest : public HostRuntimeTest {
 protected:
  // Whether a request for storage is served; what was allocated is freed at once.
  bool obtains() {
    void *area = nullptr;
    const std::uint16_t code = host_.runtime().GetStorage(&area, 8, 1, 1);
    if (area == nullptr) {
      EXPECT_EQ(code, 8);
      return false;
    }
    host_.runtime().FreeStorage(area, 8, 1);
    return true;
  }
};

TEST_F(HostFaultTest, TheNthCallFailsOnce) {
  obtains();
  host_.arm({.service = Service::GetStorage, .nth = 3});
  EXPECT_TRUE(obtains());
  EXPECT_TRUE(obtains());
  EXPECT_EQ(host_.faultsFired(), 0U);
  EXPECT_FALSE(obtains());
  EXPECT_TRUE(obtains());
  EXPECT_EQ(host_.faultsFired(), 1U);
}

TEST_F(HostFaultTest, AllLaterCallsFailUntilDisarmed) {
  host_.arm({.service = Service::GetStorage, .nth = 2, .andAllLater = true});
  EXPECT_TRUE(obtains());
  EXPECT_FALSE(obtains());
  EXPECT_FALSE(obtains());
  host_.disarm();
  EXPECT_TRUE(obtains());
  EXPECT_EQ(host_.faultsFired(), 2U);
}

TEST_F(HostFaultTest, ArmingAgainReplacesTheFaultOfThatServiceOnly) {
  host_.arm({.service = Service::GetStorage, .nth = 5});
  host_.arm({.service = Service::CheckStorage, .code = 99});
  host_.arm({.service = Service::GetStorage, .nth = 2});
  EXPECT_TRUE(obtains());
  EXPECT_FALSE(obtains());
  EXPECT_EQ(host_.runtime().CheckStorage(&host_, 1), 99);
}

TEST_F(HostFaultTest, LeavesItsErrorInTheThreadEnvironment) {
  host_.arm(
      {.service = Service::GetStorage, .errorCode = 1234, .errorText = std::string(100, 'x')});
  EXPECT_FALSE(obtains());
  EXPECT_EQ(host_.thread().Error.Code, 1234U);
  EXPECT_EQ(host_.thread().Error.NameText, std::string(63, 'x'));

  host_.thread().Error = {};
  host_.arm({.service = Service::GetStorage});
  EXPECT_FALSE(obtains());
  EXPECT_EQ(host_.thread().Error.Code, 0U);
  EXPECT_EQ(host_.thread().Error.NameText[0], '\0');
}

TEST_F(HostFaultTest, AFaultedServiceDoesNothing) {
  void *area = nullptr;
  ASSERT_EQ(host_.runtime().GetStorage(&area, 8, 1, 1), 0);
  host_.arm({.service = Service::FreeStorage});
  host_.runtime().FreeStorage(area, 8, 1);
  EXPECT_EQ(host_.account().liveCount, 1U);
  host_.runtime().FreeStorage(area, 8, 1);
  EXPECT_EQ(host_.account().liveCount, 0U);

  std::uint32_t gate = 0;
  host_.arm({.service = Service::CreateGate, .code = 5});
  EXPECT_EQ(host_.runtime().CreateGate(&gate), 5);
  EXPECT_EQ(gate, 0U);
  EXPECT_EQ(host_.gateCount(), 0U);
  EXPECT_TRUE(host_.takeMisuses().empty());
}

TEST_F(HostFaultTest, FaultedCallsAreCountedAndRecorded) {
  host_.recordCalls(true);
  host_.arm({.service = Service::GetPoolStorage, .code = 77});
  void *area = nullptr;
  EXPECT_EQ(host_.runtime().GetPoolStorage(1, 8, &area), 77);
  EXPECT_EQ(host_.calls(Service::GetPoolStorage), 1U);
  const auto calls = host_.takeCalls();
  ASSERT_EQ(calls.size(), 1U);
  EXPECT_EQ(calls[0].result, 77U);
}

TEST_F(HostFaultTest, FramesAndTheZerothCallCannotFail) {
  EXPECT_THROW(host_.arm({.service = Service::EnterFrame}), std::logic_error);
  EXPECT_THROW(host_.arm({.service = Service::LeaveFrame}), std::logic_error);
  EXPECT_THROW(host_.arm({.service = Service::GetStorage, .nth = 0}), std::logic_error);
}

}  // namespace
