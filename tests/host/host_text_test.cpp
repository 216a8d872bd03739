// Character conversion, error reports and exception filter of the reference host.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "refhost.hpp"

namespace {

using refhost::Service;

constexpr std::uint16_t kUtf16 = 1200;
constexpr std::uint16_t kUtf32 = 12000;

template <class Unit>
std::int32_t bytesOf(const std::basic_string<Unit> &text) {
  return static_cast<std::int32_t>(text.size() * sizeof(Unit));
}

class HostConversionTest : public ::testing::Test {
 protected:
  static constexpr std::size_t kRoom = 64;

  // Converts with `room` bytes of output. The output, with its terminator, is in out32_ or out16_.
  std::uint16_t to32(const std::u16string &in, std::int32_t length, std::int32_t room) {
    return host_.runtime().ConvertText(kUtf16, kUtf32, in.c_str(), length, out32_, room);
  }
  std::uint16_t to16(const std::u32string &in, std::int32_t length, std::int32_t room) {
    return host_.runtime().ConvertText(kUtf32, kUtf16, in.c_str(), length, out16_, room);
  }

  refhost::Host host_;
  char32_t out32_[kRoom] = {0x55555555};
  char16_t out16_[kRoom] = {0x5555};
};

const std::u16string kText16 = u"a\u00E4\u20AC\uFFFF\U0001F600z";
const std::u32string kText32 = U"a\u00E4\u20AC\uFFFF\U0001F600z";

TEST_F(HostConversionTest, ConvertsTextWithAndWithoutLength) {
  EXPECT_EQ(to32(kText16, -1, sizeof(out32_)), 0);
  EXPECT_EQ(out32_, kText32);
  EXPECT_EQ(to32(kText16, 6, sizeof(out32_)), 0);
  EXPECT_EQ(out32_, kText32.substr(0, 3));
  EXPECT_EQ(to16(kText32, -1, sizeof(out16_)), 0);
  EXPECT_EQ(out16_, kText16);
  EXPECT_EQ(to16(kText32, 20, sizeof(out16_)), 0);
  EXPECT_EQ(out16_, kText16.substr(0, 6));
}

TEST_F(HostConversionTest, ATextWithLengthMayHoldNuls) {
  const std::u16string in(u"a\0b", 3);
  EXPECT_EQ(to32(in, bytesOf(in), sizeof(out32_)), 0);
  EXPECT_EQ(std::u32string(out32_, 4), std::u32string(U"a\0b\0", 4));
}

TEST_F(HostConversionTest, EmptyTextIsItsTerminator) {
  EXPECT_EQ(to32(u"", -1, 4), 0);
  EXPECT_EQ(out32_[0], U'\0');
  out16_[0] = 1;
  EXPECT_EQ(to16(U"abc", 0, 2), 0);
  EXPECT_EQ(out16_[0], u'\0');
}

TEST_F(HostConversionTest, SamePageValidatesAndCopies) {
  EXPECT_EQ(host_.runtime().ConvertText(kUtf16, kUtf16, kText16.c_str(), -1, out16_, kRoom), 0);
  EXPECT_EQ(out16_, kText16);
}

TEST_F(HostConversionTest, TheRoomIncludesTheTerminator) {
  EXPECT_EQ(to32(u"ab", -1, 12), 0);
  out32_[0] = 0x55555555;
  EXPECT_EQ(to32(u"ab", -1, 11), refhost::kNoRoom);
  EXPECT_EQ(to32(u"ab", -1, 0), refhost::kNoRoom);
  EXPECT_EQ(out32_[0], char32_t{0x55555555}) << "written without room";
  EXPECT_EQ(to16(U"\U0001F600", -1, 6), 0);
  EXPECT_EQ(to16(U"\U0001F600", -1, 5), refhost::kNoRoom);
  EXPECT_EQ(host_.thread().Error.Code, refhost::kNoRoom);
  EXPECT_STREQ(host_.thread().Error.NameText, "ConvertText");
}

TEST_F(HostConversionTest, InvalidTextIsRefused) {
  for (const std::u16string &in :
       {std::u16string{0xD800}, std::u16string{u'a', 0xDBFF, u'b'}, std::u16string{0xDC00},
        std::u16string{0xD800, 0xD800, 0xDC00}}) {
    EXPECT_EQ(to32(in, bytesOf(in), sizeof(out32_)), refhost::kBadText);
  }
  // The length cuts a pair in two.
  EXPECT_EQ(to32(u"\U0001F600", 2, sizeof(out32_)), refhost::kBadText);
  for (const char32_t unit : {0xD800U, 0xDFFFU, 0x110000U, 0xFFFFFFFFU}) {
    EXPECT_EQ(to16(std::u32string{unit}, -1, sizeof(out16_)), refhost::kBadText);
  }
  EXPECT_EQ(to16(std::u32string{0x10FFFF}, -1, sizeof(out16_)), 0);
}

TEST_F(HostConversionTest, UnknownPagesAndLengthsAreRefused) {
  const auto convert = host_.runtime().ConvertText;
  EXPECT_EQ(convert(65001, kUtf16, "a", -1, out16_, kRoom), refhost::kBadArgument);
  EXPECT_EQ(convert(kUtf16, 1201, u"a", -1, out16_, kRoom), refhost::kBadArgument);
  EXPECT_EQ(convert(kUtf16, kUtf32, u"a", -1, nullptr, kRoom), refhost::kBadArgument);
  EXPECT_EQ(convert(kUtf16, kUtf32, nullptr, -1, out32_, kRoom), refhost::kBadArgument);
  EXPECT_EQ(to32(u"a", -2, 64), refhost::kBadArgument);
  EXPECT_EQ(to32(u"a", 1, 64), refhost::kBadArgument);
  EXPECT_EQ(to16(U"a", 2, 64), refhost::kBadArgument);
  EXPECT_EQ(to32(u"a", -1, -1), refhost::kBadArgument);
}

TEST_F(HostConversionTest, AddressesNeedNoAlignment) {
  char in[16] = {};
  char out[16] = {};
  std::memcpy(in + 1, u"xy", 6);
  EXPECT_EQ(host_.runtime().ConvertText(kUtf16, kUtf32, in + 1, -1, out + 1, 12), 0);
  EXPECT_EQ(std::memcmp(out + 1, U"xy", 12), 0);
}

TEST(HostText, KeepsTheLastErrorReport) {
  refhost::Host host;
  EXPECT_EQ(host.lastReportedText(), "");
  char text[] = "Invalid Heap Handle";
  host.text().ReportError(text, "detail");
  EXPECT_EQ(host.lastReportedText(), "Invalid Heap Handle");
  EXPECT_EQ(host.lastReportedDetail(), "detail");
  std::thread([&] { host.text().ReportError(text + 8, ""); }).join();
  EXPECT_EQ(host.lastReportedText(), "Heap Handle");
  EXPECT_EQ(host.lastReportedDetail(), "");
}

class HostFilterTest : public ::testing::Test {
 protected:
  void enter(MEMTraceFrame &frame) { host_.runtime().EnterFrame(&frame, MEM_COMPONENT); }
  void leave(MEMTraceFrame &frame) { host_.runtime().LeaveFrame(&frame, MEM_COMPONENT); }

