// The functions that stand in the slots while a layer is attached.
#pragma once

#include <atomic>

#include "qj7mem00/memvect.h"

namespace memchk {

class Layer;

// The layer that calls go through; null: they pass.
extern std::atomic<Layer *> attachedLayer;

// Whether every slot of the library's leads somewhere.
bool isBound(const MEMFunctionVector &vector) noexcept;

// Puts the wrappers into a vector and keeps what was there; with `all` into all slots from 8 on.
void wrapSlots(MEMFunctionVector &vector, bool all) noexcept;

// Puts back what was there, in each slot that still holds its wrapper. What was there is called by
// wrappers from then on, too.
void unwrapSlots(MEMFunctionVector &vector) noexcept;

}  // namespace memchk
