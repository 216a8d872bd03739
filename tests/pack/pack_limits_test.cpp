// MEM_Pack on both sides of every limit: block room, item lengths, 16-bit numbers, blocks, levels.

#include <ostream>

#include "packtest.hpp"

namespace memtest {
namespace {

// Block lengths up to the shortest one that takes the control block.

class PackTinyBlockTest : public PackTest, public ::testing::WithParamInterface<std::int32_t> {};

INSTANTIATE_TEST_SUITE_P(Lengths, PackTinyBlockTest,
                         ::testing::Values(INT32_MIN, -65536, -1000, -1, 0, 1, 7, 8, 9));

TEST_P(PackTinyBlockTest, IsRefusedWithoutABlock) {
  MemPackBlock mark{};
  MemPackBlock *cell = &mark;
  const std::uint8_t *root = items.make(8);
  const ControlBlock controlBlock{fixedKind(8)};
  std::memset(&error(), 0x5A, sizeof error());
  host.resetCalls();
  host.recordCalls(true);
  expectRefused(mem.MEM_Pack(controlBlock.get(), root, GetParam(), &cell), MEMERR_PACKBMIN,
                "BlockTooSmallforMemPackCB=" + std::to_string(GetParam()));
  EXPECT_EQ(cell, &mark) << "no block, so the cell stays";
  for (const refhost::HostCall &call : host.takeCalls()) {
    if (call.service != refhost::Service::GetStorage) continue;
    EXPECT_NE(call.args[1], static_cast<std::uint32_t>(GetParam()));
  }
}

class PackShortBlockTest : public PackTest, public ::testing::WithParamInterface<std::int32_t> {};

INSTANTIATE_TEST_SUITE_P(Lengths, PackShortBlockTest,
                         ::testing::Values(10, 11, 14, 15, 16, 100, 500, 995, 996));

TEST_P(PackShortBlockTest, IsRefusedWithTheFirstBlockHandedOver) {
  expectRefused(pack(ControlBlock{fixedKind(8)}, items.make(8), GetParam()), MEMERR_PACKBMIN,
                "BlockTooSmallforMemPackCB=" + std::to_string(GetParam()));
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->pNext, nullptr);
  EXPECT_EQ(first->UsedLen, 2);
}

TEST_F(PackTest, ShortestBlockTakesTheControlBlockAndItsVersion) {
  const Blocks made = packed(ControlBlock{fixedKind(5)}, items.make(5, 0x11), kSmallestBlock);
  ASSERT_EQ(made.size(), 1U);
  EXPECT_EQ(usedLen(made[0]), 989);
  EXPECT_EQ(usedLen(made[0]), kSmallestBlock - 8) << "filled to the end";
}

TEST_F(PackTest, ControlBlockIsLimitedByTheUsedLength) {
  ControlBlock most(537);
  for (std::size_t i = 0; i < 537; ++i) most.set(i, fixedKind(8));
  const Blocks made = packed(most, items.make(8, 0x11), 100000);
  ASSERT_EQ(made.size(), 2U) << "the root cannot start so far into the block";
  EXPECT_EQ(usedLen(made[0]), 65522);

  ControlBlock tooMany(538);
  for (std::size_t i = 0; i < 538; ++i) tooMany.set(i, fixedKind(8));
  expectRefused(pack(tooMany, items.make(8), 100000), MEMERR_PACKBMIN,
                "BlockTooSmallforMemPackCB=100000");
  EXPECT_EQ(blocks().size(), 1U);
}

TEST_F(PackTest, BlockThatTheHostCannotGiveIsRefused) {
  expectRefused(pack(ControlBlock{fixedKind(8)}, items.make(8), INT32_MAX), MEMERR_PACKAMEM,
                "1stBlkMemAllocFail");
  EXPECT_EQ(first, nullptr);
}

// Length of one item.

struct LengthCase {
  const char *name;
  std::size_t fits;     // length of the longest item that is packed
  std::size_t tooLong;  // the next length
  std::int32_t blockLen;
};

void PrintTo(const LengthCase &row, std::ostream *out) {
  *out << row.name;
}

std::string lengthCaseName(const ::testing::TestParamInfo<LengthCase> &info) {
  return info.param.name;
}

// "%hd"
std::string shortText(std::size_t length) {
  return std::to_string(static_cast<std::int16_t>(length));
}

class PackSegmentLengthTest : public PackTest, public ::testing::WithParamInterface<LengthCase> {
 protected:
  void expectTooLong(const ControlBlock &controlBlock, const void *root) {
    expectRefused(pack(controlBlock, root, GetParam().blockLen), MEMERR_PACKBMIN,
                  "SegmentLengthTooLarge=" + shortText(GetParam().tooLong));
    EXPECT_EQ(blocks().size(), 1U);
    EXPECT_EQ(usedLen(blocks().at(0)), 984);
  }
  // In a block of its own, after the head in the first.
  void expectFits(const ControlBlock &controlBlock, const void *root) {
    const Blocks made = packed(controlBlock, root, GetParam().blockLen);
    ASSERT_EQ(made.size(), 2U);
    EXPECT_EQ(usedLen(made[1]), 2 + GetParam().fits);
  }
};

constexpr LengthCase kSegmentLengths[] = {
    {"ShortBlock", 985, 986, 1000},        {"ShortestBlock", 982, 983, 997},
    {"MiddleBlock", 32768, 32769, 32783},  {"BlockOf65547", 65532, 65533, 65547},
    {"BlockOf65548", 65533, 65534, 65548}, {"BlockOf65549", 65533, 65534, 65549},
    {"LongBlock", 65533, 65534, 70000}};

constexpr std::size_t kCountable = 3;  // lengths that a signed 16-bit count can hold

INSTANTIATE_TEST_SUITE_P(Limits, PackSegmentLengthTest, ::testing::ValuesIn(kSegmentLengths),
                         lengthCaseName);

TEST_P(PackSegmentLengthTest, Fixed) {
  expectFits(ControlBlock{fixedKind(GetParam().fits)}, items.make(GetParam().fits, 0x11));
  // The length is the descriptor's: the segment is not read before it is known to fit.
  expectTooLong(ControlBlock{fixedKind(GetParam().tooLong)}, items.make(1));
}

TEST_P(PackSegmentLengthTest, SelfDescribing) {
  const ControlBlock controlBlock{{.type = kSelfDescribing}};
  std::uint8_t *const root = items.make(GetParam().fits, 0x11);
  putNumber(root, static_cast<std::uint16_t>(GetParam().fits));
  expectFits(controlBlock, root);
  std::uint8_t *const tooLong = items.make(2);
  putNumber(tooLong, static_cast<std::uint16_t>(GetParam().tooLong));
  expectTooLong(controlBlock, tooLong);
}

TEST_P(PackSegmentLengthTest, TextAsRoot) {
  const ControlBlock controlBlock{stringKind()};
  expectFits(controlBlock, items.text(std::string(GetParam().fits - 1, 'x')));
  expectTooLong(controlBlock, items.text(std::string(GetParam().tooLong - 1, 'x')));
}

class PackCountedLengthTest : public PackSegmentLengthTest {};

INSTANTIATE_TEST_SUITE_P(Limits, PackCountedLengthTest,
                         ::testing::ValuesIn(kSegmentLengths, kSegmentLengths + kCountable),
                         lengthCaseName);

TEST_P(PackCountedLengthTest, Counted) {
  const ControlBlock controlBlock{{.type = MEM_PACK_COUNTED}};
  std::uint8_t *const root = items.make(GetParam().fits, 0x11);
  putNumber(root, static_cast<std::int16_t>(GetParam().fits - 2));
  expectFits(controlBlock, root);
  std::uint8_t *const tooLong = items.make(2);
  putNumber(tooLong, static_cast<std::int16_t>(GetParam().tooLong - 2));
  expectTooLong(controlBlock, tooLong);
}

TEST_F(PackTest, LongestCountedSegmentIsMeasuredIn32Bits) {
  const ControlBlock controlBlock{{.type = MEM_PACK_COUNTED}};
  std::uint8_t *const root = items.make(32769, 0x11);
  putNumber<std::int16_t>(root, 32767);
  EXPECT_EQ(usedLen(packed(controlBlock, root, 70000).at(0)), 984 + 32769);
}

TEST_F(PackTest, NegativeCountIsRefused) {
  const ControlBlock controlBlock{{.type = MEM_PACK_COUNTED}};
  constexpr std::int16_t kCounts[] = {-1, -2, -3, -1000, -32767, -32768};
  for (const std::int16_t count : kCounts) {
    SCOPED_TRACE(count);
    std::uint8_t *const root = items.make(2);
    putNumber(root, count);
    const std::int16_t result = pack(controlBlock, root, 70000);
    expectRefused(result, MEMERR_PACKBMIN, "SegmentLengthTooLarge=" + std::to_string(count + 2));
  }
}

TEST_F(PackTest, LongestFixedLengthIsRefusedInAnyBlock) {
  expectRefused(pack(ControlBlock{fixedKind(65535)}, items.make(1), 200000), MEMERR_PACKBMIN,
                "SegmentLengthTooLarge=-1");
}

// A root with one pointer to a text.
class PackTextTest : public PackTest {
 protected:
  const std::uint8_t *rootWith(const void *text, std::size_t length = 8) {
    std::uint8_t *const root = items.make(length);
    putPointer(root, 0, text);
    return root;
  }

