// MEM_PortStrToStruct and MEM_Port1StrToStruct: headers, structures, fields, pointers, defaults,
// and what a reader asks of its heaps.

#include <functional>
#include <string>

#include "heaptest.hpp"
#include "port_check.h"
#include "porttest.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

constexpr char kEnd[] = "End of port string reached!";
constexpr char kConversionFailed[] = "Field conversion failed!";

class PortReadTest : public PortTest {
 protected:
  // Reads in every form: one block, chunks of every length. `check` looks at each result.
  void forEveryForm(const Defs &defs, const std::string &text,
                    const std::function<void(std::int16_t)> &check) {
    {
      SCOPED_TRACE("one block");
      check(readBlock(defs.table(), text));
    }
    for (const std::size_t length : {1U, 2U, 3U, 7U, 23U, 24U, 1000U}) {
      SCOPED_TRACE("chunks of " + std::to_string(length));
      const Chain chain = Chain::cut(text, length);
      check(readChain(defs.table(), chain.first()));
    }
  }

  void expectRead(
      const Defs &defs, const std::string &text, const std::function<void()> &look = [] {}) {
    const auto check = [&](std::int16_t result) {
      EXPECT_EQ(messages(), Lines());
      ASSERT_EQ(result, 0) << text;
      ASSERT_NE(read, nullptr);
      look();
    };
    forEveryForm(defs, text, check);
    SCOPED_TRACE("one block and more text");
    check(readBlock(defs.table(), text + std::string(64, '5')));
  }

  void expectRefused(const Defs &defs, const std::string &text, const Lines &expected) {
    forEveryForm(defs, text, [&](std::int16_t result) {
      EXPECT_EQ(messages(), expected) << text;
      EXPECT_EQ(result, -1) << text;
    });
  }

  // A Long and a pointer: lists of structure 1.
  static Defs list() {
    Defs defs;
    defs.add(1, 12, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_PNT, 8, 4).of(1)});
    return defs;
  }
};

// Input and header.

TEST_F(PortReadTest, NullInputIsTracedUnderTheWritersName) {
  Defs defs = list();
  void *out = this;
  EXPECT_EQ(mem.MEM_PortStrToStruct(defs.table(), nullptr, heap, &out), -1);
  EXPECT_EQ(mem.MEM_Port1StrToStruct(defs.table(), nullptr, 23, heap, &out), -1);
  const auto records = host.takeRecords();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(pointLines(records),
            (Lines{"EXCP MEM_StructToPortStr(..\\SrcRes\\MEMCPORT) null pFirstChunk",
                   "EXCP MEM_StructToPortStr(..\\SrcRes\\MEMCPORT) null pMemStr"}));
  EXPECT_NE(records[0].line, records[1].line);
  EXPECT_EQ(records[0].writtenBy, refhost::Service::WriteException);
  EXPECT_EQ(host.calls(refhost::Service::Format), 0U);
  EXPECT_EQ(changedRanges(errorBytes(env()), Bytes(sizeof(MEMErrorArea))), "");
}

TEST_F(PortReadTest, InputShorterThanTheHeaderFails) {
  const std::string text = portString("(1<1N5/2S>)");
  for (std::size_t length = 0; length < 23; ++length) {
    SCOPED_TRACE(length);
    EXPECT_EQ(readBlock(list().table(), text.substr(0, length)), -1);
    EXPECT_EQ(messages(), Lines{kEnd});
    EXPECT_EQ(readChain(list().table(), Chain({text.substr(0, length)}).first()), -1);
    EXPECT_EQ(messages(), Lines{kEnd});
  }
}

TEST_F(PortReadTest, OnlyTheCountOfTheHeaderIsRead) {
  const std::string body = "(1<1N5/2S>)";
  for (const char *header :
       {"(0000000034,0000000001)", "#9999999999#0000000001#", "                     1 ",
        "xxxxxxxxxxxx        +1x", "------------1         -", "------------1abc99999--"}) {
    SCOPED_TRACE(header);
    expectRead(list(), header + body, [&] { EXPECT_EQ(readAt<std::int32_t>(0), 5); });
  }
}

TEST_F(PortReadTest, CountThatCannotBeFails) {
  for (const char *count : {"0000000000", "-000000001", "          ", "abcdefghij", "4294967295",
                            "9999999999", "4294967297", "0000000035", "0000001000"}) {
    SCOPED_TRACE(count);
    host.resetCalls();
    const std::string text = "(0000000034," + std::string(count) + ")(1<1N5/2S>)";
    ASSERT_EQ(text.size(), 34U);
    EXPECT_EQ(readBlock(list().table(), text), -1);
    EXPECT_EQ(readChain(list().table(), Chain::cut(text, 10).first()), -1);
  }
}

TEST_F(PortReadTest, TextBehindTheLastStructureIsNotRead) {
  expectRead(list(), portString("(1<1N5/2S>)(9garbage"));
}

TEST_F(PortReadTest, FewerStructuresThanPromisedEndTheInput) {
  expectRefused(list(), portString("(1<1N5/2S>)", 2), {kEnd});
}

TEST_F(PortReadTest, EmptyChunksAreSteppedOver) {
  const std::string text = portString("(1<1N503/2S2>)(1<1N7/2S>)", 2);
  Chain chain;
  chain.add("xx", 0);
  for (const char c : text) {
    chain.add(std::string(1, c));
    chain.add("yy", 0);
    chain.add("zz", -1);
    chain.add("zz", INT32_MIN);
  }
  ASSERT_EQ(readChain(list().table(), chain.first()), 0);
  EXPECT_EQ(readAt<std::int32_t>(0), 305);
  EXPECT_EQ(load<std::int32_t>(readAt<const void *>(4), 0), 7);
  Chain empty;
  empty.add("", 0);
  EXPECT_EQ(readChain(list().table(), empty.first()), -1);
  EXPECT_EQ(messages(), Lines{kEnd});
}

TEST_F(PortReadTest, WorkedExampleComesBack) {
  Defs defs;
  defs.add(12, 24,
           {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_CHARSZ, 8, 4),
            Field(3, MEM_PORT_PNT, 8, 16).of(7)});
  defs.add(7, 4, {Field(1, MEM_PORT_USHORT, 2, 0), Field(2, MEM_PORT_BIN, 2, 2)});
  expectRead(defs, "(0000000064,0000000002)(21<1N-503/2\"ab//c\"/3S2>)(7<1N04/2H1FA0>)", [&] {
    EXPECT_EQ(readAt<std::int32_t>(0), -305);
    EXPECT_STREQ(static_cast<const char *>(read) + 4, "ab/c");
    const auto *inner = readAt<const std::uint8_t *>(16);
    EXPECT_EQ(load<std::uint16_t>(inner, 0), 40);
    EXPECT_EQ(bytesOf(inner + 2, 2), (Bytes{0x1F, 0xA0}));
  });
}

// Structures.

TEST_F(PortReadTest, MalformedStructuresAreRefused) {
  const Defs defs = list();
  expectRefused(defs, portString("[1<1N5>)"), {"Cannot find ( beginning a structure!"});
  expectRefused(defs, portString("(2<1N5>)"), {"Unknown StructID: 2!"});
  expectRefused(defs, portString("(<1N5>)"), {"Unknown StructID: 0!"});
  expectRefused(defs, portString("(01<1N5>)"), {"Unknown StructID: 10!"});
  expectRefused(defs, portString("(8463847412<1N5>)"), {"Unknown StructID: -2147483648!"});
  expectRefused(defs, portString("(1,1<1N5>)"), {"StructureID 1 does not have a repeat field!"});
  expectRefused(defs, portString("(1[1N5>)"), {"Cannot find < at the beginning of StructID 1!"});
  expectRefused(defs, portString("(1<1N5>]"), {"Closing ) expected at the end of a structure!"});
  expectRefused(defs, portString("(1<>)"), {"FieldID 0 cannot be found in StructID 1!"});
  expectRefused(defs, portString("(1<1N5"), {kEnd, kConversionFailed});
  expectRefused(defs, portString("(1<1N5>"), {kEnd});
}

