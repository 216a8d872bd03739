// Checks of a whole heap, for MEM_ASSERT_VALID.
#pragma once

#include "heap/heapblocks.h"

namespace memlib {

// True when the heap's invariants hold: its lists end, every area and large block has a valid
// header, no entry exceeds its area, and the counts in the heap's header are right.
bool isValid(const MEMHeapHeader &heap) noexcept;

// The same, and every free entry is storage that was allocated before.
// REQUIRES: no other thread changes the heap: its gate is held, or its handle is not yet known.
bool isValid(const MEMEHeapHeader &heap) noexcept;

}  // namespace memlib
