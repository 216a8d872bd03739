// Every call of a host service failing in turn, over one script of enhanced heap calls. The model
// shows for each call what a failure at that place must give.

#include <algorithm>

#include "eheapmodel.hpp"

namespace memtest {
namespace {

using refhost::Service;

class EHeapFaultTest : public HeapHashTest {
 protected:
  EHeapFaultTest() : watch(mem), stage{host, mem, watch, kDirty} { host.recordCalls(true); }

  // First area, further areas and large blocks, singly and in chains, and freed entries.
  static void fill(CheckedEHeap &heap) {
    heap.alloc(500, Door::kOwnShort);
    heap.alloc(450, Door::kStandardShort);
    heap.alloc(900, Door::kStandardLong);
    heap.alloc(969, Door::kOwnShort);
    heap.alloc(70000, Door::kStandardLong);
    heap.alloc(-100, Door::kStandardShort);
    giveAllBack(heap);
    heap.chain(300, 7, 8, Door::kOwnShort);
    heap.chain(1500, 3, 100, Door::kOwnLong);
    heap.chain(0, 5, 8, Door::kStandardShort);
    heap.chain(2000, 2, 0, Door::kStandardLong);
    heap.alloc(968, Door::kOwnShort);
    giveAllBack(heap);
    heap.giveBackWrong(16);
    heap.giveBackWrong(5000);
  }
  static constexpr std::size_t kFilled = 24;

  static void giveAllBack(CheckedEHeap &heap) {
    for (std::size_t i = 0; i < heap.entryCount(); ++i) heap.giveBack(i);
  }

  // Once the host serves again, the heap serves whatever it refused before.
  void useAndClose(CheckedEHeap &heap) {
    if (!heap.isOpen()) return;
    heap.check();
    const std::size_t before = heap.entryCount();
    fill(heap);
    EXPECT_EQ(heap.entryCount(), before + kFilled);
    heap.check();
    EXPECT_TRUE(heap.close());
  }

  void runScript() {
    CheckedEHeap heap(stage, 1, 7);
    if (heap.isOpen()) fill(heap);
    CheckedEHeap late(stage, 256, 0xFFFB);
    if (late.isOpen()) late.alloc(300000, Door::kOwnLong);
    if (late.isOpen()) late.close();
    EXPECT_EQ(host.heldGateCount(), 0U);
    host.disarm();
    useAndClose(heap);
    if (late.isOpen()) {
      EXPECT_TRUE(late.close());
    }
  }

  // Makes every call of the service fail in turn; returns how many there were.
  std::uint64_t sweep(Service service) {
    const refhost::Account before = host.account();
    const std::size_t gates = host.gateCount();
    return sweepFaults(host, faultOf(service, kHostError), [&](std::uint64_t) {
      runScript();
      EXPECT_EQ(host.account().liveBytes, before.liveBytes);
      EXPECT_EQ(host.account().liveCount, before.liveCount);
      EXPECT_EQ(host.gateCount(), gates);
      EXPECT_EQ(host.heldGateCount(), 0U);
    });
  }

  VectorWatch watch;
  Stage stage;
};

TEST_F(EHeapFaultTest, NoFaultMeansOnlyTheWrongFreesFail) {
  runScript();
  EXPECT_EQ(reports.size(), 4U);
}

TEST_F(EHeapFaultTest, EveryRefusedStorageIsReportedAndLeavesHeapsUsable) {
  EXPECT_GT(sweep(Service::GetStorage), 12U);
}

TEST_F(EHeapFaultTest, EveryRefusedGateIsReportedAndLeavesHeapsUsable) {
  EXPECT_EQ(sweep(Service::CreateGate), 2U);
  EXPECT_GT(sweep(Service::AcquireGate), 40U);
}

TEST_F(EHeapFaultTest, EveryRefusalOfTheStorageCheckIsReportedAndLeavesHeapsUsable) {
  EXPECT_GT(sweep(Service::CheckStorage), 25U);
}

TEST_F(EHeapFaultTest, MissingAnchorIsNoFailure) {
  EXPECT_GT(sweep(Service::GetAnchor), 12U);
}

// Services without a result: a host that does nothing keeps what it was to take back, and the
// library goes on to the end.

TEST_F(EHeapFaultTest, CloseGoesOnWhenTheHostKeepsAnArea) {
  const std::uint64_t freed = sweepFaults(host, faultOf(Service::FreeStorage), [&](std::uint64_t) {
    const std::vector<refhost::Leak> before = host.leaks();
    runScript();
    for (const refhost::Leak &leak : host.leaks()) {
      const auto isThis = [&](const refhost::Leak &other) { return other.area == leak.area; };
      if (std::any_of(before.begin(), before.end(), isThis)) continue;
      host.runtime().FreeStorage(leak.area, static_cast<std::uint32_t>(leak.length), leak.subPool);
    }
    EXPECT_EQ(host.leaks().size(), before.size());
  });
  EXPECT_EQ(freed, 2U) << "before the fault is disarmed: the late heap's block and area";
}

TEST_F(EHeapFaultTest, CloseGoesOnWhenTheHostKeepsTheGate) {
  CheckedEHeap heap(stage, 1, 7);
  ASSERT_TRUE(heap.isOpen());
  fill(heap);
  const std::size_t gates = host.gateCount();
  const std::uint32_t gate = heap.gate();
  host.arm(faultOf(Service::DeleteGate));
  EXPECT_TRUE(heap.close());
  EXPECT_EQ(host.gateCount(), gates);
  EXPECT_EQ(host.heldGateCount(), 0U);
  host.runtime().DeleteGate(gate);
  EXPECT_EQ(host.gateCount(), gates - 1);
}

// The host reports it to the heap's next user, and the heap passes the error on.
TEST_F(EHeapFaultTest, GateThatTheHostDoesNotReleaseIsReported) {
  HMEMHEAP heap = nullptr;
  ASSERT_EQ(mem.MEM_EHeapOpen(&heap, 1, kSubPool), 0);
  void *entry = nullptr;
  host.arm(faultOf(Service::ReleaseGate));
  EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, 16, &entry), 0);
  EXPECT_EQ(host.heldGateCount(), 1U);
  void *other = untouched();
  expectFails(4057, "AcquireGate", NameBy::kMessage,
              [&] { return mem.MEM_EHeapAllocEntry(heap, 16, &other); },
              {MEM_COMPONENT, refhost::kGateOwned, "AcquireGate"});
  EXPECT_EQ(other, untouched());
  EXPECT_EQ(host.takeMisuses().size(), 1U) << "the gate asked for twice";
  host.runtime().ReleaseGate(load<std::uint32_t>(heap, 24));
  EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, 16, &other), 0);
  EXPECT_EQ(other, at(entry, 16));
  EXPECT_EQ(mem.MEM_EHeapClose(heap), 0);
}

}  // namespace
}  // namespace memtest
