#include "coordinator.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>

#include "catalog_report.hpp"
#include "catalog_support.hpp"
#include "child_process.hpp"
#include "collector.hpp"
#include "engine.hpp"
#include "worker.hpp"

namespace exchange {
namespace {

constexpr Milliseconds kWait{100};              // for a report, before the processes are checked
constexpr Milliseconds kTimeForReports{10000};  // of workers, after the end
constexpr Milliseconds kTimeForOthers{1000};    // for reports of workers started elsewhere
constexpr Milliseconds kBetweenLines{1000};

volatile sig_atomic_t isInterrupted = 0;

// While it exists, an interruption ends the run in order: the server is stopped and its folder
// removed.
class Interruption {
 public:
  Interruption() {
    struct sigaction action = {};
    action.sa_handler = [](int) { isInterrupted = 1; };
    sigaction(SIGINT, &action, &formerInterrupt_);
    sigaction(SIGTERM, &action, &formerTermination_);
  }
  ~Interruption() {
    sigaction(SIGINT, &formerInterrupt_, nullptr);
    sigaction(SIGTERM, &formerTermination_, nullptr);
  }
  Interruption(const Interruption &) = delete;
  Interruption &operator=(const Interruption &) = delete;

 private:
  struct sigaction formerInterrupt_ = {};
  struct sigaction formerTermination_ = {};
};

std::string withProcess(const std::string &name) {
  return name + " (process " + std::to_string(getpid()) + ')';
}

// Runs a process of the run: connects, loads the library, works. Returns its exit code.
template <class Work>
int inProcess(const std::string &name, const TransportMaker &connect, Work doWork) {
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  try {
    const std::unique_ptr<Transport> transport = connect();
    const refhost::Library library(refhost::Library::besideProgram());
    const ProcessReport report = doWork(*transport, library, withProcess(name));
    return report.liveBytes == 0 ? 0 : 1;
  } catch (const std::exception &error) {
    std::cerr << "exchange: " << name << ": " << error.what() << std::endl;
    return 1;
  }
}

struct NamedProcess {
  std::string name;
  ChildProcess process;
  bool isGone = false;  // its end has been noted
};

class Coordinator {
 public:
  Coordinator(const Arguments &arguments, const JobList &jobs, std::ostream &progress)
      : arguments_(arguments),
        jobs_(jobs),
        progress_(progress),
        engine_(makeEngine(arguments, refhost::Library::besideProgram().parent_path().string())) {}

  Outcome run() {
    const Interruption interruption;
    outcome_.engine = engine_->description();
    startProcesses();
    const Clock::time_point start = Clock::now();
    for (std::uint32_t job = 0; job < jobs_.count(); ++job) {
      engine_->transport().publish(Stream::jobs, jobs_.message(job));
      if (job % 64 == 63) takeReport(Milliseconds(0));  // this also serves the other processes
    }
    waitForCollector();
    outcome_.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    outcome_.engineTime = engine_->engineTime();
    engine_->transport().end();
    waitForWorkers();
    takeDead();
    return std::move(outcome_);
  }

 private:
  void startProcesses() {
    for (int i = 1; i <= arguments_.workers; ++i) {
      const Trouble trouble = i == 1 ? arguments_.trouble : Trouble::none;
      start("worker " + std::to_string(i),
            [trouble](Transport &transport, const refhost::Library &library,
                      const std::string &name) { return work(transport, library, name, trouble); });
    }
    start("collector",
          [this](Transport &transport, const refhost::Library &library, const std::string &name) {
            return collect(transport, library, jobs_, name, arguments_.transport.patience);
          });
    progress_ << "exchange: processes:";
    for (const NamedProcess &process : processes_) {
      progress_ << (&process == &processes_.front() ? " " : ", ") << process.name << " is "
                << process.process.id();
    }
    progress_ << std::endl;
  }

  template <class Work>
  void start(const std::string &name, Work doWork) {
    const TransportMaker connect = engine_->connect(name);
    processes_.push_back(
        {name, ChildProcess::fork([&] { return inProcess(name, connect, doWork); })});
  }

