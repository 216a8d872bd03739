// The reference host with the checking layer attached.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "memtest.hpp"

namespace memtest {
namespace {

refhost::Options checkedOptions() {
  refhost::Options options;
  options.checked = true;
  return options;
}

void overrun(MEMFunctionVector &mem) {
  HMEMHEAP heap = nullptr;
  void *entry = nullptr;
  ASSERT_EQ(mem.MEM_HeapOpen(&heap, 4, 7), 0);
  ASSERT_EQ(mem.MEM_HeapAllocEntry(heap, 40, &entry), 0);
  static_cast<char *>(entry)[40] = 0;
  ASSERT_EQ(mem.MEM_HeapClose(heap), 0);
}

TEST(CheckHostTest, BindAttachesTheLayerAndUnbindDetachesIt) {
  refhost::Host host(checkedOptions());
  EXPECT_EQ(host.check(), nullptr);
  host.bind(library().bindEntry());
  EXPECT_NE(host.check(), nullptr);
  host.bind(library().bindEntry());
  EXPECT_NE(host.check(), nullptr);
  host.unbind(library().bindEntry());
  EXPECT_EQ(host.check(), nullptr);
  EXPECT_EQ(host.vector().MEM_HeapOpen, nullptr);
}

TEST(CheckHostTest, ReportsGoToStderrAndAreCounted) {
  refhost::Session session(library().bindEntry(), checkedOptions());
  ::testing::internal::CaptureStderr();
  overrun(session.vector());
  const std::string text = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(text.find("memchk: overrun: 1 byte written behind an entry\n"), 0U) << text;
  EXPECT_EQ(session.host().checkReports(), 1U);
}

TEST(CheckHostTest, RestoredSlotsStayChecked) {
  refhost::Session session(library().bindEntry(), checkedOptions());
  session.vector().MEM_HeapAllocEntry = nullptr;
  session.host().restoreSlots();
  ::testing::internal::CaptureStderr();
  overrun(session.vector());
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(session.host().checkReports(), 1U);
}

TEST(CheckHostTest, WithoutTheOptionTheVectorIsTheLibrarys) {
  if (std::getenv("MEM_CHECKED") != nullptr) GTEST_SKIP() << "the environment asks for the layer";
  refhost::Session session(library().bindEntry());
  EXPECT_EQ(session.host().check(), nullptr);
  overrun(session.vector());
  EXPECT_EQ(session.host().checkReports(), 0U);
}

}  // namespace
}  // namespace memtest
