// A model of a cell pool that knows nothing of the library, and a driver that makes each call on a
// real pool and on its model and compares: results, errors, requests and returns of storage,
// addresses, and at any time all memory. Storage may be refused at any call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "heapmodel.hpp"

namespace memtest {

// The format of cell pools, written here a second time, on purpose.
inline constexpr std::size_t kCellHeaderLen = 40;
inline constexpr std::size_t kCellNodeLen = 16;
inline constexpr std::size_t kLeastNodeBytes = 128;

// The layout of an area.
struct AreaShape {
  std::size_t nodeCount;  // nodes follow the header
  std::size_t firstCell;  // offset
  std::size_t cellCount;
};

// Of an area with `headerLen` bytes before its nodes: as many whole cells as leave room for the
// fewest nodes, pushed to the area's end; what is before them becomes nodes; and then the cells
// move down to the last node.
inline AreaShape shapeWithNodes(std::size_t areaLen, std::size_t cellLen, std::size_t headerLen) {
  const std::size_t cells = (areaLen - headerLen - kLeastNodeBytes) / cellLen;
  const std::size_t nodes = (areaLen - cells * cellLen - headerLen) / kCellNodeLen;
  const std::size_t firstCell = headerLen + nodes * kCellNodeLen;
  return {nodes, firstCell, (areaLen - firstCell) / cellLen};
}

inline AreaShape shapeWithoutNodes(std::size_t areaLen, std::size_t cellLen) {
  return {0, 0, areaLen / cellLen};
}

// Nodes, in the order in which they were made, record the areas in the order in which those were
// allocated; free cells are a stack.
class PoolModel {
 public:
  // What a cell holds after its first 8 bytes.
  struct FreeCell {
    std::uint8_t *address;
    std::uint8_t filling;
  };

  PoolModel(std::uint8_t *header, std::size_t areaLen, std::size_t cellLen, std::uint8_t filling)
      : areaLen_(areaLen), cellLen_(cellLen) {
    addFirstArea(header, filling);
  }

  bool mustGrow() const { return free_.empty(); }

  void addArea(std::uint8_t *area, std::uint8_t filling) {
    const bool hasVacantNode = nodes_.size() > areas_.size();
    addArea(area, filling,
            hasVacantNode ? shapeWithoutNodes(areaLen_, cellLen_)
                          : shapeWithNodes(areaLen_, cellLen_, 0),
            0);
  }

  FreeCell take() {
    const FreeCell cell = free_.back();
    free_.pop_back();
    return cell;
  }

  void give(std::uint8_t *cell) { free_.push_back({cell, 0}); }

  void clear() {
    std::uint8_t *const header = areas_.front();
    nodes_.clear();
    areas_.clear();
    free_.clear();
    addFirstArea(header, 0);
  }

  // Areas in the order in which clear (without the first) and close return them.
  std::vector<std::uint8_t *> areasNewestFirst() const {
    return std::vector<std::uint8_t *>(areas_.rbegin(), areas_.rend());
  }

  // Control block, node list and free cells are in memory as modelled.
  void expectMemory(std::int16_t subPool) const {
    const std::uint8_t *header = areas_.front();
    const Layout expected = Layout()
                                .text("QQQCELL1")
                                .address(nodes_.back())
                                .address(free_.empty() ? nullptr : free_.back().address)
                                .field(static_cast<std::int32_t>(areaLen_))
                                .field(static_cast<std::int32_t>(cellLen_))
                                .field(subPool);
    EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(header, 34)), "");
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      EXPECT_EQ(load<std::uint8_t *>(nodes_[i], 0), i == 0 ? nullptr : nodes_[i - 1]) << i;
      EXPECT_EQ(load<std::uint8_t *>(nodes_[i], 8), i < areas_.size() ? areas_[i] : nullptr) << i;
    }
    for (std::size_t i = 0; i < free_.size(); ++i) {
      const auto [cell, filling] = free_[i];
      ASSERT_EQ(load<std::uint8_t *>(cell, 0), i == 0 ? nullptr : free_[i - 1].address);
      ASSERT_TRUE(allBytesAre(cell + 8, cellLen_ - 8, filling));
    }
  }

  std::size_t freeCount() const { return free_.size(); }
  std::size_t nodeCount() const { return nodes_.size(); }

 private:
  void addFirstArea(std::uint8_t *header, std::uint8_t filling) {
    addArea(header, filling, shapeWithNodes(areaLen_, cellLen_, kCellHeaderLen), kCellHeaderLen);
  }

  void addArea(std::uint8_t *area, std::uint8_t filling, const AreaShape &shape,
               std::size_t headerLen) {
    areas_.push_back(area);
    for (std::size_t i = 0; i < shape.nodeCount; ++i) {
      nodes_.push_back(area + headerLen + i * kCellNodeLen);
    }
    for (std::size_t i = shape.cellCount; i > 0; --i) {
      free_.push_back({area + shape.firstCell + (i - 1) * cellLen_, filling});
    }
  }

  std::size_t areaLen_;
  std::size_t cellLen_;
  std::vector<std::uint8_t *> nodes_;  // oldest first
  std::vector<std::uint8_t *> areas_;  // oldest first
  std::vector<FreeCell> free_;         // the next to be allocated is last
};

