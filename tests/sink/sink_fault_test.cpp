// Every host call of the sink failing in turn: the gate is free afterwards, all structures agree,
// the existing strings are intact, and nothing is left at the end.

#include <functional>
#include <map>
#include <set>

#include "randomrun.hpp"
#include "sinktest.hpp"

namespace memtest {
namespace {

using refhost::Service;
using sinkmodel::narrow;
using sinkmodel::wide;

constexpr std::uint32_t kHostError = 777;

// What a call that failed by the host may leave in the error area: the sink's code and name above
// the host's own.
const std::set<std::string> kAllowedNames = {"ListGateAcq", "GetVSTGErr", "ProtPageErr",
                                             "ProtPageErrReadWrite", "ProtPageErrReadOnly"};

class SinkFaultTest : public SinkTest {
 protected:
  // Uses of each text, by its key.
  using Uses = std::map<std::string, std::uint64_t>;

  Uses held() {
    Uses uses;
    for (const sinkmodel::SunkCopy &copy : sinkmodel::sunkCopies(block())) {
      uses[copy.key] = copy.uses;
    }
    return uses;
  }

  void expectHostFailure(std::int16_t result) {
    EXPECT_EQ(result, kFailed);
    EXPECT_EQ(error().Component, 3);
    EXPECT_EQ(error().ReturnCode, 0xFFFF);
    EXPECT_EQ(error().Code, nameText() == "ListGateAcq" ? 4081U : 4080U);
    EXPECT_TRUE(kAllowedNames.count(nameText()) == 1) << nameText();
    EXPECT_EQ(error().InnerCode, kHostError);
    EXPECT_STREQ(error().InnerText, kHostErrorText);
  }

  void expectWhole(const Uses &expected) {
    EXPECT_EQ(host.heldGateCount(), 0U);
    expectSound();
    EXPECT_EQ(held(), expected);
  }

  const void *addressOf(const std::string &key) {
    for (const sinkmodel::SunkCopy &copy : sinkmodel::sunkCopies(block())) {
      if (copy.key == key) return copy.address;
    }
    return nullptr;
  }

  // A sink that is refused changes nothing; one that succeeds counts one more use.
  void sinkUnderFault(const Text &text) {
    Uses expected = held();
    const void *const cell = &expected;
    const void *pSunk = cell;
    const std::int16_t result = sinkText(mem, text, &pSunk);
    if (result == 0) {
      ++expected[sinkmodel::keyOf(text)];
      EXPECT_EQ(pSunk, addressOf(sinkmodel::keyOf(text)));
    } else {
      expectHostFailure(result);
      EXPECT_EQ(pSunk, cell);
    }
    expectWhole(expected);
  }

  // A delete that is refused leaves the copy as it is, but for the last protection change.
  void deleteUnderFault(const Text &text) {
    Uses expected = held();
    const std::string key = sinkmodel::keyOf(text);
    const void *const pSunk = addressOf(key);
    if (pSunk == nullptr) return;
    const std::int16_t result = deleteSunk(mem, pSunk, text.isWide);
    const bool isDone = result == 0 || nameText() == "ProtPageErrReadOnly";
    if (result != 0) expectHostFailure(result);
    if (isDone && --expected[key] == 0) expected.erase(key);
    expectWhole(expected);
  }

  void verifyUnderFault(const Text &text) {
    const Uses expected = held();
    const void *const cell = &expected;
    const void *pSunk = cell;
    const std::int16_t result = verifyText(mem, text, &pSunk);
    const bool isHeld = expected.count(sinkmodel::keyOf(text)) == 1;
    if (result == kFailed) {
      expectHostFailure(result);
      EXPECT_EQ(pSunk, cell);
    } else {
      EXPECT_EQ(result, isHeld ? 0 : 4084);
      EXPECT_EQ(pSunk, isHeld ? addressOf(sinkmodel::keyOf(text)) : cell);
    }
    expectWhole(expected);
  }

  // Deletes all uses of all texts.
  void empty() {
    for (const sinkmodel::SunkCopy &copy : sinkmodel::sunkCopies(block())) {
      for (std::uint64_t i = 0; i < copy.uses; ++i) {
        ASSERT_EQ(mem.MEM_WSinkDelete(reinterpret_cast<const char16_t *>(copy.address)), 0);
      }
    }
  }

