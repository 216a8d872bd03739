// MEM_Pack: what it refuses, and the state that a refused call leaves.

#include <algorithm>
#include <ostream>

#include "packtest.hpp"

namespace memtest {
namespace {

std::string kindText(ControlBlock &controlBlock, std::size_t index) {
  return "MemPackCBstructIDInvalid=" + hex16(&controlBlock[index]);
}

std::string pointerText(const void *pointer) {
  return "Invalid Segment Ptr=" + hex16(pointer);
}

// Missing arguments.

class PackArgumentTest : public PackTest {
 protected:
  // Refused before anything is opened: no storage is asked for, the cell stays.
  void expectRefusedAtOnce(const MemPackCB *pPackCB, const void *pRoot, MemPackBlock **ppFirstBlk,
                           std::int16_t code, const std::string &textStart) {
    std::memset(&error(), 0x5A, sizeof error());
    host.resetCalls();
    EXPECT_EQ(mem.MEM_Pack(pPackCB, pRoot, 1000, ppFirstBlk), code);
    EXPECT_TRUE(nameText().starts_with(textStart)) << nameText();
    expectRecorded(static_cast<std::uint32_t>(code), nameText());
    EXPECT_EQ(host.calls(refhost::Service::GetStorage), 0U);
  }

  ControlBlock controlBlock{fixedKind(8)};
  const std::uint8_t *root = items.make(8);
  MemPackBlock mark{};
  MemPackBlock *cell = &mark;
};

TEST_F(PackArgumentTest, NullControlBlock) {
  expectRefusedAtOnce(nullptr, root, &cell, MEMERR_PACKCBID, "MemPackCBstructIDInvalid=");
  EXPECT_EQ(cell, &mark);
}

TEST_F(PackArgumentTest, CountBelowOne) {
  for (const int count : {0, -1, -32768}) {
    SCOPED_TRACE(count);
    controlBlock.setCount(static_cast<std::int16_t>(count));
    expectRefusedAtOnce(controlBlock.get(), root, &cell, MEMERR_PACKCBID,
                        "MemPackCBstructIDInvalid=");
    EXPECT_EQ(cell, &mark);
  }
}

TEST_F(PackArgumentTest, NullRoot) {
  expectRefusedAtOnce(controlBlock.get(), nullptr, &cell, MEMERR_PACKSPTR, "Invalid Segment Ptr=");
  EXPECT_EQ(cell, &mark);
}

TEST_F(PackArgumentTest, NullCell) {
  expectRefusedAtOnce(controlBlock.get(), root, nullptr, MEMERR_PACKSPTR, "Invalid Segment Ptr=");
}

// Descriptors.

struct DescriptorCase {
  const char *name;
  std::size_t refused;  // index of the descriptor that is to blame
  std::int16_t count;
  void (*spoil)(ControlBlock &);
};

void PrintTo(const DescriptorCase &row, std::ostream *out) {
  *out << row.name;
}

std::string descriptorCaseName(const ::testing::TestParamInfo<DescriptorCase> &info) {
  return info.param.name;
}

// Spoilt descriptors that are refused whether they are reached or not.
const DescriptorCase kBadDescriptors[] = {
    {"ChildCountMinus1", 0, 1, [](ControlBlock &cb) { cb[0].ChildCount = -1; }},
    {"ChildCount25", 0, 1, [](ControlBlock &cb) { cb[0].ChildCount = 25; }},
    {"ChildCountLargest", 0, 1, [](ControlBlock &cb) { cb[0].ChildCount = 32767; }},
    {"ChildCountSmallest", 0, 1, [](ControlBlock &cb) { cb[0].ChildCount = -32768; }},
    {"ReferenceCountMinus1", 0, 1, [](ControlBlock &cb) { cb[0].ReferenceCount = -1; }},
    {"ReferenceCount9", 0, 1, [](ControlBlock &cb) { cb[0].ReferenceCount = 9; }},
    {"ReferenceCountLargest", 0, 1, [](ControlBlock &cb) { cb[0].ReferenceCount = 32767; }},
    {"ChildKind8Of1", 0, 1,
     [](ControlBlock &cb) {
       cb.set(0, {.fixedLen = 8, .children = {{8, 0}}});
     }},
    {"ChildKind8Of8", 0, 8,
     [](ControlBlock &cb) {
       cb.set(0, {.fixedLen = 8, .children = {{8, 0}}});
     }},
    {"ChildKind9Of9", 0, 9,
     [](ControlBlock &cb) {
       cb.set(0, {.fixedLen = 8, .children = {{9, 0}}});
     }},
    {"ChildKindLargest", 0, 9,
     [](ControlBlock &cb) {
       cb.set(0, {.fixedLen = 8, .children = {{0xFFFF, 0}}});
     }},
    {"SecondChildKind", 0, 1,
     [](ControlBlock &cb) {
       cb.set(0, {.fixedLen = 16, .children = {{7, 0}, {8, 8}}});
     }},
    {"NotReached", 2, 3, [](ControlBlock &cb) { cb[2].ChildCount = 25; }},
    {"NotReachedChildKind", 2, 3,
     [](ControlBlock &cb) {
       cb.set(2, {.fixedLen = 8, .children = {{8, 0}}});
     }},
    {"LastOfEight", 7, 8, [](ControlBlock &cb) { cb[7].ReferenceCount = 9; }},
    {"LastOf24", 23, 24, [](ControlBlock &cb) { cb[23].ReferenceCount = -1; }},
};

class PackBadDescriptorTest : public PackTest,
                              public ::testing::WithParamInterface<DescriptorCase> {};

INSTANTIATE_TEST_SUITE_P(Rows, PackBadDescriptorTest, ::testing::ValuesIn(kBadDescriptors),
                         descriptorCaseName);

TEST_P(PackBadDescriptorTest, IsRefusedBeforeAnythingIsCopied) {
  ControlBlock controlBlock(GetParam().count);
  for (std::int16_t i = 0; i < GetParam().count; ++i) {
    controlBlock.set(static_cast<std::size_t>(i), fixedKind(16));
  }
  GetParam().spoil(controlBlock);
  for (const bool old : {false, true}) {
    setOldControlBlock(mem, old);
    expectRefused(pack(controlBlock, items.make(16, 0x11), 5000), MEMERR_PACKCBID,
                  kindText(controlBlock, GetParam().refused));
    for (const Bytes &block : blocks()) {
      EXPECT_EQ(std::count(block.begin(), block.end(), 0x11), 0);
    }
  }
}

TEST_F(PackTest, FullCountsAndTheLastKindsArePacked) {
  ControlBlock controlBlock(9);
  for (std::size_t i = 0; i < 9; ++i) controlBlock.set(i, fixedKind(8));
  Kind root = fixedKind(8 * 33);
  for (std::int16_t i = 0; i < 24; ++i) {
    root.children.push_back({8, static_cast<std::int16_t>(8 * i)});
  }
  for (std::int16_t i = 24; i < 32; ++i)
    root.references.push_back(static_cast<std::int16_t>(8 * i));
  controlBlock.set(0, root);
  std::uint8_t *const segment = items.make(8 * 33);
  for (std::size_t i = 0; i < 24; ++i) putPointer(segment, 8 * i, items.make(8));
  for (std::size_t i = 24; i < 32; ++i) putPointer(segment, 8 * i, segment);
  packed(controlBlock, segment, 2000);
}

// Pointer fields must be inside their segment; seen when a segment of the kind is reached.
struct OffsetCase {
  const char *name;
  Kind good;
  Kind bad;
};

void PrintTo(const OffsetCase &row, std::ostream *out) {
  *out << row.name;
}

std::string offsetCaseName(const ::testing::TestParamInfo<OffsetCase> &info) {
  return info.param.name;
}

Kind withSibling(std::int16_t offset) {
  return {.fixedLen = 20, .siblingOff = offset};
}
Kind withChild(std::int16_t offset, std::uint16_t kind) {
  return {.fixedLen = 20, .children = {{kind, offset}}};
}
Kind withReference(std::int16_t offset) {
  return {.fixedLen = 20, .references = {offset}};
}

const OffsetCase kOffsets[] = {
    {"SiblingBehind", withSibling(12), withSibling(13)},
    {"SiblingFarBehind", withSibling(0), withSibling(32767)},
    {"SiblingNegative", withSibling(-1), withSibling(-2)},
    {"SiblingMostNegative", withSibling(-1), withSibling(-32768)},
    {"ChildBehind", withChild(12, 1), withChild(13, 1)},
    {"ChildAtTheEnd", withChild(0, 1), withChild(20, 1)},
    {"ChildNegative", withChild(0, 1), withChild(-1, 1)},
    {"ChildFarNegative", withChild(0, 1), withChild(-32768, 1)},
    {"NarrowTextBehind", withChild(12, 2), withChild(13, 2)},
    {"NarrowTextNegative", withChild(12, 2), withChild(-8, 2)},
    {"WideTextBehind", withChild(12, 3), withChild(13, 3)},
    {"WideTextNegative", withChild(12, 3), withChild(-8, 3)},
    {"ReferenceBehind", withReference(12), withReference(13)},
    {"ReferenceFarBehind", withReference(12), withReference(32767)},
    {"ReferenceNegative", withReference(0), withReference(-1)},
};

class PackOffsetTest : public PackTest, public ::testing::WithParamInterface<OffsetCase> {
 protected:
  // The root's child, kind 4, is of the kind in question.
  Blocks packWith(const Kind &kind) {
    controlBlock.set(4, kind);
    result = pack(controlBlock, root, 2000);
    return blocks();
  }

