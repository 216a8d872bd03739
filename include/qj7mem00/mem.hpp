/** @file mem.hpp
 * The services of QJ7MEM00 for C++20: owners that give back what they hold, failures as values,
 * and tables that describe structures, made at compile time from their members.
 *
 * Everything is inline and goes through the MEM function vector like any other caller. The library
 * does not know this header.
 *
 * Conventions:
 *  1. Nothing throws and nothing is allocated but what the services allocate. The header compiles
 *     without exceptions and run-time type information. (Memory resources throw std::bad_alloc.)
 *  2. Owners (Heap, CellPool, …) are movable, not copyable. An owner is empty after default
 *     construction, after being moved from, after release() and after a close() that succeeded;
 *     only isOpen(), close(), assignment and destruction may be used then. Destruction closes and
 *     ignores a failure; call close() to learn of one. An owner whose close() failed still owns.
 *  3. An owner keeps the address of its context. It must be closed before its context dies, before
 *     the thread that uses it is ended (MEM_ThreadTerm) and before the library is unbound.
 *  4. Failures are an Error inside a Result. Answers that are no failures (no such key, key present
 *     already, text not sunk) are values. A Result does not convert to bool: with a value that
 *     itself may be null or "not found", nobody could tell what `if (result)` asks.
 *  5. Threading is the services': an owner is used by one thread at a time unless it says more.
 */
#ifndef QJ7MEM00_MEM_HPP
#define QJ7MEM00_MEM_HPP

/* One message says it all. Compilers whose C++20 was not yet complete give a number in between. */
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
#if __has_include(<memory_resource>)  // some standard libraries had it late
#include "mem/resource.hpp"
#endif

#endif
#endif
