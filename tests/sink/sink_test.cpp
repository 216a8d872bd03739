// The string sink through the vector: results, copies, placement, index, protection, failures and
// every trace text.

#include <functional>
#include <ostream>
#include <utility>

#include <map>
#include "sinktest.hpp"

namespace memtest {
namespace {

using refhost::Service;
using sinkmodel::narrow;
using sinkmodel::wide;

constexpr std::uint32_t kAllFlags = 0xFFFFFFFFU;
constexpr std::uint32_t kBlockLen = 0x44000;

const void *const kUntouched = "what the caller's cell holds before";

// "n00007": texts of six characters that sort by their number.
std::string numbered(std::size_t number) {
  return refhost::formatText("n%05u", number);
}

// A text that needs `reserved` bytes in the sink, with a head of its own.
std::string sized(std::uint32_t reserved, const std::string &head) {
  return head + std::string(reserved - 4 - head.size(), '.');
}

class SinkCallTest : public SinkTest {
 protected:
  ~SinkCallTest() override {
    host.disarm();
    host.restoreSlots();
    host.setTraceFlags(0);
    expectSound();
    expectProtected();
    EXPECT_EQ(host.heldGateCount(), 0U);
  }

  void sinkNumbered(std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) sink(numbered(i));
  }

  const char *find(const std::string &text) {
    const char *pSunk = nullptr;
    EXPECT_EQ(mem.MEM_SinkVerify(text.c_str(), &pSunk, nullptr), 0) << text;
    return pSunk;
  }

  void erase(const std::string &text) { EXPECT_EQ(mem.MEM_SinkDelete(find(text)), 0) << text; }

  std::uint8_t *space(std::size_t segment = 0) { return block().Segments[segment].pSpace; }

  std::ptrdiff_t offsetOf(const void *pSunk, std::size_t segment = 0) {
    return static_cast<const std::uint8_t *>(pSunk) - space(segment);
  }

  // "Used=2 Act=1 Garbage=1 Free=1021 First=1022 End=1022", the fields as hosts see them.
  std::string indexFields() {
    return refhost::formatText("Used=%u Act=%u Garbage=%u Free=%d First=%u End=%u", block().Used,
                               block().Act, block().Garbage, block().Free, block().First,
                               block().End);
  }

  std::string lengths(std::size_t segment = 0) {
    const MEMSinkSegment &entry = block().Segments[segment];
    return refhost::formatText("Used=%u Free=%d Text=%u", entry.UsedLen, entry.FreeLen,
                               entry.TextLen);
  }

  // Records since the last look, "SL32 List empty".
  Lines records() {
    Lines lines;
    for (const refhost::TraceRecord &record : host.takeRecords()) {
      EXPECT_EQ(record.source, "..\\SrcRes\\MEMCSTRG");
      lines.push_back(record.type + " " + record.text);
    }
    return lines;
  }

