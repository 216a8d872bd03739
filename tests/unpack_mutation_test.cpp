// MEM_Unpack on damaged chains of every writer: whatever the bytes are, a call ends with a code and
// text of its contract or with a structure that stays inside the blocks.

#include <algorithm>
#include <map>

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

constexpr std::uint16_t kInteresting[] = {
    0,    1,    2,    3,     4,     7,   8,   9,      21,     24,     25,     63,     64,
    0x7F, 0x80, 0xFF, 0x100, 0x1FF, 984, 985, 0x7FFE, 0x7FFF, 0x8000, 0x8001, 0xFFFE, 0xFFFF};

// Damages copies of one valid chain.
class Mutator {
 public:
  Mutator(Random &random, const Tree &tree, const Chain &chain)
      : random_(random), tree_(tree), original_(chain), chain_(chain) {}

  // A few changes; more than one of them makes defects that only show together.
  const Chain &next() {
    chain_ = original_;
    for (std::size_t changes = random_.between(1, 4); changes > 0; --changes) change();
    return chain_;
  }

 private:
  struct Where {
    std::size_t block;
    std::size_t offset;
  };

  void change() {
    switch (random_.below(10)) {
      case 0:
        return flipBit();
      case 1:
        return setAnywhere();
      case 2:
        return swapRanges();
      case 3:
        return shorten();
      case 4:
        return setControlBlock();
      default:
        return redirect();
    }
  }

  std::size_t anyBlock() { return random_.below(chain_.blocks.size()); }
  Where anyPlace(std::size_t width) {
    const std::size_t block = anyBlock();
    const std::size_t room = chain_.blocks[block].size();
    return {block, room <= width ? 0 : random_.below(room - width + 1)};
  }
  std::uint16_t anyNumber() {
    if (random_.oneIn(4)) return static_cast<std::uint16_t>(random_.bits());
    return kInteresting[random_.below(std::size(kInteresting))];
  }

  void flipBit() {
    const Where where = anyPlace(1);
    std::uint8_t &byte = chain_.blocks[where.block][where.offset];
    byte = static_cast<std::uint8_t>(byte ^ (1U << random_.below(8)));
  }

  void setAnywhere() {
    const Where where = anyPlace(2);
    chain_.setNumber({where.block, where.offset}, anyNumber());
  }

  void swapRanges() {
    const std::size_t length = random_.between(1, 16);
    const Where one = anyPlace(length);
    const Where other = anyPlace(length);
    for (std::size_t i = 0; i < length; ++i) {
      Bytes &oneBlock = chain_.blocks[one.block];
      Bytes &otherBlock = chain_.blocks[other.block];
      if (one.offset + i >= oneBlock.size() || other.offset + i >= otherBlock.size()) return;
      std::swap(oneBlock[one.offset + i], otherBlock[other.offset + i]);
    }
  }

  void shorten() {
    const std::size_t block = anyBlock();
    const std::size_t used = chain_.blocks[block].size();
    const std::size_t shorter = random_.oneIn(4) ? random_.below(9) : random_.below(used + 1);
    chain_.setUsedLen(block, static_cast<std::uint16_t>(std::min(shorter, used)));
  }

  // Counts, types, offsets and kinds of the descriptors.
  void setControlBlock() {
    const std::size_t kind = random_.below(tree_.kinds.size());
    const std::size_t header = 2 * random_.below(5);
    const std::size_t entry = random_.below(8);
    switch (random_.below(4)) {
      case 0:
        return chain_.setNumber(Chain::countPlace(), anyNumber());
      case 1:
        return chain_.setNumber({0, chain_.descriptorPlace(kind).offset + header}, anyNumber());
      case 2:
        return chain_.setNumber(chain_.referenceEntryPlace(kind, entry), smallOffset());
      default: {
        const std::size_t at = chain_.childEntryPlace(kind, entry).offset;
        if (random_.oneIn(2)) {
          return chain_.setNumber({0, at}, static_cast<std::uint16_t>(random_.below(10)));
        }
        return chain_.setNumber({0, at + 2}, smallOffset());
      }
    }
  }
  std::uint16_t smallOffset() {
    if (random_.oneIn(4)) return anyNumber();
    return static_cast<std::uint16_t>(random_.below(80) - 16);
  }

  // Lets a pointer lead to, or near to, where some item lies, so that items overlap.
  void redirect() {
    const std::size_t node = random_.below(tree_.nodes.size());
    const auto &parts = tree_.kinds[tree_.nodes[node].kind].parts;
    if (parts.empty()) return;
    const std::size_t part = random_.below(parts.size());
    chainwriter::Place target = chain_.places[random_.below(chain_.places.size())];
    if (random_.oneIn(2)) target.offset += random_.below(40) - 20;
    if (random_.oneIn(30)) target = {anyNumber(), anyNumber()};
    const chainwriter::Place field = chain_.partPlace(tree_, node, part);
    if (field.offset + 4 <= chain_.blocks[field.block].size()) chain_.setPointer(field, target);
  }

  Random &random_;
  const Tree &tree_;
  const Chain &original_;
  Chain chain_;
};

class UnpackMutationTest : public ::testing::Test {
 protected:
  UnpackMutationTest() : session(library().bindEntry(), withDirtyStorage()), unpack(session) {}

  // One mutant in five comes with a damaged control block of the caller's.
  Bytes callersControlBlock(Random &random, const Tree &tree) {
    Bytes bytes = chainwriter::readersControlBlock(tree);
    if (!random.oneIn(5)) return bytes;
    const std::size_t used = 2 + 122 * tree.kinds.size();
    for (std::size_t changes = random.between(1, 3); changes > 0; --changes) {
      const std::size_t at = 2 + 2 * random.below((used - 2) / 2);
      const auto small = static_cast<std::uint16_t>(random.below(90));
      const std::uint16_t number =
          random.oneIn(2) ? small : kInteresting[random.below(std::size(kInteresting))];
      std::memcpy(bytes.data() + at, &number, sizeof number);
    }
    return bytes;
  }

  void runMutants(Random &random, const Tree &tree, const Writer &writer) {
    const Bytes sound = chainwriter::readersControlBlock(tree);
    const std::size_t blockLen =
        chainwriter::smallestBlockLen(tree, writer) + random.below(500) + 130;
    const Chain chain = chainwriter::write(tree, writer, blockLen);
    // The mutants mean something only if the original is sound.
    ASSERT_EQ(unpack.run(chain.blocks, reinterpret_cast<const MemPackCB *>(sound.data())), "");
    ASSERT_EQ(unpack.answer().result, 0) << unpack.answer().text;
    Mutator mutator(random, tree, chain);
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

// Cut at every length, with every used length told to match.
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
