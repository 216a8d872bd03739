// What the program tells about a run.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "catalog_model.hpp"
#include "refhost.hpp"
#include "shared_names.hpp"
#include "step_clock.hpp"

namespace catalog {

struct Report {
  std::string catalogue;         // name of the file read
  std::string chainFile;         // name of the file written, or read
  std::int32_t blockLength = 0;  // 0 for a chain that was read: a file does not tell
  RecordCounts records;
  mem::PackedChain::Size chain;
  std::uint64_t portCharacters = 0;
  NameCounts names;  // of a run that writes
  std::vector<Step> steps;
};

// The report on a run as UTF-8. It is put together in a buffer of the library. Throws ServiceError.
std::string composeReport(const mem::Context &context, const Report &report);

// Its last part: all storage, once the library has been unbound.
void printAccount(std::ostream &stream, const refhost::Account &account);

}  // namespace catalog
