// The message table that the library registers with the host: every row as hosts know it.

#include <cstddef>
#include <optional>
#include <set>

#include "memtest.hpp"

namespace memtest {
namespace {

struct Row {
  std::uint32_t code;
  const char *name;
  const char *message;
};

// Written out once more, so that a slip in the library's own list shows.
constexpr Row kRows[] = {
    {3073, "MEMERR_PBLKFAIL", "Acquire ProcessBlk failed"},
    {3074, "MEMERR_TBLKFAIL", "Acquire ThreadBlk failed"},
    {3075, "MEMERR_OPSCHEAP", "Could not create OpSys Heap"},
    {3076, "MEMERR_LOAD_QTRLINK", "Could not load QTRLINK"},
    {3077, "MEMERR_VBIND", "QTRF VBIND error"},
    {3078, "MEMERR_VFETCH", "QTRF VFETCH error"},
    {3079, "MEMERR_OSLOAD", "Error loading Translate Table"},
    {3090, "MEMERR_MSTGGATE", "Error acquiring gate"},
    {3091, "MEMERR_GETMEM", "Error allocating block"},
    {3092, "MEMERR_FREEMEM", "Error releasing block"},
    {4010, "MEMERR_CELLBNDS", "Create bounds error"},
    {4011, "MEMERR_CELLSIZE", "Create area too small"},
    {4012, "MEMERR_CELLELEN", "Create element too small"},
    {4013, "MEMERR_CELLAMEM", "Acquire Memory failed"},
    {4014, "MEMERR_CELLBHDL", "Bad Cell Handle"},
    {4025, "MEMERR_CATSTRSIZE", "Max String size exceeded"},
    {4026, "MEMERR_CATAMEM", "Acquire Memory failed"},
    {4027, "MEMERR_CATSTDSTR", "Standard String error"},
    {4030, "MEMERR_HASHAMEM", "CtlBlk getmain failed"},
    {4031, "MEMERR_HASHBHDL", "Bad Hash CtlBlk handle"},
    {4032, "MEMERR_HASHFERR", "Caller Hash Function bad data"},
    {4033, "MEMERR_HASHDKEY", "New entry has dup key value"},
    {4034, "MEMERR_HASHNFND", "Specified entry not found"},
    {4050, "MEMERR_HEAPSIZE", "Create size error"},
    {4051, "MEMERR_HEAPEMIN", "Create element too small"},
    {4052, "MEMERR_HEAPEMAX", "Create element too large"},
    {4053, "MEMERR_HEAPNUME", "Multiple element count too small"},
    {4054, "MEMERR_HEAPLOFF", "Multiple element Link Offset invalid"},
    {4055, "MEMERR_HEAPAMEM", "Acquire Memory failed"},
    {4056, "MEMERR_HEAPBHDL", "Heap Handle invalid"},
    {4057, "MEMERR_HEAPGATE", "Failure Processing Gate"},
    {4058, "MEMERR_HEAPENTRY", "EHeap Free Bad Pointer"},
    {4065, "MEMERR_PACKAMEM", "Pack Block getmain failed"},
    {4066, "MEMERR_PACKBMIN", "Too Many blocks for Unpack"},
    {4067, "MEMERR_PACKBMAX", "BlockLen too small"},
    {4068, "MEMERR_PACKSMAX", "Segment too large"},
    {4069, "MEMERR_PACKSPTR", "Bad Segment Pointer"},
    {4070, "MEMERR_PACKRBLK", "Bad Relative Block number"},
    {4071, "MEMERR_PACKROFF", "Bad Relative Block offset"},
    {4072, "MEMERR_PACKCYCL", "Recursive Structure"},
    {4073, "MEMERR_PACKSTAK", "Traversal stack overflow"},
    {4074, "MEMERR_PACKCBID", "Structure Id Invalid"},
    {4075, "MEMERR_PACKCBVR", "Structure Id Version bad"},
    {4076, "MEMERR_PACKUTF", "Unicode Conversion error"},
    {4080, "MEMERR_SINKVSTG", "String Sink VSTG failure"},
    {4081, "MEMERR_SINKLGATE", "Sink List Gate error"},
    {4082, "MEMERR_SINKITEXT", "Input Text error"},
    {4083, "MEMERR_SINKSTEXT", "Sink Text error"},
    {4084, "MEMERR_SINKNFND", "Value not found in Sink"},
    {4085, "MEMERR_SINKNOSPACE", "No Space available"},
    {4086, "MEMERR_SINKIERR", "Internal Process Error"},
    {4096, "MEMERR_NOT_SUPPORTED", "Function Service not defined"},
};
constexpr std::size_t kRowCount = sizeof kRows / sizeof *kRows;

class MessageTableTest : public StartedTest {};

TEST_F(MessageTableTest, HasTheRowsInOrder) {
  const MEMMessageRow *table = host.messageTable();
  ASSERT_NE(table, nullptr);
  for (std::size_t i = 0; i < kRowCount; ++i) {
    ASSERT_EQ(table[i].Code, kRows[i].code) << "row " << i;
    EXPECT_EQ(table[i].Reserved4, 0U) << "row " << i;
    EXPECT_STREQ(table[i].Name, kRows[i].name);
    EXPECT_STREQ(table[i].Message, kRows[i].message);
    EXPECT_STREQ(table[i].Explanation, "") << "row " << i;
  }
}

TEST_F(MessageTableTest, EndsWithARowOfCodeZero) {
  const MEMMessageRow *table = host.messageTable();
  ASSERT_NE(table, nullptr);
  std::size_t rows = 0;
  while (table[rows].Code != 0) ++rows;
  ASSERT_EQ(rows, kRowCount);
  EXPECT_EQ(table[rows].Reserved4, 0U);
  EXPECT_STREQ(table[rows].Name, "");
  EXPECT_STREQ(table[rows].Message, "");
  EXPECT_EQ(table[rows].Explanation, nullptr);
}

TEST_F(MessageTableTest, HostFindsEveryCode) {
  for (const Row &row : kRows) {
    const std::optional<refhost::Message> found = host.message(row.code);
    ASSERT_TRUE(found) << row.code;
    EXPECT_EQ(found->name, row.name);
    EXPECT_EQ(found->text, row.message);
  }
}

TEST_F(MessageTableTest, HostFindsNoOtherCode) {
  std::set<std::uint32_t> codes;
  for (const Row &row : kRows) codes.insert(row.code);
  for (std::uint32_t code = 0; code <= 5000; ++code) {
    EXPECT_EQ(host.message(code).has_value(), codes.count(code) == 1) << code;
  }
  EXPECT_FALSE(host.message(3080));
}

TEST_F(MessageTableTest, IsTheSameTableAfterARestart) {
  const MEMMessageRow *const first = host.messageTable();
  stop();
  EXPECT_EQ(host.messageTable(), nullptr);
  start();
  EXPECT_EQ(host.messageTable(), first);
}

}  // namespace
}  // namespace memtest
