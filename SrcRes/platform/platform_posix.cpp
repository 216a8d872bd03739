#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <ucontext.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "platform/platform.h"

namespace memlib {

namespace {

// A fault must never be handled for a call that has ended. The host's filter and the process's
// handlers may jump out of a call, so the thread has no guard in force while they run. The guard is
// restored when they return; after a jump nothing remains.

// Handlers.

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr int kSignalCount = sizeof kSignals / sizeof kSignals[0];

// While guarded calls run, our handler is installed over the process's. A handler that the process
// installs meanwhile stays, and may from then on call ours as the previous one. So ours keeps the
// handler that it covers, and the next call installs another function. Each function has its own
// place in the chain of handlers and passes signals to the handler that it covers, so no fault can
// circulate.
//
// When all places are used, ours is not installed again: it is already in the chain, below the
// process's.
constexpr int kPlaces = 4;

using Handler = void(int, siginfo_t *, void *) noexcept;
template <int place>
void onSignal(int signal, siginfo_t *pInfo, void *pMachine) noexcept;
constexpr Handler *kHandlers[kPlaces] = {onSignal<0>, onSignal<1>, onSignal<2>, onSignal<3>};

struct sigaction handlerAt(int place) noexcept {
  struct sigaction ours;
  std::memset(&ours, 0, sizeof ours);
  ours.sa_sigaction = kHandlers[place];
  // No signal is blocked while the handler runs, so that a fault in the filter reaches the process.
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigemptyset(&ours.sa_mask);
  return ours;
}

// Returns kPlaces when the handler is not one of ours.
int placeOf(const struct sigaction &handler) noexcept {
  int place = 0;
  while (place < kPlaces && handler.sa_sigaction != kHandlers[place]) ++place;
  return place;
}

struct sigaction handlerOf(int signal) noexcept {
  struct sigaction current;
  sigaction(signal, nullptr, &current);
  return current;
}

bool isSame(const struct sigaction &one, const struct sigaction &other) noexcept {
  constexpr std::size_t kMaskLen = (NSIG - 1) / 8;  // the system does not set the rest of a mask
  return one.sa_sigaction == other.sa_sigaction && one.sa_flags == other.sa_flags &&
         std::memcmp(&one.sa_mask, &other.sa_mask, kMaskLen) == 0;
}

// The handlers of one signal. One thread at a time changes them; any thread in a handler of ours
// may read them.
class SignalChain {
 public:
  void install(int signal) noexcept;
  void uninstall(int signal) noexcept;
  void release(int signal) noexcept;

  // The handler that the one at a place covers.
  struct sigaction covered(int place) const noexcept;
  // Call this when a covered handler runs that was installed to run only once.
  void spend(int place, int signal) noexcept;

 private:
  void cover(const struct sigaction &handler) noexcept;

