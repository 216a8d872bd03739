// What differs between compilers, processors and systems. Only this room asks about them. The
// sources: platform_posix.cpp and platform_windows.cpp, one per system, and platform_processor.cpp.
#pragma once

#include <cstdint>

#if defined(_MSC_VER) && !defined(__clang__)
#define MEM_NOINLINE __declspec(noinline)
#else
#define MEM_NOINLINE __attribute__((noinline))
#endif

// Asks for a line of storage that will be read soon. Any address will do.
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

// Whether 16 bytes at their own alignment may be read where only some of them are an object's: all
// of them are on one page. Sanitizers look at objects.
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

// Code for processors with AVX in a library that runs on others, too. Clang would make a call of
// memset of a row of stores.
#if defined(_M_X64) && defined(_MSC_VER) && !defined(__clang__)
#define MEM_AVX_CODE
#elif defined(__x86_64__) && defined(__clang__)
#define MEM_AVX_CODE __attribute__((target("avx"), no_builtin("memset")))
#elif defined(__x86_64__)
#define MEM_AVX_CODE __attribute__((target("avx")))
#endif

// The binding entry is exported by name: QJ7MEM00.def does it on Windows, QJ7MEM00.map together
// with default visibility elsewhere.
#if defined(_WIN32)
#define MEM_EXPORT
#else
#define MEM_EXPORT __attribute__((visibility("default")))
#endif

namespace memlib {

// Whether MEM_AVX_CODE may run: the processor has AVX, and the system keeps its registers.
bool processorHasAvx() noexcept;

// Answers of a fault filter.
inline constexpr std::int32_t kFaultEndsWork = 1;
inline constexpr std::int32_t kFaultIsNotOurs = 0;  // goes on to the process
inline constexpr std::int32_t kFaultIsMended = -1;  // the faulting instruction runs again

// Work that may fault, and who decides then. All get the context. The filter runs where the fault
// happened; `pException` is the platform's exception information.
struct GuardedWork {
  void (*run)(void *pContext) noexcept;
  std::int32_t (*filter)(void *pException, void *pContext) noexcept;
  // When others than runGuarded() unwind the work and its callers, on platforms that tell. On
  // others such work just ends.
  void (*abandoned)(void *pContext) noexcept;
  void *pContext;
};

// Runs the work and returns true, or false when a fault (an access violation or the like) ended it.
// Nothing is unwound then: the work must have no object with a destructor. Calls nest and run on
// any number of threads; outside of them nothing is installed. The filter and the process's own
// handlers may leave by a jump instead of returning: faults of the thread are the process's again.
bool runGuarded(const GuardedWork &work) noexcept;

// Takes away whatever calls that were left by a jump have left installed. No guarded call may run.
void releaseGuards() noexcept;

}  // namespace memlib
