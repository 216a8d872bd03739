// The value of a single field of every type, as text and back.

#include <algorithm>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "porttest.hpp"

namespace memtest {
namespace {

using namespace std::string_literals;

constexpr std::int32_t kOffset = 3;  // nothing is aligned

Bytes raw(const std::string &text) {
  return bytesOf(text.data(), text.size());
}
Bytes wide(const std::u16string &text) {
  return bytesOf(text.data(), 2 * text.size());
}
template <class T>
Bytes number(T value) {
  return bytesOf(&value, sizeof value);
}
Bytes operator+(Bytes one, const Bytes &other) {
  one.insert(one.end(), other.begin(), other.end());
  return one;
}
Bytes dirty(std::size_t length) {
  return Bytes(length, 0xA5);
}

template <class Row>
std::string caseName(const ::testing::TestParamInfo<Row> &row) {
  return row.param.name;
}

// What a structure holds and how it is written.

struct WriteCase {
  const char *name;
  MEMFieldType type;
  Bytes storage;
  std::string value;
};

void PrintTo(const WriteCase &row, std::ostream *out) {
  *out << row.name;
}

class WriteValueTest : public PortTest, public ::testing::WithParamInterface<WriteCase> {};

TEST_P(WriteValueTest, BecomesItsText) {
  const WriteCase &row = GetParam();
  const auto length = static_cast<std::int32_t>(row.storage.size());
  Defs defs;
  defs.add(1, kOffset + length, {Field(1, row.type, length, kOffset)});
  Record record(row.storage.size() + kOffset, 0xEE);
  record.setBytes(kOffset, row.storage.data(), row.storage.size());
  EXPECT_EQ(written(defs, 1, record.data()), portString("(1<1" + row.value + ">)"));
  EXPECT_EQ(written(defs, 1, record.data(), 23), portString("(1<1" + row.value + ">)"));
}

const WriteCase kWriteCases[] = {
    {"CharIsWrittenInFull", MEM_PORT_CHAR, raw("a\0      "s), "\"a/0      \""},
    {"CharEscapesQuoteSlashAndZero", MEM_PORT_CHAR, raw("\"/\0'"s), "\"/\"///0'\""},
    {"CharKeepsBytesOf128AndMore", MEM_PORT_CHAR, raw("\x80\xFF\x01"), "\"\x80\xFF\x01\""},
    {"CharOfNoLength", MEM_PORT_CHAR, {}, "\"\""},
    {"CharSZStopsAtTheZero", MEM_PORT_CHARSZ, raw("ab/c\0xyz"s), "\"ab//c\""},
    {"CharSZWithoutZeroIsWrittenInFull", MEM_PORT_CHARSZ, raw("abc\""), "\"abc/\"\""},
    {"CharSZOfNothing", MEM_PORT_CHARSZ, raw("\0a"s), "\"\""},
    {"BinIsUpperCaseHighNibbleFirst", MEM_PORT_BIN, raw("\x1F\xA0"), "H1FA0"},
    {"BinOfAllDigits", MEM_PORT_BIN, raw("\x01\x23\x45\x67\x89\xAB\xCD\xEF"), "H0123456789ABCDEF"},
    {"BinOfNoLength", MEM_PORT_BIN, {}, "H"},
    {"BinLongerThanAPiece", MEM_PORT_BIN, Bytes(300, 0x2F),
     "H" +
         [] {
           std::string text;
           for (int i = 0; i < 300; ++i) text += "2F";
           return text;
         }()},
    {"ShortOf0", MEM_PORT_SHORT, number(std::int16_t{0}), "N"},
    {"ShortNegative", MEM_PORT_SHORT, number(std::int16_t{-305}), "N-503"},
    {"ShortLargest", MEM_PORT_SHORT, number(std::int16_t{32767}), "N76723"},
    {"ShortSmallest", MEM_PORT_SHORT, number(std::int16_t{-32768}), "N-86723"},
    {"UShortLargest", MEM_PORT_USHORT, number(std::uint16_t{65535}), "N53556"},
    {"UShort40", MEM_PORT_USHORT, number(std::uint16_t{40}), "N04"},
    {"LongOfMinus1", MEM_PORT_LONG, number(std::int32_t{-1}), "N-1"},
    {"LongSmallest", MEM_PORT_LONG, number(INT32_MIN), "N-8463847412"},
    {"LongLargest", MEM_PORT_LONG, number(INT32_MAX), "N7463847412"},
    {"ULongLargest", MEM_PORT_ULONG, number(UINT32_MAX), "N5927694924"},
    {"UBigIntLargest", MEM_PORT_UBIGINT, number(UINT64_MAX), "N51615590737044764481"},
    {"BigIntSmallest", MEM_PORT_BIGINT, number(INT64_MIN), "N-8085774586302733229"},
    {"BigIntLargest", MEM_PORT_BIGINT, number(INT64_MAX), "N7085774586302733229"},
    {"BigIntOf0", MEM_PORT_BIGINT, number(std::int64_t{0}), "N"},
    {"BitsFromBit0", MEM_PORT_BIT, {0x05}, "B10100000"},
    {"BitsToBit7", MEM_PORT_BIT, {0x80}, "B00000001"},
    {"NullPStr", MEM_PORT_PSTR, number(std::uint64_t{0}), "X"},
    {"NullWPStr", MEM_PORT_WPSTR, number(std::uint64_t{0}), "x"},
    {"NullPnt", MEM_PORT_PNT, number(std::uint64_t{0}), "S"},
    {"WCharInFull", MEM_PORT_WCHAR, wide(u"a\0 "s), "'a/0 '"},
    {"WCharEscapes", MEM_PORT_WCHAR, wide(u"'/\"\x7F"), "'/'//\"\x7F'"},
    {"WCharOf128", MEM_PORT_WCHAR, wide(u"\x80"), "'/220'"},
    {"WCharOfE9", MEM_PORT_WCHAR, wide(u"\xE9"), "'/23Y'"},
    {"WCharOf4095", MEM_PORT_WCHAR, wide(u"\x0FFF"), "'/2oo'"},
    {"WCharOf4096", MEM_PORT_WCHAR, wide(u"\x1000"), "'/3100'"},
    {"WCharOfFFFF", MEM_PORT_WCHAR, wide(u"\xFFFF"), "'/3?oo'"},
    {"WCharSurrogatesOneByOne", MEM_PORT_WCHAR, wide(u"\xD83D\xDE00"), "'/3=Pm/3=h0'"},
    {"WCharOfOddLengthLeavesTheLastByte", MEM_PORT_WCHAR, wide(u"ab") + Bytes{0x41}, "'ab'"},
    {"WCharSZStopsAtTheZero", MEM_PORT_WCHARSZ, wide(u"ab\0c"s), "'ab'"},
    {"WCharSZWithoutZero", MEM_PORT_WCHARSZ, wide(u"abc"), "'abc'"},
};
INSTANTIATE_TEST_SUITE_P(Values, WriteValueTest, ::testing::ValuesIn(kWriteCases),
                         caseName<WriteCase>);

// Strings that pointers lead to.

class WriteStringTest : public PortTest {
 protected:
  template <class Unit>
  std::string valueOf(MEMFieldType type, const Unit *text) {
    Defs defs;
    defs.add(1, kOffset + 8, {Field(1, type, 8, kOffset)});
    Record record(kOffset + 8);
    record.set(kOffset, text);
    const std::string all = written(defs, 1, record.data(), 23);
    EXPECT_EQ(all, portString(all.substr(23)));
    EXPECT_EQ(written(defs, 1, record.data(), 1000), all);
    return all.substr(27, all.size() - 29);
  }
};

TEST_F(WriteStringTest, PStrHasItsLengthInFront) {
  EXPECT_EQ(valueOf(MEM_PORT_PSTR, ""), "X\"\"");
  EXPECT_EQ(valueOf(MEM_PORT_PSTR, "a"), "X1\"a\"");
  EXPECT_EQ(valueOf(MEM_PORT_PSTR, "ten chars/"), "X01\"ten chars//\"");
  EXPECT_EQ(valueOf(MEM_PORT_PSTR, "\"\x80"), "X2\"/\"\x80\"");
}

// Every length, every special character in every place; nothing after the text is read.
TEST_F(WriteStringTest, SpecialCharactersInEveryPlace) {
  for (std::size_t length = 0; length <= 35; ++length) {
    for (std::size_t place = 0; place <= length; ++place) {
      for (const char special : {'"', '/', '!', '.', '0', '\xA2', '\xAF', '\x80'}) {
        const std::unique_ptr<char[]> text(new char[length + 1]);
        std::memset(text.get(), 'x', length);
        text[length] = '\0';
        if (place < length) text[place] = special;
        std::string expected = text.get();
        if (place < length && (special == '"' || special == '/')) expected.insert(place, "/");
        std::string digits = length == 0 ? "" : std::to_string(length);
        std::reverse(digits.begin(), digits.end());
        ASSERT_EQ(valueOf(MEM_PORT_PSTR, text.get()), "X" + digits + "\"" + expected + "\"");
        if (place == length) break;
      }
    }
  }
}

TEST_F(WriteStringTest, CharFieldsWithZerosInEveryPlace) {
  for (std::size_t length = 1; length <= 35; ++length) {
    for (std::size_t place = 0; place < length; ++place) {
      Defs defs;
      const auto fieldLen = static_cast<std::int32_t>(length);
      defs.add(1, fieldLen, {Field(1, MEM_PORT_CHAR, fieldLen, 0)});
      Record record(length, 'x');
      record.set(place, std::uint8_t{0});
      std::string expected(length, 'x');
      expected.replace(place, 1, "/0");
      ASSERT_EQ(written(defs, 1, record.data()), portString("(1<1\"" + expected + "\">)"));
    }
  }
}

// Numbers of every length, around all that they are divided by.
TEST_F(WriteStringTest, NumbersOfEveryLength) {
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_UBIGINT, 8, 0)});
  std::vector<std::uint64_t> values;
  for (std::uint64_t value = 0; value < 1100; ++value) values.push_back(value);
  for (std::uint64_t power = 1000; power < UINT64_MAX / 10; power *= 10) {
    for (const std::uint64_t value : {power - 1, power, power + 1, 9 * power + 99, power / 7}) {
      values.push_back(value);
    }
  }
  values.push_back(10000000000000000000U);
  values.push_back(UINT64_MAX);
  for (const std::uint64_t value : values) {
    Record record(8);
    record.set(0, value);
    std::string digits = value == 0 ? "" : std::to_string(value);
    std::reverse(digits.begin(), digits.end());
    ASSERT_EQ(written(defs, 1, record.data(), 1000), portString("(1<1N" + digits + ">)"));
  }
}

