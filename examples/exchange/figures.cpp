#include "figures.hpp"

#include <iomanip>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "catalog_report.hpp"
#include "coordinator.hpp"
#include "exchange_report.hpp"

namespace exchange {
namespace {

constexpr int kRuns = 3;

struct Figure {
  std::string transport;
  int workers = 0;
  Outcome outcome;
};

Figure measure(Arguments arguments, const JobList &jobs, bool usesRedis, int workers) {
  arguments.usesRedis = usesRedis;
  arguments.workers = workers;
  Figure best{usesRedis ? "Redis" : "pipes", workers, {}};
  for (int i = 0; i < kRuns; ++i) {
    std::ostringstream progress;  // not shown
    Outcome outcome = coordinate(arguments, jobs, progress);
    if (!isGood(outcome)) throw std::runtime_error("a run failed: " + outcome.collector.problem);
    if (i == 0 || outcome.seconds < best.outcome.seconds) best.outcome = std::move(outcome);
  }
  return best;
}

// "12.3", microseconds a job.
std::string perJob(std::uint64_t nanoseconds, const JobList &jobs) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(1)
       << static_cast<double>(nanoseconds) / 1e3 / static_cast<double>(jobs.count());
  return text.str();
}

void printRow(std::ostream &stream, const Figure &figure, const JobList &jobs) {
  const Outcome &outcome = figure.outcome;
  const WorkTimes &workers = sumOfWorkers(outcome).times;
  const WorkTimes &collector = outcome.collector.times;
  stream << "| " << figure.transport << " | " << figure.workers << " | "
         << catalog::grouped(
                static_cast<std::uint64_t>(static_cast<double>(jobs.count()) / outcome.seconds));
  for (const std::uint64_t time :
       {workers.of(Work::build), workers.of(Work::pack), workers.of(Work::transport),
        outcome.engineTime, collector.of(Work::transport), collector.of(Work::unpack),
        collector.of(Work::check), collector.of(Work::merge)}) {
    stream << " | " << perJob(time, jobs);
  }
  stream << " |\n";
}

}  // namespace

void printFigures(std::ostream &stream, const Arguments &arguments, const JobList &jobs) {
  stream << "| transport | workers | jobs a second | build | pack | transport, worker | streams "
            "| transport, collector | unpack | check | merge |\n"
            "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n";
  std::uint64_t chainBytes = 0;
  std::uint64_t jobBytes = 0;
  for (const bool usesRedis : {false, true}) {
    for (const int workers : {1, 2, 4}) {
      const Figure figure = measure(arguments, jobs, usesRedis, workers);
      printRow(stream, figure, jobs);
      stream.flush();
      chainBytes = figure.outcome.collector.chainBytes;
      jobBytes = sumOfWorkers(figure.outcome).jobBytes;
    }
  }
  stream << '\n'
         << catalog::grouped(jobs.count()) << " jobs of " << arguments.packagesPerJob
         << " packages; a job has " << catalog::grouped(jobBytes / jobs.count())
         << " bytes, its chain " << catalog::grouped(chainBytes / jobs.count()) << ".\n";
}

}  // namespace exchange
