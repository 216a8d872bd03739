// Enhanced heaps against a model, with random operations on several heaps at once.

#include <array>
#include <memory>

#include "eheapmodel.hpp"

namespace memtest {
namespace {

using refhost::Service;

class EHeapModelTest : public HeapHashTest, public ::testing::WithParamInterface<std::uint64_t> {
 protected:
  static constexpr std::size_t kMostHeaps = 5;

  EHeapModelTest() : watch(mem), stage{host, mem, watch, kDirty}, random(GetParam()) {
    host.recordCalls(true);
  }

  struct Slot {
    std::unique_ptr<CheckedEHeap> heap;
    std::int16_t areaLen = 0;
  };

  void openOrClose(Slot &slot) {
    if (slot.heap) {
      maybeFail(Service::AcquireGate, 4);
      if (slot.heap->close()) slot.heap.reset();
      return;
    }
    static constexpr std::int16_t kAreaLens[] = {1, 1, 2, 3, 16, 64, 256};
    static constexpr std::uint16_t kSubPools[] = {0, 7, 230, 0xFFFB, 0xFF00};
    slot.areaLen = kAreaLens[random.below(std::size(kAreaLens))];
    maybeFail(Service::GetStorage, 10);
    maybeFail(Service::CreateGate, 10);
    slot.heap = std::make_unique<CheckedEHeap>(stage, slot.areaLen,
                                               kSubPools[random.below(std::size(kSubPools))]);
    if (!slot.heap->isOpen()) slot.heap.reset();
  }

  // One of the next calls of the service fails.
  void maybeFail(Service service, std::size_t oneInSoMany) {
    if (!random.oneIn(oneInSoMany)) return;
    refhost::Fault fault = faultOf(service, kHostError);
    fault.nth = random.between(1, 2);
    host.arm(fault);
  }

  // At least 60 % are short, 10 % near the longest area entry, 10 % long or below 1.
  std::int32_t someLength(const Slot &slot) {
    const std::size_t kind = random.below(100);
    if (kind < 60) return numberBetween(random, 1, 64);
    if (kind < 80) return numberBetween(random, 1, 1100);
    if (kind < 90) return slot.areaLen * 1024 - 56 + numberBetween(random, -40, 40);
    if (kind < 97) return numberBetween(random, 1000, 40000);
    return numberBetween(random, -32768, 0);
  }

  Door someDoor(std::int32_t len) {
    const auto door = static_cast<Door>(random.below(4));
    return door == Door::kStandardShort && len > 32767 ? Door::kStandardLong : door;
  }

  void allocate(Slot &slot) {
    const std::int32_t len = someLength(slot);
    slot.heap->alloc(len, someDoor(len));
  }

  void allocateChain(Slot &slot) {
    const std::int32_t len = someLength(slot);
    const std::int32_t most = std::max(16, (len + 7) / 8 * 8);
    const std::int32_t count = numberBetween(random, 1, len < 100 ? 40 : 5);
    const std::int32_t linkOff = numberBetween(random, 0, std::min(most - 8, 32767));
    slot.heap->chain(len, count, static_cast<std::int16_t>(linkOff), someDoor(len));
  }

  void giveBack(Slot &slot) {
    maybeFail(Service::CheckStorage, 20);
    if (random.oneIn(50)) {
      slot.heap->giveBackWrong(someLength(slot));
    } else if (slot.heap->entryCount() != 0) {
      slot.heap->giveBack(random.below(slot.heap->entryCount()));
    }
  }

  void step() {
    Slot &slot = slots[random.below(kMostHeaps)];
    const std::size_t kind = random.below(1000);
    if (!slot.heap || kind < 5) {
      openOrClose(slot);
      host.disarm();
      return;
    }
    maybeFail(Service::GetStorage, 20);
    maybeFail(Service::AcquireGate, 20);
    if (kind < 10) {
      slot.heap->check();
    } else if (kind < 100) {
      allocateChain(slot);
    } else if (kind < 400) {
      giveBack(slot);
    } else {
      allocate(slot);
    }
    host.disarm();
  }

  VectorWatch watch;
  Stage stage;
  Random random;
  std::array<Slot, kMostHeaps> slots;
};

INSTANTIATE_TEST_SUITE_P(Seeds, EHeapModelTest, seedsOfRuns());

TEST_P(EHeapModelTest, RandomOperationsGiveWhatTheModelGives) {
  SCOPED_TRACE(seedNote(GetParam()));
  for (int operation = 0; operation < 20000; ++operation) {
    SCOPED_TRACE(operation);
    step();
    ASSERT_FALSE(HasFailure()) << "the first difference ends the test";
  }
  EXPECT_EQ(host.heldGateCount(), 0U);
  for (const Slot &slot : slots) {
    if (slot.heap) {
      EXPECT_TRUE(slot.heap->close());
    }
  }
  EXPECT_GT(stage.tally.areas, 500);
  EXPECT_GT(stage.tally.blocks, 500);
  EXPECT_GT(stage.tally.refused, 500);
}

}  // namespace
}  // namespace memtest
