// Cost of the checking layer and of its statistics: the same work without a layer, with it, with
// statistics of all slots as well, with statistics alone, and after the layer has been detached.
// Only the library, under the bench host. bench/performance.py makes the table "The checking layer"
// of docs/performance.md from the figures.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "benchlib.hpp"
#include "peers_host.hpp"
#include "peers_work.hpp"
#include "qj7mem00/memchk.h"

namespace bench {

namespace {

enum class Mode { none, layer, layerAndStatistics, statistics, detached };

struct NamedMode {
  Mode mode;
  const char *name;
};

constexpr NamedMode kModes[] = {{Mode::none, "none"},
                                {Mode::layer, "layer"},
                                {Mode::layerAndStatistics, "layer and statistics"},
                                {Mode::statistics, "statistics"},
                                {Mode::detached, "detached"}};

std::uint32_t flagsOf(Mode mode) {
  if (mode == Mode::layerAndStatistics) return MEMCHK_STATISTICS;
  return mode == Mode::statistics ? MEMCHK_STATISTICS | MEMCHK_NO_CHECKS : 0;
}

// The layer of a mode. In the mode `detached` it has been attached and detached before.
class Layer {
 public:
  Layer(MEMFunctionVector &mem, Mode mode) {
    if (mode == Mode::none) return;
    MEMCheckOptions options{};
    options.Size = sizeof options;
    options.Flags = flagsOf(mode);
    require(MEMCheckAttach(&mem, &options, &check_), "MEMCheckAttach");
    if (mode != Mode::detached) return;
    { const OpenHeap heap(mem); }
    MEMCheckDetach(check_);
    check_ = nullptr;
  }
  ~Layer() { MEMCheckDetach(check_); }
  Layer(const Layer &) = delete;
  Layer &operator=(const Layer &) = delete;

  MEMCheck *get() const { return check_; }

 private:
  MEMCheck *check_ = nullptr;
};

// The common part of all works. A work checks that the layer is attached, if its mode has one.
class Checked {
 public:
  Checked(BenchSession &session, Mode mode)
      : mem_(session.mem()), mode_(mode), plainSlot_(mem_.MEM_HeapOpen), layer_(mem_, mode) {}

  void check() {
    const bool isAttached = mode_ != Mode::none && mode_ != Mode::detached;
    demand((mem_.MEM_HeapOpen != plainSlot_) == isAttached, "the layer is not that of the mode");
  }

 protected:
  static constexpr std::int32_t kEntryLen = 48;
  static constexpr std::int64_t kBatch = 1000;

  MEMFunctionVector &mem_;

 private:
  const Mode mode_;
  MEM_HeapOpenFn *const plainSlot_;
  const Layer layer_;
};

// A standard heap: opened, 1,000 entries, closed.
class HeapEntries : public Checked {
 public:
  using Checked::Checked;

  std::int64_t run() {
    const OpenHeap heap(mem_);
    void *entry = nullptr;
    for (std::int64_t i = 0; i < kBatch; ++i) {
      require(mem_.MEM_HeapAllocEntryLong(heap.get(), kEntryLen, &entry), "MEM_HeapAllocEntryLong");
    }
    return kBatch;
  }
};

// An enhanced heap: opened, 1,000 entries, each freed, closed.
class EnhancedEntriesAndFrees : public Checked {
 public:
  using Checked::Checked;

  std::int64_t run() {
    HMEMHEAP heap = nullptr;
    require(mem_.MEM_EHeapOpen(&heap, 256, 0), "MEM_EHeapOpen");
    for (void *&entry : entries_) {
      require(mem_.MEM_EHeapAllocEntry(heap, kEntryLen, &entry), "MEM_EHeapAllocEntry");
    }
    for (void *entry : entries_) mem_.MEM_EHeapFreeEntry(heap, kEntryLen, entry);
    mem_.MEM_EHeapClose(heap);
    return kBatch;
  }

 private:
  std::array<void *, kBatch> entries_{};
};

// A cell pool with 1,000 cells in use: one is freed, another allocated.
class CellPairs : public Checked {
 public:
  CellPairs(BenchSession &session, Mode mode) : Checked(session, mode), live_(kBatch) {
    require(mem_.MEM_CellOpen(&pool_, 32768, 64, 0), "MEM_CellOpen");
    for (void *&cell : live_) require(mem_.MEM_CellAllocEntry(pool_, &cell), "MEM_CellAllocEntry");
  }
  ~CellPairs() { mem_.MEM_CellClose(pool_); }
  CellPairs(const CellPairs &) = delete;
  CellPairs &operator=(const CellPairs &) = delete;

