// The names of a catalogue in the string sink: a name that stands in many records is kept once.
#pragma once

#include <cstdint>

#include "catalog_model.hpp"

namespace catalog {

struct NameCounts {
  std::uint64_t names = 0;          // of packages and in dependencies
  std::uint64_t separateBytes = 0;  // that a copy of each would take, with its terminator
  std::uint64_t distinct = 0;       // copies in the sink
  std::uint64_t sinkBytes = 0;      // that they reserve
};

// Sinks every name of the records at `root`. The copies live until the process, whose block is
// given, is ended. Throws ServiceError.
NameCounts sinkNames(const mem::Context &context, const MEMProcessBlock &process,
                     const PackageRecord *root);

}  // namespace catalog
