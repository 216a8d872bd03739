// Concatenation buffers: steps of growth, bytes moved, limits, failures inside and outside of
// MEM_Cat, trace records and the slots they use.

#include <limits>
#include <ostream>
#include <string>
#include <utility>

#include "catmodel.hpp"
#include "guardpages.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr std::int32_t kLongest = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr char kNoStorage[] = "Memory Alloc failed";
constexpr char kTooLong[] = "MemCat String area >= 2147483647";
constexpr char kAppendFailed[] = "MemCatStdStringFail";

constexpr std::uint8_t kBlockFilling = 0x5E;

MEMCatCB filledBlock() {
  MEMCatCB cat;
  std::memset(&cat, kBlockFilling, sizeof cat);
  return cat;
}

class CatTest : public HeapHashTest {
 protected:
  explicit CatTest(refhost::Options options = withDirtyStorage())
      : HeapHashTest(options), watch(mem), cat(filledBlock()) {}

  void open() {
    EXPECT_EQ(mem.MEM_CatOpen(&cat), 0);
    watch.uses.clear();
  }

  void close() { EXPECT_EQ(mem.MEM_CatClose(&cat), 0); }

  void append(const std::u16string &text) {
    EXPECT_EQ(mem.MEM_MemCat(&cat, text.c_str(), static_cast<std::int32_t>(text.size())), 0);
  }

  // Opens the buffer and fills it with so many letters.
  void openWith(std::size_t characters) {
    open();
    append(std::u16string(characters, u'x'));
    watch.uses.clear();
  }

  std::u16string text() const { return std::u16string(cat.pText, cat.Len); }

  // The buffer's block and storage.
  Bytes image() const {
    Bytes bytes = bytesOf(&cat, sizeof cat);
    const Bytes storage = bytesOf(cat.pText, cat.BlkLen);
    bytes.insert(bytes.end(), storage.begin(), storage.end());
    return bytes;
  }

  std::uint32_t &flags() { return env().pMemThreadBlk->Flags; }

  // MEM_MemCat fails by itself: its code and text are the outer ones.
  template <class Call>
  void expectAppendFails(std::uint32_t code, const std::string &name, Call call) {
    expectFails(code, name, NameBy::kMessage, call, {}, {"", true});
  }

  // MEM_Cat fails with the failure of MEM_MemCat inside.
  template <class Call>
  void expectCatFails(std::uint32_t innerCode, const std::string &innerText, Call call,
                      std::uint32_t previousInnerCode = 0) {
    std::memset(&error(), 0xEE, sizeof error());
    setMessageText(kStandingText);
    reports.clear();
    host.resetCalls();

    EXPECT_EQ(call(), kFailed);

    MEMErrorArea expected{};
    expected.ReturnCode = kFailedCode;
    expected.Code = 4027;
    expected.InnerCode = innerCode;
    expected.PrevInnerCode = previousInnerCode;
    std::strcpy(expected.NameText, kAppendFailed);
    std::strcpy(expected.InnerText, innerText.c_str());
    EXPECT_EQ(nameText(), kAppendFailed);
    EXPECT_EQ(error().InnerText, innerText);
    EXPECT_EQ(changedRanges(bytesOf(&expected, sizeof expected), errorBytes(env())), "");
    EXPECT_EQ(messageText(), innerText);
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].pErrorText, env().MessageText);
    EXPECT_EQ(reports[0].errorText, innerText);
    EXPECT_EQ(reports[0].code, 0U) << "the inner report comes before the outer code";
    EXPECT_EQ(reports[0].returnCode, kFailedCode);
    EXPECT_EQ(reports[1].pErrorText, error().NameText);
    EXPECT_EQ(reports[1].errorText, kAppendFailed);
    EXPECT_EQ(reports[1].code, 4027U);
    for (const Report &report : reports) EXPECT_EQ(report.detail, "");
    EXPECT_EQ(traceCalls(host), 0U);
  }

  VectorWatch watch;
  MEMCatCB cat;
};

// Opening and closing.

TEST_F(CatTest, OpenWritesTheBlockAndLeavesTheStorage) {
  EXPECT_EQ(mem.MEM_CatOpen(&cat), 0);
  const Layout expected =
      Layout().address(cat.pText).field(std::uint32_t{1024}).field(std::uint32_t{0}).field('A');
  EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(&cat, 17)), "");
  EXPECT_TRUE(allBytesAre(at(&cat, 17), 7, kBlockFilling));
  EXPECT_TRUE(allBytesAre(cat.pText, 1024, kDirty)) << "no terminator yet";
  EXPECT_EQ(watch.takeLines(), (Lines{"8(1024, 0)"}));
  close();
}

TEST_F(CatTest, OpenAndCloseCallTheHostOnceEach) {
  EXPECT_EQ(hostCalls([&] { mem.MEM_CatOpen(&cat); }), framed("MEM_CatOpen", allocLines(1024, 0)));
  EXPECT_EQ(hostCalls([&] { close(); }, {{asNumber(cat.pText), "text"}}),
            framed("MEM_CatClose", freeLines("text", 1024, 0)));
}

TEST_F(CatTest, OpenWithoutStorageMakesTheAddressNullOnly) {
  for (const std::uint32_t hostError : {0U, 777U}) {
    cat = filledBlock();
    host.arm(faultOf(Service::GetStorage, hostError));
    expectFails(4026, "AcqMemCatExtString", NameBy::kItself, [&] { return mem.MEM_CatOpen(&cat); });
    EXPECT_EQ(cat.pText, nullptr);
    EXPECT_TRUE(allBytesAre(at(&cat, 8), 16, kBlockFilling));
  }
}

TEST_F(CatTest, OpenWithoutABlockFails) {
  expectFails(4026, "AcqMemCatExtString", NameBy::kItself,
              [&] { return mem.MEM_CatOpen(nullptr); });
  EXPECT_TRUE(watch.uses.empty());
}

