// The clearing of a thread's error area: 552 bytes, and nearly every call does it first.
#pragma once

#include "qj7mem00/memhost.h"

namespace memlib {

using ErrorAreaClear = void (*)(MEMErrorArea &area) noexcept;

// The fastest one that this processor can run. Binding asks for it and keeps it: to ask takes
// longer than to clear.
ErrorAreaClear fastestErrorAreaClear() noexcept;

}  // namespace memlib
