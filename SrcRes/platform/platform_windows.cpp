#include <windows.h>

#include "platform/platform.h"

namespace memlib {

namespace {

// A separate function, because faults are caught only in functions that the guarded region calls.
MEM_NOINLINE void runWork(const GuardedWork &work) noexcept {
  work.run(work.pContext);
}

// A separate function, so that a fault caught here is not an abnormal end of the caller's region.
MEM_NOINLINE bool runCaught(const GuardedWork &work) noexcept {
  bool isDone = false;
  __try {
    runWork(work);
    isDone = true;
  } __except (work.filter(GetExceptionInformation(), work.pContext)) {
    isDone = false;
  }
  return isDone;
}

}  // namespace

bool runGuarded(const GuardedWork &work) noexcept {
  bool isDone = false;
  __try {
    isDone = runCaught(work);
  } __finally {
    if (AbnormalTermination()) work.abandoned(work.pContext);
  }
  return isDone;
}

void releaseGuards() noexcept {}

}  // namespace memlib
