// Cell pools: control block, nodes and cells byte by byte, limits, failures, trace records and the
// slots they use.

#include <functional>
#include <limits>
#include <ostream>
#include <tuple>
#include <utility>

#include "cellmodel.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr std::int32_t kLongest = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();

std::string invalidHandle(const void *handle) {
  return "Invalid Cell Handle=" + hex16(handle);
}

std::uint8_t *pointerAt(const void *base, std::size_t offset) {
  return load<std::uint8_t *>(base, offset);
}

class CellTest : public HeapHashTest {
 protected:
  explicit CellTest(refhost::Options options = withDirtyStorage())
      : HeapHashTest(options), watch(mem) {}

  HMEMCELL open(std::int32_t areaLen, std::int32_t cellLen, std::int16_t subPool = kSubPool) {
    HMEMCELL pool = nullptr;
    EXPECT_EQ(mem.MEM_CellOpen(&pool, areaLen, cellLen, subPool), 0);
    return pool;
  }

  void close(HMEMCELL pool) { EXPECT_EQ(mem.MEM_CellClose(pool), 0); }

  std::uint8_t *alloc(HMEMCELL pool) {
    void *cell = nullptr;
    EXPECT_EQ(mem.MEM_CellAllocEntry(pool, &cell), 0);
    return static_cast<std::uint8_t *>(cell);
  }

  std::vector<std::uint8_t *> alloc(HMEMCELL pool, std::size_t count) {
    std::vector<std::uint8_t *> cells;
    for (std::size_t i = 0; i < count; ++i) cells.push_back(alloc(pool));
    return cells;
  }

  void free(HMEMCELL pool, void *cell) { EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0); }

  // The only area that a call allocated since the watch was read last.
  std::uint8_t *obtained() {
    const std::vector<SlotUse> uses = watch.takeUsesOf(8);
    EXPECT_EQ(uses.size(), 1U);
    if (uses.empty()) return nullptr;
    return static_cast<std::uint8_t *>(const_cast<void *>(uses[0].object));
  }

  VectorWatch watch;
};

// Opening.

struct OpenCase {
  std::int32_t areaLen;
  std::int32_t cellLen;
  std::size_t nodeCount;
  std::size_t firstCell;
  std::size_t cellCount;
  std::int16_t subPool;
  std::uint16_t hostSubPool;
  std::uint16_t hostKind;
};

void PrintTo(const OpenCase &row, std::ostream *out) {
  *out << "AreaLen " << row.areaLen << ", CellLen " << row.cellLen << ", SubPool " << row.subPool;
}

class CellOpenTest : public CellTest, public ::testing::WithParamInterface<OpenCase> {
 protected:
  HMEMCELL open() {
    return CellTest::open(GetParam().areaLen, GetParam().cellLen, GetParam().subPool);
  }

  std::size_t areaLen() const { return static_cast<std::size_t>(GetParam().areaLen); }
  std::size_t cellLen() const { return static_cast<std::size_t>(GetParam().cellLen); }

  // The control block's fields, the nodes and the free cells as a fresh pool has them, in storage
  // with this filling.
  void expectFresh(void *pool, std::uint8_t filling) {
    const OpenCase &row = GetParam();
    Bytes expected(areaLen(), filling);
    const Layout header = Layout()
                              .text("QQQCELL1")
                              .address(at(pool, 40 + 16 * (row.nodeCount - 1)))
                              .address(at(pool, row.firstCell))
                              .field(row.areaLen)
                              .field(row.cellLen)
                              .field(row.subPool);
    std::memcpy(expected.data(), header.bytes().data(), header.bytes().size());
    std::memset(expected.data() + 34, kDirty, 6);  // reserved
    for (std::size_t i = 0; i < row.nodeCount; ++i) {
      const std::size_t node = 40 + 16 * i;
      store<void *>(expected.data(), node, i == 0 ? nullptr : at(pool, node - 16));
      store<void *>(expected.data(), node + 8, i == 0 ? pool : nullptr);
    }
    for (std::size_t i = 0; i < row.cellCount; ++i) {
      const std::size_t cell = row.firstCell + i * cellLen();
      const bool isLast = i + 1 == row.cellCount;
      store<void *>(expected.data(), cell, isLast ? nullptr : at(pool, cell + cellLen()));
    }
    EXPECT_EQ(changedRanges(expected, bytesOf(pool, areaLen())), "");
  }
};

// AreaLen, CellLen, nodes, first cell, cells, SubPool and what the host is asked for.
INSTANTIATE_TEST_SUITE_P(
    Arguments, CellOpenTest,
    ::testing::Values(
        OpenCase{256, 8, 8, 168, 11, 7, 7, 1},  // least of both
        OpenCase{256, 88, 8, 168, 1, 0, 0, 1},  // least area for its cells
        OpenCase{1024, 8, 8, 168, 107, 230, 230, 1}, OpenCase{1024, 9, 8, 168, 95, 32767, 32767, 1},
        OpenCase{1024, 13, 8, 168, 65, -5, 5, 2}, OpenCase{1024, 100, 11, 216, 8, 7, 7, 1},
        OpenCase{1024, 300, 24, 424, 2, -256, 0, 2}, OpenCase{1024, 500, 30, 520, 1, -255, 255, 2},
        OpenCase{263, 8, 8, 168, 11, -1, 1, 2},
        OpenCase{1000, 416, 8, 168, 2, 7, 7, 1},  // just enough after the cells
        OpenCase{999, 416, 33, 568, 1, 7, 7, 1},  // one byte less
        OpenCase{1001, 416, 8, 168, 2, 7, 7, 1}, OpenCase{1015, 416, 8, 168, 2, 7, 7, 1},
        OpenCase{1016, 416, 9, 184, 2, 7, 7, 1}, OpenCase{1024, 856, 8, 168, 1, -32768, 32768, 2},
        OpenCase{1048576, 9, 8, 168, 116489, 7, 7, 1},
        OpenCase{1048576, 1048408, 8, 168, 1, 7, 7, 1}));  // the most of both