TEST_F(WriteStringTest, WPStrHasCodePointsAndPairsInFront) {
  EXPECT_EQ(valueOf(MEM_PORT_WPSTR, u""), "x;''");
  EXPECT_EQ(valueOf(MEM_PORT_WPSTR, u"ten chars/"), "x01;'ten chars//'");
  EXPECT_EQ(valueOf(MEM_PORT_WPSTR, u"a\xD83D\xDE00"), "x2;1'a/3=Pm/3=h0'");
  EXPECT_EQ(valueOf(MEM_PORT_WPSTR, u"\xDBFF\xD800"), "x;2'/3=_o/3=P0'");
  EXPECT_EQ(valueOf(MEM_PORT_WPSTR, u"\xDC00\xDFFF"), "x2;'/3=`0/3=oo'");
}

TEST_F(WriteStringTest, WPStrAtAnOddAddress) {
  const std::u16string text = u"odd\xE9";
  Record bytes(2 * text.size() + 3);
  bytes.setBytes(1, text.c_str(), 2 * text.size() + 2);
  const auto *odd = reinterpret_cast<const std::uint8_t *>(bytes.data() + 1);
  EXPECT_EQ(valueOf(MEM_PORT_WPSTR, odd), "x4;'odd/23Y'");
}

// What a text says and what the field holds then. Storage is dirty, so what is not stored shows.

