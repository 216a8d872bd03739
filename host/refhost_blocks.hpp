// Figures from the control blocks of heaps, pools and tables, at the offsets that the manual
// gives. REQUIRES: no call through the vector is running.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "refhost.hpp"
#include "refhost_storage.hpp"

namespace refhost {

// Live areas of the account by address.
using LiveAreas = std::map<std::uintptr_t, const FoundArea *>;

// Every heap, pool and table whose control block begins an area, without the figures that only the
// layer counts. A list of areas is followed as far as it leads to areas of the right length.
struct SeenObjects {
  std::vector<ObjectStatistics> heaps;
  std::vector<ObjectStatistics> pools;
  std::vector<ObjectStatistics> tables;
};
SeenObjects readBlocks(const LiveAreas &areas);

}  // namespace refhost
