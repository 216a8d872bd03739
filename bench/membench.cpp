// Cost of the library's services, each beside the floor that its host sets. Read the figures as
// ratios within one run: machines differ and are noisy.
#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "benchlib.hpp"

namespace {

using bench::library;
using bench::require;

// What does binding and unbinding cost?
void BindUnbind(benchmark::State &state) {
  refhost::Host host;
  for (auto _ : state) {
    host.bind(library().bindEntry());
    host.unbind(library().bindEntry());
  }
}
BENCHMARK(BindUnbind);

// The host's part of every call: enter, clear the error area, leave.
void HostFrameFloor(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  const MEMRuntimeServices &runtime = session.host().runtime();
  for (auto _ : state) {
    MEMTraceFrame frame{};
    frame.pName = "floor";
    runtime.EnterFrame(&frame, MEM_COMPONENT);
    std::memset(&frame.pThreadEnv->Error, 0, sizeof frame.pThreadEnv->Error);
    benchmark::ClobberMemory();
    runtime.LeaveFrame(&frame, MEM_COMPONENT);
  }
}
BENCHMARK(HostFrameFloor);

// A call that does nothing but enter, look its anchor up and leave.
void EmptyCallFrame(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  for (auto _ : state) session.vector().MEMSetProcOptions(nullptr);
}
BENCHMARK(EmptyCallFrame);

// The host's storage services alone, then the same through the library.
void HostStorageFloor(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  const MEMRuntimeServices &runtime = session.host().runtime();
  const auto size = static_cast<std::uint32_t>(state.range(0));
  for (auto _ : state) {
    void *area = nullptr;
    runtime.GetStorage(&area, size, 0, 1);
    runtime.FreeStorage(area, size, 0);
  }
}
BENCHMARK(HostStorageFloor)->Arg(64)->Arg(4096);

void AllocFree(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const auto size = static_cast<std::uint32_t>(state.range(0));
  for (auto _ : state) mem.MEM_Free(mem.MEM_Alloc(size, 0), size, 0);
}
BENCHMARK(AllocFree)->Arg(64)->Arg(4096);

// What does one entry of a heap cost, open and close of the heap included?
template <class Alloc>
void heapEntries(benchmark::State &state, Alloc alloc) {
  constexpr int kEntries = 10000;
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  for (auto _ : state) {
    HMEMHEAP heap = nullptr;
    require(mem.MEM_HeapOpen(&heap, 64, 0), "MEM_HeapOpen");
    void *entry = nullptr;
    for (int i = 0; i < kEntries; ++i) alloc(mem, heap, entry);
    benchmark::DoNotOptimize(entry);
    mem.MEM_HeapClose(heap);
  }
  state.SetItemsProcessed(state.iterations() * kEntries);
}

void HeapEntryLong(benchmark::State &state) {
  heapEntries(state, [](MEMFunctionVector &mem, HMEMHEAP heap, void *&entry) {
    mem.MEM_HeapAllocEntryLong(heap, 48, &entry);
  });
}
BENCHMARK(HeapEntryLong);

void HeapEntryShort(benchmark::State &state) {
  heapEntries(state, [](MEMFunctionVector &mem, HMEMHEAP heap, void *&entry) {
    mem.MEM_HeapAllocEntry(heap, 48, &entry);
  });
}
BENCHMARK(HeapEntryShort);

// A table of 1,023 buckets keyed by a number.
struct NumberRecord {
  std::uint64_t key;
  std::uint64_t value;
};

std::int16_t hashNumber(const void *key) {
  std::uint64_t value;
  std::memcpy(&value, key, sizeof value);
  return static_cast<std::int16_t>(value % 1023);
}

HMEMHASH openNumbers(MEMFunctionVector &mem) {
  HMEMHASH table = nullptr;
  require(mem.MEM_HashOpen(&table, 0, 8, 1022, hashNumber, 64, 0), "MEM_HashOpen");
  return table;
}

void insertNumbers(MEMFunctionVector &mem, HMEMHASH table, std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) {
    const NumberRecord record{i * 7919, i};
    void *stored = nullptr;
    mem.MEM_HashInsEntry(table, sizeof record, &record, &stored);
  }
}

// How does an insert depend on the length of the chains (count / 1,023)?
void HashInsert(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const auto count = static_cast<std::uint64_t>(state.range(0));
  for (auto _ : state) {
    HMEMHASH table = openNumbers(mem);
    insertNumbers(mem, table, count);
    mem.MEM_HashClose(table);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(HashInsert)->Arg(1000)->Arg(3000)->Arg(10000);

void HashGet(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const auto count = static_cast<std::uint64_t>(state.range(0));
  HMEMHASH table = openNumbers(mem);
  insertNumbers(mem, table, count);
  std::uint64_t i = 0;
  for (auto _ : state) {
    const std::uint64_t key = i * 7919;
    void *found = nullptr;
    mem.MEM_HashGetEntry(table, &key, &found);
    benchmark::DoNotOptimize(found);
    i = (i + 1) % count;
  }
  mem.MEM_HashClose(table);
}
BENCHMARK(HashGet)->Arg(1000)->Arg(3000)->Arg(10000);

// A chain of records, each with a name: what does a segment cost in graphs of several sizes?
struct NameRecord {
  NameRecord *next;
  const char *name;
  std::uint64_t number;
};

MemPackCB nameRecordCB() {
  MemPackCB cb{};
  cb.Count = 2;
  MemPackDescriptor &record = cb.Descriptors[0];
  record.Type = MEM_PACK_FIXED;
  record.FixedLen = sizeof(NameRecord);
  record.SiblingOff = offsetof(NameRecord, next);
  record.ChildCount = 1;
  record.Children[0] = {1, offsetof(NameRecord, name)};
  cb.Descriptors[1].Type = MEM_PACK_STRING;
  return cb;
}

std::vector<NameRecord> nameRecords(std::size_t count) {
  std::vector<NameRecord> records(count);
  for (std::size_t i = 0; i < count; ++i) {
    records[i] = {i + 1 < count ? &records[i + 1] : nullptr, "a-package-name", i};
  }
  return records;
}

void PackSegment(benchmark::State &state) {
  constexpr std::int32_t kBlockLen = 32768;
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const MemPackCB cb = nameRecordCB();
  const std::vector<NameRecord> records = nameRecords(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    MemPackBlock *first = nullptr;
    require(mem.MEM_Pack(&cb, records.data(), kBlockLen, &first), "MEM_Pack");
    bench::returnChain(mem, first, kBlockLen);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(PackSegment)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
