// String sink: one shared, sorted, write-protected copy of each string of the process.
//
//   memcstrg          entry points, start and stop, the common workers
//   memcstrg_compare  the sink comparison
//   memcstrg_space    blocks, allocation maps, protection
//   memcstrg_index    the sorted index
//   memcstrg_trace    trace records
#pragma once

#include <cstdint>

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_SinkInit() noexcept;
std::int16_t MEM_SinkTerm() noexcept;
std::int16_t MEM_SinkString(const char *pText, const char **ppSunk) noexcept;
std::int16_t MEM_SinkDelete(const char *pSunk) noexcept;
std::int16_t MEM_SinkVerify(const char *pText, const char **ppSunk, void *pReserved) noexcept;
std::int16_t MEM_WSinkString(const char16_t *pText, const char16_t **ppSunk) noexcept;
std::int16_t MEM_WSinkDelete(const char16_t *pSunk) noexcept;
std::int16_t MEM_WSinkVerify(const char16_t *pText, const char16_t **ppSunk,
                             void *pReserved) noexcept;

}  // namespace mem
