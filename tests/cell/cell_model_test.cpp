// Cell pools against a model: every pair of lengths that a pool may have, and random operations on
// several pools at once.

#include <algorithm>
#include <array>
#include <memory>

#include "cellmodel.hpp"

namespace memtest {
namespace {

class CellModelTest : public HeapHashTest, public ::testing::WithParamInterface<std::uint64_t> {
 protected:
  static constexpr std::size_t kMostPools = 6;

  CellModelTest() : watch(mem), stage{host, mem, watch, kDirty}, random(GetParam()) {}

  // Half of the areas are small, so that nodes run out; one in 80 is the largest.
  std::int32_t someAreaLen() {
    const std::size_t kind = random.below(100);
    if (kind < 50) return numberBetween(random, 256, 600);
    if (kind < 95) return numberBetween(random, 256, 8192);
    return random.oneIn(4) ? 1048576 : numberBetween(random, 8192, 1048576);
  }

  std::int32_t someCellLen(std::int32_t areaLen) {
    const std::int32_t most = areaLen - 168;
    const std::size_t kind = random.below(100);
    if (kind < 10) return most - numberBetween(random, 0, std::min(most - 8, 16));
    if (kind < 40) return numberBetween(random, 8, most);
    return numberBetween(random, 8, std::min(most, 150));
  }

  void openPool(std::unique_ptr<CheckedPool> &slot) {
    static constexpr std::int16_t kSubPools[] = {0, 7, 230, -5, -256, -32768};
    const std::int32_t areaLen = someAreaLen();
    const std::int32_t cellLen = someCellLen(areaLen);
    SCOPED_TRACE(std::to_string(areaLen) + ", " + std::to_string(cellLen));
    maybeRefuse();
    slot = std::make_unique<CheckedPool>(stage, areaLen, cellLen,
                                         kSubPools[random.below(std::size(kSubPools))]);
    if (!slot->isOpen()) slot.reset();
  }

  void maybeRefuse() { watch.refuseStorage = random.oneIn(10) ? 1 : 0; }

  // A few cells in one direction, so that pools fill and empty.
  void move(CheckedPool &pool) {
    const std::size_t count = 1 + random.below(20);
    if (pool.outCount() < 400 && !random.oneIn(3)) {
      for (std::size_t i = 0; i < count; ++i) pool.alloc();
    } else {
      for (std::size_t i = 0; i < count && pool.outCount() > 0; ++i) {
        pool.free(random.below(pool.outCount()));
      }
    }
  }

  void step() {
    std::unique_ptr<CheckedPool> &slot = pools[random.below(kMostPools)];
    const std::size_t kind = random.below(1000);
    if (!slot) {
      openPool(slot);
    } else if (kind < 15) {
      slot->close();
      slot.reset();
    } else if (kind < 25) {
      slot->clear();
    } else if (kind < 100) {
      slot->check();
    } else {
      maybeRefuse();
      move(*slot);
    }
    watch.refuseStorage = 0;
  }

  VectorWatch watch;
  Stage stage;
  Random random;
  std::array<std::unique_ptr<CheckedPool>, kMostPools> pools;
};

INSTANTIATE_TEST_SUITE_P(Seeds, CellModelTest, seedsOfRuns());

TEST_P(CellModelTest, RandomOperationsGiveWhatTheModelGives) {
  SCOPED_TRACE(seedNote(GetParam()));
  for (int operation = 0; operation < 6000; ++operation) {
    SCOPED_TRACE(operation);
    step();
    ASSERT_FALSE(HasFailure()) << "the first difference ends the test";
  }
  for (const std::unique_ptr<CheckedPool> &pool : pools) {
    if (pool) pool->close();
  }
  EXPECT_GT(stage.tally.areas, 1000);
  EXPECT_GT(stage.tally.refused, 100);
}

// Of each pair of lengths: open, growth until an area has brought nodes of its own, clear, close.
TEST_P(CellModelTest, LifeOfManyShapesOfPools) {
  SCOPED_TRACE(seedNote(GetParam()));
  const auto live = [&](std::int32_t areaLen, std::int32_t cellLen) {
    SCOPED_TRACE(std::to_string(areaLen) + ", " + std::to_string(cellLen));
    CheckedPool pool(stage, areaLen, cellLen, 7);
    ASSERT_TRUE(pool.isOpen());
    const std::size_t nodesAtOpen = pool.nodeCount();
    pool.check();
    while (pool.nodeCount() == nodesAtOpen && pool.outCount() < 400) pool.alloc();
    while (pool.freeCount() > 0 && pool.outCount() < 500) pool.alloc();
    pool.alloc();
    pool.check();
    pool.clear();
    pool.alloc();
    pool.close();
  };
  for (std::int32_t cellLen = 8; cellLen <= 88; ++cellLen) live(256, cellLen);
  for (int i = 0; i < 300; ++i) {
    const std::int32_t areaLen = numberBetween(random, 256, 3000);
    live(areaLen, someCellLen(areaLen));
    ASSERT_FALSE(HasFailure());
  }
}

}  // namespace
}  // namespace memtest
