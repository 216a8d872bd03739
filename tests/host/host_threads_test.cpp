// The end of threads under the reference host: what one left open is reported, nobody waits for
// it, and nothing of it stays.

#if defined(_WIN32)
#include <windows.h>

#include <psapi.h>
#else
#include <unistd.h>

#include <fstream>
#endif
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "memtest.hpp"

namespace memtest {
namespace {

using refhost::Service;

const char kLeftActive[] = "a thread ended while it was active: MEM_ThreadTerm was not called";
const char kLeftInFrame[] =
    "a thread ended inside a frame: LeaveFrame was not called (takeCalls shows for which frame)";

std::string leftHolding(std::uint32_t gate) {
  return "a thread ended while it held gate " + std::to_string(gate) +
         ": ReleaseGate was not called";
}

std::string heldByEnded(std::uint32_t gate) {
  return "gate " + std::to_string(gate) + " is held by a thread that has ended";
}

// Misuses as lines, "ReleaseGate: gate 1 ...".
Lines misuseLines(refhost::Host &host) {
  Lines lines;
  for (const refhost::Misuse &misuse : host.takeMisuses()) {
    lines.push_back(std::string(refhost::serviceName(misuse.service)) + ": " + misuse.what);
  }
  return lines;
}

template <class Work>
void onThread(Work work) {
  std::thread(work).join();
}

// The cases leave gates as they are.
std::unique_ptr<refhost::Host> makeHost() {
  return std::make_unique<refhost::Host>(refhost::Options{.report = false});
}

// A host of its own that is bound to nothing.
class HostThreadsTest : public ::testing::Test {
 protected:
  HostThreadsTest() : host_(makeHost()) {}

  std::uint32_t create() {
    std::uint32_t gate = 0;
    EXPECT_EQ(host_->runtime().CreateGate(&gate), 0);
    return gate;
  }
  std::uint16_t acquire(std::uint32_t gate) { return host_->runtime().AcquireGate(gate); }
  void release(std::uint32_t gate) { host_->runtime().ReleaseGate(gate); }

  // A gate whose owner has ended.
  std::uint32_t createAbandoned() {
    const std::uint32_t gate = create();
    onThread([&] { EXPECT_EQ(acquire(gate), 0); });
    EXPECT_EQ(misuseLines(*host_), Lines{"ReleaseGate: " + leftHolding(gate)});
    return gate;
  }

