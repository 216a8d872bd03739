// What a failure of MEM_Unpack leaves in the blocks: everything before its segment has become real
// addresses and native text, everything else is as it was written. And which of two failures it
// is. This holds for every order of segments, texts and blocks.

#include <algorithm>

#include "unpacktest.hpp"

namespace memtest {
namespace {

using chainwriter::Chain;
using chainwriter::Form;
using chainwriter::Kind;
using chainwriter::kNone;
using chainwriter::Node;
using chainwriter::Part;
using chainwriter::Place;
using chainwriter::readersControlBlock;
using chainwriter::Tree;
using chainwriter::Writer;
using chainwriter::writerOf;

// The blocks of a chain in one area, the first one at its end.
class BackwardBlocks {
 public:
  explicit BackwardBlocks(const Chain &chain) : starts_(chain.blocks.size()) {
    for (std::size_t i = chain.blocks.size(); i-- > 0;) {
      starts_[i] = area_.size();
      area_.resize(area_.size() + (8 + chain.blocks[i].size() + 7) / 8 * 8);
      std::copy(chain.blocks[i].begin(), chain.blocks[i].end(), content(i));
    }
    for (std::size_t i = 0; i + 1 < starts_.size(); ++i) {
      const std::uint8_t *const next = area_.data() + starts_[i + 1];
      std::memcpy(area_.data() + starts_[i], &next, sizeof next);
    }
  }

  MemPackBlock *first() { return reinterpret_cast<MemPackBlock *>(area_.data() + starts_[0]); }
  std::uint8_t *content(std::size_t block) { return area_.data() + starts_[block] + 8; }

 private:
  Bytes area_;
  std::vector<std::size_t> starts_;
};

// The changes that unpacking makes, in order: a pointer part of a node becomes an address, a wide
// text becomes native.
struct Change {
  std::size_t node;
  std::size_t part;  // kNone: the text of the node
};

// Finds the changes by walking the tree as the chain has to be walked.
class ChangeList {
 public:
  explicit ChangeList(const Tree &tree) : tree_(tree) { visit(0); }
  const std::vector<Change> &changes() const { return changes_; }
  // The pointers in the order in which they are checked: a segment's all at once, when the walk
  // reaches it.
  const std::vector<Change> &checks() const { return checks_; }

 private:
  void check(std::size_t node, const std::vector<std::pair<std::size_t, std::size_t>> &pointers) {
    for (const auto &[part, target] : pointers) {
      if (target != kNone) checks_.push_back({node, part});
    }
  }

  std::size_t follow(std::size_t node, std::size_t part, std::size_t target) {
    if (target != kNone) changes_.push_back({node, part});
    return target;
  }

  void visitChild(std::size_t target) {
    if (target == kNone) return;
    const Form form = tree_.kinds[tree_.nodes[target].kind].form;
    if (form == Form::Wide) changes_.push_back({target, kNone});
    if (form != Form::Wide && form != Form::Narrow) visit(target);
  }

  void visit(std::size_t node) {
    const Kind &kind = tree_.kinds[tree_.nodes[node].kind];
    std::vector<std::pair<std::size_t, std::size_t>> children;  // part and target
    std::vector<std::pair<std::size_t, std::size_t>> references;
    std::pair<std::size_t, std::size_t> next{0, kNone};
    std::size_t pointer = 0;
    for (std::size_t part = 0; part < kind.parts.size(); ++part) {
      if (kind.parts[part].what == Part::What::Data) continue;
      const std::size_t target = tree_.nodes[node].targets[pointer++];
      if (kind.parts[part].what == Part::What::Reference) references.emplace_back(part, target);
      if (kind.parts[part].what == Part::What::Child) children.emplace_back(part, target);
      if (kind.parts[part].what == Part::What::Sibling) next = {part, target};
    }
    if (kind.hasEntriesBackwards) std::reverse(children.begin(), children.end());
    check(node, {next});
    check(node, children);
    check(node, references);
    for (const auto &[part, target] : references) follow(node, part, target);
    for (const auto &[part, target] : children) visitChild(follow(node, part, target));
    if (follow(node, next.first, next.second) != kNone) visit(next.second);
  }