TEST_F(CatTest, CloseReturnsTheStorageAndMakesTheAddressNullOnly) {
  openWith(3000);
  ASSERT_EQ(cat.BlkLen, 6144U);
  const AddressNames names = {{asNumber(cat.pText), "text"}};
  Bytes expected = bytesOf(&cat, sizeof cat);
  store<void *>(expected.data(), 0, nullptr);
  close();
  EXPECT_EQ(changedRanges(expected, bytesOf(&cat, sizeof cat)), "");
  EXPECT_EQ(watch.takeLines(names), (Lines{"9(text, 6144, 0)"}));
}

TEST_F(CatTest, CloseWithoutStorageReturnsNothing) {
  open();
  close();
  expectEnds(0, [&] { return mem.MEM_CatClose(&cat); });
  watch.uses.clear();
  for (const std::uint32_t blkLen : {0U, 1024U, 0x7FFFFFFFU}) {
    cat.BlkLen = blkLen;
    close();
  }
  EXPECT_TRUE(watch.uses.empty());
}

TEST_F(CatTest, CloseAfterAFailedOpenLooksAtTheBlocksOldLength) {
  watch.refuseStorage = 1;
  EXPECT_EQ(mem.MEM_CatOpen(&cat), kFailed);
  expectEnds(0, [&] { return mem.MEM_CatClose(&cat); });
  cat.BlkLen = 0x80000000U;
  expectFails(4028, "FreeMemCatExtString", NameBy::kItself, [&] { return mem.MEM_CatClose(&cat); },
              {}, {"pCatCB->BlkLen>LONG_MAX"});
  EXPECT_EQ(watch.takeLines(), (Lines{"8(1024, 0)"}));
}

TEST_F(CatTest, CloseReturnsUpTo2147483647Bytes) {
  static std::uint32_t returned;
  mem.MEM_Free = [](void *, std::uint32_t size, std::int16_t) { returned = size; };
  for (const std::uint32_t blkLen : {0U, 1U, 0x7FFFFFFEU, 0x7FFFFFFFU}) {
    char16_t storage = 0;
    cat.pText = &storage;
    cat.BlkLen = blkLen;
    returned = 77;
    close();
    EXPECT_EQ(returned, blkLen);
    EXPECT_EQ(cat.pText, nullptr);
  }
}

TEST_F(CatTest, CloseRefusesALongerBlock) {
  char16_t storage = 0;
  for (const std::uint32_t blkLen : {0x80000000U, 0x80000001U, 0xFFFFFFFFU}) {
    cat.pText = &storage;
    cat.BlkLen = blkLen;
    const Bytes before = bytesOf(&cat, sizeof cat);
    expectFails(4028, "FreeMemCatExtString", NameBy::kItself,
                [&] { return mem.MEM_CatClose(&cat); }, {}, {"pCatCB->BlkLen>LONG_MAX"});
    EXPECT_EQ(changedRanges(before, bytesOf(&cat, sizeof cat)), "");
  }
  EXPECT_TRUE(watch.uses.empty());
  EXPECT_EQ(host.message(4028), std::nullopt) << "a code without a message";
}

TEST_F(CatTest, CloseWithoutABlockFails) {
  expectFails(4028, "FreeMemCatExtString", NameBy::kItself,
              [&] { return mem.MEM_CatClose(nullptr); });
}

TEST_F(CatTest, SuccessRecordsNothing) {
  expectEnds(0, [&] { return mem.MEM_CatOpen(&cat); });
  expectEnds(0, [&] { return mem.MEM_Cat(&cat, u"abc"); });
  expectEnds(0, [&] { return mem.MEM_MemCat(&cat, u"abc", 3); });
  const std::u16string large(5000, u'x');
  expectEnds(0, [&] { return mem.MEM_Cat(&cat, large.c_str()); });
  expectEnds(0, [&] { return mem.MEM_MemCat(&cat, large.c_str(), 5000); });
  expectEnds(0, [&] { return mem.MEM_CatClose(&cat); });
}

// Appending and growth, the same by both services.

using AppendFn = std::int16_t(MEMFunctionVector &, MEMCatCB *, const std::u16string &);

struct AppendCase {
  const char *name;
  AppendFn *call;
  Append by;
};

constexpr AppendCase kAppendCases[] = {
    {"Text",
     [](MEMFunctionVector &mem, MEMCatCB *pCat, const std::u16string &text) {
       return mem.MEM_Cat(pCat, text.c_str());
     },
     Append::kText},
    {"Length",
     [](MEMFunctionVector &mem, MEMCatCB *pCat, const std::u16string &text) {
       return mem.MEM_MemCat(pCat, text.c_str(), static_cast<std::int32_t>(text.size()));
     },
     Append::kLength},
};

void PrintTo(const AppendCase &row, std::ostream *out) {
  *out << row.name;
}

class CatAppendTest : public CatTest, public ::testing::WithParamInterface<AppendCase> {
 protected:
  void append(const std::u16string &text) { EXPECT_EQ(GetParam().call(mem, &cat, text), 0); }