  struct Place {
    struct sigaction covered = {};
    std::atomic<bool> isSpent = false;
  };
  Place places_[kPlaces];
  int free_ = 0;   // handlers of the process may call the places below
  int place_ = 0;  // of our installed handler; kPlaces without one
};

struct sigaction SignalChain::covered(int place) const noexcept {
  struct sigaction handler = places_[place].covered;
  if (places_[place].isSpent.load(std::memory_order_relaxed)) handler.sa_handler = SIG_DFL;
  return handler;
}

void SignalChain::spend(int place, int signal) noexcept {
  const struct sigaction current = handlerOf(signal);
  places_[place].isSpent.store(true, std::memory_order_relaxed);
  if (!isSame(current, places_[place].covered)) return;
  const struct sigaction spent = covered(place);
  sigaction(signal, &spent, nullptr);
}

void SignalChain::cover(const struct sigaction &handler) noexcept {
  Place &place = places_[place_];
  // Not written when equal, so that a handler that still runs on another thread can read it.
  if (!isSame(place.covered, handler)) place.covered = handler;
  place.isSpent.store(false, std::memory_order_relaxed);
}

void SignalChain::install(int signal) noexcept {
  constexpr int kMostTries = 10;
  for (int tries = 1;; ++tries) {
    const struct sigaction current = handlerOf(signal);
    place_ = placeOf(current);
    if (place_ < kPlaces) return;  // the process has removed its handler over ours
    place_ = free_;
    if (place_ == kPlaces) return;
    cover(current);  // before ours can run on any thread
    const struct sigaction ours = handlerAt(place_);
    struct sigaction replaced;
    sigaction(signal, &ours, &replaced);
    if (isSame(replaced, current) || tries == kMostTries) return;
    sigaction(signal, &replaced, nullptr);  // changed meanwhile: try again
  }
}

// A handler that the process has installed meanwhile stays.
void SignalChain::uninstall(int signal) noexcept {
  if (place_ == kPlaces) return;
  const struct sigaction before = covered(place_);
  struct sigaction current;
  sigaction(signal, &before, &current);
  if (placeOf(current) == place_) {
    free_ = place_;
  } else {
    sigaction(signal, &current, nullptr);
    free_ = std::max(free_, place_ + 1);
  }
}

void SignalChain::release(int signal) noexcept {
  const int place = placeOf(handlerOf(signal));
  if (place == kPlaces) return;
  const struct sigaction before = covered(place);
  sigaction(signal, &before, nullptr);
}

constinit SignalChain chains[kSignalCount];

SignalChain &chainOf(int signal) noexcept {
  int i = 0;
  while (kSignals[i] != signal) ++i;
  return chains[i];
}

// Installing.

// Threads with a guard in force. Our handlers are installed while there are any. Changes from and
// to 0 only under the lock.
constinit std::atomic<int> guardedThreads{0};
constinit std::atomic_flag isInstalling;

// Uses only functions that are allowed in a signal handler. Never held where guarded work can
// fault.
class InstallLock {
 public:
  InstallLock() noexcept {
    constexpr int kTries = 1000;
    for (int tries = 0; isInstalling.test_and_set(std::memory_order_acquire); ++tries) {
      if (tries >= kTries) poll(nullptr, 0, 1);
    }
  }
  ~InstallLock() noexcept { isInstalling.clear(std::memory_order_release); }
  InstallLock(const InstallLock &) = delete;
  InstallLock &operator=(const InstallLock &) = delete;
};

// Changes the count if it is above `limit`. Other changes need the lock.
bool changeAbove(int limit, int change) noexcept {
  int count = guardedThreads.load(std::memory_order_relaxed);
  while (count > limit) {
    if (guardedThreads.compare_exchange_weak(count, count + change)) return true;
  }
  return false;
}

void addThread() noexcept {
  if (changeAbove(0, 1)) return;
  const InstallLock lock;
  if (guardedThreads.load() == 0) {
    for (int i = 0; i < kSignalCount; ++i) chains[i].install(kSignals[i]);
  }
  guardedThreads.fetch_add(1);
}

void removeThread() noexcept {
  if (changeAbove(1, -1)) return;
  const InstallLock lock;
  if (guardedThreads.fetch_sub(1) > 1) return;
  for (int i = 0; i < kSignalCount; ++i) chains[i].uninstall(kSignals[i]);
}

// Guards.

struct Guard;

// A thread's innermost guard and the address of its call's stack frame. Null without a guard.
struct InForce {
  Guard *pGuard = nullptr;
  const void *pFrame = nullptr;
  std::uint32_t binding = 0;  // guards end with the binding that they were made in
};

struct Guard {
  const GuardedWork *pWork;
  InForce outer;
  sigjmp_buf end;
};

// In static thread-local storage, which a handler on any thread reads without an allocation. The C
// library reserves a few bytes there for libraries that are loaded later.
__attribute__((tls_model("initial-exec"))) constinit thread_local InForce threadGuard;

constinit std::atomic<std::uint32_t> bindings{0};

InForce inForce() noexcept {
  return threadGuard.binding == bindings.load(std::memory_order_relaxed) ? threadGuard : InForce{};
}

// Sets the guard that handles the thread's faults, or none.
void putInForce(const InForce &next) noexcept {
  const bool wasGuarded = inForce().pGuard != nullptr;
  const bool isGuarded = next.pGuard != nullptr;
  if (isGuarded && !wasGuarded) addThread();
  // A handler on this thread sees these stores in order, and the work's accesses on the right side
  // of them.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  if (isGuarded) {
    threadGuard.pFrame = next.pFrame;
    threadGuard.binding = bindings.load(std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
  threadGuard.pGuard = next.pGuard;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  if (wasGuarded && !isGuarded) removeThread();
}

bool contains(const stack_t &stack, std::uintptr_t address) noexcept {
  const auto start = reinterpret_cast<std::uintptr_t>(stack.ss_sp);
  return (stack.ss_flags & SS_DISABLE) == 0 && address - start < stack.ss_size;
}

// True when the code at a stack position has left the guard's call by a jump that bypassed this
// file. `alternate` is the thread's alternate signal stack: code on it may have interrupted a call
// on the normal stack.
bool isLeft(const InForce &guarded, std::uintptr_t position, const stack_t &alternate) noexcept {
  const auto frame = reinterpret_cast<std::uintptr_t>(guarded.pFrame);
  const bool isAlternate = contains(alternate, frame);
  if (isAlternate != contains(alternate, position)) return isAlternate;
  return frame <= position;
}

bool isLeft(const InForce &guarded, const ucontext_t &machine) noexcept {
#if defined(__x86_64__)
  const auto position = static_cast<std::uintptr_t>(machine.uc_mcontext.gregs[REG_RSP]);
#elif defined(__aarch64__)
  const std::uintptr_t position = machine.uc_mcontext.sp;
#else
  const std::uintptr_t position = 0;  // unknown: assume that all calls are still active
#endif
  return isLeft(guarded, position, machine.uc_stack);
}

// Signals.

// True when kill() or a similar call sent the signal, and not an instruction of the thread.
bool isSent(const siginfo_t &info) noexcept {
  return info.si_code <= 0;
}

// Calls a handler as the system would, with its signals blocked.
void callHandler(const struct sigaction &handler, int signal, siginfo_t *pInfo,
                 void *pMachine) noexcept {
  sigset_t blocked = handler.sa_mask;
  if ((handler.sa_flags & SA_NODEFER) == 0) sigaddset(&blocked, signal);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  if ((handler.sa_flags & SA_SIGINFO) != 0) {
    handler.sa_sigaction(signal, pInfo, pMachine);
  } else {
    handler.sa_handler(signal);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// Passes a signal that is not ours to the handler that would get it without us. False when the
// system's default action ends the process.
bool passOn(int place, int signal, siginfo_t *pInfo, void *pMachine) noexcept {
  SignalChain &chain = chainOf(signal);
  const struct sigaction handler = chain.covered(place);
  const bool isDefault = handler.sa_handler == SIG_DFL;
  if (!isDefault && handler.sa_handler != SIG_IGN) {
    if ((handler.sa_flags & static_cast<int>(SA_RESETHAND)) != 0) chain.spend(place, signal);
    callHandler(handler, signal, pInfo, pMachine);
    return true;
  }
  if (isSent(*pInfo) && !isDefault) return true;
  // The instruction runs again and faults with the system's default handling.
  sigaction(signal, &handler, nullptr);
  if (isSent(*pInfo)) raise(signal);
  return false;
}

// The filter of the thread's guard decides about a fault. The process decides if the filter
// declines, and about all other signals.
void decide(const InForce &guarded, int place, int signal, siginfo_t *pInfo,
            void *pMachine) noexcept {
  const auto &machine = *static_cast<ucontext_t *>(pMachine);
  const int error = errno;
  putInForce({});
  std::int32_t answer = kFaultIsNotOurs;
  if (!isSent(*pInfo) && !isLeft(guarded, machine)) {
    const GuardedWork &work = *guarded.pGuard->pWork;
    answer = work.filter(pInfo, work.pContext);
  }
  errno = error;
  if (answer == kFaultEndsWork) {
    // The caller of this handler may have blocked signals; this is the mask of the work.
    pthread_sigmask(SIG_SETMASK, &machine.uc_sigmask, nullptr);
    siglongjmp(guarded.pGuard->end, 1);
  }
  const bool goesOn = answer == kFaultIsMended || passOn(place, signal, pInfo, pMachine);
  // The process may have changed where the thread continues.
  if (goesOn && !isLeft(guarded, machine)) putInForce(guarded);
}

template <int place>
void onSignal(int signal, siginfo_t *pInfo, void *pMachine) noexcept {
  const int error = errno;
  const InForce guarded = inForce();
  if (guarded.pGuard == nullptr) {
    passOn(place, signal, pInfo, pMachine);
  } else {
    decide(guarded, place, signal, pInfo, pMachine);
  }
  errno = error;
}

}  // namespace

bool runGuarded(const GuardedWork &work) noexcept {
  const void *const pFrame = __builtin_frame_address(0);
  Guard guard;
  guard.pWork = &work;
  guard.outer = inForce();
  if (guard.outer.pGuard != nullptr) {
    stack_t alternate;
    sigaltstack(nullptr, &alternate);
    if (isLeft(guard.outer, reinterpret_cast<std::uintptr_t>(pFrame), alternate)) {
      guard.outer = {};
      putInForce({});
    }
  }
  const bool isDone = sigsetjmp(guard.end, 0) == 0;
  if (isDone) {
    putInForce({&guard, pFrame});
    work.run(work.pContext);
  }
  putInForce(guard.outer);
  return isDone;
}

void releaseGuards() noexcept {
  const InstallLock lock;
  bindings.fetch_add(1, std::memory_order_relaxed);
  guardedThreads.store(0);
  for (int i = 0; i < kSignalCount; ++i) chains[i].release(kSignals[i]);
}

}  // namespace memlib
