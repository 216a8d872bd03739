// memtool's verdict on damaged chains against the library's, 20,000 of them: what memtool calls
// valid the library accepts, the code that it shows is the library's, and where it is stricter the
// manual says so.

#include <array>
#include <map>

#include "chainfixtures.hpp"
#include "chainmutants.hpp"
#include "chainrun.hpp"
#include "memtooltest.hpp"
#include "packed_reader.hpp"
#include "packed_verdict.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using chainwriter::Chain;
using chainwriter::Tree;
using chainwriter::Writer;

constexpr std::uint64_t kSeed = 20261122;
constexpr std::size_t kFewer = MEM_FEWER_CASES;  // 1, or more in builds that are slow
constexpr std::size_t kTrees = 800 / kFewer;
constexpr int kMutantsOfATree = 25;

// A fault that memtool sees and the library lets pass: what memtool says of it, and how the manual
// names it.
struct Stricter {
  const char *what;
  const char *inManual;
};
constexpr std::array kStricter = {
    Stricter{"into the block's head", "a pointer into the head of a block"},
    Stricter{"which overlaps what another pointer leads to", "items that overlap"},
    Stricter{"too short for its pointer", "a pointer field that passes the end of its segment"},
    Stricter{"would be before it", "a pointer field before the start of its segment"},
    Stricter{"whose pointer fields of 4 bytes overlap", "pointer fields of 4 bytes that overlap"},
    Stricter{"where no segment begins", "a reference to a place where no segment begins"},
    Stricter{"not at a multiple of 4", "wide text that is not at a multiple of 4"},
    Stricter{"without the room for 4-byte characters",
             "wide text without the room for 4-byte characters"},
    Stricter{"after a relative pointer are not zero",
             "bytes after a relative pointer that are not zero"},
};

std::string textOf(const chainwriter::Bytes &bytes) {
  return std::string(bytes.begin(), bytes.end());
}

// The file begins as the chain does, up to the end of the control block.
bool hasControlBlockOf(const Chain &chain, const std::string &file) {
  const std::string good = textOf(chain.blocks[0]);
  const std::size_t length = chain.writer().isOldLayout ? 466U : 978U;
  return file.compare(2, 4 + length, good, 2, 4 + length) == 0;
}

// Unpacking in place may find a segment's length where a pointer has become an address: whether it
// is refused for its length or for where it is depends on the address.
constexpr const char *kByAddressInManual = "4071 for one copy and 4072 for another";
bool isCodeByAddress(std::uint32_t one, std::uint32_t other, std::size_t width) {
  const auto isOfPlace = [](std::uint32_t code) {
    return code == MEMERR_PACKROFF || code == MEMERR_PACKCYCL;
  };
  return width == 8 && isOfPlace(one) && isOfPlace(other);
}

// The one thing that the library refuses and memtool does not see.
constexpr const char *kLooserInManual = "segments of types 0xE5 and 0xE7";

