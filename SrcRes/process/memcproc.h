// Process and thread context: the process block, the thread blocks and the process option.
#pragma once

#include <cstdint>

#include "qj7mem00/memproc.h"

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_ProcessInit() noexcept;
std::int16_t MEM_ProcessTerm() noexcept;
std::int16_t MEM_ThreadAct() noexcept;
std::int16_t MEM_ThreadTerm() noexcept;
std::int16_t MEMSetProcOptions(const MEMProcOptions *pOptions) noexcept;

}  // namespace mem
