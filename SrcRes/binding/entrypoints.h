// The export, all entry points, declared from the list of slots, and the filling and clearing of
// the MEM function vector. Each entry point is the function that memvect.h describes and throws no
// exception. The definitions are in the rooms of their families. If a definition differs from its
// slot's type, linking fails.
#pragma once

#include <cstdint>

#include "platform/platform.h"
#include "qj7mem00/memport.h"
#include "qj7mem00/memvect.h"

// See MEMBindFn. The only exported name.
extern "C" MEM_EXPORT void ENV_FWV_V00M00_GFunc(void **const *ppHostVectors,
                                                void **const *ppServiceVectors,
                                                const MEMSysEnv *pSysEnv, std::uint32_t SysFlags,
                                                std::int16_t Mode) noexcept;

namespace memlib {

template <class Function>
struct WithoutExceptions;
template <class Result, class... Args>
struct WithoutExceptions<Result(Args...)> {
  using Type = Result(Args...) noexcept;
};

#define MEM_DECLARE_ENTRY_POINT(slot, name) WithoutExceptions<name##Fn>::Type name;
MEM_VECTOR_SLOTS(MEM_DECLARE_ENTRY_POINT)
#undef MEM_DECLARE_ENTRY_POINT

inline constexpr std::int16_t kFillVector = 1;
inline constexpr std::int16_t kClearVector = 2;

// Fills slots 4 to 51 of the host's MEM function vector with the library's entry points, or clears
// them, inside a trace frame of its own. Slots 0 to 3 belong to the host and are never touched.
void PSdynamn(std::int16_t Action) noexcept;

}  // namespace memlib