TEST_F(PortReadTest, TableEndsBelow1) {
  for (const std::uint32_t end : {0U, 0x80000000U, 0xFFFFFFFFU}) {
    Defs defs = list();
    defs.add(2, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
    defs.row(0).StructID = end;
    expectRefused(defs, portString("(2<1N5>)"), {"Unknown StructID: 2!"});
  }
}

TEST_F(PortReadTest, FirstDefinitionOfAnIdentifierCounts) {
  Defs defs;
  defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0)}).add(1, 8, {Field(1, MEM_PORT_BIN, 8, 0)});
  expectRead(defs, portString("(1<1N5>)"));
}

TEST_F(PortReadTest, FieldsUpTo1024AreAccepted) {
  for (const std::size_t count : {1024U, 1025U}) {
    std::vector<Field> fields;
    for (std::uint32_t i = 0; i < count; ++i) {
      fields.emplace_back(i + 1, MEM_PORT_BIT, 1, static_cast<std::int32_t>(i));
    }
    Defs defs;
    defs.add(1, static_cast<std::int32_t>(count), fields);
    const std::string text = portString("(1<1B11111111/4201B10000000>)");
    if (count == 1024) {
      expectRead(defs, text, [&] {
        EXPECT_EQ(readAt<std::uint8_t>(0), 0xFF);
        EXPECT_EQ(readAt<std::uint8_t>(1023), 1);
      });
    } else {
      expectRefused(defs, text, {"Maximum no. of fields exceeded!"});
    }
  }
}

TEST_F(PortReadTest, StructuresAreNotCleared) {
  Defs defs;
  defs.add(1, 16, {Field(1, MEM_PORT_LONG, 4, 4), Field(2, MEM_PORT_BIN, 4, 8)});
  expectRead(defs, portString("(1<1N5>)"), [&] {
    EXPECT_EQ(bytesOf(read, 16), (Bytes{0xA5, 0xA5, 0xA5, 0xA5, 5, 0, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5,
                                        0xA5, 0xA5, 0xA5, 0xA5}));
  });
}

// Fields.

TEST_F(PortReadTest, SeparatorIsNotChecked) {
  expectRead(list(), portString("(1<1N5#2S>)"), [&] { EXPECT_EQ(readAt<std::int32_t>(0), 5); });
}

TEST_F(PortReadTest, FieldsMayComeInAnyOrderAndTwice) {
  expectRead(list(), portString("(1<2S1/1N5/1N6>)"), [&] {
    EXPECT_EQ(readAt<std::int32_t>(0), 6);
    EXPECT_EQ(readAt<void *>(4), read);
  });
}

// Definitions need not keep their promise to list identifiers in ascending order: the first field
// with an identifier is read, whichever field came before.
TEST_F(PortReadTest, FirstFieldOfAnIdentifierCounts) {
  const auto longs = [](const std::vector<std::uint32_t> &ids) {
    std::vector<Field> fields;
    for (const std::uint32_t id : ids) {
      fields.push_back(Field(id, MEM_PORT_LONG, 4, static_cast<std::int32_t>(4 * fields.size()))
                           .byDefaultNumber(9));
    }
    return fields;
  };
  struct Row {
    std::vector<std::uint32_t> ids;
    std::string text;
    std::vector<std::int32_t> values;
  };
  const std::vector<Row> rows = {
      {{5, 1, 5}, "1N1/5N2", {2, 1, 9}},
      {{5, 1, 5}, "5N1/1N2/5N3", {3, 2, 9}},
      {{5, 1, 2, 5}, "5N1/5N2", {2, 9, 9, 9}},
      {{1, 5, 2, 5, 7}, "2N1/5N2/7N3", {9, 2, 1, 9, 3}},
      {{1, 2, 2, 3}, "1N1/2N2/2N3", {1, 3, 9, 9}},
      {{1, 2, 2, 3}, "2N1/3N2/2N3", {9, 3, 9, 2}},
      {{3, 3}, "3N1/3N2", {2, 9}},
      {{7, 2, 4}, "4N1/2N2/7N3", {3, 2, 1}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    Defs defs;
    defs.add(1, static_cast<std::int32_t>(4 * row.ids.size()), longs(row.ids));
    expectRead(defs, portString("(1<" + row.text + ">)"), [&] {
      for (std::size_t i = 0; i < row.values.size(); ++i) {
        EXPECT_EQ(readAt<std::int32_t>(4 * i), row.values[i]) << i;
      }
    });
  }
}

// Whatever order fields come in, exactly those that did not come get their defaults.
TEST_F(PortReadTest, FieldsLeftOutGetDefaultsInAnyOrder) {
  constexpr std::uint32_t kFields = 6;
  std::vector<Field> fields;
  for (std::uint32_t id = 1; id <= kFields; ++id) {
    fields.push_back(Field(id, MEM_PORT_SHORT, 2, static_cast<std::int32_t>(2 * id - 2))
                         .byDefaultNumber(static_cast<std::uint16_t>(70 + id)));
  }
  Defs defs;
  defs.add(1, 2 * kFields, fields);
  for (const char *order : {"61", "612", "6124", "6412", "16", "135", "246", "624", "213465",
                            "65432", "1346", "56", "561", "361", "6352"}) {
    SCOPED_TRACE(order);
    std::string text = "(1<";
    for (const char *id = order; *id != 0; ++id) {
      text += (id == order ? "" : "/") + std::string(1, *id) + "N" + std::string(1, *id);
    }
    expectRead(defs, portString(text + ">)"), [&] {
      for (std::uint32_t id = 1; id <= kFields; ++id) {
        const bool isThere =
            std::string(order).find(static_cast<char>('0' + id)) != std::string::npos;
        EXPECT_EQ(readAt<std::int16_t>(2 * id - 2),
                  static_cast<std::int16_t>(isThere ? id : 70 + id));
      }
    });
  }
}

TEST_F(PortReadTest, LastFieldsSecondOccurrenceLandsOneElementFurther) {
  Defs defs;
  defs.add(1, 12, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_SHORT, 2, 4)});
  expectRead(defs, portString("(1<2N1/1N9/2N2/2N3/2N4>)"), [&] {
    EXPECT_EQ(bytesOf(read, 12), (Bytes{9, 0, 0, 0, 1, 0, 2, 0, 3, 0, 4, 0}));
  });
  expectRefused(defs, portString("(1<2N1/2N2/2N3/2N4/2N5>)"), {kConversionFailed});
}

// Every byte that is written is in the structure.
TEST_F(PortReadTest, FieldsReachTheEndAndNoByteFurther) {
  struct Row {
    MEMFieldType type;
    std::int32_t length;
    const char *value;
  };
  constexpr Row kRows[] = {
      {MEM_PORT_CHAR, 3, "\"a\""},    {MEM_PORT_CHARSZ, 3, "\"a\""}, {MEM_PORT_PSTR, 8, "X"},
      {MEM_PORT_BIN, 3, "H00"},       {MEM_PORT_SHORT, 2, "N1"},     {MEM_PORT_USHORT, 2, "N1"},
      {MEM_PORT_LONG, 4, "N1"},       {MEM_PORT_ULONG, 4, "N1"},     {MEM_PORT_PNT, 8, "S"},
      {MEM_PORT_BIT, 1, "B00000000"}, {MEM_PORT_UBIGINT, 8, "N1"},   {MEM_PORT_BIGINT, 8, "N1"},
      {MEM_PORT_WCHAR, 4, "'a'"},     {MEM_PORT_WCHARSZ, 4, "'a'"},  {MEM_PORT_WPSTR, 8, "x"}};
  for (const Row &row : kRows) {
    SCOPED_TRACE(row.type);
    for (const std::int32_t offset : {0, 1, 5}) {
      const std::string text = portString("(1<1" + std::string(row.value) + ">)");
      Defs exact;
      exact.add(1, offset + row.length, {Field(1, row.type, row.length, offset)});
      expectRead(exact, text);
      Defs shorter;
      shorter.add(1, offset + row.length - 1, {Field(1, row.type, row.length, offset)});
      if (offset + row.length > 1) expectRefused(shorter, text, {kConversionFailed});
      Defs negative;
      negative.add(1, 16, {Field(1, row.type, row.length, -1)});
      expectRefused(negative, text, {kConversionFailed});
    }
  }
}

TEST_F(PortReadTest, UnknownTypeCodesAreRefused) {
  for (const int code : {0, 17, 255}) {
    Defs defs;
    defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0).typeCode(static_cast<std::uint8_t>(code))});
    expectRefused(defs, portString("(1<1N5>)"), {"Unsupported field type!"});
  }
}