  static ControlBlock controlBlockFor(const Kind &text, std::size_t length = 8) {
    Kind root = fixedKind(length);
    root.children = {{1, 0}};
    return {root, text};
  }
};

class PackTextLengthTest : public PackTextTest, public ::testing::WithParamInterface<LengthCase> {};

constexpr LengthCase kTextLengths[] = {
    {"ShortBlock", 1185, 1186, 1200},      {"BlockOf65545", 65530, 65531, 65545},
    {"BlockOf65546", 65531, 65532, 65546}, {"BlockOf65547", 65531, 65532, 65547},
    {"LongBlock", 65531, 65532, 70000},    {"VeryLongBlock", 65531, 65532, 1000000}};

INSTANTIATE_TEST_SUITE_P(Limits, PackTextLengthTest, ::testing::ValuesIn(kTextLengths),
                         lengthCaseName);

TEST_P(PackTextLengthTest, Narrow) {
  const ControlBlock controlBlock = controlBlockFor(stringKind());
  const std::uint8_t *root = rootWith(items.text(std::string(GetParam().fits - 1, 'x')));
  const Blocks made = packed(controlBlock, root, GetParam().blockLen);
  ASSERT_EQ(made.size(), 2U);
  EXPECT_EQ(usedLen(made[1]), 4 + GetParam().fits);
  EXPECT_EQ(cut(made[0], 984, 8), relBytes(1, 4));

  root = rootWith(items.text(std::string(GetParam().tooLong - 1, 'x')));
  expectRefused(pack(controlBlock, root, GetParam().blockLen), MEMERR_PACKBMIN,
                "StringLengthTooLarge=" + std::to_string(GetParam().tooLong));
  EXPECT_EQ(usedLen(blocks().at(0)), 992) << "its segment is packed before";
}

class PackWideTextLengthTest : public PackTextLengthTest {};

// In units without the terminator. The room is 4 bytes a unit, the message shows 2.
INSTANTIATE_TEST_SUITE_P(Limits, PackWideTextLengthTest,
                         ::testing::Values(LengthCase{"ShortBlock", 295, 296, 1200},
                                           LengthCase{"RoomOfBlockLess15", 295, 296, 1199},
                                           LengthCase{"RoomOfBlockLess14", 294, 295, 1198},
                                           LengthCase{"BlockOf65543", 16381, 16382, 65543},
                                           LengthCase{"LongBlock", 16381, 16382, 70000},
                                           LengthCase{"VeryLongBlock", 16381, 16382, 1000000}),
                         lengthCaseName);

TEST_P(PackWideTextLengthTest, Wide) {
  const ControlBlock controlBlock = controlBlockFor(wideKind());
  const std::uint8_t *root = rootWith(items.wide(std::u16string(GetParam().fits, u'x')));
  const Blocks made = packed(controlBlock, root, GetParam().blockLen);
  ASSERT_EQ(made.size(), 2U);
  EXPECT_EQ(usedLen(made[1]), 4 + 4 * GetParam().fits + 4);
  EXPECT_EQ(cut(made[0], 984, 8), relBytes(1, 4));

  root = rootWith(items.wide(std::u16string(GetParam().tooLong, u'x')));
  expectRefused(pack(controlBlock, root, GetParam().blockLen), MEMERR_PACKBMIN,
                "StringLengthTooLarge=" + std::to_string(2 * GetParam().tooLong + 2));
}

TEST_F(PackTextTest, TextBeyondAllLengthsIsRefused) {
  const std::uint8_t *root = rootWith(items.text(std::string(200000, 'x')));
  expectRefused(pack(controlBlockFor(stringKind()), root, 300000), MEMERR_PACKBMIN,
                "StringLengthTooLarge=200001");
  root = rootWith(items.wide(std::u16string(100000, u'x')));
  expectRefused(pack(controlBlockFor(wideKind()), root, 500000), MEMERR_PACKBMIN,
                "StringLengthTooLarge=200002");
}

// What fits after what a block holds already.

TEST_F(PackTest, SegmentGoesIntoTheBlockUpToItsLastByte) {
  Blocks made = packed(ControlBlock{fixedKind(1008)}, items.make(1008, 0x11), 2000);
  ASSERT_EQ(made.size(), 1U);
  EXPECT_EQ(usedLen(made[0]), 1992);

  made = packed(ControlBlock{fixedKind(1009)}, items.make(1009, 0x11), 2000);
  ASSERT_EQ(made.size(), 2U);
  EXPECT_EQ(usedLen(made[0]), 984) << "only the head";
  EXPECT_EQ(usedLen(made[1]), 1011);
}

TEST_F(PackTextTest, NarrowTextGoesIntoTheBlockUpToItsLastByte) {
  const ControlBlock controlBlock = controlBlockFor(stringKind());
  Blocks made = packed(controlBlock, rootWith(items.text(std::string(199, 'x'))), 1200);
  ASSERT_EQ(made.size(), 1U);
  EXPECT_EQ(usedLen(made[0]), 1192);

  made = packed(controlBlock, rootWith(items.text(std::string(200, 'x'))), 1200);
  ASSERT_EQ(made.size(), 2U);
  EXPECT_EQ(usedLen(made[0]), 992);
  EXPECT_EQ(cut(made[1], 0, 5), (Bytes{205, 0, 0, 0, 'x'}));
  EXPECT_EQ(cut(made[0], 984, 8), relBytes(1, 4));
}

TEST_F(PackTextTest, GapInFrontOfWideTextIsGivenBackWhenTheTextMoves) {
  for (std::uint16_t length = 9; length <= 12; ++length) {
    SCOPED_TRACE(length);
    const ControlBlock controlBlock = controlBlockFor(wideKind(), length);
    // From 996 to 1192 there is room for 48 units and the terminator.
    const std::uint8_t *root = rootWith(items.wide(std::u16string(48, u'x')), length);
    Blocks made = packed(controlBlock, root, 1200);
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(usedLen(made[0]), 1192);

    root = rootWith(items.wide(std::u16string(49, u'x')), length);
    made = packed(controlBlock, root, 1200);
    ASSERT_EQ(made.size(), 2U);
    EXPECT_EQ(usedLen(made[0]), 984 + length);
    EXPECT_EQ(usedLen(made[1]), 4 + 200);
    EXPECT_EQ(cut(made[0], 984, 8), relBytes(1, 4));
  }
}

TEST_F(PackTextTest, OnlyTheReservedRoomDecidesAboutWideText) {
  // 24 units: 50 bytes would fit into the 56 that are left, 100 do not.
  const ControlBlock controlBlock = controlBlockFor(wideKind(), 152);
  const std::uint8_t *root = rootWith(items.wide(std::u16string(24, u'x')), 152);
  const Blocks made = packed(controlBlock, root, 1200);
  ASSERT_EQ(made.size(), 2U);
  EXPECT_EQ(usedLen(made[1]), 104);
}

TEST_F(PackTest, BlocksAfterTheFirstFillUpToTheirLastByteToo) {
  // Two segments of 495 and 495 bytes fill a block of 1000: 2 + 990 = 992.
  for (std::uint16_t length = 495; length <= 496; ++length) {
    const ControlBlock controlBlock{{.fixedLen = length, .siblingOff = 0}};
    std::uint8_t *const root = items.make(length);
    putPointer(root, 0, items.make(length));
    EXPECT_EQ(packed(controlBlock, root, 1000).size(), length == 495 ? 2U : 3U);
  }
}

// 16-bit numbers in blocks that are longer.

class PackLongBlockTest : public PackTest, public ::testing::WithParamInterface<std::int32_t> {
 protected:
  // A root that ends at `end`, with one child of a kind.
  Blocks packedBehind(std::size_t end, const Kind &childKind, const void *child) {
    Kind rootKind = fixedKind(end - kHeadEnd);
    rootKind.children = {{1, 0}};
    std::uint8_t *const root = items.make(end - kHeadEnd);
    putPointer(root, 0, child);
    return packed(ControlBlock{rootKind, childKind}, root, GetParam());
  }

