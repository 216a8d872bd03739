// Clears a thread's error area of 552 bytes. Most entry points begin with it.
#pragma once

#include "qj7mem00/memhost.h"

namespace memlib {

using ErrorAreaClear = void (*)(MEMErrorArea &area) noexcept;

// The fastest function that this processor can run. Binding selects and keeps it, because selecting
// takes longer than clearing.
ErrorAreaClear fastestErrorAreaClear() noexcept;

}  // namespace memlib