  std::int64_t run() {
    for (std::int64_t i = 0; i < kBatch; ++i) {
      mem_.MEM_CellFreeEntry(pool_, live_[next_]);
      mem_.MEM_CellAllocEntry(pool_, &live_[next_]);
      next_ = (next_ + 617) % live_.size();
    }
    return kBatch;
  }

 private:
  HMEMCELL pool_ = nullptr;
  std::vector<void *> live_;
  std::size_t next_ = 0;
};

std::int16_t bucketOf(const void *pKey) {
  return static_cast<std::int16_t>(*static_cast<const std::uint64_t *>(pKey) % 128);
}

// A hash table, whose records are entries of its heap: 1,000 records are inserted and looked up.
class TableRecords : public Checked {
 public:
  using Checked::Checked;

  std::int64_t run() {
    HMEMHASH table = nullptr;
    void *stored = nullptr;
    require(mem_.MEM_HashOpen(&table, 0, 8, 127, bucketOf, 64, 0), "MEM_HashOpen");
    for (std::uint64_t key = 0; key < kBatch; ++key) {
      const std::uint64_t record[4] = {key};
      require(mem_.MEM_HashInsEntry(table, sizeof record, record, &stored), "MEM_HashInsEntry");
    }
    for (std::uint64_t key = 0; key < kBatch; ++key) mem_.MEM_HashGetEntry(table, &key, &stored);
    mem_.MEM_HashClose(table);
    return kBatch;
  }
};

// A service that the layer only counts, or does not wrap at all.
class OtherService : public Checked {
 public:
  using Checked::Checked;

  std::int64_t run() {
    for (std::int64_t i = 0; i < kBatch; ++i) mem_.MEMSetProcOptions(nullptr);
    return kBatch;
  }
};

// One verification of 10,000 live entries.
class Verification {
 public:
  Verification(BenchSession &session, Mode mode)
      : layer_(session.mem(), mode), heap_(session.mem()) {
    void *entry = nullptr;
    for (int i = 0; i < kEntries; ++i) {
      session.mem().MEM_HeapAllocEntryLong(heap_.get(), 48, &entry);
    }
  }

  std::int64_t run() {
    demand(MEMCheckVerify(layer_.get()) == 0, "a correct program is reported");
    return kEntries;
  }

 private:
  static constexpr int kEntries = 10000;

  const Layer layer_;
  const OpenHeap heap_;
};

template <class Work>
void add(const std::string &name, const NamedMode &mode) {
  addLibrary(name + "/" + mode.name, HostKind::bench,
             [mode](BenchSession &session) { return Work(session, mode.mode); });
}

// Bytes for an entry, allocated from the host and by the layer itself. Areas of this host have
// pages of their own, so the figures of malloc are those of the layer.
void countBytes(benchmark::State &state, Mode mode) {
  constexpr std::size_t kEntries = 100000;
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const Layer layer(mem, mode);
  const auto own = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  for (auto _ : state) {
    const std::uint64_t hostBefore = session.host().account().liveBytes;
    const std::size_t ownBefore = own();
    const OpenHeap heap(mem);
    void *entry = nullptr;
    for (std::size_t i = 0; i < kEntries; ++i) {
      mem.MEM_HeapAllocEntryLong(heap.get(), 48, &entry);
    }
    const auto each = [](std::uint64_t bytes) {
      return static_cast<double>(bytes) / static_cast<double>(kEntries);
    };
    state.counters["host"] = each(session.host().account().liveBytes - hostBefore);
    state.counters["layer"] = each(own() - ownBefore);
  }
}

void addAll() {
  for (const NamedMode &mode : kModes) {
    add<HeapEntries>("standard heap", mode);
    add<EnhancedEntriesAndFrees>("enhanced heap", mode);
    add<CellPairs>("cell pool", mode);
    add<TableRecords>("hash table", mode);
    add<OtherService>("another service", mode);
    benchmark::RegisterBenchmark((std::string("bytes/") + mode.name).c_str(),
                                 [mode](benchmark::State &state) { countBytes(state, mode.mode); })
        ->Iterations(1);
  }
  add<Verification>("verification", kModes[1]);
}

}  // namespace

}  // namespace bench

int main(int argc, char **argv) {
  return bench::runBenchmarks(argc, argv, "checkbench", bench::addAll);
}
