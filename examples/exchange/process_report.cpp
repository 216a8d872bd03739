#include "process_report.hpp"

#include <time.h>

#include <charconv>

#include "exchange_jobs.hpp"

namespace exchange {
namespace {

// Calls `use` with the name of each number of a report and the number.
template <class Report, class Use>
void forEachNumber(Report &report, Use use) {
  use("jobs", report.jobs);
  use("repeated", report.repeated);
  use("doubled", report.doubled);
  use("set-aside", report.setAside);
  use("again", report.again);
  use("job-bytes", report.jobBytes);
  use("chain-bytes", report.chainBytes);
  use("packages", report.packages);
  use("references", report.references);
  use("storage-bytes", report.storageBytes);
  use("live-bytes", report.liveBytes);
  use("live-count", report.liveCount);
  for (int i = 0; i < kWorkCount; ++i) use(kWorkNames[i], report.times.of(static_cast<Work>(i)));
}

std::string textIn(const Message &message, const char *name) {
  const std::string *const text = fieldOf(message, name);
  return text == nullptr ? std::string() : *text;
}

}  // namespace

std::uint64_t processorTime() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000000 +
         static_cast<std::uint64_t>(time.tv_nsec);
}

Message messageOf(const ProcessReport &report) {
  Message message = {{"role", report.role == Role::worker ? "worker" : "collector"},
                     {"final", report.isFinal ? "yes" : "no"},
                     {"name", report.name},
                     {"problem", report.problem}};
  forEachNumber(report, [&](const char *name, std::uint64_t number) {
    message[name] = std::to_string(number);
  });
  return message;
}

ProcessReport reportFrom(const Message &message) {
  ProcessReport report;
  report.role = textIn(message, "role") == "worker" ? Role::worker : Role::collector;
  report.isFinal = textIn(message, "final") == "yes";
  report.name = textIn(message, "name");
  report.problem = textIn(message, "problem");
  forEachNumber(report, [&](const char *name, std::uint64_t &number) {
    const std::string text = textIn(message, name);
    std::from_chars(text.data(), text.data() + text.size(), number);
  });
  return report;
}

}  // namespace exchange
