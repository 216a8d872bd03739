#include "peers_work.hpp"

#include <malloc.h>
#include <time.h>

#include <cstdio>
#include <map>

namespace bench {

namespace {

bool failed = false;

// By default the C library returns large blocks to the system with every free, and gets them again
// as pages of zeros. For some works that would be most of the cost, so the memory is kept for all.
void keepMemory() {
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, -1);
}

}  // namespace

void demand(bool holds, const char *what) {
  if (!holds) throw std::runtime_error(what);
}

bool passes(benchmark::State &state, const std::string &name, const std::function<void()> &check) {
  static std::map<std::string, std::string> outcomes;
  auto found = outcomes.find(name);
  if (found == outcomes.end()) {
    std::string outcome;
    try {
      check();
    } catch (const TooSlow &reason) {
      outcome = reason.what();
    } catch (const std::exception &reason) {
      outcome = reason.what();
      failed = true;
    }
    found = outcomes.emplace(name, outcome).first;
  }
  if (found->second.empty()) return true;
  state.SkipWithError(found->second.c_str());
  return false;
}

double threadSeconds() {
  timespec time;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double BatchTimes::rank(std::size_t place) {
  const auto at = batches_.begin() + static_cast<std::ptrdiff_t>(place);
  std::nth_element(batches_.begin(), at, batches_.end());
  return *at;
}

int runBenchmarks(int argc, char **argv, const char *program, void (*add)()) {
  keepMemory();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  add();
  benchmark::RunSpecifiedBenchmarks();
  if (!failed) return 0;
  std::fprintf(stderr, "%s: the check of some work has failed; see the errors above\n", program);
  return 1;
}

HostCalls countedCalls(const std::string &name, const std::function<HostCalls()> &count) {
  static std::map<std::string, HostCalls> counts;
  auto found = counts.find(name);
  if (found == counts.end()) found = counts.emplace(name, count()).first;
  return found->second;
}

void showCalls(benchmark::State &state, const HostCalls &calls) {
  state.counters["frames"] = calls.frames;
  state.counters["anchors"] = calls.anchors;
  state.counters["gates"] = calls.gates;
  state.counters["protects"] = calls.protects;
  state.counters["storage"] = calls.storage;
}

}  // namespace bench