constexpr char kConversionFailed[] = "Field conversion failed!";
constexpr char kEnd[] = "End of port string reached!";
constexpr char kTooLarge[] = "String too large for this field marked as NoTruncate";
constexpr char kMissing[] = "Missing  at the start of a string field";
constexpr char kMissingWide[] = "Missing  at the start of a string field!";
constexpr char kMissingQuote[] = "Missing quote at the start of a string field!";
constexpr char kInconsistent[] = "Inconsistent pointer to string data!";

struct ReadCase {
  const char *name;
  MEMFieldType type;
  std::int32_t length;
  std::string value;
  Bytes storage;  // for types 3 and 16: what the field points to; empty for a null pointer
  bool noTruncate = false;
  std::optional<std::string> message = {};  // set: the value is refused; "" for no message
};

void PrintTo(const ReadCase &row, std::ostream *out) {
  *out << row.name;
}

ReadCase refused(const char *name, MEMFieldType type, std::int32_t length, std::string value,
                 Bytes storage, std::string message, bool noTruncate = false) {
  return {name, type, length, std::move(value), std::move(storage), noTruncate, std::move(message)};
}

class ReadValueTest : public PortTest, public ::testing::WithParamInterface<ReadCase> {
 protected:
  static bool isString() {
    return GetParam().type == MEM_PORT_PSTR || GetParam().type == MEM_PORT_WPSTR;
  }
  // Room around the field that must stay as it is.
  static constexpr std::int32_t kBehind = 16;

