#include "peers_work.hpp"

#include <malloc.h>
#include <time.h>

#include <map>

namespace bench {

namespace {

bool failed = false;

}  // namespace

void keepMemory() {
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, -1);
}

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

bool everyCheckPassed() {
  return !failed;
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