TEST_F(PortReadTest, UnknownFieldBelowTheLastOneIsRefused) {
  Defs defs;
  defs.add(12, 12, {Field(10, MEM_PORT_LONG, 4, 0), Field(20, MEM_PORT_LONG, 4, 4)});
  for (const char *field : {"", "9", "11", "91"}) {
    const std::string id(field);
    const std::string shown = id.empty() ? "0" : std::string(id.rbegin(), id.rend());
    expectRefused(defs, portString("(21<" + id + "N5>)"),
                  {"FieldID " + shown + " cannot be found in StructID 12!"});
  }
}

// Newer fields.

struct NewerCase {
  const char *body;
  const char *dropped;  // the field in the message
};

TEST_F(PortReadTest, NewerFieldsAreDroppedWithAllBehindThem) {
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_LONG, 4, 0), Field(3, MEM_PORT_LONG, 4, 4)});
  constexpr NewerCase kCases[] = {
      {"(1<1N5/4N7>)", "4"},
      {"(1<1N5/4N7/3N9>)", "4"},
      {"(1<1N5/9\"text>)/\">//<\"/8Hq>)", "9"},
      {"(1<1N5/4\"/a/0/<>\">)", "4"},
      {"(1<1N5/4E(9<1N5/2E(8<>)>)/5N>)", "4"},
      {"(1<1N5/5927694924?>)", "-1"},
      {"(1<1N5/4'<>'>)", "4"},
      {"(1<1N5/4>)", "4"},
  };
  for (const NewerCase &row : kCases) {
    SCOPED_TRACE(row.body);
    for (const std::uint32_t flags : {0U, 0x100U, 0x1FFU, ~0x100U}) {
      host.setTraceFlags(flags);
      forEveryForm(defs, portString(row.body), [&](std::int16_t result) {
        const Lines expected{"FieldID " + std::string(row.dropped) +
                             " cannot be found in StructID 1!"};
        EXPECT_EQ(messages(), (flags & 0x100U) != 0 ? expected : Lines());
        ASSERT_EQ(result, 0);
        EXPECT_EQ(readAt<std::int32_t>(0), 5);
        EXPECT_EQ(readAt<std::uint32_t>(4), 0U) << "field 3 has its default";
      });
    }
    host.setTraceFlags(0);
  }
}

TEST_F(PortReadTest, EachStructureTextWithNewerFieldsLeavesItsOwnRecord) {
  Defs defs;
  defs.add(1, 12, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_PNT, 8, 4).of(1)});
  host.setTraceFlags(MEM_TRACE_SKIPPED);
  EXPECT_EQ(readBlock(defs.table(), portString("(1<2S2/3N>)(1<7N/8N>)", 2)), 0);
  EXPECT_EQ(messages(), (Lines{"FieldID 3 cannot be found in StructID 1!",
                               "FieldID 7 cannot be found in StructID 1!"}));
}

// Single quotes are no quotes while skipping: a ">" between them ends the fields.
TEST_F(PortReadTest, SkippingKnowsNoSingleQuotes) {
  expectRefused(list(), portString("(1<1N5/3'>'>)"),
                {"Closing ) expected at the end of a structure!"});
  expectRefused(list(), portString("(1<1N5/3\">)"), {kEnd});
  expectRefused(list(), portString("(1<1N5/3<>)"), {kEnd});
}

TEST_F(PortReadTest, EmptyDefinitionTakesEveryFieldAsNewer) {
  Defs defs;
  defs.add(1, 4, {});
  expectRead(defs, portString("(1<1N5>)"));
  expectRefused(defs, portString("(1<>)"), {"FieldID 0 cannot be found in StructID 1!"});
}

// Required fields and unions.

TEST_F(PortReadTest, RequiredFieldMustBeThere) {
  Defs defs;
  defs.add(21, 12,
           {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_LONG, 4, 4).required(0x80),
            Field(3, MEM_PORT_LONG, 4, 8)});
  expectRead(defs, portString("(12<2N5>)"));
  expectRefused(defs, portString("(12<1N5/3N5>)"), {"FieldID 2 is required in StructID 21!"});
}

TEST_F(PortReadTest, PresentAlternativeCountsForAnAbsentOne) {
  Defs defs;
  defs.add(1, 8,
           {Field(1, MEM_PORT_LONG, 4, 0).required(), Field(2, MEM_PORT_BIN, 4, 0).required(),
            Field(3, MEM_PORT_SHORT, 2, 0).required(), Field(4, MEM_PORT_LONG, 4, 4)});
  expectRead(defs, portString("(1<2H11223344>)"),
             [&] { EXPECT_EQ(readAt<std::uint32_t>(0), 0x44332211U); });
  expectRead(defs, portString("(1<3N5>)"), [&] { EXPECT_EQ(readAt<std::uint16_t>(0), 5); });
  expectRefused(defs, portString("(1<4N5>)"), {"FieldID 1 is required in StructID 1!"});
}

// Many fields over few offsets or many, some of them in the text: what an absent field gets, and
// which one is missed first, against a plain look at all pairs of fields.
class PortAlternativesTest : public PortReadTest {
 protected:
  static constexpr std::int32_t kLength = 2048;

  struct Case {
    Defs defs;
    std::vector<std::size_t> present;  // indices of the fields in the text, in its order
    std::string text;
  };

  static Case randomCase(Random &random, std::size_t fields) {
    Case made;
    const std::size_t offsets = random.between(1, random.oneIn(2) ? 4 : fields);
    const std::size_t step = std::size_t{2} << random.below(3);
    std::vector<Field> list;
    for (std::size_t i = 0; i < fields; ++i) {
      const auto offset = static_cast<std::int32_t>(random.below(offsets) * step % kLength);
      Field field(static_cast<std::uint32_t>(i + 1), MEM_PORT_SHORT, 2, offset);
      field.byDefaultNumber(static_cast<std::uint32_t>(0x4000 + i));
      if (!random.oneIn(4)) field.required();
      if (random.oneIn(8)) field.notPorted();
      list.push_back(field);
    }
    const std::size_t share = random.between(1, 8);
    for (std::size_t i = 0; i < fields; ++i) {
      if (!random.oneIn(share)) made.present.push_back(i);
    }
    if (made.present.empty()) made.present.push_back(random.below(fields));
    return finished(std::move(made), list, random);
  }
  // Two required fields at each offset, one of them in the text. Sometimes one is left out;
  // otherwise none is missed, unless a field of the text is overlooked.
  static Case pairedCase(Random &random, std::size_t pairs) {
    Case made;
    std::vector<Field> list;
    const std::size_t leftOut = random.below(2 * pairs);
    for (std::size_t i = 0; i < 2 * pairs; ++i) {
      const std::size_t pair = i < pairs ? i : 2 * pairs - 1 - i;
      const auto offset = static_cast<std::int32_t>(2 * pair);
      list.push_back(
          Field(static_cast<std::uint32_t>(i + 1), MEM_PORT_SHORT, 2, offset).required());
    }
    for (std::size_t pair = 0; pair < pairs; ++pair) {
      if (pair == leftOut) continue;
      made.present.push_back(random.oneIn(2) ? pair : 2 * pairs - 1 - pair);
    }
    if (made.present.empty()) made.present.push_back(0);
    std::sort(made.present.begin(), made.present.end());
    return finished(std::move(made), list, random);
  }
  static Case finished(Case made, const std::vector<Field> &list, Random &random) {
    made.defs.add(1, kLength, list);
    if (random.oneIn(3)) std::reverse(made.present.begin(), made.present.end());
    std::string body;
    for (const std::size_t i : made.present) {
      body += (body.empty() ? "" : "/") + reversed(i + 1) + "N" + reversed(i);
    }
    made.text = portString("(1<" + body + ">)");
    return made;
  }
  static std::string reversed(std::size_t number) {
    const std::string digits = number == 0 ? "" : std::to_string(number);
    return {digits.rbegin(), digits.rend()};
  }

