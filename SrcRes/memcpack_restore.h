// Takes back what an attempt to unpack a chain in place has changed.
#pragma once

#include <cstdint>

#include "memcpack_chain.h"

namespace mem {

// Takes back the first `changes` changes of a walk from `root`: every pointer made, and each wide
// text whose bytes were swapped. Uses the chain's scratch. REQUIRES: the pointer fields held
// nothing but block and offset, no two things reached overlap, wide text has kept its length.
void restoreChain(const PackedChain &chain, const ContentPlace &root,
                  std::uint64_t changes) noexcept;

}  // namespace mem