TEST_P(CellOpenTest, AreaIsLaidOutByteByByte) {
  HMEMCELL pool = open();
  expectFresh(pool, kDirty);
  close(pool);
}

TEST_P(CellOpenTest, ClearMakesThePoolAsAfterOpenInStorageOfZeros) {
  HMEMCELL pool = open();
  for (std::size_t i = 0; i < 2 * GetParam().cellCount + 1; ++i) std::memset(alloc(pool), 0x3C, 8);
  EXPECT_EQ(mem.MEM_CellClear(pool), 0);
  expectFresh(pool, 0);
  EXPECT_EQ(alloc(pool), at(pool, GetParam().firstCell));
  close(pool);
}

TEST_P(CellOpenTest, ModelKnowsTheSameLayout) {
  const AreaShape shape = shapeWithNodes(areaLen(), cellLen(), kCellHeaderLen);
  EXPECT_EQ(shape.nodeCount, GetParam().nodeCount);
  EXPECT_EQ(shape.firstCell, GetParam().firstCell);
  EXPECT_EQ(shape.cellCount, GetParam().cellCount);
}

TEST_P(CellOpenTest, CellsAreHandedOutLowestFirst) {
  HMEMCELL pool = open();
  for (std::size_t i = 0; i < GetParam().cellCount; ++i) {
    ASSERT_EQ(alloc(pool), at(pool, GetParam().firstCell + i * cellLen()));
  }
  EXPECT_EQ(pointerAt(pool, 16), nullptr);
  EXPECT_EQ(watch.uses.size(), 1U) << "only open asks for storage";
  close(pool);
}

TEST_P(CellOpenTest, AsksForOneAreaAndReturnsItAtClose) {
  const OpenCase &row = GetParam();
  HMEMCELL pool = nullptr;
  EXPECT_EQ(hostCalls([&] { pool = open(); }),
            framed("MEM_CellOpen", allocLines(row.areaLen, row.hostSubPool, row.hostKind)));
  EXPECT_EQ(hostCalls([&] { close(pool); }, {{asNumber(pool), "pool"}}),
            framed("MemCellClose", freeLines("pool", row.areaLen, row.hostSubPool)));
  const std::string asked = std::to_string(row.areaLen) + ", " + std::to_string(row.subPool) + ")";
  EXPECT_EQ(watch.takeLines({{asNumber(pool), "pool"}}), (Lines{"8(" + asked, "9(pool, " + asked}));
}

struct RefusedOpen {
  std::int32_t areaLen;
  std::int32_t cellLen;
  std::uint32_t code;
  const char *text;
};

constexpr RefusedOpen badBounds(std::int32_t areaLen, std::int32_t cellLen = 8) {
  return {areaLen, cellLen, 4010, "Invalid area bounds"};
}
constexpr RefusedOpen tooSmall(std::int32_t areaLen, std::int32_t cellLen) {
  return {areaLen, cellLen, 4011, "Invalid area length"};
}
constexpr RefusedOpen badCell(std::int32_t areaLen, std::int32_t cellLen) {
  return {areaLen, cellLen, 4012, "Invalid cell length"};
}

TEST_F(CellTest, OpenRefusesWrongLengthsInOrder) {
  const RefusedOpen rows[] = {
      badBounds(255), badBounds(1048577), badBounds(0), badBounds(-1), badBounds(-256),
      badBounds(kLongest), badBounds(kLowest),
      // bounds come before the cells' length
      badBounds(255, kLongest), badBounds(255, 7), badBounds(kLowest, kLowest),
      badBounds(1048577, 1048577), badBounds(167, -1), tooSmall(256, 89), tooSmall(256, 256),
      tooSmall(1048576, 1048409), tooSmall(1024, 857),
      // one less than CellLen + 168, where that does not fit in 32 bits
      tooSmall(256, kLongest), tooSmall(1048576, kLongest), tooSmall(256, kLongest - 167),
      tooSmall(256, kLongest - 168), badCell(256, 7), badCell(1048576, 7), badCell(256, 1),
      badCell(256, 0), badCell(256, -1), badCell(256, -8), badCell(1024, -100), badCell(256, -168),
      badCell(1048576, kLowest), badCell(256, kLowest), badCell(256, kLowest + 168)};
  for (const RefusedOpen &row : rows) {
    SCOPED_TRACE(std::to_string(row.areaLen) + ", " + std::to_string(row.cellLen));
    auto *pool = static_cast<HMEMCELL>(untouched());
    expectFails(row.code, row.text, NameBy::kMessage,
                [&] { return mem.MEM_CellOpen(&pool, row.areaLen, row.cellLen, kSubPool); });
    EXPECT_EQ(pool, untouched());
    EXPECT_TRUE(watch.uses.empty());
  }
}

TEST_F(CellTest, OpenWithoutStorageFails) {
  for (const std::uint32_t hostError : {0U, 777U}) {
    auto *pool = static_cast<HMEMCELL>(untouched());
    host.arm(faultOf(Service::GetStorage, hostError));
    expectFails(4013, "Memory Alloc failed", NameBy::kMessage,
                [&] { return mem.MEM_CellOpen(&pool, 256, 8, kSubPool); });
    EXPECT_EQ(pool, untouched());
  }
  watch.refuseStorage = 1;
  auto *pool = static_cast<HMEMCELL>(untouched());
  expectFails(4013, "Memory Alloc failed", NameBy::kMessage,
              [&] { return mem.MEM_CellOpen(&pool, 256, 8, kSubPool); });
  EXPECT_EQ(pool, untouched());
}

TEST_F(CellTest, SuccessRecordsNothing) {
  HMEMCELL pool = nullptr;
  void *cell = nullptr;
  expectEnds(0, [&] { return mem.MEM_CellOpen(&pool, 256, 88, kSubPool); });
  expectEnds(0, [&] { return mem.MEM_CellAllocEntry(pool, &cell); });
  expectEnds(0, [&] { return mem.MEM_CellAllocEntry(pool, &cell); });  // with a further area
  expectEnds(0, [&] { return mem.MEM_CellFreeEntry(pool, cell); });
  expectEnds(0, [&] { return mem.MEM_CellClear(pool); });
  expectEnds(0, [&] { return mem.MEM_CellClose(pool); });
}