std::string manual() {
  std::string text = readBytes(std::filesystem::path(MEM_DOCS) / "memtool.md");
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

const MemPackCB *asControlBlock(const chainwriter::Bytes &bytes) {
  return reinterpret_cast<const MemPackCB *>(bytes.data());
}

// Kinds as a compiler with pointers of that width lays them out: fields and lengths at multiples of
// it, here and there with other fields of 4 bytes between.
Tree compiledTree(Random &random, std::size_t width) {
  Tree tree;
  const std::size_t segments = random.between(1, 3);
  for (std::size_t i = 0; i < segments; ++i) {
    chainwriter::Kind kind;
    std::size_t length = 0;
    const auto add = [&](const chainwriter::Part &part, std::size_t bytes) {
      kind.parts.push_back(part);
      length += bytes;
    };
    const auto align = [&] {
      if (length % width != 0) add(chainwriter::data(4), 4);
    };
    const auto pointer = [&](const chainwriter::Part &part) {
      if (random.oneIn(3)) add(chainwriter::data(4), 4);
      align();
      add(part, width);
    };
    if (random.oneIn(2)) pointer(chainwriter::sibling());
    for (std::size_t k = random.between(1, 3); k > 0; --k) {
      pointer(chainwriter::child(random.between(i, segments + 1)));
    }
    if (random.oneIn(3)) pointer(chainwriter::reference());
    if (random.oneIn(2)) add(chainwriter::data(4), 4);
    align();
    tree.kinds.push_back(kind);
  }
  tree.kinds.push_back({chainwriter::Form::Narrow});
  tree.kinds.push_back({chainwriter::Form::Wide});
  // Depth first; each node's own children come after it.
  const auto isPointer = [](const chainwriter::Part &part) {
    return part.what != chainwriter::Part::What::Data;
  };
  tree.nodes.push_back({0});
  for (std::size_t at = 0; at < tree.nodes.size(); ++at) {
    const std::size_t kind = tree.nodes[at].kind;
    if (kind >= segments) continue;
    for (const chainwriter::Part &part : tree.kinds[kind].parts) {
      if (!isPointer(part)) {
        for (std::size_t k = 0; k < part.number; ++k) {
          tree.nodes[at].data.push_back(static_cast<std::uint8_t>(random.between(1, 255)));
        }
        continue;
      }
      std::size_t target = chainwriter::kNone;
      if (part.what == chainwriter::Part::What::Reference) {
        target = random.oneIn(2) ? 0 : chainwriter::kNone;
      } else if (tree.nodes.size() == 1 || (tree.nodes.size() < 9 && !random.oneIn(4))) {
        target = tree.nodes.size();
        const bool isSibling = part.what == chainwriter::Part::What::Sibling;
        tree.nodes.push_back({isSibling ? kind : part.number, {}, {}, "text", U"wide"});
      }
      tree.nodes[at].targets.push_back(target);
    }
  }
  return tree;
}

// A type that means something in chains of big-endian writers only.
void setLetter(Random &random, const Tree &tree, Chain &chain) {
  constexpr std::uint16_t kLetters[] = {0xC3, 0xC6, 0xE2, 0xE5, 0xE6, 0xE7};
  chain.setNumber(chain.descriptorPlace(random.below(tree.kinds.size())),
                  kLetters[random.below(std::size(kLetters))]);
}

// A pointer field a few bytes before its segments.
void setNegativeOffset(Random &random, const Tree &tree, Chain &chain) {
  const std::size_t kind = random.below(tree.kinds.size());
  const chainwriter::Place entry = chain.childEntryPlace(kind, 0);
  chain.setNumber({entry.block, entry.offset + 2},
                  static_cast<std::uint16_t>(0 - random.between(2, 12)));
}

// Takes bytes off the last block, which says so.
void cutEnd(Random &random, Chain &chain) {
  chainwriter::Bytes &block = chain.blocks.back();
  const std::size_t bytes = random.between(1, 24);
  if (block.size() < bytes + 6) return;
  block.resize(block.size() - bytes);
  chain.setUsedLen(chain.blocks.size() - 1, static_cast<std::uint16_t>(block.size()));
}

class MemtoolDifferentialTest : public ToolTest {
 protected:
  MemtoolDifferentialTest()
      : console_(sink_, sink_, {}), library_({}), unpack_(library_.session()) {}

  memtool::PackedChain read(const std::string &file, std::uint32_t width) {
    return memtool::readChain(file, width, console_);
  }

  // Segments whose lengths only their writer knows: the library takes their first two bytes.
  static bool hasForeignLengths(const memtool::PackedChain &chain) {
    return chain.pointerWidth == 4 &&
           std::any_of(chain.segments.begin(), chain.segments.end(), [&](const auto &segment) {
             return chain.kinds[segment.kind].form == memtool::Form::Unknown;
           });
  }

  // What memtool says must be what the library does, or be in the manual.
  void compare(const memtool::PackedChain &chain, const memtool::Verdict &verdict) {
    if (!verdict.wasAsked) {
      ASSERT_FALSE(chain.isSound());
      ++formsNoBlocks_;
      return;
    }
    if (chain.isSound()) {
      ++(verdict.code == 0 ? sound_ : looser_);
      ASSERT_TRUE(verdict.code == 0 || hasForeignLengths(chain)) << verdict.text;
      return;
    }
    if (verdict.code != 0) {
      ++refusedByBoth_;
      return;
    }
    for (const Stricter &row : kStricter) {
      if (chain.faults.front().what.find(row.what) == std::string::npos) continue;
      ++stricter_[row.what];
      return;
    }
    FAIL() << "the library accepts it, and the manual does not say so: "
           << chain.faults.front().what;
  }

  // The same question put by the test itself, for a caller of the tree's structures.
  std::int16_t libraryResult(const Tree &tree, const std::string &file) {
    const chainwriter::Bytes callers = chainwriter::readersControlBlock(tree);
    EXPECT_EQ(unpack_.run(chainrun::splitFile({file.begin(), file.end()}, false),
                          asControlBlock(callers)),
              "");
    return unpack_.answer().result;
  }

  std::ostringstream sink_;
  memtool::Console console_;
  memtool::RunningLibrary library_;
  chainrun::CheckedUnpack unpack_;
  std::size_t sound_ = 0;
  std::size_t refusedByBoth_ = 0;
  std::size_t formsNoBlocks_ = 0;
  std::size_t looser_ = 0;
  std::map<std::string, std::size_t> stricter_;
};

// Each mutant is read with the writer's width and with none given.
TEST_F(MemtoolDifferentialTest, VerdictsAreThoseOfTheLibrary) {
  const std::vector<Writer> &writers = chainwriter::allWriters();
  std::size_t askedTwice = 0;
  std::size_t byAddress = 0;
  const std::uint64_t begin = firstSeed(kSeed);
  for (std::uint64_t seed = begin; seed < begin + kTrees; ++seed) {
    const Writer &writer = writers[seed % writers.size()];
    Random random(seed);
    const bool isSample = random.oneIn(3);
    const Tree tree = isSample          ? chainwriter::sampleTree()
                      : random.oneIn(2) ? compiledTree(random, writer.pointerWidth)
                                        : chainwriter::randomTree(random.bits());
    const Chain chain = chainwriter::write(
        tree, writer, chainwriter::smallestBlockLen(tree, writer) + random.below(500));
    ChainMutator mutator(random, tree, chain);
    for (int i = 0; i < kMutantsOfATree; ++i) {
      SCOPED_TRACE(writer.name() + " mutant " + std::to_string(i) + ", " + seedNote(seed));
      Chain mutant = mutator.next();
      if (random.oneIn(20)) setLetter(random, tree, mutant);
      if (random.oneIn(20)) setNegativeOffset(random, tree, mutant);
      if (random.oneIn(10)) cutEnd(random, mutant);
      const std::string file = textOf(mutant.file());
      for (const std::size_t width : {writer.pointerWidth, std::size_t{0}}) {
        const memtool::PackedChain seen = read(file, static_cast<std::uint32_t>(width));
        const memtool::Verdict verdict = memtool::askLibrary(library_, seen);
        compare(seen, verdict);
        if (HasFatalFailure()) return;
        if (width == 0 || !isSample || !verdict.wasAsked || !hasControlBlockOf(chain, file)) {
          continue;
        }
        const auto again = static_cast<std::uint32_t>(libraryResult(tree, file));
        ASSERT_TRUE(again == verdict.code || isCodeByAddress(again, verdict.code, width))
            << again << " and " << verdict.code;
        byAddress += again == verdict.code ? 0U : 1U;
        ++askedTwice;
      }
    }
  }
  EXPECT_GT(sound_ * kFewer, 1000U);
  EXPECT_GT(refusedByBoth_ * kFewer, 10000U);
  EXPECT_GT(formsNoBlocks_ * kFewer, 1000U);
  EXPECT_GT(askedTwice * kFewer, 1000U);
  EXPECT_LT(byAddress * 100, askedTwice);
  EXPECT_TRUE(looser_ > 0 || kFewer > 1);
  const std::string pages = manual();
  EXPECT_NE(pages.find(kLooserInManual), std::string::npos);
  EXPECT_NE(pages.find(kByAddressInManual), std::string::npos);
  for (const Stricter &row : kStricter) {
    EXPECT_TRUE(stricter_[row.what] > 0 || kFewer > 1) << row.what;
    EXPECT_NE(pages.find(row.inManual), std::string::npos) << row.inManual;
  }
}

// Blocks of a new chain have 33,024 bytes, whatever the file's had.
TEST_F(MemtoolDifferentialTest, ItemsTooLongForANewChain) {
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {chainwriter::data(4), chainwriter::child(1)}},
                {chainwriter::Form::Narrow}};
  tree.nodes = {{0, {1, 2, 3, 4}, {1}}, {1, {}, {}, std::string(33100, 'x')}};
  const Chain chain = chainwriter::write(tree, chainwriter::writerOf("0220", 4), 40000);
  const memtool::PackedChain seen = read(textOf(chain.file()), 4);
  EXPECT_TRUE(seen.isSound());
  const memtool::Verdict verdict = memtool::askLibrary(library_, seen);
  EXPECT_EQ(verdict.code, std::uint32_t{MEMERR_PACKBMIN});
  EXPECT_NE(manual().find("an item that is too long for the blocks of a new chain"),
            std::string::npos);
}

