// Damaged port strings, tens of thousands of them: a reader ends with success or with a message of
// its own, faults never, and touches nothing beyond what it asked for.

#include <map>
#include <string>

#include "portmutants.hpp"
#include "porttest.hpp"

namespace memtest {
namespace {

class PortMutationTest : public BoundTest {
 protected:
  PortMutationTest() : reader_(host) { host.keepRecords(true); }
  ~PortMutationTest() override { host.restoreSlots(); }

  void expectSound(const ReadOutcome &outcome, const std::string &text) {
    EXPECT_EQ(HostileReader::fault(outcome), "") << text;
    ++outcomes_[outcome.message];
    succeeded_ += outcome.status == 0 ? 1 : 0;
  }
  // Both readers, which agree.
  void readBoth(const std::string &text, std::size_t chunkLen) {
    const ReadOutcome block = reader_.readBlock(text);
    const ReadOutcome chain = reader_.readChain(text, chunkLen);
    expectSound(block, text);
    EXPECT_EQ(HostileReader::difference(block, chain, text, chunkLen), "") << text;
  }
  void expectNoFault() { EXPECT_EQ(host.calls(refhost::Service::FilterException), 0U); }

  HostileReader reader_;
  std::map<std::string, int> outcomes_;
  int succeeded_ = 0;
};

TEST_F(PortMutationTest, SoundTextsAreRead) {
  for (const std::string &text : soundTexts(1, 50)) {
    readBoth(text, 17);
    ASSERT_EQ(outcomes_.size(), 1U) << text << outcomes_.rbegin()->first;
  }
  EXPECT_EQ(succeeded_, 50);
  expectNoFault();
}

TEST_F(PortMutationTest, MutantsEndWithAMessage) {
  constexpr std::uint64_t kMutants = 25000;
  const std::vector<std::string> texts = soundTexts(2, 40);
  const std::uint64_t begin = firstSeed(6300000);
  for (std::uint64_t seed = begin; seed < begin + kMutants; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    Random random(seed);
    const std::string &text = texts[random.below(texts.size())];
    const std::string &other = texts[random.below(texts.size())];
    readBoth(mutant(text, other, random), random.between(1, 40));
    if (HasFailure()) return;
  }
  expectNoFault();
  // Mutants that all end the same way would prove little.
  EXPECT_GT(outcomes_.size(), 15U);
  EXPECT_GT(succeeded_, 100);
}

TEST_F(PortMutationTest, TruncatedTextsEndWithAMessage) {
  for (const std::string &text : soundTexts(3, 8)) {
    for (std::size_t length = 0; length < text.size(); ++length) {
      const std::string cut = text.substr(0, length);
      const ReadOutcome outcome = reader_.readBlock(cut);
      expectSound(outcome, cut);
      EXPECT_EQ(outcome.status, -1) << cut;
      expectSound(reader_.readChain(cut, 1 + length % 30), cut);
      if (HasFailure()) return;
    }
  }
  expectNoFault();
}

// An embedded structure of another kind reaches beyond the end of the entry: its absent fields
// there get no default.
TEST_F(PortMutationTest, DefaultsOfALongerEmbeddedStructureStayInTheEntry) {
  const std::string text = "(0000000042,0000000001)(1<7N/01E(1<7N>)>)";
  readBoth(text, 17);
  EXPECT_EQ(reader_.readBlock(text).status, 0);
}

// Work is in proportion to the length: what a short text may ask for is bounded by it.
TEST_F(PortMutationTest, ManyPromisedStructuresAreNotBelieved) {
  for (const char *count : {"0000001000", "2147483647", "4294967295"}) {
    host.resetCalls();
    const std::string text = "(0000000030," + std::string(count) + ")(1<7N>)";
    expectSound(reader_.readBlock(text), text);
    EXPECT_EQ(host.calls(refhost::Service::GetStorage), 0U);
  }
}

}  // namespace
}  // namespace memtest