TEST_F(CellTest, PoolsAreIndependent) {
  HMEMCELL first = open(1024, 100, 3);
  HMEMCELL second = open(256, 8, 4);
  EXPECT_EQ(alloc(first), at(first, 216));
  EXPECT_EQ(alloc(second), at(second, 168));
  EXPECT_EQ(alloc(first), at(first, 316));
  close(first);
  EXPECT_EQ(host.account(3).liveCount, 0U);
  EXPECT_EQ(host.account(4).liveBytes, 256U);
  EXPECT_EQ(alloc(second), at(second, 176));
  close(second);
}

// Cells.

TEST_F(CellTest, AllocChangesTheListHeadAndTheCellsLinkOnly) {
  HMEMCELL pool = open(1024, 100);
  const Bytes before = bytesOf(pool, 1024);
  std::uint8_t *cell = alloc(pool);
  EXPECT_EQ(pointerAt(pool, 16), cell + 100);
  EXPECT_TRUE(allBytesAre(cell, 8, 0));
  EXPECT_TRUE(allBytesAre(cell + 8, 92, kDirty)) << "as the host delivered it";
  Bytes expected = before;
  store<void *>(expected.data(), 16, cell + 100);
  store<void *>(expected.data(), 216, nullptr);
  EXPECT_EQ(changedRanges(expected, bytesOf(pool, 1024)), "");
  close(pool);
}

TEST_F(CellTest, FreedCellIsFilledWithZerosAndComesBackFirst) {
  for (std::int32_t cellLen = 8; cellLen <= 100; ++cellLen) {
    SCOPED_TRACE(cellLen);
    const auto length = static_cast<std::size_t>(cellLen);
    HMEMCELL pool = open(1024, cellLen);
    const std::vector<std::uint8_t *> cells = alloc(pool, 3);
    for (std::uint8_t *cell : cells) std::memset(cell, 0x77, length);
    std::uint8_t *const next = pointerAt(pool, 16);

    free(pool, cells[1]);
    EXPECT_EQ(pointerAt(pool, 16), cells[1]);
    EXPECT_EQ(pointerAt(cells[1], 0), next);
    EXPECT_TRUE(allBytesAre(cells[1] + 8, length - 8, 0));
    EXPECT_TRUE(allBytesAre(cells[0], length, 0x77));
    EXPECT_TRUE(allBytesAre(cells[2], length, 0x77));

    EXPECT_EQ(alloc(pool), cells[1]);
    EXPECT_TRUE(allBytesAre(cells[1], length, 0));
    EXPECT_EQ(pointerAt(pool, 16), next);
    close(pool);
  }
}

TEST_F(CellTest, CellsAreReusedLastFreedFirst) {
  HMEMCELL pool = open(1024, 9);
  const std::vector<std::uint8_t *> cells = alloc(pool, 5);
  for (const std::size_t index : {3U, 0U, 4U, 1U}) free(pool, cells[index]);
  for (const std::size_t index : {1U, 4U, 0U, 3U}) EXPECT_EQ(alloc(pool), cells[index]);
  EXPECT_EQ(alloc(pool), cells[4] + 9) << "fresh cells follow freed ones";
  close(pool);
}

TEST_F(CellTest, AllCellsOfAPoolMayBeFreeAgain) {
  HMEMCELL pool = open(256, 88);
  const std::vector<std::uint8_t *> cells = alloc(pool, 6);
  for (std::uint8_t *cell : cells) free(pool, cell);
  EXPECT_EQ(host.account(kSubPool).liveCount, 4U) << "cells never go back to the host";
  for (std::size_t i = cells.size(); i > 0; --i) EXPECT_EQ(alloc(pool), cells[i - 1]);
  close(pool);
}

TEST_F(CellTest, NullIsNotFreed) {
  HMEMCELL pool = open(1024, 100);
  const Bytes before = bytesOf(pool, 1024);
  expectEnds(0, [&] { return mem.MEM_CellFreeEntry(pool, nullptr); });
  EXPECT_EQ(changedRanges(before, bytesOf(pool, 1024)), "");
  close(pool);
}

TEST_F(CellTest, ForeignCellIsTakenUnseen) {
  HMEMCELL pool = open(256, 88);
  Bytes foreign(88 + 2, 0x44);
  free(pool, foreign.data() + 1);
  EXPECT_EQ(pointerAt(pool, 16), foreign.data() + 1);
  EXPECT_EQ(pointerAt(foreign.data(), 1), at(pool, 168));
  EXPECT_EQ(foreign.front(), 0x44);
  EXPECT_EQ(foreign.back(), 0x44);
  EXPECT_EQ(alloc(pool), foreign.data() + 1);
  EXPECT_TRUE(allBytesAre(foreign.data() + 1, 88, 0));
  EXPECT_EQ(alloc(pool), at(pool, 168));
  close(pool);
}

TEST_F(CellTest, CellFreedTwiceIsLinkedTwice) {
  HMEMCELL pool = open(1024, 100);
  std::uint8_t *cell = alloc(pool);
  free(pool, cell);
  free(pool, cell);
  EXPECT_EQ(pointerAt(cell, 0), cell);
  EXPECT_EQ(alloc(pool), cell);
  EXPECT_EQ(pointerAt(pool, 16), cell);
  EXPECT_EQ(alloc(pool), cell);
  EXPECT_EQ(pointerAt(pool, 16), nullptr);
  close(pool);
}

TEST_F(CellTest, CellsOfAPoolWithRoomReachNoHostService) {
  HMEMCELL pool = open(1024, 100);
  EXPECT_EQ(hostCalls([&] { free(pool, alloc(pool)); }),
            joined({framed("MemCellAllocEntry"), framed("MEM_CellFreeEntry")}));
  close(pool);
}

// Growth.

