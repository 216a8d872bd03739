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

// A fault must never be answered for a call that is gone. So wherever other code may jump out of a
// call, which is in the host's filter and in the process's handlers, the thread has no guard in
// force: it gets it back when that code returns. A jump then leaves nothing behind.

// Handlers.

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr int kSignalCount = sizeof kSignals / sizeof kSignals[0];

// While guarded calls run, a handler of ours stands before the process's. One that the process
// installs meanwhile stays, and may call ours as the one before it from then on. So ours keeps what
// it has covered, and the next call installs another function: each has a place in the chain of
// handlers and passes on to the one it covers, and no fault goes round in circles.
//
// When all places are taken, ours is not installed again: it is there behind the process's.
constexpr int kPlaces = 4;

using Handler = void(int, siginfo_t *, void *) noexcept;
template <int place>
void onSignal(int signal, siginfo_t *pInfo, void *pMachine) noexcept;
constexpr Handler *kHandlers[kPlaces] = {onSignal<0>, onSignal<1>, onSignal<2>, onSignal<3>};

struct sigaction handlerAt(int place) noexcept {
  struct sigaction ours;
  std::memset(&ours, 0, sizeof ours);
  ours.sa_sigaction = kHandlers[place];
  // Nothing is blocked while the handler runs: a fault of the filter reaches the process.
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigemptyset(&ours.sa_mask);
  return ours;
}

// kPlaces when the handler is none of ours.
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
  constexpr std::size_t kMaskLen = (NSIG - 1) / 8;  // the system leaves the rest of a mask as it is
  return one.sa_sigaction == other.sa_sigaction && one.sa_flags == other.sa_flags &&
         std::memcmp(&one.sa_mask, &other.sa_mask, kMaskLen) == 0;
}

// The handlers of one signal. Changed by one thread at a time, read by any in a handler of ours.
class SignalChain {
 public:
  void install(int signal) noexcept;
  void uninstall(int signal) noexcept;
  void release(int signal) noexcept;

  // What the handler at a place has covered.
  struct sigaction covered(int place) const noexcept;
  // To be called when the covered handler runs that wants to do so only once.
  void spend(int place, int signal) noexcept;

 private:
  void cover(const struct sigaction &handler) noexcept;

  struct Place {
    struct sigaction covered = {};
    std::atomic<bool> isSpent = false;
  };
  Place places_[kPlaces];
  int free_ = 0;   // places below may be called by handlers of the process
  int place_ = 0;  // of ours that is installed; kPlaces when none is
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
  // Mostly the same as ever; who reads it in a handler that still runs is not disturbed then.
  if (!isSame(place.covered, handler)) place.covered = handler;
  place.isSpent.store(false, std::memory_order_relaxed);
}

void SignalChain::install(int signal) noexcept {
  constexpr int kMostTries = 10;
  for (int tries = 1;; ++tries) {
    const struct sigaction current = handlerOf(signal);
    place_ = placeOf(current);
    if (place_ < kPlaces) return;  // the process has taken back what it put before ours
    place_ = free_;
    if (place_ == kPlaces) return;
    cover(current);  // known before ours can run, on whatever thread
    const struct sigaction ours = handlerAt(place_);
    struct sigaction replaced;
    sigaction(signal, &ours, &replaced);
    if (isSame(replaced, current) || tries == kMostTries) return;
    sigaction(signal, &replaced, nullptr);  // changed meanwhile: once more
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

// Threads with a guard in force. Ours are installed while there are any. Goes to and from 0 under
// the lock only.
constinit std::atomic<int> guardedThreads{0};
constinit std::atomic_flag isInstalling;

// Made of what a signal handler may use. Never held where a fault of guarded work can be.
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

// Changes the count unless it is `limit` or below, which takes the lock.
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

// A thread's innermost guard and where its call's frame is. Without a guard: null.
struct InForce {
  Guard *pGuard = nullptr;
  const void *pFrame = nullptr;
  std::uint32_t binding = 0;  // guards do not outlast the binding they were made under
};

struct Guard {
  const GuardedWork *pWork;
  InForce outer;
  sigjmp_buf end;
};

// In the thread's static storage, where a handler on any thread finds it without an allocation. The
// C library keeps room there for a few bytes of libraries that are loaded later.
__attribute__((tls_model("initial-exec"))) constinit thread_local InForce threadGuard;

constinit std::atomic<std::uint32_t> bindings{0};

InForce inForce() noexcept {
  return threadGuard.binding == bindings.load(std::memory_order_relaxed) ? threadGuard : InForce{};
}

// Changes which guard answers for the thread's faults, or that none does.
void putInForce(const InForce &next) noexcept {
  const bool wasGuarded = inForce().pGuard != nullptr;
  const bool isGuarded = next.pGuard != nullptr;
  if (isGuarded && !wasGuarded) addThread();
  // A handler on this thread sees these in turn, and what the work reads on its side of them.
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

// True when code that runs at a stack position has left the guard's call by a jump that did not
// come by here. `alternate` is the thread's other stack for signals: what runs there may have
// interrupted a call on the usual one.
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
  const std::uintptr_t position = 0;  // not known: inside of all calls
#endif
  return isLeft(guarded, position, machine.uc_stack);
}

// Signals.

// Not by an instruction of the thread, but by somebody's call of kill() or the like.
bool isSent(const siginfo_t &info) noexcept {
  return info.si_code <= 0;
}

// Calls a handler as the system would: with what it wants to be blocked.
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

// A signal that is none of ours goes where it would have gone without us. False when the system's
// own action ends the process.
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
  // The instruction runs again and faults under the system's own handling.
  sigaction(signal, &handler, nullptr);
  if (isSent(*pInfo)) raise(signal);
  return false;
}

// Has the filter of the thread's guard decide about a fault, and the process if that declines or if
// it is something else.
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
    // Whoever called this handler may have blocked signals; the work had this mask.
    pthread_sigmask(SIG_SETMASK, &machine.uc_sigmask, nullptr);
    siglongjmp(guarded.pGuard->end, 1);
  }
  const bool goesOn = answer == kFaultIsMended || passOn(place, signal, pInfo, pMachine);
  // The process may have the thread go on elsewhere.
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