  Blocks segmentBehind(std::size_t end, std::size_t length) {
    return packedBehind(end, fixedKind(length), items.make(length, 0x11));
  }
  Blocks narrowBehind(std::size_t end, std::size_t length) {
    return packedBehind(end, stringKind(), items.text(std::string(length, 'x')));
  }
  Blocks wideBehind(std::size_t end, std::size_t units) {
    return packedBehind(end, wideKind(), items.wide(std::u16string(units, u'x')));
  }

  static void expectBehind(const Blocks &made, std::int16_t offset) {
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(cut(made[0], 984, 8), relBytes(0, offset));
  }
  static void expectInNewBlock(const Blocks &made, std::size_t usedInFirst, std::int16_t offset) {
    ASSERT_EQ(made.size(), 2U);
    EXPECT_EQ(usedLen(made[0]), usedInFirst);
    EXPECT_EQ(cut(made[0], 984, 8), relBytes(1, offset));
  }
};

INSTANTIATE_TEST_SUITE_P(BlockLengths, PackLongBlockTest,
                         ::testing::Values(65543, 65544, 65551, 70000, 131072, 1000000));

TEST_P(PackLongBlockTest, ItemsStartAtMostAt32767) {
  expectBehind(segmentBehind(32767, 10), 32767);
  expectInNewBlock(segmentBehind(32768, 10), 32768, 2);
  expectBehind(narrowBehind(32767, 10), 32767);
  expectInNewBlock(narrowBehind(32768, 10), 32768, 4);
  expectBehind(wideBehind(32764, 10), 32764);
  expectInNewBlock(wideBehind(32765, 10), 32765, 4);
  expectInNewBlock(segmentBehind(32768, 0), 32768, 2);
}

TEST_P(PackLongBlockTest, BlocksUseAtMost65535Bytes) {
  Blocks made = segmentBehind(32767, 32768);
  expectBehind(made, 32767);
  EXPECT_EQ(usedLen(made.at(0)), 65535);
  expectInNewBlock(segmentBehind(32767, 32769), 32767, 2);

  made = narrowBehind(32767, 32767);
  expectBehind(made, 32767);
  EXPECT_EQ(usedLen(made.at(0)), 65535);
  expectInNewBlock(narrowBehind(32767, 32768), 32767, 4);

  made = wideBehind(32764, 8191);
  expectBehind(made, 32764);
  EXPECT_EQ(usedLen(made.at(0)), 65532);
  expectInNewBlock(wideBehind(32764, 8192), 32764, 4);
}

TEST_P(PackLongBlockTest, FirstSegmentMayFillTheBlock) {
  Blocks made = packed(ControlBlock{fixedKind(64551)}, items.make(64551, 0x11), GetParam());
  ASSERT_EQ(made.size(), 1U);
  EXPECT_EQ(usedLen(made[0]), 65535);
  made = packed(ControlBlock{fixedKind(64552)}, items.make(64552, 0x11), GetParam());
  ASSERT_EQ(made.size(), 2U);
  EXPECT_EQ(usedLen(made[1]), 64554);
}

// The number of blocks. Texts take one block each, so that few segments make a long chain.

class PackBlockCountTest : public PackTest {
 protected:
  static constexpr std::int32_t kBlockLen = 1200;
  static constexpr std::size_t kTexts = MEM_PACK_MAX_CHILDREN;

