// Every call of every host service that can fail, failing in turn, over whole lives of a process:
// alone, with all later ones, and in the long form in pairs. After each step of each life the error
// area shows what failed, no gate is held and no string space is left writable; after each life
// nothing is left and the library lives a whole life more.
//
// MEMTEST_LONG=1 or the argument --long runs the long form.

#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "lifescript.hpp"
#include "sinkmodel.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr std::uint32_t kHostError = 777;
constexpr std::uintptr_t kPage = 4096;  // the smallest there are
constexpr std::uint64_t kSpaceLen = sinkmodel::kSpaceLen;

constexpr Service kServices[] = {
    Service::GetPoolStorage, Service::GetStorage,   Service::CreateGate, Service::AcquireGate,
    Service::ProtectStorage, Service::CheckStorage, Service::ConvertText};

bool g_isLong = false;

// Follows which pages of string spaces the library has made writable and not tried to protect
// again. A host that refuses to protect is the only reason for a page to stay writable, and a fresh
// block of the sink does not stay at all then.
class ProtectionWatch {
 public:
  void note(const refhost::HostCall &call) {
    if (call.service == Service::FreeStorage) forget(call.args[0], call.args[1]);
    if (call.service != Service::ProtectStorage) return;
    const bool isDone = call.result == 0;
    const bool mustGo = !isDone && call.args[1] == kSpaceLen;
    const std::uintptr_t end = call.args[0] + call.args[1];
    for (std::uintptr_t page = call.args[0] / kPage * kPage; page < end; page += kPage) {
      if (call.args[3] == MEM_PROTECT_READ_ONLY) {
        open_.erase(page);
        if (isDone) closed_.insert(page);
        if (mustGo) open_.insert(page);
      } else if (isDone) {
        open_.insert(page);
        closed_.erase(page);
      }
    }
  }

  void expectClosed(const refhost::Host &host) const {
    EXPECT_TRUE(open_.empty()) << open_.size() << " pages are left writable";
    for (const std::uintptr_t page : closed_) {
      if (!host.isReadOnly(reinterpret_cast<const void *>(page))) {
        ADD_FAILURE() << "a protected page is writable";
        return;
      }
    }
  }

 private:
  void forget(std::uintptr_t area, std::uintptr_t length) {
    const auto drop = [=](std::set<std::uintptr_t> &pages) {
      pages.erase(pages.lower_bound(area), pages.lower_bound(area + length));
    };
    drop(open_);
    drop(closed_);
  }

  std::set<std::uintptr_t> open_;
  std::set<std::uintptr_t> closed_;
};

bool isTold(const std::string &told, const std::vector<std::string> &failures) {
  for (const std::string &known : failures) {
    const bool goesOn = known.back() == '=';
    if (goesOn ? told.rfind(known, 0) == 0 : told == known) return true;
  }
  return false;
}

// Gates and the sink keep the host's own error as the inner one, and so does an enhanced heap that
// got no storage at its start.
bool keepsHostError(int slot, std::uint32_t code) {
  const bool isSinks = code >= MEMERR_SINKVSTG && code <= MEMERR_SINKIERR;
  return isSinks || code == MEMERR_HEAPGATE || (slot == 36 && code == MEMERR_HEAPAMEM);
}

// What varies from sweep to sweep.
struct Setting {
  bool isDirty = true;
  std::uint32_t traceFlags = 0;
  std::uint32_t hostError = kHostError;

  std::string name() const {
    return std::string(isDirty ? "dirty" : "clear") + " storage, " +
           (traceFlags == 0 ? "no trace" : "traced") +
           (hostError == 0 ? ", mute host" : ", reporting host");
  }
};

refhost::Options optionsOf(const Setting &setting) {
  refhost::Options options;
  options.dirtyStorage = setting.isDirty;
  options.traceFlags = setting.traceFlags;
  return options;
}

// Lives on one host that is bound throughout.
class Lives {
 public:
  explicit Lives(const Setting &setting) : host(optionsOf(setting)), hostError_(setting.hostError) {
    host.bind(library().bindEntry());
    host.recordCalls(true);
  }
  ~Lives() {
    host.unbind(library().bindEntry());
    expectNothingLeft(host);
  }

  // A life under the faults that are armed, then one without any.
  void liveTwice() {
    live(false);
    host.disarm();
    pending_.reset();
    if (!::testing::Test::HasFailure()) live(true);
  }

  // The fault is armed once another one has fired.
  void armNext(const refhost::Fault &fault) { pending_ = fault; }

  refhost::Host host;

