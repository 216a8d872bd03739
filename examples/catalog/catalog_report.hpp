// The report about a run, and the times of its steps.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "catalog_model.hpp"
#include "refhost.hpp"

namespace catalog {

struct Step {
  std::string name;
  double milliseconds = 0;
};

// Measures the steps of the program, and shows the progress of long ones. One thread runs the
// steps. While a step runs, a thread of the clock writes to the progress stream and uses nothing
// else.
class StepClock {
 public:
  // `progress` gets one line for every full second that a step takes. It must exist longer than the
  // clock.
  explicit StepClock(std::ostream &progress) : progress_(progress) {}

  // Runs `work`. A step that throws is not recorded.
  void run(const std::string &name, const std::function<void()> &work);

  // The steps run so far, in order.
  const std::vector<Step> &steps() const { return steps_; }

 private:
  std::ostream &progress_;
  std::vector<Step> steps_;
};

struct Report {
  std::string catalogue;         // name of the file read
  std::string chainFile;         // name of the file written, or read
  std::int32_t blockLength = 0;  // 0 for a chain that was read: a file does not contain it
  RecordCounts records;
  std::string mostNeeded;  // neededLines of a run that writes
  mem::PackedChain::Size chain;
  std::uint64_t portCharacters = 0;
  NameCounts names;  // of a run that writes
  std::vector<Step> steps;
  refhost::Account account;  // of all storage, once the library has been unbound
};

// The report's lines about these packages, with their summaries. Uses storage of the library, which
// must be running. Throws ServiceError if there is no storage.
std::string neededLines(const mem::Context &context, const std::vector<NeededPackage> &packages);

// "1,234,567"
std::string grouped(std::uint64_t number);

// A line of a report without its end: a name, and a value or number in a column. The caller may
// append an explanation.
std::ostream &line(std::ostream &stream, const std::string &name, const std::string &value);
std::ostream &line(std::ostream &stream, const std::string &name, std::uint64_t number);

void printReport(std::ostream &stream, const Report &report);

}  // namespace catalog
