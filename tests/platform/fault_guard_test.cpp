// The guard around the work of the port string calls by itself: what jumps, nested calls, several
// threads and handlers of the process do to it. This program links the library's objects, and a
// sigaction() of its own replaces the system's and calls it.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <setjmp.h>
#include <signal.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "guardpages.hpp"
#include "platform/platform.h"

namespace {

thread_local sigjmp_buf recovery;
thread_local std::atomic<int> recovered{0};

// What another thread might do at the moment when a handler has been looked at or installed.
std::atomic<void (*)()> onLooked{nullptr};
std::atomic<void (*)(const struct sigaction &installed)> onInstalled{nullptr};
std::atomic<int> sigactionCalls{0};

using Sigaction = int(int, const struct sigaction *, struct sigaction *);

Sigaction *systems() {
  static Sigaction *const own = reinterpret_cast<Sigaction *>(dlsym(RTLD_NEXT, "sigaction"));
  return own;
}

}  // namespace

extern "C" int sigaction(int signal, const struct sigaction *next,
                         struct sigaction *before) noexcept {
  struct sigaction was {};
  if (before != nullptr) was = *before;
  ++sigactionCalls;
  const int result = systems()(signal, next, &was);
  if (next != nullptr && signal == SIGSEGV) {
    if (auto *const run = onInstalled.exchange(nullptr)) run(*next);
  } else if (signal == SIGSEGV) {
    if (auto *const run = onLooked.exchange(nullptr)) run();
  }
  if (before != nullptr) *before = was;
  return result;
}

#if defined(MEM_COVERAGE)
extern "C" void __gcov_dump();
#endif