 private:
  void live(bool isWhole) {
    Life life(host);
    ProtectionWatch watch;
    firedBefore_ = host.faultsFired();
    host.takeCalls();
    for (const Step &step : lifeScript()) {
      SCOPED_TRACE("slot " + std::to_string(step.slot) + ", " + step.what);
      run(step, life, isWhole);
      for (const refhost::HostCall &call : host.takeCalls()) watch.note(call);
      EXPECT_EQ(host.heldGateCount(), 0U);
      watch.expectClosed(host);
      if (life.isSinkStarted && step.slot == 46) {
        EXPECT_EQ(sinkmodel::unsoundness(*host.anchor()), "");
      }
      if (::testing::Test::HasFailure()) break;
    }
    host.disarm();
    endLife(life);
    EXPECT_EQ(host.thread().pMemThreadBlk, nullptr);
    EXPECT_EQ(host.anchor(), nullptr);
    EXPECT_EQ(host.messageTable(), nullptr);
    expectNothingLeft(host);
  }

  void run(const Step &step, Life &life, bool isWhole) {
    MEMErrorArea &error = host.thread().Error;
    std::memset(&error, 0, sizeof error);
    const std::uint64_t fired = host.faultsFired();
    const std::uint64_t reports = host.calls(Service::ReportError);
    const StepResult result = step.run(life);
    if (pending_ && host.faultsFired() != firedBefore_) {
      host.arm(*pending_);
      pending_.reset();
    }
    if (!result) {
      EXPECT_FALSE(isWhole) << "a step of a whole life was passed over";
      return;
    }
    if (*result == step.expected) return;
    EXPECT_NE(host.faultsFired(), fired) << "failed with " << *result << " " << error.Code << " "
                                         << error.NameText << ", but not by the host";
    expectTold(step, error, host.calls(Service::ReportError) - reports);
  }

  void expectTold(const Step &step, const MEMErrorArea &error, std::uint64_t reports) {
    const Telling telling = tellingOf(step.slot);
    if (telling == Telling::byNullOnly) return;
    EXPECT_EQ(error.ReturnCode, kFailedCode);
    if (telling == Telling::inner) {
      const std::string told = std::to_string(error.InnerCode) + " " + error.InnerText;
      EXPECT_TRUE(isTold(told, step.failures)) << told;
      EXPECT_EQ(error.Component, MEM_COMPONENT);
      EXPECT_EQ(reports, 0U);
      return;
    }
    const std::string told = std::to_string(error.Code) + " " + error.NameText;
    EXPECT_TRUE(isTold(told, step.failures)) << told;
    EXPECT_GE(reports, 1U);
    if (!keepsHostError(step.slot, error.Code)) return;
    EXPECT_EQ(error.InnerCode, hostError_);
    EXPECT_STREQ(error.InnerText, hostError_ == 0 ? "" : kHostErrorText);
  }

  const std::uint32_t hostError_;
  std::optional<refhost::Fault> pending_;
  std::uint64_t firedBefore_ = 0;
};

// A line of the report: "12 calls" or "12 pairs" that were made to fail in turn.
void report(const std::string &what, std::uint64_t places, const char *unit,
            std::uint64_t injected) {
  std::printf("  %-34s %5llu %s, %6llu faults injected and survived\n", what.c_str(),
              static_cast<unsigned long long>(places), unit,
              static_cast<unsigned long long>(injected));
}

refhost::Fault faultFor(Service service, const Setting &setting) {
  return faultOf(service, setting.hostError);
}

// Each service, each call, alone and with all later ones. Returns the calls of each.
std::map<Service, std::uint64_t> sweepSingles(Lives &lives, const Setting &setting) {
  std::map<Service, std::uint64_t> places;
  for (const Service service : kServices) {
    const std::uint64_t firedBefore = lives.host.faultsFired();
    places[service] = sweepFaults(lives.host, faultFor(service, setting),
                                  [&lives](std::uint64_t) { lives.liveTwice(); });
    if (::testing::Test::HasFailure()) break;
    report(std::string(refhost::serviceName(service)), places[service], "calls",
           lives.host.faultsFired() - firedBefore);
  }
  return places;
}

// The n-th call of one service, and then each later call of another: what a failing call does to
// clean up, and the calls after it, meet a second failure. The second fault is armed after the
// step in which the first one fired.
void sweepPairs(Lives &lives, const Setting &setting, Service first, Service second,
                std::uint64_t firstPlaces) {
  const std::uint64_t firedBefore = lives.host.faultsFired();
  std::uint64_t pairs = 0;
  for (std::uint64_t nth = 1; nth <= firstPlaces; ++nth) {
    for (refhost::Fault next = faultFor(second, setting);; ++next.nth) {
      SCOPED_TRACE(std::string(refhost::serviceName(first)) + " call " + std::to_string(nth) +
                   ", then " + std::string(refhost::serviceName(second)) + " call " +
                   std::to_string(next.nth));
      refhost::Fault fault = faultFor(first, setting);
      fault.nth = nth;
      const std::uint64_t fired = lives.host.faultsFired();
      lives.host.arm(fault);
      lives.armNext(next);
      lives.liveTwice();
      if (::testing::Test::HasFailure()) return;
      if (lives.host.faultsFired() < fired + 2) break;
      ++pairs;
    }
  }
  report(std::string(refhost::serviceName(first)) + ", then " +
             std::string(refhost::serviceName(second)),
         pairs, "pairs", lives.host.faultsFired() - firedBefore);
}

