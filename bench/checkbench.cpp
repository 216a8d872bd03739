// Cost of the checking layer and of its statistics: the same work without a layer, with it, and
// with counting alone. Read the figures as ratios within one run: machines differ and are noisy.
//
// Rows of the argument: 0 without a layer, 1 the layer, 2 with statistics of all slots, 3
// statistics alone.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "benchlib.hpp"
#include "qj7mem00/memchk.h"

namespace {

using bench::library;
using bench::require;

enum Mode : std::int64_t { kNone, kChecks, kChecksAndStatistics, kStatistics };

std::uint32_t flagsOf(std::int64_t mode) {
  if (mode == kChecksAndStatistics) return MEMCHK_STATISTICS;
  return mode == kStatistics ? MEMCHK_STATISTICS | MEMCHK_NO_CHECKS : 0;
}

// A session with the layer that a row wants.
class CheckedSession {
 public:
  explicit CheckedSession(const benchmark::State &state) : session_(library().bindEntry()) {
    const std::int64_t mode = state.range(0);
    if (mode == kNone) return;
    MEMCheckOptions options{};
    options.Size = sizeof options;
    options.Flags = flagsOf(mode);
    require(MEMCheckAttach(&mem(), &options, &check_), "MEMCheckAttach");
  }
  ~CheckedSession() { MEMCheckDetach(check_); }
  CheckedSession(const CheckedSession &) = delete;
  CheckedSession &operator=(const CheckedSession &) = delete;

  MEMFunctionVector &mem() { return session_.vector(); }
  refhost::Host &host() { return session_.host(); }
  MEMCheck *check() const { return check_; }

 private:
  refhost::Session session_;
  MEMCheck *check_ = nullptr;
};

void allModes(benchmark::internal::Benchmark *bench) {
  for (const std::int64_t mode : {kNone, kChecks, kChecksAndStatistics, kStatistics}) {
    bench->Arg(mode);
  }
}

constexpr std::int32_t kEntryLen = 48;
constexpr std::int16_t kAreaKb = 256;  // has pages of its own: malloc's figures are the layer's
constexpr std::size_t kBatch = 1000;

// A standard heap: opened, 1,000 entries, closed.
void HeapEntries(benchmark::State &state) {
  CheckedSession session(state);
  MEMFunctionVector &mem = session.mem();
  void *entry = nullptr;
  for (auto _ : state) {
    const bench::OpenHeap heap(mem, kAreaKb);
    for (std::size_t i = 0; i < kBatch; ++i) {
      require(mem.MEM_HeapAllocEntryLong(heap.get(), kEntryLen, &entry), "MEM_HeapAllocEntryLong");
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}
BENCHMARK(HeapEntries)->Apply(allModes);

// An enhanced heap: 1,000 entries, each freed.
void EnhancedEntriesAndFrees(benchmark::State &state) {
  CheckedSession session(state);
  MEMFunctionVector &mem = session.mem();
  std::array<void *, kBatch> entries{};
  for (auto _ : state) {
    HMEMHEAP heap = nullptr;
    require(mem.MEM_EHeapOpen(&heap, kAreaKb, 0), "MEM_EHeapOpen");
    for (void *&entry : entries) {
      require(mem.MEM_EHeapAllocEntry(heap, kEntryLen, &entry), "MEM_EHeapAllocEntry");
    }
    for (void *entry : entries) mem.MEM_EHeapFreeEntry(heap, kEntryLen, entry);
    mem.MEM_EHeapClose(heap);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}
BENCHMARK(EnhancedEntriesAndFrees)->Apply(allModes);

// A cell pool with 1,000 cells in use: one is freed, another allocated.
void CellChurn(benchmark::State &state) {
  CheckedSession session(state);
  MEMFunctionVector &mem = session.mem();
  HMEMCELL pool = nullptr;
  require(mem.MEM_CellOpen(&pool, 32768, 64, 0), "MEM_CellOpen");
  std::vector<void *> live(kBatch);
  for (void *&cell : live) require(mem.MEM_CellAllocEntry(pool, &cell), "MEM_CellAllocEntry");
  std::size_t i = 0;
  for (auto _ : state) {
    mem.MEM_CellFreeEntry(pool, live[i]);
    mem.MEM_CellAllocEntry(pool, &live[i]);
    i = (i + 617) % kBatch;
  }
  mem.MEM_CellClose(pool);
}
BENCHMARK(CellChurn)->Apply(allModes);

std::int16_t bucketOf(const void *pKey) {
  return static_cast<std::int16_t>(*static_cast<const std::uint64_t *>(pKey) % 128);
}

// A hash table, whose records are entries of its heap: 1,000 inserted and looked up.
void TableRecords(benchmark::State &state) {
  CheckedSession session(state);
  MEMFunctionVector &mem = session.mem();
  void *stored = nullptr;
  for (auto _ : state) {
    HMEMHASH table = nullptr;
    require(mem.MEM_HashOpen(&table, 0, 8, 127, bucketOf, 64, 0), "MEM_HashOpen");
    for (std::uint64_t key = 0; key < kBatch; ++key) {
      const std::uint64_t record[4] = {key};
      require(mem.MEM_HashInsEntry(table, sizeof record, record, &stored), "MEM_HashInsEntry");
    }
    for (std::uint64_t key = 0; key < kBatch; ++key) mem.MEM_HashGetEntry(table, &key, &stored);
    mem.MEM_HashClose(table);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}
BENCHMARK(TableRecords)->Apply(allModes);

// A service that the layer has nothing to do with: only counted, if at all.
void OtherService(benchmark::State &state) {
  CheckedSession session(state);
  for (auto _ : state) session.mem().MEMSetProcOptions(nullptr);
}
BENCHMARK(OtherService)->Apply(allModes);

// Verification of 10,000 live entries.
void Verify(benchmark::State &state) {
  CheckedSession session(state);
  MEMFunctionVector &mem = session.mem();
  const bench::OpenHeap heap(mem, kAreaKb);
  void *entry = nullptr;
  for (int i = 0; i < 10000; ++i) mem.MEM_HeapAllocEntryLong(heap.get(), kEntryLen, &entry);
  for (auto _ : state) MEMCheckVerify(session.check());
}
BENCHMARK(Verify)->Arg(kChecks)->Unit(benchmark::kMicrosecond);

// Bytes per entry, the host's and the layer's own.
void BytesPerEntry(benchmark::State &state) {
  constexpr std::size_t kEntries = 100000;
  CheckedSession session(state);
  MEMFunctionVector &mem = session.mem();
  for (auto _ : state) {
    const std::uint64_t hostBefore = session.host().account().liveBytes;
    const std::size_t ownBefore = mallinfo2().uordblks + mallinfo2().hblkhd;
    const bench::OpenHeap heap(mem, kAreaKb);
    void *entry = nullptr;
    for (std::size_t i = 0; i < kEntries; ++i) {
      mem.MEM_HeapAllocEntryLong(heap.get(), kEntryLen, &entry);
    }
    const auto per = [](std::uint64_t bytes) {
      return static_cast<double>(bytes) / static_cast<double>(kEntries);
    };
    state.counters["host"] = per(session.host().account().liveBytes - hostBefore);
    state.counters["layer"] = per(mallinfo2().uordblks + mallinfo2().hblkhd - ownBefore);
  }
}
BENCHMARK(BytesPerEntry)->Apply(allModes)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
