// Pictures of heaps and pools.
#pragma once

#include <string>
#include <vector>

#include "heap_colours.hpp"
#include "heap_store.hpp"

namespace memtool {

// SVG with a panel for each snapshot: every area is a bar to scale, divided into its parts. Areas
// of a script have one scale; each heap and pool of a program has its own, and the first kMostAreas
// areas of it are drawn. A large block is cut where it is longer than that scale allows.
inline constexpr std::size_t kMostAreas = 24;
std::string heapPicture(const std::string &name, const std::vector<Snapshot> &snapshots,
                        ColourBy colour);

}  // namespace memtool
