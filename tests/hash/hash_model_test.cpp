// Hash tables against a model, with random operations on tables of different shapes.

#include <array>
#include <memory>

#include "heapmodel.hpp"

namespace memtest {
namespace {

constexpr TableShape kShapes[] = {
    // keyOff, keyLen, buckets, function, len, areaLen, subPool
    {0, 8, 7, firstByteModulo<7>, 8, 1, 7},
    {4, 4, 64, firstByteModulo<64>, 16, 1, 0},
    {13, 3, 1, firstByteModulo<1>, 17, 2, 230},
    {0, 1, 255, firstByteModulo<255>, 1, 16, 0xFFFB},
    {1, 12, 16, firstByteModulo<16>, 100, 4, 0xFF00},
    {900, 8, 32, firstByteModulo<32>, 953, 1, 7},   // nodes are the longest area entries
    {0, 2, 100, firstByteModulo<100>, 2000, 1, 3},  // nodes are large blocks
};

class HashModelTest : public HeapHashTest, public ::testing::WithParamInterface<std::uint64_t> {
 protected:
  HashModelTest() : watch(mem), stage{host, mem, watch, kDirty}, random(GetParam()) {}

  void openOrClose(std::size_t index) {
    if (tables[index]) {
      tables[index]->close();
      tables[index].reset();
      return;
    }
    maybeRefuse(5);
    tables[index] = std::make_unique<CheckedTable>(stage, kShapes[index]);
    if (!tables[index]->isOpen()) tables[index].reset();
  }

  void maybeRefuse(std::size_t oneInSoMany) {
    watch.refuseStorage = random.oneIn(oneInSoMany) ? numberBetween(random, 1, 2) : 0;
  }

  // Few enough keys that they are met again, some of them equal in all bytes but the last.
  std::uint64_t someKey(std::size_t index) {
    const std::int16_t keyLen = kShapes[index].keyLen;
    if (keyLen == 1) return random.below(256);
    const std::uint64_t low = random.below(150);
    return random.oneIn(4) ? low | (std::uint64_t{1} << (8 * (std::min<int>(keyLen, 8) - 1))) : low;
  }

  std::vector<std::int16_t> someResults() {
    std::vector<std::int16_t> results(random.below(40));
    for (std::int16_t &result : results) {
      if (random.oneIn(10))
        result = static_cast<std::int16_t>(numberBetween(random, -32768, 32767));
    }
    return results;
  }

  // Tables grow and shrink in turn, so that nodes are reused as well as made.
  void step(bool growing) {
    const std::size_t index = random.below(std::size(kShapes));
    const std::size_t kind = random.below(1000);
    if (!tables[index] || kind < 2) {
      openOrClose(index);
    } else if (kind < 10) {
      tables[index]->scan(someResults());
    } else if (kind < 15) {
      tables[index]->check();
    } else if (kind < 300) {
      tables[index]->get(someKey(index));
    } else if (kind < (growing ? std::size_t{800} : std::size_t{500})) {
      maybeRefuse(10);
      tables[index]->insert(someKey(index));
    } else {
      tables[index]->remove(someKey(index));
    }
    watch.refuseStorage = 0;
  }

  VectorWatch watch;
  Stage stage;
  Random random;
  std::array<std::unique_ptr<CheckedTable>, std::size(kShapes)> tables;
};

INSTANTIATE_TEST_SUITE_P(Seeds, HashModelTest, seedsOfRuns());

TEST_P(HashModelTest, RandomOperationsGiveWhatTheModelGives) {
  SCOPED_TRACE(seedNote(GetParam()));
  for (int operation = 0; operation < 40000; ++operation) {
    SCOPED_TRACE(operation);
    step(operation % 6000 < 3000);
    ASSERT_FALSE(HasFailure()) << "the first difference ends the test";
  }
  for (const auto &table : tables) {
    if (table) table->close();
  }
  EXPECT_GT(stage.tally.inserted, 1000);
  EXPECT_GT(stage.tally.duplicates, 1000);
  EXPECT_GT(stage.tally.reused, 1000);
  EXPECT_GT(stage.tally.removed, 1000);
  EXPECT_GT(stage.tally.absent, 1000);
  EXPECT_GT(stage.tally.refused, 20);
}

}  // namespace
}  // namespace memtest