class CellGrowthTest : public CellTest {
 protected:
  // A pool whose cells are all out.
  HMEMCELL openUsedUp(std::int32_t areaLen, std::int32_t cellLen) {
    HMEMCELL pool = open(areaLen, cellLen);
    while (pointerAt(pool, 16) != nullptr) alloc(pool);
    watch.uses.clear();
    return pool;
  }

  // Takes cells until one comes from a further area; its address and the area's.
  std::pair<std::uint8_t *, std::uint8_t *> grow(HMEMCELL pool) {
    while (pointerAt(pool, 16) != nullptr) alloc(pool);
    watch.uses.clear();
    std::uint8_t *cell = alloc(pool);
    return {cell, obtained()};
  }
};

TEST_F(CellGrowthTest, FurtherAreaIsAllCellsWhileThereAreVacantNodes) {
  HMEMCELL pool = openUsedUp(1024, 100);
  const Bytes before = bytesOf(pool, 1024);
  std::uint8_t *cell = alloc(pool);
  std::uint8_t *area = obtained();
  EXPECT_EQ(cell, area);

  Bytes expected = before;
  store<void *>(expected.data(), 16, area + 100);
  store<void *>(expected.data(), 40 + 16 + 8, area);  // the node next to the first one
  EXPECT_EQ(changedRanges(expected, bytesOf(pool, 1024)), "");

  Bytes cells(1024, kDirty);
  store<void *>(cells.data(), 0, nullptr);
  for (std::size_t i = 1; i < 9; ++i) store<void *>(cells.data(), i * 100, area + (i + 1) * 100);
  store<void *>(cells.data(), 900, nullptr);
  EXPECT_EQ(changedRanges(cells, bytesOf(area, 1024)), "");
  for (std::size_t i = 1; i < 10; ++i) EXPECT_EQ(alloc(pool), area + i * 100);
  EXPECT_EQ(pointerAt(pool, 16), nullptr);
  EXPECT_TRUE(watch.uses.empty());
  close(pool);
}

TEST_F(CellGrowthTest, AreaThatCellsFillExactlyHasNothingLeftOver) {
  HMEMCELL pool = openUsedUp(1024, 128);
  std::uint8_t *area = grow(pool).second;
  for (std::size_t i = 1; i < 8; ++i) EXPECT_EQ(alloc(pool), area + i * 128);
  EXPECT_EQ(pointerAt(pool, 16), nullptr);
  close(pool);
}

TEST_F(CellGrowthTest, NodesAreUsedFromTheUsedOnesTowardsTheHead) {
  HMEMCELL pool = open(1024, 500);  // 30 nodes
  ASSERT_EQ(pointerAt(pool, 8), at(pool, 40 + 29 * 16));
  std::vector<std::uint8_t *> areas{at(pool, 0)};
  for (std::size_t used = 1; used < 30; ++used) {
    const auto [cell, area] = grow(pool);
    EXPECT_EQ(cell, area);
    areas.push_back(area);
    for (std::size_t node = 0; node < 30; ++node) {
      EXPECT_EQ(pointerAt(pool, 40 + node * 16 + 8), node < areas.size() ? areas[node] : nullptr);
    }
  }
  EXPECT_EQ(pointerAt(pool, 8), at(pool, 40 + 29 * 16)) << "the head stays";
  close(pool);
}

TEST_F(CellGrowthTest, AreaAfterTheLastVacantNodeBringsItsOwnNodes) {
  HMEMCELL pool = open(256, 88);  // 8 nodes; further areas without nodes have 2 cells
  for (int i = 0; i < 7; ++i) grow(pool);
  const Bytes before = bytesOf(pool, 256);
  const auto [cell, area] = grow(pool);  // 256 = 10 nodes + 1 cell + 8
  EXPECT_EQ(cell, area + 160);
  Bytes expected = before;
  store<void *>(expected.data(), 8, area + 9 * 16);
  store<void *>(expected.data(), 16, nullptr);
  EXPECT_EQ(changedRanges(expected, bytesOf(pool, 256)), "");
  Bytes content(256, kDirty);
  for (std::size_t i = 0; i < 10; ++i) {
    store<void *>(content.data(), i * 16, i == 0 ? at(pool, 40 + 7 * 16) : area + (i - 1) * 16);
    store<void *>(content.data(), i * 16 + 8, i == 0 ? area : nullptr);
  }
  store<void *>(content.data(), 160, nullptr);
  EXPECT_EQ(changedRanges(content, bytesOf(area, 256)), "");

  const auto [nextCell, nextArea] = grow(pool);
  EXPECT_EQ(nextCell, nextArea) << "the new nodes are vacant but for the first";
  EXPECT_EQ(pointerAt(area, 16 + 8), nextArea);
  close(pool);
}

struct NodeBlockCase {
  std::int32_t areaLen;
  std::int32_t cellLen;
  std::size_t nodeCount;
  std::size_t firstCell;
  std::size_t cellCount;
};

// A node block without a control block before it takes 128 bytes or more of its own.
TEST_F(CellGrowthTest, NodeBlockOfAFurtherArea) {
  const NodeBlockCase rows[] = {
      {1024, 100, 14, 224, 8},  // 24 + 2 * 100
      {960, 416, 8, 128, 2},    // 128 are left over anyway
      {959, 416, 33, 528, 1},   // one byte less
      {961, 416, 8, 128, 2},   {975, 416, 8, 128, 2},
      {976, 416, 9, 144, 2},   {1024, 856, 10, 160, 1},  // 168 are left over anyway
      {256, 8, 8, 128, 16},    {1024, 9, 8, 128, 99},
  };
  for (const NodeBlockCase &row : rows) {
    SCOPED_TRACE(std::to_string(row.areaLen) + ", " + std::to_string(row.cellLen));
    HMEMCELL pool = open(row.areaLen, row.cellLen);
    const std::uint8_t *head = pointerAt(pool, 8);
    std::uint8_t *cell = nullptr;
    std::uint8_t *area = nullptr;
    while (pointerAt(pool, 8) == head) std::tie(cell, area) = grow(pool);
    EXPECT_EQ(pointerAt(pool, 8), area + (row.nodeCount - 1) * 16);
    EXPECT_EQ(pointerAt(area, 0), head);
    EXPECT_EQ(pointerAt(area, 8), area);
    EXPECT_EQ(cell, area + row.firstCell);
    for (std::size_t i = 1; i < row.cellCount; ++i) {
      EXPECT_EQ(alloc(pool), cell + i * static_cast<std::size_t>(row.cellLen));
    }
    EXPECT_EQ(pointerAt(pool, 16), nullptr);
    close(pool);
  }
}