  void trace(std::uint32_t flags) {
    host.keepRecords(true);
    host.setTraceFlags(flags);
  }
};

// Copies.

TEST_F(SinkCallTest, EqualTextsShareOneCopyUntilItsLastUseIsGone) {
  const char *const first = sink("shared");
  EXPECT_STREQ(first, "shared");
  EXPECT_EQ(uses(first), 1U);
  EXPECT_EQ(sink("shared"), first);
  EXPECT_EQ(uses(first), 2U);
  EXPECT_EQ(mem.MEM_SinkDelete(first), 0);
  EXPECT_EQ(uses(first), 1U);
  EXPECT_EQ(find("shared"), first);
  EXPECT_EQ(mem.MEM_SinkDelete(first), 0);
  EXPECT_EQ(block().Act, 0U);
  EXPECT_EQ(bytesOf(first, 10), Bytes(10));
}

TEST_F(SinkCallTest, NarrowAndWideTextsOfEqualBytesShareOneCopy) {
  const char16_t *const asWide = sink(u"\x6261\x6463");
  const char *const asNarrow = sink("abcd");
  EXPECT_EQ(static_cast<const void *>(asNarrow), asWide);
  EXPECT_EQ(uses(asNarrow), 2U);
  const char *const odd = sink("abc");
  EXPECT_EQ(static_cast<const void *>(sink(u"\x6261\x0063")), odd);
  EXPECT_EQ(uses(odd), 2U);
}

// Which of the two kinds made the copy decides what is erased and freed, however it is deleted.
TEST_F(SinkCallTest, CopyIsFreedWithTheLengthThatItReserved) {
  for (const bool madeWide : {false, true}) {
    for (const bool deletedWide : {false, true}) {
      const char16_t text[] = {0x6261, 0x0063, 0};
      const void *const pSunk = madeWide ? static_cast<const void *>(sink(std::u16string(text)))
                                         : static_cast<const void *>(sink("abc"));
      EXPECT_EQ(lengths(), madeWide ? "Used=8 Free=262136 Text=6" : "Used=6 Free=262138 Text=5");
      const char *const second = sink("second");
      EXPECT_EQ(offsetOf(second), madeWide ? 8 : 6);
      EXPECT_EQ(deleteSunk(mem, pSunk, deletedWide), 0);
      EXPECT_EQ(lengths(), "Used=10 Free=262134 Text=8");
      expectSound();
      EXPECT_EQ(mem.MEM_SinkDelete(second), 0);
    }
  }
}

// The copy of no text is four zero bytes, just what the extra room of a wide text looks like.
TEST_F(SinkCallTest, CopyOfTheEmptyTextBehindAnOddNarrowOneStays) {
  const char *const odd = sink("abc");
  const char *const empty = sink("");
  EXPECT_EQ(empty, odd + 6);
  EXPECT_EQ(mem.MEM_SinkDelete(odd), 0);
  EXPECT_EQ(lengths(), "Used=4 Free=262140 Text=2");
  EXPECT_EQ(find(""), empty);
  EXPECT_EQ(static_cast<const void *>(sink(u"")), empty);
}

struct RoomRow {
  Text text;
  std::uint32_t textLen;
  std::uint32_t reserved;
};

TEST_F(SinkCallTest, RoomIsTheTextTwoZeroBytesAndTheRounding) {
  const RoomRow rows[] = {{narrow(""), 2, 4},
                          {narrow("a"), 3, 4},
                          {narrow("ab"), 4, 6},
                          {narrow("abc"), 5, 6},
                          {narrow("abcd"), 6, 8},
                          {narrow("abcde"), 7, 8},
                          {wide(u""), 2, 4},
                          {wide(u"\x101"), 4, 6},
                          {wide(u"ab"), 6, 8},
                          {wide(u"\x100"
                                "a"),
                           6, 8}};
  for (const RoomRow &row : rows) {
    const void *pSunk = nullptr;
    ASSERT_EQ(sinkText(mem, row.text, &pSunk), 0);
    EXPECT_EQ(pSunk, space());
    EXPECT_EQ(block().Segments[0].UsedLen, row.reserved);
    EXPECT_EQ(block().Segments[0].FreeLen, static_cast<std::int32_t>(0x40000 - row.reserved));
    EXPECT_EQ(block().Segments[0].TextLen, row.textLen);
    Bytes expected(row.reserved + 2, 0xA5);
    std::fill_n(expected.begin(), row.reserved, std::uint8_t{0});
    std::memcpy(expected.data(), row.text.bytes.data(), row.text.bytes.size());
    EXPECT_EQ(changedRanges(expected, bytesOf(space(), row.reserved + 2)), "");
    ASSERT_EQ(deleteSunk(mem, pSunk, row.text.isWide), 0);
    EXPECT_EQ(lengths(), "Used=0 Free=262144 Text=0");
    // The next row begins on untouched bytes again.
    ASSERT_EQ(host.runtime().ProtectStorage(space(), 64, 230, MEM_PROTECT_WRITABLE), 0);
    std::memset(space(), 0xA5, 64);
    ASSERT_EQ(host.runtime().ProtectStorage(space(), 64, 230, MEM_PROTECT_READ_ONLY), 0);
  }
}

TEST_F(SinkCallTest, VerifyStoresTheCopyWithoutCounting) {
  const char *const pSunk = sink("text");
  EXPECT_EQ(find("text"), pSunk);
  EXPECT_EQ(uses(pSunk), 1U);
}

TEST_F(SinkCallTest, VerifyNeverLooksBehindItsThirdArgument) {
  sink("text");
  void *const nowhere = reinterpret_cast<void *>(std::uintptr_t{8});
  const char *pNarrow = nullptr;
  EXPECT_EQ(mem.MEM_SinkVerify("text", &pNarrow, nowhere), 0);
  const char16_t *pWide = nullptr;
  EXPECT_EQ(mem.MEM_WSinkVerify(u"text", &pWide, nowhere), 4084);
}

TEST_F(SinkCallTest, NotFoundIsAPlainResult) {
  sink("known");
  host.keepRecords(true);
  fillEnv(env(), 0xEE);
  const Bytes before = envBytes(env());
  const std::uint64_t reported = host.calls(Service::ReportError);
  for (const Text &text : {narrow("unknown"), wide(u"unknown"), narrow(""), wide(u"")}) {
    const void *pSunk = kUntouched;
    EXPECT_EQ(verifyText(mem, text, &pSunk), 4084);
    EXPECT_EQ(pSunk, kUntouched);
    EXPECT_EQ(deleteSunk(mem, OwnText(text).wide(), text.isWide), 4084);
    EXPECT_EQ(changedRanges(before, envBytes(env())), "64..615");
    EXPECT_EQ(errorBytes(env()), Bytes(552));
  }
  EXPECT_EQ(records(), Lines());
  EXPECT_EQ(host.calls(Service::ReportError), reported);
}

TEST_F(SinkCallTest, NothingIsFoundInAnEmptySink) {
  const void *pSunk = kUntouched;
  EXPECT_EQ(verifyText(mem, narrow(""), &pSunk), 4084);
  EXPECT_EQ(verifyText(mem, wide(u""), &pSunk), 4084);
  EXPECT_EQ(pSunk, kUntouched);
}

TEST_F(SinkCallTest, SuccessLeavesAClearErrorArea) {
  fillEnv(env(), 0xEE);
  const char *const pSunk = sink("new");
  EXPECT_EQ(errorBytes(env()), Bytes(552));
  sink("new");
  EXPECT_EQ(errorBytes(env()), Bytes(552));
  EXPECT_EQ(mem.MEM_SinkDelete(pSunk), 0);
  EXPECT_EQ(errorBytes(env()), Bytes(552));
}

// Order. The records show the results of single comparisons, the index their sum.

TEST_F(SinkCallTest, TextsAreOrderedByUnsignedBytes) {
  const Text texts[] = {narrow("\x80"), wide(u"\x0161"), narrow("a"), narrow("\xFF"),
                        narrow("\x7F"), narrow("ab"),    narrow("b"), wide(u"\x6100"),
                        narrow("abc"),  wide(u"ab"),     narrow("")};
  for (const Text &text : texts) {
    const void *pSunk = nullptr;
    EXPECT_EQ(sinkText(mem, text, &pSunk), 0);
  }
  Lines keys;
  for (const sinkmodel::SunkCopy &copy : sinkmodel::sunkCopies(block())) keys.push_back(copy.key);
  const auto key = [](const char *bytes, std::size_t length) { return std::string(bytes, length); };
  EXPECT_EQ(keys, (Lines{"", key("\0a", 2), key("a\0", 2), key("a\0b\0", 4), key("a\1", 2), "ab",
                         key("abc\0", 4), key("b\0", 2), key("\x7F\0", 2), key("\x80\0", 2),
                         key("\xFF\0", 2)}));
}

struct OrderRow {
  Text copy;
  Text input;
  int order;
};

TEST_F(SinkCallTest, ComparisonStopsAtTheFirstOfItsThreeEnds) {
  const OrderRow rows[] = {
      // The input ends: equal when the copy does, too, else it is smaller.
      {narrow("ab"), narrow("ab"), 0},
      {narrow("abc"), narrow("abc"), 0},
      {narrow("abc"), narrow("ab"), -1},
      {narrow("abc"), narrow("a"), -1},
      {wide(u"a\x100"), narrow("a"), -1},
      {wide(u"ab"), narrow("a"), -1},
      {wide(u"a"), narrow("a"), 0},
      {narrow("a"), wide(u"a"), 0},
      {narrow("a"), narrow(""), -1},
      {narrow(""), wide(u""), 0},
      // The copy ends first.
      {narrow("ab"), narrow("abc"), 1},
      {narrow("a"), narrow("ab"), 1},
      {narrow("a"), wide(u"ab"), 1},
      {narrow(""), wide(u"\x100"), 1},
      // They differ, far from the start as well.
      {narrow("b"), narrow("a"), -1},
      {narrow("\x7F"), narrow("\x80"), 1},
      {wide(u"\xFF00"), wide(u"\x00FF"), 1},
      {narrow("0123456789012345x"), narrow("0123456789012345y"), 1},
      {narrow("0123456\xFF"), narrow("0123456a"), -1},
  };
  sink("\xFF\xFF");  // after all others; a copy that is alone is compared without a record
  for (const OrderRow &row : rows) {
    const void *pSunk = nullptr;
    ASSERT_EQ(sinkText(mem, row.copy, &pSunk), 0);
    trace(MEM_TRACE_SINK);
    const void *pFound = nullptr;
    EXPECT_EQ(verifyText(mem, row.input, &pFound), row.order == 0 ? 0 : 4084);
    const Lines lines = records();
    host.setTraceFlags(0);
    ASSERT_GE(lines.size(), 2U);
    const std::string result = ")= " + std::to_string(row.order);
    EXPECT_EQ(lines[1].substr(lines[1].size() - result.size()), result) << lines[1];
    ASSERT_EQ(deleteSunk(mem, pSunk, row.copy.isWide), 0);
  }
}

// Placement.

TEST_F(SinkCallTest, CopiesFollowEachOtherAndHolesAreReusedFirst) {
  const char *const a = sink("a");     // 4 bytes
  const char *const b = sink("bbbb");  // 8
  const char *const c = sink("cc");    // 6
  EXPECT_EQ(offsetOf(a), 0);
  EXPECT_EQ(offsetOf(b), 4);
  EXPECT_EQ(offsetOf(c), 12);
  EXPECT_EQ(mem.MEM_SinkDelete(a), 0);
  EXPECT_EQ(mem.MEM_SinkDelete(b), 0);
  EXPECT_EQ(offsetOf(sink(std::string(9, 'd'))), 0) << "12 bytes fill both holes";
  erase(std::string(9, 'd'));
  EXPECT_EQ(offsetOf(sink(std::string(10, 'e'))), 18) << "14 bytes do not fit";
  EXPECT_EQ(offsetOf(sink("f")), 0);
  EXPECT_EQ(offsetOf(sink("g")), 4);
  EXPECT_EQ(offsetOf(sink("h")), 8);
  EXPECT_EQ(offsetOf(sink("i")), 32);
}

// Runs on both sides of a map byte (8 granules) and of 64 granules, with one hole before them that
// is a granule too short.
TEST_F(SinkCallTest, RunsOfAnyLengthFindTheFirstHoleThatHoldsThem) {
  for (const std::uint32_t granules : {3U, 7U, 8U, 9U, 63U, 64U, 65U, 127U, 128U, 129U, 300U}) {
    SCOPED_TRACE(granules);
    const std::uint32_t length = granules * 2;
    const auto reserving = [](std::uint32_t reserved, char c) {
      return std::string(reserved - 4, c);
    };
    const char *const front = sink(reserving(22, 'f'));
    const char *const tooShort = sink(reserving(length - 2, 's'));
    const char *const wall = sink(reserving(24, 'w'));
    const char *const exact = sink(reserving(length, 'x'));
    const char *const end = sink(reserving(26, 'e'));
    EXPECT_EQ(mem.MEM_SinkDelete(tooShort), 0);
    EXPECT_EQ(mem.MEM_SinkDelete(exact), 0);
    const char *const inSecond = sink(reserving(length, 'n'));
    EXPECT_EQ(inSecond, exact);
    const char *const inFirst = sink(reserving(length - 2, 'p'));
    EXPECT_EQ(inFirst, tooShort);
    for (const char *pSunk : {front, inFirst, wall, inSecond, end}) {
      EXPECT_EQ(mem.MEM_SinkDelete(pSunk), 0);
    }
    EXPECT_EQ(lengths(), "Used=0 Free=262144 Text=0");
  }
}

TEST_F(SinkCallTest, LongestTextFillsAWholeBlock) {
  for (const std::uint32_t length : {0x3FFFCU, 0x3FFFDU}) {
    const char *const pSunk = sink(std::string(length, 'x'));
    EXPECT_EQ(offsetOf(pSunk), 0);
    EXPECT_EQ(block().SegmentCount, 1);
    EXPECT_EQ(block().Segments[0].FreeLen, 0);
    EXPECT_EQ(bytesOf(block().Segments[0].pMap, 16384), Bytes(16384, 0xFF));
    EXPECT_EQ(uses(pSunk), 1U);
    expectSound();
    EXPECT_EQ(mem.MEM_SinkDelete(pSunk), 0);
    EXPECT_EQ(bytesOf(block().Segments[0].pMap, 16384), Bytes(16384));
  }
}

TEST_F(SinkCallTest, BlockWithEnoughFreeBytesButNoRunIsPassedOver) {
  // Holes of 0x8000 bytes between walls; all but the last of the block is taken.
  for (int i = 0; i < 4; ++i) {
    sink(sized(0x8000, "hole" + std::to_string(i)));
    sink(sized(0x8000, "wall" + std::to_string(i)));
  }
  for (int i = 0; i < 4; ++i) erase(sized(0x8000, "hole" + std::to_string(i)));
  EXPECT_EQ(block().Segments[0].FreeLen, 0x20000);
  EXPECT_EQ(offsetOf(sink(sized(0x8002, "longer")), 1), 0);
  EXPECT_EQ(block().SegmentCount, 2);
  EXPECT_EQ(offsetOf(sink(sized(0x8000, "exact"))), 0);
}

TEST_F(SinkCallTest, NewBlockIsObtainedClearedAndProtectedLikeTheFirst) {
  sink(sized(0x40000, "first"));
  host.recordCalls(true);
  const char *const pSunk = sink("second");
  host.recordCalls(false);
  AddressNames names;
  names[asNumber(space(1))] = "space 1";
  EXPECT_EQ(pSunk, reinterpret_cast<char *>(space(1)));
  const std::string gate = std::to_string(block().Gate);
  EXPECT_EQ(
      callLines(host.takeCalls(), names),
      (Lines{"MEM_SinkString: EnterFrame(frame, 3)", "MEM_SinkString: GetAnchor(0, 3, cell)",
             "MEM_SinkString: AcquireGate(" + gate + ")",
             "MEM_SinkString: GetStorage(cell, 278528, 230, 0)",
             "MEM_SinkString: ProtectStorage(space 1, 262144, 230, 16)",
             "MEM_SinkString: ProtectStorage(space 1, 10, 230, 32)",
             "MEM_SinkString: ProtectStorage(space 1, 10, 230, 16)",
             "MEM_SinkString: ReleaseGate(" + gate + ")", "MEM_SinkString: LeaveFrame(frame, 3)"}));
  EXPECT_EQ(lengths(1), "Used=10 Free=262134 Text=8");
  EXPECT_EQ(host.account(230, 0).liveBytes, 2 * kBlockLen + 16384U);
}

// 64 blocks are all there are.

class FullSinkTest : public SinkCallTest {
 protected:
  FullSinkTest() {
    for (int i = 0; i < 64; ++i) sink(whole(i));
  }
  static std::string whole(int i) { return sized(0x40000, std::to_string(i)); }
};

TEST_F(FullSinkTest, SixtyFifthBlockIsNeverObtained) {
  EXPECT_EQ(block().SegmentCount, 64);
  const refhost::Account before = host.account(230, 0);
  EXPECT_EQ(before.liveBytes, 64U * kBlockLen + 16384U);
  host.keepRecords(true);
  const std::uint64_t formatted = host.calls(Service::Format);
  for (const bool isWide : {false, true}) {
    const Text text = isWide ? wide(u"ab") : narrow("abc");
    const void *pSunk = kUntouched;
    EXPECT_EQ(sinkText(mem, text, &pSunk), kFailed);
    EXPECT_EQ(pSunk, kUntouched);
    EXPECT_EQ(error().Code, 4085U);
    EXPECT_EQ(error().InnerCode, 0U);
    EXPECT_EQ(nameText(), "AllSinkBlksFull");
    EXPECT_EQ(records(),
              isWide ? (Lines{"EXCP OUT OF SPACE: wideflag=1, TLenOrig=4 TLen=6 GLen=8,GBlk=4",
                              "EXCP Error Exit Text(WIDE)=ab "})
                     : (Lines{"EXCP OUT OF SPACE: wideflag=0, TLenOrig=3 TLen=5 GLen=6,GBlk=3",
                              "EXCP Error Exit Text=abc "}));
  }
  EXPECT_EQ(host.calls(Service::Format), formatted);
  EXPECT_EQ(host.account(230, 0).totalCount, before.totalCount);
}

TEST_F(FullSinkTest, KnownTextsAndFreedRoomStillServe) {
  EXPECT_EQ(uses(sink(whole(63))), 2U);
  erase(whole(17));
  EXPECT_EQ(offsetOf(sink("abc"), 17), 0);
  EXPECT_EQ(block().SegmentCount, 64);
}

// Index.

TEST_F(SinkCallTest, IndexFieldsFollowInsertionsAndDeletions) {
  EXPECT_EQ(indexFields(), "Used=0 Act=0 Garbage=0 Free=1023 First=0 End=0");
  sink("m");
  EXPECT_EQ(indexFields(), "Used=1 Act=1 Garbage=0 Free=1022 First=1023 End=1023");
  sink("c");  // as first
  EXPECT_EQ(indexFields(), "Used=2 Act=2 Garbage=0 Free=1021 First=1022 End=1023");
  sink("x");  // as last, without garbage
  EXPECT_EQ(indexFields(), "Used=3 Act=3 Garbage=0 Free=1020 First=1021 End=1023");
  sink("f");  // inside
  EXPECT_EQ(indexFields(), "Used=4 Act=4 Garbage=0 Free=1019 First=1020 End=1023");
  erase("c");  // the first
  EXPECT_EQ(indexFields(), "Used=3 Act=3 Garbage=0 Free=1020 First=1021 End=1023");
  erase("m");  // inside
  EXPECT_EQ(indexFields(), "Used=3 Act=2 Garbage=1 Free=1020 First=1021 End=1022");
  erase("x");  // the last
  EXPECT_EQ(indexFields(), "Used=3 Act=1 Garbage=2 Free=1020 First=1021 End=1021");
  sink("x");  // as last, into garbage
  EXPECT_EQ(indexFields(), "Used=3 Act=2 Garbage=1 Free=1020 First=1021 End=1022");
  erase("f");
  EXPECT_EQ(indexFields(), "Used=2 Act=1 Garbage=1 Free=1021 First=1022 End=1022");
  erase("x");  // the only one
  EXPECT_EQ(indexFields(), "Used=0 Act=0 Garbage=0 Free=1023 First=1022 End=1022");
  sink("a");
  EXPECT_EQ(indexFields(), "Used=1 Act=1 Garbage=0 Free=1022 First=1023 End=1023");
}

TEST_F(SinkCallTest, InsertionInsideMovesTheShorterSide) {
  sinkNumbered(0, 8);
  erase(numbered(7));  // one garbage slot
  EXPECT_EQ(indexFields(), "Used=8 Act=7 Garbage=1 Free=1015 First=1016 End=1022");
  sink(numbered(0) + "+");  // one entry below, six above
  EXPECT_EQ(indexFields(), "Used=9 Act=8 Garbage=1 Free=1014 First=1015 End=1022");
  sink(numbered(5) + "+");  // one above
  EXPECT_EQ(indexFields(), "Used=9 Act=9 Garbage=0 Free=1014 First=1015 End=1023");
  sink(numbered(4) + "+");  // no garbage left
  EXPECT_EQ(indexFields(), "Used=10 Act=10 Garbage=0 Free=1013 First=1014 End=1023");
  expectSound();
}

TEST_F(SinkCallTest, FullIndexGrowsBy512Slots) {
  sinkNumbered(0, 1024);
  EXPECT_EQ(indexFields(), "Used=1024 Act=1024 Garbage=0 Free=-1 First=0 End=1023");
  EXPECT_EQ(block().IndexLen, 16384U);
  const void *const oldIndex = block().pIndex;
  host.recordCalls(true);
  sink(numbered(2000));
  host.recordCalls(false);
  Lines storageCalls;
  for (const std::string &line : callLines(host.takeCalls(), {{asNumber(oldIndex), "old index"}})) {
    if (line.find("etStorage") != line.npos || line.find("FreeStorage") != line.npos) {
      storageCalls.push_back(line);
    }
  }
  EXPECT_EQ(storageCalls, (Lines{"MEM_SinkString: GetStorage(cell, 24576, 230, 0)",
                                 "MEM_SinkString: FreeStorage(old index, 16384, 230)"}));
  EXPECT_EQ(indexFields(), "Used=1025 Act=1025 Garbage=0 Free=510 First=511 End=1535");
  EXPECT_EQ(block().IndexLen, 24576U);
  EXPECT_EQ(block().SlotCount, 1536U);
  expectSound();
  for (std::size_t i = 0; i < 1024; ++i) find(numbered(i));
  EXPECT_EQ(bytesOf(block().pIndex, 511 * 16), Bytes(511 * 16)) << "free slots are not clear";
}

TEST_F(SinkCallTest, FullIndexIsLeftAloneByKnownTextsAndLookUps) {
  sinkNumbered(0, 1024);
  sink(numbered(500));
  const char *pSunk = nullptr;
  EXPECT_EQ(mem.MEM_SinkVerify("unknown", &pSunk, nullptr), 4084);
  EXPECT_EQ(mem.MEM_SinkDelete("unknown"), 4084);
  EXPECT_EQ(block().IndexLen, 16384U);
}

TEST_F(SinkCallTest, TenGarbageSlotsAreReclaimedInsteadOfGrowing) {
  sinkNumbered(0, 1024);
  for (std::size_t i = 100; i < 110; ++i) erase(numbered(i));
  EXPECT_EQ(indexFields(), "Used=1024 Act=1014 Garbage=10 Free=-1 First=0 End=1013");
  sink(numbered(100));
  // Compacted to First=10, then 100 entries moved down.
  EXPECT_EQ(indexFields(), "Used=1015 Act=1015 Garbage=0 Free=8 First=9 End=1023");
  EXPECT_EQ(block().IndexLen, 16384U);
  expectSound();
}

TEST_F(SinkCallTest, NineGarbageSlotsAreNotEnough) {
  sinkNumbered(0, 1024);
  for (std::size_t i = 100; i < 109; ++i) erase(numbered(i));
  sink(numbered(2000));
  EXPECT_EQ(indexFields(), "Used=1016 Act=1016 Garbage=0 Free=519 First=520 End=1535");
  EXPECT_EQ(block().IndexLen, 24576U);
  expectSound();
}

TEST_F(SinkCallTest, CompactionServesMoreGarbageThanActiveEntries) {
  sinkNumbered(0, 1024);
  for (std::size_t i = 3; i < 1024; ++i) erase(numbered(i));
  EXPECT_EQ(indexFields(), "Used=1024 Act=3 Garbage=1021 Free=-1 First=0 End=2");
  sink(numbered(5));
  EXPECT_EQ(indexFields(), "Used=4 Act=4 Garbage=0 Free=1019 First=1020 End=1023");
  expectSound();
}

// Host calls.

TEST_F(SinkCallTest, EachCallTakesTheGateOnceAndProtectsOnlyItsOwnBytes) {
  const std::string gate = std::to_string(block().Gate);
  const AddressNames names = {{asNumber(space()), "copy"}};
  const auto framed = [&gate](const std::string &name, Lines inner) {
    Lines lines = {"EnterFrame(frame, 3)", "GetAnchor(0, 3, cell)", "AcquireGate(" + gate + ")"};
    lines.insert(lines.end(), inner.begin(), inner.end());
    lines.insert(lines.end(), {"ReleaseGate(" + gate + ")", "LeaveFrame(frame, 3)"});
    for (std::string &line : lines) line = name + ": " + line;
    return lines;
  };
  const Lines writing = {"ProtectStorage(copy, 6, 230, 32)", "ProtectStorage(copy, 6, 230, 16)"};
  const auto *const copy = reinterpret_cast<const char *>(space());
  const auto *const wideCopy = reinterpret_cast<const char16_t *>(space());
  const char *pNarrow = nullptr;
  const char16_t *pWide = nullptr;
  const std::pair<std::function<std::int16_t()>, Lines> calls[] = {
      {[&] { return mem.MEM_SinkString("ab", &pNarrow); }, framed("MEM_SinkString", writing)},
      {[&] { return mem.MEM_SinkString("ab", &pNarrow); }, framed("MEM_SinkString", {})},
      {[&] { return mem.MEM_SinkVerify("ab", &pNarrow, nullptr); }, framed("MEM_SinkVerify", {})},
      {[&] { return mem.MEM_SinkDelete(copy); }, framed("MEM_SinkDelete", {})},
      {[&] { return mem.MEM_SinkDelete(copy); }, framed("MEM_SinkDelete", writing)},
      {[&] { return mem.MEM_WSinkString(u"\x6261", &pWide); }, framed("MEM_WSinkString", writing)},
      {[&] { return mem.MEM_WSinkVerify(u"\x6261", &pWide, nullptr); },
       framed("MEM_WSinkVerify", {})},
      {[&] { return mem.MEM_WSinkDelete(wideCopy); }, framed("MEM_WSinkDelete", writing)},
  };
  for (const auto &[call, lines] : calls) {
    host.recordCalls(true);
    EXPECT_EQ(call(), 0);
    host.recordCalls(false);
    EXPECT_EQ(callLines(host.takeCalls(), names), lines);
  }
}

// Looks at the sink from inside the host's protection service, where the gate must be held.
class ProtectionWatch {
 public:
  explicit ProtectionWatch(refhost::Host &host) {
    watched_ = &host;
    seen_.clear();
    own_ = host.runtime().ProtectStorage;
    host.runtime().ProtectStorage = protect;
  }
  ~ProtectionWatch() { watched_->runtime().ProtectStorage = own_; }

