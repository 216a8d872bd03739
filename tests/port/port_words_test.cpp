// Text that the readers look at by eight or sixteen characters: digits and strings of every length,
// with everything that may get in the way at every place. Each is read where much text follows,
// and in chunks too short for a word; both must agree with what the text says.

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "porttest.hpp"

namespace memtest {
namespace {

constexpr char kConversionFailed[] = "Field conversion failed!";
constexpr char kEnd[] = "End of port string reached!";
constexpr char kInconsistent[] = "Inconsistent pointer to string data!";

class PortWordsTest : public PortTest {
 protected:
  // What follows a structure's text is not read, but may be looked at.
  static inline const std::string kBehind = std::string(64, '5');
  static constexpr std::size_t kShortChunk = 7;

  // Reads "(1<1VALUE/2N7>)". The second field shows whether the value was left at its end.
  void forBothForms(const Defs &defs, const std::string &value,
                    const std::function<void(std::int16_t)> &check) {
    const std::string text = portString("(1<1" + value + "/2N7>)") + kBehind;
    SCOPED_TRACE(value);
    {
      SCOPED_TRACE("by words");
      check(readBlock(defs.table(), text));
    }
    {
      SCOPED_TRACE("by characters");
      check(readChain(defs.table(), Chain::cut(text, kShortChunk).first()));
    }
  }

  void expectRefused(const Defs &defs, const std::string &value, const char *message) {
    forBothForms(defs, value, [&](std::int16_t result) {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(messages(), (Lines{message, kConversionFailed}));
    });
  }

  static Defs valueAndShort(MEMFieldType type) {
    Defs defs;
    defs.add(1, 10, {Field(1, type, 8, 0), Field(2, MEM_PORT_SHORT, 2, 8)});
    return defs;
  }
};

// Numbers.

// Value of reversed digits, wrapped in 64 bits.
std::uint64_t valueOf(const std::string &digits) {
  std::uint64_t value = 0;
  for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit) {
    value = value * 10 + static_cast<std::uint64_t>(*digit - '0');
  }
  return value;
}

class PortDigitsTest : public PortWordsTest, public ::testing::WithParamInterface<MEMFieldType> {
 protected:
  static std::size_t width() {
    switch (GetParam()) {
      case MEM_PORT_SHORT:
      case MEM_PORT_USHORT:
        return 2;
      case MEM_PORT_LONG:
      case MEM_PORT_ULONG:
        return 4;
      default:
        return 8;
    }
  }
  static bool isSigned() {
    return GetParam() == MEM_PORT_SHORT || GetParam() == MEM_PORT_LONG ||
           GetParam() == MEM_PORT_BIGINT;
  }

