// MEM_Unpack in place, and what both ways of unpacking share: versions, control blocks, blocks,
// relative pointers, failures, tracing.

#include <algorithm>
#include <random>

#include "unpacktest.hpp"

namespace memtest {
namespace {

using chainwriter::Became;
using chainwriter::Chain;
using chainwriter::child;
using chainwriter::data;
using chainwriter::Form;
using chainwriter::kNone;
using chainwriter::Place;
using chainwriter::readersControlBlock;
using chainwriter::reference;
using chainwriter::sibling;
using chainwriter::Tree;
using chainwriter::Writer;
using chainwriter::writerOf;
using refhost::Service;

constexpr std::size_t kRoomy = 4000;
constexpr char kRecursive[] = "RecursiveStructure";

// A small tree whose parts tests damage. Root: sibling, child segment, narrow, wide, reference.
enum : std::size_t { kRoot, kChild, kName, kTitle };
enum : std::size_t { kSiblingPart, kChildPart, kNamePart, kTitlePart, kReferencePart };

Tree smallTree() {
  return {.kinds = {{Form::Fixed, {sibling(), child(1), child(2), child(3), reference()}},
                    {Form::Fixed, {data(5)}},
                    {Form::Narrow},
                    {Form::Wide}},
          .nodes = {{kRoot, {}, {kNone, 1, 2, 3, 1}},
                    {kChild, {1, 2, 3, 4, 5}},
                    {kName, {}, {}, "narrow"},
                    {kTitle, {}, {}, {}, U"wide"}}};
}

std::string blkText(int block) {
  return "Invalid Relative Blk=" + std::to_string(block);
}
std::string offText(std::size_t offset) {
  return "Invalid Relative Offset=" + std::to_string(static_cast<std::int16_t>(offset));
}
std::string idText(const void *address) {
  return "MemPackCBstructIDInvalid=" + hex16(address);
}

class UnpackInPlaceTest : public UnpackTest {
 protected:
  Tree tree = smallTree();
  Chain chain = chainwriter::write(tree, writerOf("0220"), kRoomy);
  Bytes callers = readersControlBlock(tree);

  Place part(std::size_t index) const { return chain.partPlace(tree, 0, index); }
};

// ---- Frame, trace, error area.

Lines ownRecords(const std::vector<refhost::TraceRecord> &records) {
  Lines lines;
  for (const refhost::TraceRecord &record : records) {
    if (record.function != "MEM_Unpack") continue;
    EXPECT_EQ(record.source, "..\\SrcRes\\MEMCPACK");
    EXPECT_GT(record.line, 0);
    lines.push_back(record.type + " " + record.text);
  }
  return lines;
}

class UnpackTraceTest : public UnpackInPlaceTest {
 protected:
  Lines recordsOf(std::uint32_t flags, const MemPackCB *controlBlock) {
    host.setTraceFlags(flags);
    host.keepRecords(true);
    unpack(controlBlock);
    host.setTraceFlags(0);
    return ownRecords(host.takeRecords());
  }
  std::string entryLine() const {
    return "STDE Unpack Entry 1stBlk=" +
           refhost::formatText("%08X", static_cast<std::uint32_t>(asNumber(areas->first())));
  }
};

TEST_F(UnpackTraceTest, EntryAndExitAreTracedByTheirFlags) {
  load(chain);
  EXPECT_EQ(recordsOf(3, asControlBlock(callers)), (Lines{entryLine(), "STDX Return=SUCCESS"}));
  load(chain);
  EXPECT_EQ(recordsOf(1, asControlBlock(callers)), Lines{entryLine()});
  load(chain);
  EXPECT_EQ(recordsOf(2, asControlBlock(callers)), Lines{"STDX Return=SUCCESS"});
  load(chain);
  EXPECT_EQ(recordsOf(0, asControlBlock(callers)), Lines{});
  EXPECT_EQ(traceCalls(host), 0U);
}

TEST_F(UnpackTraceTest, FailureWritesNoExitRecord) {
  chain.blocks[0][2] = 'x';
  load(chain);
  EXPECT_EQ(recordsOf(3, asControlBlock(callers)), Lines{entryLine()});
}

TEST_F(UnpackTraceTest, AnotherLayoutIsTracedInTheExitRecords) {
  const Lines expected{
      "STDX The file written mode and current platform mode is incompatible",
      "STDX Switching to imcompatibility mode of processing to unpack the file contents correctly",
      "STDX The file was written in 32 bit and the current platform is 64 bit",
      "STDX Return=SUCCESS"};
  const Chain narrowPointers = chainwriter::write(tree, writerOf("0220", 4), kRoomy);
  load(narrowPointers);
  EXPECT_EQ(recordsOf(2, asControlBlock(callers)), expected);
  load(narrowPointers);
  EXPECT_EQ(recordsOf(1, asControlBlock(callers)), Lines{entryLine()});
  load(narrowPointers);
  EXPECT_EQ(recordsOf(2, nullptr), Lines(expected.begin(), expected.begin() + 2));
}

TEST_F(UnpackInPlaceTest, FrameCarriesTheName) {
  load(chain);
  host.recordCalls(true);
  unpack(callers);
  const std::vector<refhost::HostCall> calls = host.takeCalls();
  host.recordCalls(false);
  EXPECT_EQ(calls.front().service, Service::EnterFrame);
  EXPECT_EQ(calls.front().frame, "MEM_Unpack");
  EXPECT_EQ(calls.back().service, Service::LeaveFrame);
  EXPECT_EQ(calls.back().frame, "MEM_Unpack");
}

TEST_F(UnpackInPlaceTest, ReportComesAfterTheLastStorageCall) {
  chain.setPointer(part(kChildPart), {9, 2});
  load(chain);
  host.recordCalls(true);
  unpack(callers);
  const std::vector<refhost::HostCall> calls = host.takeCalls();
  host.recordCalls(false);
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls[calls.size() - 2].service, Service::ReportError);
  EXPECT_EQ(calls[calls.size() - 2].args[0], asNumber(error().NameText));
}

TEST_F(UnpackInPlaceTest, MissingThreadEnvironmentIsTolerated) {
  host.withoutThreadEnv(true);
  load(chain);
  EXPECT_EQ(unpack(callers), 0);
  chain.blocks[0][2] = 'x';
  load(chain);
  EXPECT_EQ(unpack(callers), MEMERR_PACKCBID);
  host.withoutThreadEnv(false);
}

// ---- Storage.

struct StorageCall {
  bool isAlloc;
  void *area;
  std::uint32_t size;
  std::int16_t subPool;
};
std::vector<StorageCall> storageCalls;
MEMFunctionVector realSlots;

void *watchedAlloc(std::uint32_t size, std::int16_t subPool) {
  void *const area = realSlots.MEM_Alloc(size, subPool);
  storageCalls.push_back({true, area, size, subPool});
  return area;
}

void watchedFree(void *area, std::uint32_t size, std::int16_t subPool) {
  storageCalls.push_back({false, area, size, subPool});
  realSlots.MEM_Free(area, size, subPool);
}

class UnpackStorageTest : public UnpackInPlaceTest {
 protected:
  void watch() {
    realSlots = mem;
    storageCalls.clear();
    mem.MEM_Alloc = watchedAlloc;
    mem.MEM_Free = watchedFree;
  }

  // Allocated lengths, in order. All blocks are from subpool 0, and those that are freed are freed
  // with their length.
  std::vector<std::uint32_t> obtained() {
    std::vector<std::uint32_t> sizes;
    std::map<void *, std::uint32_t> live;
    for (const StorageCall &call : storageCalls) {
      EXPECT_EQ(call.subPool, 0);
      if (call.isAlloc) {
        sizes.push_back(call.size);
        live[call.area] = call.size;
      } else {
        EXPECT_EQ(live[call.area], call.size);
        live.erase(call.area);
      }
    }
    kept = live.size();
    return sizes;
  }

  std::size_t kept = 0;
};

TEST_F(UnpackStorageTest, InPlaceTakesTheBlockTableFirstAndReturnsAll) {
  const std::size_t blockLen = chainwriter::smallestBlockLen(tree, writerOf("0220")) + 40;
  const Chain longer = chainwriter::write(tree, writerOf("0220"), blockLen);
  ASSERT_GT(longer.blocks.size(), 1U);
  load(longer);
  watch();
  expectUnpacked(unpack(callers), Became::Structure);
  const std::vector<std::uint32_t> sizes = obtained();
  ASSERT_EQ(sizes.size(), 2U);
  EXPECT_EQ(sizes[0], longer.blocks.size() * 8);
  EXPECT_EQ(kept, 0U);
}

TEST_F(UnpackStorageTest, StorageCallsDoNotGrowWithTheChain) {
  Tree longTree = tree;
  for (std::size_t i = 0; i < 3000; ++i) {
    const std::size_t last = i == 0 ? 0 : longTree.nodes.size() - 1;
    longTree.nodes[last].targets[kSiblingPart] = longTree.nodes.size();
    longTree.nodes.push_back({kRoot, {}, {kNone, kNone, 2, kNone, kNone}});
  }
  load(chainwriter::write(longTree, writerOf("0220"), kRoomy));
  watch();
  expectUnpacked(unpack(callers), Became::Structure);
  EXPECT_EQ(obtained().size(), 2U);
}

TEST_F(UnpackStorageTest, NewChainTakesItsTablesAndBlocks) {
  const Chain narrowPointers = chainwriter::write(
      tree, writerOf("0220", 4), chainwriter::smallestBlockLen(tree, writerOf("0220", 4)));
  ASSERT_EQ(narrowPointers.blocks.size(), 2U);
  load(narrowPointers);
  watch();
  expectUnpacked(unpack(callers), Became::NewChain);
  const std::vector<std::uint32_t> sizes = obtained();
  EXPECT_EQ(sizes.front(), 2U * 8);
  EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 3U * 4), 1);
  EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 33024U), 1);
  EXPECT_EQ(sizes.back(), 33024U);
  EXPECT_EQ(kept, 1U);
}