  const Tree &tree_;
  std::vector<Change> changes_;
  std::vector<Change> checks_;
};

class UnpackHalfwayTest : public UnpackTest, public ::testing::WithParamInterface<const char *> {
 protected:
  void use(const Tree &tree, std::size_t blockLen) {
    tree_ = tree;
    chain_ = chainwriter::write(tree, writer, blockLen);
    const ChangeList list(tree);
    changes_ = list.changes();
    checks_ = list.checks();
  }

  Place target(const Change &change) const {
    const Kind &kind = tree_.kinds[tree_.nodes[change.node].kind];
    const auto isPointer = [](const Part &part) { return part.what != Part::What::Data; };
    const auto index =
        std::count_if(kind.parts.begin(),
                      kind.parts.begin() + static_cast<std::ptrdiff_t>(change.part), isPointer);
    return chain_.places[tree_.nodes[change.node].targets[static_cast<std::size_t>(index)]];
  }
  Place field(const Change &change) const {
    return chain_.partPlace(tree_, change.node, change.part);
  }

  void apply(const Change &change, BackwardBlocks &expected, BackwardBlocks &actual) const {
    if (change.part != kNone) {
      const std::uint8_t *const address =
          actual.content(target(change).block) + target(change).offset;
      const Place at = field(change);
      std::memcpy(expected.content(at.block) + at.offset, &address, sizeof address);
      return;
    }
    const Place at = chain_.places[change.node];
    std::uint8_t *to = expected.content(at.block) + at.offset;
    const std::u32string &text = tree_.nodes[change.node].wide;
    if (writer.isBigEndian) turnUnits(to, unitsIn(text));
    for (const char16_t unit : nativeText(text)) {
      std::memcpy(to, &unit, sizeof unit);
      to += sizeof unit;
    }
  }

  // What a narrower text leaves of a wider one stays after it, in the order of this machine.
  void turnUnits(std::uint8_t *text, std::size_t count) const {
    for (std::size_t i = 0; i < count; ++i) {
      std::reverse(text + i * writer.wideSize, text + (i + 1) * writer.wideSize);
    }
  }
  std::size_t unitsIn(const std::u32string &text) const {
    return writer.wideSize == 2 ? nativeText(text).size() : text.size() + 1;
  }

  std::size_t behindControlBlock() const {
    const Place start = chain_.places[0];
    return start.block == 0 ? start.offset : chain_.blocks[0].size();
  }

  static std::u16string nativeText(const std::u32string &text) {
    std::u16string units;
    for (const char32_t c : text) {
      if (c < 0x10000) {
        units += static_cast<char16_t>(c);
        continue;
      }
      units += static_cast<char16_t>(0xD7C0 + (c >> 10));
      units += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    }
    return units + u'\0';
  }

  // Unpacks `chain`; its first `done` changes, and no others, must have been made.
  void expectDone(const Chain &chain, std::size_t done, std::int16_t result) {
    BackwardBlocks actual(chain);
    BackwardBlocks expected(chain);
    MemPackBlock *block = actual.first();
    void *structure = nullptr;
    const Bytes callers = readersControlBlock(tree_);
    EXPECT_EQ(mem.MEM_Unpack(&block, &structure, asControlBlock(callers)), result) << nameText();
    for (std::size_t i = 0; i < done; ++i) apply(changes_[i], expected, actual);
    for (std::size_t i = 0; i < chain.blocks.size(); ++i) {
      const std::size_t length = chain.blocks[i].size();
      const std::size_t begin = i == 0 ? behindControlBlock() : 2;
      if (length <= begin) continue;
      EXPECT_EQ(changedRanges(bytesOf(actual.content(i) + begin, length - begin),
                              bytesOf(expected.content(i) + begin, length - begin)),
                "")
          << "block " << i;
    }
  }