  ControlBlock controlBlock{{.fixedLen = 20, .children = {{4, 0}}},
                            fixedKind(20),
                            stringKind(),
                            wideKind(),
                            fixedKind(20)};
  std::uint8_t *root = items.make(20);
  std::int16_t result = 0;
};

INSTANTIATE_TEST_SUITE_P(Rows, PackOffsetTest, ::testing::ValuesIn(kOffsets), offsetCaseName);

TEST_P(PackOffsetTest, FieldInsideTheSegmentIsAccepted) {
  putPointer(root, 0, items.make(20));
  packWith(GetParam().good);
  expectPacked(result);
}

TEST_P(PackOffsetTest, FieldOutsideIsRefusedWhenASegmentIsReached) {
  putPointer(root, 0, items.make(20));
  packWith(GetParam().bad);
  expectRefused(result, MEMERR_PACKCBID, kindText(controlBlock, 4));
}

TEST_P(PackOffsetTest, FieldOutsideDoesNoHarmWhereNoSegmentIsReached) {
  packWith(GetParam().bad);
  expectPacked(result);
}

TEST_F(PackTest, FieldsAreMeasuredAgainstTheSegmentsOwnLength) {
  ControlBlock controlBlock{{.type = MEM_PACK_COUNTED, .siblingOff = 2, .references = {10}}};
  std::uint8_t *const root = items.make(18);
  std::uint8_t *const shorter = items.make(17);
  putNumber<std::int16_t>(root, 16);
  putNumber<std::int16_t>(shorter, 15);
  packed(controlBlock, root, 2000);
  putPointer(root, 2, shorter);
  expectRefused(pack(controlBlock, root, 2000), MEMERR_PACKCBID, kindText(controlBlock, 0));
}

// Descriptors beyond the count, which always have room up to the eighth.

TEST_F(PackTest, KindsBeyondTheCountMayBeUsed) {
  ControlBlock controlBlock{{.fixedLen = 24, .children = {{7, 0}, {6, 8}, {5, 16}}}};
  controlBlock.set(7, stringKind());
  controlBlock.set(6, wideKind());
  controlBlock.set(5, {.fixedLen = 9, .siblingOff = 1});
  std::uint8_t *const root = items.make(24);
  std::uint8_t *const child = items.make(9);
  putPointer(root, 0, items.text("text"));
  putPointer(root, 8, items.wide(u"wide"));
  putPointer(root, 16, child);
  putPointer(child, 1, items.make(9));
  packed(controlBlock, root, 1200);
}

TEST_F(PackTest, KindsBeyondTheCountMayHoldAnythingUntilTheyAreReached) {
  for (const int filler : {0xFF, 0xEE, 0x7F, 0x19}) {
    SCOPED_TRACE(filler);
    ControlBlock controlBlock(1, static_cast<std::uint8_t>(filler));
    controlBlock.set(0, {.fixedLen = 8, .children = {{7, 0}}});
    std::uint8_t *const root = items.make(8);
    packed(controlBlock, root, 1200);
    putPointer(root, 0, items.make(100));
    expectRefused(pack(controlBlock, root, 1200), MEMERR_PACKCBID, kindText(controlBlock, 7));
  }
}

TEST_F(PackTest, KindsBeyondTheCountAreCheckedWhenTheyAreReached) {
  void (*const kSpoilers[])(MemPackDescriptor &) = {
      [](MemPackDescriptor &kind) { kind.ChildCount = -1; },
      [](MemPackDescriptor &kind) { kind.ChildCount = 25; },
      [](MemPackDescriptor &kind) { kind.ReferenceCount = -1; },
      [](MemPackDescriptor &kind) { kind.ReferenceCount = 9; },
      [](MemPackDescriptor &kind) {
        kind.ChildCount = 1;
        kind.Children[0].Descriptor = 8;
      },
  };
  std::uint8_t *const root = items.make(8);
  putPointer(root, 0, items.make(100));
  for (const auto spoil : kSpoilers) {
    ControlBlock controlBlock(1, 0);  // all offsets are 0, inside any segment
    controlBlock.set(0, {.fixedLen = 8, .children = {{7, 0}}});
    controlBlock.set(7, {.fixedLen = 100});
    packed(controlBlock, root, 1200);
    spoil(controlBlock[7]);
    expectRefused(pack(controlBlock, root, 1200), MEMERR_PACKCBID, kindText(controlBlock, 7));
  }
}

TEST_F(PackTest, WideTextIsNoSegment) {
  for (const bool old : {false, true}) {
    setOldControlBlock(mem, old);
    EXPECT_EQ(pack(ControlBlock{wideKind()}, items.wide(u"root"), 1000), kFailed);
    expectRecorded(0, "WideStringOutOfPlace");
    const Blocks made = blocks();
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(usedLen(made[0]), old ? 472 : 984) << "only the head";
  }
}

// Segments that are reached twice. Each: sibling at 0, children at 8 and 16, reference at 24.

struct RecursionCase {
  const char *name;
  void (*link)(std::uint8_t *root, std::uint8_t *child, std::uint8_t *other);
};

void PrintTo(const RecursionCase &row, std::ostream *out) {
  *out << row.name;
}

std::string recursionCaseName(const ::testing::TestParamInfo<RecursionCase> &info) {
  return info.param.name;
}

constexpr std::size_t kSibling = 0, kFirstChild = 8, kSecondChild = 16, kReference = 24;

// The root's first child is there already.
const RecursionCase kRecursions[] = {
    {"OwnChild", [](std::uint8_t *root, std::uint8_t *,
                    std::uint8_t *) { putPointer(root, kSecondChild, root); }},
    {"OwnSibling",
     [](std::uint8_t *root, std::uint8_t *, std::uint8_t *) { putPointer(root, kSibling, root); }},
    {"ChildOfItsChild", [](std::uint8_t *root, std::uint8_t *child,
                           std::uint8_t *) { putPointer(child, kFirstChild, root); }},
    {"SiblingOfItsChild", [](std::uint8_t *root, std::uint8_t *child,
                             std::uint8_t *) { putPointer(child, kSibling, root); }},
    {"SiblingOfItself", [](std::uint8_t *, std::uint8_t *child,
                           std::uint8_t *) { putPointer(child, kSibling, child); }},
    {"ChildOfItsGrandchild",
     [](std::uint8_t *root, std::uint8_t *child, std::uint8_t *other) {
       putPointer(child, kFirstChild, other);
       putPointer(other, kSecondChild, root);
     }},
    {"SiblingsInARing",
     [](std::uint8_t *root, std::uint8_t *, std::uint8_t *other) {
       putPointer(root, kSibling, other);
       putPointer(other, kSibling, root);
     }},
    {"ChildTwiceInOneSegment", [](std::uint8_t *root, std::uint8_t *child,
                                  std::uint8_t *) { putPointer(root, kSecondChild, child); }},
    {"ChildOfTwoParents",
     [](std::uint8_t *root, std::uint8_t *child, std::uint8_t *other) {
       putPointer(root, kSibling, other);
       putPointer(other, kFirstChild, child);
     }},
    {"ChildAndSibling", [](std::uint8_t *root, std::uint8_t *child,
                           std::uint8_t *) { putPointer(root, kSibling, child); }},
    {"SecondChildIsSiblingOfTheFirst",
     [](std::uint8_t *root, std::uint8_t *child, std::uint8_t *other) {
       putPointer(child, kSibling, other);
       putPointer(root, kSecondChild, other);
     }},
    {"SiblingIsAGrandchild",
     [](std::uint8_t *root, std::uint8_t *child, std::uint8_t *other) {
       putPointer(child, kFirstChild, other);
       putPointer(root, kSibling, other);
     }},
};

class PackRecursionTest : public PackTest, public ::testing::WithParamInterface<RecursionCase> {};

INSTANTIATE_TEST_SUITE_P(Forms, PackRecursionTest, ::testing::ValuesIn(kRecursions),
                         recursionCaseName);

TEST_P(PackRecursionTest, IsRefused) {
  const ControlBlock controlBlock{{.fixedLen = 32,
                                   .siblingOff = kSibling,
                                   .children = {{0, kFirstChild}, {0, kSecondChild}},
                                   .references = {kReference}}};
  std::uint8_t *const root = items.make(32);
  std::uint8_t *const child = items.make(32);
  std::uint8_t *const other = items.make(32);
  putPointer(root, kFirstChild, child);
  GetParam().link(root, child, other);
  const Bytes before = items.contents();
  expectRefused(pack(controlBlock, root, 1100), MEMERR_PACKCYCL, "RecursiveStructure");
  EXPECT_EQ(items.contents(), before);
}

TEST_F(PackTest, RingOfReferencesIsNoRecursion) {
  const ControlBlock controlBlock{{.fixedLen = 16, .siblingOff = 0, .references = {8}}};
  std::uint8_t *const root = items.make(16);
  std::uint8_t *const sibling = items.make(16);
  putPointer(root, 0, sibling);
  putPointer(root, 8, sibling);
  putPointer(sibling, 8, root);
  packed(controlBlock, root, 1100);
}

TEST_F(PackTest, SegmentMayLieInsideAnother) {
  const ControlBlock controlBlock{{.fixedLen = 24, .children = {{1, 0}}, .references = {8}},
                                  fixedKind(8)};
  std::uint8_t *const root = items.make(24);
  putPointer(root, 0, root + 16);
  putPointer(root, 8, root + 16);
  packed(controlBlock, root, 1100);
}

TEST_F(PackTest, SegmentAtTheSameAddressIsReachedTwiceWhateverItsKind) {
  const ControlBlock controlBlock{{.fixedLen = 24, .children = {{1, 0}}}, fixedKind(8)};
  std::uint8_t *const root = items.make(24);
  putPointer(root, 0, root);
  expectRefused(pack(controlBlock, root, 1100), MEMERR_PACKCYCL, "RecursiveStructure");
}

// References to what is not packed.

class PackLostReferenceTest : public PackTest {
 protected:
  PackLostReferenceTest() {
    putPointer(root, 8, child);
    putPointer(root, 16, text);
  }

