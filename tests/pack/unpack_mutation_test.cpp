// MEM_Unpack on damaged chains of every writer: whatever the bytes are, a call ends with a code and
// text of its contract or with a structure that stays inside the blocks.

#include <algorithm>
#include <map>

#include "chainmutants.hpp"
#include "chainrun.hpp"
#include "chainwriter.hpp"
#include "memtest.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using chainrun::Blocks;
using chainwriter::Chain;
using chainwriter::Tree;
using chainwriter::Writer;

constexpr std::uint64_t kSeed = 20250311;
constexpr std::size_t kTreesOfAWriter = 12;
constexpr int kMutantsOfATree = 150;

class UnpackMutationTest : public ::testing::Test {
 protected:
  UnpackMutationTest() : session(library().bindEntry(), withDirtyStorage()), unpack(session) {}

  void runMutants(Random &random, const Tree &tree, const Writer &writer) {
    const Bytes sound = chainwriter::readersControlBlock(tree);
    const std::size_t blockLen =
        chainwriter::smallestBlockLen(tree, writer) + random.below(500) + 130;
    const Chain chain = chainwriter::write(tree, writer, blockLen);
    // The mutants mean something only if the original is valid.
    ASSERT_EQ(unpack.run(chain.blocks, reinterpret_cast<const MemPackCB *>(sound.data())), "");
    ASSERT_EQ(unpack.answer().result, 0) << unpack.answer().text;
    ChainMutator mutator(random, tree, chain);
    for (int i = 0; i < kMutantsOfATree; ++i) {
      const Bytes controlBlock = callersControlBlock(random, tree);
      const Chain &mutant = mutator.next();
      ASSERT_EQ(unpack.run(mutant.blocks, reinterpret_cast<const MemPackCB *>(controlBlock.data())),
                "");
      ++outcomes[unpack.answer().result];
    }
  }

  refhost::Session session;
  chainrun::CheckedUnpack unpack;
  std::map<int, int> outcomes;
};

TEST_F(UnpackMutationTest, DamagedChainsEndWithinTheContract) {
  const std::vector<Writer> &writers = chainwriter::allWriters();
  const std::uint64_t begin = firstSeed(kSeed);
  for (std::uint64_t seed = begin; seed < begin + kTreesOfAWriter * writers.size(); ++seed) {
    const Writer &writer = writers[seed % writers.size()];
    SCOPED_TRACE(writer.name() + ", " + seedNote(seed));
    Random random(seed);
    const Tree tree =
        random.oneIn(2) ? chainwriter::sampleTree() : chainwriter::randomTree(random.bits());
    runMutants(random, tree, writer);
    if (HasFatalFailure()) return;
  }
  // Damage that never reached one of these would prove little.
  for (const int outcome : {0, +MEMERR_PACKRBLK, +MEMERR_PACKROFF, +MEMERR_PACKCYCL,
                            +MEMERR_PACKCBID, +MEMERR_PACKCBVR, +MEMERR_PACKUTF}) {
    EXPECT_GT(outcomes[outcome], 20) << "outcome " << outcome;
  }
}

// Cut at every length, with the used length set to match.
TEST_F(UnpackMutationTest, BlocksCutAnywhereEndWithinTheContract) {
  const Tree tree = chainwriter::sampleTree();
  const Bytes controlBlock = chainwriter::readersControlBlock(tree);
  for (const Writer &writer : chainwriter::allWriters()) {
    SCOPED_TRACE(writer.name());
    const Chain chain =
        chainwriter::write(tree, writer, chainwriter::smallestBlockLen(tree, writer) + 130);
    for (std::size_t block = 0; block < chain.blocks.size(); ++block) {
      for (std::size_t used = 0; used < chain.blocks[block].size(); ++used) {
        Chain cut = chain;
        cut.setUsedLen(block, static_cast<std::uint16_t>(used));
        ASSERT_EQ(unpack.run(cut.blocks, reinterpret_cast<const MemPackCB *>(controlBlock.data())),
                  "")
            << "block " << block << " cut to " << used;
      }
    }
  }
}

}  // namespace
}  // namespace memtest