  // Every pointer in turn leads to a block that does not exist.
  void expectEveryFailure() {
    expectDone(chain_, changes_.size(), 0);
    for (std::size_t i = 0; i < changes_.size(); ++i) {
      if (changes_[i].part == kNone) continue;
      SCOPED_TRACE("change " + std::to_string(i));
      Chain broken = chain_;
      broken.setPointer(field(changes_[i]), {9999, 2});
      const std::size_t done = changesBefore(changes_[i].node);
      expectDone(broken, done, MEMERR_PACKRBLK);
      // The bytes after block and offset mean nothing, but stay in fields that are not reached.
      for (std::size_t j = i == 0 ? 0 : i - 1; j <= i + 1 && j < changes_.size(); ++j) {
        if (changes_[j].part == kNone) continue;
        Chain odd = broken;
        const Place at = field(changes_[j]);
        std::fill_n(odd.blocks[at.block].begin() + static_cast<std::ptrdiff_t>(at.offset) + 4, 4,
                    std::uint8_t{0xA5});
        expectDone(odd, done, MEMERR_PACKRBLK);
      }
      if (HasFailure()) return;
    }
  }

  // Two pointers in turn lead nowhere: one to a block, one to an offset that does not exist.
  void expectTheFirstOfTwoFailures() {
    const Place noBlock{9999, 2};
    const Place noOffset{0, chain_.blocks[0].size()};
    for (std::size_t i = 0; i < checks_.size(); ++i) {
      for (std::size_t j = i + 1; j < checks_.size(); ++j) {
        SCOPED_TRACE("checks " + std::to_string(i) + " and " + std::to_string(j));
        const std::size_t done = changesBefore(checks_[i].node);
        Chain broken = chain_;
        broken.setPointer(field(checks_[i]), noBlock);
        broken.setPointer(field(checks_[j]), noOffset);
        expectDone(broken, done, MEMERR_PACKRBLK);
        broken.setPointer(field(checks_[i]), noOffset);
        broken.setPointer(field(checks_[j]), noBlock);
        expectDone(broken, done, MEMERR_PACKROFF);
        if (HasFailure()) return;
      }
    }
  }

  Writer writer = writerOf(GetParam());

 private:
  // The changes that are made before the walk reaches a node with pointers.
  std::size_t changesBefore(std::size_t node) const {
    const auto found = std::find_if(changes_.begin(), changes_.end(), [node](const Change &change) {
      return change.node == node && change.part != kNone;
    });
    return static_cast<std::size_t>(found - changes_.begin());
  }

  Tree tree_;
  Chain chain_{writerOf("0220")};
  std::vector<Change> changes_;
  std::vector<Change> checks_;
};

TEST_P(UnpackHalfwayTest, WhatLiesInOrder) {
  Tree tree = chainwriter::sampleTree();
  // No text is shared.
  tree.nodes[3].targets[0] = kNone;
  tree.nodes[6].targets[1] = kNone;
  tree.nodes[10].targets[1] = kNone;
  tree.nodes[14].targets[1] = kNone;
  for (const std::size_t room : {std::size_t{0}, std::size_t{40}, std::size_t{4000}}) {
    use(tree, chainwriter::smallestBlockLen(tree, writer) + room);
    expectEveryFailure();
  }
}

TEST_P(UnpackHalfwayTest, SharedText) {
  const Tree tree = chainwriter::sampleTree();
  use(tree, chainwriter::smallestBlockLen(tree, writer) + 40);
  expectEveryFailure();
}

TEST_P(UnpackHalfwayTest, OfTwoFailuresTheFirst) {
  const Tree tree = chainwriter::sampleTree();
  for (const std::size_t room : {std::size_t{0}, std::size_t{4000}}) {
    use(tree, chainwriter::smallestBlockLen(tree, writer) + room);
    expectTheFirstOfTwoFailures();
  }
}

TEST_P(UnpackHalfwayTest, RandomTrees) {
  for (std::uint64_t seed = 1; seed <= 25; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const Tree tree = chainwriter::randomTree(seed);
    use(tree, chainwriter::smallestBlockLen(tree, writer) + 130 + seed * 20);
    expectEveryFailure();
    if (seed <= 5) expectTheFirstOfTwoFailures();
    if (HasFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Writers, UnpackHalfwayTest,
                         ::testing::Values("0100", "0101", "0220", "0221", "0240", "0241"),
                         [](const ::testing::TestParamInfo<const char *> &row) {
                           return std::string(row.param);
                         });

}  // namespace
}  // namespace memtest