  // What the structure holds after the call, and the message.
  static Record expected(Case &made, std::string &message) {
    Record record(kLength, kDirty);
    const MEMStructDef &def = made.defs.row(0);
    for (const std::size_t i : made.present) {
      record.set(static_cast<std::size_t>(def.Fields[i].Offset), static_cast<std::uint16_t>(i));
    }
    const auto isPresent = [&](std::size_t i) {
      return std::find(made.present.begin(), made.present.end(), i) != made.present.end();
    };
    for (std::size_t i = 0; i < static_cast<std::size_t>(def.FieldCount); ++i) {
      const MEMFieldDef &field = def.Fields[i];
      if (isPresent(i)) continue;
      if (field.Required == 0) {
        record.set(static_cast<std::size_t>(field.Offset), field.Default.Short);
      } else if (field.NotPorted == 0 &&
                 std::none_of(made.present.begin(), made.present.end(), [&](std::size_t other) {
                   return def.Fields[other].Offset == field.Offset;
                 })) {
        message = "FieldID " + std::to_string(field.FieldID) + " is required in StructID 1!";
        break;
      }
    }
    return record;
  }
};

TEST_F(PortAlternativesTest, AreFoundAsByALookAtAllFields) {
  int missed = 0;
  int complete = 0;
  const std::uint64_t begin = firstSeed(6310000);
  for (std::uint64_t seed = begin; seed < begin + 400; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    Random random(seed);
    constexpr std::size_t kCounts[] = {1, 2, 3, 5, 8, 15, 16, 17, 18, 31, 33, 255, 256, 1023, 1024};
    const std::size_t count = kCounts[random.below(std::size(kCounts))];
    Case made = seed % 2 == 0 ? randomCase(random, count) : pairedCase(random, (count + 1) / 2);
    std::string message;
    const Record left = expected(made, message);
    renewHeap();
    ASSERT_EQ(readBlock(made.defs.table(), made.text), message.empty() ? 0 : -1);
    ASSERT_EQ(messages(), message.empty() ? Lines() : Lines{message});
    ASSERT_EQ(std::memcmp(read, left.data(), left.size()), 0);
    ++(message.empty() ? complete : missed);
  }
  EXPECT_GT(missed, 50);
  EXPECT_GT(complete, 50);
}

// Offsets at which no field can be are asked for all the same.
TEST_F(PortReadTest, RequiredFieldsOfWildOffsets) {
  for (const std::int32_t offset : {-1, INT32_MIN, INT32_MAX, 65536}) {
    Defs defs;
    defs.add(1, 8,
             {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_LONG, 4, offset).required(),
              Field(3, MEM_PORT_BIN, 0, 4)});
    expectRefused(defs, portString("(1<1N5/3H>)"), {"FieldID 2 is required in StructID 1!"});
  }
}

TEST_F(PortReadTest, RequiredFieldThatIsNotPortedIsLeftAsItIs) {
  Defs defs;
  defs.add(1, 8,
           {Field(1, MEM_PORT_LONG, 4, 0),
            Field(2, MEM_PORT_LONG, 4, 4).required().notPorted().byDefaultNumber(9)});
  expectRead(defs, portString("(1<1N5>)"),
             [&] { EXPECT_EQ(readAt<std::uint32_t>(4), 0xA5A5A5A5U); });
  expectRead(defs, portString("(1<1N5/2N6>)"), [&] { EXPECT_EQ(readAt<std::uint32_t>(4), 6U); });
  defs.field(0, 1).Required = 0;
  expectRead(defs, portString("(1<1N5>)"), [&] { EXPECT_EQ(readAt<std::uint32_t>(4), 9U); });
}

// A default is given to every absent field, over a present alternative, too.
TEST_F(PortReadTest, DefaultGoesOverAPresentAlternative) {
  Defs defs;
  defs.add(1, 4,
           {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_SHORT, 2, 0).byDefaultNumber(0xBEEF)});
  expectRead(defs, portString("(1<1N5>)"), [&] { EXPECT_EQ(readAt<std::uint32_t>(0), 0xBEEFU); });
}

// Defaults.

class PortDefaultTest : public PortReadTest {
 protected:
  // The 16 bytes of storage of an absent field, dirty before.
  Bytes after(Field field) {
    Defs defs;
    defs.add(1, 24, {Field(1, MEM_PORT_LONG, 4, 0), field, Field(3, MEM_PORT_BIT, 1, 23)});
    EXPECT_EQ(readBlock(defs.table(), portString("(1<1N5/3B00000000>)")), 0);
    EXPECT_EQ(messages(), Lines());
    return bytesOf(static_cast<const std::uint8_t *>(read) + 5, 16);
  }
  static Field absent(MEMFieldType type, std::int32_t length) { return Field(2, type, length, 5); }

  // These bytes, and dirt after them.
  static Bytes stored(const void *from, std::size_t length) {
    Bytes bytes = bytesOf(from, length);
    bytes.resize(16, 0xA5);
    return bytes;
  }
  static Bytes untouchedBytes() { return Bytes(16, 0xA5); }
};

TEST_F(PortDefaultTest, CharSZ) {
  EXPECT_EQ(after(absent(MEM_PORT_CHARSZ, 6).byDefault("ab")).at(2), 0);
  EXPECT_EQ(bytesOf(after(absent(MEM_PORT_CHARSZ, 6).byDefault("ab")).data(), 3), bytesOf("ab", 3));
  const Bytes shorter = after(absent(MEM_PORT_CHARSZ, 6).byDefault("ab"));
  EXPECT_EQ(shorter[5], 0) << "always a zero at the end";
  EXPECT_EQ(shorter[6], 0xA5);
  EXPECT_EQ(after(absent(MEM_PORT_CHARSZ, 6).byDefault("abcdefgh")), stored("abcde", 6));
  EXPECT_EQ(after(absent(MEM_PORT_CHARSZ, 6).byDefault("abcdef")), stored("abcde", 6));
  EXPECT_EQ(after(absent(MEM_PORT_CHARSZ, 6).byDefault("abcde").noTruncate()), stored("abcde", 6));
  EXPECT_EQ(after(absent(MEM_PORT_CHARSZ, 1).byDefault("abc")), stored("", 1));
  EXPECT_EQ(after(absent(MEM_PORT_CHARSZ, 0).byDefault("abc")), untouchedBytes());
  EXPECT_EQ(after(absent(MEM_PORT_CHARSZ, 6)), untouchedBytes());
}

TEST_F(PortDefaultTest, WCharSZ) {
  EXPECT_EQ(after(absent(MEM_PORT_WCHARSZ, 8).byDefault(u"abcdefgh")), stored(u"abc", 8));
  const Bytes shorter = after(absent(MEM_PORT_WCHARSZ, 8).byDefault(u"a"));
  EXPECT_EQ(bytesOf(shorter.data(), 4), bytesOf(u"a", 4));
  EXPECT_EQ(load<std::uint16_t>(shorter.data(), 6), 0) << "always a zero at the end";
  EXPECT_EQ(after(absent(MEM_PORT_WCHARSZ, 9).byDefault(u"abcdefgh")), stored(u"abc", 8));
  EXPECT_EQ(after(absent(MEM_PORT_WCHARSZ, 2).byDefault(u"abc")), stored(u"", 2));
  EXPECT_EQ(after(absent(MEM_PORT_WCHARSZ, 1).byDefault(u"abc")), untouchedBytes());
  EXPECT_EQ(after(absent(MEM_PORT_WCHARSZ, 8)), untouchedBytes());
  // Units are compared with bytes: 7 units are taken as fitting into 8 bytes.
  EXPECT_EQ(after(absent(MEM_PORT_WCHARSZ, 8).byDefault(u"abcdefg").noTruncate()),
            stored(u"abc", 8));
}

TEST_F(PortDefaultTest, TooLongForNoTruncateFailsWithoutMessage) {
  const Field fields[] = {absent(MEM_PORT_CHARSZ, 6).byDefault("abcdef").noTruncate(),
                          absent(MEM_PORT_CHARSZ, 0).byDefault("").noTruncate(),
                          absent(MEM_PORT_WCHARSZ, 8).byDefault(u"abcdefgh").noTruncate(),
                          absent(MEM_PORT_WCHARSZ, 1).byDefault(u"a").noTruncate()};
  for (const Field &field : fields) {
    Defs defs;
    defs.add(1, 24, {Field(1, MEM_PORT_LONG, 4, 0), field});
    expectRefused(defs, portString("(1<1N5>)"), {});
    EXPECT_NE(read, nullptr);
  }
}