  void expectOutcome(std::int16_t result, const char *behind) {
    const ReadCase &row = GetParam();
    SCOPED_TRACE(behind);
    Lines expected;
    if (row.message) {
      if (!row.message->empty()) expected.push_back(*row.message);
      expected.push_back(kConversionFailed);
    }
    EXPECT_EQ(messages(), expected);
    ASSERT_EQ(result, row.message ? -1 : 0);
    ASSERT_NE(read, nullptr);
    EXPECT_TRUE(allDirty(0, kOffset));
    const auto fieldEnd = static_cast<std::size_t>(kOffset + row.length);
    EXPECT_TRUE(allDirty(fieldEnd + (row.message ? 0 : 1), kBehind - 1));
    if (isString()) {
      expectText(row);
    } else {
      EXPECT_EQ(Bytes(field(), field() + row.length), row.storage);
    }
  }

  void expectText(const ReadCase &row) {
    const auto *text = readAt<const std::uint8_t *>(kOffset);
    if (row.storage.empty()) {
      EXPECT_EQ(row.message ? nullptr : text, nullptr);
    } else {
      ASSERT_NE(text, nullptr);
      EXPECT_EQ(bytesOf(text, row.storage.size()), row.storage);
    }
  }

  const std::uint8_t *field() const { return static_cast<const std::uint8_t *>(read) + kOffset; }
  bool allDirty(std::size_t from, std::size_t length) const {
    return bytesOf(static_cast<const std::uint8_t *>(read) + from, length) == dirty(length);
  }
};

TEST_P(ReadValueTest, IsReadInEveryForm) {
  const ReadCase &row = GetParam();
  Defs defs;
  defs.add(1, kOffset + row.length + kBehind,
           {Field(1, row.type, row.length, kOffset).noTruncate(row.noTruncate ? 1 : 0).required(),
            Field(2, MEM_PORT_BIT, 1, kOffset + row.length)});
  const std::string text = portString("(1<1" + row.value + "/2B10000000>)");
  expectOutcome(readBlock(defs.table(), text), "one block");
  expectOutcome(readBlock(defs.table(), text + std::string(64, '5')), "one block and more text");
  for (std::size_t length = 1; length <= 9; ++length) {
    expectOutcome(readChain(defs.table(), Chain::cut(text, length).first()), "chunks");
  }
  if (row.message) return;
  EXPECT_EQ(readAt<std::uint8_t>(static_cast<std::size_t>(kOffset + row.length)), 1);
}

// The value is the last thing in its structure, and the text ends within it.
TEST_P(ReadValueTest, EndsTheStructureOrTheInput) {
  const ReadCase &row = GetParam();
  Defs defs;
  defs.add(1, kOffset + row.length,
           {Field(1, row.type, row.length, kOffset).noTruncate(row.noTruncate ? 1 : 0)});
  const std::string text = portString("(1<1" + row.value + ">)");
  EXPECT_EQ(readBlock(defs.table(), text), row.message ? -1 : 0);
  if (row.message) return;
  for (std::size_t length = 23; length < text.size(); ++length) {
    SCOPED_TRACE("cut at " + std::to_string(length));
    EXPECT_EQ(readBlock(defs.table(), text.substr(0, length)), -1);
    Lines expected{kEnd};
    const bool isInValue = length > 27 && length < 27 + row.value.size();
    // Values of digits, and those that "/" or ">" ends, end only where the next one is seen.
    const bool isOpen = length == 27 + row.value.size() && row.value.back() != '"' &&
                        row.value.back() != '\'' && row.type != MEM_PORT_BIT;
    if (isInValue || isOpen) expected.push_back(kConversionFailed);
    EXPECT_EQ(messages(), expected);
  }
}

