// MEM_Alloc, MEM_Free and MEM_InitQTRFTbls.

#include <cinttypes>
#include <cstddef>
#include <cstdio>

#include "memtest.hpp"

namespace memtest {
namespace {

using refhost::Service;

// "%lX" on 64-bit Windows: the low 32 bits, upper case, no leading zeros.
std::string lowHex(const void *address) {
  char text[9];
  std::snprintf(text, sizeof text, "%" PRIX32, static_cast<std::uint32_t>(asNumber(address)));
  return text;
}

// The subpool rule.

struct SubPoolCase {
  std::int16_t asked;
  std::uint16_t subPool;  // as the host gets it
  std::uint16_t kind;
};

void PrintTo(const SubPoolCase &row, std::ostream *out) {
  *out << "subpool " << row.asked;
}

constexpr SubPoolCase kSubPoolCases[] = {
    {0, 0, 1},         {1, 1, 1},      {5, 5, 1},      {230, 230, 1},      {256, 256, 1},
    {32767, 32767, 1}, {-1, 1, 2},     {-5, 5, 2},     {-230, 230, 2},     {-255, 255, 2},
    {-256, 0, 2},      {-257, 257, 2}, {-512, 512, 2}, {-32767, 32767, 2}, {-32768, 32768, 2},
};

std::string subPoolCaseName(const ::testing::TestParamInfo<SubPoolCase> &info) {
  const std::int32_t asked = info.param.asked;
  return asked < 0 ? "Minus" + std::to_string(-asked) : std::to_string(asked);
}

class SubPoolTest : public BoundTest, public ::testing::WithParamInterface<SubPoolCase> {};

INSTANTIATE_TEST_SUITE_P(Numbers, SubPoolTest, ::testing::ValuesIn(kSubPoolCases), subPoolCaseName);

TEST_P(SubPoolTest, AllocAsksTheHostForSubPoolAndKind) {
  void *area = nullptr;
  EXPECT_EQ(hostCalls([&] { area = mem.MEM_Alloc(40, GetParam().asked); }),
            allocLines(40, GetParam().subPool, GetParam().kind));
  ASSERT_NE(area, nullptr);
  EXPECT_EQ(host.account(GetParam().subPool, GetParam().kind).liveBytes, 40U);
  EXPECT_EQ(host.account().liveBytes, 40U);
  mem.MEM_Free(area, 40, GetParam().asked);
}

TEST_P(SubPoolTest, FreeGivesTheHostTheSubPoolOnly) {
  void *area = mem.MEM_Alloc(40, GetParam().asked);
  EXPECT_EQ(
      hostCalls([&] { mem.MEM_Free(area, 40, GetParam().asked); }, {{asNumber(area), "area"}}),
      freeLines("area", 40, GetParam().subPool));
  EXPECT_EQ(host.account().liveCount, 0U);
}

TEST_P(SubPoolTest, TraceShowsTheSubPoolAsTheCallerPassedIt) {
  host.setTraceFlags(MEM_TRACE_ENTRY);
  host.keepRecords(true);
  void *area = mem.MEM_Alloc(40, GetParam().asked);
  mem.MEM_Free(area, 40, GetParam().asked);
  const std::string asked = std::to_string(GetParam().asked);
  EXPECT_EQ(recordLines(host.takeRecords()),
            (Lines{"STDE MemAlloc(..\\SrcRes\\MEMCSERV:117) Parms: Size=40, SubPool=" + asked,
                   "STDE MEM_Free(..\\SrcRes\\MEMCSERV:175) Parms: pArea=" + lowHex(area) +
                       ", SubPool=" + asked}));
}

// Allocation.

class AllocTest : public BoundTest {};

void *answeredArea = nullptr;
std::uint32_t askedLength = 0;

std::uint16_t storeAndFail(void **ppArea, std::uint32_t length, std::uint16_t, std::uint16_t) {
  *ppArea = answeredArea;
  askedLength = length;
  return kHostCode;
}

TEST_F(AllocTest, ReturnsUsableStorageOfTheSize) {
  for (const std::uint32_t size : {1U, 7U, 8U, 4096U, 1000000U}) {
    auto *area = static_cast<std::uint8_t *>(mem.MEM_Alloc(size, 3));
    ASSERT_NE(area, nullptr);
    EXPECT_EQ(asNumber(area) % 8, 0U);
    std::memset(area, 0x5A, size);
    EXPECT_EQ(host.account(3, 1).liveBytes, size);
    mem.MEM_Free(area, size, 3);
    EXPECT_EQ(host.account(3, 1).liveBytes, 0U);
  }
}

TEST_F(AllocTest, ExhaustedSubPoolYieldsNullAndNoErrorOfItsOwn) {
  std::memset(&error(), 0xEE, sizeof error());
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(mem.MEM_Alloc(40, 3), nullptr);
  EXPECT_EQ(changedRanges(Bytes(552), errorBytes(env())), "");
  EXPECT_EQ(host.calls(Service::ReportError), 0U);
}

TEST_F(AllocTest, ErrorThatTheHostLeavesStands) {
  host.arm(faultOf(Service::GetStorage, 777));
  EXPECT_EQ(mem.MEM_Alloc(40, 3), nullptr);
  EXPECT_EQ(error().Code, 777U);
  EXPECT_EQ(error().ReturnCode, 0U);
  EXPECT_EQ(nameText(), kHostErrorText);
}

TEST_F(AllocTest, AddressThatTheHostStoredIsReturnedWhateverItsResult) {
  static std::uint64_t storage;
  answeredArea = &storage;
  host.runtime().GetStorage = storeAndFail;
  EXPECT_EQ(mem.MEM_Alloc(8, 3), &storage);
}

TEST_F(AllocTest, SizeIsPassedOnUncheckedAndShownSigned) {
  struct {
    std::uint32_t size;
    const char *shown;
  } const cases[] = {
      {0, "0"}, {0x7FFFFFFFU, "2147483647"}, {0x80000000U, "-2147483648"}, {0xFFFFFFFFU, "-1"}};
  answeredArea = nullptr;
  host.runtime().GetStorage = storeAndFail;
  host.setTraceFlags(MEM_TRACE_ENTRY);
  host.keepRecords(true);
  for (const auto &row : cases) {
    EXPECT_EQ(mem.MEM_Alloc(row.size, -2), nullptr);
    EXPECT_EQ(askedLength, row.size);
    EXPECT_EQ(recordLines(host.takeRecords()),
              (Lines{"STDE MemAlloc(..\\SrcRes\\MEMCSERV:117) Parms: Size=" +
                     std::string(row.shown) + ", SubPool=-2"}));
  }
}

TEST_F(AllocTest, ExitRecordShowsTheLowHalfOfTheAddress) {
  answeredArea = reinterpret_cast<void *>(static_cast<std::uintptr_t>(0x123400ABCDE8U));
  host.runtime().GetStorage = storeAndFail;
  host.setTraceFlags(MEM_TRACE_EXIT);
  host.keepRecords(true);
  mem.MEM_Alloc(8, 3);
  answeredArea = nullptr;
  mem.MEM_Alloc(8, 3);
  EXPECT_EQ(recordLines(host.takeRecords()),
            (Lines{"STDX MemAlloc(..\\SrcRes\\MEMCSERV:133) 2:Return=ABCDE8",
                   "STDX MemAlloc(..\\SrcRes\\MEMCSERV:133) 2:Return=0"}));
}

TEST_F(AllocTest, TracesAroundTheHostCallInOrder) {
  host.setTraceFlags(MEM_TRACE_ENTRY | MEM_TRACE_EXIT);
  host.recordCalls(true);
  void *area = mem.MEM_Alloc(8, 3);
  mem.MEM_Free(area, 8, 3);
  EXPECT_EQ(callLines(host.takeCalls(), {{asNumber(area), "area"}}),
            joined({framed("MemAlloc", {"GetAnchor(0, 3, cell)", "Format()", "WriteRecord()",
                                        "GetStorage(cell, 8, 3, 1)", "Format()", "WriteRecord()"}),
                    framed("MEM_Free", {"GetAnchor(0, 3, cell)", "Format()", "WriteRecord()",
                                        "FreeStorage(area, 8, 3)", "WriteRecord()"})}));
}

TEST_F(AllocTest, ErrorOfTheAnchorLookUpIsClearedWithTheErrorArea) {
  host.arm(faultOf(Service::GetAnchor, 777));
  void *area = mem.MEM_Alloc(8, 3);
  EXPECT_NE(area, nullptr) << "the process block is not needed";
  EXPECT_EQ(changedRanges(Bytes(552), errorBytes(env())), "");
  mem.MEM_Free(area, 8, 3);
}

TEST_F(AllocTest, FreeLeavesTheErrorOfAnEarlierCall) {
  void *area = mem.MEM_Alloc(8, 3);
  EXPECT_EQ(mem.MEM_InitQTRFTbls(), kFailed);
  const Bytes before = errorBytes(env());
  mem.MEM_Free(area, 8, 3);
  EXPECT_EQ(changedRanges(before, errorBytes(env())), "");
  EXPECT_EQ(error().Code, 4096U);
}

// The dialog tables of another platform.

constexpr char kTableText[] = "InitQTRFTbls called in non-ZRX environment";

char *reportedText = nullptr;
std::string reportedDetail;
MEMTextServices ownText;

class TableTest : public BoundTest {};

TEST_F(TableTest, AlwaysFailsAsNotSupported) {
  EXPECT_EQ(mem.MEM_InitQTRFTbls(), kFailed);

  MEMErrorArea expected{};
  expected.ReturnCode = 0xFFFF;
  expected.Code = 4096;
  std::strcpy(expected.NameText, kTableText);
  EXPECT_EQ(changedRanges(bytesOf(&expected, sizeof expected), errorBytes(env())), "");
  EXPECT_EQ(messageText(), kTableText);
}

TEST_F(TableTest, ReportsTheFreeMessageTextWithAnEmptyDetail) {
  ownText = host.text();
  host.text().ReportError = [](char *pErrorText, const char *pDetail) {
    reportedText = pErrorText;
    reportedDetail = pDetail;
    ownText.ReportError(pErrorText, pDetail);
  };
  EXPECT_EQ(mem.MEM_InitQTRFTbls(), kFailed);
  EXPECT_EQ(reportedText, env().MessageText);
  EXPECT_EQ(reportedDetail, "");
  EXPECT_EQ(host.lastReportedText(), kTableText);
  EXPECT_EQ(host.calls(Service::ReportError), 1U);
}

TEST_F(TableTest, MakesNoOtherHostCall) {
  host.recordCalls(true);
  EXPECT_EQ(mem.MEM_InitQTRFTbls(), kFailed);
  const AddressNames names = {{asNumber(env().MessageText), "message"},
                              {asNumber(error().NameText), "name"}};
  const Lines lines = callLines(host.takeCalls(), names);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], "MEM_InitQTRFTbls: EnterFrame(frame, 3)");
  EXPECT_EQ(lines[1].rfind("MEM_InitQTRFTbls: ReportError(", 0), 0U) << lines[1];
  EXPECT_EQ(lines[2], "MEM_InitQTRFTbls: LeaveFrame(frame, 3)");
}

TEST_F(TableTest, FailsTheSameWayWithTracing) {
  host.setTraceFlags(MEM_TRACE_ENTRY | MEM_TRACE_EXIT);
  host.keepRecords(true);
  EXPECT_EQ(mem.MEM_InitQTRFTbls(), kFailed);
  EXPECT_EQ(error().Code, 4096U);
  EXPECT_EQ(recordLines(host.takeRecords()),
            (Lines{"STDE MEM_InitQTRFTbls(..\\SrcRes\\MEMCSERV:228) Init QTRF Tables entered"}));
}

}  // namespace
}  // namespace memtest
