// Checks of the library's own work, in builds with checks. Errors that a caller or a file can cause
// are refused in every build and never checked here.
#pragma once

#if defined(MEM_CHECKS) || defined(MEM_VALIDATE)
#include <cstdio>
#include <cstdlib>

namespace memlib {

// Ends the process if the condition is false; prints the condition and its place to stderr.
inline void checkThat(bool holds, const char *pCondition, const char *pFile, int line) noexcept {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: %s does not hold\n", pFile, line, pCondition);
  std::abort();
}

}  // namespace memlib
#endif

#define MEM_CHECKED(condition) ::memlib::checkThat((condition), #condition, __FILE__, __LINE__)
#define MEM_UNCHECKED(condition) static_cast<void>(sizeof((condition) ? 1 : 0))

// Checks what comments call REQUIRES. Build option MEM_CHECKS.
#if defined(MEM_CHECKS)
#define MEM_ASSERT(condition) MEM_CHECKED(condition)
#else
#define MEM_ASSERT(condition) MEM_UNCHECKED(condition)
#endif

// Checks a whole structure at the end of each operation on it: the time of every call grows with
// the structure. Build option MEM_VALIDATE.
#if defined(MEM_VALIDATE)
#define MEM_ASSERT_VALID(condition) MEM_CHECKED(condition)
#else
#define MEM_ASSERT_VALID(condition) MEM_UNCHECKED(condition)
#endif