const ReadCase kReadCases[] = {
    // Char
    {"CharInFull", MEM_PORT_CHAR, 8, "\"a/0      \"", raw("a\0      "s)},
    {"CharIsPaddedWithBlanks", MEM_PORT_CHAR, 5, "\"ab\"", raw("ab   ")},
    {"CharOfNothing", MEM_PORT_CHAR, 2, "\"\"", raw("  ")},
    {"CharIsCut", MEM_PORT_CHAR, 3, "\"abcdef\"", raw("abc")},
    {"CharCutIgnoresEscapes", MEM_PORT_CHAR, 1, "\"ab/\"/0//c\"", raw("a")},
    {"CharEscapes", MEM_PORT_CHAR, 5, "\"/\"///0/x'\"", raw("\"/\0x'"s)},
    {"CharOfAnyByte", MEM_PORT_CHAR, 4, "\"\x80\xFF<>\"", raw("\x80\xFF<>")},
    {"CharExactWithNoTruncate", MEM_PORT_CHAR, 3, "\"abc\"", raw("abc"), true},
    {"CharOfLength0", MEM_PORT_CHAR, 0, "\"abc\"", {}},
    refused("CharTooLong", MEM_PORT_CHAR, 3, "\"abcd\"", raw("abc"), kTooLarge, true),
    refused("CharTooLongByEscape", MEM_PORT_CHAR, 3, "\"abc/0\"", raw("abc"), kTooLarge, true),
    refused("CharWithoutQuote", MEM_PORT_CHAR, 2, "abc\"", dirty(2), kMissing),
    refused("CharInSingleQuotes", MEM_PORT_CHAR, 2, "'a'", dirty(2), kMissing),
    // CharSZ
    {"CharSZIsTerminatedNotPadded", MEM_PORT_CHARSZ, 5, "\"ab\"", raw("ab\0"s) + dirty(2)},
    {"CharSZIsCut", MEM_PORT_CHARSZ, 4, "\"abcdef\"", raw("abc\0"s)},
    {"CharSZExact", MEM_PORT_CHARSZ, 4, "\"abc\"", raw("abc\0"s), true},
    {"CharSZOfNothing", MEM_PORT_CHARSZ, 2, "\"\"", raw("\0"s) + dirty(1)},
    {"CharSZOfLength1", MEM_PORT_CHARSZ, 1, "\"abc\"", raw("\0"s)},
    {"CharSZOfLength0", MEM_PORT_CHARSZ, 0, "\"abc\"", {}},
    {"CharSZEscapes", MEM_PORT_CHARSZ, 5, "\"/\"///0a\"", raw("\"/\0a\0"s)},
    refused("CharSZTooLong", MEM_PORT_CHARSZ, 4, "\"abcdef\"", raw("abc") + dirty(1), kTooLarge,
            true),
    refused("CharSZTooLongByOne", MEM_PORT_CHARSZ, 4, "\"abcd\"", raw("abc") + dirty(1), kTooLarge,
            true),
    refused("CharSZWithoutQuote", MEM_PORT_CHARSZ, 4, "'a'", dirty(4), kMissingQuote),
    // PStr
    {"PStr", MEM_PORT_PSTR, 8, "X4\"ab//\x80\"", raw("ab/\x80\0"s)},
    {"PStrOfTenChars", MEM_PORT_PSTR, 8, "X01\"0123456789\"", raw("0123456789\0"s)},
    {"PStrNull", MEM_PORT_PSTR, 8, "X", {}},
    {"PStrOfNothing", MEM_PORT_PSTR, 8, "X\"\"", raw("\0"s)},
    {"PStrWithZeroInside", MEM_PORT_PSTR, 8, "X3\"a/0b\"", raw("a\0b\0"s)},
    refused("PStrTooShort", MEM_PORT_PSTR, 8, "X3\"ab\"", raw("ab"), kInconsistent),
    refused("PStrTooLong", MEM_PORT_PSTR, 8, "X1\"ab\"", raw("a"), kInconsistent),
    refused("PStrTooLongByEscape", MEM_PORT_PSTR, 8, "X1\"a//\"", raw("a"), kInconsistent),
    refused("PStrWithoutLength", MEM_PORT_PSTR, 8, "X\"a\"", {}, kInconsistent),
    refused("PStrLongerThanTheInput", MEM_PORT_PSTR, 8, "X999\"a\"", {}, kInconsistent),
    refused("PStrOf4GB", MEM_PORT_PSTR, 8, "X5927694924\"a\"", {}, kInconsistent),
    refused("PStrWithoutQuote", MEM_PORT_PSTR, 8, "X1'a'", {}, kMissingQuote),
    refused("PStrOfAnotherLetter", MEM_PORT_PSTR, 8, "x1\"a\"", {},
            "Not a pointer to string field!"),
    // Bin
    {"Bin", MEM_PORT_BIN, 2, "H1FA0", raw("\x1F\xA0")},
    {"BinShortLeavesTheRest", MEM_PORT_BIN, 4, "H1FA0", raw("\x1F\xA0") + dirty(2)},
    {"BinOfNothing", MEM_PORT_BIN, 2, "H", dirty(2)},
    {"BinIsCut", MEM_PORT_BIN, 1, "H1FA0", raw("\x1F")},
    {"BinExact", MEM_PORT_BIN, 2, "H1FA0", raw("\x1F\xA0"), true},
    refused("BinTooLong", MEM_PORT_BIN, 1, "H1FA0", raw("\x1F"),
            "Hex string too large for this field marked as NoTruncate", true),
    refused("BinLowerCase", MEM_PORT_BIN, 2, "H1fA0", dirty(2), ""),
    refused("BinLowerCaseFirst", MEM_PORT_BIN, 2, "Hf1A0", dirty(2), ""),
    refused("BinBadBeyondTheField", MEM_PORT_BIN, 1, "H00G0", raw("\0"s), ""),
    refused("BinOfThreeDigits", MEM_PORT_BIN, 2, "H1FA", raw("\x1F") + dirty(1), ""),
    refused("BinOfAnotherLetter", MEM_PORT_BIN, 2, "h1FA0", dirty(2), "Not a hex field!"),
    // Numbers
    {"Short", MEM_PORT_SHORT, 2, "N-503", number(std::int16_t{-305})},
    {"ShortOf0", MEM_PORT_SHORT, 2, "N", number(std::int16_t{0})},
    {"ShortOfMinusNothing", MEM_PORT_SHORT, 2, "N-", number(std::int16_t{0})},
    {"ShortSmallest", MEM_PORT_SHORT, 2, "N-86723", number(std::int16_t{-32768})},
    {"ShortWraps", MEM_PORT_SHORT, 2, "N63556", number(std::int16_t{0})},
    {"ShortWithZeros", MEM_PORT_SHORT, 2, "N1000000000000", number(std::int16_t{1})},
    {"UShort", MEM_PORT_USHORT, 2, "N53556", number(std::uint16_t{65535})},
    {"UShortWraps", MEM_PORT_USHORT, 2, "N63556", number(std::uint16_t{0})},
    {"Long", MEM_PORT_LONG, 4, "N-8463847412", number(INT32_MIN)},
    {"LongWraps", MEM_PORT_LONG, 4, "N7927694924", number(std::int32_t{1})},
    {"ULong", MEM_PORT_ULONG, 4, "N5927694924", number(UINT32_MAX)},
    {"BigInt", MEM_PORT_BIGINT, 8, "N-8085774586302733229", number(INT64_MIN)},
    {"BigIntPositive", MEM_PORT_BIGINT, 8, "N04", number(std::int64_t{40})},
    {"UBigInt", MEM_PORT_UBIGINT, 8, "N51615590737044764481", number(UINT64_MAX)},
    {"UBigIntWraps", MEM_PORT_UBIGINT, 8, "N71615590737044764481", number(std::uint64_t{1})},
    refused("NumberOfAnotherLetter", MEM_PORT_LONG, 4, "n1", dirty(4), "Not a numeric field!"),
    refused("BigIntOfAnotherLetter", MEM_PORT_BIGINT, 8, "B1", dirty(8), "Not a numeric field!"),
    // Bit
    {"BitsFromBit0", MEM_PORT_BIT, 1, "B10100000", {0x05}},
    {"BitsAllSet", MEM_PORT_BIT, 1, "B11111111", {0xFF}},
    {"BitsAllClear", MEM_PORT_BIT, 1, "B00000000", {0x00}},
    refused("BitsOfAnotherDigit", MEM_PORT_BIT, 1, "B01012000", {0xAA}, ""),
    refused("BitsTooFew", MEM_PORT_BIT, 1, "B0101", {0xAA}, ""),
    refused("BitsOfAnotherLetter", MEM_PORT_BIT, 1, "H00", {0xA5}, "Not a bit field!"),
    // WChar
    {"WChar", MEM_PORT_WCHAR, 8, "'a/0/23Y/3?oo'", wide(u"a\0\xE9\xFFFF"s)},
    {"WCharIsPaddedWithBlanks", MEM_PORT_WCHAR, 6, "'a'", wide(u"a  ")},
    {"WCharIsCut", MEM_PORT_WCHAR, 4, "'ab/23Yc'", wide(u"ab")},
    {"WCharEscapes", MEM_PORT_WCHAR, 8, "'/'///x\"'", wide(u"'/x\"")},
    {"WCharOfOddLength", MEM_PORT_WCHAR, 5, "'abc'", wide(u"ab") + dirty(1)},
    {"WCharGroupsKeptTo16Bits", MEM_PORT_WCHAR, 2, "'/41001'", wide(u"\x0001")},
    {"WCharGroupsOfAnyCharacter", MEM_PORT_WCHAR, 2, "'/1~'", wide(u"N")},
    {"WCharNineGroups", MEM_PORT_WCHAR, 2, "'/9000000001'", wide(u"\x0001")},
    {"WCharSurrogatesAsTheyCome", MEM_PORT_WCHAR, 4, "'/3=h0/3=Pm'", wide(u"\xDE00\xD83D")},
    {"WCharBytesOf128AndMore", MEM_PORT_WCHAR, 4, "'\x80\xFF'", wide(u"\x80\xFF")},
    {"WCharFromNarrow", MEM_PORT_WCHAR, 8, "\"a\x80/0\"", wide(u"a\x80\0 "s)},
    {"WCharFromNarrowIsCut", MEM_PORT_WCHAR, 4, "\"abc\"", wide(u"ab")},
    {"WCharFromNarrowEscapes", MEM_PORT_WCHAR, 6, "\"/\"//'\"", wide(u"\"/'")},
    refused("WCharTooLong", MEM_PORT_WCHAR, 4, "'abc'", wide(u"ab"), kTooLarge, true),
    refused("WCharTooLongByEscape", MEM_PORT_WCHAR, 4, "'ab/23Y'", wide(u"ab"), kTooLarge, true),
    refused("WCharFromNarrowTooLong", MEM_PORT_WCHAR, 4, "\"abc\"", wide(u"ab"), kTooLarge, true),
    refused("WCharWithoutQuote", MEM_PORT_WCHAR, 4, "abc'", dirty(4), kMissingWide),
    // WCharSZ
    {"WCharSZIsTerminatedNotPadded", MEM_PORT_WCHARSZ, 8, "'a'", wide(u"a\0"s) + dirty(4)},
    {"WCharSZIsCut", MEM_PORT_WCHARSZ, 6, "'abcd'", wide(u"ab\0"s)},
    {"WCharSZOfOddLength", MEM_PORT_WCHARSZ, 5, "'abc'", wide(u"a\0"s) + dirty(1)},
    {"WCharSZOfLength2", MEM_PORT_WCHARSZ, 2, "'abc'", wide(u"\0"s)},
    {"WCharSZOfLength1", MEM_PORT_WCHARSZ, 1, "'abc'", dirty(1)},
    {"WCharSZFromNarrow", MEM_PORT_WCHARSZ, 8, "\"a\xFF\"", wide(u"a\xFF\0"s) + dirty(2)},
    refused("WCharSZTooLong", MEM_PORT_WCHARSZ, 6, "'abc'", wide(u"ab") + dirty(2), kTooLarge,
            true),
    refused("WCharSZFromNarrowTooLong", MEM_PORT_WCHARSZ, 6, "\"abc\"", wide(u"ab") + dirty(2),
            kTooLarge, true),
    refused("WCharSZWithoutQuote", MEM_PORT_WCHARSZ, 4, "X", dirty(4), kMissingWide),
    // WPStr
    {"WPStr", MEM_PORT_WPSTR, 8, "x3;1'a/3=Pm/3=h0/23Y'", wide(u"a\xD83D\xDE00\xE9\0"s)},
    {"WPStrNull", MEM_PORT_WPSTR, 8, "x", {}},
    {"WPStrOfNothing", MEM_PORT_WPSTR, 8, "x;''", wide(u"\0"s)},
    {"WPStrCountsAreOnlyAdded", MEM_PORT_WPSTR, 8, "x1;2'abc'", wide(u"abc\0"s)},
    {"WPStrFromNarrow", MEM_PORT_WPSTR, 8, "X3\"a\x80/0\"", wide(u"a\x80\0\0"s)},
    {"WPStrFromNarrowNull", MEM_PORT_WPSTR, 8, "X", {}},
    {"WPStrFromNarrowOfNothing", MEM_PORT_WPSTR, 8, "X\"\"", wide(u"\0"s)},
    refused("WPStrTooShort", MEM_PORT_WPSTR, 8, "x3;'ab'", wide(u"ab"), kInconsistent),
    refused("WPStrTooLong", MEM_PORT_WPSTR, 8, "x1;'ab'", wide(u"a"), kInconsistent),
    refused("WPStrTooLongByEscape", MEM_PORT_WPSTR, 8, "x1;'a/23Y'", wide(u"a"), kInconsistent),
    refused("WPStrLongerThanTheInput", MEM_PORT_WPSTR, 8, "x1;999'a'", {}, kInconsistent),
    refused("WPStrSumOver32Bits", MEM_PORT_WPSTR, 8, "x5927694924;5927694924'a'", {},
            kInconsistent),
    refused("WPStrWithoutSemicolon", MEM_PORT_WPSTR, 8, "x1'a'", {},
            "Missing code point count at the start of a string field!"),
    refused("WPStrWithoutQuote", MEM_PORT_WPSTR, 8, "x1;\"a\"", {}, kMissingQuote),
    refused("WPStrFromNarrowWithoutQuote", MEM_PORT_WPSTR, 8, "X1'a'", {}, kMissingQuote),
    refused("WPStrFromNarrowTooShort", MEM_PORT_WPSTR, 8, "X2\"a\"", wide(u"a"), kInconsistent),
    refused("WPStrFromNarrowTooLong", MEM_PORT_WPSTR, 8, "X1\"ab\"", wide(u"a"), kInconsistent),
    refused("WPStrOfAnotherLetter", MEM_PORT_WPSTR, 8, "S1", {}, "Not a pointer to string field!"),
    refused("PntOfAnotherLetter", MEM_PORT_PNT, 8, "N1", dirty(8), "Not a pointer field!"),
    refused("PntAboveTheStructures", MEM_PORT_PNT, 8, "S2", dirty(8), ""),
    refused("PntFarAboveTheStructures", MEM_PORT_PNT, 8, "S5927694924", dirty(8), ""),
    {"PntNull", MEM_PORT_PNT, 8, "S", Bytes(8, 0)},
    {"PntOfZeros", MEM_PORT_PNT, 8, "S000", Bytes(8, 0)},
};
INSTANTIATE_TEST_SUITE_P(Values, ReadValueTest, ::testing::ValuesIn(kReadCases),
                         caseName<ReadCase>);

