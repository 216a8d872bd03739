#include <windows.h>

#include "platform/platform.h"

namespace memlib {

namespace {

// A function of its own: faults are caught in functions that the guarded region calls.
MEM_NOINLINE void runWork(const GuardedWork &work) noexcept {
  work.run(work.pContext);
}

// Another one, so that what is caught here is no abnormal end of the caller's region.
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
