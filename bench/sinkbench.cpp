// Cost of the string sink by the number of strings in it, for work without peers in peerbench: a
// new string with its delete, strings in order, a look-up and a delete. Most of the cost of a new
// string is the host's protection calls, which change page tables; `protect` counts them for each
// call. The cost of a new string must not grow with the space already used.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "benchlib.hpp"

namespace {

using bench::library;
using bench::require;

using refhost::Service;

// A started sink with `count` strings, and their copies. The strings are not sorted, like names:
// the number is spread over 32 bits.
class FilledSink {
 public:
  explicit FilledSink(std::size_t count) : session_(library().bindEntry()) {
    for (std::size_t i = 0; i < count; ++i) copies_.push_back(sink(text(i)));
  }

  static std::string text(std::size_t number) {
    const auto spread = static_cast<std::uint32_t>(number) * 2654435761U;
    return refhost::formatText("%08x-package-name", spread);
  }

  const char *sink(const std::string &text) {
    const char *pSunk = nullptr;
    require(mem().MEM_SinkString(text.c_str(), &pSunk), "MEM_SinkString");
    return pSunk;
  }

  MEMFunctionVector &mem() { return session_.vector(); }
  refhost::Host &host() { return session_.host(); }
  const std::vector<const char *> &copies() const { return copies_; }

 private:
  refhost::Session session_;
  std::vector<const char *> copies_;
};

// Protection calls since `before`, for each iteration.
void countProtection(benchmark::State &state, refhost::Host &host, std::uint64_t before) {
  const std::uint64_t calls = host.calls(Service::ProtectStorage) - before;
  state.counters["protect"] =
      benchmark::Counter(static_cast<double>(calls), benchmark::Counter::kAvgIterations);
}

// A new string, with its delete, in a sink of this many.
void SinkNewAndDelete(benchmark::State &state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  FilledSink sink(count);
  const std::uint64_t before = sink.host().calls(Service::ProtectStorage);
  std::size_t next = count;
  for (auto _ : state) {
    require(sink.mem().MEM_SinkDelete(sink.sink(FilledSink::text(next))), "MEM_SinkDelete");
    next = next + 1 < 2 * count ? next + 1 : count;
  }
  countProtection(state, sink.host(), before);
}
BENCHMARK(SinkNewAndDelete)->Arg(1000)->Arg(10000)->Arg(100000);

// One more string, with the strings in the order of their bytes, the best case for the index.
void SinkNewInOrder(benchmark::State &state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < count; ++i) {
    texts.push_back(refhost::formatText("%08u-package-name", count - i));
  }
  for (auto _ : state) {
    state.PauseTiming();
    {
      FilledSink sink(0);
      state.ResumeTiming();
      for (const std::string &text : texts) benchmark::DoNotOptimize(sink.sink(text));
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(SinkNewInOrder)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void SinkVerify(benchmark::State &state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  FilledSink sink(count);
  std::size_t i = 0;
  for (auto _ : state) {
    const char *pSunk = nullptr;
    require(sink.mem().MEM_SinkVerify(sink.copies()[i], &pSunk, nullptr), "MEM_SinkVerify");
    benchmark::DoNotOptimize(pSunk);
    i = i + 1 < count ? i + 1 : 0;
  }
}
BENCHMARK(SinkVerify)->Arg(1000)->Arg(10000)->Arg(100000);

// Deleting the last use of each string, in the order of sinking. One run empties the sink.
void SinkDelete(benchmark::State &state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    {
      FilledSink sink(count);
      state.ResumeTiming();
      for (const char *pSunk : sink.copies()) {
        require(sink.mem().MEM_SinkDelete(pSunk), "MEM_SinkDelete");
      }
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(SinkDelete)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