  refhost::Host host_;
  MEMTraceFrame outer_{};
  MEMTraceFrame inner_{};
};

TEST_F(HostFilterTest, EndsTheCallUnlessToldOtherwise) {
  enter(outer_);
  outer_.Result = 0x12340000;
  EXPECT_EQ(host_.text().FilterException(nullptr, &outer_), 1);
  EXPECT_EQ(outer_.Result, 0x12340000U);
  host_.setFilterAnswer(0);
  EXPECT_EQ(host_.text().FilterException(nullptr, &outer_), 0);
  host_.setFilterAnswer(-1, 77);
  EXPECT_EQ(host_.text().FilterException(nullptr, &outer_), -1);
  EXPECT_EQ(outer_.Result, 0x1234004DU);
  leave(outer_);
  EXPECT_TRUE(host_.takeMisuses().empty());
}

TEST_F(HostFilterTest, FramesInsideTheEndedCallCountAsLeft) {
  enter(outer_);
  enter(inner_);
  EXPECT_EQ(host_.text().FilterException(nullptr, &outer_), 1);
  leave(outer_);
  EXPECT_TRUE(host_.takeMisuses().empty());
}

TEST_F(HostFilterTest, FramesStayWhenTheFaultIsNotOurs) {
  host_.setFilterAnswer(0);
  enter(outer_);
  enter(inner_);
  EXPECT_EQ(host_.text().FilterException(nullptr, &outer_), 0);
  leave(inner_);
  leave(outer_);
  EXPECT_TRUE(host_.takeMisuses().empty());
}

TEST_F(HostFilterTest, AFrameThatWasNotEnteredIsReported) {
  EXPECT_EQ(host_.text().FilterException(nullptr, &outer_), 1);
  const auto misuses = host_.takeMisuses();
  ASSERT_EQ(misuses.size(), 1U);
  EXPECT_EQ(misuses[0].service, Service::FilterException);
}

}  // namespace
