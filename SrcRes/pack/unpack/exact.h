// Unpacking in place: the blocks themselves become the structure.
#pragma once

#include "pack/unpack/chain_reader.h"

namespace mem {

// Replaces every relative pointer that is reached from `root` by the real address and turns wide
// text into native UTF-16. A current control block of the other byte order is swapped. Each segment
// and each pointer field is touched once. A failure leaves the blocks partly converted.
Outcome unpackInPlace(PackedChain &chain, const ContentPlace &root) noexcept;

}  // namespace mem
