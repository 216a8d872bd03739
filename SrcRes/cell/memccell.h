// Cell pools: cells of one length from areas that are obtained as they are needed.
#pragma once

#include <cstdint>

#include "qj7mem00/memvect.h"

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_CellOpen(HMEMCELL *phMemCell, std::int32_t AreaLen, std::int32_t CellLen,
                          std::int16_t SubPool) noexcept;
std::int16_t MEM_CellClose(HMEMCELL hMemCell) noexcept;
std::int16_t MEM_CellClear(HMEMCELL hMemCell) noexcept;
std::int16_t MEM_CellAllocEntry(HMEMCELL hMemCell, void **ppCell) noexcept;
std::int16_t MEM_CellFreeEntry(HMEMCELL hMemCell, void *pEntry) noexcept;

}  // namespace mem
