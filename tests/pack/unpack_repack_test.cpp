// MEM_Unpack of chains from writers with another layout: the rules by which segments move into a
// new chain.

#include <algorithm>

#include "unpacktest.hpp"

namespace memtest {
namespace {

using chainwriter::Became;
using chainwriter::Chain;
using chainwriter::child;
using chainwriter::data;
using chainwriter::Form;
using chainwriter::kNone;
using chainwriter::readersControlBlock;
using chainwriter::reference;
using chainwriter::sibling;
using chainwriter::Tree;
using chainwriter::Writer;
using chainwriter::writerOf;

constexpr std::size_t kRoomy = 4000;
constexpr char kRecursive[] = "RecursiveStructure";
constexpr std::size_t kRootLen32 = 2 + 4 + 3 + 4 + 1 + 4 + 4 + 2;
constexpr std::size_t kFirstItem = 10 + 4 + 978;  // block offset after version and control block

enum : std::size_t { kRoot, kChild, kName, kTitle };

// Root: data 2, sibling, data 3, child, data 1, narrow, reference, data 2.
Tree smallTree() {
  return {.kinds = {{Form::Fixed,
                     {data(2), sibling(), data(3), child(kChild), data(1), child(kName),
                      reference(), data(2)}},
                    {Form::Fixed, {data(5)}},
                    {Form::Narrow},
                    {Form::Wide}},
          .nodes = {{kRoot, {1, 2, 3, 4, 5, 6, 7, 8}, {kNone, 1, 2, 1}},
                    {kChild, {21, 22, 23, 24, 25}},
                    {kName, {}, {}, "narrow"}}};
}

class UnpackRepackTest : public UnpackTest {
 protected:
  Tree tree = smallTree();
  Writer writer = writerOf("0221", 4);
  Bytes callers = readersControlBlock(tree);

  Chain written() const { return chainwriter::write(tree, writer, kRoomy); }
  MemPackDescriptor &callersKind(std::size_t kind) { return descriptorOf(callers, kind); }
  void expectNewChain() { expectUnpacked(unpack(callers), Became::NewChain); }
  void expectTreeInNewChain() {
    load(written());
    expectTree(tree, writer);
  }
  const std::uint8_t *rootBytes() const { return static_cast<const std::uint8_t *>(root); }

