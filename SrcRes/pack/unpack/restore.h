// Takes back what an attempt to unpack a chain in place has changed.
#pragma once

#include <cstdint>

#include "pack/unpack/chain_reader.h"

namespace mem {

// Takes back the first `steps` steps of a walk from `root`: each pointer field that it passed,
// where null stays null, and each wide text whose bytes it swapped. Uses the chain's scratch.
// REQUIRES: the pointer fields held nothing but block and offset, no two things reached overlap,
// wide text has kept its length.
void restoreChain(const PackedChain &chain, const ContentPlace &root, std::uint64_t steps) noexcept;

}  // namespace mem
