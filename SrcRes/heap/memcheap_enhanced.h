// Enhanced heaps: heaps that threads share. Each has a gate of its own, held while its chains are
// looked at or changed.
#pragma once

#include <cstdint>

#include "qj7mem00/memvect.h"

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_EHeapOpen(HMEMHEAP *phMemHeap, std::int16_t AreaLen,
                           std::uint16_t SubPool) noexcept;
std::int16_t MEM_EHeapClose(HMEMHEAP hMemHeap) noexcept;
std::int16_t MEM_EHeapAllocEntry(HMEMHEAP hMemHeap, std::int32_t Len, void **ppEntry) noexcept;
std::int16_t MEM_EHeapFreeEntry(HMEMHEAP hMemHeap, std::int32_t Len, void *pEntry) noexcept;
std::int16_t MEM_EHeapAllocMultEntries(HMEMHEAP hMemHeap, std::int32_t Len, std::int16_t NumEnties,
                                       std::int16_t LinkOff, void **ppEntry) noexcept;
std::int16_t MEM_EHeapAllocLongMultEntries(HMEMHEAP hMemHeap, std::int32_t Len,
                                           std::int32_t NumEnties, std::int16_t LinkOff,
                                           void **ppEntry) noexcept;

}  // namespace mem
