// Walks through a whole heap, for builds that validate: see MEM_ASSERT_VALID.
#pragma once

#include "heap/heapblocks.h"

namespace memlib {

// Whether the heap is one as its operations leave it: its lists end, every area and large block is
// one by its head, nothing is handed out beyond an area's end, and what the head counts is right.
bool isValid(const MEMHeapHeader &heap) noexcept;

// The same, and every free entry is a piece of storage that was handed out.
// REQUIRES: no other thread changes the heap: its gate is held, or its handle is not yet known.
bool isValid(const MEMEHeapHeader &heap) noexcept;

}  // namespace memlib
