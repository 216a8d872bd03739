// Heaps: allocation of many small entries that are released together.
#pragma once

#include <cstdint>

#include "qj7mem00/memvect.h"

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_HeapOpen(HMEMHEAP *phMemHeap, std::int16_t AreaLen,
                          std::uint16_t SubPool) noexcept;
std::int16_t MEM_HeapClose(HMEMHEAP hMemHeap) noexcept;
std::int16_t MEM_HeapAllocEntry(HMEMHEAP hMemHeap, std::int16_t Len, void **ppEntry) noexcept;
std::int16_t MEM_HeapAllocMultEntries(HMEMHEAP hMemHeap, std::int16_t Len, std::int16_t NumEnties,
                                      std::int16_t LinkOff, void **ppEntry) noexcept;
std::int16_t MEM_HeapAllocEntryLong(HMEMHEAP hMemHeap, std::int32_t Len, void **ppEntry) noexcept;
std::int16_t MEM_HeapAllocLongMultEntries(HMEMHEAP hMemHeap, std::int32_t Len,
                                          std::int32_t NumEnties, std::int16_t LinkOff,
                                          void **ppEntry) noexcept;

}  // namespace mem
