// What the program tells about a run.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "catalog_model.hpp"
#include "most_needed.hpp"
#include "refhost.hpp"
#include "shared_names.hpp"
#include "step_clock.hpp"

namespace catalog {

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

void printReport(std::ostream &stream, const Report &report);

}  // namespace catalog
