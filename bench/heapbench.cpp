// Cost of the enhanced heap, the cell pool and the concatenation buffer, each compared with malloc
// or std::u16string on the same work and, where the host takes part, with the floor that the host
// sets. Read the figures as ratios within one run: machines differ and are noisy.
#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "refhost.hpp"

namespace {

refhost::Library &library() {
  static refhost::Library loaded(refhost::Library::besideProgram());
  return loaded;
}

void require(std::int16_t result, const char *what) {
  if (result != 0) throw std::runtime_error(std::string(what) + " failed");
}

// Below the length from which the reference host gives areas pages of their own.
constexpr std::int16_t kHeapAreaKb = 32;
constexpr std::int32_t kCellAreaLen = 32768;

// ---- Cells: free one of many, allocate another.

constexpr std::size_t kLiveCells = 1000;

// Calls `churn(slot)` for the slots of `live` in an order that repeats only after all of them.
template <class Churn>
void churnCells(benchmark::State &state, std::vector<void *> &live, Churn churn) {
  constexpr std::size_t kStride = 617;  // shares no factor with the number of cells
  std::size_t i = 0;
  for (auto _ : state) {
    churn(live[i]);
    benchmark::DoNotOptimize(live[i]);
    i = (i + kStride) % kLiveCells;
  }
}

void CellChurn(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const auto cellLen = static_cast<std::int32_t>(state.range(0));
  HMEMCELL pool = nullptr;
  require(mem.MEM_CellOpen(&pool, kCellAreaLen, cellLen, 0), "MEM_CellOpen");
  std::vector<void *> live(kLiveCells);
  for (void *&cell : live) require(mem.MEM_CellAllocEntry(pool, &cell), "MEM_CellAllocEntry");
  churnCells(state, live, [&](void *&cell) {
    mem.MEM_CellFreeEntry(pool, cell);
    mem.MEM_CellAllocEntry(pool, &cell);
  });
  mem.MEM_CellClose(pool);
}
BENCHMARK(CellChurn)->Arg(16)->Arg(64)->Arg(256);

// An allocated cell is cleared, so calloc does the same work.
void CallocChurn(benchmark::State &state) {
  const auto cellLen = static_cast<std::size_t>(state.range(0));
  std::vector<void *> live(kLiveCells);
  for (void *&cell : live) cell = std::calloc(1, cellLen);
  churnCells(state, live, [&](void *&cell) {
    std::free(cell);
    cell = std::calloc(1, cellLen);
  });
  for (void *cell : live) std::free(cell);
}
BENCHMARK(CallocChurn)->Arg(16)->Arg(64)->Arg(256);

void MallocChurn(benchmark::State &state) {
  const auto cellLen = static_cast<std::size_t>(state.range(0));
  std::vector<void *> live(kLiveCells);
  for (void *&cell : live) cell = std::malloc(cellLen);
  churnCells(state, live, [&](void *&cell) {
    std::free(cell);
    cell = std::malloc(cellLen);
  });
  for (void *cell : live) std::free(cell);
}
BENCHMARK(MallocChurn)->Arg(16)->Arg(64)->Arg(256);

// ---- Entries of one enhanced heap, from one and from two threads. A heap keeps the storage of all
// its entries until it is closed, so the number of iterations is fixed.

constexpr std::int32_t kEntryLen = 48;
constexpr std::size_t kBatch = 100;
constexpr int kBatches = 2000;

using Batch = std::array<void *, kBatch>;

// The heap that the threads of one benchmark share; opened and closed on the main thread.
class SharedHeap {
 public:
  SharedHeap() : session_(library().bindEntry()) {
    require(mem().MEM_EHeapOpen(&heap_, kHeapAreaKb, 0), "MEM_EHeapOpen");
    require(static_cast<std::int16_t>(host().runtime().CreateGate(&gate_)), "CreateGate");
  }
  ~SharedHeap() {
    host().runtime().DeleteGate(gate_);
    mem().MEM_EHeapClose(heap_);
  }
  SharedHeap(const SharedHeap &) = delete;
  SharedHeap &operator=(const SharedHeap &) = delete;