// The types take no sign but where they are signed.
TEST_F(PortTest, UnsignedNumbersTakeNoSign) {
  for (const MEMFieldType type : {MEM_PORT_USHORT, MEM_PORT_ULONG, MEM_PORT_UBIGINT}) {
    Defs defs;
    defs.add(1, 16, {Field(1, type, 8, 0)});
    // The "-" separates, and what follows is the next field.
    EXPECT_EQ(readBlock(defs.table(), portString("(1<1N-1N5>)")), 0);
    EXPECT_EQ(readAt<std::uint16_t>(0), 0U);
    EXPECT_EQ(readAt<std::uint16_t>(8), 5U) << "the last field's second occurrence";
  }
}

// Storage for strings is asked of slot 14 of the caller's heap.
TEST_F(PortTest, StringAllocationThatFailsIsReported) {
  struct Row {
    MEMFieldType type;
    std::string value;
    std::int32_t length;
  };
  static std::int32_t asked;
  static MEM_HeapAllocEntryLongFn *own;
  own = mem.MEM_HeapAllocEntryLong;
  static HMEMHEAP callers;
  callers = heap;
  for (const Row &row : {Row{MEM_PORT_PSTR, "X3\"abc\"", 4}, Row{MEM_PORT_WPSTR, "x2;1'abc'", 8},
                         Row{MEM_PORT_WPSTR, "X3\"abc\"", 8}}) {
    Defs defs;
    defs.add(1, 8, {Field(1, row.type, 8, 0)});
    mem.MEM_HeapAllocEntryLong = [](HMEMHEAP handle, std::int32_t length, void **entry) {
      // The structure of 8 bytes is the first one asked for.
      static int count = 0;
      if (handle != callers) return own(handle, length, entry);
      asked = length;
      return ++count % 2 == 1 ? own(handle, length, entry) : std::int16_t{-1};
    };
    EXPECT_EQ(readBlock(defs.table(), portString("(1<1" + row.value + ">)")), -1);
    mem.MEM_HeapAllocEntryLong = own;
    EXPECT_EQ(asked, row.length);
    EXPECT_EQ(messages(), (Lines{"Pointer to string field allocation failed!", kConversionFailed}));
  }
}

}  // namespace
}  // namespace memtest