  void expectNumber(const std::string &digits, bool isNegative) {
    const Defs defs = valueAndShort(GetParam());
    const std::uint64_t value = isNegative ? 0 - valueOf(digits) : valueOf(digits);
    forBothForms(defs, (isNegative ? "N-" : "N") + digits, [&](std::int16_t result) {
      ASSERT_EQ(result, 0);
      EXPECT_EQ(bytesOf(read, width()), bytesOf(&value, width()));
      for (std::size_t i = width(); i < 8; ++i) EXPECT_EQ(readAt<std::uint8_t>(i), kDirty);
      EXPECT_EQ(readAt<std::int16_t>(8), 7);
    });
  }
};

TEST_P(PortDigitsTest, OfEveryCount) {
  for (const std::string pattern :
       {"1234567890123456789012345", "9999999999999999999999999", "0000000000000000000000001"}) {
    for (std::size_t count = 0; count <= pattern.size(); ++count) {
      expectNumber(pattern.substr(0, count), false);
      if (isSigned()) expectNumber(pattern.substr(0, count), true);
    }
  }
}
INSTANTIATE_TEST_SUITE_P(Types, PortDigitsTest,
                         ::testing::Values(MEM_PORT_SHORT, MEM_PORT_USHORT, MEM_PORT_LONG,
                                           MEM_PORT_ULONG, MEM_PORT_BIGINT, MEM_PORT_UBIGINT));

// Any character but a digit ends a number, the neighbours of the digits, too. It separates fields.
TEST_F(PortWordsTest, AnyOtherCharacterEndsANumber) {
  Defs defs = valueAndShort(MEM_PORT_ULONG);
  for (int c = 0; c < 256; ++c) {
    if ((c >= '0' && c <= '9') || c == '>') continue;
    for (const std::string digits : {"", "1", "1234567"}) {
      const std::string text =
          portString("(1<1N" + digits + std::string(1, static_cast<char>(c)) + "2N7>)") + kBehind;
      SCOPED_TRACE(text);
      ASSERT_EQ(readBlock(defs.table(), text), 0);
      EXPECT_EQ(readAt<std::uint32_t>(0), valueOf(digits));
      EXPECT_EQ(readAt<std::int16_t>(8), 7);
    }
  }
}

TEST_F(PortWordsTest, NumberAtTheEndOfItsChunkGoesOnInTheNext) {
  const Defs defs = valueAndShort(MEM_PORT_UBIGINT);
  const std::string digits = "12345678901234567890";
  for (std::size_t count = 1; count < digits.size(); ++count) {
    SCOPED_TRACE(count);
    const std::string head = portString("(1<1N" + digits.substr(0, count));
    ASSERT_EQ(readChain(defs.table(), Chain({head, digits.substr(count) + "/2N7>)"}).first()), 0);
    EXPECT_EQ(readAt<std::uint64_t>(0), valueOf(digits));
    EXPECT_EQ(readBlock(defs.table(), head), -1);
    EXPECT_EQ(messages(), (Lines{kEnd, kConversionFailed}));
  }
}

TEST_F(PortWordsTest, StructureNumbersOfEveryCount) {
  Defs defs;
  defs.add(1, 10, {Field(1, MEM_PORT_PNT, 8, 0).of(1), Field(2, MEM_PORT_SHORT, 2, 8)});
  for (const std::size_t zeros : {0U, 1U, 6U, 7U, 8U, 20U}) {
    forBothForms(defs, "S1" + std::string(zeros, '0'), [&](std::int16_t result) {
      ASSERT_EQ(result, 0);
      EXPECT_EQ(readAt<const void *>(0), read);
      EXPECT_EQ(readAt<std::int16_t>(8), 7);
    });
  }
  for (const char *number : {"S2", "S0000001", "S00000001", "S000000001", "S9999999999"}) {
    forBothForms(defs, number, [&](std::int16_t result) {
      EXPECT_EQ(result, -1);
      EXPECT_EQ(messages(), Lines{kConversionFailed});
    });
  }
}

// Identifiers.

TEST_F(PortWordsTest, IdentifiersOfEveryCount) {
  const std::vector<std::pair<std::uint32_t, std::string>> kIds = {
      {1, "1"}, {9, "9"}, {10, "01"}, {21, "12"}, {100, "001"}, {4294967295U, "5927694924"}};
  for (const auto &[id, text] : kIds) {
    Defs defs;
    defs.add(1, 4, {Field(id, MEM_PORT_LONG, 4, 0)});
    for (const char *zeros : {"", "0", "000"}) {
      const std::string all = portString("(1<" + text + zeros + "N5>)") + kBehind;
      SCOPED_TRACE(all);
      ASSERT_EQ(readBlock(defs.table(), all), 0);
      EXPECT_EQ(readAt<std::int32_t>(0), 5);
    }
  }
}

TEST_F(PortWordsTest, IdentifierThatBeginsLikeAnotherIsNotIt) {
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_LONG, 4, 0), Field(21, MEM_PORT_LONG, 4, 4)});
  ASSERT_EQ(readBlock(defs.table(), portString("(1<12N5>)") + kBehind), 0);
  EXPECT_EQ(readAt<std::int32_t>(4), 5);
  ASSERT_EQ(readBlock(defs.table(), portString("(1<1N3/12N5>)") + kBehind), 0);
  EXPECT_EQ(readAt<std::int32_t>(0), 3);
  EXPECT_EQ(readAt<std::int32_t>(4), 5);
}