// One flipped bit anywhere in a good chain, the width not given: what the library refuses is not
// called valid, whatever the bit makes the control block look like.
TEST_F(MemtoolDifferentialTest, FlippedBitsDoNotHideBehindTheOtherWidth) {
  constexpr int kChains = 6;
  Random random(firstSeed(kSeed));
  std::size_t flips = 0;
  std::size_t refused = 0;
  for (int i = 0; i < kChains; ++i) {
    const std::uint32_t width = i % 2 == 0 ? 8 : 4;
    const Tree tree = compiledTree(random, width);
    const Writer writer = chainwriter::writerOf(i < kChains / 2 ? "0220" : "0101", width);
    const Chain chain =
        chainwriter::write(tree, writer, chainwriter::smallestBlockLen(tree, writer) + 60);
    const std::string good = textOf(chain.file());
    for (std::size_t bit = 0; bit < 8 * good.size(); bit += kFewer) {
      std::string flipped = good;
      flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
      ++flips;
      const memtool::Verdict verdict = memtool::askLibrary(library_, read(flipped, width));
      if (verdict.wasAsked && verdict.code == 0) continue;
      ++refused;
      ASSERT_FALSE(read(flipped, 0).isSound())
          << "chain " << i << ", bit " << bit % 8 << " of byte " << bit / 8 << ": " << verdict.text;
    }
  }
  EXPECT_GT(flips * kFewer, 20000U);
  EXPECT_GT(refused * kFewer, 2000U);
}

}  // namespace
}  // namespace memtest
