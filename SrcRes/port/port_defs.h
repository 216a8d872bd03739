// What writing and reading have in common: definition tables, which belong to the caller and are
// read in place at every look-up, the places that error records name, and heap entries.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qj7mem00/memport.h"
#include "qj7mem00/memvect.h"

namespace memlib {

// MEM_Find_Struct_Def: the first definition of the structure, or null. The table ends with an
// identifier below 1.
const MEMStructDef *findStructDef(const MEMStructDef *pDefs, std::uint32_t StructID) noexcept;

// Number of entries of Fields; 0 if FieldCount is negative.
inline std::int32_t fieldCount(const MEMStructDef &def) noexcept {
  return def.FieldCount > 0 ? def.FieldCount : 0;
}

// True when the definition has a repeat field, which is its last field.
inline bool hasRepeatField(const MEMStructDef &def) noexcept {
  return def.CountField != MEM_PORT_NO_COUNT;
}

// The place that an error record names: internal routine and fixed line, as in all trace records.
// Error records are written regardless of the trace flags.
struct MessagePoint {
  const char *routine;
  std::int32_t line;
};

// Stores the default of an absent field. False when a text is too long for a field that must not be
// truncated. REQUIRES: as many bytes at `pField` as a value of the type has, for a pointer at least
// `Length`.
bool applyDefault(const MEMFieldDef &field, std::byte *pField) noexcept;

// An entry of a heap, or null with the heap's error recorded.
void *heapEntry(HMEMHEAP hMemHeap, std::int64_t length) noexcept;

}  // namespace memlib
