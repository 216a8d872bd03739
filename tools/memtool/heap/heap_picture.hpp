// Pictures of heaps and pools.
#pragma once

#include <string>
#include <vector>

#include "heap_script.hpp"

namespace memtool {

// SVG with a panel for each snapshot: every area is a bar to scale, divided into its parts.
std::string heapPicture(const std::string &name, const std::vector<Snapshot> &snapshots);

}  // namespace memtool