// Only where identifiers ascend is the next field surely the first one with its identifier.
TEST_F(PortWordsTest, FirstFieldOfAnIdentifierCounts) {
  Defs defs;
  defs.add(1, 8,
           {Field(1, MEM_PORT_LONG, 4, 0), Field(1, MEM_PORT_LONG, 4, 4).required().notPorted()});
  ASSERT_EQ(readBlock(defs.table(), portString("(1<1N5/1N6>)") + kBehind), 0);
  EXPECT_EQ(readAt<std::int32_t>(0), 6);
  EXPECT_EQ(readAt<std::uint8_t>(4), kDirty);
}

// A value must begin as its type's values do, whatever the characters are.
TEST_F(PortWordsTest, ValuesBeginWithTheirLetter) {
  for (const MEMFieldType type : {MEM_PORT_CHAR, MEM_PORT_LONG, MEM_PORT_PNT, MEM_PORT_PSTR}) {
    const Defs defs = valueAndShort(type);
    for (const char *value : {"\xFF", "\x01", "E", "Z1", "\x80"}) {
      forBothForms(defs, value, [&](std::int16_t result) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(messages().size(), 2U);
      });
    }
  }
}

TEST_F(PortWordsTest, OnlyFieldMayRepeat) {
  constexpr std::size_t kElements = 30;
  Defs defs;
  defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0)}, 0);
  std::string body = "(1,03<1N1";
  for (std::size_t i = 1; i < kElements; ++i) body += "/1N5";
  ASSERT_EQ(readBlock(defs.table(), portString(body + ">)") + kBehind), 0);
  EXPECT_EQ(readAt<std::int32_t>(0), 1);
  for (std::size_t i = 1; i < kElements; ++i) EXPECT_EQ(readAt<std::int32_t>(4 * i), 5);
  EXPECT_EQ(readBlock(defs.table(), portString(body + "/1N5>)") + kBehind), -1);
  EXPECT_EQ(messages(), Lines{kConversionFailed});
}

TEST_F(PortWordsTest, FieldsAroundARepeatedOne) {
  Defs defs;
  defs.add(1, 12,
           {Field(1, MEM_PORT_LONG, 4, 0).required(), Field(2, MEM_PORT_LONG, 4, 4).required(),
            Field(3, MEM_PORT_SHORT, 2, 8)});
  ASSERT_EQ(readBlock(defs.table(), portString("(1<3N1/3N2/1N5/2N6>)") + kBehind), 0);
  EXPECT_EQ(readAt<std::int32_t>(0), 5);
  EXPECT_EQ(readAt<std::int32_t>(4), 6);
  EXPECT_EQ(readAt<std::int16_t>(8), 1);
  EXPECT_EQ(readAt<std::int16_t>(10), 2);
  EXPECT_EQ(readBlock(defs.table(), portString("(1<3N1/3N2/2N6>)") + kBehind), -1);
  EXPECT_EQ(messages(), Lines{"FieldID 1 is required in StructID 1!"});
}

// Strings.

class PortTextTest : public PortWordsTest {
 protected:
  static constexpr std::size_t kMost = 52;

  // No quote and no slash, but characters close enough in bits to be mistaken for them.
  static std::string plain(std::size_t length) {
    static const std::string kLikely = "!#.0\xA2\xAF\x02\x0F b\x7F\x80\xFF\x01z'";
    std::string text;
    while (text.size() < length) text += kLikely[(text.size() * 7 + length) % kLikely.size()];
    return text;
  }
  static std::string value(std::size_t length, const std::string &text) {
    std::string digits = length == 0 ? "" : std::to_string(length);
    return "X" + std::string(digits.rbegin(), digits.rend()) + "\"" + text + "\"";
  }

  void expectText(const std::string &value, const std::string &expected) {
    forBothForms(defs_, value, [&](std::int16_t result) {
      ASSERT_EQ(result, 0);
      const char *text = readAt<const char *>(0);
      EXPECT_EQ(std::string(text, expected.size() + 1), expected + '\0');
      EXPECT_EQ(readAt<std::int16_t>(8), 7);
    });
  }

