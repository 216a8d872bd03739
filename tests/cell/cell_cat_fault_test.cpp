// Every host call failing in turn, over one script of cell pools and concatenation buffers. The
// models predict for each call what a refused storage at that place must give; no other service of
// the host may change what a call does.

#include <set>

#include "catmodel.hpp"
#include "cellmodel.hpp"

namespace memtest {
namespace {

using refhost::Service;

class CellCatFaultTest : public HeapHashTest {
 protected:
  CellCatFaultTest() : watch(mem), stage{host, mem, watch, kDirty} {}

  static void fill(CheckedPool &pool) {
    for (int i = 0; i < 25; ++i) pool.alloc();
    for (std::size_t i = 0; i < 6 && pool.outCount() > i; ++i) pool.free(i);
    for (int i = 0; i < 8; ++i) pool.alloc();
    pool.check();
  }

  static void fill(CheckedBuffer &buffer) {
    for (const Append by : {Append::kText, Append::kLength}) {
      for (const std::size_t length : {0U, 10U, 600U, 1U, 700U}) {
        buffer.append(std::u16string(length, u'x'), by);
      }
      buffer.appendOwn(buffer.text().size() / 2, by);
    }
    buffer.check();
  }

  // Once the host has storage again, objects serve whatever they refused before.
  static void useAndClose(CheckedPool &pool) {
    if (!pool.isOpen()) return;
    pool.check();
    const std::size_t before = pool.outCount();
    fill(pool);
    EXPECT_EQ(pool.outCount(), before + 27);
    pool.close();
  }

  static void useAndClose(CheckedBuffer &buffer) {
    if (!buffer.isOpen()) return;
    const std::size_t before = buffer.text().size();
    buffer.append(std::u16string(5000, u'y'), Append::kText);
    EXPECT_EQ(buffer.text().size(), before + 5000);
    buffer.close();
  }

  // Opens, uses and closes objects; then, with the host in order again, uses and closes others that
  // have been opened and used before.
  void runScript() {
    CheckedPool shortLived(stage, 256, 88, -5);
    if (shortLived.isOpen()) fill(shortLived);
    CheckedPool longLived(stage, 1024, 500, 7);
    if (longLived.isOpen()) {
      fill(longLived);
      longLived.clear();
      fill(longLived);
    }
    CheckedBuffer shortText(stage);
    if (shortText.isOpen()) fill(shortText);
    CheckedBuffer longText(stage);
    if (longText.isOpen()) fill(longText);
    if (shortLived.isOpen()) shortLived.close();
    if (shortText.isOpen()) shortText.close();
    host.disarm();
    useAndClose(longLived);
    useAndClose(longText);
  }

  // A few calls of each service, with growth and text of both kinds of trace records.
  void runShortScript() {
    CheckedPool pool(stage, 256, 88, 7);
    for (int i = 0; i < 3; ++i) pool.alloc();
    pool.free(1);
    pool.clear();
    pool.alloc();
    pool.close();
    CheckedBuffer buffer(stage);
    for (const Append by : {Append::kText, Append::kLength}) {
      for (const std::size_t length : {0U, 10U, 600U}) {
        buffer.append(std::u16string(length, u'x'), by);
      }
      buffer.appendOwn(0, by);
    }
    buffer.close();
    host.disarm();
  }

  std::set<void *> liveAreas() {
    std::set<void *> areas;
    for (const refhost::Leak &leak : host.leaks()) areas.insert(leak.area);
    return areas;
  }

  VectorWatch watch;
  Stage stage;
};

TEST_F(CellCatFaultTest, NoRefusalMeansNoFailure) {
  runScript();
  EXPECT_TRUE(reports.empty());
}

TEST_F(CellCatFaultTest, EveryRefusedStorageIsReportedAndLeavesObjectsUsable) {
  const std::set<void *> before = liveAreas();
  const std::uint64_t refused =
      sweepFaults(host, faultOf(Service::GetStorage, kHostError), [&](std::uint64_t) {
        runScript();
        EXPECT_EQ(liveAreas(), before);
      });
  EXPECT_GT(refused, 40U) << "the script asks for storage that often";
}

// Each failing call reports once, an append within MEM_Cat inside and outside.
TEST_F(CellCatFaultTest, EachFailureIsReportedOnce) {
  HMEMCELL pool = nullptr;
  ASSERT_EQ(mem.MEM_CellOpen(&pool, 256, 88, kSubPool), 0);
  MEMCatCB cat{};
  ASSERT_EQ(mem.MEM_CatOpen(&cat), 0);
  void *cell = nullptr;
  ASSERT_EQ(mem.MEM_CellAllocEntry(pool, &cell), 0);
  refhost::Fault always = faultOf(Service::GetStorage);
  always.andAllLater = true;
  host.arm(always);
  HMEMCELL otherPool = nullptr;
  MEMCatCB otherCat{};
  const std::u16string large(600, u'x');
  EXPECT_EQ(mem.MEM_CellAllocEntry(pool, &cell), kFailed);
  EXPECT_EQ(reports.size(), 1U);
  EXPECT_EQ(mem.MEM_CellOpen(&otherPool, 256, 88, kSubPool), kFailed);
  EXPECT_EQ(reports.size(), 2U);
  EXPECT_EQ(mem.MEM_CatOpen(&otherCat), kFailed);
  EXPECT_EQ(reports.size(), 3U);
  EXPECT_EQ(mem.MEM_MemCat(&cat, large.c_str(), 600), kFailed);
  EXPECT_EQ(reports.size(), 4U);
  EXPECT_EQ(mem.MEM_Cat(&cat, large.c_str()), kFailed);
  EXPECT_EQ(reports.size(), 6U);
  host.disarm();
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
  EXPECT_EQ(mem.MEM_CatClose(&cat), 0);
}

// The failing call keeps one area; all others come back.
TEST_F(CellCatFaultTest, AreaThatTheHostKeepsIsTheOnlyOneLost) {
  const std::set<void *> before = liveAreas();
  refhost::Fault fault = faultOf(Service::FreeStorage, kHostError);
  const std::uint64_t kept = sweepFaults(host, fault, [&](std::uint64_t) {
    const std::uint64_t firedBefore = host.faultsFired();
    runScript();
    std::size_t lost = 0;
    for (const refhost::Leak &leak : host.leaks()) {
      if (before.count(leak.area) != 0) continue;
      ++lost;
      host.runtime().FreeStorage(leak.area, static_cast<std::uint32_t>(leak.length), leak.subPool);
    }
    EXPECT_EQ(lost, host.faultsFired() - firedBefore);
  });
  EXPECT_GT(kept, 30U);
  EXPECT_TRUE(reports.empty()) << "returns of storage are not examined";
}

TEST_F(CellCatFaultTest, OtherServicesOfTheHostChangeNothing) {
  const std::set<void *> before = liveAreas();
  for (const Service service :
       {Service::GetAnchor, Service::Format, Service::WriteRecord, Service::WriteWideRecord}) {
    host.setTraceFlags(0xFFFFFFFFU);
    const std::uint64_t failed = sweepFaults(host, faultOf(service), [&](std::uint64_t) {
      runShortScript();
      EXPECT_EQ(liveAreas(), before);
    });
    host.setTraceFlags(0);
    EXPECT_GE(failed, 2U) << refhost::serviceName(service);
    EXPECT_TRUE(reports.empty());
  }
}

}  // namespace
}  // namespace memtest
