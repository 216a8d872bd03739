// Gates of the reference host, and its services on several threads at once.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "refhost.hpp"

namespace {

using refhost::Service;

class HostGatesTest : public ::testing::Test {
 protected:
  std::uint32_t create() {
    std::uint32_t gate = 0;
    EXPECT_EQ(host_.runtime().CreateGate(&gate), 0);
    return gate;
  }
  std::uint16_t acquire(std::uint32_t gate) { return host_.runtime().AcquireGate(gate); }
  void release(std::uint32_t gate) { host_.runtime().ReleaseGate(gate); }
  void destroy(std::uint32_t gate) { host_.runtime().DeleteGate(gate); }

  void expectMisuse(Service service, const std::string &what) {
    const auto misuses = host_.takeMisuses();
    ASSERT_EQ(misuses.size(), 1U);
    EXPECT_EQ(misuses[0].service, service);
    EXPECT_EQ(misuses[0].what, what);
  }

  // The cases leave gates as they are.
  refhost::Host host_{{.report = false}};
};

TEST_F(HostGatesTest, HandlesCountFromOneAndAreNeverUsedAgain) {
  EXPECT_EQ(create(), 1U);
  EXPECT_EQ(create(), 2U);
  destroy(2);
  EXPECT_EQ(create(), 3U);
  EXPECT_EQ(host_.gateCount(), 2U);
}

TEST_F(HostGatesTest, AGateIsHeldFromAcquireToRelease) {
  const std::uint32_t gate = create();
  EXPECT_EQ(acquire(gate), 0);
  EXPECT_EQ(host_.heldGateCount(), 1U);
  release(gate);
  EXPECT_EQ(host_.heldGateCount(), 0U);
  destroy(gate);
  EXPECT_EQ(host_.gateCount(), 0U);
  EXPECT_TRUE(host_.takeMisuses().empty());
}

TEST_F(HostGatesTest, AcquiringTwiceIsRefusedInsteadOfWaitingForEver) {
  const std::uint32_t gate = create();
  acquire(gate);
  EXPECT_EQ(acquire(gate), refhost::kGateOwned);
  EXPECT_EQ(host_.thread().Error.Code, refhost::kGateOwned);
  EXPECT_STREQ(host_.thread().Error.NameText, "AcquireGate");
  expectMisuse(Service::AcquireGate, "gate 1 is already held by the calling thread");
}

TEST_F(HostGatesTest, OnlyTheHolderReleases) {
  const std::uint32_t gate = create();
  release(gate);
  expectMisuse(Service::ReleaseGate, "gate 1 is not held by the calling thread");
  acquire(gate);
  std::thread([this, gate] { release(gate); }).join();
  expectMisuse(Service::ReleaseGate, "gate 1 is not held by the calling thread");
  EXPECT_EQ(host_.heldGateCount(), 1U);
}

TEST_F(HostGatesTest, AHeldGateIsNotDeleted) {
  const std::uint32_t gate = create();
  acquire(gate);
  destroy(gate);
  expectMisuse(Service::DeleteGate, "gate 1 is in use");
  EXPECT_EQ(host_.gateCount(), 1U);
}

TEST_F(HostGatesTest, UnknownGatesAreRefused) {
  EXPECT_EQ(acquire(7), refhost::kNoGate);
  expectMisuse(Service::AcquireGate, "gate 7 does not exist");
  release(7);
  expectMisuse(Service::ReleaseGate, "gate 7 does not exist");
  destroy(0);
  expectMisuse(Service::DeleteGate, "gate 0 does not exist");
}

TEST_F(HostGatesTest, AThreadWaitsUntilTheGateIsFree) {
  const std::uint32_t gate = create();
  acquire(gate);
  std::atomic<bool> isInside{false};
  std::thread other([&] {
    EXPECT_EQ(acquire(gate), 0);
    isInside = true;
    release(gate);
  });
  // The call count shows that the other thread has come to the gate.
  while (host_.calls(Service::AcquireGate) < 2) std::this_thread::yield();
  EXPECT_FALSE(isInside);
  release(gate);
  other.join();
  EXPECT_TRUE(isInside);
  EXPECT_EQ(host_.heldGateCount(), 0U);
}

TEST_F(HostGatesTest, AGateExcludesAllOtherThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  const std::uint32_t gate = create();
  int guarded = 0;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(acquire(gate), 0);
        ++guarded;
        release(gate);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(guarded, kThreads * kRounds);
  EXPECT_TRUE(host_.takeMisuses().empty());
}

// One round of everything that a component does, in a frame.
void useServices(refhost::Host &host, std::uint32_t gate, std::uint16_t subPool) {
  MEMTraceFrame frame{};
  frame.pName = "useServices";
  host.runtime().EnterFrame(&frame, MEM_COMPONENT);
  ASSERT_EQ(frame.pThreadEnv, &host.thread());
  void *area = nullptr;
  host.runtime().GetStorage(&area, 40, subPool, 1);
  if (area != nullptr) {
    host.runtime().CheckStorage(area, 40);
    host.runtime().FreeStorage(area, 40, subPool);
  }
  if (host.runtime().AcquireGate(gate) == 0) host.runtime().ReleaseGate(gate);
  MEMTraceBuf *const buffer = frame.pThreadEnv->pTraceBuf;
  buffer->TextLen =
      static_cast<std::uint32_t>(host.trace().Format(buffer->Text, "subpool %hd", subPool));
  host.trace().WriteRecord(MEM_COMPONENT, 0, "STDE", "source", "function", subPool);
  host.runtime().LeaveFrame(&frame, MEM_COMPONENT);
}

TEST_F(HostGatesTest, AllServicesRunOnSeveralThreadsWhileTheyAreWatched) {
  constexpr std::uint64_t kThreads = 4;
  constexpr std::uint64_t kRounds = 200;
  const std::uint32_t gate = create();
  std::atomic<std::uint64_t> lines{0};
  host_.onTrace([&lines](const refhost::TraceRecord &) { ++lines; });
  host_.keepRecords(true);
  host_.recordCalls(true);
  host_.arm({.service = Service::GetStorage, .nth = 100, .andAllLater = true});

  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (std::uint64_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (std::uint64_t round = 0; round < kRounds; ++round) {
        useServices(host_, gate, static_cast<std::uint16_t>(i));
      }
    });
  }
  std::uint64_t taken = 0;
  for (int i = 0; i < 50; ++i) {
    taken += host_.takeCalls().size();
    host_.account();
    host_.setTraceFlags(static_cast<std::uint32_t>(i));
    std::this_thread::yield();
  }
  for (std::thread &thread : threads) thread.join();
  taken += host_.takeCalls().size();

  constexpr std::uint64_t kCalls = kThreads * kRounds;
  EXPECT_EQ(host_.calls(Service::EnterFrame), kCalls);
  EXPECT_EQ(host_.calls(Service::GetStorage), kCalls);
  EXPECT_EQ(host_.faultsFired(), kCalls - 99);
  EXPECT_EQ(host_.calls(Service::FreeStorage), 99U);
  EXPECT_EQ(taken, kCalls * 7 + 99 * 2);
  EXPECT_EQ(lines, kCalls);
  EXPECT_EQ(host_.leakReport(), "");
  EXPECT_TRUE(host_.takeMisuses().empty());

  std::array<std::uint64_t, kThreads> linesOfThread{};
  for (const refhost::TraceRecord &record : host_.takeRecords()) {
    EXPECT_EQ(record.text, "subpool " + std::to_string(record.line));
    ++linesOfThread.at(static_cast<std::size_t>(record.line));
  }
  for (const std::uint64_t count : linesOfThread) EXPECT_EQ(count, kRounds);
}

TEST_F(HostGatesTest, EachThreadHasAnEnvironmentOfItsOwn) {
  MEMThreadEnv *const own = &host_.thread();
  std::thread([&] {
    EXPECT_NE(&host_.thread(), own);
    EXPECT_NE(host_.thread().pTraceBuf, own->pTraceBuf);
  }).join();
  EXPECT_EQ(&host_.thread(), own);
}

}  // namespace
