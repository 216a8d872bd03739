// The records of a reader's errors: message, position in the current chunk, and what was read last
// and comes next, in one block and across chunk borders.

#include <ostream>
#include <string>

#include "porttest.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

constexpr std::size_t kExcerpt = 80;

// Where a reader is: `consumed` characters of the text are read.
struct Place {
  std::size_t consumed;
  bool pushedBack = false;  // after a push back the reader may be at the start of a chunk
};

// What a record says, worked out from the pieces of the input.
std::string recordText(const std::string &message, const std::vector<std::string> &pieces,
                       const Place &place) {
  std::size_t chunk = 0;
  std::size_t position = place.consumed;
  while (chunk + 1 < pieces.size() &&
         (place.pushedBack ? position >= pieces[chunk].size() : position > pieces[chunk].size())) {
    position -= pieces[chunk++].size();
  }
  std::string before = chunk > 0 ? pieces[chunk - 1] : "";
  before += pieces[chunk].substr(0, position);
  if (before.size() > kExcerpt) before = before.substr(before.size() - kExcerpt);
  std::string after = pieces[chunk].substr(position);
  if (chunk + 1 < pieces.size()) after += pieces[chunk + 1];
  return message + "\nPosition: " + std::to_string(position) + "\nRead:" + before +
         "\nNext:" + after.substr(0, kExcerpt);
}

std::vector<std::string> cutInto(const std::string &text, std::size_t length) {
  std::vector<std::string> pieces;
  for (std::size_t at = 0; at < text.size(); at += length)
    pieces.push_back(text.substr(at, length));
  return pieces;
}

struct MessageCase {
  const char *name;
  std::string body;
  std::string upTo;  // what of the body has been read when the messages are reported
  Lines messages;
  bool pushedBack = false;
};

void PrintTo(const MessageCase &row, std::ostream *out) {
  *out << row.name;
}

class PortMessageTest : public PortTest, public ::testing::WithParamInterface<MessageCase> {
 protected:
  static Defs defs() {
    Defs made;
    made.add(12, 256,
             {Field(1, MEM_PORT_CHAR, 100, 0).noTruncate(), Field(2, MEM_PORT_LONG, 4, 100),
              Field(3, MEM_PORT_PSTR, 8, 104), Field(4, MEM_PORT_BIN, 2, 112).noTruncate(),
              Field(5, MEM_PORT_PNT, 8, 114).of(12), Field(6, MEM_PORT_BIT, 1, 122),
              Field(7, MEM_PORT_SUBSTRUCTURE, 8, 123).of(30), Field(8, MEM_PORT_WPSTR, 8, 131),
              Field(9, MEM_PORT_WCHAR, 8, 139).noTruncate(), Field(20, MEM_PORT_CHARSZ, 4, 150)});
    made.add(30, 7, {Field(1, MEM_PORT_BIT, 1, 0)});
    made.add(40, 4, {Field(1, MEM_PORT_BIT, 1, 0), Field(2, MEM_PORT_BIT, 1, 1).required()});
    made.add(50, 4, {Field(1, MEM_PORT_BIT, 1, 0).typeCode(99)});
    return made;
  }

  void expectRecords(const std::vector<std::string> &pieces) {
    const MessageCase &row = GetParam();
    const Place place{23 + row.upTo.size(), row.pushedBack};
    Lines expected;
    for (const std::string &message : row.messages) {
      expected.push_back(recordText(message, pieces, place));
    }
    EXPECT_EQ(messageTexts(host.takeRecords()), expected);
  }
};

TEST_P(PortMessageTest, TellsWhereTheReaderStands) {
  const MessageCase &row = GetParam();
  ASSERT_EQ(row.body.compare(0, row.upTo.size(), row.upTo), 0);
  const std::string text = portString(row.body);
  EXPECT_EQ(readBlock(defs().table(), text), -1);
  expectRecords({text});
  for (std::size_t length = 1; length < text.size() + 2; ++length) {
    SCOPED_TRACE("chunks of " + std::to_string(length));
    EXPECT_EQ(readChain(defs().table(), Chain::cut(text, length).first()), -1);
    expectRecords(cutInto(text, length));
    if (HasFailure()) return;
  }
}

const std::string kLong(95, 'a');
constexpr char kFailedConversion[] = "Field conversion failed!";