// A pool of the library with its model and what a caller has written into its cells.
class CheckedPool {
 public:
  CheckedPool(Stage &stage, std::int32_t areaLen, std::int32_t cellLen, std::int16_t subPool)
      : stage_(stage),
        areaLen_(areaLen),
        cellLen_(static_cast<std::size_t>(cellLen)),
        subPool_(subPool) {
    stage_.watch.uses.clear();
    auto *handle = static_cast<HMEMCELL>(untouched());
    const std::int16_t result = stage_.mem.MEM_CellOpen(&handle, areaLen, cellLen, subPool);
    std::uint8_t *header = takeArea();
    if (header == nullptr) {
      expectOutcome(stage_, result, kNoStorage);
      EXPECT_EQ(handle, untouched());
      return;
    }
    expectOutcome(stage_, result, {});
    EXPECT_EQ(static_cast<void *>(handle), header);
    handle_ = handle;
    model_.emplace(header, static_cast<std::size_t>(areaLen), cellLen_, stage_.dirty);
  }

  bool isOpen() const { return handle_ != nullptr; }
  std::size_t outCount() const { return out_.size(); }
  std::size_t freeCount() const { return model_->freeCount(); }
  std::size_t nodeCount() const { return model_->nodeCount(); }

  // Takes a cell and writes a pattern of its own into it.
  void alloc() {
    void *cell = untouched();
    const std::int16_t result = stage_.mem.MEM_CellAllocEntry(handle_, &cell);
    if (model_->mustGrow()) {
      std::uint8_t *area = takeArea();
      if (area == nullptr) {
        expectOutcome(stage_, result, kNoStorage);
        EXPECT_EQ(cell, untouched());
        return;
      }
      ++stage_.tally.areas;
      model_->addArea(area, stage_.dirty);
    }
    expectOutcome(stage_, result, {});
    EXPECT_TRUE(stage_.watch.uses.empty()) << "storage without need";
    const PoolModel::FreeCell expected = model_->take();
    ASSERT_EQ(cell, expected.address);
    ASSERT_TRUE(allBytesAre(cell, 8, 0));
    ASSERT_TRUE(allBytesAre(at(cell, 8), cellLen_ - 8, expected.filling));
    pattern_ = static_cast<std::uint8_t>(pattern_ * 5 + 1);  // all 256 values in turn
    std::memset(cell, pattern_, cellLen_);
    out_.push_back({expected.address, pattern_});
  }

  // Frees the cell that was taken as the `index`-th of those that are out.
  void free(std::size_t index) {
    const auto [cell, pattern] = out_[index];
    EXPECT_TRUE(allBytesAre(cell, cellLen_, pattern)) << "somebody else wrote into a cell";
    EXPECT_EQ(stage_.mem.MEM_CellFreeEntry(handle_, cell), 0);
    EXPECT_TRUE(stage_.watch.uses.empty());
    model_->give(cell);
    out_.erase(out_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  void clear() {
    std::vector<std::uint8_t *> areas = model_->areasNewestFirst();
    areas.pop_back();
    EXPECT_EQ(stage_.mem.MEM_CellClear(handle_), 0);
    expectReturned(areas);
    model_->clear();
    out_.clear();
  }

  void close() {
    check();
    EXPECT_EQ(stage_.mem.MEM_CellClose(handle_), 0);
    expectReturned(model_->areasNewestFirst());
    handle_ = nullptr;
  }

  void check() const {
    model_->expectMemory(subPool_);
    for (const auto &[cell, pattern] : out_) {
      ASSERT_TRUE(allBytesAre(cell, cellLen_, pattern)) << "somebody else wrote into a cell";
    }
  }

 private:
  inline static const Outcome kNoStorage = {4013, "Memory Alloc failed"};

  std::uint8_t *takeArea() {
    StorageTrail trail(stage_);
    return trail.take(static_cast<std::uint32_t>(areaLen_), static_cast<std::uint16_t>(subPool_));
  }

  // These areas, and nothing else, went to slot 9 in this order.
  void expectReturned(const std::vector<std::uint8_t *> &areas) {
    Lines expected;
    AddressNames names;
    for (const std::uint8_t *area : areas) {
      names[asNumber(area)] = hex16(area);
      expected.push_back("9(" + hex16(area) + ", " + std::to_string(areaLen_) + ", " +
                         std::to_string(subPool_) + ")");
    }
    EXPECT_EQ(stage_.watch.takeLines(names), expected);
  }

  Stage &stage_;
  std::int32_t areaLen_;
  std::size_t cellLen_;
  std::int16_t subPool_;
  HMEMCELL handle_ = nullptr;
  std::optional<PoolModel> model_;                            // set once the pool has been opened
  std::vector<std::pair<std::uint8_t *, std::uint8_t>> out_;  // cells with their patterns
  std::uint8_t pattern_ = 0;
};

}  // namespace memtest