  MEMFunctionVector &mem() { return session_.vector(); }
  refhost::Host &host() { return session_.host(); }
  HMEMHEAP heap() const { return heap_; }
  std::uint32_t gate() const { return gate_; }

 private:
  refhost::Session session_;
  HMEMHEAP heap_ = nullptr;
  std::uint32_t gate_ = 0;
};

std::optional<SharedHeap> sharedHeap;

void openSharedHeap(const benchmark::State &) {
  sharedHeap.emplace();
}
void closeSharedHeap(const benchmark::State &) {
  sharedHeap.reset();
}

// The first thread of a benchmark is the session's; the others are started here.
class BenchThread {
 public:
  explicit BenchThread(const benchmark::State &state) : isOther_(state.thread_index() != 0) {
    if (isOther_) require(sharedHeap->mem().MEM_ThreadAct(), "MEM_ThreadAct");
  }
  ~BenchThread() {
    if (isOther_) sharedHeap->mem().MEM_ThreadTerm();
  }
  BenchThread(const BenchThread &) = delete;
  BenchThread &operator=(const BenchThread &) = delete;

 private:
  bool isOther_;
};

// The host's part of one heap call: the frame, the error area, the gate.
void HostGatedCallFloor(benchmark::State &state) {
  const BenchThread thread(state);
  const MEMRuntimeServices &runtime = sharedHeap->host().runtime();
  for (auto _ : state) {
    for (std::size_t i = 0; i < kBatch; ++i) {
      MEMTraceFrame frame{};
      frame.pName = "floor";
      runtime.EnterFrame(&frame, MEM_COMPONENT);
      std::memset(&frame.pThreadEnv->Error, 0, sizeof frame.pThreadEnv->Error);
      runtime.AcquireGate(sharedHeap->gate());
      benchmark::ClobberMemory();
      runtime.ReleaseGate(sharedHeap->gate());
      runtime.LeaveFrame(&frame, MEM_COMPONENT);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}

void allocBatch(Batch &entries) {
  for (void *&entry : entries) {
    require(sharedHeap->mem().MEM_EHeapAllocEntry(sharedHeap->heap(), kEntryLen, &entry),
            "MEM_EHeapAllocEntry");
  }
  benchmark::DoNotOptimize(entries);
}

// Entries that are freed with the heap.
void EHeapEntry(benchmark::State &state) {
  const BenchThread thread(state);
  Batch entries{};
  for (auto _ : state) allocBatch(entries);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}

// Entries that are freed one by one.
void EHeapEntryAndFree(benchmark::State &state) {
  const BenchThread thread(state);
  Batch entries{};
  for (auto _ : state) {
    allocBatch(entries);
    for (void *entry : entries) {
      sharedHeap->mem().MEM_EHeapFreeEntry(sharedHeap->heap(), kEntryLen, entry);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}

void MallocAndFree(benchmark::State &state) {
  Batch entries{};
  for (auto _ : state) {
    for (void *&entry : entries) entry = std::malloc(kEntryLen);
    benchmark::DoNotOptimize(entries);
    for (void *entry : entries) std::free(entry);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}

void fromOneAndTwoThreads(benchmark::internal::Benchmark *bench) {
  bench->Iterations(kBatches)->Threads(1)->Threads(2)->UseRealTime();
}
void onSharedHeap(benchmark::internal::Benchmark *bench) {
  bench->Setup(openSharedHeap)->Teardown(closeSharedHeap);
  fromOneAndTwoThreads(bench);
}
BENCHMARK(HostGatedCallFloor)->Apply(onSharedHeap);
BENCHMARK(EHeapEntry)->Apply(onSharedHeap);
BENCHMARK(EHeapEntryAndFree)->Apply(onSharedHeap);
BENCHMARK(MallocAndFree)->Apply(fromOneAndTwoThreads);

// ---- A text of 10,000 or 100,000 units, appended in pieces of 10, 100 and 1,000. Each iteration
// makes the whole text; items are appends.

std::size_t pieceLen(const benchmark::State &state) {
  return static_cast<std::size_t>(state.range(0));
}
std::size_t appendCount(const benchmark::State &state) {
  return static_cast<std::size_t>(state.range(1)) / pieceLen(state);
}

// Bytes that the growth rule makes an append copy: each piece once with its terminator, and the
// text so far with its terminator whenever the storage is too small for the next piece.
std::uint64_t orderedCopying(std::size_t pieceLength, std::size_t count) {
  std::uint64_t copied = 0;
  std::uint64_t storage = MEM_CAT_FIRST_LEN;
  std::uint64_t length = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t need = (length + pieceLength + 1) * sizeof(char16_t);
    if (need > storage) {
      copied += (length + 1) * sizeof(char16_t);
      storage = (need / MEM_CAT_STEP + 1) * MEM_CAT_STEP;
    }
    copied += (pieceLength + 1) * sizeof(char16_t);
    length += pieceLength;
  }
  return copied;
}

// The same, counted from the buffer: the text so far whenever the storage changes.
template <class Append>
std::uint64_t seenCopying(MEMCatCB &buffer, std::size_t count, Append append) {
  std::uint64_t copied = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const MEMCatCB before = buffer;
    append(buffer);
    if (buffer.BlkLen != before.BlkLen) copied += (before.Len + 1) * sizeof(char16_t);
    copied += (buffer.Len - before.Len + 1) * sizeof(char16_t);
  }
  return copied;
}

// Measures `append(mem, buffer, piece)` and counts the bytes that it copies for each append, to be
// compared with those of the growth rule.
template <class Append>
void appendToBuffer(benchmark::State &state, Append append) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const std::u16string piece(pieceLen(state), u'x');
  const std::size_t count = appendCount(state);
  const auto appendPiece = [&](MEMCatCB &buffer) { require(append(mem, buffer, piece), "append"); };
  MEMCatCB buffer{};
  for (auto _ : state) {
    require(mem.MEM_CatOpen(&buffer), "MEM_CatOpen");
    for (std::size_t i = 0; i < count; ++i) appendPiece(buffer);
    benchmark::DoNotOptimize(buffer.pText);
    mem.MEM_CatClose(&buffer);
  }
  require(mem.MEM_CatOpen(&buffer), "MEM_CatOpen");
  const auto appends = static_cast<double>(count);
  state.counters["copied"] = static_cast<double>(seenCopying(buffer, count, appendPiece)) / appends;
  state.counters["ordered"] = static_cast<double>(orderedCopying(piece.size(), count)) / appends;
  mem.MEM_CatClose(&buffer);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
}

void CatAppend(benchmark::State &state) {
  appendToBuffer(state, [](MEMFunctionVector &mem, MEMCatCB &buffer, const std::u16string &piece) {
    return mem.MEM_Cat(&buffer, piece.c_str());
  });
}

void MemCatAppend(benchmark::State &state) {
  appendToBuffer(state, [](MEMFunctionVector &mem, MEMCatCB &buffer, const std::u16string &piece) {
    return mem.MEM_MemCat(&buffer, piece.c_str(), static_cast<std::int32_t>(piece.size()));
  });
}

// The storage and the copies of the growth rule, with the host alone and without the pieces: the
// difference to the figures above is the library's part.
void HostStepsFloor(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  const MEMRuntimeServices &runtime = session.host().runtime();
  const std::size_t text = (static_cast<std::size_t>(state.range(0)) + 1) * sizeof(char16_t);
  for (auto _ : state) {
    std::uint32_t storage = MEM_CAT_FIRST_LEN;
    void *area = nullptr;
    require(static_cast<std::int16_t>(runtime.GetStorage(&area, storage, 0, 1)), "GetStorage");
    while (storage < text) {
      const std::uint32_t grown = (storage / MEM_CAT_STEP + 1) * MEM_CAT_STEP;
      void *newArea = nullptr;
      require(static_cast<std::int16_t>(runtime.GetStorage(&newArea, grown, 0, 1)), "GetStorage");
      std::memcpy(newArea, area, storage);
      runtime.FreeStorage(area, storage, 0);
      area = newArea;
      storage = grown;
    }
    runtime.FreeStorage(area, storage, 0);
  }
}
BENCHMARK(HostStepsFloor)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

void StringAppend(benchmark::State &state) {
  const std::u16string piece(pieceLen(state), u'x');
  const std::size_t count = appendCount(state);
  for (auto _ : state) {
    std::u16string text;
    for (std::size_t i = 0; i < count; ++i) text.append(piece);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
}

// The buffer's steps with realloc, which often need not copy.
void ReallocAppend(benchmark::State &state) {
  const std::u16string piece(pieceLen(state), u'x');
  const std::size_t count = appendCount(state);
  for (auto _ : state) {
    std::size_t storage = MEM_CAT_FIRST_LEN;
    std::size_t used = 0;
    char *text = static_cast<char *>(std::malloc(storage));
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t need = used + (piece.size() + 1) * sizeof(char16_t);
      if (need > storage) {
        storage = (need / MEM_CAT_STEP + 1) * MEM_CAT_STEP;
        char *const moved = static_cast<char *>(std::realloc(text, storage));
        if (moved == nullptr) std::abort();
        text = moved;
      }
      std::memcpy(text + used, piece.c_str(), (piece.size() + 1) * sizeof(char16_t));
      used += piece.size() * sizeof(char16_t);
    }
    benchmark::DoNotOptimize(text);
    std::free(text);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
}

void piecesAndTotals(benchmark::internal::Benchmark *bench) {
  bench->ArgsProduct({{10, 100, 1000}, {10000, 100000}})->Unit(benchmark::kMicrosecond);
}
BENCHMARK(CatAppend)->Apply(piecesAndTotals);
BENCHMARK(MemCatAppend)->Apply(piecesAndTotals);
BENCHMARK(StringAppend)->Apply(piecesAndTotals);
BENCHMARK(ReallocAppend)->Apply(piecesAndTotals);

// ---- Opening and closing each object without use, compared with its storage from malloc.

constexpr std::int16_t kSmallHeapKb = 4;
constexpr std::int32_t kSmallPool = 4096;
constexpr std::int32_t kCellLen = 64;

void HeapOpenClose(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  for (auto _ : state) {
    HMEMHEAP heap = nullptr;
    require(mem.MEM_HeapOpen(&heap, kSmallHeapKb, 0), "MEM_HeapOpen");
    mem.MEM_HeapClose(heap);
  }
}
BENCHMARK(HeapOpenClose);

void EHeapOpenClose(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  for (auto _ : state) {
    HMEMHEAP heap = nullptr;
    require(mem.MEM_EHeapOpen(&heap, kSmallHeapKb, 0), "MEM_EHeapOpen");
    mem.MEM_EHeapClose(heap);
  }
}
BENCHMARK(EHeapOpenClose);

void CellOpenClose(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  for (auto _ : state) {
    HMEMCELL pool = nullptr;
    require(mem.MEM_CellOpen(&pool, kSmallPool, kCellLen, 0), "MEM_CellOpen");
    mem.MEM_CellClose(pool);
  }
}
BENCHMARK(CellOpenClose);

void CatOpenClose(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  for (auto _ : state) {
    MEMCatCB buffer{};
    require(mem.MEM_CatOpen(&buffer), "MEM_CatOpen");
    mem.MEM_CatClose(&buffer);
  }
}
BENCHMARK(CatOpenClose);

void MallocFreeArea(benchmark::State &state) {
  for (auto _ : state) {
    void *area = std::malloc(static_cast<std::size_t>(state.range(0)));
    benchmark::DoNotOptimize(area);
    std::free(area);
  }
}
BENCHMARK(MallocFreeArea)->Arg(MEM_CAT_FIRST_LEN)->Arg(kSmallPool);

}  // namespace

BENCHMARK_MAIN();