  void expectLost(const void *target) {
    putPointer(root, 24, target);
    expectRefused(pack(controlBlock, root, 1200), MEMERR_PACKSPTR, pointerText(target));
  }

  const ControlBlock controlBlock{
      {.fixedLen = 40, .siblingOff = 0, .children = {{0, 8}, {1, 16}}, .references = {24, 32}},
      stringKind()};
  std::uint8_t *root = items.make(40);
  std::uint8_t *child = items.make(40);
  const std::uint8_t *text = items.text("text");
};

TEST_F(PackLostReferenceTest, ToStorageThatNoSegmentIs) {
  expectLost(items.make(40));
  expectLost(&host);
}

TEST_F(PackLostReferenceTest, IntoASegment) {
  expectLost(child + 1);
  expectLost(root + 8);
}

TEST_F(PackLostReferenceTest, ToAText) {
  expectLost(text);
}

TEST_F(PackLostReferenceTest, ToAddressesThatAreNone) {
  for (const std::uint64_t address :
       {std::uint64_t{1}, std::uint64_t{0x03D80000}, ~std::uint64_t{0}}) {
    const void *target;
    std::memcpy(&target, &address, sizeof target);
    expectLost(target);
  }
}

TEST_F(PackLostReferenceTest, TheSegmentPackedLastIsLookedAtFirst) {
  const std::uint8_t *const lost = items.make(1);
  putPointer(root, 24, root + 1);
  putPointer(child, 24, lost);
  putPointer(child, 32, root + 2);
  expectRefused(pack(controlBlock, root, 1200), MEMERR_PACKSPTR, pointerText(lost));
}

// Storage that is not available.

class PackStorageTest : public PackTest {
 protected:
  // Null from slot 8 for the n-th request of a block, which leaves an error of the host.
  void refuseBlock(int nth) {
    left_ = nth;
    self_ = this;
    own_ = mem.MEM_Alloc;
    mem.MEM_Alloc = [](std::uint32_t size, std::int16_t subPool) -> void * {
      if (size == kBlockLen && --left_ == 0) {
        self_->error().Code = 4711;
        self_->error().InnerCode = 4712;
        std::strcpy(self_->error().NameText, "a text of the host that is longer than the packer's");
        return nullptr;
      }
      return own_(size, subPool);
    };
  }

