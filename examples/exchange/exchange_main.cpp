// Packs a package catalogue in several processes, which send each other packed chains: through
// pipes, or through a Redis server. `exchange --help` lists the options;
// docs/between-processes.md explains the program and its rules.
#include <signal.h>

#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "catalog_support.hpp"
#include "coordinator.hpp"
#include "exchange_arguments.hpp"
#include "exchange_report.hpp"
#include "figures.hpp"
#include "refhost.hpp"

namespace exchange {
namespace {

using catalog::ExitCode;

ExitCode runWorker(const Arguments &arguments) {
  const ProcessReport report = workElsewhere(arguments);
  std::cout << report.name << ": " << report.jobs << " jobs, " << report.liveBytes << " bytes in "
            << report.liveCount << " areas not returned\n";
  return report.liveBytes == 0 ? catalog::kExitSuccess : catalog::kExitFailure;
}

ExitCode run(Arguments arguments) {
  if (arguments.isWorker) return runWorker(arguments);
  if (arguments.catalogue.empty()) {
    arguments.catalogue =
        catalog::defaultCatalogue(refhost::Library::besideProgram().parent_path());
  }
  const std::string name = catalog::utf8FromPath(arguments.catalogue);
  const JobList jobs(catalog::readBytes(arguments.catalogue), name, arguments.packagesPerJob,
                     arguments.times);
  if (arguments.figures) {
    printFigures(std::cout, arguments, jobs);
    return catalog::kExitSuccess;
  }
  const Outcome outcome = coordinate(arguments, jobs, std::cerr);
  printOutcome(std::cout, outcome, jobs, name, arguments);
  if (!std::cout.flush()) throw std::runtime_error("the report could not be written");
  return isGood(outcome) ? catalog::kExitSuccess : catalog::kExitFailure;
}

ExitCode runWithArguments(const std::vector<std::string> &words) {
  try {
    const Arguments arguments = parseArguments(words);
    if (arguments.help.empty()) return run(arguments);
    std::cout << arguments.help;
    return catalog::kExitSuccess;
  } catch (const catalog::InputError &error) {
    std::cerr << "exchange: " << error.what() << '\n';
    return catalog::kExitBadInput;
  } catch (const std::exception &error) {
    std::cerr << "exchange: " << error.what() << '\n';
    return catalog::kExitFailure;
  }
}

}  // namespace
}  // namespace exchange

int main(int argc, char **argv) {
  signal(SIGPIPE, SIG_IGN);  // a closed connection makes the call fail instead
  return exchange::runWithArguments(catalog::programArguments(argc, argv));
}
