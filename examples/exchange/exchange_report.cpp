#include "exchange_report.hpp"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <sstream>

#include "catalog_report.hpp"

namespace exchange {
namespace {

using catalog::grouped;
using catalog::line;

constexpr std::size_t kDeadShown = 5;

std::string milliseconds(std::uint64_t nanoseconds) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(1) << static_cast<double>(nanoseconds) / 1e6;
  return text.str();
}

void printJobs(std::ostream &stream, const Outcome &outcome, const JobList &jobs,
               const Arguments &arguments) {
  const ProcessReport workers = sumOfWorkers(outcome);
  const ProcessReport &collector = outcome.collector;
  line(stream, "jobs", jobs.count())
      << "  of at most " << grouped(arguments.packagesPerJob) << " packages\n";
  line(stream, "merged", collector.jobs) << "  results\n";
  line(stream, "came twice", collector.doubled) << "  results, dropped\n";
  line(stream, "set aside", collector.setAside + workers.setAside) << "  messages, not usable\n";
  line(stream, "claimed", workers.repeated) << "  jobs of workers that died or were too slow\n";
  line(stream, "again", collector.again) << "  jobs published again\n";
  line(stream, "job bytes", workers.jobBytes) << "  taken by workers that reported\n";
  line(stream, "chain bytes", collector.chainBytes) << "  taken by the collector\n";
  line(stream, "jobs a second",
       static_cast<std::uint64_t>(static_cast<double>(collector.jobs) / outcome.seconds))
      << '\n';
}

void printTimes(std::ostream &stream, const Outcome &outcome) {
  const WorkTimes &workers = sumOfWorkers(outcome).times;
  const WorkTimes &collector = outcome.collector.times;
  stream << "Milliseconds of processor time\n";
  line(stream, "build", milliseconds(workers.of(Work::build))) << "  workers\n";
  line(stream, "pack", milliseconds(workers.of(Work::pack))) << "  workers\n";
  line(stream, "transport", milliseconds(workers.of(Work::transport))) << "  workers\n";
  line(stream, "transport", milliseconds(collector.of(Work::transport))) << "  collector\n";
  line(stream, "unpack", milliseconds(collector.of(Work::unpack))) << "  collector\n";
  line(stream, "check", milliseconds(collector.of(Work::check))) << "  collector\n";
  line(stream, "merge", milliseconds(collector.of(Work::merge))) << "  collector\n";
  if (outcome.engineTime != 0) {
    line(stream, "streams", milliseconds(outcome.engineTime)) << "  " << outcome.engine << '\n';
  }
}

void printMerged(std::ostream &stream, const Outcome &outcome) {
  stream << "Merged catalogue\n";
  if (!outcome.collector.problem.empty()) {
    stream << "  " << outcome.collector.problem << '\n';
    return;
  }
  line(stream, "packages", outcome.collector.packages) << '\n';
  line(stream, "references", outcome.collector.references)
      << "  to packages of any job; equal to the source\n";
}

void printDead(std::ostream &stream, const Outcome &outcome) {
  if (outcome.dead.empty()) return;
  stream << "Set aside\n";
  for (std::size_t i = 0; i < std::min(outcome.dead.size(), kDeadShown); ++i) {
    const Message &dead = outcome.dead[i];
    const std::optional<std::uint32_t> job = jobOf(dead);
    stream << "  " << *fieldOf(dead, kFromField) << (job ? ", job " + std::to_string(*job) : "")
           << ": code " << *fieldOf(dead, kCodeField) << ", " << *fieldOf(dead, kReasonField)
           << '\n';
  }
  if (outcome.dead.size() > kDeadShown) {
    stream << "  and " << outcome.dead.size() - kDeadShown << " more\n";
  }
}

void printAccount(std::ostream &stream, const ProcessReport &process) {
  stream << "  " << process.name << ": " << grouped(process.storageBytes) << " bytes allocated, "
         << grouped(process.liveBytes) << " bytes in " << grouped(process.liveCount)
         << " areas not returned\n";
}

void printProcesses(std::ostream &stream, const Outcome &outcome) {
  stream << "Storage allocated from the hosts\n";
  for (const ProcessReport &worker : outcome.workers) printAccount(stream, worker);
  printAccount(stream, outcome.collector);
  for (const std::string &death : outcome.deaths) stream << "  " << death << '\n';
}

}  // namespace

bool isGood(const Outcome &outcome) {
  const auto hasReturnedAll = [](const ProcessReport &report) {
    return report.liveBytes == 0 && report.liveCount == 0;
  };
  return !outcome.hasFailed && outcome.collector.problem.empty() &&
         hasReturnedAll(outcome.collector) &&
         std::all_of(outcome.workers.begin(), outcome.workers.end(), hasReturnedAll);
}

ProcessReport sumOfWorkers(const Outcome &outcome) {
  ProcessReport sum;
  for (const ProcessReport &worker : outcome.workers) {
    sum.repeated += worker.repeated;
    sum.setAside += worker.setAside;
    sum.jobBytes += worker.jobBytes;
    sum.chainBytes += worker.chainBytes;
    for (const Work work : {Work::build, Work::pack, Work::transport}) {
      sum.times.of(work) += worker.times.of(work);
    }
  }
  return sum;
}

void printOutcome(std::ostream &stream, const Outcome &outcome, const JobList &jobs,
                  const std::string &catalogue, const Arguments &arguments) {
  stream << "Catalogue " << catalogue << ", through " << outcome.engine << '\n';
  printJobs(stream, outcome, jobs, arguments);
  printTimes(stream, outcome);
  printMerged(stream, outcome);
  printDead(stream, outcome);
  printProcesses(stream, outcome);
}

}  // namespace exchange