TEST_F(PortDefaultTest, StringsAreShared) {
  const char *text = "shared";
  const char16_t *wideText = u"shared";
  EXPECT_EQ(after(absent(MEM_PORT_PSTR, 8).byDefault(text)), stored(&text, 8));
  EXPECT_EQ(after(absent(MEM_PORT_WPSTR, 8).byDefault(wideText)), stored(&wideText, 8));
  const void *null = nullptr;
  EXPECT_EQ(after(absent(MEM_PORT_PSTR, 8)), stored(&null, 8));
  EXPECT_EQ(after(absent(MEM_PORT_WPSTR, 8)), stored(&null, 8));
}

TEST_F(PortDefaultTest, Numbers) {
  const std::uint32_t value = 0x89ABCDEF;
  for (const MEMFieldType type : {MEM_PORT_SHORT, MEM_PORT_USHORT}) {
    EXPECT_EQ(after(absent(type, 2).byDefaultNumber(value)), stored(&value, 2));
  }
  for (const MEMFieldType type : {MEM_PORT_LONG, MEM_PORT_ULONG}) {
    EXPECT_EQ(after(absent(type, 4).byDefaultNumber(value)), stored(&value, 4));
  }
  for (const MEMFieldType type : {MEM_PORT_UBIGINT, MEM_PORT_BIGINT}) {
    EXPECT_EQ(after(absent(type, 8).byDefaultNumber(value)), stored(&value, 4))
        << "the upper half is left";
  }
}

TEST_F(PortDefaultTest, AllOthersAreCopied) {
  const char bytes[] = "0123456789";
  for (const MEMFieldType type :
       {MEM_PORT_CHAR, MEM_PORT_BIN, MEM_PORT_PNT, MEM_PORT_SUBSTRUCTURE, MEM_PORT_WCHAR}) {
    const void *from = bytes;
    EXPECT_EQ(after(absent(type, 8).byDefault(from)), stored(bytes, 8)) << type;
    EXPECT_EQ(after(absent(type, 8)), untouchedBytes()) << type;
  }
  const void *flags = bytes;
  EXPECT_EQ(after(absent(MEM_PORT_BIT, 1).byDefault(flags)), stored(bytes, 1));
  EXPECT_EQ(after(absent(MEM_PORT_BIT, 1)), untouchedBytes());
}

// A repeat field that the count leaves no room for.
TEST_F(PortDefaultTest, ElementThatDoesNotExistGetsNone) {
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_LONG, 4, 4).byDefaultNumber(7)},
           0);
  VectorWatch watch(mem);
  ASSERT_EQ(readBlock(defs.table(), portString("(1,<1N>)")), 0);
  EXPECT_EQ(load<std::uint32_t>(read, 4), 0xA5A5A5A5U);
  ASSERT_EQ(readBlock(defs.table(), portString("(1,1<1N1>)")), 0);
  EXPECT_EQ(load<std::uint32_t>(read, 4), 7U);
}

// Repeat fields.

class PortRepeatTest : public PortReadTest {
 protected:
  static Defs defs() {
    Defs made;
    made.add(1, 6, {Field(1, MEM_PORT_SHORT, 2, 0), Field(2, MEM_PORT_LONG, 4, 2)}, 0);
    return made;
  }
};

TEST_F(PortRepeatTest, SizeComesFromTheCountInTheText) {
  VectorWatch watch(mem);
  const AddressNames names{{asNumber(heap), "callers"}};
  ASSERT_EQ(readBlock(defs().table(), portString("(1,3<1N99/2N1/2N2/2N3>)")), 0);
  EXPECT_EQ(readAt<std::int16_t>(0), 99) << "the count field is like any other";
  EXPECT_EQ(readAt<std::int32_t>(2), 1);
  EXPECT_EQ(readAt<std::int32_t>(6), 2);
  EXPECT_EQ(readAt<std::int32_t>(10), 3);
  EXPECT_EQ(watch.takeUsesOf(14).at(2).length, 14);
  ASSERT_EQ(readBlock(defs().table(), portString("(1,<1N>)")), 0);
  EXPECT_EQ(watch.takeUsesOf(14).at(2).length, 2) << "no digits are 0 elements";
  ASSERT_EQ(readBlock(defs().table(), portString("(1<1N5/2N1>)")), 0);
  EXPECT_EQ(watch.takeUsesOf(14).at(2).length, 6) << "no count is 1 element";
}

TEST_F(PortRepeatTest, ElementsBeyondTheCountAreRefused) {
  expectRefused(defs(), portString("(1,2<1N2/2N1/2N2/2N3>)"), {kConversionFailed});
  expectRefused(defs(), portString("(1,<1N/2N1>)"), {kConversionFailed});
  expectRefused(defs(), portString("(1<1N1/2N1/2N2>)"), {kConversionFailed});
}

TEST_F(PortRepeatTest, FewerElementsThanTheCountAreAccepted) {
  expectRead(defs(), portString("(1,3<1N3/2N1>)"), [&] {
    EXPECT_EQ(readAt<std::int32_t>(2), 1);
    EXPECT_EQ(readAt<std::uint32_t>(6), 0xA5A5A5A5U);
  });
}

TEST_F(PortRepeatTest, SizeAtTheLimits) {
  Defs large;
  large.add(1, 7, {Field(1, MEM_PORT_SHORT, 2, 0), Field(2, MEM_PORT_BIN, 5, 2)}, 0);
  VectorWatch watch(mem);
  watch.longResult = std::nullopt;
  static std::vector<std::int32_t> asked;
  asked.clear();
  static MEM_HeapAllocEntryLongFn *own;
  own = mem.MEM_HeapAllocEntryLong;
  static HMEMHEAP callers;
  callers = heap;
  mem.MEM_HeapAllocEntryLong = [](HMEMHEAP handle, std::int32_t length, void **entry) {
    if (handle != callers) return own(handle, length, entry);
    asked.push_back(length);
    return std::int16_t{-1};
  };
  // 2 + 5 * 429496729 = 2147483647.
  EXPECT_EQ(readBlock(large.table(), portString("(1,927694924<1N5>)")), -1);
  EXPECT_EQ(messages(), Lines{"Allocation Failure!"});
  EXPECT_EQ(asked, std::vector<std::int32_t>{INT32_MAX});
  // One element more is never asked for.
  EXPECT_EQ(readBlock(large.table(), portString("(1,037694924<1N5>)")), -1);
  EXPECT_EQ(messages(), Lines{"Allocation Failure!"});
  EXPECT_EQ(readBlock(large.table(), portString("(1,5927694924<1N5>)")), -1);
  EXPECT_EQ(messages(), Lines{"Allocation Failure!"});
  EXPECT_EQ(asked.size(), 1U);
  mem.MEM_HeapAllocEntryLong = own;
}

TEST_F(PortRepeatTest, SizeBelow1IsTheHeapsToRefuse) {
  Defs none;
  none.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0)}, 0);
  EXPECT_EQ(readBlock(none.table(), portString("(1,<>)")), -1);
  EXPECT_EQ(messages(), Lines{"Allocation Failure!"});
  EXPECT_EQ(error().Code, static_cast<std::uint32_t>(MEMERR_HEAPEMIN));
  EXPECT_EQ(nameText(), "Entry Length=0 too small");
}

// Embedded structures.

class PortEmbeddedTest : public PortReadTest {
 protected:
  static Defs defs(std::int32_t innerLength) {
    Defs made;
    made.add(
        1, 16,
        {Field(1, MEM_PORT_SUBSTRUCTURE, innerLength, 2).of(2), Field(2, MEM_PORT_BIT, 1, 15)});
    made.add(2, 8, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_LONG, 4, 4)});
    return made;
  }
};

TEST_F(PortEmbeddedTest, IsReadInPlace) {
  expectRead(defs(8), portString("(1<1E(2<1N5/2N6>)/2B00000000>)"), [&] {
    EXPECT_EQ(readAt<std::int32_t>(2), 5);
    EXPECT_EQ(readAt<std::int32_t>(6), 6);
    EXPECT_EQ(readAt<std::uint16_t>(0), 0xA5A5U);
    EXPECT_EQ(readAt<std::uint16_t>(10), 0xA5A5U);
  });
}

TEST_F(PortEmbeddedTest, MustBeThere) {
  expectRefused(defs(8), portString("(1<1(2<1N5>)>)"), {"Substructure expected!"});
}

