// A walk through a whole cell pool, for builds that validate: see MEM_ASSERT_VALID.
#pragma once

#include "cell/cellblocks.h"

namespace mem {

// Whether the pool is one as its operations leave it: its lists end, vacant nodes come before used
// ones, every node is in its place in an area, and every free cell is a cell of the pool.
bool isValid(const MEMCellCtlBlk &ctl) noexcept;

}  // namespace mem
