// MEM_Pack: what a chain looks like, from the first block's head to the last pointer.

#include <ostream>

#include "packtest.hpp"

namespace memtest {
namespace {

// The first block's head.

struct HeadCase {
  std::int16_t count;
  std::size_t length;     // of the control block in the chain
  std::size_t oldLength;  // the same in the old layout
};

void PrintTo(const HeadCase &row, std::ostream *out) {
  *out << row.count << " descriptors";
}

constexpr HeadCase kHeadCases[] = {{1, 978, 466},    {2, 978, 466},     {7, 978, 466},
                                   {8, 978, 466},    {9, 1100, 524},    {10, 1222, 582},
                                   {24, 2930, 1394}, {100, 12202, 5802}};

std::string headCaseName(const ::testing::TestParamInfo<HeadCase> &info) {
  return "Descriptors" + std::to_string(info.param.count);
}

class PackHeadTest : public PackTest, public ::testing::WithParamInterface<HeadCase> {
 protected:
  static constexpr std::int32_t kBlockLen = 20000;

  PackHeadTest() : controlBlock(GetParam().count) {
    for (std::int16_t i = 0; i < GetParam().count; ++i) {
      controlBlock.set(static_cast<std::size_t>(i), kindOf(i));
    }
    root = items.make(400, 0);
  }

  // Kinds that differ in every field.
  static Kind kindOf(std::int16_t i) {
    Kind kind{.fixedLen = 400, .siblingOff = static_cast<std::int16_t>(8 * i % 392)};
    for (std::int16_t c = 0; c < i % 9; ++c) {
      kind.children.push_back({static_cast<std::uint16_t>((i + c) % GetParam().count),
                               static_cast<std::int16_t>(16 * c + i % 8)});
    }
    for (std::int16_t r = 0; r < (i + 3) % 9; ++r) {
      kind.references.push_back(static_cast<std::int16_t>(200 + 8 * r + i % 8));
    }
    return kind;
  }