TEST_F(PortEmbeddedTest, FieldLongerThanTheStructureIsRefused) {
  expectRefused(
      defs(9), portString("(1<1E(2<1N5>)>)"),
      {"Size mismatch between field length (9) and StructID 2 length (8)!", kConversionFailed});
  expectRead(defs(7), portString("(1<1E(2<1N5/2N6>)>)"),
             [&] { EXPECT_EQ(readAt<std::int32_t>(6), 6); });
}

TEST_F(PortEmbeddedTest, ErrorsInsideAreReportedAtBothLevels) {
  expectRefused(defs(8), portString("(1<1E(2<1X>)>)"),
                {"Not a numeric field!", kConversionFailed, kConversionFailed});
  expectRefused(defs(8), portString("(1<1E(3<1N>)>)"), {"Unknown StructID: 3!", kConversionFailed});
}

TEST_F(PortEmbeddedTest, WritesBeyondTheAllocationAreRefused) {
  Defs outer;
  outer.add(1, 8, {Field(1, MEM_PORT_SUBSTRUCTURE, 4, 4).of(2)});
  outer.add(2, 8, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_LONG, 4, 4)});
  expectRead(outer, portString("(1<1E(2<1N5>)>)"), [&] { EXPECT_EQ(readAt<std::int32_t>(4), 5); });
  expectRefused(outer, portString("(1<1E(2<2N5>)>)"), {kConversionFailed, kConversionFailed});
}

TEST_F(PortEmbeddedTest, PointersInsideBelongToTheStructureAround) {
  Defs nested;
  nested.add(1, 16,
             {Field(1, MEM_PORT_SUBSTRUCTURE, 8, 0).of(2), Field(2, MEM_PORT_PNT, 8, 8).of(1)});
  nested.add(2, 8, {Field(1, MEM_PORT_PNT, 8, 0).of(1)});
  expectRead(nested, portString("(1<1E(2<1S2>)/2S1>)(1<1E(2<1S1>)/2S2>)", 2), [&] {
    const auto *second = readAt<const void *>(0);
    EXPECT_EQ(readAt<const void *>(8), read);
    EXPECT_EQ(load<const void *>(second, 0), read);
    EXPECT_EQ(load<const void *>(second, 8), second);
  });
}

TEST_F(PortEmbeddedTest, NestingUpTo64) {
  constexpr std::uint32_t kDeepest = 66;
  Defs nested;
  for (std::uint32_t id = 1; id < kDeepest; ++id) {
    nested.add(id, 4, {Field(1, MEM_PORT_SUBSTRUCTURE, 4, 0).of(id + 1)});
  }
  nested.add(kDeepest, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
  for (const std::uint32_t top : {1U, 2U}) {
    std::string body;
    for (std::uint32_t id = top; id < kDeepest; ++id) {
      const std::string digits = std::to_string(id);
      body += "(" + std::string(digits.rbegin(), digits.rend()) + "<1E";
    }
    body += "(66<1N5";
    for (std::uint32_t id = top; id <= kDeepest; ++id) body += ">)";
    if (top == 2) {
      expectRead(nested, portString(body), [&] { EXPECT_EQ(readAt<std::int32_t>(0), 5); });
    } else {
      expectRefused(nested, portString(body), Lines(65, kConversionFailed));
    }
  }
}

// Pointers.

TEST_F(PortReadTest, PointersForwardBackAndToThemselves) {
  Defs defs;
  defs.add(1, 24,
           {Field(1, MEM_PORT_PNT, 8, 0).of(1), Field(2, MEM_PORT_PNT, 8, 8).of(1),
            Field(3, MEM_PORT_PNT, 8, 16).of(1)});
  expectRead(defs, portString("(1<1S3/2S3/3S2>)(1<1S1/2S2/3S3>)(1<1S/2S0/3S1>)", 3), [&] {
    const void *first = read;
    const auto *third = readAt<const void *>(0);
    const auto *second = readAt<const void *>(16);
    EXPECT_EQ(readAt<const void *>(8), third);
    EXPECT_EQ(load<const void *>(second, 0), first);
    EXPECT_EQ(load<const void *>(second, 8), second);
    EXPECT_EQ(load<const void *>(second, 16), third);
    EXPECT_EQ(load<const void *>(third, 0), nullptr);
    EXPECT_EQ(load<const void *>(third, 8), nullptr);
    EXPECT_EQ(load<const void *>(third, 16), first);
    EXPECT_NE(second, third);
  });
}

// While they wait, the fields are a chain with the field found last at its head.
TEST_F(PortReadTest, WaitingFieldsHoldTheChain) {
  Defs defs;
  defs.add(1, 24,
           {Field(1, MEM_PORT_PNT, 8, 0).of(1), Field(2, MEM_PORT_PNT, 8, 8).of(1),
            Field(3, MEM_PORT_PNT, 8, 16).of(1)});
  expectRefused(defs, portString("(1<1S2/2S3/3S2>)[", 3), {"Cannot find ( beginning a structure!"});
  ASSERT_NE(read, nullptr) << "the top-level structure was allocated";
  EXPECT_EQ(readAt<const void *>(0), nullptr);
  EXPECT_EQ(readAt<const void *>(8), nullptr);
  EXPECT_EQ(readAt<const void *>(16), read);
}

// A waiting field that is named again, or written over, leads nowhere.
TEST_F(PortReadTest, WaitingFieldsAreNeverFollowed) {
  Defs defs;
  defs.add(1, 16,
           {Field(1, MEM_PORT_PNT, 8, 0).of(1), Field(2, MEM_PORT_UBIGINT, 8, 0),
            Field(3, MEM_PORT_LONG, 4, 8), Field(4, MEM_PORT_LONG, 4, 12)});
  expectRead(defs, portString("(1<1S2/2N12345678/1S2/2N7>)(1<1S>)", 2), [&] {
    const auto *second = readAt<const void *>(0);
    EXPECT_EQ(load<const void *>(second, 0), nullptr);
  });
}

TEST_F(PortReadTest, OutAddressOnFailure) {
  const std::string broken = portString("(1<1X>)");
  EXPECT_EQ(readBlock(list().table(), broken), -1);
  EXPECT_NE(read, nullptr);
  EXPECT_NE(read, this) << "the structure had been allocated";
  EXPECT_EQ(readBlock(list().table(), portString("[1")), -1);
  EXPECT_EQ(read, nullptr);
  EXPECT_EQ(readBlock(list().table(), portString("(1<1N/2S2>)(2", 2)), -1);
  EXPECT_EQ(load<std::int32_t>(read, 0), 0);
}

// What success does not promise: a text is taken that no writer with these definitions makes. The
// check that callers are given refuses it.

class PortPromiseTest : public PortReadTest {
 protected:
  static bool isDefined(const Defs &defs, const std::string &text) {
    return isAsDefined(defs.table(), 1, text.data(), text.size()) != 0;
  }
  // Read without a message, although the check refuses it.
  void expectTaken(const Defs &defs, const std::string &text, const std::function<void()> &look) {
    forEveryForm(defs, text, [&](std::int16_t result) {
      EXPECT_EQ(messages(), Lines());
      ASSERT_EQ(result, 0) << text;
      look();
    });
    EXPECT_FALSE(isDefined(defs, text)) << text;
  }

  // A structure 1 with a pointer to a structure 2 and a number after it; 2 and 3 differ.
  static Defs owner() {
    Defs defs;
    defs.add(1, 16, {Field(1, MEM_PORT_PNT, 8, 0).of(2), Field(2, MEM_PORT_LONG, 4, 8)});
    defs.add(2, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
    defs.add(3, 1, {Field(1, MEM_PORT_BIT, 1, 0)});
    return defs;
  }
};

TEST_F(PortPromiseTest, PointerMayLeadToAnotherKind) {
  EXPECT_TRUE(isDefined(owner(), portString("(1<1S2/2N5>)(2<1N7>)", 2)));
  expectTaken(owner(), portString("(1<1S2/2N5>)(3<1B10100000>)", 2),
              [&] { EXPECT_EQ(load<std::uint8_t>(readAt<const void *>(0), 0), 5); });
  expectTaken(owner(), portString("(1<1S1/2N5>)"),
              [&] { EXPECT_EQ(readAt<const void *>(0), read); });
  expectTaken(owner(), portString("(2<1N7>)"), [&] { EXPECT_EQ(readAt<std::int32_t>(0), 7); });
}

TEST_F(PortPromiseTest, EmbeddedTextMayBeOfAnotherKindAndLieOverOtherFields) {
  Defs defs;
  defs.add(1, 16,
           {Field(1, MEM_PORT_SUBSTRUCTURE, 4, 0).of(2), Field(2, MEM_PORT_PNT, 8, 8).of(1)});
  defs.add(2, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
  defs.add(3, 16, {Field(1, MEM_PORT_BIT, 1, 3), Field(2, MEM_PORT_UBIGINT, 8, 8)});
  EXPECT_TRUE(isDefined(defs, portString("(1<1E(2<1N7>)/2S1>)")));
  expectTaken(defs, portString("(1<1E(3<1B10100000>)/2S1>)"),
              [&] { EXPECT_EQ(readAt<std::uint8_t>(3), 5); });
  expectTaken(defs, portString("(1<2S1/1E(3<2N654321>)>)"),
              [&] { EXPECT_EQ(readAt<std::uint64_t>(8), 123456U); });
}

TEST_F(PortPromiseTest, CountFieldMayDifferFromTheElements) {
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_SHORT, 2, 4)}, 0);
  EXPECT_TRUE(isDefined(defs, portString("(1,2<1N2/2N7/2N8>)")));
  expectTaken(defs, portString("(1,2<1N99/2N7/2N8>)"),
              [&] { EXPECT_EQ(readAt<std::int32_t>(0), 99); });
  expectTaken(defs, portString("(1,2<1N-2/2N7/2N8>)"),
              [&] { EXPECT_EQ(readAt<std::int32_t>(0), -2); });
  expectTaken(defs, portString("(1,3<1N3/2N7>)"), [&] {
    EXPECT_EQ(readAt<std::uint16_t>(6), 0xA5A5U) << "an element that never came";
  });
  expectTaken(defs, portString("(1<1N1/2N7>)"), [&] { EXPECT_EQ(readAt<std::int32_t>(0), 1); });
}