  template <class Call>
  void expectRefused(std::uint32_t code, const std::string &name, Call call) {
    if (GetParam().by == Append::kText) {
      expectCatFails(code, name, call);
    } else {
      expectAppendFails(code, name, call);
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Services, CatAppendTest, ::testing::ValuesIn(kAppendCases),
                         caseName<AppendCase>);

TEST_P(CatAppendTest, TextsFollowEachOther) {
  open();
  for (const char16_t *piece : {u"one", u"", u" and ", u"\u20AC\xD83D\xDE00", u"!"}) append(piece);
  EXPECT_EQ(text(), u"one and \u20AC\xD83D\xDE00!");
  EXPECT_EQ(cat.Len, 12U);
  EXPECT_EQ(cat.pText[12], 0);
  EXPECT_TRUE(allBytesAre(cat.pText + 13, 1024 - 26, kDirty));
  EXPECT_TRUE(watch.uses.empty());
  close();
}

TEST_P(CatAppendTest, EmptyTextWritesTheTerminatorOnly) {
  open();
  append(u"");
  EXPECT_EQ(cat.Len, 0U);
  EXPECT_EQ(cat.pText[0], 0);
  EXPECT_TRUE(allBytesAre(cat.pText + 1, 1022, kDirty));
  append(u"ab");
  cat.pText[2] = u'?';
  append(u"");
  EXPECT_EQ(cat.Len, 2U);
  EXPECT_EQ(std::u16string(cat.pText), u"ab");
  close();
}

struct GrowthCase {
  std::size_t before;     // characters already there
  std::uint32_t storage;  // bytes then
  std::size_t appended;   // characters
  std::uint32_t after;    // bytes
};

TEST_P(CatAppendTest, StorageGrowsToTheNextStepAboveTheNeed) {
  const GrowthCase rows[] = {
      {0, 1024, 510, 1024},     {0, 1024, 511, 1024},     {0, 1024, 512, 2048},
      {0, 1024, 513, 2048},     {0, 1024, 1022, 2048},    {0, 1024, 1023, 4096},
      {0, 1024, 1024, 4096},    {0, 1024, 2046, 4096},    {0, 1024, 2047, 6144},
      {0, 1024, 2048, 6144},    {511, 1024, 0, 1024},     {511, 1024, 1, 2048},
      {510, 1024, 1, 1024},     {500, 1024, 12, 2048},    {512, 2048, 510, 2048},
      {512, 2048, 511, 2048},   {1023, 4096, 0, 4096},    {1000, 2048, 23, 2048},
      {1000, 2048, 24, 4096},   {1023, 4096, 1024, 4096}, {1023, 4096, 1025, 6144},
      {1, 1024, 10237, 20480},  {1, 1024, 10238, 22528},  {0, 1024, 100000, 200704},
      {3071, 8192, 1024, 8192}, {3071, 8192, 1025, 10240}};
  for (const GrowthCase &row : rows) {
    SCOPED_TRACE(std::to_string(row.before) + " + " + std::to_string(row.appended));
    openWith(row.before);
    ASSERT_EQ(cat.BlkLen, row.storage);
    const AddressNames names = {{asNumber(cat.pText), "old"}};
    char16_t *const old = cat.pText;
    const std::uint32_t usedBefore = neededFor(row.before);
    std::memset(at(old, usedBefore), kBlockFilling, row.storage - usedBefore);
    append(std::u16string(row.appended, u'y'));
    if (row.after == row.storage) {
      EXPECT_EQ(watch.takeLines(names), Lines{});
      EXPECT_EQ(cat.pText, old);
    } else {
      EXPECT_EQ(watch.takeLines(names), (Lines{"8(" + std::to_string(row.after) + ", 0)",
                                               "9(old, " + std::to_string(row.storage) + ", 0)"}));
    }
    EXPECT_EQ(cat.BlkLen, row.after);
    EXPECT_EQ(cat.Len, row.before + row.appended);
    const std::u16string expected =
        std::u16string(row.before, u'x') + std::u16string(row.appended, u'y');
    EXPECT_TRUE(std::u16string(cat.pText) == expected);
    const std::uint32_t used = neededFor(expected.size());
    EXPECT_TRUE(allBytesAre(at(cat.pText, used), row.after - used,
                            row.after == row.storage ? kBlockFilling : kDirty))
        << "the bytes after the text are neither copied nor written";
    close();
  }
}

TEST_P(CatAppendTest, AppendWithRoomMovesAndMarksNothing) {
  openWith(100);
  char16_t *const old = cat.pText;
  cat.Mark = 'B';
  Bytes expected = image();
  const std::u16string added = u"twelve units";
  std::memcpy(expected.data() + sizeof cat + 200, added.c_str(), 26);
  store<std::uint32_t>(expected.data(), 12, 112);
  append(added);
  EXPECT_EQ(changedRanges(expected, image()), "");
  EXPECT_EQ(cat.pText, old);
  close();
}

TEST_P(CatAppendTest, GrowthMarksTheBlockAgain) {
  openWith(500);
  cat.Mark = 'B';
  append(std::u16string(12, u'y'));
  EXPECT_EQ(cat.Mark, 'A');
  EXPECT_TRUE(allBytesAre(at(&cat, 17), 7, kBlockFilling));
  close();
}

TEST_P(CatAppendTest, OldStorageIsCopiedBeforeItIsReturnedAndNotChanged) {
  static Bytes oldBytes;
  static MEMFunctionVector own;
  static MEMCatCB *block;
  static MEMCatCB atReturn;
  openWith(500);
  const Bytes before = bytesOf(cat.pText, 1024);
  own = mem;
  block = &cat;
  mem.MEM_Free = [](void *area, std::uint32_t size, std::int16_t subPool) {
    oldBytes = bytesOf(area, size);
    atReturn = *block;
    std::memset(area, 0xDD, size);
    own.MEM_Free(area, size, subPool);
  };
  append(std::u16string(600, u'y'));
  EXPECT_EQ(changedRanges(before, oldBytes), "");
  EXPECT_EQ(atReturn.pText, cat.pText);
  EXPECT_EQ(atReturn.BlkLen, 4096U);
  EXPECT_TRUE(text() == std::u16string(500, u'x') + std::u16string(600, u'y'));
  close();
}

// Both texts end where readable storage ends; the buffer's text ends before its storage does.
TEST_P(CatAppendTest, OnlyTextsAndTheirTerminatorsAreRead) {
  GuardPages buffer(2);
  GuardPages added(2);
  buffer.forbid(1);
  added.forbid(1);
  const auto atEnd = [](const GuardPages &pages, const std::u16string &text) {
    const std::size_t length = neededFor(text.size());
    std::memcpy(pages.behind(0) - length, text.c_str(), length);
    return reinterpret_cast<char16_t *>(pages.behind(0) - length);
  };
  const std::u16string appended(300, u'y');
  const char16_t *pAppended = atEnd(added, appended);
  for (const std::size_t length : {0U, 250U, 511U}) {
    const std::u16string before(length, u'x');
    cat = {atEnd(buffer, before), 598, static_cast<std::uint32_t>(length), 'A'};
    MEM_FreeFn *const ownFree = mem.MEM_Free;
    mem.MEM_Free = [](void *, std::uint32_t, std::int16_t) {};  // the storage is the test's
    EXPECT_EQ(GetParam().by == Append::kText ? mem.MEM_Cat(&cat, pAppended)
                                             : mem.MEM_MemCat(&cat, pAppended, 300),
              0);
    mem.MEM_Free = ownFree;
    EXPECT_TRUE(text() == before + appended);
    close();
  }
}

TEST_P(CatAppendTest, RefusedGrowthChangesNothing) {
  openWith(500);
  const Bytes before = image();
  const AddressNames names = {{asNumber(cat.pText), "text"}};
  for (const std::uint32_t fault : {0U, 1U}) {
    if (fault == 0) {
      watch.refuseStorage = 1;
    } else {
      host.arm(faultOf(Service::GetStorage));
    }
    expectRefused(4026, kNoStorage,
                  [&] { return GetParam().call(mem, &cat, std::u16string(12, u'y')); });
    EXPECT_EQ(watch.takeLines(names), (Lines{"8(2048, 0)"}));
    EXPECT_EQ(changedRanges(before, image()), "");
  }
  append(std::u16string(11, u'y'));
  EXPECT_EQ(cat.BlkLen, 1024U);
  append(u"z");
  EXPECT_EQ(text().substr(498), u"xxyyyyyyyyyyyz");
  close();
}

TEST_P(CatAppendTest, BufferIsAppendedToItself) {
  for (const bool soil : {false, true}) {
    watch.keepFreed = watch.soilFreed = soil;
    for (const std::size_t length : {1U, 2U, 255U, 256U, 300U, 511U, 1023U, 2000U}) {
      SCOPED_TRACE(length);
      open();
      std::u16string expected;
      for (std::size_t i = 0; i < length; ++i) expected += static_cast<char16_t>(u'A' + i % 60);
      append(expected);
      for (const std::size_t from : {std::size_t{0}, length / 2, length - 1, length}) {
        const char16_t *own = cat.pText + from;
        const auto rest = static_cast<std::int32_t>(cat.Len - from);
        const std::u16string added = expected.substr(from);
        EXPECT_EQ(GetParam().by == Append::kText ? mem.MEM_Cat(&cat, own)
                                                 : mem.MEM_MemCat(&cat, own, rest),
                  0);
        expected += added;
        EXPECT_TRUE(text() == expected) << from;
        EXPECT_EQ(cat.pText[cat.Len], 0);
      }
      close();
      watch.releaseKept();
    }
  }
}

TEST_P(CatAppendTest, ClosedBufferTakesNoText) {
  openWith(5);
  close();
  const Bytes before = bytesOf(&cat, sizeof cat);
  watch.uses.clear();
  for (const std::size_t length : {0U, 3U, 600U}) {
    expectRefused(4026, kNoStorage,
                  [&] { return GetParam().call(mem, &cat, std::u16string(length, u'y')); });
  }
  EXPECT_TRUE(watch.uses.empty());
  EXPECT_EQ(changedRanges(before, bytesOf(&cat, sizeof cat)), "");
}

TEST_P(CatAppendTest, BufferThatCouldNotBeOpenedTakesNoText) {
  watch.refuseStorage = 1;
  EXPECT_EQ(mem.MEM_CatOpen(&cat), kFailed);
  watch.uses.clear();
  for (const std::uint32_t blkLen : {0U, 1024U, 0x7FFFFFFEU}) {
    cat.BlkLen = blkLen;
    cat.Len = 0;
    expectRefused(4026, kNoStorage, [&] { return GetParam().call(mem, &cat, u"abc"); });
  }
  EXPECT_TRUE(watch.uses.empty());
}

TEST_P(CatAppendTest, ClosedBufferIsOpenedAgain) {
  openWith(3000);
  close();
  open();
  EXPECT_EQ(cat.BlkLen, 1024U);
  EXPECT_EQ(cat.Len, 0U);
  append(u"new");
  EXPECT_EQ(text(), u"new");
  close();
}

TEST_P(CatAppendTest, WithoutABlockFails) {
  expectRefused(4026, kNoStorage, [&] { return GetParam().call(mem, nullptr, u"abc"); });
}

// Limits. The blocks here have less storage than they say.

TEST_P(CatAppendTest, BlocksOf2147483647BytesAndMoreAreFull) {
  char16_t storage[8] = {};
  cat.pText = storage;
  for (const std::uint32_t blkLen : {0x7FFFFFFFU, 0x80000000U, 0x80000001U, 0xFFFFFFFFU}) {
    cat.BlkLen = blkLen;
    cat.Len = 0;
    const Bytes before = bytesOf(&cat, sizeof cat);
    for (const std::size_t length : {0U, 1U}) {
      expectRefused(4025, kTooLong,
                    [&] { return GetParam().call(mem, &cat, std::u16string(length, u'y')); });
    }
    expectAppendFails(4025, kTooLong, [&] { return mem.MEM_MemCat(&cat, nullptr, 1); });
    EXPECT_EQ(changedRanges(before, bytesOf(&cat, sizeof cat)), "");
  }
  EXPECT_EQ(storage[0], 0);
  cat.BlkLen = 0x7FFFFFFE;
  append(u"abc");
  append(u"d");
  EXPECT_EQ(std::u16string(storage), u"abcd");
  EXPECT_EQ(cat.BlkLen, 0x7FFFFFFEU);
  EXPECT_TRUE(watch.uses.empty());
}

struct LimitCase {
  std::uint32_t len;     // characters that the block claims to hold
  std::int32_t added;    // characters
  std::uint32_t wanted;  // bytes asked for, 0 where the text is too long
};

// The need is more than 32 bits can hold in the last rows of each kind, and would come out small.
TEST_F(CatTest, NeedsUpTo2147483647BytesAreAskedFor) {
  const LimitCase rows[] = {{0x3FFFFBFD, 0, 0x7FFFF800},
                            {0x3FFFFBFE, 0, 0x7FFFF800},  // need 0x7FFFF7FE
                            {0x3FFFFBFF, 0, 0x80000000},  // need 0x7FFFF800
                            {0x3FFFFFFE, 0, 0x80000000},  // need 0x7FFFFFFE
                            {0x3FFFFFFF, 0, 0},           // need 0x80000000
                            {0, 0x3FFFFFFE, 0x80000000},
                            {0, 0x3FFFFFFF, 0},
                            {1, 0x3FFFFFFD, 0x80000000},
                            {1, 0x3FFFFFFE, 0},
                            {0x3FFFFFFE, 1, 0},
                            {0x7FFFFFFE, 0, 0},
                            {0x7FFFFFFF, 0, 0},
                            {0x7FFFFFFF, 1, 0},
                            {0x80000000, 0, 0},
                            {0xFFFFFFFE, 1, 0},
                            {0xFFFFFFFF, 0, 0},
                            {0xFFFFFFFF, 1, 0},
                            {0xFFFFFFFF, kLongest, 0},
                            {0, kLongest, 0},
                            {1, kLongest, 0},
                            {0x80000000, kLongest, 0},
                            // no text has a negative length
                            {0, -1, 0},
                            {5, -1, 0},
                            {5, -5, 0},
                            {5, -6, 0},
                            {0, kLowest, 0},
                            {0x80000000, kLowest, 0},
                            {0xFFFFFFFF, kLowest, 0}};
  open();
  char16_t *const storage = cat.pText;
  for (const LimitCase &row : rows) {
    SCOPED_TRACE(std::to_string(row.len) + " + " + std::to_string(row.added));
    cat.Len = row.len;
    const Bytes before = image();
    const auto call = [&] { return mem.MEM_MemCat(&cat, u"text", row.added); };
    watch.refuseStorage = 1;
    if (row.wanted == 0) {
      expectAppendFails(4025, kTooLong, call);
      EXPECT_TRUE(watch.uses.empty());
    } else {
      expectAppendFails(4026, kNoStorage, call);
      EXPECT_EQ(watch.takeLines(), (Lines{"8(" + std::to_string(row.wanted) + ", 0)"}));
    }
    EXPECT_EQ(changedRanges(before, image()), "");
    EXPECT_EQ(cat.pText, storage);
  }
  watch.refuseStorage = 0;
  cat.Len = 0;
  close();
}

TEST_F(CatTest, UnitBehindTheLengthIsTheTerminatorWhateverItIs) {
  open();
  EXPECT_EQ(mem.MEM_MemCat(&cat, u"abcdef", 3), 0);
  EXPECT_EQ(cat.Len, 3U);
  EXPECT_EQ(std::u16string(cat.pText, 4), u"abcd");
  EXPECT_TRUE(allBytesAre(cat.pText + 4, 1016, kDirty));
  const std::u16string zeros = {u'x', 0, u'y', 0};
  EXPECT_EQ(mem.MEM_MemCat(&cat, zeros.c_str(), 4), 0);
  EXPECT_EQ(text(), u"abc" + zeros);
  close();
}

TEST_F(CatTest, NullTextFails) {
  open();
  const Bytes before = image();
  expectFails(4027, kAppendFailed, NameBy::kItself, [&] { return mem.MEM_Cat(&cat, nullptr); });
  for (const std::int32_t length : {0, 1, 600, -1}) {
    expectAppendFails(4027, kAppendFailed, [&] { return mem.MEM_MemCat(&cat, nullptr, length); });
  }
  EXPECT_EQ(changedRanges(before, image()), "");
  EXPECT_TRUE(watch.uses.empty());
  close();
}

// What MEM_Cat and MEM_MemCat pass to each other.

class CatNestingTest : public CatTest {
 protected:
  struct Seen {
    MEMCatCB *pCat;
    const char16_t *pText;
    std::int32_t length;
    std::uint32_t flags;
  };

  CatNestingTest() {
    seen_.clear();
    flags_ = &flags();
    innerResult = 0;
    mem.MEM_MemCat = [](MEMCatCB *pCat, const char16_t *pText, std::int32_t length) {
      seen_.push_back({pCat, pText, length, *flags_});
      return innerResult;
    };
  }

  // The calls of slot 29 since the last look.
  std::vector<Seen> takeSeen() { return std::exchange(seen_, {}); }

  inline static std::int16_t innerResult = 0;

 private:
  inline static std::vector<Seen> seen_;
  inline static std::uint32_t *flags_ = nullptr;
};

TEST_F(CatNestingTest, Slot29GetsTheTextWithTheFlagSet) {
  for (const std::u16string &text : {std::u16string(), std::u16string(u"abc"),
                                     std::u16string(511, u'x'), std::u16string(70000, u'y')}) {
    for (const std::uint32_t others : {0U, 0xFFFFFFFEU, 0x00010000U}) {
      flags() = others;
      const Bytes before = bytesOf(&cat, sizeof cat);
      expectEnds(0, [&] { return mem.MEM_Cat(&cat, text.c_str()); });
      const std::vector<Seen> seen = takeSeen();
      ASSERT_EQ(seen.size(), 1U);
      EXPECT_EQ(seen[0].pCat, &cat);
      EXPECT_EQ(seen[0].pText, text.c_str());
      EXPECT_EQ(seen[0].length, static_cast<std::int32_t>(text.size()));
      EXPECT_EQ(seen[0].flags, others | 1U);
      EXPECT_EQ(flags(), others);
      EXPECT_EQ(changedRanges(before, bytesOf(&cat, sizeof cat)), "");
    }
  }
}

TEST_F(CatNestingTest, AnyOtherResultOfSlot29IsAFailure) {
  for (const std::int16_t result : Shorts{-1, 1, 4026, 32767, -32768}) {
    SCOPED_TRACE(result);
    innerResult = result;
    flags() = 0x80000000U;
    expectFails(4027, kAppendFailed, NameBy::kItself, [&] { return mem.MEM_Cat(&cat, u"abc"); });
    EXPECT_EQ(flags(), 0x80000000U);
  }
}

TEST_F(CatNestingTest, WhatSlot29LeavesInTheErrorAreaStays) {
  static MEMErrorArea *area;
  area = &error();
  mem.MEM_MemCat = [](MEMCatCB *, const char16_t *, std::int32_t) {
    area->Component = 9;
    area->InnerCode = 41;
    area->PrevInnerCode = 42;
    std::strcpy(area->InnerText, "inner");
    return std::int16_t{-1};
  };
  EXPECT_EQ(mem.MEM_Cat(&cat, u"abc"), kFailed);
  EXPECT_EQ(error().Code, 4027U);
  EXPECT_EQ(error().Component, 9);
  EXPECT_EQ(error().InnerCode, 41U);
  EXPECT_EQ(error().PrevInnerCode, 42U);
  EXPECT_STREQ(error().InnerText, "inner");
  EXPECT_EQ(nameText(), kAppendFailed);
}

TEST_F(CatNestingTest, NullTextNeverReachesSlot29) {
  expectFails(4027, kAppendFailed, NameBy::kItself, [&] { return mem.MEM_Cat(&cat, nullptr); });
  EXPECT_TRUE(takeSeen().empty());
}

TEST_F(CatTest, FailureInsideMovesTheInnerCodeOn) {
  static MEMErrorArea *area;
  area = &error();
  open();
  mem.MEM_Alloc = [](std::uint32_t, std::int16_t) -> void * {
    area->InnerCode = 55;
    return nullptr;
  };
  const std::u16string large(600, u'x');
  expectCatFails(
      4026, kNoStorage, [&] { return mem.MEM_Cat(&cat, large.c_str()); }, 55);
  close();
}

TEST_F(CatTest, FailureInsideLeavesTheFlagClear) {
  open();
  const std::u16string large(600, u'x');
  for (const std::uint32_t others : {0U, 0xFFFFFFFEU}) {
    flags() = others;
    EXPECT_EQ(mem.MEM_Cat(&cat, u"x"), 0);
    EXPECT_EQ(flags(), others);
    watch.refuseStorage = 1;
    EXPECT_EQ(mem.MEM_Cat(&cat, large.c_str()), kFailed);
    EXPECT_EQ(flags(), others);
    watch.refuseStorage = 1;
    EXPECT_EQ(mem.MEM_MemCat(&cat, large.c_str(), 600), kFailed);
    EXPECT_EQ(flags(), others);
    EXPECT_EQ(error().Code, 4026U) << "an outer failure again";
  }
  close();
}

// The flag alone decides; a failure takes it back, a success leaves it to whoever has set it.
TEST_F(CatTest, DirectAppendUnderTheFlagFailsForItsCaller) {
  open();
  const std::u16string large(600, u'x');
  struct {
    std::uint32_t code;
    const char *text;
    const char16_t *pText;
    std::int32_t length;
  } const rows[] = {{4026, kNoStorage, large.c_str(), 600},
                    {4025, kTooLong, u"x", -1},
                    {4027, kAppendFailed, nullptr, 0}};
  for (const auto &row : rows) {
    flags() = 0xFFFFFFFFU;
    setMessageText(kStandingText);
    reports.clear();
    watch.refuseStorage = 1;
    EXPECT_EQ(mem.MEM_MemCat(&cat, row.pText, row.length), kFailed);
    watch.refuseStorage = 0;
    MEMErrorArea expected{};
    expected.ReturnCode = kFailedCode;
    expected.InnerCode = row.code;
    std::strcpy(expected.InnerText, row.text);
    EXPECT_EQ(changedRanges(bytesOf(&expected, sizeof expected), errorBytes(env())), "");
    EXPECT_EQ(messageText(), row.text);
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].pErrorText, env().MessageText);
    EXPECT_EQ(reports[0].detail, "");
    EXPECT_EQ(flags(), 0xFFFFFFFEU);
  }
  flags() = 1;
  expectEnds(0, [&] { return mem.MEM_MemCat(&cat, u"x", 1); });
  EXPECT_EQ(flags(), 1U);
  flags() = 0;
  close();
}

