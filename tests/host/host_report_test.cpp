// What the reference host reports at its end and at a misuse: what is found, what is not, where it
// goes. The programs of leaking_program_test show the same from outside.
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "memtest.hpp"

namespace memtest {
namespace {

using refhost::Findings;
using refhost::Host;
using refhost::Leak;
using refhost::Misuse;
using refhost::Options;
using refhost::Service;
using refhost::Session;

constexpr std::uint16_t kSubPool = 7;

// Leaks are made on purpose, so they are freed and not written to stderr.
Options quietly() {
  Options options;
  options.report = false;
  options.keepLeaks = false;
  return options;
}

Lines textsOf(const Findings &findings) {
  Lines lines;
  for (const Misuse &misuse : findings.misuses) {
    lines.push_back(std::string(refhost::serviceName(misuse.service)) + ": " + misuse.what);
  }
  return lines;
}

TEST(HostReport, NamesAreaServiceCallAndThreadOfALeak) {
  Session session(library().bindEntry(), quietly());
  HMEMHEAP heap = nullptr;
  ASSERT_EQ(session.vector().MEM_HeapOpen(&heap, 4, kSubPool), 0);
  const std::uint64_t calls = session.host().account().totalCount;

  const Findings findings = session.close();
  ASSERT_EQ(findings.leaks.size(), 1U);
  EXPECT_TRUE(findings.misuses.empty());
  EXPECT_FALSE(findings.empty());
  const Leak &leak = findings.leaks[0];
  EXPECT_EQ(leak.area, heap);
  EXPECT_EQ(leak.length, 4096U);
  EXPECT_EQ(leak.subPool, kSubPool);
  EXPECT_EQ(leak.kind, 1U);
  EXPECT_EQ(leak.callNumber, calls) << "the last area allocated";
  EXPECT_NE(leak.thread, 0U);
  EXPECT_EQ(leak.services, (Lines{"MEM_HeapOpen", "MemAlloc"}));
  EXPECT_TRUE(leak.stack.empty());
}

TEST(HostReport, TellsThreadsApart) {
  Session session(library().bindEntry(), quietly());
  session.vector().MEM_Alloc(1, kSubPool);
  std::thread([&] { session.vector().MEM_Alloc(2, kSubPool); }).join();
  session.vector().MEM_Alloc(3, kSubPool);
  const Findings findings = session.close();
  ASSERT_EQ(findings.leaks.size(), 3U);
  EXPECT_EQ(findings.leaks[0].thread, findings.leaks[2].thread);
  EXPECT_NE(findings.leaks[0].thread, findings.leaks[1].thread);
  EXPECT_EQ(findings.leaks[1].callNumber, findings.leaks[0].callNumber + 1);
  EXPECT_EQ(findings.leaks[2].callNumber, findings.leaks[0].callNumber + 2);
}

TEST(HostReport, ACallOfTheHostItselfHasNoService) {
  Host host(quietly());
  void *area = nullptr;
  host.runtime().GetStorage(&area, 10, kSubPool, 1);
  const Findings findings = host.report();
  ASSERT_EQ(findings.leaks.size(), 1U);
  EXPECT_TRUE(findings.leaks[0].services.empty());
  EXPECT_NE(findings.text().find("called: the host directly"), std::string::npos);
}

// Deeper than names are kept: the outermost ones are.
TEST(HostReport, FramesMayBeNestedDeeply) {
  Host host(quietly());
  constexpr std::size_t kDepth = 200;
  std::vector<MEMTraceFrame> frames(kDepth);
  for (std::size_t i = 0; i < kDepth; ++i) {
    frames[i].pName = i == 0 ? "outermost" : nullptr;
    host.runtime().EnterFrame(&frames[i], MEM_COMPONENT);
  }
  void *area = nullptr;
  host.runtime().GetStorage(&area, 10, kSubPool, 1);
  for (std::size_t i = kDepth; i > 0; --i) host.runtime().LeaveFrame(&frames[i - 1], MEM_COMPONENT);
  host.runtime().GetStorage(&area, 10, kSubPool, 1);
  const Findings findings = host.report();
  ASSERT_EQ(findings.leaks.size(), 2U);
  ASSERT_EQ(findings.leaks[0].services.size(), 64U);
  EXPECT_EQ(findings.leaks[0].services[0], "outermost");
  EXPECT_EQ(findings.leaks[0].services[1], "");
  EXPECT_TRUE(findings.leaks[1].services.empty());
  EXPECT_TRUE(findings.misuses.empty());
}

// A fault or an exception cuts frames off; the next one that is left is outside of them.
TEST(HostReport, FramesThatWereCutOffAreNotNamed) {
  Host host(quietly());
  MEMTraceFrame outer{};
  outer.pName = "outer";
  host.runtime().EnterFrame(&outer, MEM_COMPONENT);
  {
    MEMTraceFrame inner{};
    inner.pName = "inner";
    host.runtime().EnterFrame(&inner, MEM_COMPONENT);
  }
  EXPECT_EQ(host.text().FilterException(nullptr, &outer), 1);
  void *area = nullptr;
  host.runtime().GetStorage(&area, 10, kSubPool, 1);
  host.runtime().LeaveFrame(&outer, MEM_COMPONENT);
  host.runtime().GetStorage(&area, 10, kSubPool, 1);
  const Findings findings = host.report();
  ASSERT_EQ(findings.leaks.size(), 2U);
  EXPECT_EQ(findings.leaks[0].services, Lines{"outer"});
  EXPECT_EQ(findings.leaks[1].services, Lines{});
}

TEST(HostReport, FramesLeftOutOfOrderLeaveTheirOwnNames) {
  Host host(quietly());
  MEMTraceFrame frames[3] = {};
  const char *const names[3] = {"first", "second", "third"};
  for (int i = 0; i < 3; ++i) {
    frames[i].pName = names[i];
    host.runtime().EnterFrame(&frames[i], MEM_COMPONENT);
  }
  host.runtime().LeaveFrame(&frames[1], MEM_COMPONENT);
  void *area = nullptr;
  host.runtime().GetStorage(&area, 10, kSubPool, 1);
  host.runtime().LeaveFrame(&frames[0], MEM_COMPONENT);
  const Findings findings = host.report();
  ASSERT_EQ(findings.leaks.size(), 1U);
  EXPECT_EQ(findings.leaks[0].services, Lines{"first"});
  ASSERT_EQ(findings.misuses.size(), 1U);
  EXPECT_EQ(findings.misuses[0].services, (Lines{"first", "second", "third"}));
}

// A host that ends in the middle of things: what the library holds is its own, not a leak.
TEST(HostReport, WhatTheLibraryHoldsIsNoLeak) {
  Host host(quietly());
  host.bind(library().bindEntry());
  ASSERT_EQ(host.vector().MEM_ProcessInit(), 0);
  ASSERT_EQ(host.vector().MEM_ThreadAct(), 0);
  const char *narrow = nullptr;
  const char16_t *wide = nullptr;
  for (int i = 0; i < 3; ++i) {  // more than one block of the sink
    const std::string filler(0x30000, static_cast<char>('A' + i));
    ASSERT_EQ(host.vector().MEM_SinkString(filler.c_str(), &narrow), 0);
    const std::u16string wideFiller(0x18000, static_cast<char16_t>('a' + i));
    ASSERT_EQ(host.vector().MEM_WSinkString(wideFiller.c_str(), &wide), 0);
  }
  ASSERT_GT(host.leaks().size(), 4U);
  EXPECT_TRUE(host.report().empty()) << host.leakReport();
  // A component's storage in the subpools of the library is the component's.
  for (const std::int16_t subPool : {std::int16_t{1}, std::int16_t{2}, std::int16_t{230}}) {
    host.vector().MEM_Alloc(10, subPool);
  }
  EXPECT_EQ(host.report().leaks.size(), 3U);
  host.vector().MEM_ThreadTerm();
  host.vector().MEM_ProcessTerm();
  host.unbind(library().bindEntry());
}

TEST(HostReport, EverythingIsReportedOnce) {
  int reports = 0;
  Options options = quietly();
  options.report = true;
  options.onReport = [&reports](const Findings &) { ++reports; };
  {
    Host host(options);
    std::uint32_t gate = 0;
    void *area = nullptr;
    host.runtime().CreateGate(&gate);
    host.runtime().GetStorage(&area, 10, kSubPool, 1);
    host.runtime().ReleaseGate(gate);
    const Findings first = host.report();
    EXPECT_EQ(first.leaks.size(), 1U);
    EXPECT_EQ(first.misuses.size(), 2U);
    EXPECT_TRUE(host.report().empty());
    EXPECT_EQ(reports, 1);
    host.runtime().GetStorage(&area, 20, kSubPool, 1);
  }
  EXPECT_EQ(reports, 2);
}

TEST(HostReport, TakenMisusesAreNotReported) {
  Host host(quietly());
  host.runtime().ReleaseGate(77);
  EXPECT_EQ(host.takeMisuses().size(), 1U);
  EXPECT_TRUE(host.report().empty());
}

TEST(HostReport, ASessionIsClosedOnce) {
  Session session(library().bindEntry(), quietly());
  session.vector().MEM_Alloc(10, kSubPool);
  EXPECT_EQ(session.close().leaks.size(), 1U);
  EXPECT_EQ(session.vector().MEM_Alloc, nullptr) << "unbound";
  EXPECT_TRUE(session.close().empty());
  EXPECT_EQ(session.host().account(kSubPool).liveCount, 1U);
}

TEST(HostReport, ClosingIsNotDisturbedByFaultsAndReplacedSlots) {
  Session session(library().bindEntry(), quietly());
  session.vector().MEM_ThreadTerm = nullptr;
  session.host().arm({.service = Service::GetAnchor, .andAllLater = true});
  EXPECT_TRUE(session.close().empty());
  EXPECT_EQ(session.host().leakReport(), "");
}

TEST(HostReport, GoesToTheCallback) {
  std::vector<std::string> texts;
  Options options = quietly();
  options.report = true;
  options.onReport = [&texts](const Findings &findings) { texts.push_back(findings.text()); };
  ::testing::internal::CaptureStderr();
  { const Session session(library().bindEntry(), options); }
  EXPECT_TRUE(texts.empty()) << "nothing is wrong";
  {
    Session session(library().bindEntry(), options);
    session.vector().MEM_Alloc(10, kSubPool);
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  ASSERT_EQ(texts.size(), 1U);
  EXPECT_EQ(texts[0].find("refhost: 1 leak (10 bytes)\n"), 0U) << texts[0];
}

TEST(HostReport, GoesToStderrUnlessSwitchedOff) {
  for (const bool isOn : {true, false}) {
    Options options = quietly();
    options.report = isOn;
    ::testing::internal::CaptureStderr();
    {
      Host host(options);
      host.runtime().ReleaseGate(77);
    }
    EXPECT_EQ(!::testing::internal::GetCapturedStderr().empty(), isOn);
  }
}

// ---- Threads and gates that are left.

// The block of the thread, and the call that made it active.
void expectThreadBlock(const refhost::Misuse &misuse, const void *pBlock, std::uint64_t call) {
  ASSERT_TRUE(misuse.area);
  EXPECT_EQ(misuse.area->area, pBlock);
  EXPECT_EQ(misuse.area->callNumber, call);
  EXPECT_EQ(misuse.area->services, Lines{"MEM_ThreadAct"});
  EXPECT_EQ(misuse.area->thread, misuse.thread);
}

TEST(HostReport, AThreadThatIsStillActiveIsReported) {
  Session session(library().bindEntry(), quietly());
  const void *const pBlock = session.host().thread().pMemThreadBlk;
  const std::uint64_t calls = session.host().account().totalCount;
  ASSERT_EQ(session.vector().MEM_ThreadAct(), 0);  // once more: the first block is lost
  const Findings findings = session.close();
  EXPECT_TRUE(findings.leaks.empty());
  ASSERT_EQ(findings.misuses.size(), 1U);
  const std::string thread = std::to_string(findings.misuses[0].thread);
  EXPECT_EQ(textsOf(findings), Lines{"FreePoolStorage: thread " + thread +
                                     " is active at the end: MEM_ThreadTerm was not called"});
  EXPECT_EQ(findings.misuses[0].services, Lines{"MEM_ThreadAct"});
  expectThreadBlock(findings.misuses[0], pBlock, calls);
}

TEST(HostReport, AThreadThatEndedActiveIsReportedOnce) {
  Session session(library().bindEntry(), quietly());
  Host &host = session.host();
  const void *pBlock = nullptr;
  std::uint64_t callNumber = 0;
  std::thread([&] {
    callNumber = host.account().totalCount + 1;
    session.vector().MEM_ThreadAct();
    pBlock = host.thread().pMemThreadBlk;
  }).join();
  const Findings findings = session.close();
  EXPECT_EQ(textsOf(findings),
            Lines{"FreePoolStorage: a thread ended while it was active: MEM_ThreadTerm was not "
                  "called"});
  ASSERT_EQ(findings.misuses.size(), 1U);
  expectThreadBlock(findings.misuses[0], pBlock, callNumber);
}

TEST(HostReport, GatesThatAreLeftAreReported) {
  Session session(library().bindEntry(), quietly());
  HMEMHEAP heap = nullptr;
  ASSERT_EQ(session.vector().MEM_EHeapOpen(&heap, 4, kSubPool), 0);
  std::uint32_t held = 0;
  session.host().runtime().CreateGate(&held);
  session.host().runtime().AcquireGate(held);
  const Findings findings = session.close();
  ASSERT_EQ(findings.misuses.size(), 2U);
  const std::string thread = std::to_string(findings.misuses[1].thread);
  EXPECT_EQ(textsOf(findings), (Lines{"DeleteGate: gate 2 was not deleted",
                                      "ReleaseGate: gate 3 is held by thread " + thread +
                                          " at the end: ReleaseGate was not called"}));
  EXPECT_EQ(findings.misuses[0].services, Lines{"MEM_EHeapOpen"});
  EXPECT_EQ(findings.misuses[1].services, Lines{});
}

// ---- The text.

TEST(HostReport, EqualLeaksAreOneGroupTheLargestFirst) {
  Session session(library().bindEntry(), quietly());
  const MEMFunctionVector &mem = session.vector();
  void *const single = mem.MEM_Alloc(500, kSubPool);
  void *const first = mem.MEM_Alloc(100, kSubPool);
  for (int i = 0; i < 9; ++i) mem.MEM_Alloc(100, kSubPool);
  const Findings findings = session.close();
  ASSERT_EQ(findings.leaks.size(), 11U);
  const std::string singleCall = std::to_string(findings.leaks[0].callNumber);
  const std::string firstCall = std::to_string(findings.leaks[1].callNumber);
  const std::string thread = std::to_string(findings.leaks[0].thread);
  EXPECT_EQ(findings.text(),
            "refhost: 11 leaks (1500 bytes)\n"
            "leak: 10 times 100 bytes, 1000 in all, the first at " +
                hex16(first) + ", subpool 7, kind 1, call " + firstCall + ", thread " + thread +
                "\n  called: MemAlloc\n"
                "leak: 500 bytes at " +
                hex16(single) + ", subpool 7, kind 1, call " + singleCall + ", thread " + thread +
                "\n  called: MemAlloc\n");
}

TEST(HostReport, NothingFoundHasNoText) {
  EXPECT_EQ(Findings{}.text(), "");
  EXPECT_TRUE(Findings{}.empty());
}

TEST(HostReport, TheTextIsBounded) {
  Host host(quietly());
  void *area = nullptr;
  for (std::uint32_t length = 1; length <= 101; ++length) {
    host.runtime().GetStorage(&area, length, kSubPool, 1);
  }
  for (std::uint32_t gate = 1; gate <= 1103; ++gate) host.runtime().ReleaseGate(gate);
  const Findings findings = host.report();
  EXPECT_EQ(findings.leaks.size(), 101U);
  EXPECT_EQ(findings.misuses.size(), refhost::kKeptMisuses + 1);
  const std::string text = findings.text();
  EXPECT_NE(text.find("\nand 1 more kinds of leaks\n"), std::string::npos);
  EXPECT_NE(text.find("\nand 901 more misuses\n"), std::string::npos);
  EXPECT_EQ(findings.misuses.back().what, "103 more misuses were not kept");
}

// ---- At the spot.

TEST(HostMisuse, IsShownWhereItHappens) {
  std::vector<Misuse> seen;
  Options options = quietly();
  Session *running = nullptr;
  options.onMisuse = [&](const Misuse &misuse) {
    seen.push_back(misuse);
    // The area is still there, and the library may be used.
    if (misuse.area) std::memset(misuse.area->area, 1, misuse.area->length);
    running->vector().MEM_Free(running->vector().MEM_Alloc(8, kSubPool), 8, kSubPool);
  };
  Session session(library().bindEntry(), options);
  running = &session;
  void *const area = session.vector().MEM_Alloc(100, kSubPool);
  session.vector().MEM_Free(area, 99, kSubPool);
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].service, Service::FreeStorage);
  EXPECT_EQ(seen[0].services, Lines{"MEM_Free"});
  EXPECT_NE(seen[0].thread, 0U);
  ASSERT_TRUE(seen[0].area.has_value());
  EXPECT_EQ(seen[0].area->area, area);
  EXPECT_EQ(seen[0].area->length, 100U);
  EXPECT_EQ(seen[0].area->services, Lines{"MemAlloc"});
  // Gates are free to be used, too.
  session.host().runtime().ReleaseGate(77);
  session.host().runtime().AcquireGate(77);
  session.host().runtime().DeleteGate(77);
  EXPECT_EQ(seen.size(), 4U);
  EXPECT_EQ(session.close().misuses.size(), 4U) << "they are kept as well";
}

TEST(HostMisuse, OfAThreadsEndIsShown) {
  std::vector<std::string> seen;
  Options options = quietly();
  options.onMisuse = [&](const Misuse &misuse) { seen.push_back(misuse.what); };
  Host host(options);
  std::uint32_t gate = 0;
  host.runtime().CreateGate(&gate);
  MEMTraceFrame frame{};
  frame.pName = "open";
  std::thread([&] {
    host.runtime().EnterFrame(&frame, MEM_COMPONENT);
    host.runtime().AcquireGate(gate);
  }).join();
  EXPECT_EQ(seen.size(), 2U);
  const auto misuses = host.takeMisuses();
  ASSERT_EQ(misuses.size(), 2U);
  EXPECT_EQ(misuses[1].services, Lines{"open"});
}

// The gate that the thread has left is known to have no owner by then.
TEST(HostMisuse, OfAThreadsEndIsShownByAFunctionThatUsesTheHost) {
  std::uint32_t gate = 0;
  std::vector<std::uint16_t> acquired;
  Options options = quietly();
  std::optional<Host> host;
  options.onMisuse = [&](const Misuse &misuse) {
    if (misuse.what.find("a thread ended") == std::string::npos) return;
    acquired.push_back(host->runtime().AcquireGate(gate));
  };
  host.emplace(options);
  host->runtime().CreateGate(&gate);
  std::thread([&] { host->runtime().AcquireGate(gate); }).join();
  ASSERT_EQ(acquired.size(), 1U);
  EXPECT_NE(acquired[0], 0);
}

// What is found at the end has no spot.
TEST(HostMisuse, FoundAtTheEndIsReportedOnly) {
  int seen = 0;
  Options options = quietly();
  options.onMisuse = [&](const Misuse &) { ++seen; };
  Host host(options);
  std::uint32_t gate = 0;
  host.runtime().CreateGate(&gate);
  EXPECT_EQ(host.report().misuses.size(), 1U);
  EXPECT_EQ(seen, 0);
}

TEST(HostMisuse, MayHaveStacks) {
  Options options = quietly();
  options.stacks = true;
  Session session(library().bindEntry(), options);
  session.vector().MEM_Free(session.vector().MEM_Alloc(100, kSubPool), 99, kSubPool);
  session.vector().MEM_Alloc(10, kSubPool);
  const Findings findings = session.close();
  ASSERT_EQ(findings.misuses.size(), 1U);
  EXPECT_FALSE(findings.misuses[0].stack.empty());
  EXPECT_FALSE(findings.misuses[0].area->stack.empty());
  ASSERT_EQ(findings.leaks.size(), 1U);
  ASSERT_FALSE(findings.leaks[0].stack.empty());
  for (const std::string &place : findings.leaks[0].stack) {
    EXPECT_EQ(place.find("QJ7MEM00"), std::string::npos) << "the library is left out";
  }
  EXPECT_NE(findings.leaks[0].stack[0].find("host_report_test"), std::string::npos);
  EXPECT_NE(findings.text().find("\n  stack:  "), std::string::npos);
}

void freeWithWrongLength(const Options &options) {
  Session session(library().bindEntry(), options);
  session.vector().MEM_Free(session.vector().MEM_Alloc(100, kSubPool), 99, kSubPool);
}

TEST(HostMisuseDeathTest, MayEndTheProgram) {
  Options options = quietly();
  options.onMisuse = refhost::abortOnMisuse;
  EXPECT_DEATH(freeWithWrongLength(options), "with length 100, freed with 99");
}

TEST(HostMisuseDeathTest, MayStopInTheDebugger) {
  Options options = quietly();
  options.onMisuse = refhost::stopOnMisuse;
  EXPECT_DEATH(freeWithWrongLength(options), "with length 100, freed with 99");
}

TEST(HostMisuseDeathTest, ACallMayStopInTheDebugger) {
  Options options = quietly();
  const auto obtain = [](Options stopping, std::uint64_t call) {
    stopping.stopAtCall = call;
    Host host(stopping);
    void *area = nullptr;
    for (std::uint32_t length = 1; length <= 3; ++length) {
      host.runtime().GetStorage(&area, length, kSubPool, 1);
    }
  };
  EXPECT_DEATH(obtain(options, 3), "");
  obtain(options, 4);
}

}  // namespace
}  // namespace memtest
