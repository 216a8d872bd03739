// Starts the processes of a run, gives them the jobs and waits for their reports.
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
  std::string engine;            // what held the streams
  double seconds = 0;            // from the first job to the collector's report
  std::uint64_t engineTime = 0;  // its processor time in nanoseconds; 0: not known
  std::vector<ProcessReport> workers;
  ProcessReport collector;
  std::vector<std::string> deaths;  // "worker 1 (process 4711) was killed by signal 9"
  std::vector<Message> dead;        // what was set aside
  bool hasFailed = false;           // a process ended with a failure of its own
};

// Runs it. `progress` gets a line every second, and one about the processes. Throws InputError or
// TransportError when the streams cannot be had, std::runtime_error when the work cannot go on.
Outcome coordinate(const Arguments &arguments, const JobList &jobs, std::ostream &progress);

// The part of a worker of a run that was started elsewhere. Returns its report.
ProcessReport workElsewhere(const Arguments &arguments);

}  // namespace exchange