  // Takes the next report. False if none arrives in time.
  bool takeReport(Milliseconds wait) {
    const std::optional<Delivery> delivery = engine_->transport().take(Stream::reports, wait);
    if (!delivery) return false;
    engine_->transport().acknowledge(Stream::reports, delivery->id);
    const ProcessReport report = reportFrom(delivery->message);
    if (report.role == Role::collector) {
      if (!outcome_.collector.isFinal) outcome_.collector = report;
    } else if (std::none_of(
                   outcome_.workers.begin(), outcome_.workers.end(),
                   [&](const ProcessReport &known) { return known.name == report.name; })) {
      outcome_.workers.push_back(report);
    }
    return true;
  }

  void waitForCollector() {
    while (!outcome_.collector.isFinal) {
      takeReport(kWait);
      noteEnds();
      tellProgress();
      makeTrouble();
      if (isInterrupted != 0) throw std::runtime_error("interrupted");
      requireCollector();
    }
  }

  // Its last report may arrive after its end was detected.
  void requireCollector() {
    if (!processes_.back().process.status()) return;
    while (!outcome_.collector.isFinal) {
      if (!takeReport(kWait)) {
        throw std::runtime_error("the collector has ended without its report");
      }
    }
  }

  // Every running worker reports. Workers started elsewhere do so when they detect the end.
  void waitForWorkers() {
    const Clock::time_point deadline = Clock::now() + kTimeForReports;
    while (!areAllGone() && Clock::now() < deadline) {
      takeReport(kWait);
      noteEnds();
    }
    while (takeReport(arguments_.workers == 0 ? kTimeForOthers : kWait)) continue;
    const auto ended =
        std::count_if(processes_.begin(), std::prev(processes_.end()),
                      [](NamedProcess &process) { return process.process.status() == 0; });
    if (areAllGone() && static_cast<std::ptrdiff_t>(outcome_.workers.size()) >= ended) return;
    outcome_.hasFailed = true;
    outcome_.deaths.push_back("a worker did not report");
  }

  bool areAllGone() const {
    return std::all_of(processes_.begin(), processes_.end(),
                       [](const NamedProcess &process) { return process.isGone; });
  }

  void noteEnds() {
    bool isAnyWorkerLeft = false;
    for (NamedProcess &process : processes_) {
      const std::optional<int> status = process.process.status();
      if (!status && &process != &processes_.back()) isAnyWorkerLeft = true;
      if (!status || process.isGone) continue;
      process.isGone = true;
      if (*status == 0) continue;
      outcome_.deaths.push_back(process.name + " (process " + std::to_string(process.process.id()) +
                                ") " + howItEnded(*status));
      if (!WIFSIGNALED(*status)) outcome_.hasFailed = true;
    }
    if (arguments_.workers != 0 && !isAnyWorkerLeft && !outcome_.collector.isFinal) {
      throw std::runtime_error("no worker is left" +
                               (outcome_.deaths.empty() ? "" : ": " + outcome_.deaths.back()));
    }
  }

  void makeTrouble() {
    if (arguments_.trouble != Trouble::restart || hasRestarted_) return;
    if (outcome_.collector.jobs == 0) return;  // in the middle of the work
    hasRestarted_ = true;
    engine_->restart();
  }

  void tellProgress() {
    if (Clock::now() - lastLine_ < kBetweenLines) return;
    lastLine_ = Clock::now();
    progress_ << "exchange: " << catalog::grouped(outcome_.collector.jobs) << " of "
              << catalog::grouped(jobs_.count()) << " jobs merged" << std::endl;
  }

  // They are not acknowledged, so that the user can look at them in the server.
  void takeDead() {
    while (const std::optional<Delivery> delivery =
               engine_->transport().take(Stream::dead, Milliseconds(1))) {
      if (delivery->deliveries > 1) break;
      outcome_.dead.push_back(delivery->message);
    }
  }

  const Arguments &arguments_;
  const JobList &jobs_;
  std::ostream &progress_;
  std::unique_ptr<Engine> engine_;
  std::vector<NamedProcess> processes_;  // the collector last
  Outcome outcome_;
  bool hasRestarted_ = false;
  Clock::time_point lastLine_ = Clock::now();
};

}  // namespace

Outcome coordinate(const Arguments &arguments, const JobList &jobs, std::ostream &progress) {
  return Coordinator(arguments, jobs, progress).run();
}

ProcessReport workElsewhere(const Arguments &arguments) {
  const std::unique_ptr<Transport> transport = connectToRedis(arguments, "worker");
  const refhost::Library library(refhost::Library::besideProgram());
  return work(*transport, library, withProcess("worker"), arguments.trouble);
}

}  // namespace exchange
