// Storage services: the library's general allocation by subpool.
#pragma once

#include <cstdint>

namespace mem {

// See the declarations of the same name in memvect.h.
void *MEM_Alloc(std::uint32_t Size, std::int16_t SubPool) noexcept;
void MEM_Free(void *pArea, std::uint32_t Size, std::int16_t SubPool) noexcept;
std::int16_t MEM_InitQTRFTbls() noexcept;

}  // namespace mem
