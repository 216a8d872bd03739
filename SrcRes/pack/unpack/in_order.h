// Unpacking in place of a chain whose segments and texts lie in the order in which writers place
// them. There the checks need no record of what has been reached: what comes next lies behind it.
#pragma once

#include "pack/unpack/chain_reader.h"

namespace mem {

// Does what unpackInPlace() promises if nothing is wrong with what is reached from `root` and all
// of it lies in order. Otherwise returns false and has changed nothing of the chain but its
// scratch.
bool unpackInOrder(const PackedChain &chain, const ContentPlace &root) noexcept;

}  // namespace mem
