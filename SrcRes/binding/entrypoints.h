// All entry points, declared from the list of slots: each is the function that memvect.h describes,
// and lets no exception out. Their definitions are in the rooms of their families; one that differs
// from its slot's type is missing when the library is linked.
#pragma once

#include "qj7mem00/memport.h"
#include "qj7mem00/memvect.h"

namespace mem {

template <class Function>
struct WithoutExceptions;
template <class Result, class... Args>
struct WithoutExceptions<Result(Args...)> {
  using Type = Result(Args...) noexcept;
};

#define MEM_DECLARE_ENTRY_POINT(slot, name) WithoutExceptions<name##Fn>::Type name;
MEM_VECTOR_SLOTS(MEM_DECLARE_ENTRY_POINT)
#undef MEM_DECLARE_ENTRY_POINT

}  // namespace mem
