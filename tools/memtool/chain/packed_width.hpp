// Finds the width of the writer's pointers. The file does not contain it, but some layouts in the
// control block are possible with one width only.
#pragma once

#include <cstdint>

#include "packed_chain.hpp"

namespace memtool {

struct PointerWidth {
  std::uint32_t bytes = 8;
  bool isGuess = true;  // the layouts are possible with both widths, or with neither
};

// Uses the layouts of those kinds that have segments. REQUIRES: the head of the chain has been
// read.
PointerWidth findPointerWidth(const PackedChain &chain);

}  // namespace memtool