  std::unique_ptr<refhost::Host> host_;
  MEMTraceFrame frame_{};
};

TEST_F(HostThreadsTest, AThreadThatLeavesNothingIsNotReported) {
  const std::uint32_t gate = create();
  onThread([] {});
  onThread([&] {
    host_->runtime().EnterFrame(&frame_, MEM_COMPONENT);
    acquire(gate);
    release(gate);
    host_->runtime().LeaveFrame(&frame_, MEM_COMPONENT);
  });
  EXPECT_EQ(misuseLines(*host_), Lines{});
}

TEST_F(HostThreadsTest, GatesHeldAtTheEndAreReported) {
  const std::uint32_t first = create();
  const std::uint32_t second = create();
  const std::uint32_t other = create();
  acquire(other);
  onThread([&] {
    acquire(second);
    acquire(first);
  });
  EXPECT_EQ(misuseLines(*host_),
            (Lines{"ReleaseGate: " + leftHolding(first), "ReleaseGate: " + leftHolding(second)}));
  EXPECT_EQ(host_->heldGateCount(), 3U);
  release(other);
  EXPECT_EQ(misuseLines(*host_), Lines{});
}

// A second acquire is refused and does not count: one release frees the gate.
TEST_F(HostThreadsTest, AGateAcquiredTwiceIsReleasedOnce) {
  const std::uint32_t gate = create();
  onThread([&] {
    acquire(gate);
    EXPECT_EQ(acquire(gate), refhost::kGateOwned);
    release(gate);
  });
  EXPECT_EQ(misuseLines(*host_).size(), 1U) << "the second acquire";
  EXPECT_EQ(acquire(gate), 0);
}

TEST_F(HostThreadsTest, AGateOfAnEndedThreadIsRefused) {
  const std::uint32_t gate = createAbandoned();
  for (int i = 0; i < 2; ++i) {
    host_->thread().Error = {};
    EXPECT_EQ(acquire(gate), refhost::kGateOwned);
    EXPECT_EQ(host_->thread().Error.Code, refhost::kGateOwned);
    EXPECT_STREQ(host_->thread().Error.NameText, "AcquireGate");
    EXPECT_EQ(misuseLines(*host_), Lines{"AcquireGate: " + heldByEnded(gate)});
  }
}

TEST_F(HostThreadsTest, ThreadsThatWaitForAnEndedThreadAreRefused) {
  constexpr std::uint64_t kWaiters = 3;
  const std::uint32_t gate = create();
  std::atomic<bool> isHeld{false};
  std::thread owner([&] {
    acquire(gate);
    isHeld = true;
    while (host_->calls(Service::AcquireGate) < 1 + kWaiters) std::this_thread::yield();
    // The calls have begun; this gives them time to wait. They are refused either way.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  });
  while (!isHeld) std::this_thread::yield();
  std::vector<std::thread> waiters;
  for (std::uint64_t i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      EXPECT_EQ(acquire(gate), refhost::kGateOwned);
      EXPECT_EQ(host_->thread().Error.Code, refhost::kGateOwned);
    });
  }
  owner.join();
  for (std::thread &waiter : waiters) waiter.join();
  const std::string refused = "AcquireGate: " + heldByEnded(gate);
  EXPECT_EQ(misuseLines(*host_),
            (Lines{"ReleaseGate: " + leftHolding(gate), refused, refused, refused}));
}

TEST_F(HostThreadsTest, AGateOfAnEndedThreadIsNobodyElsesAndIsDeleted) {
  const std::uint32_t gate = createAbandoned();
  const Lines expected = {"ReleaseGate: gate 1 is not held by the calling thread"};
  release(gate);
  EXPECT_EQ(misuseLines(*host_), expected);
  // A thread that may have the place in memory, and the number, of the one that ended.
  onThread([&] { release(gate); });
  EXPECT_EQ(misuseLines(*host_), expected);
  EXPECT_EQ(host_->heldGateCount(), 1U);
  host_->runtime().DeleteGate(gate);
  EXPECT_EQ(host_->gateCount(), 0U);
  EXPECT_EQ(misuseLines(*host_), Lines{});
}

TEST_F(HostThreadsTest, AFrameOpenAtTheEndIsReportedAndNobodyElses) {
  frame_.pName = "open";
  onThread([&] { host_->runtime().EnterFrame(&frame_, MEM_COMPONENT); });
  EXPECT_EQ(misuseLines(*host_), Lines{std::string("LeaveFrame: ") + kLeftInFrame});
  onThread([&] {
    host_->thread();
    host_->runtime().LeaveFrame(&frame_, MEM_COMPONENT);
  });
  EXPECT_EQ(misuseLines(*host_),
            Lines{"LeaveFrame: frame \"open\" was not entered on this thread"});
}

// The frame's storage is gone with the thread's stack and is not looked at.
TEST_F(HostThreadsTest, AFrameOnTheStackOfAnEndedThreadIsReported) {
  onThread([&] {
    auto frame = std::make_unique<MEMTraceFrame>();
    host_->runtime().EnterFrame(frame.get(), MEM_COMPONENT);
  });
  EXPECT_EQ(misuseLines(*host_), Lines{std::string("LeaveFrame: ") + kLeftInFrame});
}

TEST_F(HostThreadsTest, CallsOfEndedThreadsStayCounted) {
  const std::uint32_t gate = create();
  const auto useTwice = [&] {
    for (int i = 0; i < 2; ++i) {
      acquire(gate);
      release(gate);
    }
  };
  onThread(useTwice);
  onThread(useTwice);
  EXPECT_EQ(host_->calls(Service::ReleaseGate), 4U);
  host_->resetCalls();
  EXPECT_EQ(host_->calls(Service::ReleaseGate), 0U);
  onThread(useTwice);
  EXPECT_EQ(host_->calls(Service::ReleaseGate), 2U);
}

TEST_F(HostThreadsTest, EveryThreadBeginsWithAFreshEnvironment) {
  for (int i = 0; i < 3; ++i) {
    onThread([&] {
      EXPECT_EQ(host_->thread().Error.Code, 0U);
      host_->thread().Error.Code = 1;
    });
  }
}

// What keys of other code do while their thread ends, after the host has seen its end.
class LateKey {
 public:
  explicit LateKey(void (*destructor)(void *)) { pthread_key_create(&key_, destructor); }
  ~LateKey() { pthread_key_delete(key_); }
  void set(void *value) { pthread_setspecific(key_, value); }

