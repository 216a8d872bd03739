// Formatting of the reference host by the printf rules of 64-bit Windows.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include "refhost.hpp"

namespace {

using refhost::formatText;

struct IntegerCase {
  const char *format;
  std::uint64_t value;
  const char *expected;
};

class FormatIntegerTest : public ::testing::TestWithParam<IntegerCase> {};

TEST_P(FormatIntegerTest, FollowsTheRules) {
  EXPECT_EQ(formatText(GetParam().format, GetParam().value), GetParam().expected)
      << GetParam().format;
}

constexpr std::uint64_t kAllBits = ~std::uint64_t{0};
constexpr std::uint64_t kHighJunk = 0xABCDEF0100000000;

INSTANTIATE_TEST_SUITE_P(
    Sizes, FormatIntegerTest,
    ::testing::Values(IntegerCase{"%d", kHighJunk + 42, "42"},
                      IntegerCase{"%ld", kHighJunk + 42, "42"}, IntegerCase{"%i", kAllBits, "-1"},
                      IntegerCase{"%ld", 0x80000000, "-2147483648"},
                      IntegerCase{"%lu", kAllBits, "4294967295"},
                      IntegerCase{"%lX", kAllBits, "FFFFFFFF"},
                      IntegerCase{"%lX", 0x7FFF12345678ABCD, "5678ABCD"},
                      IntegerCase{"%hd", 0x18000, "-32768"}, IntegerCase{"%hu", kAllBits, "65535"},
                      IntegerCase{"%hx", 0x1234ABCD, "abcd"}, IntegerCase{"%hhd", 0x1FF, "-1"},
                      IntegerCase{"%hhu", 0x1FF, "255"}, IntegerCase{"%lld", kAllBits, "-1"},
                      IntegerCase{"%I64d", std::uint64_t{1} << 63, "-9223372036854775808"},
                      IntegerCase{"%llu", kAllBits, "18446744073709551615"},
                      IntegerCase{"%I64X", kAllBits, "FFFFFFFFFFFFFFFF"},
                      IntegerCase{"%I32u", kAllBits, "4294967295"},
                      IntegerCase{"%Iu", kAllBits, "18446744073709551615"},
                      IntegerCase{"%zu", kAllBits, "18446744073709551615"},
                      IntegerCase{"%llo", kAllBits, "1777777777777777777777"}));

INSTANTIATE_TEST_SUITE_P(
    Fields, FormatIntegerTest,
    ::testing::Values(IntegerCase{"%08X", 0xAB, "000000AB"}, IntegerCase{"%8X|", 0xAB, "      AB|"},
                      IntegerCase{"%-8X|", 0xAB, "AB      |"},
                      IntegerCase{"%-08X|", 0xAB, "AB      |"},
                      IntegerCase{"%08d", kAllBits, "-0000001"}, IntegerCase{"%+d", 5, "+5"},
                      IntegerCase{"% d", 5, " 5"}, IntegerCase{"%+ d", 5, "+5"},
                      IntegerCase{"%+u", 5, "5"}, IntegerCase{"%.3d", 5, "005"},
                      IntegerCase{"%6.3d", 5, "   005"}, IntegerCase{"%06.3d", 5, "   005"},
                      IntegerCase{"%.0d|", 0, "|"}, IntegerCase{"%.d|", 0, "|"},
                      IntegerCase{"%3.0d|", 0, "   |"}, IntegerCase{"%d", 0, "0"},
                      IntegerCase{"%#x", 0xAB, "0xab"}, IntegerCase{"%#X", 0xAB, "0XAB"},
                      IntegerCase{"%#x", 0, "0"}, IntegerCase{"%#08x", 0xAB, "0x0000ab"},
                      IntegerCase{"%#o", 8, "010"}, IntegerCase{"%#o", 0, "0"},
                      IntegerCase{"%o", 8, "10"}, IntegerCase{"%#.4o", 8, "0010"},
                      IntegerCase{"%5c|", 'x', "    x|"}, IntegerCase{"%-5c|", 'x', "x    |"}));

TEST(FormatText, PointersAreSixteenUpperCaseDigits) {
  EXPECT_EQ(formatText("%p", reinterpret_cast<void *>(std::uintptr_t{0xABCDEF})),
            "0000000000ABCDEF");
  EXPECT_EQ(formatText("%p", nullptr), "0000000000000000");
  EXPECT_EQ(formatText("%18p|%-18p|", 0x12, 0x34), "  0000000000000012|0000000000000034  |");
}

TEST(FormatText, NarrowTextFollowsWidthAndPrecision) {
  EXPECT_EQ(formatText("%s|%5s|%-5s|%.2s|", "abc", "abc", "abc", "abc"), "abc|  abc|abc  |ab|");
  EXPECT_EQ(formatText("%-1.62s|", ""), " |");
  EXPECT_EQ(formatText("%hs %hS", "one", "two"), "one two");
  const char unterminated[] = {'a', 'b', 'c'};
  EXPECT_EQ(formatText("%.3s", unterminated), "abc");
}

TEST(FormatText, NullTextIsShownInParentheses) {
  EXPECT_EQ(formatText("%s %S", nullptr, nullptr), "(null) (null)");
  EXPECT_EQ(formatText("%.3s", nullptr), "(nu");
}

TEST(FormatText, WideTextComesOutAsUtf8) {
  EXPECT_EQ(formatText("%S", u"a\u00E4\u20AC\U0001F600"), "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(formatText("%ls %ws", u"one", u"two"), "one two");
  EXPECT_EQ(formatText("%C%lc", u'\u20AC', u'x'), "\xE2\x82\xACx");
}

TEST(FormatText, WidthAndPrecisionOfWideTextCountItsCharacters) {
  EXPECT_EQ(formatText("%5S|%-5S|", u"\u20AC\u20AC", u"\u20AC"),
            "   \xE2\x82\xAC\xE2\x82\xAC|\xE2\x82\xAC    |");
  EXPECT_EQ(formatText("%.2S", u"\u20AC\u20AC\u20AC"), "\xE2\x82\xAC\xE2\x82\xAC");
  const char16_t unterminated[] = {u'a', u'b'};
  EXPECT_EQ(formatText("%.2S", unterminated), "ab");
}

TEST(FormatText, LoneSurrogatesAreReplaced) {
  const char16_t highAtEnd[] = {u'a', 0xD83D, 0};
  const char16_t highThenOther[] = {0xD83D, u'b', 0};
  const char16_t lowAlone[] = {0xDE00, 0};
  EXPECT_EQ(formatText("%S", highAtEnd), "a\xEF\xBF\xBD");
  EXPECT_EQ(formatText("%S", highThenOther),
            "\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(formatText("%S", lowAlone), "\xEF\xBF\xBD");
  EXPECT_EQ(formatText("%.1S", u"\U0001F600"), "\xEF\xBF\xBD");
}

TEST(FormatText, StarTakesWidthAndPrecisionFromTheArguments) {
  EXPECT_EQ(formatText("%*d|%-*d|", 4, 7, 4, 7), "   7|7   |");
  EXPECT_EQ(formatText("%*d|", -4, 7), "7   |");
  EXPECT_EQ(formatText("%.*s|", 2, "abc"), "ab|");
  EXPECT_EQ(formatText("%.*s|", -1, "abc"), "abc|");
}

TEST(FormatText, IntegersOfAnyTypeServeAnyConversion) {
  EXPECT_EQ(formatText("%hd %ld %lld", std::int16_t{-3}, std::int8_t{-3}, -3), "-3 -3 -3");
  EXPECT_EQ(formatText("%lld", std::numeric_limits<std::int32_t>::min()), "-2147483648");
  EXPECT_EQ(formatText("%llu", std::uint32_t{0xFFFFFFFF}), "4294967295");
}

TEST(FormatText, UnknownConversionsAreCopied) {
  EXPECT_EQ(formatText("%n %5.2f %q %d", 1), "%n %5.2f %q 1");
  EXPECT_EQ(formatText("100%"), "100%");
  EXPECT_EQ(formatText("%-5"), "%-5");
  EXPECT_EQ(formatText("%%d"), "%d");
}

TEST(FormatText, MissingArgumentsAreRefused) {
  EXPECT_THROW(formatText("%d %d", 1), std::invalid_argument);
}

TEST(FormatText, HugeFieldsAreCut) {
  EXPECT_EQ(formatText("%99999999999d", 1), std::string(65535, ' '));
  EXPECT_EQ(formatText("%.2147483647d", 1), std::string(65535, '0'));
  EXPECT_EQ(formatText("%*d", std::numeric_limits<std::int32_t>::min(), 1).size(), 65535U);
}

class FormatServiceTest : public ::testing::Test {
 protected:
  refhost::Host host_;
};

TEST_F(FormatServiceTest, FormatsIntoTheTraceBufferAndReturnsTheLength) {
  char *const text = host_.thread().pTraceBuf->Text;
  const std::int32_t length =
      host_.trace().Format(text, "Parms: Size=%ld, SubPool=%hd, %S", 24, -5, u"x");
  EXPECT_STREQ(text, "Parms: Size=24, SubPool=-5, x");
  EXPECT_EQ(length, 29);
}

TEST_F(FormatServiceTest, ManyArgumentsOfMixedWidthArriveInOrder) {
  char text[refhost::kFormatRoom];
  host_.trace().Format(text, "%hd %hu %ld %p %s %llu %d %c %x %lld", std::int16_t{-1},
                       std::uint16_t{65535}, -2, reinterpret_cast<void *>(std::uintptr_t{16}),
                       "text", std::uint64_t{1} << 40, 3, 'c', 255U, std::int64_t{-4});
  EXPECT_STREQ(text, "-1 65535 -2 0000000000000010 text 1099511627776 3 c ff -4");
}

TEST_F(FormatServiceTest, NeverWritesBehindTheTraceBuffer) {
  const std::string longText(20000, 'a');
  char *const text = host_.thread().pTraceBuf->Text;
  EXPECT_EQ(host_.trace().Format(text, "%s", longText.c_str()),
            static_cast<std::int32_t>(refhost::kTraceTextRoom - 1));
  EXPECT_EQ(text, longText.substr(0, refhost::kTraceTextRoom - 1));

  char *const nearEnd = text + refhost::kTraceTextRoom - 4;
  EXPECT_EQ(host_.trace().Format(nearEnd, "%s", longText.c_str()), 3);
  EXPECT_STREQ(nearEnd, "aaa");
}

TEST_F(FormatServiceTest, TakesFourKilobytesForGrantedElsewhere) {
  std::string dest(refhost::kFormatRoom + 1, '#');
  const std::string longText(20000, 'a');
  EXPECT_EQ(host_.trace().Format(dest.data(), "%s", longText.c_str()),
            static_cast<std::int32_t>(refhost::kFormatRoom - 1));
  EXPECT_EQ(dest[refhost::kFormatRoom - 1], '\0');
  EXPECT_EQ(dest[refhost::kFormatRoom], '#');
}

TEST_F(FormatServiceTest, TheEndOfTheRoomSplitsNoCharacter) {
  char *const nearEnd = host_.thread().pTraceBuf->Text + refhost::kTraceTextRoom - 6;
  EXPECT_EQ(host_.trace().Format(nearEnd, "%S", u"\u20AC\u20ACa"), 3);
  EXPECT_STREQ(nearEnd, "\xE2\x82\xAC");
}

}  // namespace