std::vector<Setting> settings() {
  if (!g_isLong) return {Setting{}};
  std::vector<Setting> all;
  for (const bool isDirty : {true, false}) {
    for (const std::uint32_t flags : {0U, 0xFFFFFFFFU}) {
      for (const std::uint32_t hostError : {kHostError, 0U}) {
        all.push_back({isDirty, flags, hostError});
      }
    }
  }
  return all;
}

TEST(FaultSweepTest, ScriptCallsEverySlotAndEveryService) {
  std::set<int> slots;
  for (const Step &step : lifeScript()) slots.insert(step.slot);
  std::set<int> expected;
  for (int slot = MEM_VECTOR_HOST_SLOTS; slot < MEM_VECTOR_LEN; ++slot) expected.insert(slot);
  EXPECT_EQ(slots, expected);

  Lives lives{Setting{}};
  lives.liveTwice();
  for (const Service service : kServices) {
    EXPECT_GT(lives.host.calls(service), 0U) << refhost::serviceName(service);
  }
}

TEST(FaultSweepTest, EveryHostCallFails) {
  for (const Setting &setting : settings()) {
    SCOPED_TRACE(setting.name());
    std::printf("%s\n", setting.name().c_str());
    Lives lives(setting);
    const std::map<Service, std::uint64_t> places = sweepSingles(lives, setting);
    if (HasFailure()) return;
    // So often at least the script calls them.
    EXPECT_GE(places.at(Service::GetPoolStorage), 2U);
    EXPECT_GE(places.at(Service::GetStorage), 50U);
    EXPECT_GE(places.at(Service::CreateGate), 2U);
    EXPECT_GE(places.at(Service::AcquireGate), 30U);
    EXPECT_GE(places.at(Service::ProtectStorage), 20U);
    EXPECT_GE(places.at(Service::CheckStorage), 2U);
    EXPECT_GE(places.at(Service::ConvertText), 2U);
  }
}

TEST(FaultSweepTest, EveryPairOfHostCallsFails) {
  if (!g_isLong) GTEST_SKIP() << "part of the long form (--long or MEMTEST_LONG=1)";
  const Setting setting;
  Lives lives(setting);
  const std::map<Service, std::uint64_t> places = sweepSingles(lives, setting);
  for (const Service first : kServices) {
    for (const Service second : kServices) {
      if (HasFailure()) return;
      sweepPairs(lives, setting, first, second, places.at(first));
    }
  }
}

// After a start that failed half-way a host may go on all the same. Whatever then works or not, the
// calls come back and ending the process returns everything.
TEST(FaultSweepTest, CallsAfterAFailedStartAreHarmless) {
  for (const Service service : {Service::GetPoolStorage, Service::CreateGate, Service::GetStorage,
                                Service::ProtectStorage}) {
    for (std::uint64_t nth = 1; nth <= 2; ++nth) {
      SCOPED_TRACE(std::string(refhost::serviceName(service)) + " call " + std::to_string(nth));
      Setting setting;
      refhost::Host host(optionsOf(setting));
      host.bind(library().bindEntry());
      refhost::Fault fault = faultFor(service, setting);
      fault.nth = nth;
      Life life(host);
      host.arm(fault);
      const std::int16_t started = life.mem.MEM_ProcessInit();
      host.disarm();
      life.isProcessStarted = life.isSinkStarted = true;
      for (const Step &step : lifeScript()) {
        if (step.slot == 4 || step.slot == 31 || step.slot == 32) continue;
        SCOPED_TRACE("slot " + std::to_string(step.slot) + ", " + step.what);
        const StepResult result = step.run(life);
        EXPECT_TRUE(started != 0 || result == step.expected);
        EXPECT_EQ(host.heldGateCount(), 0U);
      }
      endLife(life);
      host.unbind(library().bindEntry());
      expectNothingLeft(host);
    }
  }
}

}  // namespace
}  // namespace memtest

int main(int argc, char **argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const char *variable = std::getenv("MEMTEST_LONG");
  memtest::g_isLong = variable != nullptr && std::string(variable) != "0";
  for (int i = 1; i < argc; ++i) memtest::g_isLong |= std::string(argv[i]) == "--long";
  return RUN_ALL_TESTS();
}
