// Check of a whole cell pool, for MEM_ASSERT_VALID.
#pragma once

#include "cell/cellblocks.h"

namespace memlib {

// True when the pool's invariants hold: its lists end, vacant nodes come before used ones, every
// node is in its place in an area, and every free cell is a cell of the pool. The pool does not
// check what callers free: a caller that frees a foreign cell, or a cell twice, breaks them.
bool isValid(const MEMCellCtlBlk &ctl) noexcept;

}  // namespace memlib