  PackBlockCountTest() : controlBlock(2) {
    Kind holder{.fixedLen = 8 + 8 * kTexts, .siblingOff = 0};
    for (std::size_t i = 0; i < kTexts; ++i) {
      holder.children.push_back({1, static_cast<std::int16_t>(8 + 8 * i)});
    }
    controlBlock.set(0, holder);
    controlBlock.set(1, stringKind());
    text = items.text(std::string(kBlockLen - MEM_PACK_BLOCK_OVERHEAD - 1, 'x'));
  }

  // A sibling chain that is packed into `blocks` blocks: the first segment shares a block with the
  // head, each further one begins a block, and so does each text.
  const std::uint8_t *chainFor(std::size_t blockCount) {
    std::uint8_t *const root = items.make(controlBlock[0].FixedLen);
    std::uint8_t *last = root;
    for (std::size_t left = blockCount - 1; left > 0;) {
      const std::size_t texts = std::min(left, kTexts);
      for (std::size_t i = 0; i < texts; ++i) putPointer(last, 8 + 8 * i, text);
      left -= texts;
      if (left == 0) break;
      std::uint8_t *const next = items.make(controlBlock[0].FixedLen);
      putPointer(last, 0, next);
      last = next;
      --left;
    }
    return root;
  }

  ControlBlock controlBlock;
  const std::uint8_t *text;
};

TEST_F(PackBlockCountTest, ChainsHaveAtMost32767Blocks) {
  const Blocks made = packed(controlBlock, chainFor(32767), kBlockLen);
  EXPECT_EQ(made.size(), 32767U);
}

TEST_F(PackBlockCountTest, OneBlockMoreIsRefused) {
  const std::int16_t result = pack(controlBlock, chainFor(32768), kBlockLen);
  EXPECT_EQ(result, MEMERR_PACKBMAX);
  expectRecorded(MEMERR_PACKBMAX, nameText());
  EXPECT_TRUE(nameText().starts_with("MaxBlocksValueBad=")) << nameText();
  EXPECT_EQ(blocks().size(), 32767U);
}

TEST_F(PackBlockCountTest, OneBlockMoreIsRefusedForASegmentToo) {
  const ControlBlock segments{{.fixedLen = 985, .siblingOff = 0}};
  std::uint8_t *segment = nullptr;
  for (int i = 0; i < 32767; ++i) {  // each in a block of its own after the head's
    std::uint8_t *const next = segment;
    segment = items.make(985);
    putPointer(segment, 0, next);
  }
  EXPECT_EQ(pack(segments, segment, 1000), MEMERR_PACKBMAX);
  EXPECT_EQ(blocks().size(), 32767U);
}

// Levels.

class PackDepthTest : public PackTest {
 protected:
  // Child pointer at 0, sibling at 8, text at 16, second child at 24.
  const ControlBlock controlBlock{
      {.fixedLen = 32, .siblingOff = 8, .children = {{0, 0}, {1, 16}, {0, 24}}}, stringKind()};

