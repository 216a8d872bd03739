// What the program tells about a run: how long its steps take, and the report.
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

// Times the steps of the program and tells the user when a long one is still at work. One thread
// runs the steps. While a step runs, a thread of the clock's own writes to the progress stream and
// touches nothing else.
class StepClock {
 public:
  // `progress` gets one line for every full second that a step takes. It must outlive the clock.
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
  std::int32_t blockLength = 0;  // 0 for a chain that was read: a file does not tell
  RecordCounts records;
  std::string mostNeeded;  // neededLines of a run that writes
  mem::PackedChain::Size chain;
  std::uint64_t portCharacters = 0;
  NameCounts names;  // of a run that writes
  std::vector<Step> steps;
  refhost::Account account;  // of all storage, once the library has been unbound
};

// The report's lines on these packages, with their summaries. Made in storage of the library, so
// while it is running. Throws ServiceError when there is none.
std::string neededLines(const mem::Context &context, const std::vector<NeededPackage> &packages);

// "1,234,567"
std::string grouped(std::uint64_t number);

// A line of a report up to its end: a name, and a value or number below those of other lines. What
// follows may tell more.
std::ostream &line(std::ostream &stream, const std::string &name, const std::string &value);
std::ostream &line(std::ostream &stream, const std::string &name, std::uint64_t number);

void printReport(std::ostream &stream, const Report &report);

}  // namespace catalog
