// MEM_Pack on random structures against the model, byte for byte.

#include <map>
#include <thread>

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
    const packmodel::Outcome expected = packmodel::pack(structure.controlBlock(), structure.root(),
                                                        structure.blockLen(), structure.settings());
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
    Blocks actual = expected.result == 0 ? blocks() : Blocks();
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

// Threads pack structures of their own at the same time. Only the main thread uses the test
// framework.
class PackThreadsTest : public PackTest {
 protected:
  static constexpr std::uint64_t kThreads = 4;
  static constexpr std::uint64_t kStructuresEach = 100;

  // "" or what went wrong first.
  static std::string packMany(MEMFunctionVector &mem, std::uint64_t begin) {
    if (mem.MEM_ThreadAct() != 0) return "no thread block";
    std::string problem;
    for (std::uint64_t seed = begin; seed < begin + kStructuresEach && problem.empty(); ++seed) {
      problem = packOne(mem, RandomStructure(seed));
      if (!problem.empty()) problem += ", " + seedNote(seed);
    }
    return mem.MEM_ThreadTerm() == 0 ? problem : "the thread block is not returned";
  }

  static std::string packOne(MEMFunctionVector &mem, const RandomStructure &structure) {
    const packmodel::Outcome expected =
        packmodel::pack(structure.controlBlock(), structure.root(), structure.blockLen());
    MemPackBlock *chain = nullptr;
    const std::int16_t result =
        mem.MEM_Pack(structure.controlBlock(), structure.root(), structure.blockLen(), &chain);
    std::string problem;
    if (result != expected.result) {
      problem = "result " + std::to_string(result);
    } else if (result == 0) {
      problem = blockDifference(blocksOf(chain, structure.blockLen()), expected.blocks);
    }
    returnChain(mem, chain, structure.blockLen());
    return problem;
  }
};

TEST_F(PackThreadsTest, EachThreadPacksItsOwnStructures) {
  const std::uint64_t begin = firstSeed(31415926);
  std::vector<std::string> problems(kThreads);
  std::vector<std::thread> threads;
  for (std::uint64_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] { problems[i] = packMany(mem, begin + i * kStructuresEach); });
  }
  for (std::thread &thread : threads) thread.join();
  for (const std::string &problem : problems) EXPECT_EQ(problem, "");
}

}  // namespace
}  // namespace memtest