// The flag is still set when the host reports the inner failure.
TEST_F(CatTest, FailureIsReportedBeforeTheFlagIsCleared) {
  static std::vector<std::uint32_t> seen;
  static std::uint32_t *pFlags;
  seen.clear();
  pFlags = &flags();
  host.text().ReportError = [](char *, const char *) { seen.push_back(*pFlags); };
  open();
  watch.refuseStorage = 1;
  EXPECT_EQ(mem.MEM_Cat(&cat, std::u16string(600, u'x').c_str()), kFailed);
  EXPECT_EQ(seen, (std::vector<std::uint32_t>{1, 0}));
  close();
}

TEST_F(CatTest, WithoutAThreadBlockTheInnerFailureIsReplaced) {
  MEMThreadBlock *const block = env().pMemThreadBlk;
  env().pMemThreadBlk = nullptr;
  open();
  expectEnds(0, [&] { return mem.MEM_Cat(&cat, u"abc"); });
  EXPECT_EQ(text(), u"abc");
  const std::u16string large(600, u'x');
  watch.refuseStorage = 1;
  expectAppendFails(4026, kNoStorage, [&] { return mem.MEM_MemCat(&cat, large.c_str(), 600); });

  watch.refuseStorage = 1;
  reports.clear();
  EXPECT_EQ(mem.MEM_Cat(&cat, large.c_str()), kFailed);
  expectError(4027, kAppendFailed);
  EXPECT_EQ(messageText(), kNoStorage);
  ASSERT_EQ(reports.size(), 2U);
  EXPECT_EQ(reports[0].code, 4026U);
  EXPECT_EQ(reports[0].errorText, kNoStorage);
  EXPECT_EQ(reports[1].code, 4027U);
  close();
  env().pMemThreadBlk = block;
}