  // The refusal shows an address in the caller's control block.
  void expectBadKind(std::size_t kind) {
    load(written());
    expectRefused(unpack(callers), MEMERR_PACKCBID,
                  "MemPackCBstructIDInvalid=" + hex16(&callersKind(kind)));
  }
};

TEST_F(UnpackRepackTest, NewBlocksAreNativeAndKeepTheVersion) {
  for (const Writer &other : chainwriter::allWriters()) {
    if (other.pointerWidth == 8) continue;
    SCOPED_TRACE(other.name());
    writer = other;
    expectTreeInNewChain();
    EXPECT_EQ(first->pNext, nullptr);
    const std::size_t used = 984 + (kRootLen32 + 4 * 4) + 5 + 7;
    EXPECT_EQ(first->UsedLen, used);
    const auto *block = reinterpret_cast<const std::uint8_t *>(first);
    EXPECT_EQ(bytesOf(block + 10, 4), Bytes(other.version.begin(), other.version.end()));
    EXPECT_EQ(bytesOf(block + 14, 978), callers);
    EXPECT_EQ(root, block + kFirstItem);
    EXPECT_EQ(bytesOf(block + 8 + used, MEM_UNPACK_BLOCK_LEN - 8 - used),
              Bytes(MEM_UNPACK_BLOCK_LEN - 8 - used));
  }
}

TEST_F(UnpackRepackTest, OldChainIsOnlyRead) {
  for (const Writer &other : chainwriter::allWriters()) {
    if (other.pointerWidth == 8) continue;
    SCOPED_TRACE(other.name());
    writer = other;
    load(written());
    expectNewChain();
    EXPECT_EQ(
        changedRanges(bytesOf(blockBytes(0) + 8, written().blocks[0].size()), written().blocks[0]),
        "");
  }
}

TEST_F(UnpackRepackTest, ControlBlockOfAnyLengthIsCopied) {
  tree.kinds.resize(12, {Form::Fixed, {data(3)}});
  callers = readersControlBlock(tree);
  expectTreeInNewChain();
  EXPECT_EQ(bytesOf(reinterpret_cast<const std::uint8_t *>(first) + 14, callers.size()), callers);
}

// ---- Runs between pointer fields.

TEST_F(UnpackRepackTest, FixedLengthIsTheCallers) {
  const std::uint16_t length = callersKind(kRoot).FixedLen;
  callersKind(kRoot).FixedLen = static_cast<std::uint16_t>(length + 3);
  callersKind(kChild).FixedLen = 2;
  load(written());
  expectNewChain();
  EXPECT_EQ(bytesOf(rootBytes() + length - 2, 5), (Bytes{7, 8, 0, 0, 0}));
  const std::uint8_t *moved = nullptr;
  std::memcpy(&moved, rootBytes() + 13, sizeof moved);
  EXPECT_EQ(moved, rootBytes() + length + 3);
  EXPECT_EQ(bytesOf(moved, 2), (Bytes{21, 22}));
  EXPECT_STREQ(reinterpret_cast<const char *>(moved) + 2, "narrow");
}

TEST_F(UnpackRepackTest, RunsAreCutAndFilledWithZeros) {
  // Caller: data 4 (2), sibling, data 1 (3), child, narrow (1 missing), data 2, reference, data 1.
  MemPackDescriptor &kind = callersKind(kRoot);
  kind.SiblingOff = 4;
  kind.Children[0].Offset = 13;
  kind.Children[1].Offset = 21;
  kind.References[0] = 31;
  kind.FixedLen = 40;
  load(written());
  expectNewChain();
  Bytes expected(40);
  const std::pair<std::size_t, std::uint8_t> kept[] = {{0, 1}, {1, 2}, {12, 3}, {39, 7}};
  for (const auto &[at, value] : kept) expected[at] = value;
  Bytes actual = bytesOf(rootBytes(), 40);
  for (const std::ptrdiff_t field : {13, 21, 31}) {
    EXPECT_NE(Bytes(actual.begin() + field, actual.begin() + field + 8), Bytes(8));
    std::fill_n(actual.begin() + field, 8, std::uint8_t{0});
  }
  EXPECT_EQ(changedRanges(actual, expected), "");
}

// Runs follow each other by offset, pointers by their entries.
TEST_F(UnpackRepackTest, FieldsMayChangeTheirOrder) {
  MemPackDescriptor &kind = callersKind(kRoot);
  std::swap(kind.Children[0].Offset, kind.Children[1].Offset);
  std::swap(kind.SiblingOff, kind.References[0]);
  load(written());
  expectNewChain();
  const char *name = nullptr;
  const std::uint8_t *moved = nullptr;
  const std::uint8_t *named = nullptr;
  std::memcpy(&name, rootBytes() + 13, sizeof name);
  std::memcpy(&moved, rootBytes() + 22, sizeof moved);
  std::memcpy(&named, rootBytes() + 2, sizeof named);
  EXPECT_STREQ(name, "narrow");
  EXPECT_EQ(bytesOf(moved, 5), (Bytes{21, 22, 23, 24, 25}));
  EXPECT_EQ(named, moved);
  EXPECT_EQ(bytesOf(rootBytes(), 2), (Bytes{1, 2}));
  EXPECT_EQ(bytesOf(rootBytes() + 10, 3), (Bytes{3, 4, 5}));
  EXPECT_EQ(rootBytes()[21], 6);
  EXPECT_EQ(bytesOf(rootBytes() + 38, 2), (Bytes{7, 8}));
}

TEST_F(UnpackRepackTest, LengthWordsGrowByTheFields) {
  for (const Form form : {Form::Counted, Form::SelfDescribing}) {
    for (const char *version : {"0220", "0241"}) {
      writer = writerOf(version, 4);
      tree.kinds[kRoot].form = form;
      tree.nodes[0].data = {1, 2, 3, 4, 5, 6, 7, 8, 31, 32, 33};
      callers = readersControlBlock(tree);
      expectTreeInNewChain();
      std::uint16_t told;
      std::memcpy(&told, rootBytes(), sizeof told);
      EXPECT_EQ(told, kRootLen32 + 4 * 4 + 3 + (form == Form::Counted ? 0 : 2));
    }
  }
}

// A root that contains its length, with one child pointer and a tail after it.
Tree tailTree(Form form, std::size_t dataLen, std::size_t tailLen) {
  Tree tree{.kinds = {{form, {data(dataLen), child(kChild)}}, {Form::Fixed, {data(5)}}},
            .nodes = {{kRoot, Bytes(dataLen, 0x11), {1}}, {kChild, {21, 22, 23, 24, 25}}}};
  for (std::size_t i = 0; i < tailLen; ++i) {
    tree.nodes[0].data.push_back(static_cast<std::uint8_t>(100 + i % 100));
  }
  return tree;
}

class UnpackTailTest : public UnpackRepackTest {
 protected:
  // The caller has the child at another offset than the file with its pointers' width would.
  void use(const Tree &with, std::size_t childOff) {
    tree = with;
    callers = readersControlBlock(tree);
    callersKind(kRoot).Children[0].Offset = static_cast<std::int16_t>(childOff);
  }
  std::uint16_t toldLen() const {
    std::uint16_t told;
    std::memcpy(&told, rootBytes(), sizeof told);
    return told;
  }
  // `length` bytes in all, of which `tailLen` are after the child pointer.
  void expectTail(std::size_t length, std::size_t tailLen) {
    const bool isCounted = tree.kinds[kRoot].form == Form::Counted;
    EXPECT_EQ(toldLen(), isCounted ? length - 2 : length);
    const Bytes &all = tree.nodes[0].data;
    EXPECT_EQ(bytesOf(rootBytes() + length - tailLen, tailLen),
              Bytes(all.end() - static_cast<std::ptrdiff_t>(tailLen), all.end()));
    const std::uint8_t *moved = nullptr;
    std::memcpy(&moved, rootBytes() + length - tailLen - 8, sizeof moved);
    ASSERT_EQ(moved, rootBytes() + length);
    EXPECT_EQ(bytesOf(moved, 5), (Bytes{21, 22, 23, 24, 25}));
  }
};

// A 32-bit writer's {length, 2 bytes, pointer, tail} has four bytes of padding here.
TEST_F(UnpackTailTest, PaddingBeforeAPointerCostsNoTail) {
  for (const Form form : {Form::Counted, Form::SelfDescribing}) {
    for (const char *version : {"0220", "0221", "0100"}) {
      for (const std::size_t tailLen : {std::size_t{0}, std::size_t{3}, std::size_t{20}}) {
        SCOPED_TRACE(std::string(version) + " tail " + std::to_string(tailLen));
        writer = writerOf(version, 4);
        use(tailTree(form, 2, tailLen), 8);
        load(written());
        expectNewChain();
        if (HasFatalFailure()) return;
        EXPECT_EQ(bytesOf(rootBytes() + 2, 6), (Bytes{0x11, 0x11, 0, 0, 0, 0}));
        expectTail(16 + tailLen, tailLen);
      }
    }
  }
}

// The ends count, not the number of pointers: of several, those that end last.
TEST_F(UnpackTailTest, LastFieldsOfBothSidesCount) {
  tree = {.kinds = {{Form::Counted, {data(2), child(kChild), sibling(), reference()}},
                    {Form::Fixed, {data(5)}}},
          .nodes = {{kRoot, {1, 2, 3, 4, 5, 6, 7}, {1, kNone, 1}}, {kChild, {1, 2, 3, 4, 5}}}};
  callers = readersControlBlock(tree);
  // File: 4 + 3 * 4 = 16. Caller: reference at 8, sibling at 24, child last at 40.
  callersKind(kRoot).References[0] = 8;
  callersKind(kRoot).SiblingOff = 24;
  callersKind(kRoot).Children[0].Offset = 40;
  load(written());
  expectNewChain();
  EXPECT_EQ(toldLen(), 48 + 5 - 2);
  EXPECT_EQ(bytesOf(rootBytes() + 48, 5), (Bytes{3, 4, 5, 6, 7}));
}

TEST_F(UnpackTailTest, SegmentsShrinkWithTheirFields) {
  for (const Form form : {Form::Counted, Form::SelfDescribing}) {
    writer = writerOf("0221", 8);
    use(tailTree(form, 14, 5), 10);
    load(written());
    expectNewChain();
    expectTail(18 + 5, 5);
  }
}

TEST_F(UnpackTailTest, KindsWithoutPointersKeepTheirLength) {
  for (const Form form : {Form::Counted, Form::SelfDescribing}) {
    tree.kinds[kChild] = {form, {data(5)}};
    tree.nodes[1].data = {21, 22, 23, 24, 25, 26, 27};
    callers = readersControlBlock(tree);
    expectTreeInNewChain();
  }
}

TEST_F(UnpackTailTest, GrownLengthsAreChecked) {
  struct Row {
    Form form;
    std::size_t childOff;
    std::size_t tailLen;
    const char *refusal;
  };
  const Row rows[] = {
      {Form::Counted, 32000, 769 - 8, nullptr},  // the largest count
      {Form::Counted, 32000, 770 - 8, "SegmentLengthTooLargeinUnpack=-32766"},
      {Form::SelfDescribing, 32000, 1009 - 8, nullptr},  // the longest segment of a new block
      {Form::SelfDescribing, 32000, 1010 - 8, "SegmentLengthTooLargeinUnpack=-32526"},
      {Form::SelfDescribing, 32759, 60000, "SegmentLengthTooLargeinUnpack=27231"},  // 92767
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.tailLen);
    use(tailTree(row.form, 2, row.tailLen), row.childOff);
    load(chainwriter::write(tree, writer, 65000));
    const std::int16_t result = unpack(callers);
    if (row.refusal == nullptr) {
      expectUnpacked(result, Became::NewChain);
      if (HasFatalFailure()) return;
      EXPECT_EQ(toldLen(), row.childOff + 8 + row.tailLen - (row.form == Form::Counted ? 2 : 0));
    } else {
      expectRefused(result, MEMERR_PACKBMIN, row.refusal);
    }
  }
}

// Nothing grows when only the offsets differ.
TEST_F(UnpackRepackTest, WritersOfTheSameWidthAreMovedToo) {
  writer = writerOf("0221", 8);
  tree.kinds[kRoot].form = Form::SelfDescribing;
  tree.nodes[0].data = {1, 2, 3, 4, 5, 6, 7, 8};
  callers = readersControlBlock(tree);
  MemPackDescriptor &kind = callersKind(kRoot);
  kind.Children[0].Offset = static_cast<std::int16_t>(kind.Children[0].Offset - 1);
  load(written());
  expectNewChain();
  std::uint16_t told;
  std::memcpy(&told, rootBytes(), sizeof told);
  EXPECT_EQ(told, 2 + kRootLen32 + 4 * 4);
  EXPECT_EQ(bytesOf(rootBytes() + 2, 2), (Bytes{1, 2}));
  EXPECT_EQ(bytesOf(rootBytes() + 12, 2), (Bytes{3, 4}));
  EXPECT_EQ(bytesOf(rootBytes() + 22, 2), (Bytes{6, 0}));
}

// ---- Pointers.

TEST_F(UnpackRepackTest, ReferencesLeadToTheCopies) {
  tree.kinds[kRoot].parts[2] = reference();
  tree.nodes[0].data = {1, 2, 6, 7, 8};
  tree.nodes[0].targets = {kNone, 0, 1, 2, 1};
  tree.nodes[0].targets[0] = 3;
  tree.nodes.push_back({kRoot, {1, 2, 6, 7, 8}, {kNone, 0, kNone, 2, 3}});
  callers = readersControlBlock(tree);
  expectTreeInNewChain();
}

TEST_F(UnpackRepackTest, ReferenceToNothingIsRefused) {
  const Chain chain = written();
  for (const std::size_t offset : {std::size_t{6}, chain.places[1].offset + 1}) {
    Chain changed = chain;
    changed.setPointer(chain.partPlace(tree, 0, 6), {0, offset});
    load(changed);
    expectRefused(unpack(callers), MEMERR_PACKROFF, "RepackNewBlockTblOffsetErr");
  }
}

// Bytes of a further block, to which only the reference leads.
TEST_F(UnpackRepackTest, ReferenceToABlockWithoutItemsIsRefused) {
  Chain chain = written();
  ASSERT_EQ(chain.blocks.size(), 1U);
  chain.blocks.emplace_back(60, std::uint8_t{0});
  chain.setUsedLen(1, 60);
  for (const std::size_t offset : {std::size_t{0}, std::size_t{2}, std::size_t{59}}) {
    chain.setPointer(chain.partPlace(tree, 0, 6), {1, offset});
    load(chain);
    expectRefused(unpack(callers), MEMERR_PACKRBLK, "RepackNewBlockTblBlkErr");
  }
  // The name is there now: other places of the block are wrong offsets.
  chain.setPointer(chain.partPlace(tree, 0, 5), {1, 50});
  chain.setPointer(chain.partPlace(tree, 0, 6), {1, 49});
  load(chain);
  expectRefused(unpack(callers), MEMERR_PACKROFF, "RepackNewBlockTblOffsetErr");
}

TEST_F(UnpackRepackTest, SharedNarrowTextIsCopiedOnce) {
  for (int i = 0; i < 50; ++i) {
    const std::size_t last = i == 0 ? 0 : tree.nodes.size() - 1;
    tree.nodes[last].targets[0] = tree.nodes.size();
    tree.nodes.push_back({kRoot, {1, 2, 3, 4, 5, 6, 7, 8}, {kNone, kNone, 2, kNone}});
  }
  expectTreeInNewChain();
  EXPECT_EQ(first->UsedLen, 984 + 51 * (kRootLen32 + 4 * 4) + 5 + 7);
}

TEST_F(UnpackRepackTest, WideTextIsAlignedAndKeepsItsRoom) {
  tree.kinds[kRoot].parts[5] = child(kTitle);
  tree.nodes[2] = {kTitle, {}, {}, {}, U"wide\U0001F600"};
  callers = readersControlBlock(tree);
  for (const char *version : {"0100", "0221", "0240", "0241"}) {
    writer = writerOf(version, 4);
    expectTreeInNewChain();
    // After the child's 5 bytes, moved up by 3.
    const std::size_t units = writer.wideSize == 2 ? 7 : 6;
    EXPECT_EQ(first->UsedLen, 984 + (kRootLen32 + 4 * 4) + 5 + 3 + 4 * units);
  }
}

TEST_F(UnpackRepackTest, TextIsNoSegment) {
  Chain chain = written();
  chain.setPointer(chain.partPlace(tree, 0, 5), chain.places[0]);
  expectRefusal(tree, chain, MEMERR_PACKCYCL, kRecursive);
  chain.setPointer(chain.partPlace(tree, 0, 5), chain.places[1]);
  expectRefusal(tree, chain, MEMERR_PACKCYCL, kRecursive);
}

TEST_F(UnpackRepackTest, NarrowAndWideTextAreNotShared) {
  tree.kinds[kRoot].parts[3] = child(kTitle);
  tree.nodes[1] = {kTitle, {}, {}, {}, U"wide"};
  tree.nodes[0].targets[3] = kNone;
  callers = readersControlBlock(tree);
  Chain chain = written();
  chain.setPointer(chain.partPlace(tree, 0, 5), chain.places[1]);
  expectRefusal(tree, chain, MEMERR_PACKCYCL, kRecursive);
  tree.kinds[kRoot].hasEntriesBackwards = true;  // now the narrow text comes first
  chain = written();
  chain.setPointer(chain.partPlace(tree, 0, 5), chain.places[1]);
  expectRefusal(tree, chain, MEMERR_PACKCYCL, kRecursive);
}

TEST_F(UnpackRepackTest, ItemsMayNotOverlap) {
  tree.kinds[kRoot].parts[6] = child(kChild);
  tree.nodes[0].targets[3] = kNone;
  callers = readersControlBlock(tree);
  Chain chain = written();
  chain.blocks[0].resize(chain.blocks[0].size() + 8);
  chain.setUsedLen(0, static_cast<std::uint16_t>(chain.blocks[0].size()));
  for (const int by : {-4, -1, 1, 4}) {
    Chain changed = chain;
    chainwriter::Place near = chain.places[1];
    near.offset = static_cast<std::size_t>(static_cast<int>(near.offset) + by);
    changed.setPointer(chain.partPlace(tree, 0, 6), near);
    expectRefusal(tree, changed, MEMERR_PACKCYCL, kRecursive);
  }
}

// ---- Control blocks that do not go together.

TEST_F(UnpackRepackTest, KindsMustMeanTheSame) {
  callersKind(kRoot).Type = MEM_PACK_COUNTED;
  expectBadKind(kRoot);
  callers = readersControlBlock(tree);
  callersKind(kChild).Type = 'D';
  expectBadKind(kChild);
  callers = readersControlBlock(tree);
  callersKind(kName).Type = MEM_PACK_WIDE_STRING;
  expectBadKind(kName);
  callers = readersControlBlock(tree);
  callersKind(kRoot).SiblingOff = MEM_PACK_NO_SIBLING;
  expectBadKind(kRoot);
  callers = readersControlBlock(tree);
  callersKind(kRoot).ReferenceCount = 0;
  expectBadKind(kRoot);
  callers = readersControlBlock(tree);
  callersKind(kRoot).ChildCount = 1;
  expectBadKind(kRoot);
  callers = readersControlBlock(tree);
  callersKind(kRoot).Children[1].Descriptor = kChild;
  expectBadKind(kRoot);
}

TEST_F(UnpackRepackTest, CallersCountsAreChecked) {
  callersKind(kTitle).Type = MEM_PACK_FIXED;  // counts of 0xEEEE
  expectBadKind(kTitle);
}

TEST_F(UnpackRepackTest, CallersFieldsMustHaveRoom) {
  const auto expectBadRoot = [this](std::int16_t siblingOff) {
    callersKind(kRoot).SiblingOff = siblingOff;
    expectBadKind(kRoot);
  };
  const auto length = static_cast<std::int16_t>(callersKind(kRoot).FixedLen);
  expectBadRoot(static_cast<std::int16_t>(length - 7));
  expectBadRoot(-2);
  expectBadRoot(6);  // over the child
  expectBadRoot(callersKind(kRoot).References[0]);
  tree.kinds[kRoot].form = Form::SelfDescribing;
  callers = readersControlBlock(tree);
  expectBadRoot(1);  // over the length word
  callersKind(kRoot).SiblingOff = 2;
  load(written());
  expectNewChain();
}

TEST_F(UnpackRepackTest, FilesFieldsMustLieInTheirSegment) {
  const Chain chain = written();
  for (const std::size_t offset : {kRootLen32 - 3, std::size_t{0xFFFE}}) {
    Chain changed = chain;
    changed.setNumber({0, chain.descriptorPlace(kRoot).offset + 4},
                      static_cast<std::uint16_t>(offset));
    expectRefusal(tree, changed, MEMERR_PACKROFF, "Invalid Relative Offset=984");
  }
}

TEST_F(UnpackRepackTest, CallerMustKnowTheKind) {
  tree.kinds.resize(10, {Form::Fixed, {data(5)}});
  tree.kinds[kRoot].parts[3] = child(9);
  tree.nodes[1].kind = 9;
  callers = readersControlBlock(tree);
  const std::int16_t nine = 9;
  std::memcpy(callers.data(), &nine, sizeof nine);
  load(written());
  expectRefused(unpack(callers), MEMERR_PACKCBID,
                "MemPackCBstructIDInvalid=" + hex16(&callersKind(kRoot)));
}

TEST_F(UnpackRepackTest, EbcdicLettersOfSelfDescribingKindsMayDiffer) {
  tree.kinds[kChild].form = Form::SelfDescribing;
  callers = readersControlBlock(tree);
  writer = chainwriter::ebcdicWriterOf("0200", 4);
  for (const std::uint16_t letter : {std::uint16_t{0xC4}, std::uint16_t{0xE5}}) {
    Chain chain = written();
    chain.setNumber(chain.descriptorPlace(kChild), letter);
    load(chain);
    expectTree(tree, writer);
  }
}

// ---- Lengths.

TEST_F(UnpackRepackTest, SegmentMustFitANewBlock) {
  callersKind(kChild).FixedLen = 33009;
  load(written());
  expectNewChain();
  EXPECT_NE(first->pNext, nullptr);
  callersKind(kChild).FixedLen = 33010;
  load(written());
  expectRefused(unpack(callers), MEMERR_PACKBMIN, "SegmentLengthTooLargeinUnpack=-32526");
}

TEST_F(UnpackRepackTest, GrownSegmentMustFitANewBlock) {
  tree.kinds[kRoot].form = Form::SelfDescribing;
  callers = readersControlBlock(tree);
  const std::size_t longest = 33009 - 4 * 8 - 2;
  for (const std::size_t length : {longest, longest + 1}) {
    tree.nodes[0].data.resize(length);
    load(chainwriter::write(tree, writer, 60000));
    if (length == longest) {
      expectTree(tree, writer);
    } else {
      expectRefused(unpack(callers), MEMERR_PACKBMIN, "SegmentLengthTooLargeinUnpack=-32526");
    }
  }
}

TEST_F(UnpackRepackTest, TextMustFitANewBlock) {
  tree.nodes[2].narrow.assign(33008, 'n');
  load(chainwriter::write(tree, writer, 60000));
  expectTree(tree, writer);
  tree.nodes[2].narrow += 'n';
  load(chainwriter::write(tree, writer, 60000));
  expectRefused(unpack(callers), MEMERR_PACKBMIN, "StrBufLengthTooLargeinUnpack=-32526");

  // Two-byte characters take double room.
  tree.kinds[kRoot].parts[5] = child(kTitle);
  callers = readersControlBlock(tree);
  tree.nodes[2] = {kTitle, {}, {}, {}, std::u32string(8251, U'w')};
  load(chainwriter::write(tree, writer, 60000));
  expectTree(tree, writer);
  tree.nodes[2].wide += U'w';
  load(chainwriter::write(tree, writer, 60000));
  expectRefused(unpack(callers), MEMERR_PACKBMIN, "StrBufLengthTooLargeinRepack=16506");

  // Beyond this the text itself is too long, as text with 4-byte characters is from the start.
  // These texts have no room for widening, which no reader looks for.
  tree.nodes[2].wide.assign(1, U'w');
  for (const std::size_t units : {std::size_t{16504}, std::size_t{16505}}) {
    Chain chain = written();
    chain.setPointer(chain.partPlace(tree, 0, 3), {0, 0});
    chain.setPointer(chain.partPlace(tree, 0, 6), {0, 0});
    Bytes &block = chain.blocks[0];
    block.resize(chain.places[2].offset);
    for (std::size_t i = 1; i < units; ++i) block.insert(block.end(), {'w', 'w'});
    block.resize(block.size() + 2);
    chain.setUsedLen(0, static_cast<std::uint16_t>(block.size()));
    load(chain);
    expectRefused(unpack(callers), MEMERR_PACKBMIN,
                  units == 16504 ? "StrBufLengthTooLargeinRepack=-32528"
                                 : "StrBufLengthTooLargeinUnpack=-32526");
  }
  writer = writerOf("0240", 4);
  tree.nodes[2].wide.assign(8252, U'w');
  load(chainwriter::write(tree, writer, 60000));
  expectRefused(unpack(callers), MEMERR_PACKBMIN, "StrBufLengthTooLargeinUnpack=-32524");
}

TEST_F(UnpackRepackTest, ControlBlockMustFitTheNewBlock) {
  const auto callersWith = [this](std::int16_t count) {
    Bytes bytes(static_cast<std::size_t>(MEM_PACK_CB_LEN(count)), 0);
    std::copy(callers.begin(), callers.end(), bytes.begin());
    std::memcpy(bytes.data(), &count, sizeof count);
    for (std::size_t i = 4; i < static_cast<std::size_t>(count); ++i) {
      std::memset(&descriptorOf(bytes, i), 0, sizeof(MemPackDescriptor));
    }
    return bytes;
  };
  load(written());
  expectUnpacked(unpack(callersWith(270)), Became::NewChain);
  EXPECT_EQ(chainwriter::difference(tree, writer, Became::NewChain, root), "");
  load(written());
  expectRefused(unpack(callersWith(271)), MEMERR_PACKBMIN,
                "BlockTooSmallforMemPackCBinUnpack=33024");
}

TEST_F(UnpackRepackTest, LongChainsGetAsManyBlocksAsTheyNeed) {
  for (std::size_t i = 0; i < 3000; ++i) {
    const std::size_t last = i == 0 ? 0 : tree.nodes.size() - 2;
    tree.nodes[last].targets[0] = tree.nodes.size();
    tree.nodes.push_back({kRoot,
                          {1, 2, 3, 4, 5, 6, 7, 8},
                          {kNone, kNone, tree.nodes.size() + 1, tree.nodes.size() - 1}});
    tree.nodes.push_back({kName, {}, {}, std::string(i % 50, 'n')});
    if (i == 0) tree.nodes[tree.nodes.size() - 2].targets[3] = 0;
  }
  for (std::size_t i = 5; i < tree.nodes.size(); i += 2) tree.nodes[i].targets[3] = i - 2;
  expectTreeInNewChain();
  std::size_t blocks = 0;
  for (const MemPackBlock *block = first; block != nullptr; block = block->pNext) {
    EXPECT_LE(block->UsedLen, MEM_UNPACK_BLOCK_LEN - 8);
    ++blocks;
  }
  EXPECT_GT(blocks, 5U);
}

TEST_F(UnpackRepackTest, RootMayNotBeWideText) {
  Chain chain = written();
  chain.setNumber(chain.descriptorPlace(kRoot), MEM_PACK_WIDE_STRING);
  load(chain);
  expectRefused(unpack(callers), MEMERR_PACKCBID,
                "MemPackCBstructIDInvalid=" + hex16(&callersKind(kRoot)));
  callersKind(kRoot).Type = MEM_PACK_WIDE_STRING;
  load(chain);
  expectRefused(unpack(callers), MEMERR_PACKCBID,
                "MemPackCBstructIDInvalid=" + hex16(blockBytes(0) + 8 + 8));
}

}  // namespace
}  // namespace memtest
