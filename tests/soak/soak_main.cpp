// Mixed calls over the whole library from several threads, for as long as wanted. Contents, results
// and addresses are checked throughout. From phase to phase all threads come to rest and have freed
// everything; after the first phase, which warms up, live storage must not grow by a byte.
//
// Prints a summary. Ends with 1 on any violation.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "soakworker.hpp"

namespace soak {
namespace {

using Clock = std::chrono::steady_clock;

struct Settings {
  unsigned threads = 4;
  double seconds = 20;
  std::uint64_t seed = 20260101;
  bool isVerbose = false;
};

constexpr double kPhaseSeconds = 1;
constexpr std::size_t kSinkBlocks = 2;  // made while warming up; all texts have room in one

class Run {
 public:
  explicit Run(const Settings &settings)
      : settings_(settings),
        stock_(settings.seed),
        random_(settings.seed),
        library_(refhost::Library::besideProgram()),
        host_(options()) {
    host_.bind(library_.bindEntry());
  }
  ~Run() { host_.unbind(library_.bindEntry()); }

  // True when nothing was wrong.
  bool run() {
    start();
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = begin + seconds(settings_.seconds);
    while (violations_.count() == 0) {
      runPhase(std::min(Clock::now() + seconds(kPhaseSeconds), end));
      checkRest();
      if (Clock::now() >= end && phases_ >= kFewestPhases) break;
    }
    const refhost::Account live = host_.account();
    stop();
    print(std::chrono::duration<double>(Clock::now() - begin).count(), live);
    return violations_.count() == 0;
  }

 private:
  static constexpr int kFewestPhases = 2;  // one to warm up, one to compare

  static refhost::Options options() {
    refhost::Options options;
    options.dirtyStorage = true;
    return options;
  }

  static Clock::duration seconds(double count) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(count));
  }

  MEMFunctionVector &mem() { return host_.vector(); }

  void check(bool isRight, const std::string &what) {
    if (!isRight) violations_.add(what);
  }

  void start() {
    check(mem().MEM_ProcessInit() == 0, "ProcessInit");
    check(mem().MEM_ThreadAct() == 0, "ThreadAct");
    pinTexts();
    fillSink();
  }

  void pinTexts() {
    for (std::size_t i = 0; i < Stock::kPinned; ++i) {
      const SinkText &text = stock_.texts[i];
      if (text.isWide) {
        const char16_t *pSunk = nullptr;
        check(mem().MEM_WSinkString(text.wide.c_str(), &pSunk) == 0, "a wide text is pinned");
        stock_.pinned[i] = pSunk;
      } else {
        const char *pSunk = nullptr;
        check(mem().MEM_SinkString(text.narrow.c_str(), &pSunk) == 0, "a text is pinned");
        stock_.pinned[i] = pSunk;
      }
    }
  }

  // Blocks of the sink stay once they are there.
  void fillSink() {
    std::vector<const char *> fillers;
    for (std::size_t i = 0; i < kSinkBlocks; ++i) {
      const char *pSunk = nullptr;
      const std::string filler(0x30000, static_cast<char>('A' + i));
      check(mem().MEM_SinkString(filler.c_str(), &pSunk) == 0, "the sink is filled");
      fillers.push_back(pSunk);
    }
    for (const char *pSunk : fillers)
      check(mem().MEM_SinkDelete(pSunk) == 0, "the sink is emptied");
  }

  // Storage of an enhanced heap comes back at its close only, so each phase has one of its own.
  void runPhase(Clock::time_point end) {
    check(mem().MEM_EHeapOpen(&stock_.sharedHeap, 16, 8) == 0, "EHeapOpen");
    std::vector<Worker> workers;
    workers.reserve(settings_.threads);
    for (unsigned i = 0; i < settings_.threads; ++i) {
      workers.emplace_back(host_, stock_, violations_, random_.bits());
    }
    std::vector<std::thread> threads;
    for (Worker &worker : workers) threads.emplace_back([&worker, end] { worker.run(end); });
    for (std::thread &thread : threads) thread.join();
    check(mem().MEM_EHeapClose(stock_.sharedHeap) == 0, "EHeapClose");
    ++phases_;
  }