// Trace records.

class CatTraceTest : public CatTest {
 protected:
  static constexpr std::uint32_t kBoth = MEM_TRACE_ENTRY | MEM_TRACE_EXIT;

  // Records with their line numbers, those of storage services left out.
  template <class Call>
  Lines catTraced(std::uint32_t flags, Call call) {
    Lines lines;
    for (const std::string &line : recordLines(recordsOf(flags, call))) {
      if (line.find("MEMCSERV:") == std::string::npos) lines.push_back(line);
    }
    return lines;
  }

  static std::string record(const char *type, const char *name, int line, const std::string &text) {
    return std::string(type) + ' ' + name + "(..\\SrcRes\\MEMCSCAT:" + std::to_string(line) + ") " +
           text;
  }
  static std::string success(const char *name, int line) {
    return record("STDX", name, line, "Return=SUCCESS");
  }
  static std::string hex8(const void *address) { return refhost::formatText("%08X", address); }
};

TEST_F(CatTraceTest, EveryServiceWritesItsRecords) {
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_CatOpen(&cat); }),
            (Lines{record("STDE", "MEM_CatOpen", 122, "MEM_CAT_CB=" + hex8(&cat)),
                   success("MEM_CatOpen", 139)}));
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_Cat(&cat, u"some \u20AC text"); }),
            (Lines{record("STDE", "MEM_Cat", 251, "some \xE2\x82\xAC text"),
                   success("MEM_MemCat", 389), success("MEM_Cat", 273)}));
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_MemCat(&cat, u"abc", 3); }),
            (Lines{success("MEM_MemCat", 389)}));
  const std::string text = hex8(cat.pText);
  EXPECT_EQ(
      catTraced(kBoth, [&] { close(); }),
      (Lines{record("STDE", "MEM_CatClose", 181, "MEM_CAT_CB=" + hex8(&cat) + ",String=" + text),
             success("MEM_CatClose", 196)}));
  EXPECT_EQ(
      catTraced(kBoth, [&] { close(); }),
      (Lines{record("STDE", "MEM_CatClose", 181, "MEM_CAT_CB=" + hex8(&cat) + ",String=00000000"),
             success("MEM_CatClose", 196)}));
}