  // Sink stopped and started, so that the next attempt finds it as at first.
  void restart() {
    ASSERT_EQ(mem.MEM_SinkTerm(), 0);
    EXPECT_EQ(host.account(230).liveCount, 0U);
    ASSERT_EQ(mem.MEM_SinkInit(), 0);
  }

  // `prepare` runs before the fault counts, `act` under it. Returns the number of failing points.
  std::uint64_t sweep(Service service, const std::function<void()> &prepare,
                      const std::function<void()> &act) {
    const refhost::Fault fault = faultOf(service, kHostError);
    std::uint64_t points = 0;
    for (const bool andAllLater : {false, true}) {
      for (std::uint64_t nth = 1;; ++nth) {
        SCOPED_TRACE(std::string(refhost::serviceName(service)) + " call " + std::to_string(nth) +
                     (andAllLater ? " and all later" : ""));
        prepare();
        const std::uint64_t firedBefore = host.faultsFired();
        refhost::Fault armed = fault;
        armed.nth = nth;
        armed.andAllLater = andAllLater;
        host.arm(armed);
        act();
        host.disarm();
        const bool hasFired = host.faultsFired() != firedBefore;
        expectSound();
        restart();
        if (HasFailure() || !hasFired) break;
        points = nth;
      }
    }
    return points;
  }