namespace memtest {
namespace {

// What does not work under a sanitizer. The thread sanitizer runs handlers with all signals
// blocked, so that a fault in a filter kills; the address sanitizer does not know that frames are
// gone when a handler sends a thread elsewhere.
#if defined(__SANITIZE_THREAD__)
#define SKIP_WHERE_HANDLERS_ARE_BLOCKED() GTEST_SKIP()
#else
#define SKIP_WHERE_HANDLERS_ARE_BLOCKED() static_cast<void>(0)
#endif
#if defined(__SANITIZE_ADDRESS__)
#define SKIP_WHERE_FRAMES_ARE_WATCHED() GTEST_SKIP()
#else
#define SKIP_WHERE_FRAMES_ARE_WATCHED() static_cast<void>(0)
#endif

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

// Work as a function object, with what its filter does.
struct Work {
  std::function<void()> run;
  std::function<std::int32_t()> filter = [] { return memlib::kFaultEndsWork; };
};

bool guarded(Work work) {
  const memlib::GuardedWork plain{
      [](void *context) noexcept { static_cast<Work *>(context)->run(); },
      [](void *, void *context) noexcept { return static_cast<Work *>(context)->filter(); },
      [](void *) noexcept {}, &work};
  return memlib::runGuarded(plain);
}

std::int32_t decline() {
  return memlib::kFaultIsNotOurs;
}

// The process's handler: it goes back to where `recovery` was set on its thread.
void recover(int, siginfo_t *, void *) {
  ++recovered;
  siglongjmp(recovery, 1);
}

void installRecovery(int signal, int flags = 0) {
  struct sigaction handler {};
  handler.sa_sigaction = recover;
  handler.sa_flags = SA_SIGINFO | flags;
  sigemptyset(&handler.sa_mask);
  sigaction(signal, &handler, nullptr);
}

struct sigaction currentOf(int signal) {
  struct sigaction now {};
  sigaction(signal, nullptr, &now);
  return now;
}

bool isRecovery(int signal) {
  return currentOf(signal).sa_sigaction == recover;
}

// True when the body was left through the process's handler.
template <class Body>
bool jumpsOut(Body body) {
  const int before = recovered;
  if (sigsetjmp(recovery, 1) != 0) return recovered == before + 1;
  body();
  return false;
}

// Ends a process without running what the parent has for its end. In a build that counts what runs,
// the process's counts are kept.
[[noreturn]] void endChild(int code) {
#if defined(MEM_COVERAGE)
  __gcov_dump();
#endif
  _exit(code);
}

// Each body runs in a process of its own, which it may leave in disorder.
template <class Body>
void inChild(Body body) {
  EXPECT_EXIT(
      {
        for (const int signal : kSignals) installRecovery(signal);
        body();
        endChild(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

class FaultGuardTest : public ::testing::Test {
 public:
  FaultGuardTest() : pages_(2) { pages_.forbid(1); }

  void fault() { *static_cast<volatile std::uint8_t *>(pages_.page(1)) = 1; }
  std::function<void()> faulting() {
    return [this] { fault(); };
  }
  bool faultIsTheProcesss() {
    return jumpsOut([this] { fault(); });
  }
  void expectNothingLeft() {
    for (const int signal : kSignals) EXPECT_TRUE(isRecovery(signal)) << signal;
    EXPECT_TRUE(faultIsTheProcesss());
    EXPECT_FALSE(guarded({faulting()}));
    for (const int signal : kSignals) EXPECT_TRUE(isRecovery(signal)) << signal;
  }

  GuardPages pages_;
};

// The process's handler is known before ours can run: other threads may fault in between.
TEST_F(FaultGuardTest, FaultAtTheMomentOfTheFirstInstallation) {
  static FaultGuardTest *test;
  static bool wasOurs;
  test = this;
  inChild([&] {
    onInstalled = [](const struct sigaction &installed) {
      wasOurs = installed.sa_sigaction != recover;
      std::thread other([] { EXPECT_TRUE(jumpsOut([] { test->pages_.page(1)[0] = 1; })); });
      other.join();
    };
    EXPECT_TRUE(guarded({[] {}}));
    EXPECT_TRUE(wasOurs);
    expectNothingLeft();
  });
}

// What the process installs between our looking and our installing is not lost.
TEST_F(FaultGuardTest, HandlerInstalledAtTheSameTime) {
  inChild([&] {
    signal(SIGSEGV, SIG_DFL);
    onLooked = [] { installRecovery(SIGSEGV); };
    EXPECT_TRUE(jumpsOut([&] { guarded({faulting(), decline}); }));
    expectNothingLeft();
  });
}

// Twelve calls for a guarded call, none for one inside it, four for unbinding.
TEST_F(FaultGuardTest, PriceOfAGuardedCall) {
  inChild([&] {
    EXPECT_TRUE(guarded({[] {}}));
    sigactionCalls = 0;
    EXPECT_TRUE(guarded({[] {}}));
    EXPECT_EQ(sigactionCalls, 12);
    EXPECT_TRUE(guarded({[] {
      sigactionCalls = 0;
      EXPECT_TRUE(guarded({[] {}}));
      EXPECT_EQ(sigactionCalls, 0);
    }}));
    sigactionCalls = 0;
    memlib::releaseGuards();
    EXPECT_EQ(sigactionCalls, 4);
  });
}

TEST_F(FaultGuardTest, ErrnoIsAsBeforeTheFault) {
  inChild([&] {
    int seen = 0;
    EXPECT_TRUE(guarded({[&] {
                           errno = 1234;
                           fault();
                           seen = errno;
                         },
                         [&] {
                           errno = 1;
                           pages_.allow(1);
                           return memlib::kFaultIsMended;
                         }}));
    EXPECT_EQ(seen, 1234);
    pages_.forbid(1);
    struct sigaction handler {};
    handler.sa_handler = [](int) { errno = 2; };
    sigaction(SIGUSR1, &handler, nullptr);
    handler.sa_handler = [](int) { errno = 3; };
    sigaction(SIGSEGV, &handler, nullptr);
    EXPECT_TRUE(guarded({[&] {
      errno = 1234;
      raise(SIGSEGV);
      seen = errno;
    }}));
    EXPECT_EQ(seen, 1234);
  });
}

// With the handlers on the thread's own stack and on another one.
class FaultJumpTest : public FaultGuardTest, public ::testing::WithParamInterface<bool> {
 protected:
  template <class Body>
  void inChildOnStack(Body body) {
    inChild([&] {
      stack_t none{};
      none.ss_flags = SS_DISABLE;
      stack_t other{};
      other.ss_sp = memory_;
      other.ss_size = sizeof memory_;
      ASSERT_EQ(sigaltstack(GetParam() ? &other : &none, nullptr), 0);
      body();
    });
  }

 private:
  alignas(16) char memory_[256 * 1024];
};

TEST_P(FaultJumpTest, OutOfADeclinedFault) {
  inChildOnStack([&] {
    for (int round = 0; round < 3; ++round) {
      EXPECT_TRUE(jumpsOut([&] { guarded({faulting(), decline}); }));
      expectNothingLeft();
    }
  });
}

TEST_P(FaultJumpTest, OutOfTheFilter) {
  inChildOnStack([&] {
    for (int round = 0; round < 3; ++round) {
      const auto leave = []() -> std::int32_t { recover(0, nullptr, nullptr), _exit(2); };
      EXPECT_TRUE(jumpsOut([&] { guarded({faulting(), leave}); }));
      expectNothingLeft();
    }
    memlib::releaseGuards();
    expectNothingLeft();
  });
}

// By the host's own code, without any fault. The next call on the thread sees it.
TEST_P(FaultJumpTest, OutOfTheWork) {
  inChildOnStack([&] {
    for (int round = 0; round < 3; ++round) {
      EXPECT_TRUE(jumpsOut([] { guarded({[] { recover(0, nullptr, nullptr); }}); }));
      EXPECT_TRUE(faultIsTheProcesss()) << "not the guard of a call that is gone";
      for (const int signal : kSignals) EXPECT_TRUE(isRecovery(signal)) << signal;
      EXPECT_TRUE(jumpsOut([] { guarded({[] { recover(0, nullptr, nullptr); }}); }));
      EXPECT_FALSE(guarded({faulting()}));
      expectNothingLeft();
    }
  });
}

TEST_P(FaultJumpTest, OutOfTheWorkOfAnotherThread) {
  inChildOnStack([&] {
    std::thread other([] { jumpsOut([] { guarded({[] { recover(0, nullptr, nullptr); }}); }); });
    other.join();
    EXPECT_TRUE(faultIsTheProcesss());
    EXPECT_FALSE(guarded({faulting()}));
    memlib::releaseGuards();
    expectNothingLeft();
  });
}

// A thread that was in a call which is gone, after unbinding and binding.
TEST_P(FaultJumpTest, NoGuardOutlastsTheBinding) {
  inChildOnStack([&] {
    jumpsOut([] { guarded({[] { recover(0, nullptr, nullptr); }}); });
    memlib::releaseGuards();
    for (const int signal : kSignals) EXPECT_TRUE(isRecovery(signal)) << signal;
    std::atomic<int> step{0};
    std::thread other([&] {
      guarded({[&] {
        step = 1;
        while (step != 2) std::this_thread::yield();
      }});
    });
    while (step != 1) std::this_thread::yield();
    EXPECT_TRUE(faultIsTheProcesss());
    step = 2;
    other.join();
    expectNothingLeft();
  });
}

TEST_P(FaultJumpTest, FromANestedCallIntoTheOuterOne) {
  inChildOnStack([&] {
    EXPECT_TRUE(guarded({[&] {
      EXPECT_TRUE(jumpsOut([&] { guarded({faulting(), decline}); }));
      EXPECT_TRUE(guarded({[] {}}));
      EXPECT_FALSE(guarded({faulting()}));
    }}));
    expectNothingLeft();
  });
}

TEST_P(FaultJumpTest, FromANestedCallOutOfAll) {
  inChildOnStack([&] {
    for (const bool deep : {false, true}) {
      const auto inner = [&] { guarded({faulting(), decline}); };
      const auto middle = [&] { deep ? static_cast<void>(guarded({inner})) : inner(); };
      EXPECT_TRUE(jumpsOut([&] { guarded({middle}); }));
      expectNothingLeft();
    }
  });
}

TEST_P(FaultJumpTest, NestedFaultsEndTheirOwnCall) {
  inChildOnStack([&] {
    EXPECT_FALSE(guarded({[&] {
      EXPECT_FALSE(guarded({[&] {
        EXPECT_FALSE(guarded({faulting()}));
        fault();
      }}));
      EXPECT_TRUE(guarded({[] {}}));
      fault();
    }}));
    expectNothingLeft();
  });
}

// A filter that makes guarded calls, before each of the three answers.
TEST_P(FaultJumpTest, CallsOfTheFilter) {
  SKIP_WHERE_HANDLERS_ARE_BLOCKED();
  inChildOnStack([&] {
    const auto nested = [&] {
      EXPECT_FALSE(guarded({faulting()}));
      EXPECT_TRUE(guarded({[] {}}));
    };
    EXPECT_FALSE(guarded({faulting(), [&] {
                            nested();
                            return memlib::kFaultEndsWork;
                          }}));
    EXPECT_FALSE(guarded({[&] {
                            fault();
                            pages_.forbid(1);
                            fault();
                          },
                          [&, times = 0]() mutable {
                            nested();
                            pages_.allow(1);
                            return ++times == 1 ? memlib::kFaultIsMended : memlib::kFaultEndsWork;
                          }}));
    pages_.forbid(1);
    EXPECT_TRUE(jumpsOut([&] {
      guarded({faulting(), [&] {
                 nested();
                 return memlib::kFaultIsNotOurs;
               }});
    }));
    expectNothingLeft();
  });
}

// The process's handler mends what the filter has declined: the call goes on under its guard.
TEST_P(FaultJumpTest, DeclinedAndMendedByTheProcess) {
  static GuardPages *pages;
  pages = &pages_;
  inChildOnStack([&] {
    struct sigaction handler {};
    handler.sa_handler = [](int) { pages->allow(1); };
    sigaction(SIGSEGV, &handler, nullptr);
    int declined = 0;
    EXPECT_FALSE(guarded(
        {[&] {
           fault();
           pages_.forbid(1);
           fault();
         },
         [&] { return ++declined == 1 ? memlib::kFaultIsNotOurs : memlib::kFaultEndsWork; }}));
    EXPECT_EQ(declined, 2);
    EXPECT_EQ(currentOf(SIGSEGV).sa_handler, handler.sa_handler);
  });
}

INSTANTIATE_TEST_SUITE_P(Stacks, FaultJumpTest, ::testing::Bool(),
                         [](const auto &tested) { return tested.param ? "Other" : "Usual"; });

// Signals that somebody sends.

TEST_F(FaultGuardTest, SentSignalsAreTheProcesss) {
  inChild([&] {
    const std::function<void(int)> ways[] = {
        [](int signal) { raise(signal); }, [](int signal) { kill(getpid(), signal); },
        [](int signal) { pthread_kill(pthread_self(), signal); },
        [](int signal) { sigqueue(getpid(), signal, sigval{}); }};
    for (const auto &send : ways) {
      for (const int signal : kSignals) {
        int asked = 0;
        EXPECT_TRUE(jumpsOut([&] {
          guarded({[&] { send(signal); },
                   [&] {
                     ++asked;
                     return memlib::kFaultEndsWork;
                   }});
        }));
        EXPECT_EQ(asked, 0);
        expectNothingLeft();
      }
    }
  });
}

TEST_F(FaultGuardTest, SentSignalThatIsIgnored) {
  inChild([&] {
    signal(SIGSEGV, SIG_IGN);
    EXPECT_FALSE(guarded({[&] {
      raise(SIGSEGV);
      fault();
    }}));
    EXPECT_EQ(currentOf(SIGSEGV).sa_handler, SIG_IGN);
  });
}

TEST_F(FaultGuardTest, SentSignalEndsAProcessWithoutHandler) {
  EXPECT_EXIT(
      {
        signal(SIGBUS, SIG_DFL);
        guarded({[] { raise(SIGBUS); }});
      },
      ::testing::KilledBySignal(SIGBUS), "");
}

// A handler of the process that runs with the signal blocked passes it on: the signal waits, with
// the system's own handling.
TEST_F(FaultGuardTest, SentSignalIsPassedOnWhileItIsBlocked) {
  static struct sigaction before;
  static bool isWaiting;
  inChild([&] {
    signal(SIGSEGV, SIG_DFL);
    EXPECT_TRUE(jumpsOut([] {
      guarded({[] {
        struct sigaction handler {};
        handler.sa_sigaction = [](int signal, siginfo_t *info, void *machine) {
          before.sa_sigaction(signal, info, machine);
          sigset_t waiting;
          sigpending(&waiting);
          isWaiting = sigismember(&waiting, signal) == 1 && currentOf(signal).sa_handler == SIG_DFL;
          ::signal(signal, SIG_IGN);  // the waiting signal is dropped
          recover(signal, info, machine);
        };
        handler.sa_flags = SA_SIGINFO;
        sigaction(SIGSEGV, &handler, &before);
        raise(SIGSEGV);
      }});
    }));
    EXPECT_TRUE(isWaiting);
    installRecovery(SIGSEGV);
    expectNothingLeft();
  });
}

// Handlers that the process installs during a call.

// Handlers that count, and call the one before them, as crash reporters do.
constexpr int kReporters = 8;
struct sigaction reportersBefore[kReporters];
int reports[kReporters];

template <int number>
void report(int signal, siginfo_t *info, void *machine) {
  if (++reports[number] > 3) _exit(99);
  const struct sigaction &before = reportersBefore[number];
  if ((before.sa_flags & SA_SIGINFO) != 0) {
    before.sa_sigaction(signal, info, machine);
  } else if (before.sa_handler == SIG_DFL) {
    sigaction(signal, &before, nullptr);
  } else {
    before.sa_handler(signal);
  }
}

template <int number = 0>
void installReporter() {
  struct sigaction reporter {};
  reporter.sa_sigaction = report<number>;
  reporter.sa_flags = SA_SIGINFO | SA_NODEFER;
  sigaction(SIGSEGV, &reporter, &reportersBefore[number]);
}

TEST_F(FaultGuardTest, ReporterInstalledDuringACall) {
  inChild([&] {
    EXPECT_TRUE(jumpsOut([&] {
      guarded({[&] {
                 installReporter();
                 fault();
               },
               decline});
    }));
    EXPECT_EQ(std::exchange(reports[0], 0), 1) << "in the call itself";
    EXPECT_EQ(currentOf(SIGSEGV).sa_sigaction, report<0>);

    EXPECT_TRUE(jumpsOut([&] { guarded({faulting(), decline}); }));
    EXPECT_EQ(std::exchange(reports[0], 0), 1) << "in a later call";

    EXPECT_TRUE(faultIsTheProcesss());
    EXPECT_EQ(std::exchange(reports[0], 0), 1) << "outside of calls";

    EXPECT_TRUE(guarded({[&] {
      std::thread other([&] { EXPECT_TRUE(faultIsTheProcesss()); });
      other.join();
    }}));
    EXPECT_EQ(std::exchange(reports[0], 0), 1) << "on another thread than the call";

    EXPECT_FALSE(guarded({faulting()}));
    EXPECT_EQ(reports[0], 0) << "a fault of the call's own";
    EXPECT_EQ(currentOf(SIGSEGV).sa_sigaction, report<0>);
  });
}

TEST_F(FaultGuardTest, ReporterBeforeTheSystemsOwnHandling) {
  for (const bool isLater : {false, true}) {
    EXPECT_EXIT(
        {
          signal(SIGSEGV, SIG_DFL);
          guarded({[] { installReporter(); }});
          if (isLater) guarded({faulting(), decline});
          fault();
        },
        ::testing::KilledBySignal(SIGSEGV), "");
  }
  EXPECT_EXIT(
      {
        signal(SIGSEGV, SIG_DFL);
        guarded({[&] {
                   installReporter();
                   fault();
                 },
                 decline});
      },
      ::testing::KilledBySignal(SIGSEGV), "");
}

// It mends, and the call goes on with the handlers in another order.
TEST_F(FaultGuardTest, ReporterAndFurtherFaultsOfTheSameCall) {
  static GuardPages *pages;
  pages = &pages_;
  inChild([&] {
    struct sigaction mending {};
    mending.sa_handler = [](int) { pages->allow(1); };
    sigaction(SIGSEGV, &mending, nullptr);
    EXPECT_TRUE(guarded({[&] {
                           installReporter();
                           for (int i = 0; i < 3; ++i) {
                             pages_.forbid(1);
                             fault();
                           }
                         },
                         decline}));
    EXPECT_EQ(reports[0], 3);
  });
}

TEST_F(FaultGuardTest, ReporterThatPutsBackWhatItHasCovered) {
  inChild([&] {
    for (int round = 0; round < 20; ++round) {
      EXPECT_TRUE(guarded({[] { installReporter(); }}));
      if (round % 2 == 1) guarded({[] {}});
      sigaction(SIGSEGV, &reportersBefore[0], nullptr);
      EXPECT_TRUE(faultIsTheProcesss());
      EXPECT_FALSE(guarded({faulting()})) << round;
      expectNothingLeft();
    }
    EXPECT_EQ(reports[0], 0);
    EXPECT_TRUE(guarded({[] { installReporter(); }}));
    sigaction(SIGSEGV, &reportersBefore[0], nullptr);
    memlib::releaseGuards();
    expectNothingLeft();
  });
}

// One over the other, more than there are places: each is called once.
TEST_F(FaultGuardTest, ManyReporters) {
  inChild([&] {
    EXPECT_TRUE(guarded({installReporter<0>}));
    EXPECT_TRUE(guarded({installReporter<1>}));
    EXPECT_TRUE(guarded({installReporter<2>}));
    EXPECT_TRUE(guarded({installReporter<3>}));
    EXPECT_TRUE(guarded({installReporter<4>}));
    EXPECT_TRUE(guarded({installReporter<5>}));
    EXPECT_TRUE(jumpsOut([&] { guarded({faulting(), decline}); }));
    EXPECT_TRUE(faultIsTheProcesss());
    for (int i = 0; i < 6; ++i) EXPECT_EQ(reports[i], 2) << i;
    EXPECT_FALSE(guarded({faulting()}));
    EXPECT_EQ(currentOf(SIGSEGV).sa_sigaction, report<5>);
  });
}

// The process's handler is called as the system would call it.

TEST_F(FaultGuardTest, HandlerForOneSignalOnly) {
  EXPECT_EXIT(
      {
        struct sigaction once {};
        once.sa_handler = [](int) { static_cast<void>(!write(2, "once", 4)); };
        once.sa_flags = static_cast<int>(SA_RESETHAND);
        sigaction(SIGSEGV, &once, nullptr);
        guarded({faulting(), decline});
      },
      ::testing::KilledBySignal(SIGSEGV), "^once$");
}

TEST_F(FaultGuardTest, HandlerForOneSignalOnlyIsSpent) {
  static GuardPages *pages;
  static int calls;
  pages = &pages_;
  inChild([&] {
    struct sigaction once {};
    once.sa_handler = [](int) {
      ++calls;
      pages->allow(1);
    };
    once.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGSEGV, &once, nullptr);
    EXPECT_TRUE(guarded({faulting(), decline}));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(currentOf(SIGSEGV).sa_handler, SIG_DFL);
    pages_.forbid(1);
    installRecovery(SIGSEGV);
    expectNothingLeft();
  });
}

TEST_F(FaultGuardTest, HandlersMaskIsInForce) {
  SKIP_WHERE_HANDLERS_ARE_BLOCKED();
  static GuardPages *pages;
  static sigset_t seen;
  pages = &pages_;
  inChild([&] {
    for (const bool deferred : {true, false}) {
      struct sigaction handler {};
      handler.sa_handler = [](int) {
        pthread_sigmask(SIG_SETMASK, nullptr, &seen);
        pages->allow(1);
      };
      handler.sa_flags = deferred ? 0 : SA_NODEFER;
      sigaddset(&handler.sa_mask, SIGUSR1);
      sigaction(SIGSEGV, &handler, nullptr);
      pages_.forbid(1);
      EXPECT_TRUE(guarded({faulting(), decline}));
      EXPECT_EQ(sigismember(&seen, SIGUSR1), 1);
      EXPECT_EQ(sigismember(&seen, SIGSEGV), deferred ? 1 : 0);
      EXPECT_EQ(sigismember(&seen, SIGUSR2), 0);
      pthread_sigmask(SIG_SETMASK, nullptr, &seen);
      EXPECT_EQ(sigismember(&seen, SIGUSR1), 0);
      EXPECT_EQ(sigismember(&seen, SIGSEGV), 0);
    }
  });
}

#if defined(__x86_64__)
// The process's handler sends the thread elsewhere instead of jumping.
TEST_F(FaultGuardTest, HandlerThatChangesTheMachineState) {
  SKIP_WHERE_FRAMES_ARE_WATCHED();
  inChild([&] {
    struct sigaction handler {};
    static ucontext_t target;
    static volatile bool isBack;
    isBack = false;
    handler.sa_sigaction = [](int, siginfo_t *, void *machine) {
      auto *state = static_cast<ucontext_t *>(machine);
      std::copy_n(target.uc_mcontext.gregs, REG_RIP + 1, state->uc_mcontext.gregs);
      isBack = true;
    };
    handler.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &handler, nullptr);
    getcontext(&target);
    if (!isBack) guarded({faulting(), decline});
    EXPECT_TRUE(isBack);
    EXPECT_EQ(currentOf(SIGSEGV).sa_sigaction, handler.sa_sigaction);
    installRecovery(SIGSEGV);
    expectNothingLeft();
  });
}
#endif

// Many threads, each with faults of every kind.

class Worker {
 public:
  explicit Worker(std::uint32_t seed) : state_(seed), pages_(2) { pages_.forbid(1); }

  bool run(int rounds) {
    for (int i = 0; i < rounds; ++i) {
      if (!step(next() % 8)) return false;
    }
    return true;
  }

 private:
  std::uint32_t next() {
    state_ = state_ * 1664525 + 1013904223;
    return state_ >> 16;
  }
  void fault() { *static_cast<volatile std::uint8_t *>(pages_.page(1)) = 1; }
  bool step(std::uint32_t kind) {
    const auto faults = [this] { fault(); };
    switch (kind) {
      case 0:
        return guarded({[] {}});
      case 1:
        return !guarded({faults});
      case 2:
        return jumpsOut([&] { guarded({faults, decline}); });
      case 3: {
        const bool isDone = guarded({faults, [this] {
                                       pages_.allow(1);
                                       return memlib::kFaultIsMended;
                                     }});
        pages_.forbid(1);
        return isDone;
      }
      case 4:
        return jumpsOut([&] {
          guarded({faults, []() -> std::int32_t { recover(0, nullptr, nullptr), _exit(3); }});
        });
      case 5:
        return !guarded({[&] {
          if (guarded({faults})) _exit(4);
          fault();
        }});
      case 6:
        return jumpsOut(faults);
      default:
        return guarded({[&] {
          if (!jumpsOut([&] { guarded({faults, decline}); })) _exit(5);
          if (guarded({faults})) _exit(6);
        }});
    }
  }

  std::uint32_t state_;
  GuardPages pages_;
};

TEST_F(FaultGuardTest, ManyThreads) {
  inChild([&] {
    constexpr int kThreads = 8;
    constexpr int kRounds = 2000;
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (std::uint32_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&right, i] { right += Worker(i).run(kRounds) ? 1 : 0; });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(right, kThreads);
    expectNothingLeft();
  });
}

}  // namespace
}  // namespace memtest
