// MEM_Pack on random structures against the model, byte for byte.

#include <map>

#include "packgraph.hpp"
#include "packtest.hpp"

namespace memtest {
namespace {

constexpr std::int16_t kOutcomes[] = {
    0, kFailed, MEMERR_PACKBMIN, MEMERR_PACKSPTR, MEMERR_PACKCYCL, MEMERR_PACKSTAK};

class PackModelTest : public PackTest {
 protected:
  // Two runs on storage with different old contents; both must leave what the model says, and the
  // caller's bytes as they were.
  void compareWithModel(const RandomStructure &structure) {
    setOldControlBlock(mem, structure.settings().oldControlBlock);
    host.sysEnv().PlatformFlags = structure.settings().bigEndian ? MEM_PLATFORM_BIG_ENDIAN : 0;
    const packmodel::Outcome expected =
        packmodel::pack(structure.controlBlock(), structure.root(), structure.blockLen(),
                        structure.settings());
    ++outcomes[expected.result];
    const Bytes before = structure.callerBytes();
    const Blocks onDirty = run(structure, true, expected);
    const Blocks onZero = run(structure, false, expected);
    EXPECT_EQ(blockDifference(onDirty, onZero), "");
    EXPECT_EQ(structure.callerBytes(), before);
  }

  Blocks run(const RandomStructure &structure, bool dirty, const packmodel::Outcome &expected) {
    host.setDirtyStorage(dirty);
    const std::int16_t result =
        pack(structure.controlBlock(), structure.root(), structure.blockLen());
    EXPECT_EQ(result, expected.result);
    EXPECT_EQ(error().Code, expected.code);
    EXPECT_EQ(nameText(), expected.name);
    const Blocks actual = expected.result == 0 ? blocks() : Blocks();
    EXPECT_EQ(blockDifference(actual, expected.blocks), "");
    freeChain();
    return actual;
  }

  std::map<std::int16_t, int> outcomes;
};

TEST_F(PackModelTest, RandomStructuresBecomeTheModelsBytes) {
  constexpr std::uint64_t kStructures = 3000;
  const std::uint64_t begin = firstSeed(20240917);
  for (std::uint64_t seed = begin; seed < begin + kStructures; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    compareWithModel(RandomStructure(seed));
    if (HasFailure()) return;
  }
  // A generator that made none of these would prove little.
  for (const std::int16_t outcome : kOutcomes) {
    EXPECT_GT(outcomes[outcome], 0) << "no structure ends with " << outcome;
  }
}

}  // namespace
}  // namespace memtest
