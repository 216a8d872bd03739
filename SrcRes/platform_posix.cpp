#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <ucontext.h>

#include <cstring>

#include "platform.h"

namespace mem {

namespace {

// The guarded call that is running on a thread, linked to the one around it.
struct Guard {
  const GuardedWork *pWork;
  Guard *pOuter;
  sigjmp_buf end;
};

thread_local Guard *pThreadGuard = nullptr;

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr int kSignalCount = sizeof kSignals / sizeof kSignals[0];

// Handlers are installed while at least one guarded call runs in the process.
// (A std::mutex can throw, and what can throw brings storage that is obtained at loading.)
pthread_mutex_t installMutex = PTHREAD_MUTEX_INITIALIZER;
int runningCalls = 0;                            // guarded by installMutex
struct sigaction processHandlers[kSignalCount];  // what stood before; constant while installed

class InstallLock {
 public:
  InstallLock() noexcept { pthread_mutex_lock(&installMutex); }
  ~InstallLock() noexcept { pthread_mutex_unlock(&installMutex); }
  InstallLock(const InstallLock &) = delete;
  InstallLock &operator=(const InstallLock &) = delete;
};

const struct sigaction &processHandler(int signal) noexcept {
  int i = 0;
  while (kSignals[i] != signal) ++i;
  return processHandlers[i];
}

// A fault that is none of ours goes where it would have gone without us.
void passOn(int signal, siginfo_t *pInfo, void *pMachine) noexcept {
  const struct sigaction &handler = processHandler(signal);
  if ((handler.sa_flags & SA_SIGINFO) != 0) {
    handler.sa_sigaction(signal, pInfo, pMachine);
  } else if (handler.sa_handler != SIG_DFL && handler.sa_handler != SIG_IGN) {
    handler.sa_handler(signal);
  } else {
    // The instruction runs again and faults under the system's own handling.
    sigaction(signal, &handler, nullptr);
  }
}

void onSignal(int signal, siginfo_t *pInfo, void *pMachine) noexcept {
  Guard *pGuard = pThreadGuard;
  if (pGuard == nullptr) return passOn(signal, pInfo, pMachine);
  const GuardedWork &work = *pGuard->pWork;
  pThreadGuard = pGuard->pOuter;  // faults of the filter itself are not ours
  const std::int32_t answer = work.filter(pInfo, work.pContext);
  if (answer == kFaultEndsWork) {
    // Whoever called this handler may have blocked signals; the work had this mask.
    pthread_sigmask(SIG_SETMASK, &static_cast<ucontext_t *>(pMachine)->uc_sigmask, nullptr);
    siglongjmp(pGuard->end, 1);
  }
  pThreadGuard = pGuard;
  if (answer != kFaultIsMended) passOn(signal, pInfo, pMachine);
}

void install() noexcept {
  const InstallLock lock;
  if (runningCalls++ > 0) return;
  struct sigaction ours;
  std::memset(&ours, 0, sizeof ours);
  ours.sa_sigaction = onSignal;
  // Nothing is blocked while the handler runs: a fault of the filter reaches the process.
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigemptyset(&ours.sa_mask);
  for (int i = 0; i < kSignalCount; ++i) sigaction(kSignals[i], &ours, &processHandlers[i]);
}

// A handler that the process has installed meanwhile stays.
void uninstall() noexcept {
  const InstallLock lock;
  if (--runningCalls > 0) return;
  for (int i = 0; i < kSignalCount; ++i) {
    struct sigaction current;
    sigaction(kSignals[i], nullptr, &current);
    if (current.sa_sigaction == onSignal) sigaction(kSignals[i], &processHandlers[i], nullptr);
  }
}

}  // namespace

bool runGuarded(const GuardedWork &work) noexcept {
  install();
  Guard guard;
  guard.pWork = &work;
  guard.pOuter = pThreadGuard;
  const bool isDone = sigsetjmp(guard.end, 0) == 0;
  if (isDone) {
    pThreadGuard = &guard;
    work.run(work.pContext);
    pThreadGuard = guard.pOuter;
  }
  uninstall();
  return isDone;
}

}  // namespace mem
