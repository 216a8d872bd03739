// Cost of unpacking, per segment and per byte, beside memcpy of the same bytes. The cost of a
// segment must not grow with the chain. Read the figures as ratios within one run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "benchlib.hpp"
#include "chainwriter.hpp"

namespace {

using bench::library;
using bench::require;

using chainwriter::Bytes;
using chainwriter::Chain;
using chainwriter::child;
using chainwriter::data;
using chainwriter::Form;
using chainwriter::kNone;
using chainwriter::sibling;
using chainwriter::Tree;
using chainwriter::Writer;

constexpr std::size_t kBlockLen = 2048;

// A chain of records, each with a narrow and a wide text of its own, in about `blocks` blocks.
Tree recordsFor(std::size_t blocks, const Writer &writer) {
  const std::size_t record = 3 * writer.pointerWidth + 16 + 15 + 4 * 9;
  const std::size_t room = blocks * (kBlockLen - 40) - chainwriter::smallestBlockLen({}, writer);
  Tree tree;
  tree.kinds = {
      {Form::Fixed, {sibling(), child(1), child(2), data(16)}}, {Form::Narrow}, {Form::Wide}};
  const std::size_t count = std::max<std::size_t>(room / record, 1);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t node = tree.nodes.size();
    const std::size_t next = i + 1 < count ? node + 3 : kNone;
    tree.nodes.push_back({0, Bytes(16, 7), {next, node + 1, node + 2}});
    tree.nodes.push_back({1, {}, {}, "a-package-name"});
    tree.nodes.push_back({2, {}, {}, {}, U"describe"});
  }
  return tree;
}

// The blocks of a chain in one area, so that they can be made as they were by one copy.
class LoadedChain {
 public:
  explicit LoadedChain(const Chain &chain) {
    std::vector<std::size_t> starts;
    std::size_t end = 0;
    for (const Bytes &block : chain.blocks) {
      starts.push_back(end);
      end += (8 + block.size() + 7) / 8 * 8;
    }
    area_.resize(end);
    fresh_.resize(end);
    for (std::size_t i = 0; i < starts.size(); ++i) {
      const std::uint8_t *const next =
          i + 1 < starts.size() ? area_.data() + starts[i + 1] : nullptr;
      std::memcpy(fresh_.data() + starts[i], &next, sizeof next);
      std::memcpy(fresh_.data() + starts[i] + 8, chain.blocks[i].data(), chain.blocks[i].size());
    }
  }

  void restore() { std::memcpy(area_.data(), fresh_.data(), fresh_.size()); }
  MemPackBlock *first() { return reinterpret_cast<MemPackBlock *>(area_.data()); }
  std::size_t size() const { return area_.size(); }

 private:
  std::vector<std::uint8_t> area_;
  std::vector<std::uint8_t> fresh_;
};

void setCounters(benchmark::State &state, const LoadedChain &loaded, std::size_t items) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(loaded.size()));
}

// The floor: the bytes of the chain, copied once.
void CopyChain(benchmark::State &state) {
  const Writer writer = chainwriter::writerOf("0220");
  const Tree tree = recordsFor(static_cast<std::size_t>(state.range(0)), writer);
  LoadedChain loaded(chainwriter::write(tree, writer, kBlockLen));
  for (auto _ : state) {
    loaded.restore();
    benchmark::ClobberMemory();
  }
  setCounters(state, loaded, tree.nodes.size());
}

// Items are segments and texts. Only the call is timed, not the loading of the chain.
void unpackChain(benchmark::State &state, const Writer &writer) {
  refhost::Session session(library().bindEntry());
  MEMFunctionVector &mem = session.vector();
  const Tree tree = recordsFor(static_cast<std::size_t>(state.range(0)), writer);
  const Chain chain = chainwriter::write(tree, writer, kBlockLen);
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

void chainLengths(benchmark::internal::Benchmark *bench) {
  bench->Arg(1)->Arg(100)->Arg(10000)->Unit(benchmark::kMicrosecond);
}
BENCHMARK(CopyChain)->Apply(chainLengths);
BENCHMARK(UnpackInPlace)->Apply(chainLengths)->UseManualTime();
BENCHMARK(UnpackSwapped)->Apply(chainLengths)->UseManualTime();
BENCHMARK(UnpackToNewChain)->Apply(chainLengths)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
