// The report about a run.
#pragma once

#include <iosfwd>
#include <string>

#include "coordinator.hpp"
#include "exchange_arguments.hpp"

namespace exchange {

// Whether each job has its result, the merged catalogue equals the source, and every process that
// was not killed has returned its storage.
bool isGood(const Outcome &outcome);

void printOutcome(std::ostream &stream, const Outcome &outcome, const JobList &jobs,
                  const std::string &catalogue, const Arguments &arguments);

// The sum of the workers' reports.
ProcessReport sumOfWorkers(const Outcome &outcome);

}  // namespace exchange
