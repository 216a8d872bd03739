// Slots whose services this build does not provide: each fails with MEMERR_NOT_SUPPORTED and its
// own name.
#pragma once

#include "callframe.h"
#include "qj7mem00/memvect.h"

namespace mem {

// The common body. `pName` is the trace name and the failure's text.
std::int16_t failUnbuilt(const char *pName) noexcept;

template <class Fn, const char *const &name>
struct Unbuilt;

template <class... Args, const char *const &name>
struct Unbuilt<std::int16_t(Args...), name> {
  static std::int16_t call(Args...) noexcept { return failUnbuilt(name); }
};

#define MEM_UNBUILT(entryPoint)                             \
  inline constexpr const char *k##entryPoint = #entryPoint; \
  inline constexpr auto entryPoint = Unbuilt<entryPoint##Fn, k##entryPoint>::call

MEM_UNBUILT(MEM_CellOpen);
MEM_UNBUILT(MEM_CellClose);
MEM_UNBUILT(MEM_CellClear);
MEM_UNBUILT(MEM_CellAllocEntry);
MEM_UNBUILT(MEM_CellFreeEntry);
MEM_UNBUILT(MEM_CatOpen);
MEM_UNBUILT(MEM_CatClose);
MEM_UNBUILT(MEM_Cat);
MEM_UNBUILT(MEM_MemCat);
MEM_UNBUILT(MEM_EHeapOpen);
MEM_UNBUILT(MEM_EHeapClose);
MEM_UNBUILT(MEM_EHeapAllocEntry);
MEM_UNBUILT(MEM_EHeapFreeEntry);
MEM_UNBUILT(MEM_EHeapAllocMultEntries);
MEM_UNBUILT(MEM_EHeapAllocLongMultEntries);

#undef MEM_UNBUILT

}  // namespace mem
