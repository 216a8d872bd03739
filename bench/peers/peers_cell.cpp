// Cells: blocks of one length that are allocated and freed one by one.
#include <array>
#include <boost/pool/pool.hpp>
#include <cstdlib>
#include <cstring>
#include <memory_resource>
#include <set>
#include <vector>

#include "peers_mimalloc.hpp"
#include "peers_tables.hpp"
#include "peers_work.hpp"

namespace bench {

namespace {

constexpr std::size_t kCellLen = 64;
constexpr std::size_t kLive = 1000;
constexpr std::int64_t kRounds = 10;

class LibraryCells {
 public:
  explicit LibraryCells(BenchSession &session) : mem_(session.mem()) {
    require(mem_.MEM_CellOpen(&pool_, 65536, kCellLen, 0), "MEM_CellOpen");
  }
  ~LibraryCells() { mem_.MEM_CellClose(pool_); }
  LibraryCells(const LibraryCells &) = delete;
  LibraryCells &operator=(const LibraryCells &) = delete;

  void *take() {
    void *cell = nullptr;
    mem_.MEM_CellAllocEntry(pool_, &cell);
    return cell;
  }
  void giveBack(void *cell) { mem_.MEM_CellFreeEntry(pool_, cell); }

 private:
  MEMFunctionVector &mem_;
  HMEMCELL pool_ = nullptr;
};

struct CLibraryCells {
  void *take() { return std::malloc(kCellLen); }
  void giveBack(void *cell) { std::free(cell); }
};

struct MimallocCells {
  void *take() { return mimalloc().malloc(kCellLen); }
  void giveBack(void *cell) { mimalloc().free(cell); }
};

class BoostCells {
 public:
  void *take() { return pool_.malloc(); }
  void giveBack(void *cell) { pool_.free(cell); }

 private:
  boost::pool<> pool_{kCellLen};
};

class PmrCells {
 public:
  void *take() { return resource_.allocate(kCellLen, 8); }
  void giveBack(void *cell) { resource_.deallocate(cell, kCellLen, 8); }

 private:
  std::pmr::unsynchronized_pool_resource resource_;
};

template <class Cells>
class CellWork {
 public:
  template <class... Args>
  explicit CellWork(Args &...args) : cells_(args...) {}

  // Live cells keep their contents, and freed cells are allocated again.
  void check() {
    constexpr int kManyRounds = 20;
    std::set<void *> different;
    for (int round = 0; round < kManyRounds; ++round) {
      takeAll();
      for (std::size_t i = 0; i < kLive; ++i) {
        std::memset(taken_[i], static_cast<int>(i % 251), kCellLen);
      }
      for (std::size_t i = 0; i < kLive; ++i) {
        const auto *bytes = static_cast<const unsigned char *>(taken_[i]);
        demand(bytes[0] == i % 251 && bytes[kCellLen - 1] == i % 251, "cells overlap");
      }
      different.insert(taken_.begin(), taken_.end());
      giveBackAll();
    }
    demand(different.size() < kManyRounds * kLive, "no cell is reused");
  }

 protected:
  void takeAll() {
    for (void *&cell : taken_) cell = cells_.take();
  }
  void giveBackAll() {
    for (void *cell : taken_) cells_.giveBack(cell);
  }

  Cells cells_;
  std::array<void *, kLive> taken_{};
};

// 1,000 cells are allocated, then all are freed in the same order. An operation is one cell
// allocated and freed.
template <class Cells>
class Churn : public CellWork<Cells> {
 public:
  using CellWork<Cells>::CellWork;
  std::int64_t run() {
    for (std::int64_t round = 0; round < kRounds; ++round) {
      this->takeAll();
      this->giveBackAll();
    }
    return kRounds * static_cast<std::int64_t>(kLive);
  }
};

// A cell is freed before the next one is allocated.
template <class Cells>
class Pairs : public CellWork<Cells> {
 public:
  using CellWork<Cells>::CellWork;
  std::int64_t run() {
    for (std::int64_t i = 0; i < kRounds * static_cast<std::int64_t>(kLive); ++i) {
      void *cell = this->cells_.take();
      benchmark::DoNotOptimize(cell);
      this->cells_.giveBack(cell);
    }
    return kRounds * static_cast<std::int64_t>(kLive);
  }
};

// Allocating alone and freeing alone, for the comparison with the floor.
class TakeOnly : public CellWork<LibraryCells> {
 public:
  using CellWork::CellWork;
  void prepare() {
    if (taken_[0] != nullptr) giveBackAll();
  }
  std::int64_t run() {
    takeAll();
    return kLive;
  }
};

class GiveBackOnly : public CellWork<LibraryCells> {
 public:
  using CellWork::CellWork;
  void prepare() { takeAll(); }
  std::int64_t run() {
    giveBackAll();
    return kLive;
  }
};

template <template <class> class Work>
void addTable(const std::string &table) {
  addLibraryUnderBothHosts(table + "/MEM_CellAllocEntry, MEM_CellFreeEntry",
                           [](BenchSession &session) { return Work<LibraryCells>(session); });
  addPeer(table + "/malloc and free", [] { return Work<CLibraryCells>(); });
  addPeer(table + "/mi_malloc and mi_free", [] { return Work<MimallocCells>(); });
  addPeer(table + "/Boost.Pool", [] { return Work<BoostCells>(); });
  addPeer(table + "/pmr unsynchronized pool", [] { return Work<PmrCells>(); });
}

}  // namespace

void addCells() {
  addTable<Churn>("cell-churn");
  addTable<Pairs>("cell-pair");
  addLibraryUnderBothHosts("cell-half/MEM_CellAllocEntry",
                           [](BenchSession &session) { return TakeOnly(session); });
  addLibraryUnderBothHosts("cell-half/MEM_CellFreeEntry",
                           [](BenchSession &session) { return GiveBackOnly(session); });
}

}  // namespace bench
