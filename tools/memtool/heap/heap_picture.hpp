// Draws heaps and pools.
#pragma once

#include <string>
#include <vector>

#include "heap_colours.hpp"
#include "heap_store.hpp"

namespace memtool {

// SVG with a panel for each snapshot. Every area is a bar, drawn to scale and divided into its
// parts. All areas of a script have the same scale. Each heap and pool of a program has its own
// scale, and its first kMostAreas areas are drawn. Large blocks that are too long for the scale are
// cut.
inline constexpr std::size_t kMostAreas = 24;
std::string heapPicture(const std::string &name, const std::vector<Snapshot> &snapshots,
                        ColourBy colour);

}  // namespace memtool