TEST_F(CellGrowthTest, RefusedAreaLeavesThePoolAsItWas) {
  HMEMCELL pool = openUsedUp(256, 88);
  for (int areas = 1; areas < 10; ++areas) {  // with and without vacant nodes
    SCOPED_TRACE(areas);
    while (pointerAt(pool, 16) != nullptr) alloc(pool);
    const Bytes before = bytesOf(pool, 256);
    void *cell = untouched();
    watch.uses.clear();
    watch.refuseStorage = 1;
    expectFails(4013, "Memory Alloc failed", NameBy::kMessage,
                [&] { return mem.MEM_CellAllocEntry(pool, &cell); });
    host.arm(faultOf(Service::GetStorage, 777));
    expectFails(4013, "Memory Alloc failed", NameBy::kMessage,
                [&] { return mem.MEM_CellAllocEntry(pool, &cell); });
    EXPECT_EQ(cell, untouched());
    EXPECT_EQ(watch.takeLines(), (Lines{"8(256, 7)", "8(256, 7)"}));
    EXPECT_EQ(changedRanges(before, bytesOf(pool, 256)), "");
    const auto [served, area] = grow(pool);
    EXPECT_EQ(served, areas % 17 == 8 ? area + 160 : area);
  }
  close(pool);
}

TEST_F(CellGrowthTest, FreedCellsAreUsedBeforeThePoolGrows) {
  HMEMCELL pool = openUsedUp(1024, 100);
  free(pool, at(pool, 516));
  EXPECT_EQ(alloc(pool), at(pool, 516));
  EXPECT_TRUE(watch.uses.empty());
  std::uint8_t *cell = alloc(pool);
  EXPECT_EQ(cell, obtained());
  close(pool);
}

TEST_F(CellGrowthTest, FurtherAreasComeFromThePoolsSubPool) {
  for (const std::int16_t subPool : Shorts{0, 230, 32767, -1, -5, -256, -32768}) {
    SCOPED_TRACE(subPool);
    HMEMCELL pool = open(300, 100, subPool);
    while (watch.uses.size() < 3) alloc(pool);
    const std::string each = "8(300, " + std::to_string(subPool) + ")";
    EXPECT_EQ(watch.takeLines(), (Lines{each, each, each}));
    close(pool);
    const std::vector<SlotUse> returned = watch.takeUsesOf(9);
    ASSERT_EQ(returned.size(), 3U);
    for (const SlotUse &use : returned) {
      EXPECT_EQ(use.length, 300);
      EXPECT_EQ(use.subPool, subPool);
    }
  }
}

TEST_F(CellGrowthTest, GrowthCallsStorageInsideTheAllocationsFrame) {
  HMEMCELL pool = openUsedUp(1024, 100);
  EXPECT_EQ(hostCalls([&] { alloc(pool); }),
            framed("MemCellAllocEntry", allocLines(1024, kSubPool)));
  close(pool);
}

// Handles.

using HandleFn = std::int16_t(MEMFunctionVector &, HMEMCELL);

struct HandleCase {
  const char *name;
  HandleFn *call;
  NameBy nameBy;
};

void *cellOfHandleCase;

constexpr HandleCase kHandleCases[] = {
    {"Close", [](MEMFunctionVector &mem, HMEMCELL pool) { return mem.MEM_CellClose(pool); },
     NameBy::kItself},
    {"Clear", [](MEMFunctionVector &mem, HMEMCELL pool) { return mem.MEM_CellClear(pool); },
     NameBy::kItself},
    {"Alloc",
     [](MEMFunctionVector &mem, HMEMCELL pool) {
       return mem.MEM_CellAllocEntry(pool, &cellOfHandleCase);
     },
     NameBy::kMessage},
    {"Free",
     [](MEMFunctionVector &mem, HMEMCELL pool) {
       return mem.MEM_CellFreeEntry(pool, cellOfHandleCase);
     },
     NameBy::kItself},
};

void PrintTo(const HandleCase &row, std::ostream *out) {
  *out << row.name;
}

class CellHandleTest : public CellTest, public ::testing::WithParamInterface<HandleCase> {
 protected:
  CellHandleTest() { cellOfHandleCase = untouched(); }

  void expectRefused(HMEMCELL pool) {
    expectFails(4014, invalidHandle(pool), GetParam().nameBy,
                [&] { return GetParam().call(mem, pool); });
    EXPECT_EQ(cellOfHandleCase, untouched());
    EXPECT_TRUE(watch.uses.empty());
  }
};

INSTANTIATE_TEST_SUITE_P(Services, CellHandleTest, ::testing::ValuesIn(kHandleCases),
                         caseName<HandleCase>);

TEST_P(CellHandleTest, NullIsRefused) {
  expectRefused(nullptr);
}

TEST_P(CellHandleTest, EveryCharacterOfTheEyeCatcherCounts) {
  HMEMCELL pool = open(1024, 100);
  watch.uses.clear();
  for (std::size_t i = 0; i < 8; ++i) {
    SCOPED_TRACE(i);
    const Bytes before = bytesOf(pool, 1024);
    *at(pool, i) ^= 0x20;
    const Bytes changed = bytesOf(pool, 1024);
    expectRefused(pool);
    EXPECT_EQ(changedRanges(changed, bytesOf(pool, 1024)), "");
    *at(pool, i) = before[i];
  }
  close(pool);
}