// What a short address does not show: how many digits there are at least.
TEST_F(CatTraceTest, FormatsOfTexts) {
  host.setTraceFlags(kBoth);
  EXPECT_EQ(formats([&] { mem.MEM_CatOpen(&cat); }), (Lines{"MEM_CatOpen: MEM_CAT_CB=%08X"}));
  EXPECT_EQ(formats([&] { mem.MEM_Cat(&cat, u"abc"); }), (Lines{"MEM_Cat: %S"}));
  EXPECT_EQ(formats([&] { mem.MEM_Cat(&cat, std::u16string(512, u'x').c_str()); }), (Lines{}));
  EXPECT_EQ(formats([&] { mem.MEM_MemCat(&cat, u"abc", 3); }), (Lines{}));
  EXPECT_EQ(formats([&] { close(); }), (Lines{"MEM_CatClose: MEM_CAT_CB=%08X,String=%08X"}));
  host.setTraceFlags(0);
}

TEST_F(CatTraceTest, StorageCallsLieBetweenTheRecords) {
  const auto names = [&](auto call) {
    Lines lines;
    for (const refhost::TraceRecord &row : recordsOf(kBoth, call)) {
      lines.push_back(row.type + ' ' + row.function);
    }
    return lines;
  };
  EXPECT_EQ(names([&] { mem.MEM_CatOpen(&cat); }),
            (Lines{"STDE MEM_CatOpen", "STDE MemAlloc", "STDX MemAlloc", "STDX MEM_CatOpen"}));
  const std::u16string large(600, u'x');
  EXPECT_EQ(names([&] { mem.MEM_Cat(&cat, large.c_str()); }),
            (Lines{"STDE MEM_Cat", "STDE MemAlloc", "STDX MemAlloc", "STDE MEM_Free",
                   "STDX MEM_Free", "STDX MEM_MemCat", "STDX MEM_Cat"}));
  EXPECT_EQ(names([&] { close(); }),
            (Lines{"STDE MEM_CatClose", "STDE MEM_Free", "STDX MEM_Free", "STDX MEM_CatClose"}));
}

