// The sink from several threads at once, and what happens to a write into a sunk string.

#include <array>
#include <atomic>
#include <map>
#include <thread>

#include "randomrun.hpp"
#include "sinktest.hpp"

namespace memtest {
namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 3000;
constexpr std::size_t kTexts = 150;

// Every third text is wide; neighbours have equal prefixes.
Text textOf(std::size_t number) {
  const std::string name = "text" + std::to_string(number);
  if (number % 3 != 0) return sinkmodel::narrow(name);
  return sinkmodel::wide(std::u16string(name.begin(), name.end()));
}

using Counts = std::array<std::uint64_t, kTexts>;

// What one thread does, and what it holds in the end. Results are collected, not asserted: the
// threads must not share a test's state.
struct Worker {
  MEMFunctionVector &mem;
  std::uint64_t seed;
  Counts held{};
  std::array<const void *, kTexts> copies{};
  int wrongs = 0;

  void check(bool isRight) { wrongs += isRight ? 0 : 1; }

  void sink(std::size_t number) {
    const Text text = textOf(number);
    const void *pSunk = nullptr;
    check(sinkText(mem, text, &pSunk) == 0);
    if (pSunk == nullptr) return;
    // A copy that this thread holds can neither move nor be made twice.
    check(held[number] == 0 || copies[number] == pSunk);
    check(sinkmodel::textAt(pSunk, text.isWide).bytes == text.bytes);
    copies[number] = pSunk;
    ++held[number];
  }

  void verify(std::size_t number) {
    const void *pSunk = nullptr;
    const std::int16_t result = verifyText(mem, textOf(number), &pSunk);
    check(result == 0 || result == 4084);
    if (held[number] != 0) check(result == 0 && pSunk == copies[number]);
  }

  void remove(std::size_t number) {
    if (held[number] == 0) return;
    check(deleteSunk(mem, copies[number], textOf(number).isWide) == 0);
    --held[number];
  }

  void run() {
    check(mem.MEM_ThreadAct() == 0);
    Random random(seed);
    for (int i = 0; i < kRounds; ++i) {
      const std::size_t number = random.below(kTexts);
      switch (random.below(5)) {
        case 0:
        case 1:
          sink(number);
          break;
        case 2:
          verify(number);
          break;
        default:
          remove(number);
      }
    }
    check(mem.MEM_ThreadTerm() == 0);
  }
};

class SinkThreadTest : public SinkTest {
 protected:
  std::vector<Worker> runWorkers(std::uint64_t seed) {
    std::vector<Worker> workers;
    for (int i = 0; i < kThreads; ++i) workers.push_back({mem, seed + static_cast<unsigned>(i)});
    std::vector<std::thread> threads;
    for (Worker &worker : workers) threads.emplace_back([&worker] { worker.run(); });
    for (std::thread &thread : threads) thread.join();
    return workers;
  }
};

TEST_F(SinkThreadTest, OverlappingTextsAreCountedExactly) {
  const std::uint64_t seed = firstSeed(20250120);
  SCOPED_TRACE(seedNote(seed));
  const std::vector<Worker> workers = runWorkers(seed);
  std::map<std::string, std::uint64_t> expected;
  std::map<std::string, const void *> places;
  for (const Worker &worker : workers) {
    EXPECT_EQ(worker.wrongs, 0);
    for (std::size_t i = 0; i < kTexts; ++i) {
      if (worker.held[i] == 0) continue;
      const std::string key = sinkmodel::keyOf(textOf(i));
      expected[key] += worker.held[i];
      const auto [place, isNew] = places.emplace(key, worker.copies[i]);
      EXPECT_EQ(place->second, worker.copies[i]) << "two copies of one text";
    }
  }
  std::map<std::string, std::uint64_t> actual;
  for (const sinkmodel::SunkCopy &copy : sinkmodel::sunkCopies(block())) {
    actual[copy.key] = copy.uses;
    EXPECT_EQ(places[copy.key], copy.address);
  }
  EXPECT_EQ(actual, expected);
  expectSound();
  expectProtected();
  EXPECT_EQ(host.heldGateCount(), 0U);

  for (const Worker &worker : workers) {
    for (std::size_t i = 0; i < kTexts; ++i) {
      for (std::uint64_t use = 0; use < worker.held[i]; ++use) {
        ASSERT_EQ(deleteSunk(mem, worker.copies[i], textOf(i).isWide), 0);
      }
    }
  }
  EXPECT_EQ(block().Act, 0U);
  EXPECT_EQ(block().Segments[0].UsedLen, 0U);
  expectSound();
}

// Threads that only look at a copy are not disturbed while its page is written.
TEST_F(SinkThreadTest, ReadersSeeTheirCopyWhileOthersWriteBesideIt) {
  const char *const shared = sink("shared by readers");
  std::atomic<bool> isDone = false;
  std::atomic<int> wrongs = 0;
  std::thread reader([&] {
    while (!isDone) {
      if (std::string_view(shared) != "shared by readers") ++wrongs;
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    EXPECT_EQ(mem.MEM_SinkDelete(sink("others " + std::to_string(i % 7))), 0);
  }
  isDone = true;
  reader.join();
  EXPECT_EQ(wrongs, 0);
}

using SinkDeathTest = SinkTest;

TEST_F(SinkDeathTest, WriteIntoASunkStringFaults) {
  const char *const pSunk = sink("shared");
  const char16_t *const pWide = sink(u"shared");
  volatile char *const target = const_cast<char *>(pSunk);
  volatile char16_t *const wideTarget = const_cast<char16_t *>(pWide);
  EXPECT_DEATH(target[0] = 'S', "");
  EXPECT_DEATH(wideTarget[5] = u'D', "");
  EXPECT_STREQ(pSunk, "shared");
  // Also after the page was written again.
  EXPECT_EQ(mem.MEM_SinkDelete(sink("others")), 0);
  EXPECT_DEATH(target[0] = 'S', "");
  expectSound();
}

}  // namespace
}  // namespace memtest