 private:
  pthread_key_t key_;
};

struct LateUse {
  refhost::Host &host;
  std::uint32_t gate;
  std::uint16_t code;
};

TEST_F(HostThreadsTest, ServicesMayBeCalledWhileAThreadEnds) {
  LateUse use{*host_, create(), 99};
  onThread([&] { host_->thread(); });  // the host's own way to see ends is there first
  LateKey key([](void *value) {
    auto &late = *static_cast<LateUse *>(value);
    late.code = late.host.runtime().AcquireGate(late.gate);
  });
  onThread([&] {
    host_->thread();
    key.set(&use);
  });
  EXPECT_EQ(use.code, 0);
  EXPECT_EQ(misuseLines(*host_), Lines{"ReleaseGate: " + leftHolding(use.gate)});
}

// A thread that runs in steps, to which it is called.
class SteppedThread {
 public:
  template <class Work>
  explicit SteppedThread(Work work) : thread_([this, work] { work(*this); }) {}
  ~SteppedThread() {
    if (thread_.joinable()) thread_.join();
  }

  void await(int step) {
    while (step_ < step) std::this_thread::yield();
  }
  void reach(int step) { step_ = step; }
  void join() { thread_.join(); }

 private:
  std::atomic<int> step_{0};
  std::thread thread_;
};

TEST_F(HostThreadsTest, AHostMayEndBeforeItsThreads) {
  const std::uint32_t gate = create();
  SteppedThread thread([&](SteppedThread &self) {
    acquire(gate);
    self.reach(1);
    self.await(2);
  });
  thread.await(1);
  host_.reset();
  thread.reach(2);
  thread.join();
}

TEST_F(HostThreadsTest, AThreadOfAnEarlierHostLeavesTheNextOneAlone) {
  const std::uint32_t gate = create();
  SteppedThread thread([&](SteppedThread &self) {
    acquire(gate);
    self.reach(1);
    self.await(2);
  });
  thread.await(1);
  host_.reset();
  host_ = makeHost();
  ASSERT_EQ(create(), gate);
  SteppedThread next([&](SteppedThread &self) {
    acquire(gate);
    self.reach(1);
    self.await(2);
    release(gate);
  });
  next.await(1);
  thread.reach(2);
  thread.join();
  EXPECT_EQ(misuseLines(*host_), Lines{});
  EXPECT_EQ(host_->heldGateCount(), 1U);
  next.reach(2);
  next.join();
  EXPECT_EQ(misuseLines(*host_), Lines{});
}

TEST_F(HostThreadsTest, AThreadEndsForTheHostThatItUsedLast) {
  SteppedThread thread([&](SteppedThread &self) {
    host_->thread();
    self.reach(1);
    self.await(2);
    acquire(1);
  });
  thread.await(1);
  host_.reset();
  host_ = makeHost();
  const std::uint32_t gate = create();
  thread.reach(2);
  thread.join();
  EXPECT_EQ(misuseLines(*host_), Lines{"ReleaseGate: " + leftHolding(gate)});
}

TEST_F(HostThreadsTest, ARefusedSecondHostChangesNothing) {
  const std::uint32_t gate = create();
  SteppedThread thread([&](SteppedThread &self) {
    acquire(gate);
    self.reach(1);
    self.await(2);
  });
  thread.await(1);
  EXPECT_THROW(refhost::Host second, std::logic_error);
  thread.reach(2);
  thread.join();
  EXPECT_EQ(misuseLines(*host_), Lines{"ReleaseGate: " + leftHolding(gate)});
}

// Threads end while their host does; which comes first differs from round to round.
TEST_F(HostThreadsTest, ThreadsAndTheirHostMayEndAtTheSameTime) {
  constexpr int kRounds = 200;
  constexpr int kThreads = 3;
  for (int round = 0; round < kRounds; ++round) {
    host_ = nullptr;
    host_ = makeHost();
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        acquire(create());
        ++ready;
      });
    }
    while (ready < kThreads) std::this_thread::yield();
    host_.reset();
    for (std::thread &thread : threads) thread.join();
  }
}