TEST_F(PortPromiseTest, CountMayWrapInItsField) {
  Defs defs;
  defs.add(1, 4, {Field(1, MEM_PORT_SHORT, 2, 0), Field(2, MEM_PORT_BIT, 1, 2)}, 0);
  std::string text = "(1,96723<1N96723";
  for (int i = 0; i < 32769; ++i) text += "/2B00000000";
  text = portString(text + ">)");
  ASSERT_EQ(readBlock(defs.table(), text), 0);
  EXPECT_EQ(readAt<std::int16_t>(0), -32767);
  EXPECT_FALSE(isDefined(defs, text));
}

// One occurrence too many of the last field lands on what follows the field.
TEST_F(PortPromiseTest, LastFieldMayComeAgainOverOtherFields) {
  Defs defs;
  defs.add(1, 16, {Field(1, MEM_PORT_PNT, 8, 8).of(1), Field(2, MEM_PORT_UBIGINT, 8, 0)});
  EXPECT_TRUE(isDefined(defs, portString("(1<1S1/2N7>)")));
  expectTaken(defs, portString("(1<1S1/2N7/2N654321>)"),
              [&] { EXPECT_EQ(readAt<std::uint64_t>(8), 123456U); });
}

TEST_F(PortPromiseTest, AlternativeMayLieOverAPointer) {
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_PNT, 8, 0).of(1), Field(2, MEM_PORT_UBIGINT, 8, 0)});
  const std::string text = portString("(1<1S1/2N654321>)");
  ASSERT_EQ(readBlock(defs.table(), text), 0);
  EXPECT_EQ(readAt<std::uint64_t>(0), 123456U);
  EXPECT_TRUE(isDefined(defs, text)) << "writers write all alternatives";
}

// Only a default, or Required, gives an absent pointer a value.
TEST_F(PortPromiseTest, AbsentPointerWithoutDefaultHoldsWhatTheStorageHeld) {
  const std::string text = portString("(1<2N5>)");
  ASSERT_EQ(readBlock(owner().table(), text), 0);
  EXPECT_EQ(readAt<std::uint64_t>(0), 0xA5A5A5A5A5A5A5A5U);
  EXPECT_TRUE(isDefined(owner(), text)) << "older writers leave fields out";
  static constexpr const void *kNull = nullptr;
  const void *pointsToNull = &kNull;
  Defs defs;
  defs.add(
      1, 16,
      {Field(1, MEM_PORT_PNT, 8, 0).of(1).byDefault(pointsToNull), Field(2, MEM_PORT_LONG, 4, 8)});
  ASSERT_EQ(readBlock(defs.table(), text), 0);
  EXPECT_EQ(readAt<const void *>(0), nullptr);
}

TEST_F(PortPromiseTest, ShortTextMayAskForTwoGigabytes) {
  Defs defs;
  defs.add(1, 3, {Field(1, MEM_PORT_SHORT, 2, 0), Field(2, MEM_PORT_BIN, 1, 2)}, 0);
  const std::string text = portString("(1,5463847412<1N5/2H>)");
  ASSERT_EQ(text.size(), 45U);
  static std::vector<std::int32_t> asked;
  asked.clear();
  static MEM_HeapAllocEntryLongFn *own;
  own = mem.MEM_HeapAllocEntryLong;
  static HMEMHEAP callers;
  callers = heap;
  mem.MEM_HeapAllocEntryLong = [](HMEMHEAP handle, std::int32_t length, void **entry) {
    if (handle != callers) return own(handle, length, entry);
    asked.push_back(length);
    return own(handle, 3, entry);  // all that will be written
  };
  EXPECT_EQ(readBlock(defs.table(), text), 0);
  mem.MEM_HeapAllocEntryLong = own;
  EXPECT_EQ(asked, std::vector<std::int32_t>{INT32_MAX});
  EXPECT_FALSE(isDefined(defs, text));
}

// All types as writers write them, and what readers let pass.
TEST_F(PortPromiseTest, CheckKnowsEveryTypeAndIsStricterThanReaders) {
  Defs defs;
  defs.add(1, 80,
           {Field(1, MEM_PORT_CHAR, 4, 0), Field(2, MEM_PORT_CHARSZ, 4, 4),
            Field(3, MEM_PORT_PSTR, 8, 8), Field(4, MEM_PORT_BIN, 2, 16),
            Field(5, MEM_PORT_SHORT, 2, 18), Field(6, MEM_PORT_USHORT, 2, 20),
            Field(7, MEM_PORT_LONG, 4, 24), Field(8, MEM_PORT_ULONG, 4, 28),
            Field(9, MEM_PORT_UBIGINT, 8, 32), Field(10, MEM_PORT_BIGINT, 8, 40),
            Field(11, MEM_PORT_BIT, 1, 48), Field(12, MEM_PORT_WCHAR, 4, 50),
            Field(13, MEM_PORT_WCHARSZ, 4, 54), Field(14, MEM_PORT_WPSTR, 8, 64),
            Field(15, MEM_PORT_PNT, 8, 72).of(1)});
  const std::string all = portString(
      "(1<1\"/0//\"/2\"a/\"b\"/3X3\"a>b\"/4H1FA0/5N-86723/6N53556/7N-8463847412/8N5927694924/"
      "9N51615590737044764481/01N-8085774586302733229/11B10100000/21'/23Y/''/31'/''/41x1;'/3?oo'/"
      "51S1>)");
  EXPECT_TRUE(isDefined(defs, all));
  EXPECT_EQ(readBlock(defs.table(), all), 0);
  for (const char *body :
       {"(1<3X/4H/5N/41x/51S>)", "(1<3X>)", "(1<3X\"\">)", "(1<51S0>)", "(1<41x;''>)", "(1<4H>)"}) {
    EXPECT_TRUE(isDefined(defs, portString(body))) << body;
    EXPECT_EQ(readBlock(defs.table(), portString(body)), 0) << body;
  }
  for (const char *body :
       {"(1<2\"a\"/1\"b\">)", "(1<1\"a\"/1\"b\">)", "(1<51S/51S>)", "(1<5N1#6N2>)", "(1<6N-5>)",
        "(1<9N-5>)", "(1<5N86723>)", "(1<6N63556>)", "(1<7N8463847412>)", "(1<8N6927694924>)",
        "(1<21\"a\">)", "(1<41X1\"a\">)", "(1<5N1/61S>)", "(1<5N1>)x", "(1<5N1>)(1<5N1>)"}) {
    EXPECT_FALSE(isDefined(defs, portString(body))) << body;
  }
  for (const char *body :
       {"",         "(",       "(1",        "(1<5N1>",   "(1<5N1",   "(1<5N",           "(1<5",
        "(1<21'/9", "(1<21'/", "(1<21'",    "(1<1\"/",   "(1<1\"",   "(1<3X",           "(1<3X1",
        "(1<41x",   "(1<4H1",  "(1<51S",    "(1<51S2>)", "(1<4H1>)", "(1<11B1010000>)", "(2<5N1>)",
        "(1<>)",    "(1<N>)",  "(1,1<5N1>)"}) {
    EXPECT_FALSE(isDefined(defs, portString(body))) << body;
    EXPECT_EQ(readBlock(defs.table(), portString(body)), -1) << body;
  }
  for (const char *header : {"(0000000031,0000000000)", "(0000000031,0000000002)", "(0000000031",
                             "(0000000031,9999999999)", "(0000000031,        +1)"}) {
    EXPECT_FALSE(isDefined(defs, std::string(header) + "(1<5N1>)")) << header;
  }
}