  ControlBlock controlBlock;
  const std::uint8_t *root;
};

INSTANTIATE_TEST_SUITE_P(Counts, PackHeadTest, ::testing::ValuesIn(kHeadCases), headCaseName);

TEST_P(PackHeadTest, ControlBlockIsCopiedByteForByte) {
  const Blocks made = packed(controlBlock, root, kBlockLen);
  ASSERT_EQ(made.size(), 1U);
  EXPECT_EQ(versionOf(made), "0220");
  EXPECT_EQ(changedRanges(cut(made[0], 6, GetParam().length), controlBlock.bytes()), "");
  EXPECT_EQ(usedLen(made[0]), 6 + GetParam().length + 400);
}

TEST_P(PackHeadTest, OldLayoutIsConvertedFieldByField) {
  setOldControlBlock(mem, true);
  Bytes expected(GetParam().oldLength);
  putNumber(expected.data(), GetParam().count);
  for (std::size_t i = 0; i < static_cast<std::size_t>(GetParam().count); ++i) {
    const MemPackDescriptor &from = controlBlock[i];
    std::uint8_t *const to = expected.data() + 2 + 58 * i;
    putNumber(to, from.Type);
    putNumber(to + 2, from.FixedLen);
    putNumber(to + 4, from.SiblingOff);
    putNumber(to + 6, from.ChildCount);
    putNumber(to + 8, from.ReferenceCount);
    for (std::size_t c = 0; c < i % 9; ++c) {
      putNumber(to + 10 + 4 * c, from.Children[c].Descriptor);
      putNumber(to + 12 + 4 * c, from.Children[c].Offset);
    }
    for (std::size_t r = 0; r < (i + 3) % 9; ++r) putNumber(to + 42 + 2 * r, from.References[r]);
  }
  const Blocks made = packed(controlBlock, root, kBlockLen);
  ASSERT_EQ(made.size(), 1U);
  EXPECT_EQ(versionOf(made), "0100");
  EXPECT_EQ(changedRanges(cut(made[0], 6, GetParam().oldLength), expected), "");
  EXPECT_EQ(usedLen(made[0]), 6 + GetParam().oldLength + 400);
}

TEST_P(PackHeadTest, BlockMustTakeTheCurrentLayoutEvenForTheOldOne) {
  const auto smallest = static_cast<std::int32_t>(GetParam().length) + 19;
  for (const bool old : {false, true}) {
    setOldControlBlock(mem, old);
    controlBlock[0].FixedLen = static_cast<std::uint16_t>(400);
    packed(controlBlock, root, smallest);
    expectRefused(pack(controlBlock, root, smallest - 1), MEMERR_PACKBMIN,
                  "BlockTooSmallforMemPackCB=" + std::to_string(smallest - 1));
    EXPECT_EQ(blocks().size(), 1U);
  }
}

TEST_F(PackTest, OldLayoutOfADescriptorByHand) {
  ControlBlock controlBlock{
      {.fixedLen = 40, .siblingOff = 0, .children = {{0, 8}, {0x0001, 0x0010}}, .references = {24}},
      {.type = 'D', .siblingOff = 300}};
  setOldControlBlock(mem, true);
  const Blocks made = packed(controlBlock, items.make(40), 2000);
  ASSERT_EQ(made.size(), 1U);
  EXPECT_EQ(cut(made[0], 0, 20),
            (Bytes{0x00, 0x02, '0',  '1',  '0',  '0',  0x02, 0x00,              // count
                   0x46, 0x00, 0x28, 0x00, 0x00, 0x00, 0x02, 0x00, 0x01, 0x00,  // head
                   0x00, 0x00}));
  EXPECT_EQ(cut(made[0], 18, 8), (Bytes{0x00, 0x00, 0x08, 0x00, 0x01, 0x00, 0x10, 0x00}));
  EXPECT_EQ(cut(made[0], 26, 24), Bytes(24)) << "unused child entries";
  EXPECT_EQ(cut(made[0], 50, 16), (Bytes{0x18, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(cut(made[0], 66, 10),
            (Bytes{0x44, 0x00, 0x00, 0x00, 0x2C, 0x01, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_EQ(cut(made[0], 76, 396), Bytes(396)) << "descriptors beyond the count";
}

TEST_F(PackTest, OldLayoutTakesEightChildPointers) {
  Kind kind = fixedKind(80);
  for (std::int16_t i = 0; i < 8; ++i) {
    kind.children.push_back({0, static_cast<std::int16_t>(8 * i)});
  }
  ControlBlock controlBlock{kind};
  const std::uint8_t *root = items.make(80);
  setOldControlBlock(mem, true);
  packed(controlBlock, root, 2000);

  kind.children.push_back({0, 64});
  controlBlock.set(0, kind);
  EXPECT_EQ(pack(controlBlock, root, 2000), kFailed);
  expectRecorded(0, "");

  setOldControlBlock(mem, false);
  packed(controlBlock, root, 2000);
}

// Kinds beyond the count go along when a kind that goes along names them as a child.
TEST_F(PackTest, OldLayoutTakesNamedKindsBeyondTheCount) {
  Kind named{.fixedLen = 16, .children = {{6, 0}, {3, 8}}};
  Kind tooMany = fixedKind(80);
  for (std::int16_t i = 0; i < 9; ++i) tooMany.children.push_back({7, 0});
  ControlBlock controlBlock(1);
  controlBlock.set(0, {.fixedLen = 24, .children = {{3, 0}, {5, 8}}, .references = {16}});
  controlBlock.set(2, tooMany);  // nobody names it
  controlBlock.set(3, named);
  controlBlock.set(5, stringKind());
  controlBlock.set(6, wideKind());
  const std::uint8_t *root = items.make(24);
  setOldControlBlock(mem, true);
  const Blocks made = packed(controlBlock, root, 2000);
  ASSERT_EQ(made.size(), 1U);
  for (std::size_t i = 0; i < 8; ++i) {
    SCOPED_TRACE(i);
    Bytes expected(58);
    if (i == 0 || i == 3 || i == 5 || i == 6) {
      std::memcpy(expected.data(), &controlBlock[i], 10);
    }
    if (i == 0 || i == 3) std::memcpy(expected.data() + 10, controlBlock[i].Children, 8);
    if (i == 0) std::memcpy(expected.data() + 42, controlBlock[i].References, 2);
    EXPECT_EQ(changedRanges(cut(made[0], 8 + 58 * i, 58), expected), "");
  }

  controlBlock.set(3, tooMany);
  EXPECT_EQ(pack(controlBlock, root, 2000), kFailed);
  expectRecorded(0, "");
}

// They mean nothing, but the counts name them.
TEST_F(PackTest, OldLayoutTakesEntriesOfText) {
  struct Row {
    std::int16_t children;
    std::int16_t references;
    std::size_t childrenTaken;
    std::size_t referencesTaken;
  };
  const Row rows[] = {{2, 3, 2, 3}, {8, 8, 8, 8}, {-1, 1, 0, 1}, {25, 9, 0, 0}, {1, -1, 1, 0}};
  ControlBlock controlBlock{fixedKind(8), stringKind()};
  MemPackDescriptor &text = controlBlock[1];
  const std::uint8_t *root = items.make(8);
  setOldControlBlock(mem, true);
  for (const Row &row : rows) {
    SCOPED_TRACE(std::to_string(row.children) + " and " + std::to_string(row.references));
    text.ChildCount = row.children;
    text.ReferenceCount = row.references;
    const Blocks made = packed(controlBlock, root, 2000);
    ASSERT_EQ(made.size(), 1U);
    Bytes expected(58);
    std::memcpy(expected.data(), &text, 10);
    std::memcpy(expected.data() + 10, text.Children, 4 * row.childrenTaken);
    std::memcpy(expected.data() + 42, text.References, 2 * row.referencesTaken);
    EXPECT_EQ(changedRanges(cut(made[0], 8 + 58, 58), expected), "");
  }
  text.ChildCount = 9;
  EXPECT_EQ(pack(controlBlock, root, 2000), kFailed);
  expectRecorded(0, "");
}

TEST_F(PackTest, OldLayoutRefusesNineChildPointersInAKindThatIsNeverReached) {
  Kind kind = fixedKind(80);
  for (std::int16_t i = 0; i < 9; ++i) {
    kind.children.push_back({0, static_cast<std::int16_t>(8 * i)});
  }
  ControlBlock controlBlock{fixedKind(8), fixedKind(8), kind};
  setOldControlBlock(mem, true);
  EXPECT_EQ(pack(controlBlock, items.make(8), 2000), kFailed);
  expectRecorded(0, "");
}

TEST_F(PackTest, VersionTellsLayoutAndPlatformFlag) {
  const ControlBlock controlBlock{fixedKind(8)};
  const std::uint8_t *root = items.make(8, 0x11);
  struct Row {
    bool old;
    std::uint32_t flags;
    const char *version;
  };
  constexpr Row kRows[] = {
      {false, 0, "0220"},           {false, 1, "0221"}, {false, 0xFFFFFFFEU, "0220"},
      {false, 0xFFFFFFFFU, "0221"}, {true, 0, "0100"},  {true, 1, "0100"}};
  for (const Row &row : kRows) {
    SCOPED_TRACE(row.version);
    setOldControlBlock(mem, row.old);
    host.sysEnv().PlatformFlags = row.flags;
    EXPECT_EQ(versionOf(packed(controlBlock, root, 1000)), row.version);
  }
}

refhost::Options withoutSysEnv() {
  refhost::Options options = withDirtyStorage();
  options.nullSysEnv = true;
  return options;
}

class PackWithoutSysEnvTest : public PackTest {
 protected:
  PackWithoutSysEnvTest() : PackTest(withoutSysEnv()) {}
};

TEST_F(PackWithoutSysEnvTest, PlatformFlagIsClear) {
  EXPECT_EQ(versionOf(packed(ControlBlock{fixedKind(8)}, items.make(8), 1000)), "0220");
}

TEST_F(PackTest, NumbersInTheChainIgnoreThePlatformFlag) {
  const ControlBlock controlBlock{{.fixedLen = 8, .children = {{1, 0}}}, fixedKind(500)};
  std::uint8_t *const root = items.make(8);
  putPointer(root, 0, items.make(500, 0x11));
  const Blocks little = packed(controlBlock, root, 1200);
  host.sysEnv().PlatformFlags = MEM_PLATFORM_BIG_ENDIAN;
  Blocks big = packed(controlBlock, root, 1200);
  ASSERT_EQ(big.size(), 2U);
  EXPECT_EQ(cut(big[0], 984, 8), (Bytes{0x01, 0x00, 0x02, 0x00, 0, 0, 0, 0}));
  big[0][5] = '0';  // the one byte that differs
  EXPECT_EQ(blockDifference(big, little), "");
}

class PackBoundTest : public BoundTest {};

TEST_F(PackBoundTest, WithoutAProcessBlockTheLayoutIsTheCurrentOne) {
  const ControlBlock controlBlock{fixedKind(8)};
  const Bytes root(8, 0x11);
  MemPackBlock *first = nullptr;
  ASSERT_EQ(mem.MEM_Pack(controlBlock.get(), root.data(), 1000, &first), 0);
  EXPECT_EQ(versionOf(blocksOf(first, 1000)), "0220");
  returnChain(mem, first, 1000);
}

// Segments and pointers.

TEST_F(PackTest, ChainByHand) {
  const ControlBlock controlBlock{
      {.fixedLen = 40, .siblingOff = 0, .children = {{1, 8}, {2, 16}, {3, 24}}, .references = {32}},
      stringKind(),
      wideKind(),
      fixedKind(3)};
  std::uint8_t *const root = items.make(40);
  std::uint8_t *const sibling = items.make(40);
  const std::uint8_t *const child = items.make(3, 0x77);
  putPointer(root, 0, sibling);
  putPointer(root, 8, items.text("ab"));
  putPointer(root, 16, items.wide(u"xyz"));
  putPointer(root, 24, child);
  putPointer(root, 32, child);
  putPointer(sibling, 32, root);

  const Blocks made = packed(controlBlock, root, 1500);
  ASSERT_EQ(made.size(), 1U);
  EXPECT_EQ(first->pNext, nullptr);
  EXPECT_EQ(cut(made[0], 0, 6), (Bytes{0x3F, 0x04, '0', '2', '2', '0'}));
  const Bytes expected{0,    0,    0x17, 0x04, 0,   0, 0, 0,   // 984: root; sibling at 1047
                       0,    0,    0x00, 0x04, 0,   0, 0, 0,   // narrow text at 1024
                       0,    0,    0x04, 0x04, 0,   0, 0, 0,   // wide text at 1028
                       0,    0,    0x14, 0x04, 0,   0, 0, 0,   // child at 1044
                       0,    0,    0x14, 0x04, 0,   0, 0, 0,   // reference to the child
                       'a',  'b',  0,                          // 1024
                       0,                                      // to a multiple of 4
                       'x',  0,    'y',  0,    'z', 0, 0, 0,   // 1028
                       0,    0,    0,    0,    0,   0, 0, 0,   // room to widen the text
                       0x77, 0x77, 0x77,                       // 1044
                       0,    0,    0,    0,    0,   0, 0, 0,   // 1047: the sibling's null pointers
                       0,    0,    0,    0,    0,   0, 0, 0,   //
                       0,    0,    0,    0,    0,   0, 0, 0,   //
                       0,    0,    0,    0,    0,   0, 0, 0,   //
                       0,    0,    0xD8, 0x03, 0,   0, 0, 0};  // reference to the root
  EXPECT_EQ(changedRanges(cut(made[0], 984, expected.size()), expected), "");
  EXPECT_EQ(cut(made[0], 1087, 405), Bytes(405));
}

TEST_F(PackTest, SegmentsFollowDepthFirstChildrenBeforeSiblings) {
  // Each segment: a letter, then sibling, two children of the other kind.
  const Kind node{.fixedLen = 25, .siblingOff = 1, .children = {{1, 9}, {1, 17}}};
  const Kind other{.fixedLen = 25, .siblingOff = 1, .children = {{0, 9}, {0, 17}}};
  const ControlBlock controlBlock{node, other};
  std::map<char, std::uint8_t *> made;
  for (const char letter : std::string("abcdefghij")) {
    made[letter] = items.make(25);
    *made[letter] = static_cast<std::uint8_t>(letter);
  }
  const auto link = [&](char from, std::size_t offset, char to) {
    putPointer(made[from], offset, made[to]);
  };
  link('a', 9, 'b');   // first child
  link('a', 17, 'f');  // second child
  link('a', 1, 'h');   // sibling of the root
  link('b', 17, 'c');  // only the second child
  link('b', 1, 'e');
  link('c', 1, 'd');
  link('f', 9, 'g');
  link('h', 9, 'i');
  link('i', 1, 'j');
  const Blocks blocks = packed(controlBlock, made['a'], 1500);
  std::string order;
  for (std::size_t at = 984; at < usedLen(blocks[0]); at += 25) {
    order += static_cast<char>(blocks[0][at]);
  }
  EXPECT_EQ(order, "abcdefghij");
}

TEST_F(PackTest, EveryKindHasItsLength) {
  const ControlBlock controlBlock{{.fixedLen = 32, .children = {{1, 0}, {2, 8}, {3, 16}, {4, 24}}},
                                  fixedKind(5),
                                  {.type = MEM_PACK_COUNTED},
                                  {.type = kSelfDescribing},
                                  {.type = 0x4321}};
  std::uint8_t *const root = items.make(32);
  const Bytes counted{0x03, 0x00, 'c', 'c', 'c'};
  const Bytes selfDescribing{0x06, 0x00, 'd', 'd', 'd', 'd'};
  const Bytes unknownType{0x02, 0x00};
  putPointer(root, 0, items.make(5, 'f'));
  putPointer(root, 8, items.copy(counted.data(), counted.size(), 1));
  putPointer(root, 16, items.copy(selfDescribing.data(), selfDescribing.size(), 1));
  putPointer(root, 24, items.copy(unknownType.data(), unknownType.size(), 1));
  const Blocks made = packed(controlBlock, root, 1200);
  EXPECT_EQ(usedLen(made[0]), 984 + 32 + 5 + 5 + 6 + 2);
  EXPECT_EQ(cut(made[0], 1016, 18),
            (Bytes{'f', 'f', 'f', 'f', 'f', 3, 0, 'c', 'c', 'c', 6, 0, 'd', 'd', 'd', 'd', 2, 0}));
}

TEST_F(PackTest, SegmentsMayBeEmpty) {
  const ControlBlock controlBlock{
      {.fixedLen = 32, .children = {{1, 0}, {2, 8}, {3, 16}}, .references = {24}},
      fixedKind(0),
      {.type = MEM_PACK_COUNTED},
      {.type = kSelfDescribing}};
  std::uint8_t *const root = items.make(32);
  const std::uint8_t *const empty = items.make(0);
  putPointer(root, 0, empty);
  putPointer(root, 8, items.make(2));
  putPointer(root, 16, items.make(2));  // a length of 0, which does not even count itself
  putPointer(root, 24, empty);
  const Blocks made = packed(controlBlock, root, 1200);
  EXPECT_EQ(usedLen(made[0]), 984 + 32 + 2);
  EXPECT_EQ(cut(made[0], 984, 8), relBytes(0, 1016));
  EXPECT_EQ(cut(made[0], 992, 8), relBytes(0, 1016));
  EXPECT_EQ(cut(made[0], 1000, 8), relBytes(0, 1018));
  EXPECT_EQ(cut(made[0], 1008, 8), relBytes(0, 1016));
}

TEST_F(PackTest, NullPointersStayNull) {
  const ControlBlock controlBlock{
      {.fixedLen = 41, .siblingOff = 1, .children = {{0, 9}, {1, 17}, {2, 25}}, .references = {33}},
      stringKind(),
      wideKind()};
  std::uint8_t *const root = items.make(41);
  *root = 0x11;
  const Blocks made = packed(controlBlock, root, 1200);
  EXPECT_EQ(usedLen(made[0]), 984 + 41);
  EXPECT_EQ(cut(made[0], 985, 40), Bytes(40));
}

TEST_F(PackTest, PointerFieldsMayLieAtOddOffsets) {
  const ControlBlock controlBlock{{.type = MEM_PACK_COUNTED,
                                   .siblingOff = 3,
                                   .children = {{1, 11}, {0, 19}},
                                   .references = {35}},
                                  wideKind()};
  std::uint8_t *const root = items.make(43, 0, 1);
  std::uint8_t *const child = items.make(43, 0, 3);
  for (std::uint8_t *segment : {root, child}) putNumber<std::int16_t>(segment, 41);
  putPointer(root, 11, items.wide(u"odd", 1));
  putPointer(root, 19, child);
  putPointer(root, 35, child);
  putPointer(child, 35, child);
  const Blocks made = packed(controlBlock, root, 1200);
  EXPECT_EQ(cut(made[0], 984 + 11, 8), relBytes(0, 1028));
  EXPECT_EQ(cut(made[0], 984 + 19, 8), relBytes(0, 1044));
  EXPECT_EQ(cut(made[0], 984 + 35, 8), relBytes(0, 1044));
  EXPECT_EQ(cut(made[0], 1044 + 35, 8), relBytes(0, 1044)) << "a reference to itself";
}

TEST_F(PackTest, ReferencesReachEverySegmentAnyNumberOfTimes) {
  Kind kind{.fixedLen = 80, .siblingOff = 0, .children = {{0, 8}}};
  for (std::int16_t i = 0; i < 8; ++i) {
    kind.references.push_back(static_cast<std::int16_t>(16 + 8 * i));
  }
  const ControlBlock controlBlock{kind};
  std::uint8_t *const root = items.make(80);
  std::uint8_t *const child = items.make(80);
  std::uint8_t *const sibling = items.make(80);
  putPointer(root, 0, sibling);
  putPointer(root, 8, child);
  const std::uint8_t *const targets[] = {root, child, sibling, child, sibling, root, root, nullptr};
  for (std::uint8_t *segment : {root, child, sibling}) {
    for (std::size_t i = 0; i < 8; ++i) putPointer(segment, 16 + 8 * i, targets[i]);
  }
  const Blocks made = packed(controlBlock, root, 1500);
  for (const std::size_t segment : {984U, 1064U, 1144U}) {
    EXPECT_EQ(cut(made[0], segment + 16, 8), relBytes(0, 984));
    EXPECT_EQ(cut(made[0], segment + 24, 8), relBytes(0, 1064));
    EXPECT_EQ(cut(made[0], segment + 32, 8), relBytes(0, 1144));
    EXPECT_EQ(cut(made[0], segment + 72, 8), Bytes(8));
  }
}

TEST_F(PackTest, PointersLeadFromBlockToBlock) {
  const ControlBlock controlBlock{
      {.fixedLen = 900, .siblingOff = 0, .children = {{0, 8}}, .references = {16}}};
  std::vector<std::uint8_t *> chain;
  for (int i = 0; i < 4; ++i) chain.push_back(items.make(900));
  putPointer(chain[0], 8, chain[1]);
  putPointer(chain[0], 0, chain[2]);
  putPointer(chain[2], 8, chain[3]);
  putPointer(chain[3], 16, chain[0]);
  const Blocks made = packed(controlBlock, chain[0], 1000);
  ASSERT_EQ(made.size(), 5U);
  EXPECT_EQ(usedLen(made[0]), 984);
  for (std::size_t i = 1; i < 5; ++i) EXPECT_EQ(usedLen(made[i]), 902);
  EXPECT_EQ(cut(made[1], 2, 24),
            (Bytes{3, 0, 2, 0, 0, 0, 0, 0, 2, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(cut(made[3], 10, 8), relBytes(4, 2));
  EXPECT_EQ(cut(made[4], 18, 8), relBytes(1, 2));
}

TEST_F(PackTest, TextMayBeTheRootAndItsPointerFieldsMeanNothing) {
  ControlBlock controlBlock(1, 0x01);  // 257 children, 257 references, a sibling at offset 257
  controlBlock[0].Type = MEM_PACK_STRING;
  const Blocks made = packed(controlBlock, items.text("root"), 1000);
  EXPECT_EQ(cut(made[0], 984, 6), (Bytes{'r', 'o', 'o', 't', 0, 0}));
  EXPECT_EQ(usedLen(made[0]), 989);
}

// Strings.

TEST_F(PackTest, StringsFollowTheirSegmentInOrderOfTheChildEntries) {
  // Entries: text at 24, segment at 0, wide text at 8, text at 16.
  const ControlBlock controlBlock{{.fixedLen = 32, .children = {{1, 24}, {3, 0}, {2, 8}, {1, 16}}},
                                  stringKind(),
                                  wideKind(),
                                  {.fixedLen = 9, .children = {{1, 1}}}};
  std::uint8_t *const root = items.make(32);
  std::uint8_t *const child = items.make(9, 0x66);
  putPointer(root, 24, items.text("one"));
  putPointer(root, 0, child);
  putPointer(root, 8, items.wide(u"2"));
  putPointer(root, 16, items.text("three"));
  putPointer(child, 1, items.text("four"));
  const Blocks made = packed(controlBlock, root, 1200);
  EXPECT_EQ(cut(made[0], 1016, 33),
            (Bytes{'o',  'n', 'e', 0,    '2',  0, 0, 0, 0, 0,   0,   0,   't', 'h', 'r',
                   'e',  'e', 0,                                                           // 1016
                   0x66, 0,   0,   0x13, 0x04, 0, 0, 0, 0, 'f', 'o', 'u', 'r', 0,   0}));  // 1034
  EXPECT_EQ(cut(made[0], 984, 32),
            (Bytes{0, 0, 0x0A, 0x04, 0, 0, 0, 0, 0, 0, 0xFC, 0x03, 0, 0, 0, 0,
                   0, 0, 0x04, 0x04, 0, 0, 0, 0, 0, 0, 0xF8, 0x03, 0, 0, 0, 0}));
}

TEST_F(PackTest, EmptyStringsTakeTheirTerminators) {
  const ControlBlock controlBlock{
      {.fixedLen = 24, .children = {{1, 0}, {2, 8}, {1, 16}}}, stringKind(), wideKind()};
  std::uint8_t *const root = items.make(24);
  putPointer(root, 0, items.text(""));
  putPointer(root, 8, items.wide(u""));
  putPointer(root, 16, items.text("x"));
  const Blocks made = packed(controlBlock, root, 1200);
  EXPECT_EQ(cut(made[0], 984, 24),
            (Bytes{0, 0, 0xF0, 0x03, 0, 0, 0, 0, 0, 0, 0xF4, 0x03, 0, 0, 0, 0,  // 1008, 1012
                   0, 0, 0xF8, 0x03, 0, 0, 0, 0}));                             // 1016
  EXPECT_EQ(usedLen(made[0]), 1018);
}

TEST_F(PackTest, WideTextStartsAtAMultipleOfFourWithRoomToWiden) {
  for (std::uint16_t length = 8; length < 16; ++length) {
    SCOPED_TRACE(length);
    const ControlBlock controlBlock{{.fixedLen = length, .children = {{1, 0}}}, wideKind()};
    std::uint8_t *const root = items.make(length);
    putPointer(root, 0, items.wide(u"wide"));
    const Blocks made = packed(controlBlock, root, 1200);
    const std::uint16_t start = length <= 8 ? 992 : length <= 12 ? 996 : 1000;
    EXPECT_EQ(cut(made[0], 984, 8), relBytes(0, static_cast<std::int16_t>(start)));
    EXPECT_EQ(cut(made[0], start, 20),
              (Bytes{'w', 0, 'i', 0, 'd', 0, 'e', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(usedLen(made[0]), start + 20) << "4 bytes for each unit and the terminator";
  }
}

TEST_F(PackTest, WideTextIsAnyUnitsUpToTheZeroUnit) {
  const ControlBlock controlBlock{{.fixedLen = 8, .children = {{1, 0}}}, wideKind()};
  std::uint8_t *const root = items.make(8);
  const char16_t units[] = {0x0100, 0xFF00, 0xD800, 0x00FF, 0xDC00, 0xFFFF, 0};
  putPointer(root, 0, items.copy(units, sizeof units, 1));
  const Blocks made = packed(controlBlock, root, 1200);
  EXPECT_EQ(cut(made[0], 992, sizeof units), bytesOf(units, sizeof units));
  EXPECT_EQ(usedLen(made[0]), 992 + 28);
}

TEST_F(PackTest, TextThatTwoPointersShareIsCopiedForEach) {
  const ControlBlock controlBlock{{.fixedLen = 16, .children = {{1, 0}, {1, 8}}}, stringKind()};
  std::uint8_t *const root = items.make(16);
  const std::uint8_t *const text = items.text("shared");
  putPointer(root, 0, text);
  putPointer(root, 8, text);
  const Blocks made = packed(controlBlock, root, 1200);
  EXPECT_EQ(cut(made[0], 984, 16),
            (Bytes{0, 0, 0xE8, 0x03, 0, 0, 0, 0, 0, 0, 0xEF, 0x03, 0, 0, 0, 0}));
  EXPECT_EQ(usedLen(made[0]), 1014);
}

// The second entry must not take the first one's relative pointer for an address.
TEST_F(PackTest, OnePointerNamedByTwoTextEntriesIsCopiedForEach) {
  ControlBlock controlBlock{{.fixedLen = 8, .children = {{1, 0}, {1, 0}}}, stringKind()};
  std::uint8_t *const root = items.make(8);
  putPointer(root, 0, items.text("text"));
  const Blocks blocks = packed(controlBlock, root, 1200);
  EXPECT_EQ(usedLen(blocks[0]), kHeadEnd + 8 + 5 + 5);
  EXPECT_EQ(cut(blocks[0], kHeadEnd, 8), relBytes(0, kHeadEnd + 8 + 5));
}

TEST_F(PackTest, DescriptorsOfTextsMayHoldAnything) {
  constexpr std::uint8_t kFillers[] = {0xFF, 0x7F, 0x80, 0x00};
  for (const std::uint8_t filler : kFillers) {
    SCOPED_TRACE(static_cast<int>(filler));
    ControlBlock controlBlock(3, filler);
    controlBlock.set(0, {.fixedLen = 16, .children = {{1, 0}, {2, 8}}});
    controlBlock[1].Type = MEM_PACK_STRING;
    controlBlock[2].Type = MEM_PACK_WIDE_STRING;
    std::uint8_t *const root = items.make(16);
    putPointer(root, 0, items.text("narrow"));
    putPointer(root, 8, items.wide(u"wide"));
    packed(controlBlock, root, 1200);
  }
}

// Equal structures, the caller's own bytes, and repeated calls.

TEST_F(PackTest, EqualStructuresGiveEqualBytesWhereverTheyLie) {
  const ControlBlock controlBlock{
      {.fixedLen = 500, .siblingOff = 3, .children = {{1, 11}, {0, 19}}, .references = {27}},
      wideKind()};
  std::vector<Blocks> runs;
  for (std::size_t run = 0; run < 4; ++run) {
    host.setDirtyStorage(run % 2 == 0);
    std::vector<std::uint8_t *> segments;
    for (std::size_t i = 0; i < 3; ++i) segments.push_back(items.make(500, 0, (run + i) % 8));
    putPointer(segments[0], 3, segments[1]);
    putPointer(segments[0], 11, items.wide(u"equal", run));
    putPointer(segments[0], 19, segments[2]);
    putPointer(segments[2], 27, segments[1]);
    runs.push_back(packed(controlBlock, segments[0], 1100));
  }
  for (const Blocks &run : runs) EXPECT_EQ(blockDifference(run, runs[0]), "");
}

TEST_F(PackTest, TheCallersBytesStayAsTheyWere) {
  const ControlBlock controlBlock{
      {.fixedLen = 40, .siblingOff = 0, .children = {{1, 8}, {0, 16}, {2, 24}}, .references = {32}},
      stringKind(),
      wideKind()};
  std::uint8_t *const root = items.make(40);
  std::uint8_t *const child = items.make(40);
  putPointer(root, 8, items.text("text"));
  putPointer(root, 16, child);
  putPointer(root, 24, items.wide(u"wide"));
  putPointer(root, 32, child);
  const Bytes controlBefore = controlBlock.bytes();
  Bytes before = items.contents();
  packed(controlBlock, root, 1200);
  EXPECT_EQ(changedRanges(items.contents(), before), "");

  putPointer(child, 32, &before);  // fails in the second pass, with most pointers already replaced
  before = items.contents();
  EXPECT_EQ(pack(controlBlock, root, 1200), MEMERR_PACKSPTR);
  EXPECT_EQ(changedRanges(items.contents(), before), "");
  EXPECT_EQ(controlBlock.bytes(), controlBefore);
}

TEST_F(PackTest, EachBlockIsOneAreaOfSubPoolZero) {
  const ControlBlock controlBlock{{.fixedLen = 900, .siblingOff = 0}};
  std::uint8_t *const root = items.make(900);
  putPointer(root, 0, items.make(900));
  packed(controlBlock, root, 1000);
  const refhost::Account account = host.account(0);
  EXPECT_EQ(account.liveBytes, 3000U) << "only the chain is left";
  EXPECT_EQ(account.liveCount, 3U);
  EXPECT_EQ(host.account(0, 1).liveBytes, 3000U);
}

TEST_F(PackTest, CallsDoNotDependOnEachOther) {
  const ControlBlock controlBlock{{.fixedLen = 8, .children = {{0, 0}}}};
  std::uint8_t *const root = items.make(8);
  putPointer(root, 0, root);
  EXPECT_EQ(pack(controlBlock, root, 1000), MEMERR_PACKCYCL);
  putPointer(root, 0, nullptr);
  packed(controlBlock, root, 1000);
  packed(controlBlock, root, 1000);
}

// Trace records of the packer itself.

class PackTraceTest : public PackTest {
 protected:
  // "STDE text" of each record; the source is checked, the line numbers are the library's own.
  Lines traced(std::uint32_t flags, const ControlBlock &controlBlock, const void *structure,
               std::int32_t blockLen) {
    host.setTraceFlags(flags);
    host.keepRecords(true);
    pack(controlBlock, structure, blockLen);
    host.keepRecords(false);
    host.setTraceFlags(0);
    Lines lines;
    for (const refhost::TraceRecord &record : host.takeRecords()) {
      if (record.function != "MEM_Pack") continue;
      EXPECT_EQ(record.source, "..\\SrcRes\\MEMCPACK");
      EXPECT_GT(record.line, 0);
      lines.push_back(record.type + ' ' + record.text);
    }
    return lines;
  }

  static constexpr std::uint32_t kBoth = MEM_TRACE_ENTRY | MEM_TRACE_EXIT;
  const ControlBlock plain{fixedKind(8)};
  const std::uint8_t *root = items.make(8, 0x11);
};

TEST_F(PackTraceTest, EntryAndExitFollowTheirFlags) {
  EXPECT_EQ(traced(0, plain, root, 1000), Lines());
  EXPECT_EQ(traceCalls(host), 0U);
  EXPECT_EQ(traced(MEM_TRACE_ENTRY, plain, root, 1000), Lines{"STDE Parms: BlkLen=1000"});
  EXPECT_EQ(traced(MEM_TRACE_EXIT, plain, root, 1000), Lines{"STDX Return=SUCCESS"});
  EXPECT_EQ(traced(kBoth, plain, root, 70000),
            (Lines{"STDE Parms: BlkLen=70000", "STDX Return=SUCCESS"}));
  EXPECT_EQ(traced(~kBoth, plain, root, 1000), Lines());
}

TEST_F(PackTraceTest, BlockLengthIsShownWithItsSign) {
  EXPECT_EQ(traced(kBoth, plain, root, -1), Lines{"STDE Parms: BlkLen=-1"});
  EXPECT_EQ(traced(kBoth, plain, root, INT32_MIN), Lines{"STDE Parms: BlkLen=-2147483648"});
}

TEST_F(PackTraceTest, RecordedFailuresWriteNoExitRecord) {
  EXPECT_EQ(traced(kBoth, plain, root, 996), Lines{"STDE Parms: BlkLen=996"});
  EXPECT_EQ(traced(kBoth, plain, nullptr, 1000), Lines{"STDE Parms: BlkLen=1000"});
  EXPECT_EQ(traced(kBoth, ControlBlock{wideKind()}, items.wide(u"root"), 1000),
            Lines{"STDE Parms: BlkLen=1000"});
}

TEST_F(PackTraceTest, TooManyChildPointersForTheOldLayoutAreTracedAtTheExit) {
  Kind kind = fixedKind(80);
  for (std::int16_t i = 0; i < 9; ++i) {
    kind.children.push_back({0, static_cast<std::int16_t>(8 * i)});
  }
  const ControlBlock controlBlock{kind};
  setOldControlBlock(mem, true);
  const std::string exit = "STDX Too many Child Ptrs for Old MemPackCB, rc=FAILED";
  EXPECT_EQ(traced(MEM_TRACE_EXIT, controlBlock, items.make(80), 1000), Lines{exit});
  EXPECT_EQ(traced(MEM_TRACE_ENTRY, controlBlock, items.make(80), 1000),
            Lines{"STDE Parms: BlkLen=1000"});
}

TEST_F(PackTraceTest, EntryAndExitHaveLinesOfTheirOwn) {
  host.setTraceFlags(kBoth);
  host.keepRecords(true);
  pack(plain, root, 1000);
  std::vector<std::int32_t> lines;
  for (const refhost::TraceRecord &record : host.takeRecords()) {
    if (record.function == "MEM_Pack") lines.push_back(record.line);
  }
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_NE(lines[0], lines[1]);
}

TEST_F(PackTraceTest, MissingTraceBufferIsTolerated) {
  MEMTraceBuf *const buffer = env().pTraceBuf;
  env().pTraceBuf = nullptr;
  EXPECT_EQ(traced(kBoth, plain, root, 1000), Lines());
  EXPECT_NE(first, nullptr);
  env().pTraceBuf = buffer;
}

TEST_F(PackTest, MissingThreadEnvironmentIsTolerated) {
  const ControlBlock controlBlock{{.fixedLen = 8, .references = {0}}};
  std::uint8_t *const root = items.make(8);
  host.withoutThreadEnv(true);
  EXPECT_EQ(pack(controlBlock, root, 1000), 0);
  const Blocks made = blocks();
  EXPECT_EQ(pack(controlBlock, root, 500), MEMERR_PACKBMIN);
  putPointer(root, 0, &made);
  EXPECT_EQ(pack(controlBlock, root, 1000), MEMERR_PACKSPTR);
  EXPECT_EQ(pack(ControlBlock{wideKind()}, items.wide(u""), 1000), kFailed);
  host.withoutThreadEnv(false);
  EXPECT_EQ(made.size(), 1U);
  EXPECT_EQ(changedRanges(errorBytes(env()), Bytes(sizeof(MEMErrorArea), 0x5A)), "");
}

}  // namespace
}  // namespace memtest
