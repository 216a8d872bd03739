// The message table that MEM_ProcessInit registers with the host.
#pragma once

#include "qj7mem00/memerr.h"

namespace mem {

// Constant; ends with the row of code 0.
const MEMMessageRow *messageTable() noexcept;

}  // namespace mem
