// The only header with words that differ between compilers and platforms.
#pragma once

#if defined(_MSC_VER) && !defined(__clang__)
#define MEM_NOINLINE __declspec(noinline)
#else
#define MEM_NOINLINE __attribute__((noinline))
#endif

// The binding entry is exported by name: QJ7MEM00.def does it on Windows, QJ7MEM00.map together
// with default visibility elsewhere.
#if defined(_WIN32)
#define MEM_EXPORT
#else
#define MEM_EXPORT __attribute__((visibility("default")))
#endif