  // "32 before=ro after=rw gates=1 text=..." a call.
  const Lines &seen() const { return seen_; }

 private:
  static std::uint16_t protect(void *pArea, std::uint32_t length, std::uint16_t subPool,
                               std::uint16_t mode) {
    const auto state = [pArea] { return watched_->isReadOnly(pArea) ? "ro" : "rw"; };
    std::string line = std::to_string(mode) + " before=" + state();
    const std::uint16_t code = own_(pArea, length, subPool, mode);
    line += std::string(" after=") + state() +
            " gates=" + std::to_string(watched_->heldGateCount()) + " text=";
    // A run that was never written holds whatever the host's storage held, without an end.
    const std::string_view run(static_cast<const char *>(pArea), length);
    line += run.substr(0, run.find('\0'));
    seen_.push_back(line);
    return code;
  }

  static inline refhost::Host *watched_ = nullptr;
  static inline decltype(MEMRuntimeServices::ProtectStorage) own_ = nullptr;
  static inline Lines seen_;
};

TEST_F(SinkCallTest, CopyIsWritableOnlyWhileItIsWrittenOrErased) {
  const std::string first(6000, 'x');
  sink(first);
  const char *pSunk = nullptr;
  {
    const ProtectionWatch watch(host);
    pSunk = sink(first + "y");  // is on two pages, and shares one with the first
    ASSERT_EQ(watch.seen().size(), 2U);
    EXPECT_EQ(watch.seen()[0].substr(0, 30), "32 before=ro after=rw gates=1 ");
    EXPECT_EQ(watch.seen()[1], "16 before=rw after=ro gates=1 text=" + first + "y");
  }
  expectProtected();
  {
    const ProtectionWatch watch(host);
    EXPECT_EQ(mem.MEM_SinkDelete(pSunk), 0);
    EXPECT_EQ(watch.seen(), (Lines{"32 before=ro after=rw gates=1 text=" + first + "y",
                                   "16 before=rw after=ro gates=1 text="}));
  }
  expectProtected();
}

TEST_F(SinkCallTest, OtherPagesStayProtectedDuringAWrite) {
  static const std::uint8_t *far = nullptr;
  static refhost::Host *watched = nullptr;
  static bool stayed = false;
  static decltype(MEMRuntimeServices::ProtectStorage) own = nullptr;
  far = space() + 0x30000;
  watched = &host;
  stayed = true;
  own = host.runtime().ProtectStorage;
  host.runtime().ProtectStorage = [](void *pArea, std::uint32_t length, std::uint16_t subPool,
                                     std::uint16_t mode) {
    const std::uint16_t code = own(pArea, length, subPool, mode);
    stayed = stayed && watched->isReadOnly(far);
    return code;
  };
  erase(sink("text"));
  EXPECT_TRUE(stayed);
}

// Failures.

template <class Row>
std::string rowName(const ::testing::TestParamInfo<Row> &info) {
  return info.param.name;
}

struct FailureRow {
  const char *name;
  std::function<std::int16_t(MEMFunctionVector &)> call;
  std::uint32_t code;
  const char *nameText;
  const char *echo;
  const char *detail = "";
};

void PrintTo(const FailureRow &row, std::ostream *out) {
  *out << row.name;
}

const char kForeign[] = "known";
const char16_t kWideForeign[] = u"known";
const char kBadPointer[] = "Bad Sink Block Pointer";

std::vector<FailureRow> misuseRows() {
  return {
      {"SinkOfNoText",
       [](auto &mem) {
         const char *pSunk = nullptr;
         return mem.MEM_SinkString(nullptr, &pSunk);
       },
       4082, "InputTextPtrNull", "Error Exit Text=  "},
      {"WideSinkOfNoText",
       [](auto &mem) {
         const char16_t *pSunk = nullptr;
         return mem.MEM_WSinkString(nullptr, &pSunk);
       },
       4082, "InputTextPtrNull", "Error Exit Text(WIDE)=  "},
      {"SinkOfNothingAtAll", [](auto &mem) { return mem.MEM_SinkString(nullptr, nullptr); }, 4082,
       "InputTextPtrNull", "Error Exit Text=  "},
      {"SinkWithoutCell", [](auto &mem) { return mem.MEM_SinkString("ab", nullptr); }, 4086,
       "SinkVerifyErr", "Error Exit Text=ab "},
      {"WideSinkWithoutCell", [](auto &mem) { return mem.MEM_WSinkString(u"ab", nullptr); }, 4086,
       "SinkVerifyErr", "Error Exit Text(WIDE)=ab "},
      {"SinkOfEmptyTextWithoutCell", [](auto &mem) { return mem.MEM_SinkString("", nullptr); },
       4086, "SinkVerifyErr", "Error Exit Text=  "},
      {"VerifyOfNoText",
       [](auto &mem) {
         const char *pSunk = nullptr;
         return mem.MEM_SinkVerify(nullptr, &pSunk, nullptr);
       },
       4082, "InputTextPtrNull", "Error Exit Text= "},
      {"WideVerifyOfNoText",
       [](auto &mem) {
         const char16_t *pSunk = nullptr;
         return mem.MEM_WSinkVerify(nullptr, &pSunk, nullptr);
       },
       4082, "InputTextPtrNull", "Error Exit Text= "},
      {"VerifyOfNothingAtAll",
       [](auto &mem) { return mem.MEM_SinkVerify(nullptr, nullptr, nullptr); }, 4082,
       "InputTextPtrNull", "Error Exit Text= "},
      {"VerifyWithoutCell", [](auto &mem) { return mem.MEM_SinkVerify("ab", nullptr, nullptr); },
       4083, "SinkTextPtrNull", "Error Exit Text=ab"},
      {"WideVerifyWithoutCell",
       [](auto &mem) { return mem.MEM_WSinkVerify(u"ab", nullptr, nullptr); }, 4083,
       "SinkTextPtrNull", "Error Exit Text=ab"},
      {"DeleteOfNothing", [](auto &mem) { return mem.MEM_SinkDelete(nullptr); }, 4086,
       "SinkVerifyErr", "Error Exit Text= "},
      {"WideDeleteOfNothing", [](auto &mem) { return mem.MEM_WSinkDelete(nullptr); }, 4086,
       "SinkVerifyErr", "Error Exit Text= "},
      {"DeleteOfAForeignAddress", [](auto &mem) { return mem.MEM_SinkDelete(kForeign); }, 4086,
       nullptr, "Error Exit Text=known", kBadPointer},
      {"WideDeleteOfAForeignAddress", [](auto &mem) { return mem.MEM_WSinkDelete(kWideForeign); },
       4086, nullptr, "Error Exit Text=known", kBadPointer},
  };
}

class SinkMisuseTest : public SinkCallTest, public ::testing::WithParamInterface<FailureRow> {
 protected:
  SinkMisuseTest() {
    for (int i = 0; i < 2; ++i) {
      sink("known");
      sink(u"known");
    }
  }