  static std::string filler(std::uint32_t reserved) { return std::string(reserved - 4, 'F'); }
};

constexpr Service kServices[] = {Service::AcquireGate, Service::GetStorage,
                                 Service::ProtectStorage};

// New and known texts of both kinds, look-ups, deletes of one use and of the last.
TEST_F(SinkFaultTest, OrdinaryCallsAreRefusedWhole) {
  const auto prepare = [this] {
    sink("known");
    sink("known");
    sink(u"other");
  };
  const auto act = [this] {
    sinkUnderFault(narrow("new"));
    sinkUnderFault(narrow("known"));
    sinkUnderFault(wide(u"new"));
    sinkUnderFault(wide(u""));
    verifyUnderFault(narrow("known"));
    verifyUnderFault(wide(u"unknown"));
    for (int i = 0; i < 3; ++i) deleteUnderFault(narrow("known"));
    deleteUnderFault(wide(u"other"));
    deleteUnderFault(narrow("new"));
  };
  EXPECT_EQ(sweep(Service::AcquireGate, prepare, act), 11U);
  EXPECT_EQ(sweep(Service::ProtectStorage, prepare, act), 12U);
  EXPECT_EQ(sweep(Service::GetStorage, prepare, act), 0U);
}

// A text that needs a new block: the block's storage, its protection, then the copy's own.
TEST_F(SinkFaultTest, NewBlockIsObtainedWholeOrNotAtAll) {
  const auto prepare = [this] { sink(filler(0x40000 - 2)); };
  const auto act = [this] {
    sinkUnderFault(narrow("new"));
    // Entry 1 has its block or is clear; the checker has looked at it.
    const auto segments = static_cast<std::uint64_t>(block().SegmentCount);
    EXPECT_EQ(host.account(230, 0).liveCount, segments + 1);
    sinkUnderFault(wide(u"second"));
  };
  EXPECT_EQ(sweep(Service::GetStorage, prepare, act), 1U);
  EXPECT_EQ(sweep(Service::ProtectStorage, prepare, act), 5U);
}

// Several blocks in one call: entries without a run are passed over.
TEST_F(SinkFaultTest, FailureOfALaterBlockKeepsTheEarlierOnes) {
  const auto prepare = [this] {
    for (const char c : {'1', '2', '3'}) sink(std::string(0x40000 - 4, c));
  };
  const auto act = [this] {
    for (const char c : {'4', '5', '6'}) sinkUnderFault(narrow(std::string(0x40000 - 4, c)));
  };
  EXPECT_EQ(sweep(Service::GetStorage, prepare, act), 3U);
  EXPECT_EQ(sweep(Service::ProtectStorage, prepare, act), 9U);
}

TEST_F(SinkFaultTest, GrowthOfTheIndexTakesTheNewCopyBack) {
  const auto prepare = [this] {
    for (int i = 0; i < 1024; ++i) sink("text" + std::to_string(i));
  };
  const auto act = [this] {
    const std::uint32_t usedLen = block().Segments[0].UsedLen;
    sinkUnderFault(narrow("new"));
    if (block().Act == 1024) {
      EXPECT_EQ(block().IndexLen, 16384U);
      EXPECT_EQ(block().Segments[0].UsedLen, usedLen);
    }
    sinkUnderFault(narrow("new"));
  };
  EXPECT_EQ(sweep(Service::GetStorage, prepare, act), 1U);
  EXPECT_EQ(sweep(Service::ProtectStorage, prepare, act), 2U);
}

// The bytes of a copy that was taken back are cleared: nothing of a text stays that is not sunk.
TEST_F(SinkFaultTest, BytesOfARefusedCopyAreCleared) {
  const auto *const space = block().Segments[0].pSpace;
  refhost::Fault fault = faultOf(Service::ProtectStorage, kHostError);
  fault.nth = 2;
  host.arm(fault);
  const char *pSunk = nullptr;
  EXPECT_EQ(mem.MEM_SinkString("secret", &pSunk), kFailed);
  EXPECT_EQ(bytesOf(space, 10), Bytes(10));
  expectProtected();

  for (int i = 0; i < 1024; ++i) sink("text" + std::to_string(i));
  host.arm(faultOf(Service::GetStorage, kHostError));
  const auto *const next = space + block().Segments[0].UsedLen;
  EXPECT_EQ(mem.MEM_SinkString("secret", &pSunk), kFailed);
  EXPECT_EQ(nameText(), "GetVSTGErr");
  EXPECT_EQ(bytesOf(next, 10), Bytes(10));
  expectProtected();
}

// The first refusal is reported to the caller, even if the cleanup is refused, too.
TEST_F(SinkFaultTest, FirstFailureIsTheOneThatIsKept) {
  static decltype(MEMRuntimeServices::ProtectStorage) own = nullptr;
  static std::uint32_t refusals = 0;
  static MEMThreadEnv *pEnv = nullptr;
  own = host.runtime().ProtectStorage;
  pEnv = &env();
  const auto refuse = [](void *, std::uint32_t, std::uint16_t, std::uint16_t) -> std::uint16_t {
    pEnv->Error.Code = 900 + ++refusals;
    return 8;
  };
  sink(filler(0x40000));
  refusals = 0;
  host.runtime().ProtectStorage = refuse;
  const char *pSunk = nullptr;
  EXPECT_EQ(mem.MEM_SinkString("new", &pSunk), kFailed);
  host.runtime().ProtectStorage = own;
  EXPECT_EQ(nameText(), "ProtPageErr");
  EXPECT_GT(refusals, 1U);
  EXPECT_EQ(error().InnerCode, 901U);
  EXPECT_EQ(block().SegmentCount, 1);
  EXPECT_EQ(host.account(230, 0).liveCount, 2U);
}

// Random calls with a random service failing at a random call.
TEST_F(SinkFaultTest, RandomCallsUnderRandomFaultsKeepTheSinkSound) {
  constexpr int kRounds = 2000;
  const std::uint64_t seed = firstSeed(20250119);
  SCOPED_TRACE(seedNote(seed));
  Random random(seed);
  std::uint64_t fired = 0;
  for (int i = 0; i < kRounds && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    refhost::Fault fault = faultOf(kServices[random.below(3)], kHostError);
    fault.nth = random.between(1, 4);
    fault.andAllLater = random.oneIn(4);
    const std::uint64_t firedBefore = host.faultsFired();
    host.arm(fault);
    for (int call = 0; call < 3 && !HasFailure(); ++call) {
      const std::size_t longer = random.oneIn(60) ? random.between(10, 9000) : 0;
      std::string bytes = std::to_string(random.below(200)) + std::string(longer, 'l');
      const Text text =
          random.oneIn(2) ? wide(std::u16string(bytes.begin(), bytes.end())) : narrow(bytes);
      switch (random.below(4)) {
        case 0:
          verifyUnderFault(text);
          break;
        case 1:
          deleteUnderFault(text);
          break;
        default:
          sinkUnderFault(text);
      }
    }
    host.disarm();
    fired += host.faultsFired() - firedBefore;
  }
  EXPECT_GT(fired, 500U);
  empty();
  EXPECT_EQ(block().Act, 0U);
  expectSound();
}

TEST_F(SinkFaultTest, ProcessEndReturnsEverythingAfterFailures) {
  for (const Service service : kServices) {
    for (int i = 0; i < 5; ++i) {
      host.arm(faultOf(service, kHostError));
      sinkUnderFault(narrow("text" + std::to_string(i)));
      sinkUnderFault(narrow(std::string(0x30000, static_cast<char>('a' + i))));
    }
  }
  host.disarm();
  stop();
  expectNothingLeft(host);
}

}  // namespace
}  // namespace memtest
