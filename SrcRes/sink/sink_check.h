// Check of the whole sink, for MEM_ASSERT_VALID.
#pragma once

#include "qj7mem00/memproc.h"

namespace memlib {

// True when the index has the right counts and its copies in order, each copy is in a string space,
// and each segment's map and lengths match the copies. Changes nothing. REQUIRES: the sink runs,
// its gate is held.
bool isValidSink(MEMProcessBlock &process) noexcept;

}  // namespace memlib
