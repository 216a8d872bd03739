// A picture of a packed chain.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "packed_chain.hpp"

namespace memtool {

// Blocks beyond these, and rows of a block beyond these, are counted instead of drawn.
inline constexpr std::size_t kMostDrawnBlocks = 24;
inline constexpr std::size_t kMostDrawnRows = 64;

// Where a picture begins, as the user wrote it.
struct PictureStart {
  std::optional<std::uint32_t> block;  // blocks before it are not drawn
  std::string root;                    // BLOCK:OFFSET; only what a walk from there reaches is drawn
};

// SVG with the first blocks side by side, their segments and texts in order, and an arrow for each
// pointer that stays in its block or leads to the next or previous one that is drawn; others are
// written. Throws UnknownValue for a start that the chain does not have.
std::string chainPicture(const std::string &name, const PackedChain &chain,
                         const PictureStart &start);

}  // namespace memtool
