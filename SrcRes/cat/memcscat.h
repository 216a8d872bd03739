// Concatenation buffers: wide text that grows as it is appended to.
#pragma once

#include <cstdint>

#include "qj7mem00/memvect.h"

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_CatOpen(MEMCatCB *pCatCB) noexcept;
std::int16_t MEM_CatClose(MEMCatCB *pCatCB) noexcept;
std::int16_t MEM_Cat(MEMCatCB *pCatCB, const char16_t *pText) noexcept;
std::int16_t MEM_MemCat(MEMCatCB *pCatCB, const char16_t *pText, std::int32_t Len) noexcept;

}  // namespace mem