TEST_P(CellHandleTest, OtherHandlesAreRefused) {
  for (const char *eyecatcher : {"QQQHEAP1", "ENHHEAP1", "QQQQHASH", "QQQCELL2", "qqqcell1"}) {
    SCOPED_TRACE(eyecatcher);
    alignas(8) char block[64] = {};
    std::memcpy(block, eyecatcher, 8);
    expectRefused(reinterpret_cast<HMEMCELL>(block));
  }
}

TEST_P(CellHandleTest, ClosedPoolIsRefusedWhileItsStorageIsNotReused) {
  HMEMCELL pool = open(256, 88);
  alloc(pool, 3);
  watch.keepFreed = true;
  close(pool);
  watch.uses.clear();
  expectRefused(pool);
  EXPECT_TRUE(allBytesAre(pool, 8, 0));
}

// Clear and close.

class CellEndTest : public CellTest {
 protected:
  static constexpr std::size_t kAreas = 12;

  // A pool of kAreas areas, among them one with nodes of its own; the areas, oldest first.
  HMEMCELL openLarge() {
    HMEMCELL pool = open(256, 88, -5);
    while (watch.uses.size() < kAreas) cells.push_back(alloc(pool));
    areas.clear();
    for (const SlotUse &use : watch.takeUsesOf(8)) areas.push_back(use.object);
    return pool;
  }

  AddressNames names() const {
    AddressNames names;
    for (std::size_t i = 0; i < areas.size(); ++i) {
      names[asNumber(areas[i])] = "area " + std::to_string(i);
    }
    return names;
  }

  static Lines returns(std::size_t from, std::size_t to) {
    Lines lines;
    for (std::size_t i = from + 1; i-- > to;) {
      lines.push_back("9(area " + std::to_string(i) + ", 256, -5)");
    }
    return lines;
  }

  std::vector<const void *> areas;
  std::vector<std::uint8_t *> cells;
};

TEST_F(CellEndTest, CloseReturnsAreasNewestFirst) {
  for (const bool soil : {false, true}) {
    HMEMCELL pool = openLarge();
    watch.keepFreed = watch.soilFreed = soil;  // what has been returned is not read again
    close(pool);
    EXPECT_EQ(watch.takeLines(names()), returns(kAreas - 1, 0));
    watch.keepFreed = false;
    watch.releaseKept();
    EXPECT_EQ(host.account(5).liveCount, 0U);
  }
}

TEST_F(CellEndTest, ClearReturnsAllButTheFirstAreaNewestFirst) {
  for (const bool soil : {false, true}) {
    HMEMCELL pool = openLarge();
    const Bytes reserved = bytesOf(at(pool, 34), 6);
    watch.keepFreed = watch.soilFreed = soil;
    EXPECT_EQ(mem.MEM_CellClear(pool), 0);
    watch.keepFreed = false;
    EXPECT_EQ(watch.takeLines(names()), returns(kAreas - 1, 1));
    watch.releaseKept();
    EXPECT_EQ(host.account(5).liveCount, 1U);
    EXPECT_EQ(changedRanges(reserved, bytesOf(at(pool, 34), 6)), "");
    close(pool);
    EXPECT_EQ(watch.takeLines(names()), returns(0, 0));
  }
}

TEST_F(CellEndTest, ClearedPoolGrowsAsAFreshOne) {
  HMEMCELL pool = openLarge();
  EXPECT_EQ(mem.MEM_CellClear(pool), 0);
  watch.uses.clear();
  EXPECT_EQ(alloc(pool), at(pool, 168));
  EXPECT_TRUE(allBytesAre(at(pool, 168), 88, 0)) << "nothing of earlier cells is left";
  for (std::size_t i = 1; i < 8; ++i) {
    std::uint8_t *cell = alloc(pool);
    std::uint8_t *area = obtained();
    EXPECT_EQ(cell, area);
    EXPECT_EQ(alloc(pool), area + 88);
    EXPECT_EQ(pointerAt(pool, 40 + 16 * i + 8), area);
  }
  std::uint8_t *cell = alloc(pool);
  EXPECT_EQ(cell, obtained() + 160);
  close(pool);
}

TEST_F(CellEndTest, ClearOfAPoolWithoutFurtherAreasReturnsNothing) {
  HMEMCELL pool = open(1024, 100);
  watch.uses.clear();
  EXPECT_EQ(hostCalls([&] { EXPECT_EQ(mem.MEM_CellClear(pool), 0); }), framed("MEM_CellClear"));
  EXPECT_TRUE(watch.uses.empty());
  EXPECT_EQ(mem.MEM_CellClear(pool), 0) << "clearing twice";
  EXPECT_EQ(alloc(pool), at(pool, 216));
  close(pool);
}

TEST_F(CellEndTest, PoolOfThreeAreasIsCleared) {
  HMEMCELL pool = open(1024, 100);
  alloc(pool, 8 + 10 + 1);
  EXPECT_EQ(host.account(kSubPool).liveCount, 3U);
  EXPECT_EQ(mem.MEM_CellClear(pool), 0);
  EXPECT_EQ(host.account(kSubPool).liveBytes, 1024U);
  EXPECT_EQ(alloc(pool), at(pool, 216));
  close(pool);
}

TEST_F(CellEndTest, EyeCatcherIsGoneBeforeAreasAreReturned) {
  static std::vector<std::string> seen;
  static HMEMCELL pool;
  static MEMFunctionVector own;
  seen.clear();
  pool = open(256, 88);
  alloc(pool, 2);
  own = mem;
  mem.MEM_Free = [](void *area, std::uint32_t size, std::int16_t subPool) {
    seen.push_back(eyecatcher(pool));
    own.MEM_Free(area, size, subPool);
  };
  close(pool);
  EXPECT_EQ(seen, (Lines{std::string(8, '\0'), std::string(8, '\0')}));
}

TEST_F(CellEndTest, ErrorAreaOfReturnsIsNotExamined) {
  mem.MEM_Free = [](void *, std::uint32_t, std::int16_t) {};
  HMEMCELL pool = open(256, 88);
  alloc(pool, 2);
  const std::vector<SlotUse> uses = watch.takeUsesOf(8);
  expectEnds(0, [&] { return mem.MEM_CellClear(pool); });
  expectEnds(0, [&] { return mem.MEM_CellClose(pool); });
  host.restoreSlots();
  for (const SlotUse &use : uses) mem.MEM_Free(const_cast<void *>(use.object), 256, kSubPool);
}