// Threads that use the library.
class LibraryThreadsTest : public StartedTest {};

TEST_F(LibraryThreadsTest, AThreadLeftActiveIsReported) {
  void *block = nullptr;
  onThread([&] {
    EXPECT_EQ(mem.MEM_ThreadAct(), 0);
    block = env().pMemThreadBlk;
  });
  EXPECT_EQ(misuseLines(host), Lines{std::string("FreePoolStorage: ") + kLeftActive});
  // The block is the library's: the host goes on counting it as storage that was not returned.
  ASSERT_EQ(host.account(2).liveCount, 2U);
  host.runtime().FreePoolStorage(2, block);
}

TEST_F(LibraryThreadsTest, AllThatAThreadLeavesIsReported) {
  std::uint32_t gate = 0;
  host.runtime().CreateGate(&gate);
  MEMTraceFrame frame{};
  void *block = nullptr;
  onThread([&] {
    EXPECT_EQ(mem.MEM_ThreadAct(), 0);
    block = env().pMemThreadBlk;
    host.runtime().EnterFrame(&frame, MEM_COMPONENT);
    host.runtime().AcquireGate(gate);
  });
  EXPECT_EQ(misuseLines(host),
            (Lines{"ReleaseGate: " + leftHolding(gate), std::string("LeaveFrame: ") + kLeftInFrame,
                   std::string("FreePoolStorage: ") + kLeftActive}));
  host.runtime().FreePoolStorage(2, block);
  host.runtime().DeleteGate(gate);
}

TEST_F(LibraryThreadsTest, AnEnhancedHeapOfAnEndedThreadIsRefused) {
  HMEMHEAP heap = nullptr;
  ASSERT_EQ(mem.MEM_EHeapOpen(&heap, 4, 7), 0);
  const std::uint32_t gate = 2;  // the sink's is the first
  onThread([&] { ASSERT_EQ(host.runtime().AcquireGate(gate), 0); });
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, 40, &entry), kFailed);
  EXPECT_EQ(error().Code, MEMERR_HEAPGATE);
  EXPECT_EQ(misuseLines(host),
            (Lines{"ReleaseGate: " + leftHolding(gate), "AcquireGate: " + heldByEnded(gate)}));
  // Only a gate that is not asked for lets the heap be closed.
  host.runtime().AcquireGate = [](std::uint32_t) -> std::uint16_t { return 0; };
  EXPECT_EQ(mem.MEM_EHeapClose(heap), 0);
  misuseLines(host);  // the release on this thread
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizerKeepsMemory = true;
#else
constexpr bool kSanitizerKeepsMemory = false;
#endif

// Bytes of memory that the process has now.
std::uint64_t residentBytes() {
#if defined(_WIN32)
  PROCESS_MEMORY_COUNTERS counters{};
  K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
  return counters.WorkingSetSize;
#else
  std::uint64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
#endif
}

TEST_F(LibraryThreadsTest, ThreadsInTurnNeedNoMoreMemoryThanOne) {
  const auto runThreads = [&](int count) {
    for (int i = 0; i < count; ++i) {
      onThread([&] {
        ASSERT_EQ(mem.MEM_ThreadAct(), 0);
        mem.MEM_Free(mem.MEM_Alloc(64, 7), 64, 7);
        ASSERT_EQ(mem.MEM_ThreadTerm(), 0);
      });
    }
  };
  runThreads(2000);
  const std::uint64_t before = residentBytes();
  ASSERT_GT(before, 0U);
  if (kSanitizerKeepsMemory) return;  // freed memory, to find uses of it
  runThreads(18000);
  constexpr std::uint64_t kBound = 20U << 20;
  EXPECT_LT(residentBytes(), before + kBound);
  EXPECT_EQ(misuseLines(host), Lines{});
}

}  // namespace
}  // namespace memtest