TEST_F(CatTraceTest, TextsOf512CharactersAreWideRecords) {
  open();
  for (const std::size_t length : {0U, 1U, 510U, 511U, 512U, 513U, 20000U}) {
    SCOPED_TRACE(length);
    std::u16string text;
    for (std::size_t i = 0; i < length; ++i) text += static_cast<char16_t>(0x4E00 + i % 1000);
    const bool isWide = length >= 512;
    host.resetCalls();
    const std::vector<refhost::TraceRecord> records =
        recordsOf(MEM_TRACE_ENTRY, [&] { EXPECT_EQ(mem.MEM_Cat(&cat, text.c_str()), 0); });
    ASSERT_GE(records.size(), 1U);
    const refhost::TraceRecord &entry = records[0];
    EXPECT_EQ(entry.type, "STDE");
    EXPECT_EQ(entry.source, "..\\SrcRes\\MEMCSCAT");
    EXPECT_EQ(entry.function, "MEM_Cat");
    EXPECT_EQ(entry.line, isWide ? 254 : 251);
    EXPECT_EQ(entry.writtenBy, isWide ? Service::WriteWideRecord : Service::WriteRecord);
    EXPECT_TRUE(entry.text == refhost::formatText("%S", text.c_str()));
    EXPECT_EQ(host.calls(Service::WriteWideRecord), isWide ? 1U : 0U);
  }
  close();
}