  // A chain of segments below each other, the given number in all.
  std::vector<std::uint8_t *> nest(std::size_t levels) {
    std::vector<std::uint8_t *> chain;
    for (std::size_t i = 0; i < levels; ++i) {
      chain.push_back(items.make(32));
      if (i > 0) putPointer(chain[i - 1], 0, chain[i]);
    }
    return chain;
  }
};

TEST_F(PackDepthTest, SixtyThreeLevelsBelowTheRootArePacked) {
  EXPECT_EQ(usedLen(packed(controlBlock, nest(64)[0], 4000).at(0)), 984 + 64 * 32);
}

TEST_F(PackDepthTest, SixtyFourLevelsBelowTheRootAreRefused) {
  expectRefused(pack(controlBlock, nest(65)[0], 4000), MEMERR_PACKSTAK, "TraversalStackOverflow");
  EXPECT_EQ(usedLen(blocks().at(0)), 984 + 64 * 32) << "refused before it is copied";
}

TEST_F(PackDepthTest, TextsAndSiblingsDoNotDeepen) {
  const std::vector<std::uint8_t *> chain = nest(64);
  std::uint8_t *last = chain.back();
  for (int i = 0; i < 3; ++i) {
    putPointer(last, 16, items.text("deep"));
    std::uint8_t *const sibling = items.make(32);
    putPointer(last, 8, sibling);
    last = sibling;
  }
  packed(controlBlock, chain[0], 4000);
  putPointer(last, 24, items.make(32));
  expectRefused(pack(controlBlock, chain[0], 4000), MEMERR_PACKSTAK, "TraversalStackOverflow");
}

TEST_F(PackDepthTest, EachBranchMayBeDeep) {
  const std::vector<std::uint8_t *> chain = nest(64);
  putPointer(chain[0], 24, nest(63)[0]);
  putPointer(chain[1], 24, nest(62)[0]);
  putPointer(chain[0], 8, nest(64)[0]);
  packed(controlBlock, chain[0], 4000);
  putPointer(chain[2], 24, nest(62)[0]);
  expectRefused(pack(controlBlock, chain[0], 4000), MEMERR_PACKSTAK, "TraversalStackOverflow");
}

TEST_F(PackDepthTest, LongSiblingChainIsPacked) {
  std::uint8_t *const root = items.make(32);
  std::uint8_t *last = root;
  for (int i = 0; i < 5000; ++i) {
    std::uint8_t *const sibling = items.make(32);
    putPointer(last, 8, sibling);
    last = sibling;
  }
  packed(controlBlock, root, 4000);
}

}  // namespace
}  // namespace memtest
