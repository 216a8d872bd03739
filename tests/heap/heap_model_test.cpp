// Standard heaps against a model, with random operations on several heaps at once.

#include <algorithm>
#include <array>
#include <memory>

#include "heapmodel.hpp"

namespace memtest {
namespace {

class HeapModelTest : public HeapHashTest, public ::testing::WithParamInterface<std::uint64_t> {
 protected:
  static constexpr std::size_t kMostHeaps = 6;

  HeapModelTest() : watch(mem), stage{host, mem, watch, kDirty}, random(GetParam()) {}

  struct Slot {
    std::unique_ptr<CheckedHeap> heap;
    std::int16_t areaLen = 0;
  };

  void openOrClose(Slot &slot) {
    if (slot.heap) {
      slot.heap->close();
      slot.heap.reset();
      return;
    }
    static constexpr std::int16_t kAreaLens[] = {1, 1, 2, 3, 16, 64, 256};
    static constexpr std::uint16_t kSubPools[] = {0, 7, 230, 0xFFFB, 0xFF00};
    slot.areaLen = kAreaLens[random.below(std::size(kAreaLens))];
    maybeRefuse(10);
    slot.heap = std::make_unique<CheckedHeap>(stage, slot.areaLen,
                                              kSubPools[random.below(std::size(kSubPools))]);
    if (!slot.heap->isOpen()) slot.heap.reset();
  }

  void maybeRefuse(std::size_t oneInSoMany) {
    watch.refuseStorage = random.oneIn(oneInSoMany) ? numberBetween(random, 1, 2) : 0;
  }

  // At least 60 % are short, 10 % near the longest area entry, 10 % long or wrong.
  std::int32_t someLength(const Slot &slot) {
    const std::size_t kind = random.below(100);
    if (kind < 60) return numberBetween(random, 1, 64);
    if (kind < 80) return numberBetween(random, 1, 1100);
    if (kind < 90) return slot.areaLen * 1024 - 56 + numberBetween(random, -40, 40);
    if (kind < 97) return numberBetween(random, 1000, 40000);
    return numberBetween(random, -32768, 0);
  }

  void allocate(Slot &slot) {
    const std::int32_t len = someLength(slot);
    maybeRefuse(20);
    slot.heap->alloc(len, len <= 32767 && random.oneIn(2));
  }

  void allocateChain(Slot &slot) {
    const std::int32_t len = std::max(1, someLength(slot));
    const std::int32_t rounded = (len + 7) / 8 * 8;
    const std::int32_t count = numberBetween(random, 1, len < 100 ? 40 : 5);
    const std::int32_t linkOff = numberBetween(random, 0, std::min(rounded - 8, 32767));
    maybeRefuse(20);
    slot.heap->chain(len, count, static_cast<std::int16_t>(linkOff),
                     len <= 32767 && random.oneIn(2));
  }

  void step() {
    Slot &slot = slots[random.below(kMostHeaps)];
    const std::size_t kind = random.below(1000);
    if (!slot.heap || kind < 5) {
      openOrClose(slot);
    } else if (kind < 10) {
      slot.heap->check();
    } else if (kind < 100) {
      allocateChain(slot);
    } else {
      allocate(slot);
    }
    watch.refuseStorage = 0;
  }

  VectorWatch watch;
  Stage stage;
  Random random;
  std::array<Slot, kMostHeaps> slots;
};

INSTANTIATE_TEST_SUITE_P(Seeds, HeapModelTest, seedsOfRuns());

TEST_P(HeapModelTest, RandomOperationsGiveWhatTheModelGives) {
  SCOPED_TRACE(seedNote(GetParam()));
  for (int operation = 0; operation < 20000; ++operation) {
    SCOPED_TRACE(operation);
    step();
    ASSERT_FALSE(HasFailure()) << "the first difference ends the test";
  }
  for (const Slot &slot : slots) {
    if (slot.heap) slot.heap->close();
  }
  EXPECT_GT(stage.tally.areas, 500);
  EXPECT_GT(stage.tally.blocks, 500);
  EXPECT_GT(stage.tally.refused, 100);
}

}  // namespace
}  // namespace memtest