// Trace records.

class CellTraceTest : public CellTest {
 protected:
  static constexpr std::uint32_t kBoth = MEM_TRACE_ENTRY | MEM_TRACE_EXIT;

  // Records with their line numbers, "STDE MEM_CellOpen(..\SrcRes\MEMCCELL:173) text".
  template <class Call>
  Lines traced(std::uint32_t flags, Call call) {
    return recordLines(recordsOf(flags, call));
  }

  // Those of cell pools only.
  template <class Call>
  Lines cellTraced(std::uint32_t flags, Call call) {
    Lines lines;
    for (const std::string &line : traced(flags, call)) {
      if (line.find("MEMCCELL:") != std::string::npos) lines.push_back(line);
    }
    return lines;
  }

  static std::string record(const char *type, const char *name, int line, const std::string &text) {
    return std::string(type) + ' ' + name + "(..\\SrcRes\\MEMCCELL:" + std::to_string(line) + ") " +
           text;
  }
  static std::string entry(const char *name, int line, const std::string &text) {
    return record("STDE", name, line, "Parms: " + text);
  }
  static std::string success(const char *name, int line) {
    return record("STDX", name, line, "Return=SUCCESS");
  }
};

TEST_F(CellTraceTest, EveryServiceWritesItsEntryAndExit) {
  HMEMCELL pool = nullptr;
  const Lines opened = cellTraced(kBoth, [&] { mem.MEM_CellOpen(&pool, 1024, 100, -5); });
  EXPECT_EQ(opened,
            (Lines{entry("MEM_CellOpen", 173,
                         "phMemCell=" + lowHex(&pool) + ", AreaLen=1024, CellLen=100, SubPool=-5"),
                   record("STDX", "MEM_CellOpen", 218,
                          "Cell Object=" + refhost::formatText("%08X", pool))}));
  void *cell = nullptr;
  const std::string handle = "hMemCell=" + lowHex(pool);
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_CellAllocEntry(pool, &cell); }),
            (Lines{entry("MemCellAllocEntry", 426, handle + ", ppCell=" + lowHex(&cell)),
                   success("MemCellAllocEntry", 485)}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_CellFreeEntry(pool, cell); }),
            (Lines{entry("MEM_CellFreeEntry", 538, handle + ", pEntry=" + lowHex(cell)),
                   success("MEM_CellFreeEntry", 562)}));
  EXPECT_EQ(traced(kBoth, [&] { mem.MEM_CellClear(pool); }),
            (Lines{entry("MEM_CellClear", 337, refhost::formatText("hMemCell=%lx", pool)),
                   success("MEM_CellClear", 375)}));
  EXPECT_EQ(cellTraced(kBoth, [&] { mem.MEM_CellClose(pool); }),
            (Lines{entry("MemCellClose", 268, handle), success("MemCellClose", 291)}));
}

TEST_F(CellTraceTest, FlagsChooseTheRecords) {
  HMEMCELL pool = nullptr;
  void *cell = nullptr;
  const auto life = [&] {
    pool = open(256, 88);
    mem.MEM_CellAllocEntry(pool, &cell);
    mem.MEM_CellAllocEntry(pool, &cell);
    mem.MEM_CellFreeEntry(pool, cell);
    mem.MEM_CellFreeEntry(pool, nullptr);
    mem.MEM_CellClear(pool);
    close(pool);
  };
  for (const std::uint32_t flag : {MEM_TRACE_ENTRY, MEM_TRACE_EXIT}) {
    const Lines lines = cellTraced(flag, life);
    EXPECT_EQ(lines.size(), 7U);
    for (const std::string &line : lines) {
      EXPECT_EQ(line.substr(0, 4), flag == MEM_TRACE_ENTRY ? "STDE" : "STDX");
    }
  }
  EXPECT_EQ(traced(~kBoth, life), (Lines{}));
}

TEST_F(CellTraceTest, StorageCallsLieBetweenTheRecords) {
  HMEMCELL pool = nullptr;
  Lines lines = pointLines(recordsOf(kBoth, [&] { pool = open(256, 88); }));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1].substr(0, 13), "STDE MemAlloc");
  EXPECT_EQ(lines[2].substr(0, 13), "STDX MemAlloc");
  alloc(pool);
  lines = pointLines(recordsOf(kBoth, [&] { alloc(pool); }));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1].substr(0, 13), "STDE MemAlloc");
  EXPECT_EQ(lines[2].substr(0, 13), "STDX MemAlloc");
  lines = pointLines(recordsOf(kBoth, [&] { mem.MEM_CellClear(pool); }));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1].substr(0, 13), "STDE MEM_Free");
  lines = pointLines(recordsOf(kBoth, [&] { close(pool); }));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[2].substr(0, 13), "STDX MEM_Free");
}

