// Everything that depends on the compiler, the processor or the system. Only this room tests for
// them. Sources: platform_posix.cpp and platform_windows.cpp, one per system, and errorclear.cpp.
#pragma once

#include <cstdint>

#include "qj7mem00/memhost.h"

// MEM_COLD marks functions that run only when a call fails or is traced. Compilers move the
// branches that lead to them out of the way of the others. MEM_INLINE marks functions whose state
// must be in the registers of their caller.
#if defined(_MSC_VER) && !defined(__clang__)
#define MEM_INLINE __forceinline
#define MEM_NOINLINE __declspec(noinline)
#define MEM_COLD __declspec(noinline)
#else
#define MEM_INLINE __attribute__((always_inline)) inline
#define MEM_NOINLINE __attribute__((noinline))
#define MEM_COLD __attribute__((noinline, cold))
#endif

// Prefetches a cache line that will be read soon. Any address is allowed.
#if defined(_MSC_VER) && !defined(__clang__)
#include <intrin.h>
#define MEM_PREFETCH(address) _mm_prefetch(reinterpret_cast<const char *>(address), _MM_HINT_T0)
#else
#define MEM_PREFETCH(address) __builtin_prefetch(address)
#endif

// Every processor of the platform has these.
#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define MEM_HAS_SSE2 1
#else
#define MEM_HAS_SSE2 0
#endif

// True when 16 aligned bytes may be read although only some of them belong to an object: all of
// them are on one page. Sanitizers check objects.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MEM_READS_ALIGNED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer) || \
    __has_feature(thread_sanitizer)
#define MEM_READS_ALIGNED 0
#else
#define MEM_READS_ALIGNED MEM_HAS_SSE2
#endif
#else
#define MEM_READS_ALIGNED MEM_HAS_SSE2
#endif

// Code for processors with AVX in a library that also runs on others. Clang would replace a row of
// stores by a call of memset.
#if defined(_M_X64) && defined(_MSC_VER) && !defined(__clang__)
#define MEM_AVX_CODE
#elif defined(__x86_64__) && defined(__clang__)
#define MEM_AVX_CODE __attribute__((target("avx"), no_builtin("memset")))
#elif defined(__x86_64__)
#define MEM_AVX_CODE __attribute__((target("avx")))
#endif

// Exports the binding entry by name: on Windows through QJ7MEM00.def, elsewhere through
// QJ7MEM00.map and default visibility.
#if defined(_WIN32)
#define MEM_EXPORT
#else
#define MEM_EXPORT __attribute__((visibility("default")))
#endif

namespace memlib {

// Clears a thread's error area of 552 bytes. Most entry points begin with it.
using ErrorAreaClear = void (*)(MEMErrorArea &area) noexcept;

// The fastest function that this processor can run. Binding selects and keeps it, because selecting
// takes longer than clearing.
ErrorAreaClear fastestErrorAreaClear() noexcept;

// Answers of a fault filter.
inline constexpr std::int32_t kFaultEndsWork = 1;
inline constexpr std::int32_t kFaultIsNotOurs = 0;  // the process handles it
inline constexpr std::int32_t kFaultIsMended = -1;  // the faulting instruction runs again

// Work that may fault, and the functions that handle the fault. All get the context. The filter
// runs where the fault happened; `pException` is the platform's exception information.
struct GuardedWork {
  void (*run)(void *pContext) noexcept;
  std::int32_t (*filter)(void *pException, void *pContext) noexcept;
  // Called when code other than runGuarded() unwinds the work and its callers, on platforms that
  // report it. On others such work just ends.
  void (*abandoned)(void *pContext) noexcept;
  void *pContext;
};

// Runs the work and returns true, or false when a fault (such as an access violation) ended it. A
// fault unwinds nothing, so the work must have no object with a destructor. Calls nest and run on
// any number of threads; without a running call nothing is installed. The filter and the process's
// own handlers may leave by a jump instead of returning: then the process handles the faults of the
// thread again.
bool runGuarded(const GuardedWork &work) noexcept;

// Uninstalls handlers that remain after calls that ended by a jump. No guarded call may run.
void releaseGuards() noexcept;

}  // namespace memlib