// What a reader asks of heaps.

class PortReadHeapTest : public PortReadTest {
 protected:
  // Calls of slots 10, 11 and 14, with the two heaps named.
  Lines heapCalls(VectorWatch &watch) {
    AddressNames names{{asNumber(heap), "callers"}};
    std::vector<SlotUse> uses;
    for (const SlotUse &use : watch.uses) {
      if (use.slot == 10) names[asNumber(use.object)] = "index";
      if (use.slot == 10 || use.slot == 11 || use.slot == 14) uses.push_back(use);
    }
    watch.uses = uses;
    return watch.takeLines(names);
  }
};

TEST_F(PortReadHeapTest, IndexTableLivesInAHeapOfItsOwn) {
  VectorWatch watch(mem);
  Defs defs;
  defs.add(1, 20, {Field(1, MEM_PORT_PSTR, 8, 0), Field(2, MEM_PORT_PNT, 8, 12).of(1)});
  ASSERT_EQ(readBlock(defs.table(), portString("(1<1X4\"four\">)(1<1X>)(1<1X\"\">)", 3)), 0);
  Lines calls = heapCalls(watch);
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls[0], "10(10, 0)");
  EXPECT_EQ(calls[1], "14(index, 24)");
  EXPECT_EQ(calls.back(), "11(index)");
  std::erase_if(calls, [](const std::string &line) { return line.find("index") != line.npos; });
  EXPECT_EQ(calls, (Lines{"10(10, 0)", "14(callers, 20)", "14(callers, 5)", "14(callers, 20)",
                          "14(callers, 20)", "14(callers, 1)"}));
}

// No text asks for more characters than the whole input has.
TEST_F(PortReadHeapTest, StringLengthIsBoundedByTheInput) {
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_PSTR, 8, 0)});
  // 23 characters of header and 15 of text.
  for (const char *digits : {"83", "93"}) {
    const std::string text = portString("(1<1X" + std::string(digits) + "\"abc\">)");
    ASSERT_EQ(text.size(), 37U);
    const std::string padded = text + " ";
    for (const bool inChunks : {false, true}) {
      VectorWatch watch(mem);
      const Chain chain = Chain::cut(padded, 9);
      EXPECT_EQ(inChunks ? readChain(defs.table(), chain.first()) : readBlock(defs.table(), padded),
                -1);
      EXPECT_EQ(messages(), (Lines{"Inconsistent pointer to string data!", kConversionFailed}));
      const Lines calls = heapCalls(watch);
      const auto asked = std::count(calls.begin(), calls.end(), "14(callers, 39)");
      EXPECT_EQ(asked, digits[0] == '8' ? 1 : 0) << digits;
      EXPECT_EQ(std::count(calls.begin(), calls.end(), "14(callers, 40)"), 0);
      host.restoreSlots();
    }
  }
}

TEST_F(PortReadHeapTest, IndexHeapIsClosedOnEveryPath) {
  for (const char *body :
       {"", "x", "(9", "(1<1N5/2S2", "(1<1N5/2S9>)", "(1<1Q", "(1<>)", "(1<1N5/2S2>)(1<1N/2S1>)"}) {
    SCOPED_TRACE(body);
    VectorWatch watch(mem);
    readBlock(list().table(), portString(body, 2));
    const Lines calls = heapCalls(watch);
    ASSERT_GE(calls.size(), 2U);
    EXPECT_EQ(calls.front(), "10(10, 0)");
    EXPECT_EQ(calls.back(), "11(index)");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "11(index)"), 1);
    host.restoreSlots();
  }
}

TEST_F(PortReadHeapTest, NothingIsOpenedForABadHeader) {
  VectorWatch watch(mem);
  EXPECT_EQ(readBlock(list().table(), portString("(1<1N5>)", 0)), -1);
  EXPECT_EQ(heapCalls(watch), Lines());
}

TEST_F(PortReadHeapTest, HeapThatCannotBeOpenedFailsTheCall) {
  VectorWatch watch(mem);
  watch.openResult = std::int16_t{-1};
  EXPECT_EQ(readBlock(list().table(), portString("(1<1N5>)")), -1);
  EXPECT_EQ(heapCalls(watch), Lines{"10(10, 0)"});
}

TEST_F(PortReadHeapTest, ForeignHandlesFailAsTheHeapFails) {
  MEMFunctionVector &vector = mem;
  const std::string text = portString("(1<1N5>)");
  Record notAHeap(64, 0x11);
  for (HMEMHEAP handle : {HMEMHEAP{}, reinterpret_cast<HMEMHEAP>(notAHeap.data())}) {
    void *out = this;
    host.takeRecords();
    EXPECT_EQ(vector.MEM_Port1StrToStruct(list().table(), text.data(),
                                          static_cast<std::uint32_t>(text.size()), handle, &out),
              -1);
    EXPECT_EQ(messages(), Lines{"Allocation Failure!"});
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(error().Code, static_cast<std::uint32_t>(MEMERR_HEAPBHDL)) << "the heap's own error";
    EXPECT_EQ(error().ReturnCode, kFailedCode);
  }
}

// Traces.

TEST_F(PortReadTest, RecordsUnderFlags) {
  const std::string text = portString("(1<1N5/2S>)");
  const Chain chain({text});
  const auto ownRecords = [&](std::uint32_t flags, const std::function<void()> &call) {
    host.setTraceFlags(flags);
    call();
    host.setTraceFlags(0);
    Lines lines;
    for (const std::string &line : pointLines(host.takeRecords())) {
      if (line.find("MEM_StructToPortStr(") != line.npos) lines.push_back(line);
    }
    return lines;
  };
  const std::function<void()> reads[] = {[&] { readChain(list().table(), chain.first()); },
                                         [&] { readBlock(list().table(), text); }};
  for (const auto &call : reads) {
    EXPECT_EQ(ownRecords(0, call), Lines());
    const Lines entry = ownRecords(MEM_TRACE_ENTRY, call);
    ASSERT_EQ(entry.size(), 1U);
    EXPECT_EQ(entry[0].rfind("STDE MEM_StructToPortStr(..\\SrcRes\\MEMCPORT) Parms: ", 0), 0U);
    EXPECT_EQ(ownRecords(MEM_TRACE_EXIT, call),
              Lines{"STDX MEM_StructToPortStr(..\\SrcRes\\MEMCPORT) Return=SUCCESS"});
  }
  EXPECT_EQ(ownRecords(MEM_TRACE_EXIT, [&] { readBlock(list().table(), "short"); }), Lines())
      << "a failing call writes no exit record";
}

TEST_F(PortReadTest, ErrorAreaIsClearedAndGetsNoCode) {
  std::memset(&error(), 0x5A, sizeof error());
  EXPECT_EQ(readBlock(list().table(), portString("(1<1N5>)")), 0);
  EXPECT_EQ(changedRanges(errorBytes(env()), Bytes(sizeof(MEMErrorArea))), "");
  std::memset(&error(), 0x5A, sizeof error());
  EXPECT_EQ(readBlock(list().table(), portString("(1<1Q")), -1);
  EXPECT_EQ(changedRanges(errorBytes(env()), Bytes(sizeof(MEMErrorArea))), "");
  EXPECT_EQ(host.calls(refhost::Service::ReportError), 0U);
}

}  // namespace
}  // namespace memtest
