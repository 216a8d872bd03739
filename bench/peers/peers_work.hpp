// A piece of work, done by the library or by a peer, and how it is measured.
//
// A work is a class with
//   std::int64_t run()   does a batch and returns the number of operations; measured
//   void prepare()       prepares the next batch; not measured; optional
//   void check()         checks on a new object that the work is really done, as by the others;
//                        throws if not; runs once, before the first measurement; optional
//   double size()        bytes of one operation's result; optional
// A peer's is made without arguments, the library's from a BenchSession. A batch with prepare()
// takes at least 2 us, so that the 25 ns of reading the clock do not matter; others are repeated
// until they take as long.
//
// The figure of a benchmark is its counter "ns": nanoseconds an operation, at the tenth percentile
// of all batches. Other programs on the machine make a batch slower, never faster, so the quick
// batches show the cost of the work. The counter "median" is that of the median batch: the
// difference shows how much the machine was disturbed. A work that starts threads has a static
// member kUsesThreads.
//
// A benchmark's name is "table/row" or "table/row/column"; the report is made from it.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "peers_host.hpp"

namespace bench {

// Runs `check` unless it has run under this name. If it fails, the benchmark is marked as failed
// and the program ends with a failure.
bool passes(benchmark::State &state, const std::string &name, const std::function<void()> &check);
// Runs the benchmarks that `add` registers, as the main function of a program with this name.
// Returns the exit code: 1 if the check of a work has failed, 2 for unknown arguments.
int runBenchmarks(int argc, char **argv, const char *program, void (*add)());

// The host calls of a work, counted once per name.
HostCalls countedCalls(const std::string &name, const std::function<HostCalls()> &count);
void showCalls(benchmark::State &state, const HostCalls &calls);

// Thrown by a check: the work would take too long to be measured. This is not a failure.
class TooSlow : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

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

// Processor time of the calling thread in seconds. Reading it is a system call of almost 1 us.
double threadSeconds();

// Measures batches and keeps the nanoseconds an operation of each.
class BatchTimes {
 public:
  using Clock = std::chrono::steady_clock;

  // Runs `work` several times as one batch, and returns its seconds. For long batches of one thread
  // these are the thread's processor time instead of the clock's time, because on a busy machine
  // the system runs other programs in between.
  template <class Work>
  double time(Work &work, std::int64_t times) {
    std::int64_t operations = 0;
    const double threadStart = threadSeconds();
    const Clock::time_point start = Clock::now();
    for (std::int64_t i = 0; i < times; ++i) operations += work.run();
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if constexpr (!requires { Work::kUsesThreads; }) {
      constexpr double kLongBatch = 500e-6;
      if (seconds > kLongBatch) seconds = threadSeconds() - threadStart;
    }
    batches_.push_back(seconds * 1e9 / static_cast<double>(operations));
    return seconds;
  }
  double quick() { return rank(batches_.size() / 10); }
  double median() { return rank(batches_.size() / 2); }

 private:
  double rank(std::size_t place);

  std::vector<double> batches_;
};

// How often a work is run for a batch of at least 50 us. Works with prepare() run once.
template <class Work>
std::int64_t timesInBatch(Work &work) {
  if constexpr (requires { work.prepare(); }) {
    return 1;
  } else {
    constexpr double kBatchSeconds = 50e-6;
    BatchTimes trial;
    trial.time(work, 1);  // warms up
    return std::max<std::int64_t>(1,
                                  static_cast<std::int64_t>(kBatchSeconds / trial.time(work, 1)));
  }
}

template <class Work>
void measure(benchmark::State &state, Work &work) {
  const std::int64_t times = timesInBatch(work);
  BatchTimes batches;
  for (auto _ : state) {
    prepareWork(work);
    state.SetIterationTime(batches.time(work, times));
  }
  state.counters["ns"] = batches.quick();
  state.counters["median"] = batches.median();
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
