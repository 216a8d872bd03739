// The functions that are in the slots while a layer is attached.
#pragma once

#include <atomic>

#include "qj7mem00/memvect.h"

namespace memchk {

class Layer;

// The layer that watches calls; null: wrappers only pass them on.
extern std::atomic<Layer *> attachedLayer;

// Whether every slot of the library contains a function.
bool isBound(const MEMFunctionVector &vector) noexcept;

// Puts the wrappers into a vector and keeps its functions; with `all` into all slots from 8 on.
void wrapSlots(MEMFunctionVector &vector, bool all) noexcept;

// Puts each kept function back if its slot still contains the wrapper. Another slot may still lead
// to a wrapper, which then calls the kept function.
void unwrapSlots(MEMFunctionVector &vector) noexcept;

}  // namespace memchk
