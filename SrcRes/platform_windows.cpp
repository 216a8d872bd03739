#include <windows.h>

#include "platform.h"

namespace mem {

namespace {

// A function of its own: faults are caught in functions that the guarded region calls.
MEM_NOINLINE void runWork(const GuardedWork &work) noexcept {
  work.run(work.pContext);
}

}  // namespace

bool runGuarded(const GuardedWork &work) noexcept {
  bool isDone = false;
  __try {
    __try {
      runWork(work);
      isDone = true;
    } __except (work.filter(GetExceptionInformation(), work.pContext)) {
      isDone = false;
    }
  } __finally {
    if (AbnormalTermination()) work.abandoned(work.pContext);
  }
  return isDone;
}

void releaseGuards() noexcept {}

}  // namespace mem
