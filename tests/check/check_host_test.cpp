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

// A fault that touches no storage: sanitizers let the program go on.
void freeTwice(MEMFunctionVector &mem) {
  HMEMCELL pool = nullptr;
  void *cell = nullptr;
  ASSERT_EQ(mem.MEM_CellOpen(&pool, 4096, 40, 7), 0);
  ASSERT_EQ(mem.MEM_CellAllocEntry(pool, &cell), 0);
  ASSERT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
  ASSERT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
  ASSERT_EQ(mem.MEM_CellClose(pool), 0);
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
  freeTwice(session.vector());
  const std::string text = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(text.find("memchk: double free: the cell was freed before\n"), 0U) << text;
  EXPECT_EQ(session.host().checkReports(), 1U);
}

TEST(CheckHostTest, RestoredSlotsStayChecked) {
  refhost::Session session(library().bindEntry(), checkedOptions());
  session.vector().MEM_CellFreeEntry = nullptr;
  session.host().restoreSlots();
  ::testing::internal::CaptureStderr();
  freeTwice(session.vector());
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(session.host().checkReports(), 1U);
}

TEST(CheckHostTest, WithoutTheOptionTheVectorIsTheLibrarys) {
  if (std::getenv("MEM_CHECKED") != nullptr) GTEST_SKIP() << "the environment asks for the layer";
  refhost::Session session(library().bindEntry());
  EXPECT_EQ(session.host().check(), nullptr);
  freeTwice(session.vector());
  EXPECT_EQ(session.host().checkReports(), 0U);
}

}  // namespace
}  // namespace memtest
