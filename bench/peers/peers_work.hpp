// A piece of work, done by the library or by a peer, and how it is measured.
//
// A work is a class with
//   std::int64_t run()   does a batch and returns the number of operations; timed
//   void prepare()       makes ready for the next batch; not timed; may be missing
//   void check()         proves on a fresh object that the work is really done, and done as the
//                        others do it; throws; runs once, before the first measurement; may be
//                        missing
//   double size()        bytes that one operation's result takes; may be missing
// A peer's is made without arguments, the library's from a BenchSession. Batches are long enough
// (10 us and more) for the clock to be lost in them.
//
// A benchmark's name is "table/row" or "table/row/column"; the report is made from it.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "peers_host.hpp"

namespace bench {

// Runs `check` unless it has run under this name. On failure the benchmark is marked as failed and
// the program's end result is a failure.
bool passes(benchmark::State &state, const std::string &name, const std::function<void()> &check);
bool everyCheckPassed();

// The host calls of a work, counted once per name.
HostCalls countedCalls(const std::string &name, const std::function<HostCalls()> &count);
void showCalls(benchmark::State &state, const HostCalls &calls);

// Throws std::runtime_error(what) unless it holds.
void demand(bool holds, const char *what);

template <class Work>
void prepareWork(Work &work) {
  if constexpr (requires { work.prepare(); }) work.prepare();
}

template <class Work>
void checkWork(Work &&work) {
  if constexpr (requires { work.check(); }) work.check();
}

template <class Work>
void measure(benchmark::State &state, Work &work) {
  using Clock = std::chrono::steady_clock;
  std::int64_t operations = 0;
  for (auto _ : state) {
    prepareWork(work);
    const Clock::time_point start = Clock::now();
    operations += work.run();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  state.SetItemsProcessed(operations);
  if constexpr (requires { work.size(); }) state.counters["bytes"] = work.size();
}

// A peer's work; `make` returns it.
template <class Make>
void addPeer(const std::string &name, Make make) {
  const auto run = [name, make](benchmark::State &state) {
    if (!passes(state, name, [&make] { checkWork(make()); })) return;
    auto work = make();
    measure(state, work);
  };
  benchmark::RegisterBenchmark(name.c_str(), run)->UseManualTime();
}

template <class Make>
HostCalls countCalls(Make make) {
  BenchSession session(HostKind::reference);
  auto work = make(session);
  prepareWork(work);
  const HostCalls before = callsSoFar(session.host());
  const auto operations = static_cast<double>(work.run());
  return callsPerOperation(before, callsSoFar(session.host()), operations);
}

// The library's work under one host; `make` returns it for a session.
template <class Make>
void addLibrary(const std::string &name, HostKind kind, Make make) {
  const auto run = [name, kind, make](benchmark::State &state) {
    const auto check = [kind, &make] {
      BenchSession session(kind);
      checkWork(make(session));
    };
    if (!passes(state, name, check)) return;
    const HostCalls calls = countedCalls(name, [&make] { return countCalls(make); });
    BenchSession session(kind);
    auto work = make(session);
    measure(state, work);
    showCalls(state, calls);
  };
  benchmark::RegisterBenchmark(name.c_str(), run)->UseManualTime();
}

// The same under both hosts: "table/row" and "table/row (reference host)".
template <class Make>
void addLibraryUnderBothHosts(const std::string &name, Make make) {
  addLibrary(name, HostKind::bench, make);
  addLibrary(name + " (reference host)", HostKind::reference, make);
}

}  // namespace bench
