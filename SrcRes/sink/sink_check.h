// Check of the whole sink, for MEM_ASSERT_VALID.
#pragma once

#include "qj7mem00/memproc.h"

namespace memlib {

// True when the index counts its slots right and has its copies in order, each of them in a string
// space, and each segment's map and lengths say what the copies take. Changes nothing. REQUIRES:
// the sink runs, its gate is held.
bool isValidSink(MEMProcessBlock &process) noexcept;

}  // namespace memlib
