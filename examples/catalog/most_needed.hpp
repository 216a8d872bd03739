// The packages that most others need.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "catalog_model.hpp"

namespace catalog {

struct NeededPackage {
  const PackageRecord *package = nullptr;
  std::uint64_t dependencies = 0;  // that lead to it, 1 or more
};

// At most `count` packages, the most needed first; of equal ones the earlier in the catalogue.
std::vector<NeededPackage> mostNeeded(const PackageRecord *root, std::size_t count);

}  // namespace catalog