TEST_F(CellTraceTest, FailuresHaveNoExitRecord) {
  HMEMCELL other = nullptr;
  void *cell = nullptr;
  HMEMCELL pool = open(256, 88);
  alloc(pool);
  const std::string atOpen = "phMemCell=" + lowHex(&other);
  const std::string cellAt = ", ppCell=" + lowHex(&cell);
  const struct {
    const char *name;
    int line;
    std::string text;
    std::function<void()> call;
  } rows[] = {
      {"MEM_CellOpen", 173, atOpen + ", AreaLen=-2147483648, CellLen=2147483647, SubPool=-32768",
       [&] { mem.MEM_CellOpen(&other, kLowest, kLongest, -32768); }},
      {"MEM_CellOpen", 173, atOpen + ", AreaLen=256, CellLen=89, SubPool=32767",
       [&] { mem.MEM_CellOpen(&other, 256, 89, 32767); }},
      {"MEM_CellOpen", 173, atOpen + ", AreaLen=256, CellLen=-1, SubPool=0",
       [&] { mem.MEM_CellOpen(&other, 256, -1, 0); }},
      {"MEM_CellOpen", 173, atOpen + ", AreaLen=256, CellLen=8, SubPool=0",
       [&] { mem.MEM_CellOpen(&other, 256, 8, 0); }},
      {"MemCellClose", 268, "hMemCell=0", [&] { mem.MEM_CellClose(nullptr); }},
      {"MEM_CellClear", 337, "hMemCell=0", [&] { mem.MEM_CellClear(nullptr); }},
      {"MemCellAllocEntry", 426, "hMemCell=0" + cellAt,
       [&] { mem.MEM_CellAllocEntry(nullptr, &cell); }},
      {"MemCellAllocEntry", 426, "hMemCell=" + lowHex(pool) + cellAt,
       [&] { mem.MEM_CellAllocEntry(pool, &cell); }},
      {"MEM_CellFreeEntry", 538, "hMemCell=0, pEntry=" + lowHex(&cell),
       [&] { mem.MEM_CellFreeEntry(nullptr, &cell); }},
  };
  for (const auto &row : rows) {
    watch.refuseStorage = 1;  // which only those come to that have no other failure
    EXPECT_EQ(traced(kBoth, row.call), Lines{entry(row.name, row.line, row.text)});
  }
  watch.refuseStorage = 0;
  close(pool);
}

// What a short address does not show: how many digits there are at least.
TEST_F(CellTraceTest, FormatsOfTexts) {
  HMEMCELL pool = nullptr;
  void *cell = nullptr;
  host.setTraceFlags(kBoth);
  EXPECT_EQ(formats([&] { pool = open(256, 88); }),
            (Lines{"MEM_CellOpen: Parms: phMemCell=%lX, AreaLen=%ld, CellLen=%ld, SubPool=%hd",
                   "MEM_CellOpen: Cell Object=%08X"}));
  EXPECT_EQ(formats([&] { mem.MEM_CellAllocEntry(pool, &cell); }),
            (Lines{"MemCellAllocEntry: Parms: hMemCell=%lX, ppCell=%lX"}));
  EXPECT_EQ(formats([&] { free(pool, cell); }),
            (Lines{"MEM_CellFreeEntry: Parms: hMemCell=%lX, pEntry=%lX"}));
  EXPECT_EQ(formats([&] { mem.MEM_CellClear(pool); }),
            (Lines{"MEM_CellClear: Parms: hMemCell=%lx"}));
  EXPECT_EQ(formats([&] { close(pool); }), (Lines{"MemCellClose: Parms: hMemCell=%lX"}));
  host.setTraceFlags(0);
}

TEST_F(CellTraceTest, OnlyExitTextsWithAnAddressAreFormatted) {
  host.setTraceFlags(MEM_TRACE_EXIT);
  HMEMCELL pool = open(1024, 100);
  host.resetCalls();
  free(pool, alloc(pool));
  mem.MEM_CellClear(pool);
  EXPECT_EQ(host.calls(Service::Format), 0U);
  EXPECT_EQ(host.calls(Service::WriteRecord), 3U);
  host.setTraceFlags(0);
  close(pool);
}

// Hosts without a thread environment or trace buffer.

class CellBareHostTest : public CellTest {
 protected:
  void useAll() {
    host.setTraceFlags(0xFFFFFFFFU);
    HMEMCELL pool = open(256, 88);
    std::uint8_t *cell = alloc(pool);
    alloc(pool);
    free(pool, cell);
    EXPECT_EQ(alloc(pool), cell);
    auto *other = static_cast<HMEMCELL>(untouched());
    EXPECT_EQ(mem.MEM_CellOpen(&other, 255, 8, 0), kFailed);
    EXPECT_EQ(mem.MEM_CellOpen(&other, 256, 89, 0), kFailed);
    EXPECT_EQ(mem.MEM_CellOpen(&other, 256, 7, 0), kFailed);
    watch.refuseStorage = 1;
    EXPECT_EQ(mem.MEM_CellOpen(&other, 256, 8, 0), kFailed);
    EXPECT_EQ(other, untouched());
    for (const HandleCase &row : kHandleCases) EXPECT_EQ(row.call(mem, nullptr), kFailed);
    EXPECT_EQ(mem.MEM_CellClear(pool), 0);
    close(pool);
    host.setTraceFlags(0);
  }
};

TEST_F(CellBareHostTest, MissingThreadEnvironmentIsTolerated) {
  const Bytes before = envBytes(env());
  host.withoutThreadEnv(true);
  useAll();
  host.withoutThreadEnv(false);
  EXPECT_EQ(changedRanges(before, envBytes(env())), "");
}

TEST_F(CellBareHostTest, MissingTraceBufferIsTolerated) {
  MEMTraceBuf *const buffer = env().pTraceBuf;
  env().pTraceBuf = nullptr;
  useAll();
  env().pTraceBuf = buffer;
}

// Freed cells and cleared pools stay inside the pool's storage at any length.
TEST_F(CellTest, FreeAndClearStayInsideTheArea) {
  for (const std::int32_t cellLen : {8, 9, 13, 15, 17, 87, 88}) {
    SCOPED_TRACE(cellLen);
    alignas(8) static std::uint8_t storage[16 + 256 + 16];
    std::memset(storage, 0x99, sizeof storage);
    mem.MEM_Alloc = [](std::uint32_t, std::int16_t) -> void * { return storage + 16; };
    mem.MEM_Free = [](void *, std::uint32_t, std::int16_t) {};
    HMEMCELL pool = open(256, cellLen);
    while (pointerAt(pool, 16) != nullptr) free(pool, alloc(pool)), alloc(pool);
    EXPECT_EQ(mem.MEM_CellClear(pool), 0);
    EXPECT_TRUE(allBytesAre(storage, 16, 0x99));
    EXPECT_TRUE(allBytesAre(storage + 16 + 256, 16, 0x99));
    close(pool);
    EXPECT_TRUE(allBytesAre(storage + 16 + 256, 16, 0x99));
  }
}

}  // namespace
}  // namespace memtest
