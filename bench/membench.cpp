// Services without peers in peerbench, and pack by the number of segments. Read the figures as
// ratios within one run: machines differ and are noisy.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "benchlib.hpp"

namespace {

using bench::library;
using bench::require;

// Binding and unbinding.
void BindUnbind(benchmark::State &state) {
  refhost::Host host;
  for (auto _ : state) {
    host.bind(library().bindEntry());
    host.unbind(library().bindEntry());
  }
}
BENCHMARK(BindUnbind);

// A call that only enters its frame, looks its anchor up and leaves.
void EmptyCallFrame(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  for (auto _ : state) session.vector().MEMSetProcOptions(nullptr);
}
BENCHMARK(EmptyCallFrame);

// Storage through the library, with the checks of the reference host.
void AllocFree(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const auto size = static_cast<std::uint32_t>(state.range(0));
  for (auto _ : state) mem.MEM_Free(mem.MEM_Alloc(size, 0), size, 0);
}
BENCHMARK(AllocFree)->Arg(64)->Arg(4096);

// A chain of records, each with a name: the cost of a segment in graphs of several sizes.
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