  void expectNoBlock(std::int16_t result, const std::string &text) {
    EXPECT_EQ(result, MEMERR_PACKAMEM);
    EXPECT_EQ(error().Code, static_cast<std::uint32_t>(MEMERR_PACKAMEM));
    EXPECT_EQ(error().ReturnCode, kFailedCode);
    EXPECT_EQ(error().Component, 3);
    EXPECT_EQ(nameText(), text);
    EXPECT_EQ(host.lastReportedText(), text);
    EXPECT_EQ(host.lastReportedDetail(), "");
    EXPECT_EQ(host.calls(refhost::Service::ReportError), 1U);
  }

  static constexpr std::uint32_t kBlockLen = 1200;

 private:
  inline static int left_ = 0;
  inline static PackStorageTest *self_ = nullptr;
  inline static MEM_AllocFn *own_ = nullptr;
};

TEST_F(PackStorageTest, NoFirstBlock) {
  refuseBlock(1);
  MemPackBlock mark{};
  MemPackBlock *cell = &mark;
  const ControlBlock controlBlock{fixedKind(8)};
  host.resetCalls();
  expectNoBlock(mem.MEM_Pack(controlBlock.get(), items.make(8), kBlockLen, &cell),
                "1stBlkMemAllocFail");
  EXPECT_EQ(cell, &mark);
}

TEST_F(PackStorageTest, NoFurtherBlockForASegment) {
  const ControlBlock controlBlock{{.fixedLen = 700, .siblingOff = 0}};
  std::uint8_t *const root = items.make(700);
  putPointer(root, 0, items.make(700));
  for (const int nth : {2, 3}) {
    refuseBlock(nth);
    expectNoBlock(pack(controlBlock, root, kBlockLen), "NthBlkMemAllocFail");
    EXPECT_EQ(blocks().size(), static_cast<std::size_t>(nth - 1));
    host.restoreSlots();
  }
}

TEST_F(PackStorageTest, NoFurtherBlockForAText) {
  const ControlBlock controlBlock{
      {.fixedLen = 16, .children = {{1, 0}, {2, 8}}}, stringKind(), wideKind()};
  std::uint8_t *const root = items.make(16);
  putPointer(root, 0, items.text(std::string(1000, 'x')));
  putPointer(root, 8, items.wide(std::u16string(200, u'x')));
  for (const int nth : {2, 3}) {
    refuseBlock(nth);
    expectNoBlock(pack(controlBlock, root, kBlockLen), "NthBlkMemAllocFail");
    EXPECT_EQ(blocks().size(), static_cast<std::size_t>(nth - 1));
    host.restoreSlots();
  }
}

// The message table gives the host a message for every code of the packer.
TEST_F(PackTest, CodesHaveMessages) {
  for (const std::uint32_t code : {4065U, 4066U, 4067U, 4069U, 4072U, 4073U, 4074U}) {
    EXPECT_TRUE(host.message(code).has_value()) << code;
  }
}

}  // namespace
}  // namespace memtest
