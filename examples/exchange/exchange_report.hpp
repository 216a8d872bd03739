// What the program prints about a run.
#pragma once

#include <iosfwd>
#include <string>

#include "coordinator.hpp"
#include "exchange_arguments.hpp"

namespace exchange {

// Whether each job has its result, the merged catalogue is the source, and every process that ended
// by itself has returned its storage.
bool isGood(const Outcome &outcome);

void printOutcome(std::ostream &stream, const Outcome &outcome, const JobList &jobs,
                  const std::string &catalogue, const Arguments &arguments);

// Of all workers together.
ProcessReport sumOfWorkers(const Outcome &outcome);

}  // namespace exchange
