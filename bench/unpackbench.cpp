// Cost of unpacking for each segment and each byte, compared with memcpy of the same bytes. The
// cost of a segment must not grow with the chain. Read the figures as ratios within one run.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "benchchain.hpp"
#include "benchlib.hpp"
#include "chainwriter.hpp"
#include "qj7mem00/mem.hpp"

namespace {

using bench::kForeignBlockLen;
using bench::library;
using bench::LoadedChain;
using bench::recordsFor;
using bench::require;
using chainwriter::Bytes;
using chainwriter::Chain;
using chainwriter::Tree;
using chainwriter::Writer;

void setCounters(benchmark::State &state, const LoadedChain &loaded, std::size_t items) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(loaded.size()));
}

// The floor: the bytes of the chain, copied once.
void CopyChain(benchmark::State &state) {
  const Writer writer = chainwriter::writerOf("0220");
  const Tree tree = recordsFor(static_cast<std::size_t>(state.range(0)), writer);
  LoadedChain loaded(chainwriter::write(tree, writer, kForeignBlockLen));
  for (auto _ : state) {
    loaded.restore();
    benchmark::ClobberMemory();
  }
  setCounters(state, loaded, tree.nodes.size());
}

// Items are segments and texts. Only the call is measured, not the loading of the chain.
void unpackChain(benchmark::State &state, const Writer &writer) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const Tree tree = recordsFor(static_cast<std::size_t>(state.range(0)), writer);
  const Chain chain = chainwriter::write(tree, writer, kForeignBlockLen);
  LoadedChain loaded(chain);
  const Bytes callers = chainwriter::readersControlBlock(tree);
  for (auto _ : state) {
    loaded.restore();
    MemPackBlock *first = loaded.first();
    void *root = nullptr;
    const auto start = std::chrono::steady_clock::now();
    const std::int16_t result =
        mem.MEM_Unpack(&first, &root, reinterpret_cast<const MemPackCB *>(callers.data()));
    const auto end = std::chrono::steady_clock::now();
    require(result, "MEM_Unpack");
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    if (first != loaded.first()) bench::returnChain(mem, first, MEM_UNPACK_BLOCK_LEN);
  }
  setCounters(state, loaded, tree.nodes.size());
  state.counters["blocks"] = static_cast<double>(chain.blocks.size());
}

// In place: a writer of this platform, and one of the other byte order.
void UnpackInPlace(benchmark::State &state) {
  unpackChain(state, chainwriter::writerOf("0220"));
}
void UnpackSwapped(benchmark::State &state) {
  unpackChain(state, chainwriter::writerOf("0221"));
}
// Into a new chain: a writer with 4-byte pointers.
void UnpackToNewChain(benchmark::State &state) {
  unpackChain(state, chainwriter::writerOf("0220", 4));
}

// With the C++ header: records, each with a reference to any other one.
struct Record {
  Record *pNext;
  const char *pName;
  const char16_t *pTitle;
  const Record *pOther;
};
constexpr auto kRecords = mem::packTable(mem::segment<Record>(
    mem::sibling(MEM_FIELD(Record, pNext)), mem::child(MEM_FIELD(Record, pName)),
    mem::child(MEM_FIELD(Record, pTitle)), mem::reference(MEM_FIELD(Record, pOther))));

std::vector<std::byte> packedRecords(const mem::Context &context, std::size_t count) {
  std::vector<Record> records(count);
  std::minstd_rand random;
  for (std::size_t i = 0; i < count; ++i) {
    Record *const next = i + 1 < count ? &records[i + 1] : nullptr;
    records[i] = {next, "a-package-name", u"describe", &records[random() % count]};
  }
  std::vector<std::byte> file;
  for (const std::span<const std::byte> used :
       mem::PackedChain::pack(context, kRecords, records[0]).value()) {
    file.insert(file.end(), used.begin(), used.end());
  }
  return file;
}

enum class Trust : bool { none, full };

// Checking whether references lead to records.
template <Trust kTrust>
void UnpackTyped(benchmark::State &state) {
  refhost::Session session(library().bindEntry());
  const mem::Context context = mem::contextOf(session.host());
  const auto count = static_cast<std::size_t>(state.range(0));
  const std::vector<std::byte> file = packedRecords(context, count);
  for (auto _ : state) {
    mem::PackedChain chain = mem::PackedChain::load(context, file).value();
    const auto start = std::chrono::steady_clock::now();
    const mem::Result<Record *> root =
        kTrust == Trust::full ? chain.unpackUnchecked(kRecords) : chain.unpack(kRecords);
    const auto end = std::chrono::steady_clock::now();
    require(root.isOk() ? std::int16_t{0} : std::int16_t{-1}, "unpack");
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(file.size()));
}

void chainLengths(benchmark::internal::Benchmark *bench) {
  bench->Arg(1)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);
}
BENCHMARK(CopyChain)->Apply(chainLengths);
BENCHMARK(UnpackInPlace)->Apply(chainLengths)->UseManualTime();
BENCHMARK(UnpackSwapped)->Apply(chainLengths)->UseManualTime();
BENCHMARK(UnpackToNewChain)->Apply(chainLengths)->UseManualTime();
BENCHMARK_TEMPLATE(UnpackTyped, Trust::full)->Apply(chainLengths)->UseManualTime();
BENCHMARK_TEMPLATE(UnpackTyped, Trust::none)->Apply(chainLengths)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
