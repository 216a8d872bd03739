// Starts the processes of a run, publishes the jobs and waits for the reports.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "exchange_arguments.hpp"
#include "exchange_jobs.hpp"
#include "process_report.hpp"

namespace exchange {

struct Outcome {
  std::string engine;            // what kept the streams
  double seconds = 0;            // from the first job to the collector's report
  std::uint64_t engineTime = 0;  // its processor time in nanoseconds; 0: not known
  std::vector<ProcessReport> workers;
  ProcessReport collector;
  std::vector<std::string> deaths;  // "worker 1 (process 4711) was killed by signal 9"
  std::vector<Message> dead;        // messages that were set aside
  bool hasFailed = false;           // a process ended with a failure of its own
};

// Runs it. `progress` gets a line every second, and one about the processes. Throws InputError or
// TransportError if the streams are not available, std::runtime_error if the run cannot continue.
Outcome coordinate(const Arguments &arguments, const JobList &jobs, std::ostream &progress);

// Works for a run that was started elsewhere. Returns the report.
ProcessReport workElsewhere(const Arguments &arguments);

}  // namespace exchange