TEST_F(CatTraceTest, PercentSignsInTextsAreText) {
  open();
  const Lines lines = catTraced(MEM_TRACE_ENTRY, [&] { mem.MEM_Cat(&cat, u"%s%S%n%08X"); });
  EXPECT_EQ(lines, (Lines{record("STDE", "MEM_Cat", 251, "%s%S%n%08X")}));
  close();
}

TEST_F(CatTraceTest, FlagsChooseTheRecords) {
  const std::u16string large(600, u'x');
  const auto life = [&] {
    mem.MEM_CatOpen(&cat);
    mem.MEM_Cat(&cat, u"abc");
    mem.MEM_Cat(&cat, large.c_str());
    mem.MEM_MemCat(&cat, u"abc", 3);
    close();
  };
  for (const std::uint32_t flag : {MEM_TRACE_ENTRY, MEM_TRACE_EXIT}) {
    const Lines lines = catTraced(flag, life);
    EXPECT_EQ(lines.size(), flag == MEM_TRACE_ENTRY ? 4U : 7U);
    for (const std::string &line : lines) {
      EXPECT_EQ(line.substr(0, 4), flag == MEM_TRACE_ENTRY ? "STDE" : "STDX");
    }
  }
  EXPECT_EQ(catTraced(~kBoth, life), (Lines{}));
  host.resetCalls();
  life();
  EXPECT_EQ(traceCalls(host), 0U);
}

TEST_F(CatTraceTest, FailuresHaveNoExitRecord) {
  watch.refuseStorage = 1;
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_CatOpen(&cat); }),
            (Lines{record("STDE", "MEM_CatOpen", 122, "MEM_CAT_CB=" + hex8(&cat))}));
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_CatOpen(nullptr); }),
            (Lines{record("STDE", "MEM_CatOpen", 122, "MEM_CAT_CB=00000000")}));
  cat.BlkLen = 0;
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_Cat(&cat, u"abc"); }),
            (Lines{record("STDE", "MEM_Cat", 251, "abc")}));
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_MemCat(&cat, u"abc", 3); }), (Lines{}));
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_Cat(&cat, nullptr); }), (Lines{}));
  cat.BlkLen = 0x80000000U;
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_CatClose(&cat); }),
            (Lines{record("STDE", "MEM_CatClose", 181,
                          "MEM_CAT_CB=" + hex8(&cat) + ",String=00000000")}));
  EXPECT_EQ(catTraced(kBoth, [&] { mem.MEM_CatClose(nullptr); }),
            (Lines{record("STDE", "MEM_CatClose", 181, "MEM_CAT_CB=00000000,String=00000000")}));
}

// Hosts without a thread environment or trace buffer.

class CatBareHostTest : public CatTest {
 protected:
  void useAll() {
    host.setTraceFlags(0xFFFFFFFFU);
    open();
    const std::u16string large(600, u'x');
    EXPECT_EQ(mem.MEM_Cat(&cat, u"abc"), 0);
    EXPECT_EQ(mem.MEM_Cat(&cat, large.c_str()), 0);
    EXPECT_EQ(mem.MEM_MemCat(&cat, u"def", 3), 0);
    EXPECT_TRUE(text() == u"abc" + large + u"def");
    EXPECT_EQ(mem.MEM_Cat(&cat, nullptr), kFailed);
    EXPECT_EQ(mem.MEM_MemCat(&cat, nullptr, 3), kFailed);
    EXPECT_EQ(mem.MEM_MemCat(&cat, u"abc", -1), kFailed);
    watch.refuseStorage = 1;
    EXPECT_EQ(mem.MEM_Cat(&cat, large.c_str()), kFailed);
    watch.refuseStorage = 1;
    MEMCatCB other = filledBlock();
    EXPECT_EQ(mem.MEM_CatOpen(&other), kFailed);
    other.BlkLen = 0x80000000U;
    EXPECT_EQ(mem.MEM_CatClose(&other), kFailed);
    close();
    host.setTraceFlags(0);
  }
};

TEST_F(CatBareHostTest, MissingThreadEnvironmentIsTolerated) {
  const Bytes before = envBytes(env());
  host.withoutThreadEnv(true);
  useAll();
  host.withoutThreadEnv(false);
  EXPECT_EQ(changedRanges(before, envBytes(env())), "");
}

TEST_F(CatBareHostTest, MissingTraceBufferIsTolerated) {
  MEMTraceBuf *const buffer = env().pTraceBuf;
  env().pTraceBuf = nullptr;
  host.resetCalls();
  useAll();
  EXPECT_EQ(traceCalls(host), 0U);
  env().pTraceBuf = buffer;
}

TEST_F(CatTest, BuffersAreIndependent) {
  openWith(3);
  MEMCatCB other = filledBlock();
  EXPECT_EQ(mem.MEM_CatOpen(&other), 0);
  EXPECT_EQ(mem.MEM_Cat(&other, u"other"), 0);
  close();
  EXPECT_EQ(mem.MEM_Cat(&other, u" text"), 0);
  EXPECT_EQ(std::u16string(other.pText), u"other text");
  EXPECT_EQ(mem.MEM_CatClose(&other), 0);
}

}  // namespace
}  // namespace memtest