  std::string expectedName() {
    if (GetParam().nameText != nullptr) return GetParam().nameText;
    const bool isWide = std::string(GetParam().name).find("Wide") == 0;
    return "Bad SinkPtr=" + hex16(isWide ? static_cast<const void *>(kWideForeign) : kForeign);
  }
};

INSTANTIATE_TEST_SUITE_P(EachRow, SinkMisuseTest, ::testing::ValuesIn(misuseRows()),
                         rowName<FailureRow>);

TEST_P(SinkMisuseTest, IsRecordedReportedAndEchoed) {
  fillEnv(env(), 0xEE);
  host.keepRecords(true);
  const Bytes blockBefore = bytesOf(&block(), 3248);
  const std::uint64_t reported = host.calls(Service::ReportError);
  EXPECT_EQ(GetParam().call(mem), kFailed);

  Bytes expected(552);
  const auto put = [&expected](std::size_t offset, const auto &value) {
    std::memcpy(&expected[offset - 64], &value, sizeof value);
  };
  put(74, std::uint16_t{3});
  put(76, std::uint16_t{0xFFFF});
  put(80, GetParam().code);
  const std::string name = expectedName();
  std::memcpy(&expected[360 - 64], name.data(), name.size());
  EXPECT_EQ(changedRanges(expected, errorBytes(env())), "");
  EXPECT_EQ(messageText(), GetParam().echo);
  EXPECT_EQ(records(), Lines{std::string("EXCP ") + GetParam().echo});
  EXPECT_EQ(host.calls(Service::ReportError), reported + 1);
  EXPECT_EQ(host.lastReportedText(), name);
  EXPECT_EQ(host.lastReportedDetail(), GetParam().detail);
  EXPECT_EQ(changedRanges(blockBefore, bytesOf(&block(), 3248)), "");
}

TEST_P(SinkMisuseTest, MakesNoFormatCallWithClearFlags) {
  const std::uint64_t before = host.calls(Service::Format) + host.calls(Service::WriteRecord);
  EXPECT_EQ(GetParam().call(mem), kFailed);
  EXPECT_EQ(host.calls(Service::Format) + host.calls(Service::WriteRecord), before);
}

TEST_P(SinkMisuseTest, WritesNoExitRecord) {
  trace(MEM_TRACE_EXIT);
  EXPECT_EQ(GetParam().call(mem), kFailed);
  EXPECT_EQ(records(), Lines{std::string("EXCP ") + GetParam().echo});
}

TEST_P(SinkMisuseTest, WithoutAThreadEnvironmentOnlyFails) {
  host.withoutThreadEnv(true);
  const std::uint64_t before = traceCalls(host) + host.calls(Service::ReportError);
  EXPECT_EQ(GetParam().call(mem), kFailed);
  EXPECT_EQ(traceCalls(host) + host.calls(Service::ReportError), before);
  host.withoutThreadEnv(false);
}

TEST_F(SinkCallTest, ExceptionRecordCarriesTheCallsOwnName) {
  host.keepRecords(true);
  EXPECT_EQ(mem.MEM_SinkDelete(nullptr), kFailed);
  EXPECT_EQ(mem.MEM_WSinkVerify(nullptr, nullptr, nullptr), kFailed);
  const std::vector<refhost::TraceRecord> kept = host.takeRecords();
  ASSERT_EQ(kept.size(), 2U);
  EXPECT_EQ(kept[0].function, "MEM_SinkDelete");
  EXPECT_EQ(kept[1].function, "MEM_WSinkVerify");
  EXPECT_EQ(kept[0].writtenBy, Service::WriteException);
}

// Addresses that are not the copy's own change nothing, whatever the use count.
TEST_F(SinkCallTest, DeleteTakesOnlyTheCopysOwnAddress) {
  const char *const pSunk = sink("text");
  const std::string own = "text";
  for (std::uint64_t useCount = 1; useCount <= 2; ++useCount) {
    EXPECT_EQ(mem.MEM_SinkDelete(own.c_str()), kFailed);
    EXPECT_EQ(nameText(), "Bad SinkPtr=" + hex16(own.c_str()));
    EXPECT_EQ(uses(pSunk), useCount);
    sink("text");
  }
  const char *const tail = sink("xt");
  EXPECT_EQ(mem.MEM_SinkDelete(pSunk + 2), kFailed) << "the end of another copy";
  EXPECT_EQ(nameText(), "Bad SinkPtr=" + hex16(pSunk + 2));
  EXPECT_EQ(host.lastReportedText(), nameText());
  EXPECT_EQ(host.lastReportedDetail(), kBadPointer);
  EXPECT_EQ(uses(tail), 1U);
  EXPECT_EQ(mem.MEM_SinkDelete(pSunk + 1), 4084);
  // Read as the other kind, the address holds another text.
  const char16_t *const pWide = sink(u"ab");
  EXPECT_EQ(mem.MEM_SinkDelete(reinterpret_cast<const char *>(pWide)), 4084);
  EXPECT_EQ(uses(pWide), 1U);
}

// An index that was written over: the copy is where no block of the sink is.
TEST_F(SinkCallTest, DeleteOfACopyOutsideOfAllBlocksIsRefused) {
  alignas(2) char stray[] = "stray\0\0";
  const char *const pSunk = sink("stray");
  auto *const slot = static_cast<std::uint8_t *>(block().pIndex) + 1023 * 16;
  const auto pointTo = [slot](const char *pCopy) { std::memcpy(slot, &pCopy, sizeof pCopy); };
  pointTo(stray);
  EXPECT_EQ(mem.MEM_SinkDelete(stray), kFailed);
  EXPECT_EQ(error().Code, 4086U);
  EXPECT_EQ(nameText(), "Bad SinkPtr=" + hex16(stray));
  EXPECT_EQ(host.lastReportedText(), nameText());
  EXPECT_EQ(host.lastReportedDetail(), kBadPointer);
  EXPECT_STREQ(stray, "stray");
  pointTo(pSunk);
  EXPECT_EQ(uses(pSunk), 1U);
}

TEST_F(SinkCallTest, EchoShowsUpTo62Characters) {
  for (const std::size_t length : {0U, 1U, 61U, 62U, 63U, 300U}) {
    SCOPED_TRACE(length);
    const std::string text(length, 'e');
    const std::u16string wideText(length, u'\x20AC');
    const char *const truncated = length > 62 ? " (truncated)" : "";
    EXPECT_EQ(mem.MEM_SinkString(text.c_str(), nullptr), kFailed);
    EXPECT_EQ(messageText(),
              refhost::formatText("Error Exit Text=%-1.62s %s", text.c_str(), truncated));
    EXPECT_EQ(mem.MEM_WSinkString(wideText.c_str(), nullptr), kFailed);
    EXPECT_EQ(messageText(),
              refhost::formatText("Error Exit Text(WIDE)=%-1.62S %s", wideText.c_str(), truncated));
    EXPECT_EQ(mem.MEM_SinkVerify(text.c_str(), nullptr, nullptr), kFailed);
    EXPECT_EQ(messageText(), refhost::formatText("Error Exit Text=%-1.62s", text.c_str()));
    EXPECT_EQ(mem.MEM_WSinkVerify(wideText.c_str(), nullptr, nullptr), kFailed);
    EXPECT_EQ(messageText(), refhost::formatText("Error Exit Text=%-1.62S", wideText.c_str()));
  }
}

TEST_F(SinkCallTest, EchoOfATextIsNeverAFormat) {
  EXPECT_EQ(mem.MEM_SinkString("%s%n%p", nullptr), kFailed);
  EXPECT_EQ(messageText(), "Error Exit Text=%s%n%p ");
}

TEST_F(SinkCallTest, TextThatNoBlockCanHoldIsRefusedAtOnce) {
  host.keepRecords(true);
  const refhost::Account before = host.account(230, 0);
  const std::string text(0x3FFFE, 'l');
  const char *pSunk = text.c_str();
  EXPECT_EQ(mem.MEM_SinkString(text.c_str(), &pSunk), kFailed);
  EXPECT_EQ(pSunk, text.c_str());
  EXPECT_EQ(error().Code, 4085U);
  EXPECT_EQ(nameText(), "AllSinkBlksFull");
  const std::string shown(62, 'l');
  EXPECT_EQ(records(), (Lines{"EXCP OUT OF SPACE: wideflag=0, TLenOrig=262142 TLen=262144 "
                              "GLen=262146,GBlk=131073",
                              "EXCP Error Exit Text=" + shown + "  (truncated)"}));
  EXPECT_EQ(messageText(), "Error Exit Text=" + shown + "  (truncated)");

  const std::u16string wideText(0x1FFFF, u'w');
  const char16_t *pWide = nullptr;
  EXPECT_EQ(mem.MEM_WSinkString(wideText.c_str(), &pWide), kFailed);
  EXPECT_EQ(error().Code, 4085U);
  EXPECT_EQ(host.account(230, 0).totalCount, before.totalCount);
  EXPECT_EQ(block().SegmentCount, 1);
}

// Failing host calls: one of each point here, all of them in the fault sweep.

struct HostFailureRow {
  const char *name;
  Service service;
  std::uint64_t nth;
  void (*prepare)(MEMFunctionVector &);
  bool isDelete;
  std::uint32_t code;
  const char *nameText;
};

void PrintTo(const HostFailureRow &row, std::ostream *out) {
  *out << row.name;
}

void fillBlock(MEMFunctionVector &mem) {
  const char *pSunk = nullptr;
  EXPECT_EQ(mem.MEM_SinkString(sized(0x40000 - 10, "full").c_str(), &pSunk), 0);
}

void fillIndex(MEMFunctionVector &mem) {
  const char *pSunk = nullptr;
  for (std::size_t i = 1; i < 1024; ++i) {
    EXPECT_EQ(mem.MEM_SinkString(numbered(i).c_str(), &pSunk), 0);
  }
}

class SinkHostFailureTest : public SinkCallTest,
                            public ::testing::WithParamInterface<HostFailureRow> {
 protected:
  // The process block without the first segment's counter, which is the library's own.
  Bytes blockBytes() {
    Bytes bytes = bytesOf(&block(), 3248);
    std::fill_n(bytes.begin() + 136, 4, std::uint8_t{0});
    return bytes;
  }
};

INSTANTIATE_TEST_SUITE_P(
    EachPoint, SinkHostFailureTest,
    ::testing::Values(
        HostFailureRow{"SinkGate", Service::AcquireGate, 1, nullptr, false, 4081, "ListGateAcq"},
        HostFailureRow{"NewBlock", Service::GetStorage, 1, fillBlock, false, 4080, "GetVSTGErr"},
        HostFailureRow{"NewBlocksProtection", Service::ProtectStorage, 1, fillBlock, false, 4080,
                       "ProtPageErr"},
        HostFailureRow{"Writable", Service::ProtectStorage, 1, nullptr, false, 4080,
                       "ProtPageErrReadWrite"},
        HostFailureRow{"ReadOnly", Service::ProtectStorage, 2, nullptr, false, 4080,
                       "ProtPageErrReadOnly"},
        HostFailureRow{"Growth", Service::GetStorage, 1, fillIndex, false, 4080, "GetVSTGErr"},
        HostFailureRow{"DeleteGate", Service::AcquireGate, 1, nullptr, true, 4081, "ListGateAcq"},
        HostFailureRow{"DeleteWritable", Service::ProtectStorage, 1, nullptr, true, 4080,
                       "ProtPageErrReadWrite"}),
    rowName<HostFailureRow>);

TEST_P(SinkHostFailureTest, KeepsTheHostsErrorInsideAndChangesNothing) {
  const HostFailureRow &row = GetParam();
  const char *const known = sink("known1");  // reserves 10 bytes
  if (row.prepare != nullptr) row.prepare(mem);
  host.keepRecords(true);
  const Bytes blockBefore = blockBytes();
  for (const std::uint32_t hostError : {0U, 777U}) {
    refhost::Fault fault = faultOf(row.service, hostError);
    fault.nth = row.nth;
    host.arm(fault);
    const char *pSunk = "cell";
    const std::uint64_t formatted = host.calls(Service::Format);
    EXPECT_EQ(row.isDelete ? mem.MEM_SinkDelete(known) : mem.MEM_SinkString("unknown", &pSunk),
              kFailed);
    host.disarm();
    EXPECT_STREQ(pSunk, "cell");
    EXPECT_EQ(error().Component, 3);
    EXPECT_EQ(error().ReturnCode, 0xFFFF);
    EXPECT_EQ(error().Code, row.code);
    EXPECT_EQ(nameText(), row.nameText);
    EXPECT_EQ(error().InnerCode, hostError);
    EXPECT_STREQ(error().InnerText, hostError == 0 ? "" : kHostErrorText);
    EXPECT_EQ(messageText(), row.isDelete ? "Error Exit Text=known1" : "Error Exit Text=unknown ");
    EXPECT_EQ(records(), Lines{"EXCP " + messageText()});
    EXPECT_EQ(host.calls(Service::Format), formatted);
    EXPECT_EQ(host.lastReportedText(), row.nameText);
    EXPECT_EQ(host.heldGateCount(), 0U);
    EXPECT_EQ(changedRanges(blockBefore, blockBytes()), "");
    expectSound();
    expectProtected();
    EXPECT_EQ(find("known1"), known);
  }
}

TEST_F(SinkCallTest, DeleteThatCannotProtectAgainLeavesNothingOfTheCopy) {
  const char *const pSunk = sink("gone");
  sink("stays");
  refhost::Fault fault = faultOf(Service::ProtectStorage, 777);
  fault.nth = 2;
  host.arm(fault);
  EXPECT_EQ(mem.MEM_SinkDelete(pSunk), kFailed);
  EXPECT_EQ(error().Code, 4080U);
  EXPECT_EQ(nameText(), "ProtPageErrReadOnly");
  EXPECT_EQ(error().InnerCode, 777U);
  EXPECT_EQ(messageText(), "Error Exit Text=gone");
  EXPECT_EQ(block().Act, 1U);
  EXPECT_EQ(lengths(), "Used=8 Free=262136 Text=7");
  expectSound();
  expectProtected();  // the host was asked once more
  EXPECT_EQ(sink("gone"), pSunk) << "the room is free again";
}

// The host is asked to protect twice, whatever it answers then, and the first refusal is reported.
TEST_F(SinkCallTest, DeleteAsksOnlyTwiceToProtectAgain) {
  const char *const pSunk = sink("gone");
  static decltype(MEMRuntimeServices::ProtectStorage) own = nullptr;
  static std::uint32_t refusals = 0;
  static MEMThreadEnv *pEnv = nullptr;
  static Lines asked;
  own = host.runtime().ProtectStorage;
  refusals = 0;
  pEnv = &env();
  asked.clear();
  host.runtime().ProtectStorage = [](void *pArea, std::uint32_t length, std::uint16_t subPool,
                                     std::uint16_t mode) -> std::uint16_t {
    asked.push_back(hex16(pArea) + " " + std::to_string(length) + " " + std::to_string(mode));
    if (mode == MEM_PROTECT_WRITABLE) return own(pArea, length, subPool, mode);
    pEnv->Error.Code = 900 + ++refusals;
    return 8;
  };
  EXPECT_EQ(mem.MEM_SinkDelete(pSunk), kFailed);
  const std::string run = hex16(pSunk) + " 8 ";
  EXPECT_EQ(asked, (Lines{run + "32", run + "16", run + "16"}));
  EXPECT_EQ(error().Code, 4080U);
  EXPECT_EQ(nameText(), "ProtPageErrReadOnly");
  EXPECT_EQ(error().InnerCode, 901U);
  EXPECT_EQ(block().Act, 0U);
  own(space(), 0x40000, 230, 16);
}

TEST_F(SinkCallTest, GateFailsAllSixCallsAlike) {
  const char *pNarrow = nullptr;
  const char16_t *pWide = nullptr;
  sink("ab");
  const std::pair<std::function<std::int16_t()>, const char *> calls[] = {
      {[&] { return mem.MEM_SinkString("ab", &pNarrow); }, "Error Exit Text=ab "},
      {[&] { return mem.MEM_SinkVerify("ab", &pNarrow, nullptr); }, "Error Exit Text=ab"},
      {[&] { return mem.MEM_SinkDelete("ab"); }, "Error Exit Text=ab"},
      {[&] { return mem.MEM_WSinkString(u"ab", &pWide); }, "Error Exit Text(WIDE)=ab "},
      {[&] { return mem.MEM_WSinkVerify(u"ab", &pWide, nullptr); }, "Error Exit Text=ab"},
      {[&] { return mem.MEM_WSinkDelete(u"ab"); }, "Error Exit Text=ab"},
  };
  for (const auto &[call, echo] : calls) {
    host.arm(faultOf(Service::AcquireGate, 777));
    const std::uint64_t released = host.calls(Service::ReleaseGate);
    EXPECT_EQ(call(), kFailed);
    EXPECT_EQ(error().Code, 4081U);
    EXPECT_EQ(nameText(), "ListGateAcq");
    EXPECT_EQ(error().InnerCode, 777U);
    EXPECT_STREQ(error().InnerText, kHostErrorText);
    EXPECT_EQ(messageText(), echo);
    EXPECT_EQ(host.calls(Service::ReleaseGate), released) << "a gate that is not held";
  }
  EXPECT_EQ(pNarrow, nullptr);
  EXPECT_EQ(pWide, nullptr);
}

// Without a thread environment.

TEST_F(SinkCallTest, WideCallsNeedAThreadEnvironmentAndNarrowOnesDoNot) {
  host.withoutThreadEnv(true);
  host.recordCalls(true);
  const char16_t *pWide = nullptr;
  EXPECT_EQ(mem.MEM_WSinkString(u"ab", &pWide), kFailed);
  EXPECT_EQ(mem.MEM_WSinkVerify(u"ab", &pWide, nullptr), kFailed);
  EXPECT_EQ(mem.MEM_WSinkDelete(u"ab"), kFailed);
  EXPECT_EQ(
      callLines(host.takeCalls()),
      (Lines{"MEM_WSinkString: EnterFrame(frame, 3)", "MEM_WSinkString: LeaveFrame(frame, 3)",
             "MEM_WSinkVerify: EnterFrame(frame, 3)", "MEM_WSinkVerify: LeaveFrame(frame, 3)",
             "MEM_WSinkDelete: EnterFrame(frame, 3)", "MEM_WSinkDelete: LeaveFrame(frame, 3)"}));
  host.recordCalls(false);
  EXPECT_EQ(pWide, nullptr);

  host.setTraceFlags(kAllFlags);
  const char *const pSunk = sink("ab");
  EXPECT_STREQ(pSunk, "ab");
  EXPECT_EQ(find("ab"), pSunk);
  EXPECT_EQ(mem.MEM_SinkDelete(pSunk), 0);
  EXPECT_EQ(mem.MEM_SinkDelete("ab"), 4084);
  host.withoutThreadEnv(false);
}

// Without a process block.

class SinkWithoutProcessTest : public BoundTest {};

TEST_F(SinkWithoutProcessTest, EveryCallFailsInternally) {
  const char *pNarrow = nullptr;
  const char16_t *pWide = nullptr;
  const std::pair<std::function<std::int16_t()>, const char *> calls[] = {
      {[&] { return mem.MEM_SinkString("ab", &pNarrow); }, "Error Exit Text=ab "},
      {[&] { return mem.MEM_SinkVerify("ab", &pNarrow, nullptr); }, "Error Exit Text=ab"},
      {[&] { return mem.MEM_SinkDelete("ab"); }, "Error Exit Text=ab"},
      {[&] { return mem.MEM_WSinkString(u"ab", &pWide); }, "Error Exit Text(WIDE)=ab "},
      {[&] { return mem.MEM_WSinkVerify(u"ab", &pWide, nullptr); }, "Error Exit Text=ab"},
      {[&] { return mem.MEM_WSinkDelete(u"ab"); }, "Error Exit Text=ab"},
  };
  for (const auto &[call, echo] : calls) {
    EXPECT_EQ(call(), kFailed);
    EXPECT_EQ(error().Component, 3);
    EXPECT_EQ(error().ReturnCode, 0xFFFF);
    EXPECT_EQ(error().Code, 4086U);
    EXPECT_EQ(error().InnerCode, 0U);
    EXPECT_EQ(messageText(), echo);
  }
  EXPECT_EQ(host.calls(Service::AcquireGate), 0U);
  EXPECT_EQ(host.calls(Service::GetStorage), 0U);
}

// Records.

TEST_F(SinkCallTest, EntryAndExitRecordsFollowTheirFlags) {
  trace(MEM_TRACE_ENTRY);
  const char *const pNarrow = sink("ab");
  const char16_t *const pWide = sink(u"a\x20AC");
  find("ab");
  EXPECT_EQ(mem.MEM_SinkDelete(pNarrow), 0);
  EXPECT_EQ(mem.MEM_WSinkDelete(pWide), 0);
  EXPECT_EQ(
      records(),
      (Lines{"STDE Sinking Narrow String \"ab\"", "STDE Sinking Wide String \"a\xE2\x82\xAC\"",
             "STDE Sink String ptr=" + hex16(pNarrow), "STDE Sink String ptr=" + hex16(pWide)}));
  trace(MEM_TRACE_EXIT);
  sink("ab");
  find("ab");
  EXPECT_EQ(mem.MEM_SinkVerify("abc", nullptr, nullptr), kFailed);
  const char *pSunk = nullptr;
  EXPECT_EQ(mem.MEM_SinkVerify("abc", &pSunk, nullptr), 4084);
  EXPECT_EQ(mem.MEM_SinkDelete("abc"), 4084);
  EXPECT_EQ(records(),
            (Lines{"STDX Return=SUCCESS", "STDX Return=SUCCESS", "EXCP Error Exit Text=abc"}));
}

TEST_F(SinkCallTest, NothingIsWrittenOrFormattedWithClearFlags) {
  const std::uint64_t before = traceCalls(host);
  const char *const pSunk = sink("ab");
  sink(u"abc");
  sink("ab");
  find("ab");
  EXPECT_EQ(mem.MEM_SinkDelete(pSunk), 0);
  EXPECT_EQ(mem.MEM_SinkDelete(pSunk), 0);
  EXPECT_EQ(mem.MEM_SinkDelete("unknown"), 4084);
  EXPECT_EQ(traceCalls(host), before);
}

TEST_F(SinkCallTest, DetailRecordsOfTheFirstCopy) {
  trace(MEM_TRACE_SINK);
  const char *const pSunk = sink("ab");
  const auto *const slot = static_cast<const std::uint8_t *>(block().pIndex) + 1023 * 16;
  EXPECT_EQ(
      records(),
      (Lines{"SL32 List empty", "SL32 Not Found Exit string=\"ab\"",
             "SL32 wideflag=0, TLenOrig=2 TLen=4 GLen=6,GBlk=3",
             "SL32 Sink String space starts at " + hex16(space()),
             "SL32 Aligned Sink String ptr=" + hex16(pSunk), "SL32 ScanIdx=0 CMap=1 Gblk=3 BSlot=0",
             "SL32 Insert Fnd=1024 Act=0 Used=0 1st=0 End=0 Free=1023 Sse=" + hex16(pSunk),
             "SL32 Insert into Empty List Eid=1023 Sse=" + hex16(slot)}));
  sink("ab");
  EXPECT_EQ(records(),
            (Lines{"SL32 Single List Entry=" + hex16(pSunk) + " string=\"ab\" (L\"\u6261\")",
                   "SL32 Found Element Eid=1023 Sse=" + hex16(slot) + " TxtVal=" + hex16(pSunk) +
                       ",L\"\u6261\"(\"ab\")"}));
  const char16_t *pWide = nullptr;
  EXPECT_EQ(mem.MEM_WSinkVerify(u"zz", &pWide, nullptr), 4084);
  EXPECT_EQ(records(),
            (Lines{"SL32 Single List Entry=" + hex16(pSunk) + " string=\"ab\" (L\"\u6261\")",
                   "SL32 Not Found Exit string=L\"zz\""}));
}

TEST_F(SinkCallTest, DetailRecordsOfEachInsertion) {
  const auto slot = [this](std::size_t number) {
    return hex16(static_cast<const std::uint8_t *>(block().pIndex) + number * 16);
  };
  const auto insertLines = [this] {
    Lines lines = records();
    while (!lines.empty() && lines.front().find("SL32 Insert Fnd") != 0) lines.erase(lines.begin());
    return lines;
  };
  trace(MEM_TRACE_SINK);
  sink("m");
  records();
  const char *pSunk = sink("a");
  EXPECT_EQ(
      insertLines(),
      (Lines{"SL32 Insert Fnd=1023 Act=1 Used=1 1st=1023 End=1023 Free=1022 Sse=" + hex16(pSunk),
             "SL32 Insert As 1st in List Eid=1022 Sse=" + slot(1022)}));
  pSunk = sink("z");
  EXPECT_EQ(
      insertLines(),
      (Lines{"SL32 Insert Fnd=1024 Act=2 Used=2 1st=1022 End=1023 Free=1021 Sse=" + hex16(pSunk),
             "SL32 Insert Last in List Eid=1023 Garbarge=0 Sse=" + slot(1023)}));
  pSunk = sink("b");
  EXPECT_EQ(
      insertLines(),
      (Lines{"SL32 Insert Fnd=1022 Act=3 Used=3 1st=1021 End=1023 Free=1020 Sse=" + hex16(pSunk),
             "SL32 Internal Add Expand Slot MoveL=16 MoveT=" + slot(1020) + " MoveS=" + slot(1021),
             "SL32 Internal Add pSse=" + slot(1021)}));
}

TEST_F(SinkCallTest, DetailRecordsOfABinarySearch) {
  const char *const pB = sink("b");
  sink("d");
  sink("f");
  trace(MEM_TRACE_SINK);
  find("b");
  const auto *const slot = static_cast<const std::uint8_t *>(block().pIndex) + 1021 * 16;
  EXPECT_EQ(records(),
            (Lines{"SL32 Binary Search Lo=1021 Hi=1023", "SL32 PSTssecmp(\"b\",\"d\"(L\"d\"))= -1",
                   "SL32 Binary Search Lo=1021 Hi=1021", "SL32 PSTssecmp(\"b\",\"b\"(L\"b\"))= 0",
                   "SL32 Found Element Eid=1021 Sse=" + hex16(slot) + " TxtVal=" + hex16(pB) +
                       ",L\"b\"(\"b\")"}));
  const char16_t *pWide = nullptr;
  EXPECT_EQ(mem.MEM_WSinkVerify(u"e", &pWide, nullptr), 4084);
  EXPECT_EQ(records(),
            (Lines{"SL32 Binary Search Lo=1021 Hi=1023", "SL32 PSTssecmp(L\"e\",L\"d\"(\"d\"))= 1",
                   "SL32 Binary Search Lo=1023 Hi=1023", "SL32 PSTssecmp(L\"e\",L\"f\"(\"f\"))= -1",
                   "SL32 Not Found Exit string=L\"e\""}));
}

TEST_F(SinkCallTest, RecordsShowAtMost511Characters) {
  const std::string text(600, 't');
  const std::u16string wideText(600, u'w');
  sink(text);
  trace(MEM_TRACE_ENTRY | MEM_TRACE_SINK);
  sink(text);
  sink(wideText);
  const std::string shown(511, 't');
  Lines lines = records();
  ASSERT_GE(lines.size(), 6U);
  EXPECT_EQ(lines[0], "STDE Sinking Narrow String \"" + shown + "\"");
  std::size_t longest = 0;
  for (const std::string &line : lines) {
    std::size_t run = 0;
    for (const char c : line) {
      run = c == 't' ? run + 1 : 0;
      longest = run > longest ? run : longest;
    }
  }
  EXPECT_EQ(longest, 511U);
  EXPECT_EQ(lines[3], "STDE Sinking Wide String \"" + std::string(511, 'w') + "\"");
}

// Every argument that slot 12 gets as a text must end within 512 characters.
TEST_F(SinkCallTest, FormatServiceNeverSeesALongerText) {
  static std::size_t longest = 0;
  longest = 0;
  static constexpr auto kLength = [](const auto *text) {
    std::size_t length = 0;
    while (text[length] != 0) ++length;
    return length;
  };
  trace(MEM_TRACE_SINK);
  host.onTrace([](const refhost::TraceRecord &record) {
    longest = std::max(longest, kLength(record.text.c_str()));
  });
  sink(std::string(5000, 'n'));
  sink(std::string(5000, 'n') + "m");
  sink(std::u16string(5000, u'\x20AC'));
  host.onTrace({});
  // The longest line is a comparison: the input as wide, the copy as narrow and as wide text.
  EXPECT_LE(longest, 511U * 3 + 511U * 3 + 511U + 40U);
  EXPECT_GT(longest, 511U * 3);
}

// The echo of a failing wide input in the free message text is UTF-8; what is no character shows as
// the replacement character.
TEST_F(SinkTest, EchoOfWideInputIsUtf8) {
  const std::string replaced = "\xEF\xBF\xBD";
  const std::u16string longest(61, u'a');
  const std::map<std::u16string, std::string> echoes = {
      {u"a\u00E9\u4E00", "a\xC3\xA9\xE4\xB8\x80 "},
      {u"\xD83D\xDE00!", "\xF0\x9F\x98\x80! "},
      {u"\xD800\xDC00\xDBFF\xDFFF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF "},
      {u"\xD83D", replaced + " "},  // a high half at the end
      {u"\xD83Dx\xD83D\xE000", replaced + "x" + replaced + "\xEE\x80\x80 "},
      {u"\xDE00\xFFFD", replaced + replaced + " "},
      {longest + u"\xD83D\xDE00",  // the pair does not fit the 62 units shown
       std::string(61, 'a') + replaced + "  (truncated)"},
  };
  for (const auto &[text, echo] : echoes) {
    EXPECT_EQ(mem.MEM_WSinkString(text.c_str(), nullptr), kFailed);
    EXPECT_EQ(messageText(), "Error Exit Text(WIDE)=" + echo);
  }
}

}  // namespace
}  // namespace memtest