const MessageCase kCases[] = {
    {"NoStructure", "x(21<", "x", {"Cannot find ( beginning a structure!"}},
    {"UnknownStructure", "(305<1", "(305", {"Unknown StructID: 503!"}, true},
    {"NoRepeatField", "(21,3<1", "(21,", {"StructureID 12 does not have a repeat field!"}},
    {"NoBody", "(21(1N", "(21(", {"Cannot find < at the beginning of StructID 12!"}},
    {"UnknownField",
     "(21<2N5/01N6>)",
     "(21<2N5/01",
     {"FieldID 10 cannot be found in StructID 12!"},
     true},
    {"NoField", "(21<>)", "(21<", {"FieldID 0 cannot be found in StructID 12!"}, true},
    {"UnknownType", "(05<1N5>)", "(05<1", {"Unsupported field type!"}, true},
    {"NoSubstructure", "(21<7(03<>)>)", "(21<7(", {"Substructure expected!"}},
    {"SizeMismatch",
     "(21<7E(03<1B00000000>)>)",
     "(21<7E(03<",
     {"Size mismatch between field length (8) and StructID 30 length (7)!", kFailedConversion}},
    {"NotClosed", "(21<2N5>>)", "(21<2N5>>", {"Closing ) expected at the end of a structure!"}},
    {"RequiredField",
     "(04<1B00000000>)rest",
     "(04<1B00000000>)",
     {"FieldID 2 is required in StructID 40!"}},
    {"EndInANumber", "(21<2N5", "(21<2N5", {"End of port string reached!", kFailedConversion}},
    {"EndInAFieldID", "(21<2", "(21<2", {"End of port string reached!"}},
    {"EndInAText",
     "(21<1\"" + kLong,
     "(21<1\"" + kLong,
     {"End of port string reached!", kFailedConversion}},
    {"NotANumber",
     "(21<1\"" + kLong + "\"/2X503>)",
     "(21<1\"" + kLong + "\"/2X",
     {"Not a numeric field!", kFailedConversion}},
    {"NoQuote",
     "(21<1abc\">)",
     "(21<1a",
     {"Missing  at the start of a string field", kFailedConversion}},
    {"TextTooLong",
     "(21<1\"" + kLong + "123456789\"/2N>)",
     "(21<1\"" + kLong + "123456",
     {"String too large for this field marked as NoTruncate", kFailedConversion}},
    {"TextTooLongByEscape",
     "(21<1\"" + kLong + "12345/0\"/2N>)",
     "(21<1\"" + kLong + "12345/0",
     {"String too large for this field marked as NoTruncate", kFailedConversion}},
    {"HexTooLong",
     "(21<4H0102030405>)",
     "(21<4H010203",
     {"Hex string too large for this field marked as NoTruncate", kFailedConversion}},
    {"NotHex", "(21<4B01>)", "(21<4B", {"Not a hex field!", kFailedConversion}},
    {"BadHexPair", "(21<4H01a2>)", "(21<4H01a2", {kFailedConversion}},
    {"NotAPointer", "(21<5H01>)", "(21<5H", {"Not a pointer field!", kFailedConversion}},
    {"PointerTooHigh", "(21<5S9>)", "(21<5S9", {kFailedConversion}, true},
    {"NotBits", "(21<6H01>)", "(21<6H", {"Not a bit field!", kFailedConversion}},
    {"BadBit", "(21<6B01x00000>)", "(21<6B01x", {kFailedConversion}},
    {"NotAString",
     "(21<3Q5\"12345\">)",
     "(21<3Q",
     {"Not a pointer to string field!", kFailedConversion}},
    {"StringWithoutQuote",
     "(21<3X5'12345'>)",
     "(21<3X5'",
     {"Missing quote at the start of a string field!", kFailedConversion}},
    {"StringTooShort",
     "(21<3X5\"1234\">)",
     "(21<3X5\"1234\"",
     {"Inconsistent pointer to string data!", kFailedConversion}},
    {"StringTooLong",
     "(21<3X5\"12345678\">)",
     "(21<3X5\"123456",
     {"Inconsistent pointer to string data!", kFailedConversion}},
    {"StringBeyondTheInput",
     "(21<3X999\"1\">)",
     "(21<3X999\"",
     {"Inconsistent pointer to string data!", kFailedConversion}},
    {"NotAWideString",
     "(21<8Q5;'1'>)",
     "(21<8Q",
     {"Not a pointer to string field!", kFailedConversion}},
    {"NoCodePointCount",
     "(21<8x5'12345'>)",
     "(21<8x5'",
     {"Missing code point count at the start of a string field!", kFailedConversion}},
    {"WideStringWithoutQuote",
     "(21<8x5;1\"12345\">)",
     "(21<8x5;1\"",
     {"Missing quote at the start of a string field!", kFailedConversion}},
    {"WideStringTooShort",
     "(21<8x3;'1/23Y'>)",
     "(21<8x3;'1/23Y'",
     {"Inconsistent pointer to string data!", kFailedConversion}},
    {"WideStringTooLong",
     "(21<8x1;'1/23Y3'>)",
     "(21<8x1;'1/23Y",
     {"Inconsistent pointer to string data!", kFailedConversion}},
    {"NoWideQuote",
     "(21<9\xE9'>)",
     "(21<9\xE9",
     {"Missing  at the start of a string field!", kFailedConversion}},
    {"WideTextTooLong",
     "(21<9'1/'/23Y45678'>)",
     "(21<9'1/'/23Y45",
     {"String too large for this field marked as NoTruncate", kFailedConversion}},
    {"NoQuoteForCharSZ",
     "(21<02N5>)",
     "(21<02N",
     {"Missing quote at the start of a string field!", kFailedConversion}},
};
INSTANTIATE_TEST_SUITE_P(Messages, PortMessageTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<MessageCase> &row) {
                           return row.param.name;
                         });