  const Defs defs_ = valueAndShort(MEM_PORT_PSTR);
};

TEST_F(PortTextTest, OfEveryLength) {
  for (std::size_t length = 0; length <= kMost; ++length) {
    expectText(value(length, plain(length)), plain(length));
  }
}

TEST_F(PortTextTest, EscapesAtEveryPlace) {
  for (std::size_t length = 1; length <= kMost; ++length) {
    for (std::size_t at = 0; at < length; ++at) {
      const std::string text = plain(length);
      const std::string before = text.substr(0, at);
      const std::string after = text.substr(at + 1);
      expectText(value(length, before + "/\"" + after), before + "\"" + after);
      expectText(value(length, before + "//" + after), before + "/" + after);
      expectText(value(length, before + "/0" + after), before + '\0' + after);
    }
  }
}

TEST_F(PortTextTest, OfAnotherLengthThanItsOwn) {
  for (std::size_t length = 0; length <= kMost; ++length) {
    for (std::size_t other = 0; other <= kMost; other += length % 5 + 1) {
      if (other != length) expectRefused(defs_, value(length, plain(other)), kInconsistent);
    }
    expectRefused(defs_, value(length, plain(length) + "/"), kInconsistent);
    expectRefused(defs_, value(length, plain(length) + "//"), kInconsistent);
  }
}

// What a failure leaves in the string: all before the closing quote, and nothing after it.
TEST_F(PortTextTest, TooShortTextIsStoredAsFarAsItGoes) {
  for (std::size_t length = 1; length <= kMost; ++length) {
    for (std::size_t other = 0; other < length; ++other) {
      forBothForms(defs_, value(length, plain(other)), [&](std::int16_t) {
        const char *text = readAt<const char *>(0);
        EXPECT_EQ(std::string(text, length + 1),
                  plain(other) + std::string(length + 1 - other, '\xA5'));
      });
      renewHeap();
    }
  }
}

// The closing quote, the separator and the next field are in chunks of their own.
TEST_F(PortTextTest, AtTheEndOfItsChunk) {
  for (const std::size_t length : {1U, 7U, 8U, 20U, 40U}) {
    const std::string head = portString("(1<1" + value(length, plain(length)));
    const std::string tail = "/2N7>)";
    for (std::size_t cut = head.size() - length - 2; cut <= head.size() + 1; ++cut) {
      const std::string all = head + tail;
      SCOPED_TRACE(all.substr(0, cut));
      ASSERT_EQ(readChain(defs_.table(), Chain({all.substr(0, cut), all.substr(cut)}).first()), 0);
      EXPECT_EQ(std::string(readAt<const char *>(0)).substr(0, length), plain(length));
      EXPECT_EQ(readAt<std::int16_t>(8), 7);
    }
    EXPECT_EQ(readBlock(defs_.table(), head), -1);
    EXPECT_EQ(messages(), Lines{kEnd});
    EXPECT_EQ(readBlock(defs_.table(), head.substr(0, head.size() - 1)), -1);
    EXPECT_EQ(messages(), (Lines{kEnd, kConversionFailed}));
  }
}

// Fields of fixed length take their text by another way.
TEST_F(PortTextTest, CharactersUpToAnyPlace) {
  Defs defs;
  defs.add(1, 50, {Field(1, MEM_PORT_CHAR, 40, 0), Field(2, MEM_PORT_SHORT, 2, 48)});
  for (std::size_t length = 0; length <= 40; ++length) {
    forBothForms(defs, "\"" + plain(length) + "\"", [&](std::int16_t result) {
      ASSERT_EQ(result, 0);
      EXPECT_EQ(std::string(static_cast<const char *>(read), 40),
                plain(length) + std::string(40 - length, ' '));
      EXPECT_EQ(readAt<std::int16_t>(48), 7);
    });
  }
}

}  // namespace
}  // namespace memtest
