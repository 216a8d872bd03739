// Cost of the string sink by the number of strings that it holds: a new string, a known one, a
// look-up and a delete. The host's protection calls, which change page tables, are most of what a
// new string costs; `protect` counts them per call, and HostProtectionFloor shows what one costs
// alone. New strings must not become dearer with the space already used.
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

// A started sink with `count` strings, and their copies. The strings come in no order, as names
// do: the number is spread over 32 bits.
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

// Protection calls since `before`, per iteration.
void countProtection(benchmark::State &state, refhost::Host &host, std::uint64_t before) {
  const std::uint64_t calls = host.calls(Service::ProtectStorage) - before;
  state.counters["protect"] =
      benchmark::Counter(static_cast<double>(calls), benchmark::Counter::kAvgIterations);
}

// What do the host's two protection calls around a write cost by themselves?
void HostProtectionFloor(benchmark::State &state) {
  FilledSink sink(1);
  const MEMRuntimeServices &runtime = sink.host().runtime();
  std::uint8_t *const space = sink.host().anchor()->Segments[0].pSpace;
  for (auto _ : state) {
    runtime.ProtectStorage(space, 24, MEM_SINK_SUBPOOL, MEM_PROTECT_WRITABLE);
    runtime.ProtectStorage(space, 24, MEM_SINK_SUBPOOL, MEM_PROTECT_READ_ONLY);
  }
}
BENCHMARK(HostProtectionFloor);

// How dear is a new string, with its delete, in a sink of this many?
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

// What does one of `count` new strings cost while the sink fills? The time of a run is that of all.
void SinkNew(benchmark::State &state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < count; ++i) texts.push_back(FilledSink::text(i));
  std::uint64_t protection = 0;
  for (auto _ : state) {
    state.PauseTiming();
    {
      FilledSink sink(0);
      const std::uint64_t before = sink.host().calls(Service::ProtectStorage);
      state.ResumeTiming();
      for (const std::string &text : texts) benchmark::DoNotOptimize(sink.sink(text));
      state.PauseTiming();
      protection += sink.host().calls(Service::ProtectStorage) - before;
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  const auto strings = static_cast<double>(state.iterations() * state.range(0));
  state.counters["protect"] = static_cast<double>(protection) / strings;
}
BENCHMARK(SinkNew)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// What does one more of strings in the order of their bytes cost, the best case for the index?
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

// A known string: search and count, no write into the string space.
void SinkKnown(benchmark::State &state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  FilledSink sink(count);
  const std::uint64_t before = sink.host().calls(Service::ProtectStorage);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(sink.sink(sink.copies()[i]));
    i = i + 1 < count ? i + 1 : 0;
  }
  countProtection(state, sink.host(), before);
}
BENCHMARK(SinkKnown)->Arg(1000)->Arg(10000)->Arg(100000);

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

// The last use of each string in the order in which they came. One run empties the sink.
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
