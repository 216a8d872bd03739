// Draws a packed chain.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "packed_chain.hpp"

namespace memtool {

// Further blocks, and further rows of a block, are counted instead of drawn.
inline constexpr std::size_t kMostDrawnBlocks = 24;
inline constexpr std::size_t kMostDrawnRows = 64;

// Where a picture begins, from the command line.
struct PictureStart {
  std::optional<std::uint32_t> block;  // the first block to draw
  std::string root;                    // BLOCK:OFFSET: draw only what a walk from there reaches
};

// SVG with the first blocks side by side, their segments and texts in order, and an arrow for each
// pointer that stays in its block or leads to the next or previous drawn one. The targets of other
// pointers are written only. Throws UnknownValue for a start that the chain does not have.
std::string chainPicture(const std::string &name, const PackedChain &chain,
                         const PictureStart &start);

}  // namespace memtool
