// The figures of the manual: runs with 1, 2 and 4 workers with both transports.
#pragma once

#include <iosfwd>

#include "exchange_arguments.hpp"
#include "exchange_jobs.hpp"

namespace exchange {

// Prints tables in Markdown. Each row is the quickest of three runs. Throws like coordinate(), and
// std::runtime_error for a run that fails.
void printFigures(std::ostream &stream, const Arguments &arguments, const JobList &jobs);

}  // namespace exchange