  // All threads are at rest and have freed everything.
  void checkRest() {
    const refhost::Account live = host_.account();
    if (phases_ == 1) atFirstRest_ = live;
    check(live.liveBytes == atFirstRest_.liveBytes && live.liveCount == atFirstRest_.liveCount,
          "live storage is " + std::to_string(live.liveBytes) + " bytes in " +
              std::to_string(live.liveCount) + " areas, after warming up it was " +
              std::to_string(atFirstRest_.liveBytes) + " in " +
              std::to_string(atFirstRest_.liveCount));
    check(host_.heldGateCount() == 0, "a gate is held at rest");
    check(host_.gateCount() == 1, "gates besides the sink's are left");
    check(host_.anchor()->Act == Stock::kPinned, "texts besides the pinned ones are left");
    for (const refhost::Misuse &misuse : host_.takeMisuses()) {
      violations_.add(std::string(refhost::serviceName(misuse.service)) + ": " + misuse.what);
    }
    if (!settings_.isVerbose) return;
    std::printf("phase %3d: %12llu calls, %llu live bytes\n", phases_, calls(),
                static_cast<unsigned long long>(live.liveBytes));
  }

  void stop() {
    check(mem().MEM_ThreadTerm() == 0, "ThreadTerm");
    check(mem().MEM_ProcessTerm() == 0, "ProcessTerm");
    if (violations_.count() != 0) return;  // what a stopped run has left says nothing
    check(host_.leakReport().empty(), "not returned: " + host_.leakReport());
    check(host_.gateCount() == 0, "a gate is left");
  }

  unsigned long long calls() const { return host_.calls(refhost::Service::EnterFrame); }

  void print(double seconds, const refhost::Account &live) {
    for (const std::string &text : violations_.texts())
      std::printf("violation: %s\n", text.c_str());
    std::printf(
        "soak: %u threads, %.1f s, seed %llu: %llu calls in %d phases, %llu violations; "
        "live storage at rest %llu bytes in %llu areas, growth after warm-up %lld bytes\n",
        settings_.threads, seconds, static_cast<unsigned long long>(settings_.seed), calls(),
        phases_, static_cast<unsigned long long>(violations_.count()),
        static_cast<unsigned long long>(live.liveBytes),
        static_cast<unsigned long long>(live.liveCount),
        static_cast<long long>(live.liveBytes - atFirstRest_.liveBytes));
  }

  const Settings settings_;
  Stock stock_;
  memtest::Random random_;
  Violations violations_;
  refhost::Library library_;
  refhost::Host host_;
  refhost::Account atFirstRest_;
  int phases_ = 0;
};

void describe(CLI::App &app, Settings &settings) {
  app.name("soak");
  app.set_help_flag("--help", "show this text");
  app.add_option("--threads", settings.threads, "number of threads")
      ->type_name("N")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--seconds", settings.seconds, "how long to run")
      ->type_name("T")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  app.add_option("--seed", settings.seed, "seed of the random calls")
      ->type_name("S")
      ->capture_default_str();
  app.add_flag("--verbose", settings.isVerbose, "print a line for each phase");
  app.footer("Exit codes: 0 no violation; 1 violations; 2 wrong usage.");
}

}  // namespace
}  // namespace soak

int main(int argc, char **argv) {
  CLI::App app("Calls every family of services from several threads and checks what they do.");
  soak::Settings settings;
  soak::describe(app, settings);
  try {
    app.parse(argc, argv);
    return soak::Run(settings).run() ? 0 : 1;
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : 2;
  } catch (const std::exception &error) {
    std::fprintf(stderr, "soak: %s\n", error.what());
    return 2;
  }
}
