/** @file mem.hpp
 * The services of QJ7MEM00 for C++20: owners that free what they own, failures as values, and
 * tables that describe structures, made at compile time from their members.
 *
 * Everything is inline and calls the MEM function vector like any other caller. The library does
 * not use this header.
 *
 * Conventions:
 *  1. Nothing throws, except memory resources, which throw std::bad_alloc. Only the services
 *     allocate storage. The header compiles without exceptions and run-time type information.
 *  2. Owners (Heap, CellPool, …) are movable, not copyable. An owner is empty after default
 *     construction, after being moved from, after release() and after a close() that succeeded;
 *     only isOpen(), close(), assignment and destruction may be used then. The destructor closes
 *     and ignores a failure; call close() to get the error. After a failed close() the owner still
 *     owns.
 *  3. An owner keeps the address of its context. Close it before its context is destroyed, before
 *     its thread is ended (MEM_ThreadTerm) and before the library is unbound.
 *  4. Failures are an Error inside a Result. Results that are not failures (no such key, duplicate
 *     key, text not sunk) are values. A Result does not convert to bool: the value itself may be
 *     null or "not found", so `if (result)` would be ambiguous.
 *  5. Threading is as for the services: one thread at a time uses an owner, unless its comment says
 *     otherwise.
 */
#ifndef QJ7MEM00_MEM_HPP
#define QJ7MEM00_MEM_HPP

/* One clear message instead of many errors. Compilers with incomplete C++20 define a number between
 * the standards. */
#if __cplusplus <= 201703L && (!defined(_MSVC_LANG) || _MSVC_LANG <= 201703L)
#error "mem.hpp needs C++20 or later: compile with -std=c++20 (/std:c++20)"
#else

#include "mem/cell.hpp"
#include "mem/context.hpp"
#include "mem/hash.hpp"
#include "mem/heap.hpp"
#include "mem/pack.hpp"
#include "mem/port.hpp"
#include "mem/process.hpp"
#include "mem/text.hpp"
#if __has_include(<memory_resource>)  // missing in older standard libraries
#include "mem/resource.hpp"
#endif

#endif
#endif