// "Read" reaches into the chunk before and no further, "Next" into the one after.
TEST_F(PortTest, ExcerptsReachOneChunkFurther) {
  Defs defs;
  defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
  const Chain chain({"(0000000034", ",0000000001)(", "1<1", "X", "503", ">)"});
  EXPECT_EQ(readChain(defs.table(), chain.first()), -1);
  EXPECT_EQ(messageTexts(host.takeRecords()).at(0),
            "Not a numeric field!\nPosition: 1\nRead:1<1X\nNext:503");
}

// Records all over a chain of chunks, with empty ones among them: each is that of its place.
TEST_F(PortTest, EveryRecordOfALongChainTellsItsPlace) {
  Defs defs;
  defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
  host.setTraceFlags(MEM_TRACE_SKIPPED);
  const std::uint64_t begin = firstSeed(6320000);
  for (std::uint64_t seed = begin; seed < begin + 200; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    Random random(seed);
    const std::size_t structures = random.between(1, 40);
    std::string body;
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < structures; ++i) {
      body += "(1<1N" + std::string(random.below(3), '7') + "/2";
      places.push_back(23 + body.size());
      body += "Nskipped\"" + std::string(random.oneIn(4) ? random.below(100) : 0, '>') + "\">)";
    }
    const std::string text = portString(body, static_cast<std::uint32_t>(structures));
    const std::size_t most = random.oneIn(3) ? 1 : random.between(1, 120);
    std::vector<std::string> pieces;
    Chain chain;
    for (std::size_t at = 0; at < text.size(); at += pieces.back().size()) {
      for (; random.oneIn(4); pieces.emplace_back()) chain.add("", random.oneIn(2) ? 0 : -5);
      pieces.push_back(text.substr(at, random.between(1, most)));
      chain.add(pieces.back());
    }
    EXPECT_EQ(readChain(defs.table(), chain.first()), 0);
    Lines expected;
    for (const std::size_t consumed : places) {
      expected.push_back(
          recordText("FieldID 2 cannot be found in StructID 1!", pieces, {consumed, true}));
    }
    ASSERT_EQ(messageTexts(host.takeRecords()), expected);
  }
}

TEST_F(PortTest, ExcerptsHave80Characters) {
  Defs defs;
  defs.add(1, 200, {Field(1, MEM_PORT_CHAR, 200, 0), Field(2, MEM_PORT_LONG, 4, 0)});
  for (const std::size_t length : {78U, 79U, 80U, 81U}) {
    const std::string before(length, 'b');
    const std::string after(length, 'c');
    EXPECT_EQ(readBlock(defs.table(), portString("(1<1\"" + before + "\"/2X" + after)), -1);
    const std::string consumed = "\"" + before + "\"/2X";
    EXPECT_EQ(messageTexts(host.takeRecords()).at(0),
              "Not a numeric field!\nPosition: " + std::to_string(23 + 9 + length) + "\nRead:" +
                  consumed.substr(consumed.size() - 80) + "\nNext:" + after.substr(0, 80));
  }
}

// A text never doubles as a format.
TEST_F(PortTest, PercentSignsAreOnlyCharacters) {
  Defs defs;
  defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
  EXPECT_EQ(readBlock(defs.table(), portString("(1<1%s%n%ld%S")), -1);
  EXPECT_EQ(messageTexts(host.takeRecords()).at(0),
            "Not a numeric field!\nPosition: 28\nRead:(0000000036,0000000001)(1<1%\n"
            "Next:s%n%ld%S");
}

// A host that cannot format says so by a negative length: the record is then without text.
std::int32_t refuseFormat(char *pDest, const char *, ...) {
  std::strcpy(pDest, "half of a tex");
  return -1;
}

TEST_F(PortTest, NegativeLengthIsARecordWithoutText) {
  Defs defs;
  defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
  host.trace().Format = refuseFormat;
  EXPECT_EQ(readBlock(defs.table(), portString("(1<1X")), -1);
  const std::vector<refhost::TraceRecord> records = host.takeRecords();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records[0].type, "EXCP");
  EXPECT_EQ(records[0].text, "");
  EXPECT_EQ(env().pTraceBuf->TextLen, 0U);
}

// Every place in the code that reports has a line of its own.
TEST_F(PortTest, MessagesOfOneRoutineHaveTheirOwnLines) {
  Defs defs;
  defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0).required()});
  std::map<std::int32_t, std::string> lines;
  for (const char *body : {"x", "(2<", "(1,", "(1x", "(1<2N>x", "(1<0N", "(1<1N5>x", "(1<2N>)"}) {
    readBlock(defs.table(), portString(body));
    for (const refhost::TraceRecord &record : host.takeRecords()) {
      EXPECT_EQ(record.function, "MEM_Port2Struct");
      const std::string message = messageHeads({record}).at(0);
      const auto known = lines.emplace(record.line, message).first;
      EXPECT_EQ(known->second.substr(0, 7), message.substr(0, 7)) << record.line;
    }
  }
  EXPECT_EQ(lines.size(), 7U);
}

}  // namespace
}  // namespace memtest
