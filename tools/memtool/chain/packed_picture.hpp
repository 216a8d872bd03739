// A picture of a packed chain.
#pragma once

#include <string>

#include "packed_chain.hpp"

namespace memtool {

// Blocks beyond these, and rows of a block beyond these, are counted instead of drawn.
inline constexpr std::size_t kMostDrawnBlocks = 24;
inline constexpr std::size_t kMostDrawnRows = 64;

// SVG with the first blocks side by side, their segments and texts in order, and an arrow for each
// pointer that stays in its block or leads to the next or previous one; others are written.
std::string chainPicture(const std::string &name, const PackedChain &chain);

}  // namespace memtool
