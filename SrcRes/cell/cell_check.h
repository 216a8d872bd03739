// A walk through a whole cell pool, for builds that validate: see MEM_ASSERT_VALID.
#pragma once

#include "cell/cellblocks.h"

namespace memlib {

// Whether the pool is one as its operations leave it: its lists end, vacant nodes come before used
// ones, every node is in its place in an area, and every free cell is a cell of the pool. A caller
// who gives back a foreign cell, or one twice, which the pool takes unseen, makes it another.
bool isValid(const MEMCellCtlBlk &ctl) noexcept;

}  // namespace memlib