TEST_F(UnpackStorageTest, EveryFailureReturnsAll) {
  for (const std::size_t width : {std::size_t{8}, std::size_t{4}}) {
    Chain broken = chainwriter::write(tree, writerOf("0240", width), kRoomy);
    broken.setPointer(broken.partPlace(tree, 0, kReferencePart), {1, 2});
    load(broken);
    watch();
    unpack(callers);
    host.restoreSlots();
    EXPECT_EQ(nameText(), blkText(1));
    obtained();
    EXPECT_EQ(kept, 0U);
  }
}

// ---- Versions.

class UnpackVersionTest : public UnpackTest, public ::testing::WithParamInterface<Writer> {};

TEST_P(UnpackVersionTest, SampleTreeComesBack) {
  const Tree tree = chainwriter::sampleTree();
  const std::size_t smallest = chainwriter::smallestBlockLen(tree, GetParam());
  for (const std::size_t room : {std::size_t{0}, std::size_t{100}, std::size_t{4000}}) {
    load(chainwriter::write(tree, GetParam(), smallest + room));
    expectTree(tree, GetParam());
  }
}

TEST_P(UnpackVersionTest, RandomTreesComeBack) {
  for (std::uint64_t seed = 1; seed <= 150; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const Tree tree = chainwriter::randomTree(seed);
    load(chainwriter::write(tree, GetParam(),
                            chainwriter::smallestBlockLen(tree, GetParam()) + 130 + seed % 400));
    expectTree(tree, GetParam());
    if (HasFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(All, UnpackVersionTest, ::testing::ValuesIn(chainwriter::allWriters()),
                         [](const ::testing::TestParamInfo<Writer> &row) {
                           return row.param.name();
                         });

TEST_F(UnpackInPlaceTest, FirstCharacterMustBeADigit) {
  for (const int character : {0x00, 0x2F, 0x3A, 0x41, 0x7F, 0xEF, 0xFA, 0xFF}) {
    SCOPED_TRACE(character);
    chain.blocks[0][2] = static_cast<std::uint8_t>(character);
    load(chain);
    expectRefused(unpack(callers), MEMERR_PACKCBID, idText(blockBytes(0) + 10));
  }
}

TEST_F(UnpackInPlaceTest, VersionsOutsideOfTheTableAreRefused) {
  const char *const ascii[] = {"0000", "0102", "0110", "0120", "0202", "0210", "0222",
                               "0230", "0242", "0300", "1200", "9999", "02 0"};
  for (const std::string version : ascii) {
    SCOPED_TRACE(version);
    std::copy(version.begin(), version.end(), chain.blocks[0].begin() + 2);
    load(chain);
    expectRefused(unpack(callers), MEMERR_PACKCBVR,
                  "MemPackCBstructIDVersion=" + hex16(blockBytes(0) + 10));
  }
  const std::uint8_t ebcdic[][4] = {{0xF0, 0xF1, 0xF0, 0xF1}, {0xF0, 0xF2, 0xF2, 0xF0},
                                    {0xF0, 0xF2, 0xF0, 0xF1}, {0xF0, 0xF4, 0xF0, 0xF0},
                                    {0xF9, 0xF9, 0xF9, 0xF9}, {0xF0, '2', '0', '0'}};
  for (const auto &version : ebcdic) {
    std::copy(std::begin(version), std::end(version), chain.blocks[0].begin() + 2);
    load(chain);
    expectRefused(unpack(callers), MEMERR_PACKCBVR,
                  "MemPackCBstructIDVersion=" + hex16(blockBytes(0) + 10));
  }
}

// The platform flag shows what the host calls its own order; numbers are the machine's all along.
TEST_F(UnpackInPlaceTest, HostWithThePlatformFlagReadsItsOwnChains) {
  const auto setVersion = [](Chain &target, const char *version) {
    std::copy(version, version + 4, target.blocks[0].begin() + 2);
  };
  host.sysEnv().PlatformFlags = 0xFFFF0000U | MEM_PLATFORM_BIG_ENDIAN;
  setVersion(chain, "0221");
  load(chain.blocks, writerOf("0221"));
  expectUnpacked(unpack(callers), Became::Structure);
  EXPECT_EQ(chainwriter::difference(tree, writerOf("0220"), Became::Structure, root), "");

  Chain swapped = chainwriter::write(tree, writerOf("0221"), kRoomy);
  setVersion(swapped, "0220");
  load(swapped.blocks, writerOf("0220"));
  expectUnpacked(unpack(callers), Became::Structure);
  EXPECT_EQ(chainwriter::difference(tree, writerOf("0221"), Became::Structure, root), "");
}

// ---- Control block.

TEST_F(UnpackInPlaceTest, ControlBlockOfTheOtherOrderIsSwappedInPlace) {
  const Tree sample = chainwriter::sampleTree();
  // Entries that are not used hold 0xEE in both and stay so.
  const Bytes native = readersControlBlock(sample);
  for (const char *version : {"0201", "0221", "0241"}) {
    const Chain big = chainwriter::write(sample, writerOf(version), kRoomy);
    EXPECT_NE(Bytes(big.blocks[0].begin() + 6, big.blocks[0].begin() + 984), native);
    load(big);
    EXPECT_EQ(unpack(native), 0);
    EXPECT_EQ(changedRanges(bytesOf(blockBytes(0) + 14, native.size()), native), "");
  }
}

TEST_F(UnpackInPlaceTest, UnusedEntriesAreNotSwapped) {
  Chain big = chainwriter::write(tree, writerOf("0221"), kRoomy);
  const Place unusedChild = big.childEntryPlace(kRoot, 3);
  const Place unusedReference = big.referenceEntryPlace(kRoot, 1);
  const Place textChild = big.childEntryPlace(kName, 0);
  const Place beyondCount = big.descriptorPlace(4);
  for (const Place place : {unusedChild, unusedReference, textChild, beyondCount}) {
    big.setNumber(place, 0x1234);
  }
  load(big);
  EXPECT_EQ(unpack(callers), 0);
  for (const Place place : {unusedChild, unusedReference, textChild, beyondCount}) {
    EXPECT_EQ(bytesOf(blockBytes(0) + 8 + place.offset, 2), (Bytes{0x12, 0x34}));
  }
}

// Entries are used when the counts say so, of texts as well; a count that is out of range uses
// none.
TEST_F(UnpackInPlaceTest, UsedEntriesOfTextAreSwapped) {
  struct Row {
    std::uint16_t children;
    std::uint16_t references;
    std::size_t childrenUsed;
    std::size_t referencesUsed;
  };
  const Row rows[] = {{2, 9, 2, 0}, {24, 8, 24, 8}, {25, 3, 0, 3}, {0xFFFF, 0xFFFF, 0, 0}};
  for (const Row &row : rows) {
    SCOPED_TRACE(row.children);
    Chain big = chainwriter::write(tree, writerOf("0221"), kRoomy);
    const std::size_t name = big.descriptorPlace(kName).offset;
    big.setNumber({0, name + 6}, row.children);
    big.setNumber({0, name + 8}, row.references);
    for (std::size_t at = name + 10; at < name + 122; at += 2) big.setNumber({0, at}, 0x1234);
    load(big);
    EXPECT_EQ(unpack(callers), 0);
    for (std::size_t at = 10; at < 122; at += 2) {
      const bool isUsed =
          at < 106 ? at < 10 + 4 * row.childrenUsed : at < 106 + 2 * row.referencesUsed;
      EXPECT_EQ(bytesOf(blockBytes(0) + 8 + name + at, 2),
                (isUsed ? Bytes{0x34, 0x12} : Bytes{0x12, 0x34}))
          << at;
    }
  }
}

// Kinds beyond the count are swapped when a kind that is swapped names them.
TEST_F(UnpackInPlaceTest, NamedKindsBeyondTheCountAreSwapped) {
  chain = chainwriter::write(tree, writerOf("0221"), kRoomy);
  const auto describe = [this](std::size_t kind, std::uint16_t children, std::uint16_t named) {
    const std::uint16_t fields[] = {'F', 8, 0xFFFF, children, 0, named, 0, 0x1234, 0x1234};
    for (std::size_t i = 0; i < std::size(fields); ++i) {
      chain.setNumber({0, chain.descriptorPlace(kind).offset + 2 * i}, fields[i]);
    }
  };
  for (std::size_t kind = 4; kind < 8; ++kind) describe(kind, 0, 0);
  chain.setNumber(chain.childEntryPlace(kRoot, 0), 6);
  chain.setPointer(part(kChildPart), {0, 0});
  describe(6, 1, 5);
  describe(5, 1, 6);
  load(chain);
  EXPECT_EQ(unpack(callers), 0);
  const auto swapped = [this](std::size_t kind, std::size_t field) {
    const std::size_t at = chain.descriptorPlace(kind).offset + field;
    const Bytes before(chain.blocks[0].begin() + static_cast<std::ptrdiff_t>(at),
                       chain.blocks[0].begin() + static_cast<std::ptrdiff_t>(at + 2));
    const Bytes after = bytesOf(blockBytes(0) + 8 + at, 2);
    EXPECT_TRUE(after == before || after == (Bytes{before[1], before[0]}));
    return after != before;
  };
  for (std::size_t kind = 4; kind < 8; ++kind) {
    SCOPED_TRACE(kind);
    const bool isNamed = kind == 5 || kind == 6;
    EXPECT_EQ(swapped(kind, 0), isNamed);
    EXPECT_EQ(swapped(kind, 2), isNamed);
    EXPECT_EQ(swapped(kind, 10), isNamed);
    EXPECT_FALSE(swapped(kind, 14));
    EXPECT_FALSE(swapped(kind, 16));
  }
}

TEST_F(UnpackInPlaceTest, OtherControlBlocksStayAsTheyAre) {
  for (const Writer &writer : {writerOf("0220"), writerOf("0100"), writerOf("0101"),
                               chainwriter::ebcdicWriterOf("0100")}) {
    SCOPED_TRACE(writer.name());
    const Chain written = chainwriter::write(tree, writer, kRoomy);
    const std::size_t length = writer.isOldLayout ? 466 : 978;
    load(written);
    EXPECT_EQ(unpack(callers), 0);
    const Bytes before(written.blocks[0].begin() + 6,
                       written.blocks[0].begin() + 6 + static_cast<std::ptrdiff_t>(length));
    EXPECT_EQ(changedRanges(bytesOf(blockBytes(0) + 14, length), before), "");
  }
}

TEST_F(UnpackInPlaceTest, ControlBlockMustLieInBlockZero) {
  const std::size_t head = 984;  // used length that holds the control block and nothing else
  for (const std::size_t used : {std::size_t{0}, std::size_t{2}, std::size_t{6}, std::size_t{7},
                                 std::size_t{8}, std::size_t{100}, head - 1}) {
    SCOPED_TRACE(used);
    Chain cut = chain;
    cut.setUsedLen(0, static_cast<std::uint16_t>(used));
    load(cut);
    expectRefused(unpack(callers), MEMERR_PACKCBID, idText(blockBytes(0) + 14));
  }
  for (const int count : {0, -1, -32768, 600, 32767}) {
    SCOPED_TRACE(count);
    Chain wrong = chain;
    wrong.setNumber(Chain::countPlace(), static_cast<std::uint16_t>(count));
    load(wrong);
    expectRefused(unpack(callers), MEMERR_PACKCBID, idText(blockBytes(0) + 14));
  }
}

TEST_F(UnpackInPlaceTest, CountsOutOfRangeAreRefused) {
  struct Row {
    const char *version;
    std::size_t field;  // in the descriptor
    int value;
  };
  const Row rows[] = {{"0220", 6, 25}, {"0220", 6, -1},    {"0220", 8, 9},  {"0220", 8, -1},
                      {"0221", 6, 25}, {"0221", 8, 32767}, {"0100", 6, 9},  {"0100", 6, -1},
                      {"0101", 6, 9},  {"0101", 8, 9},     {"0220", 10, 8}, {"0220", 10, 65535},
                      {"0100", 10, 8}, {"0221", 10, 8}};
  for (const Row &row : rows) {
    SCOPED_TRACE(std::string(row.version) + " field " + std::to_string(row.field) + " value " +
                 std::to_string(row.value));
    Chain wrong = chainwriter::write(tree, writerOf(row.version), kRoomy);
    const std::size_t descriptor = wrong.descriptorPlace(kRoot).offset;
    wrong.setNumber({0, descriptor + row.field}, static_cast<std::uint16_t>(row.value));
    load(wrong);
    expectRefused(unpack(callers), MEMERR_PACKCBID, idText(blockBytes(0) + 8 + descriptor));
  }
}

TEST_F(UnpackInPlaceTest, RefusedControlBlockIsNotSwapped) {
  Chain wrong = chainwriter::write(tree, writerOf("0221"), kRoomy);
  wrong.setNumber({0, wrong.descriptorPlace(kTitle - 2).offset + 8}, 9);
  load(wrong);
  EXPECT_EQ(unpack(callers), MEMERR_PACKCBID);
  EXPECT_EQ(bytesOf(blockBytes(0) + 8, wrong.blocks[0].size()), wrong.blocks[0]);
}

// With fewer than eight descriptors the others have room, and a child may be of such a kind.
TEST_F(UnpackInPlaceTest, KindsBeyondTheCountAreCheckedWhenReached) {
  for (const char *version : {"0220", "0221"}) {
    Chain odd = chainwriter::write(tree, writerOf(version), kRoomy);
    odd.setNumber(odd.childEntryPlace(kRoot, 0), 7);
    const std::size_t descriptor = odd.descriptorPlace(7).offset;
    load(odd);  // all 0xEE
    expectRefused(unpack(callers), MEMERR_PACKCBID, idText(blockBytes(0) + 8 + descriptor));

    const std::uint16_t header[] = {'F', 5, 0xFFFF, 0, 0};
    for (std::size_t i = 0; i < std::size(header); ++i) {
      odd.setNumber({0, descriptor + 2 * i}, header[i]);
    }
    load(odd);
    expectTree(tree, writerOf(version));
  }
}

// Its pointers are null, so that nothing but its descriptor is wrong.
TEST_F(UnpackInPlaceTest, KindBeyondTheCountNeedsKindsForItsChildren) {
  tree.kinds[kChild] = {Form::Fixed, {child(kName), data(5)}};
  tree.nodes[kChild].targets = {kNone};
  chain = chainwriter::write(tree, writerOf("0220"), kRoomy);
  chain.setNumber(chain.childEntryPlace(kRoot, 0), 7);
  const std::size_t descriptor = chain.descriptorPlace(7).offset;
  for (const std::uint16_t kind : {std::uint16_t{kName}, std::uint16_t{200}}) {
    const std::uint16_t fields[] = {'F', 13, 0xFFFF, 1, 0, kind, 0};
    for (std::size_t i = 0; i < std::size(fields); ++i) {
      chain.setNumber({0, descriptor + 2 * i}, fields[i]);
    }
    load(chain);
    if (kind == kName) {
      expectTree(tree, writerOf("0220"));
    } else {
      expectRefused(unpack(callers), MEMERR_PACKCBID, idText(blockBytes(0) + 8 + descriptor));
    }
  }
}

TEST_F(UnpackInPlaceTest, FieldsOfTextDescriptorsAreNeverLookedAt) {
  for (const char *version : {"0220", "0101"}) {
    Chain odd = chainwriter::write(tree, writerOf(version), kRoomy);
    for (const std::size_t kind : {kName, kTitle}) {
      for (std::size_t field = 2; field < 58; field += 2) {
        odd.setNumber({0, odd.descriptorPlace(kind).offset + field}, 0x7FFF);
      }
    }
    load(odd);
    expectTree(tree, writerOf(version));
  }
}

// ---- Blocks and root.

TEST_F(UnpackInPlaceTest, NoFirstBlockIsRefused) {
  first = nullptr;
  expectRefused(unpack(callers), MEMERR_PACKBMAX, "MaxBlocksValueBad=0");
  root = nullptr;
  EXPECT_EQ(mem.MEM_Unpack(nullptr, &root, asControlBlock(callers)), MEMERR_PACKBMAX);
  EXPECT_EQ(nameText(), "MaxBlocksValueBad=0");
}

TEST_F(UnpackInPlaceTest, RootFollowsTheControlBlock) {
  load(chain);
  expectUnpacked(unpack(callers), Became::Structure);
  EXPECT_EQ(root, blockBytes(0) + 14 + 978);
}

TEST_F(UnpackInPlaceTest, WithoutAPlaceForItTheRootIsNotStored) {
  load(chain);
  ASSERT_EQ(mem.MEM_Unpack(&first, nullptr, asControlBlock(callers)), 0);
  EXPECT_EQ(reinterpret_cast<std::uint8_t *>(first), blockBytes(0));
}

TEST_F(UnpackInPlaceTest, RootThatDoesNotFitOpensBlockOne) {
  const Writer writer = writerOf("0221");
  load(chainwriter::write(tree, writer, chainwriter::smallestBlockLen(tree, writer)));
  expectTree(tree, writer);
  EXPECT_EQ(root, blockBytes(1) + 10);
}

TEST_F(UnpackInPlaceTest, RootInAMissingOrEmptyBlockIsRefused) {
  chain.blocks.resize(1);
  chain.setUsedLen(0, 984);
  expectRefusal(tree, chain, MEMERR_PACKRBLK, blkText(1));
  chain.blocks.push_back(Bytes(2));
  for (std::uint16_t used = 0; used <= 2; ++used) {
    chain.setUsedLen(1, used);
    expectRefusal(tree, chain, MEMERR_PACKROFF, offText(2));
  }
}

TEST_F(UnpackInPlaceTest, SixteenBitBlockNumbersLimitTheChain) {
  chain.blocks.resize(32767, Bytes{2, 0});
  load(chain);
  expectUnpacked(unpack(callers), Became::Structure);
  chain.blocks.push_back(Bytes{2, 0});
  expectRefusal(tree, chain, MEMERR_PACKBMAX, "MaxBlocksValueBad=-32768");
}

TEST_F(UnpackInPlaceTest, LinksInACircleAreRefused) {
  load(chain);
  first->pNext = first;
  EXPECT_EQ(unpack(callers), MEMERR_PACKBMAX);
  EXPECT_EQ(nameText(), "MaxBlocksValueBad=-32768");
  first->pNext = nullptr;
}

// Blocks that overlap are the caller's mistake. Whatever comes of it, nothing outside of them is
// read or written. Here block 1's segment begins in the middle of the root's pointer field, and is
// null until that becomes an address.
TEST_F(UnpackInPlaceTest, OverlappingBlocksDoNoHarm) {
  constexpr std::size_t kRootOff = 6 + 978;
  constexpr std::size_t kSecondBlock = 976;
  constexpr std::uint16_t kSecondOff = 12;
  static_assert(kSecondBlock + kSecondOff == kRootOff + 4);
  MemPackCB described{};
  described.Count = 1;
  described.Descriptors[0].Type = MEM_PACK_FIXED;
  described.Descriptors[0].FixedLen = sizeof(void *);
  described.Descriptors[0].SiblingOff = 0;
  std::vector<std::uint64_t> area(128);
  auto *const bytes = reinterpret_cast<std::uint8_t *>(area.data());
  const auto put = [bytes](std::size_t offset, auto value) {
    std::memcpy(bytes + offset, &value, sizeof value);
  };
  std::memcpy(bytes + 14, &described, sizeof described);
  std::memcpy(bytes + 10, "0220", 4);
  put(0, bytes + kSecondBlock);
  put(8, static_cast<std::uint16_t>(kRootOff + 8));
  put(kSecondBlock + 8, static_cast<std::uint16_t>(kSecondOff + 8));
  put(8 + kRootOff, MemPackRelPtr{1, kSecondOff, 0});
  auto *block = reinterpret_cast<MemPackBlock *>(bytes);
  void *structure = nullptr;
  const std::int16_t result = mem.MEM_Unpack(&block, &structure, &described);
  EXPECT_TRUE(result == 0 || result == MEMERR_PACKRBLK) << result;
}

// The same for structures of all shapes: each block begins somewhere in the one before, so
// segments, texts and pointer fields of one block are content of others.
TEST_F(UnpackInPlaceTest, BlocksAtRandomPlacesOverEachOtherDoNoHarm) {
  for (std::uint64_t seed = 1; seed <= 600; ++seed) {
    std::mt19937_64 random(seed);
    tree = chainwriter::randomTree(seed);
    const Writer writer = writerOf(seed % 2 == 0 ? "0220" : "0221");
    const chainwriter::Chain written =
        chainwriter::write(tree, writer, chainwriter::smallestBlockLen(tree, writer));
    std::vector<std::size_t> starts;
    std::size_t end = 0;
    for (std::size_t start = 0; const Bytes &block : written.blocks) {
      starts.push_back(start);
      end = std::max(end, start + sizeof(void *) + block.size());
      start += 16 + random() % (block.size() / 8 + 1) * 8;
    }
    const auto area = std::make_unique<std::uint8_t[]>(end);
    for (std::size_t i = 0; i < starts.size(); ++i) {
      std::ranges::copy(written.blocks[i], area.get() + starts[i] + sizeof(void *));
    }
    for (std::size_t i = 0; i < starts.size(); ++i) {
      const bool isLast = i + 1 == starts.size();
      const void *pNext = isLast ? nullptr : area.get() + starts[i + 1];
      std::memcpy(area.get() + starts[i], &pNext, sizeof pNext);
      std::memcpy(area.get() + starts[i] + sizeof pNext, written.blocks[i].data(), 2);
    }
    auto *block = reinterpret_cast<MemPackBlock *>(area.get());
    void *structure = nullptr;
    const std::uint64_t before = host.account().liveCount;
    const Bytes native = readersControlBlock(tree);
    const std::int16_t result = mem.MEM_Unpack(&block, &structure, asControlBlock(native));
    EXPECT_GE(result, 0) << seed;
    EXPECT_EQ(host.account().liveCount, before) << seed;
  }
}

// Segments of nothing but a pointer, too many for the work area's list of them.
TEST_F(UnpackInPlaceTest, LongListsOfShortSegmentsComeBack) {
  for (const char *version : {"0220", "0221"}) {
    for (const std::size_t length : {std::size_t{0}, std::size_t{4}, std::size_t{8}}) {
      tree = {.kinds = {{Form::Fixed, {sibling(), data(length)}}}, .nodes = {}};
      constexpr std::size_t kCount = 3000;
      for (std::size_t i = 0; i < kCount; ++i) {
        tree.nodes.push_back({0, Bytes(length, 7), {i + 1 < kCount ? i + 1 : kNone}});
      }
      callers = readersControlBlock(tree);
      load(chainwriter::write(tree, writerOf(version), kRoomy));
      expectUnpacked(unpack(callers), Became::Structure);
    }
  }
}

// ---- Layouts.

class UnpackLayoutTest : public UnpackTraceTest {
 protected:
  // The small tree with so many kinds that nobody uses the last ones.
  void makeKinds(std::size_t count) {
    tree.kinds.resize(count, {Form::Fixed, {data(2)}});
    chain = chainwriter::write(tree, writerOf("0220"), kRoomy);
    callers = readersControlBlock(tree);
    load(chain);
  }
  void moveCallersChild(std::size_t entry, int by) {
    MemPackChild &moved = descriptorOf(callers, 0).Children[entry];
    moved.Offset = static_cast<std::int16_t>(moved.Offset + by);
  }
  // The third record shows the direction.
  std::string direction() {
    const Lines lines = recordsOf(2, asControlBlock(callers));
    return lines.size() < 3 ? "in place" : lines[2];
  }
  static constexpr char k32[] =
      "STDX The file was written in 32 bit and the current platform is 64 bit";
  static constexpr char k64[] =
      "STDX The file was written in 64 bit and the current platform is 32 bit";
};

TEST_F(UnpackLayoutTest, OnlyTheFirstChildCountsWithTwentyDescriptors) {
  for (const std::size_t count : {std::size_t{4}, std::size_t{20}}) {
    makeKinds(count);
    moveCallersChild(1, 4);
    descriptorOf(callers, 0).SiblingOff = 99;
    descriptorOf(callers, 1).FixedLen = 0;
    EXPECT_EQ(direction(), "in place");
    EXPECT_FALSE(hasNewChain());
  }
}

TEST_F(UnpackLayoutTest, SecondChildCountsFromTwentyOneDescriptorsOn) {
  makeKinds(21);
  EXPECT_EQ(direction(), "in place");
  makeKinds(21);
  moveCallersChild(1, 4);
  EXPECT_EQ(direction(), k32);
  makeKinds(21);
  moveCallersChild(1, -4);
  EXPECT_EQ(direction(), k64);
}

TEST_F(UnpackLayoutTest, FirstChildTellsTheDirection) {
  makeKinds(20);
  moveCallersChild(0, 1);
  EXPECT_EQ(direction(), k32);
  makeKinds(20);
  moveCallersChild(0, -1);
  moveCallersChild(1, 1);
  EXPECT_EQ(direction(), k64);
  makeKinds(21);
  moveCallersChild(0, -1);
  EXPECT_EQ(direction(), k64);
  makeKinds(21);
  moveCallersChild(0, -1);
  moveCallersChild(1, 1);
  EXPECT_EQ(direction(), k32);
}

// The entries count as they are stored, whether anything uses them or not.
TEST_F(UnpackLayoutTest, UnusedEntriesCountAsTheyAreStored) {
  struct Row {
    int by;
    const char *direction;
  };
  const Row rows[] = {{0, "in place"}, {4, k32}, {-4, k64}};
  for (const std::size_t entry : {std::size_t{0}, std::size_t{1}}) {
    for (const Row &row : rows) {
      SCOPED_TRACE(std::to_string(entry) + " by " + std::to_string(row.by));
      tree = smallTree();
      tree.kinds[0].parts = entry == 0 ? std::vector<chainwriter::Part>{sibling(), data(9)}
                                       : std::vector<chainwriter::Part>{child(1), data(9)};
      tree.nodes = {{kRoot, Bytes(9), {kNone}}};
      makeKinds(21);
      chain.setNumber({0, chain.childEntryPlace(0, entry).offset + 2}, 0x40);
      load(chain);
      descriptorOf(callers, 0).Children[entry].Offset = static_cast<std::int16_t>(0x40 + row.by);
      EXPECT_EQ(direction(), row.direction);
    }
  }
}

TEST_F(UnpackLayoutTest, TypesAndCountsOfTheCallerDoNotMatter) {
  makeKinds(4);
  descriptorOf(callers, 0).Type = MEM_PACK_STRING;
  EXPECT_EQ(direction(), "in place");
  for (const int count : {0, -1, 25}) {
    makeKinds(4);
    descriptorOf(callers, 0).ChildCount = static_cast<std::int16_t>(count);
    descriptorOf(callers, 0).ReferenceCount = 9;
    EXPECT_EQ(direction(), "in place");
  }
  makeKinds(4);
  moveCallersChild(0, 1);
  descriptorOf(callers, 0).Type = MEM_PACK_STRING;
  EXPECT_EQ(direction(), k32);
}

// Of the other order, used entries are compared swapped and others as they are in the file.
TEST_F(UnpackLayoutTest, UnusedEntriesOfTheOtherOrderAreNotSwapped) {
  tree.kinds[0].parts = {sibling(), data(9)};
  tree.nodes = {{kRoot, Bytes(9), {kNone}}};
  makeKinds(4);
  Chain big = chainwriter::write(tree, writerOf("0221"), kRoomy);
  big.setNumber({0, big.childEntryPlace(0, 0).offset + 2}, 0x0120);
  load(big);
  descriptorOf(callers, 0).Children[0].Offset = 0x2001;
  EXPECT_EQ(direction(), "in place");
  load(big);
  descriptorOf(callers, 0).Children[0].Offset = 0x0120;
  EXPECT_EQ(direction(), k64);
  // Text has used entries, too, when its counts say so.
  const std::size_t header = big.descriptorPlace(0).offset;
  big.setNumber({0, header}, MEM_PACK_STRING);
  big.setNumber({0, header + 6}, 1);
  load(big);
  EXPECT_EQ(direction(), "in place");
  big.setNumber({0, header + 6}, 25);
  load(big);
  EXPECT_EQ(direction(), k64);
}

TEST_F(UnpackLayoutTest, UnusedEntriesOfTheOldLayoutAreZero) {
  tree.kinds[0].parts = {sibling(), data(9)};
  tree.nodes = {{kRoot, Bytes(9), {kNone}}};
  makeKinds(4);
  for (const char *version : {"0100", "0101"}) {
    Chain old = chainwriter::write(tree, writerOf(version), kRoomy);
    old.setNumber({0, old.childEntryPlace(0, 0).offset + 2}, 0x40);
    load(old);
    descriptorOf(callers, 0).Children[0].Offset = 0;
    EXPECT_EQ(direction(), "in place");
    load(old);
    descriptorOf(callers, 0).Children[0].Offset = 0x40;
    EXPECT_EQ(direction(), k32);
  }
}

TEST_F(UnpackLayoutTest, CallersControlBlockIsNeeded) {
  load(chain);
  expectRefused(unpack(nullptr), MEMERR_PACKAMEM, "NewPackCBInvalid");
  for (std::int16_t count = 0; count >= -1; --count) {
    std::memcpy(callers.data(), &count, sizeof count);
    load(chain);
    expectRefused(unpack(callers), MEMERR_PACKAMEM, "NewPackCBInvalid");
  }
}

// ---- Relative pointers, in place and into a new chain.

class UnpackPointerTest : public UnpackTest,
                          public ::testing::WithParamInterface<std::tuple<const char *, int>> {
 protected:
  Writer writer =
      writerOf(std::get<0>(GetParam()), static_cast<std::size_t>(std::get<1>(GetParam())));
  Tree tree = smallTree();
  Chain sound = chainwriter::write(tree, writer, kRoomy);

  Place part(std::size_t index) const { return sound.partPlace(tree, 0, index); }
  Chain withPointer(std::size_t partIndex, Place target) {
    Chain changed = sound;
    changed.setPointer(part(partIndex), target);
    return changed;
  }
};

TEST_P(UnpackPointerTest, BlockNumberMustExist) {
  for (const std::size_t index :
       {kSiblingPart, kChildPart, kNamePart, kTitlePart, kReferencePart}) {
    SCOPED_TRACE(index);
    for (const int block : {-1, 1, 32767, -32768}) {
      const Chain changed = withPointer(index, {static_cast<std::uint16_t>(block), 990});
      expectRefusal(tree, changed, MEMERR_PACKRBLK, blkText(block));
    }
  }
}

TEST_P(UnpackPointerTest, OffsetMustBeUsed) {
  const std::size_t used = sound.blocks[0].size();
  for (const std::size_t index :
       {kSiblingPart, kChildPart, kNamePart, kTitlePart, kReferencePart}) {
    SCOPED_TRACE(index);
    for (const std::size_t offset :
         {used, used + 1, std::size_t{32767}, std::size_t{32768}, std::size_t{65535}}) {
      expectRefusal(tree, withPointer(index, {0, offset}), MEMERR_PACKROFF, offText(offset));
    }
  }
}

TEST_P(UnpackPointerTest, NullPointersStayNull) {
  for (std::size_t &target : tree.nodes[0].targets) target = kNone;
  load(chainwriter::write(tree, writer, kRoomy));
  expectTree(tree, writer);
}

TEST_P(UnpackPointerTest, TextMustEndInItsBlock) {
  Tree textLast = tree;
  for (const std::size_t text : {std::size_t{2}, std::size_t{3}}) {
    textLast.nodes[0].targets = {kNone, kNone, text == 2 ? text : kNone, text == 3 ? text : kNone,
                                 kNone};
    Chain cut = chainwriter::write(textLast, writer, kRoomy);
    const std::size_t unit = text == 2 ? 1 : writer.wideSize;
    const std::size_t units = text == 2 ? 7 : 5;
    const std::size_t end = cut.places[text].offset + unit * units;
    cut.blocks[0].resize(end);
    cut.setUsedLen(0, static_cast<std::uint16_t>(end));
    load(cut);
    expectTree(textLast, writer);
    cut.setUsedLen(0, static_cast<std::uint16_t>(end - 1));
    expectRefusal(textLast, cut, MEMERR_PACKROFF, offText(cut.places[text].offset));
  }
}

TEST_P(UnpackPointerTest, SegmentMustLieInItsBlock) {
  Tree segmentLast = tree;
  segmentLast.nodes[0].targets = {kNone, 1, kNone, kNone, 1};
  Chain cut = chainwriter::write(segmentLast, writer, kRoomy);
  const std::size_t end = cut.blocks[0].size();
  cut.setUsedLen(0, static_cast<std::uint16_t>(end - 1));
  expectRefusal(segmentLast, cut, MEMERR_PACKROFF, offText(cut.places[1].offset));
}

TEST_P(UnpackPointerTest, LengthWordsAreChecked) {
  for (const Form form : {Form::Counted, Form::SelfDescribing}) {
    Tree told = tree;
    told.kinds[kChild].form = form;
    told.nodes[0].targets = {kNone, 1, kNone, kNone, kNone};
    Chain cut = chainwriter::write(told, writer, kRoomy);
    load(cut);
    expectTree(told, writer);
    const std::uint16_t right = cut.number(cut.places[1]);
    for (const int value : {right + 1, 32767, 65535, form == Form::Counted ? 0x8000 : 1}) {
      cut.setNumber(cut.places[1], static_cast<std::uint16_t>(value));
      expectRefusal(told, cut, MEMERR_PACKROFF, offText(cut.places[1].offset));
    }
    cut.setUsedLen(0, static_cast<std::uint16_t>(cut.places[1].offset + 1));
    expectRefusal(told, cut, MEMERR_PACKROFF, offText(cut.places[1].offset));
  }
}

TEST_P(UnpackPointerTest, PointerFieldsMustLieInTheBlock) {
  const std::size_t rootOffset = sound.places[0].offset;
  const std::size_t room = sound.blocks[0].size() - rootOffset;
  for (const std::size_t offset :
       {room - writer.pointerWidth + 1, room, std::size_t{32767}, std::size_t{0x8000}}) {
    SCOPED_TRACE(offset);
    for (const bool isSibling : {true, false}) {
      Chain changed = sound;
      const Place entry = isSibling ? Place{0, sound.descriptorPlace(0).offset + 4}
                                    : sound.referenceEntryPlace(0, 0);
      changed.setNumber(entry, static_cast<std::uint16_t>(offset));
      load(changed);
      EXPECT_EQ(unpack(readersControlBlock(tree)), MEMERR_PACKROFF);
      EXPECT_EQ(nameText().rfind("Invalid Relative Offset=", 0), 0U) << nameText();
      expectCellsUntouched();
    }
  }
}

// ---- Recursion, sharing, overlap.

TEST_P(UnpackPointerTest, SegmentsAreReachedOnce) {
  // Back to the root, to the sibling itself, and twice to a segment without pointers.
  expectRefusal(tree, withPointer(kSiblingPart, sound.places[0]), MEMERR_PACKCYCL, kRecursive);
  Tree twice = tree;
  twice.kinds[kRoot].parts[kNamePart] = child(kChild);
  twice.nodes[0].targets[kNamePart] = 1;
  expectRefusal(twice, chainwriter::write(twice, writer, kRoomy), MEMERR_PACKCYCL, kRecursive);
  Tree loop = tree;
  loop.kinds[kChild] = {Form::Fixed, {sibling(), data(5)}};
  loop.nodes[1].targets = {kNone};
  Chain looped = chainwriter::write(loop, writer, kRoomy);
  looped.setPointer(looped.partPlace(loop, 1, 0), looped.places[1]);
  expectRefusal(loop, looped, MEMERR_PACKCYCL, kRecursive);
}

TEST_P(UnpackPointerTest, WideTextIsReachedOnceNarrowTextMayBeShared) {
  Tree shared = tree;
  shared.kinds[kRoot].parts[kTitlePart] = child(kName);
  shared.nodes[0].targets[kTitlePart] = 2;
  load(chainwriter::write(shared, writer, kRoomy));
  expectTree(shared, writer);

  shared.kinds[kRoot].parts[kNamePart] = child(kTitle);
  shared.kinds[kRoot].parts[kTitlePart] = child(kTitle);
  shared.nodes[0].targets[kNamePart] = 3;
  shared.nodes[0].targets[kTitlePart] = 3;
  expectRefusal(shared, chainwriter::write(shared, writer, kRoomy), MEMERR_PACKCYCL, kRecursive);
}

TEST_P(UnpackPointerTest, TextAndSegmentsDoNotOverlap) {
  // Wide text over the root's pointers, and over the tail of other wide text.
  expectRefusal(tree, withPointer(kTitlePart, sound.places[0]), MEMERR_PACKCYCL, kRecursive);
  Tree two = tree;
  two.kinds[kRoot].parts[kNamePart] = child(kTitle);
  two.nodes[0].targets[kNamePart] = 3;
  Chain changed = chainwriter::write(two, writer, kRoomy);
  changed.setPointer(changed.partPlace(two, 0, kTitlePart),
                     {0, changed.places[3].offset + writer.wideSize});
  expectRefusal(two, changed, MEMERR_PACKCYCL, kRecursive);
}

INSTANTIATE_TEST_SUITE_P(Writers, UnpackPointerTest,
                         ::testing::Combine(::testing::Values("0100", "0221", "0240", "0241"),
                                            ::testing::Values(8, 4)),
                         [](const ::testing::TestParamInfo<std::tuple<const char *, int>> &row) {
                           return writerOf(std::get<0>(row.param),
                                           static_cast<std::size_t>(std::get<1>(row.param)))
                               .name();
                         });

// Blocks may be longer than the offsets in relative pointers.
TEST_F(UnpackInPlaceTest, OffsetsHaveFifteenBits) {
  const std::size_t used = 40000;
  chain.blocks[0].resize(used);
  chain.setUsedLen(0, static_cast<std::uint16_t>(used));
  for (const std::size_t index :
       {kSiblingPart, kChildPart, kNamePart, kTitlePart, kReferencePart}) {
    Chain changed = chain;
    changed.setPointer(part(index), {0, 0x8001});
    expectRefusal(tree, changed, MEMERR_PACKROFF, offText(0x8001));
  }
  chain.setPointer(part(kReferencePart), {0, 0x7FFF});
  load(chain);
  expectUnpacked(unpack(callers), Became::Structure);
}

// A pointer to the very start of the chain is null but for the bytes that mean nothing. It stays a
// pointer, also where the way leads back to texts that were reached before.
TEST_F(UnpackInPlaceTest, ReferenceMayLeadToTheFirstByte) {
  tree.kinds[kRoot].parts[kTitlePart] = child(kName);
  tree.nodes[0].targets[kTitlePart] = 2;
  for (const bool isShared : {true, false}) {
    if (!isShared) tree.nodes[0].targets[kTitlePart] = kNone;
    chain = chainwriter::write(tree, writerOf("0220"), kRoomy);
    chain.setPointer(part(kReferencePart), {0, 0});
    chain.blocks[0][part(kReferencePart).offset + 7] = 1;
    load(chain);
    expectUnpacked(unpack(callers), Became::Structure);
    const std::uint8_t *target = nullptr;
    std::memcpy(&target, static_cast<const std::uint8_t *>(root) + 32, sizeof target);
    EXPECT_EQ(target, blockBytes(0) + 8);
  }
}

TEST_F(UnpackInPlaceTest, ReferenceMayLeadToAnyUsedByte) {
  const std::size_t last = chain.blocks[0].size() - 1;
  chain.setPointer(part(kReferencePart), {0, last});
  load(chain);
  expectUnpacked(unpack(callers), Became::Structure);
  const std::uint8_t *target = nullptr;
  std::memcpy(&target, static_cast<const std::uint8_t *>(root) + 32, sizeof target);
  EXPECT_EQ(target, blockBytes(0) + 8 + last);
}

// The end of text is looked for in steps, none of which may go beyond the block.
TEST_F(UnpackInPlaceTest, NarrowTextOfAnyLengthEndsInItsBlock) {
  tree.nodes[0].targets = {kNone, kNone, 2, kNone, kNone};
  for (std::size_t length = 0; length <= 130; ++length) {
    SCOPED_TRACE(length);
    tree.nodes[2].narrow.assign(length, 'x');
    for (const bool isFollowed : {false, true}) {
      tree.nodes[0].targets[kTitlePart] = isFollowed ? 3 : kNone;
      chain = chainwriter::write(tree, writerOf("0220"), kRoomy);
      load(chain);
      expectTree(tree, writerOf("0220"));
    }
    tree.nodes[0].targets[kTitlePart] = kNone;
    chain = chainwriter::write(tree, writerOf("0220"), kRoomy);
    chain.blocks[0].pop_back();
    chain.setUsedLen(0, static_cast<std::uint16_t>(chain.blocks[0].size()));
    expectRefusal(tree, chain, MEMERR_PACKROFF, offText(chain.places[2].offset));
  }
}

TEST_F(UnpackInPlaceTest, WholePointerFieldIsReplaced) {
  // The bytes after block and offset mean nothing to a reader.
  for (std::size_t i = 4; i < 8; ++i) {
    chain.blocks[0][part(kChildPart).offset + i] = 0xFF;
  }
  load(chain);
  expectTree(tree, writerOf("0220"));
}

TEST_F(UnpackInPlaceTest, NarrowTextMayLieInsideAnother) {
  tree.kinds[kRoot].parts[kTitlePart] = child(kName);
  tree.nodes[0].targets[kTitlePart] = 2;
  chain = chainwriter::write(tree, writerOf("0220"), kRoomy);
  for (const bool isShorterFirst : {false, true}) {
    const std::size_t inner = isShorterFirst ? kNamePart : kTitlePart;
    const std::size_t outer = isShorterFirst ? kTitlePart : kNamePart;
    Chain changed = chain;
    changed.setPointer(part(inner), {0, chain.places[2].offset + 3});
    load(changed);
    expectUnpacked(unpack(callers), Became::Structure);
    const char *texts[2];
    std::memcpy(&texts[0], static_cast<const char *>(root) + 8 * inner, sizeof texts[0]);
    std::memcpy(&texts[1], static_cast<const char *>(root) + 8 * outer, sizeof texts[1]);
    EXPECT_STREQ(texts[0], "row");
    EXPECT_STREQ(texts[1], "narrow");
  }
}

// What one pointer leads to must not be changed by what another leads to.
TEST_F(UnpackInPlaceTest, NothingOverwritesALengthWordOrATerminator) {
  tree.kinds[kChild] = {Form::Counted, {data(4)}};
  tree.kinds.push_back({Form::Fixed, {data(2), sibling(), data(3)}});
  tree.kinds[kRoot].parts[kTitlePart] = child(4);
  tree.nodes[1].data = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  tree.nodes.push_back({4, {1, 2, 3, 4, 5}, {kNone}});
  tree.nodes[0].targets = {kNone, 1, 2, 4, kNone};
  callers = readersControlBlock(tree);
  chain = chainwriter::write(tree, writerOf("0220"), kRoomy);
  load(chain);
  expectTree(tree, writerOf("0220"));
  // The second segment's pointer field overlaps the length word, then the text's end.
  const std::size_t word = chain.places[1].offset;
  const std::size_t terminator = chain.places[2].offset + 6;
  for (const std::size_t over : {word, terminator}) {
    for (std::size_t back = 0; back < 8; ++back) {
      Chain changed = chain;
      changed.setPointer(part(kTitlePart), {0, over - 2 - back});
      load(changed);
      expectRefused(unpack(callers), MEMERR_PACKCYCL, kRecursive);
    }
  }
}

TEST_F(UnpackInPlaceTest, NothingOverliesAFieldBehindTheLength) {
  chain.setNumber({0, chain.descriptorPlace(kRoot).offset + 2}, 8);
  load(chain);
  expectTree(tree, writerOf("0220"));
  chain.setPointer(part(kChildPart), part(kTitlePart));
  expectRefusal(tree, chain, MEMERR_PACKCYCL, kRecursive);
}

// A pointer that begins at the end of a text: had it become an address, the text would go on.
TEST_F(UnpackInPlaceTest, NoPointerFieldLiesOverTheEndOfText) {
  tree.kinds.push_back({Form::Fixed, {data(2), sibling(), data(3)}});
  tree.kinds[kRoot].parts[kTitlePart] = child(4);
  tree.nodes.push_back({4, {1, 2, 3, 4, 5}, {kNone}});
  tree.nodes[0].targets = {kNone, 1, 2, kNone, kNone};
  callers = readersControlBlock(tree);
  for (const bool isTextFirst : {true, false}) {
    tree.kinds[kRoot].hasEntriesBackwards = !isTextFirst;
    callers = readersControlBlock(tree);
    Tree used = tree;
    used.nodes[0].targets[kTitlePart] = 4;
    chain = chainwriter::write(used, writerOf("0220"), kRoomy);
    Bytes &block = chain.blocks[0];
    const std::size_t text = block.size();
    const std::size_t end = text + 2;
    block.insert(block.end(), {'a', 'b', 0, 0, 0, 0, 0, 0, 0, 0, 3, 4, 5});
    chain.setUsedLen(0, static_cast<std::uint16_t>(block.size()));
    chain.setPointer({0, end}, chain.places[4]);
    chain.setPointer(part(kTitlePart), {0, end - 2});
    load(chain);
    expectUnpacked(unpack(callers), Became::Structure);

    chain.setPointer(part(kNamePart), {0, text});
    load(chain);
    expectRefused(unpack(callers), MEMERR_PACKCYCL, kRecursive);
  }
}

// Texts that come first among the children, each before a segment. In the chain: root, title, first
// entry, "one", second entry, "two".
class UnpackLeadingTextTest : public UnpackTest {
 protected:
  enum : std::size_t { kEntry = 1, kText = 2 };
  enum : std::size_t { kFirstEntry = 1, kSecondEntry, kTitleText, kFirstText, kSecondText };

  Tree tree{.kinds = {{Form::Fixed, {child(kText), child(kEntry)}},
                      {Form::Fixed, {sibling(), child(kText), data(4)}},
                      {Form::Narrow}},
            .nodes = {{0, {}, {kTitleText, kFirstEntry}},
                      {kEntry, {1, 2, 3, 4}, {kSecondEntry, kFirstText}},
                      {kEntry, {5, 6, 7, 8}, {kNone, kSecondText}},
                      {kText, {}, {}, "title"},
                      {kText, {}, {}, "one"},
                      {kText, {}, {}, "two"}}};
  Chain chain = chainwriter::write(tree, writerOf("0220"), kRoomy);

  std::uint8_t &terminatorOf(std::size_t text) {
    const Place place = chain.places[text];
    return chain.blocks[place.block][place.offset + tree.nodes[text].narrow.size()];
  }
};

TEST_F(UnpackLeadingTextTest, TextMayEndBeforeTheNextItem) {
  for (const std::size_t text : {kTitleText, kFirstText, kSecondText}) {
    tree.nodes[text].narrow.pop_back();
    terminatorOf(text) = 0;
  }
  load(chain);
  expectTree(tree, writerOf("0220"));
}

TEST_F(UnpackLeadingTextTest, TextMustNotEndInASegment) {
  for (const std::size_t text : {kTitleText, kFirstText}) {
    SCOPED_TRACE(text);
    terminatorOf(text) = 'x';
    expectRefusal(tree, chain, MEMERR_PACKCYCL, kRecursive);
    terminatorOf(text) = 0;
  }
}

TEST_F(UnpackLeadingTextTest, TextMustNotBeginWithASegment) {
  chain.setPointer(chain.partPlace(tree, 0, 0), chain.places[kFirstEntry]);
  expectRefusal(tree, chain, MEMERR_PACKCYCL, kRecursive);
}

TEST_F(UnpackLeadingTextTest, LastTextMustEnd) {
  terminatorOf(kSecondText) = 'x';
  expectRefusal(tree, chain, MEMERR_PACKROFF, offText(chain.places[kSecondText].offset));
}

TEST_F(UnpackLeadingTextTest, LastTextOfABlockMustEnd) {
  const std::size_t blockLen = chain.places[kSecondEntry].offset + 8;
  chain = chainwriter::write(tree, writerOf("0220"), blockLen);
  ASSERT_EQ(chain.places[kSecondEntry].block, 1U);
  load(chain);
  expectTree(tree, writerOf("0220"));
  terminatorOf(kFirstText) = 'x';
  expectRefusal(tree, chain, MEMERR_PACKROFF, offText(chain.places[kFirstText].offset));
}

// Wide text that the walk reaches after a segment may precede it, but must not overlap narrow text.
TEST_F(UnpackLeadingTextTest, WideTextMustNotLieOverTheEndOfNarrowText) {
  tree.kinds.push_back({Form::Wide});
  tree.kinds[0].parts.push_back(child(3));
  tree.nodes[0].targets.push_back(tree.nodes.size());
  tree.nodes.push_back({3, {}, {}, {}, U"wide"});
  chain = chainwriter::write(tree, writerOf("0220"), kRoomy);
  load(chain);
  expectTree(tree, writerOf("0220"));
  std::uint8_t *const terminator = &terminatorOf(kTitleText);
  terminator[1] = 0;
  const Place title = chain.places[kTitleText];
  chain.setPointer(chain.partPlace(tree, 0, 2), {title.block, title.offset + 3});
  expectRefusal(tree, chain, MEMERR_PACKCYCL, kRecursive);
}

TEST_F(UnpackInPlaceTest, EmptySegmentsShareTheirPlace) {
  tree.kinds[kChild] = {Form::Fixed, {}};
  tree.nodes[1].data.clear();
  tree.kinds[kRoot].parts[kNamePart] = child(kChild);
  tree.kinds[kRoot].parts[kTitlePart] = child(4);
  tree.kinds.push_back({Form::Fixed, {data(3)}});
  tree.nodes.push_back({kChild});
  tree.nodes.push_back({4, {7, 8, 9}});
  tree.nodes[0].targets = {kNone, 1, 4, 5, 1};
  callers = readersControlBlock(tree);
  load(chainwriter::write(tree, writerOf("0220"), kRoomy));
  expectTree(tree, writerOf("0220"));
}

// Kinds of some EBCDIC writers have their length in fields of their own.
TEST_F(UnpackInPlaceTest, ForeignLengthsAreNotMeasured) {
  for (const std::uint16_t type : {std::uint16_t{0xE5}, std::uint16_t{0xE7}}) {
    Chain foreign = chainwriter::write(tree, chainwriter::ebcdicWriterOf("0200"), kRoomy);
    foreign.setNumber(foreign.descriptorPlace(kChild), type);
    foreign.setNumber(foreign.places[1], 0xFFFF);
    load(foreign);
    expectUnpacked(unpack(callers), Became::Structure);
    foreign.setPointer(foreign.partPlace(tree, 0, kReferencePart), {0, 0x7000});
    expectRefusal(tree, foreign, MEMERR_PACKROFF, offText(0x7000));
  }
}

// All writers with EBCDIC letters are big-endian, in whatever characters their version is written.
TEST_F(UnpackInPlaceTest, BigEndianWritersMayUseEbcdicLetters) {
  tree.kinds[kChild].form = Form::Counted;
  const Tree &sample = tree;
  for (const Writer &writer : chainwriter::allWriters()) {
    if (!writer.isBigEndian) continue;
    SCOPED_TRACE(writer.name());
    Chain letters = chainwriter::write(sample, writer, kRoomy);
    const std::uint16_t ebcdic[] = {0xC6, 0xC3, 0xE2, 0xE6};
    for (std::size_t kind = 0; kind < std::size(ebcdic); ++kind) {
      letters.setNumber(letters.descriptorPlace(kind), ebcdic[kind]);
    }
    load(letters);
    expectTree(sample, writer);
  }
}

TEST_F(UnpackInPlaceTest, EbcdicLettersOfLittleEndianWritersAreNumbers) {
  tree.kinds[kChild] = {Form::SelfDescribing, {child(kName), data(5)}};
  tree.nodes[1].targets = {2};
  for (const Writer &writer : chainwriter::allWriters()) {
    if (writer.isBigEndian) continue;
    for (const int type : {0xC3, 0xC6, 0xE2, 0xE5, 0xE6, 0xE7}) {
      SCOPED_TRACE(writer.name() + " type " + std::to_string(type));
      Chain numbers = chainwriter::write(tree, writer, kRoomy);
      numbers.setNumber(numbers.descriptorPlace(kChild), static_cast<std::uint16_t>(type));
      load(numbers);
      expectTree(tree, writer);
      // They are measured as such.
      numbers.setNumber(numbers.places[1], 0x7FFF);
      expectRefusal(tree, numbers, MEMERR_PACKROFF, offText(numbers.places[1].offset));
    }
  }
}

TEST_F(UnpackInPlaceTest, RootMayBeNarrowText) {
  Tree text{.kinds = {{Form::Narrow}}, .nodes = {{0, {}, {}, "all there is"}}};
  load(chainwriter::write(text, writerOf("0221"), kRoomy));
  expectTree(text, writerOf("0221"));
}

// What looks like a length word and a pointer after it is none.
TEST_F(UnpackInPlaceTest, RootTextHasNoFields) {
  const Tree text{.kinds = {{Form::Narrow}}, .nodes = {{0, {}, {}, "\x10"}}};
  chain = chainwriter::write(text, writerOf("0220"), kRoomy);
  const std::size_t header = chain.descriptorPlace(0).offset;
  const std::uint16_t fields[] = {2, 0, 0};  // sibling, numbers of children and references
  for (std::size_t i = 0; i < 3; ++i) chain.setNumber({0, header + 4 + 2 * i}, fields[i]);
  const std::size_t start = chain.places[0].offset;
  Bytes &block = chain.blocks[0];
  block.resize(start + 40);
  std::fill(block.begin() + static_cast<std::ptrdiff_t>(start) + 2, block.end(), std::uint8_t{0});
  chain.setPointer({0, start + 2}, {0, start + 20});
  chain.setNumber({0, start + 20}, 12);
  chain.setUsedLen(0, static_cast<std::uint16_t>(block.size()));
  load(chain);
  expectUnpacked(unpack(readersControlBlock(text)), Became::Structure);
  EXPECT_EQ(bytesOf(root, 40), Bytes(block.end() - 40, block.end()));
}

// ---- Depth.

// `levels` segments below each other, the last one with a text.
Tree deepTree(std::size_t levels) {
  Tree tree{.kinds = {{Form::Fixed, {sibling(), child(0), child(1), child(2)}},
                      {Form::Narrow},
                      {Form::Wide}},
            .nodes = {}};
  for (std::size_t i = 0; i < levels; ++i) {
    tree.nodes.push_back({0, {}, {kNone, i + 1 < levels ? i + 1 : kNone, kNone, kNone}});
  }
  tree.nodes[levels - 1].targets[2] = levels;
  tree.nodes[levels - 1].targets[3] = levels + 1;
  tree.nodes.push_back({1, {}, {}, "deep"});
  tree.nodes.push_back({2, {}, {}, {}, U"down"});
  return tree;
}

TEST_F(UnpackInPlaceTest, SixtyFourLevelsWithTextBelowAreTheLimit) {
  for (const std::size_t width : {std::size_t{8}, std::size_t{4}}) {
    const Writer writer = writerOf("0241", width);
    load(chainwriter::write(deepTree(64), writer, kRoomy));
    expectTree(deepTree(64), writer);
    expectRefusal(deepTree(65), chainwriter::write(deepTree(65), writer, kRoomy), MEMERR_PACKSTAK,
                  width == 8 ? "TraversalStackOverflow" : "UnpackStackOverflow");
  }
}

// The last level has nothing below it.
TEST_F(UnpackInPlaceTest, SegmentWithoutChildrenTakesALevel) {
  for (const std::size_t levels : {std::size_t{64}, std::size_t{65}}) {
    Tree deep{.kinds = {{Form::Fixed, {child(0), child(1)}}, {Form::Fixed, {data(3)}}},
              .nodes = {}};
    for (std::size_t i = 0; i + 1 < levels; ++i) {
      const bool isAboveLast = i + 2 == levels;
      deep.nodes.push_back({0, {}, {isAboveLast ? kNone : i + 1, isAboveLast ? i + 1 : kNone}});
    }
    deep.nodes.push_back({1, {7, 8, 9}});
    chain = chainwriter::write(deep, writerOf("0220"), kRoomy);
    load(chain);
    if (levels == 64) {
      expectTree(deep, writerOf("0220"));
    } else {
      expectRefusal(deep, chain, MEMERR_PACKSTAK, "TraversalStackOverflow");
    }
  }
}

TEST_F(UnpackInPlaceTest, SiblingsTakeNoLevel) {
  Tree wide = deepTree(64);
  for (std::size_t i = 0; i < 5000; ++i) {
    const std::size_t last = i == 0 ? 63 : wide.nodes.size() - 1;
    wide.nodes[last].targets[0] = wide.nodes.size();
    wide.nodes.push_back({0, {}, {kNone, kNone, 64, kNone}});
  }
  for (const std::size_t width : {std::size_t{8}, std::size_t{4}}) {
    const Writer writer = writerOf("0221", width);
    load(chainwriter::write(wide, writer, kRoomy));
    expectTree(wide, writer);
  }
}

// ---- Wide text.

class UnpackWideTest : public UnpackTest {
 protected:
  Tree treeOf(const std::u32string &text) {
    Tree tree = smallTree();
    tree.nodes[3].wide = text;
    return tree;
  }
  void expectConversionError(const Tree &tree, const Chain &chain, int code) {
    expectRefusal(tree, chain, MEMERR_PACKUTF,
                  "UTF32 to UTF16 Conversion err=" + std::to_string(code));
  }
};

TEST_F(UnpackWideTest, HostConverts) {
  const Tree tree = treeOf(U"a\u00E9\U0001F600z");
  load(chainwriter::write(tree, writerOf("0241"), kRoomy));
  host.recordCalls(true);
  expectTree(tree, writerOf("0241"));
  std::vector<refhost::HostCall> conversions;
  for (const refhost::HostCall &call : host.takeCalls()) {
    if (call.service == Service::ConvertText) conversions.push_back(call);
  }
  host.recordCalls(false);
  ASSERT_EQ(conversions.size(), 1U);
  EXPECT_EQ(conversions[0].args[0], 12000U);
  EXPECT_EQ(conversions[0].args[1], 1200U);
  EXPECT_EQ(static_cast<std::int64_t>(conversions[0].args[3]), -1);
}

std::int32_t roomSeen;
std::uint16_t answer;
std::uint16_t countingConvert(std::uint16_t, std::uint16_t, const void *, std::int32_t, void *pOut,
                              std::int32_t outLen) {
  roomSeen = outLen;
  std::memset(pOut, 0, 2);
  return answer;
}

TEST_F(UnpackWideTest, ConversionHasAWorkAreaAndItsCodeIsShown) {
  const Tree tree = treeOf(U"text");
  const Chain chain = chainwriter::write(tree, writerOf("0240"), kRoomy);
  host.runtime().ConvertText = countingConvert;
  for (const int code : {1, 36, 32767, -1, -32768}) {
    answer = static_cast<std::uint16_t>(code);
    expectConversionError(tree, chain, code);
    EXPECT_EQ(roomSeen, 32768);
  }
  answer = 0;
  load(chain);
  EXPECT_EQ(unpack(readersControlBlock(tree)), 0);
}

std::uint16_t endlessConvert(std::uint16_t, std::uint16_t, const void *, std::int32_t, void *pOut,
                             std::int32_t outLen) {
  std::memset(pOut, 'x', static_cast<std::size_t>(outLen));
  return 0;
}

TEST_F(UnpackWideTest, ResultWithoutRoomInPlaceIsRefused) {
  host.runtime().ConvertText = endlessConvert;
  const Tree tree = treeOf(U"text");
  expectConversionError(tree, chainwriter::write(tree, writerOf("0240"), kRoomy), 0);
}

TEST_F(UnpackWideTest, HostsOfTwoByteWritersAreNotAsked) {
  const Tree tree = treeOf(U"a\U0001F600z");
  for (const char *version : {"0220", "0221", "0100", "0101"}) {
    load(chainwriter::write(tree, writerOf(version), kRoomy));
    expectTree(tree, writerOf(version));
    EXPECT_EQ(host.calls(Service::ConvertText), 0U);
  }
}

// Half a surrogate pair is no concern of a reader whose units are the writer's.
TEST_F(UnpackWideTest, TwoByteUnitsAreNotLookedInto) {
  const Tree tree = treeOf(std::u32string{0xDC00, 'x', 0xD800});
  for (const char *version : {"0220", "0221"}) {
    load(chainwriter::write(tree, writerOf(version), kRoomy));
    expectTree(tree, writerOf(version));
  }
}

TEST_F(UnpackWideTest, LibraryConvertsWhereTheHostOffersNothing) {
  host.runtime().ConvertText = nullptr;
  const Tree tree = treeOf(U"a\u00E9\uD7FF\uE000\uFFFF\U00010000\U0010FFFFz");
  for (const std::size_t width : {std::size_t{8}, std::size_t{4}}) {
    for (const char *version : {"0240", "0241"}) {
      load(chainwriter::write(tree, writerOf(version, width), kRoomy));
      expectTree(tree, writerOf(version, width));
    }
  }
  load(chainwriter::write(treeOf(U""), writerOf("0241"), kRoomy));
  expectTree(treeOf(U""), writerOf("0241"));
}

TEST_F(UnpackWideTest, ValuesThatAreNoCharactersAreRefused) {
  for (const bool hasHost : {true, false}) {
    if (!hasHost) host.runtime().ConvertText = nullptr;
    for (const char32_t value : {0xD800U, 0xDFFFU, 0x110000U, 0xFFFFFFFFU}) {
      const Tree tree = treeOf(std::u32string{'a', value});
      expectConversionError(tree, chainwriter::write(tree, writerOf("0241"), kRoomy),
                            hasHost ? refhost::kBadText : 1);
    }
  }
}

TEST_F(UnpackWideTest, ResultMustFitTheWorkArea) {
  constexpr std::size_t kBlockLen = 40000;
  for (const bool hasHost : {true, false}) {
    if (!hasHost) host.runtime().ConvertText = nullptr;
    const Tree fits = treeOf(std::u32string(8191, 0x1F600));
    load(chainwriter::write(fits, writerOf("0240"), kBlockLen));
    expectTree(fits, writerOf("0240"));
    const Tree tooLong = treeOf(std::u32string(8192, 0x1F600));
    expectConversionError(tooLong, chainwriter::write(tooLong, writerOf("0240"), kBlockLen),
                          hasHost ? refhost::kNoRoom : 2);
  }
}

TEST_F(UnpackWideTest, ManyTextsShareOneWorkArea) {
  Tree tree = treeOf(U"one");
  for (std::size_t i = 0; i < 100; ++i) {
    const std::size_t last = i == 0 ? 0 : tree.nodes.size() - 2;
    tree.nodes[last].targets[kSiblingPart] = tree.nodes.size();
    tree.nodes.push_back({kRoot, {}, {kNone, kNone, kNone, tree.nodes.size() + 1, kNone}});
    tree.nodes.push_back({kTitle, {}, {}, {}, std::u32string(i, U'x')});
  }
  load(chainwriter::write(tree, writerOf("0241"), kRoomy));
  expectTree(tree, writerOf("0241"));
  EXPECT_EQ(host.calls(Service::ConvertText), 101U);
  EXPECT_EQ(host.calls(Service::GetStorage), 3U);
}

}  // namespace
}  // namespace memtest
