// The sink on random operations against the model, to the bit after every step.

#include <algorithm>
#include <array>
#include <map>

#include "randomrun.hpp"
#include "sinktest.hpp"

namespace memtest {
namespace {

using sinkmodel::Answer;
using sinkmodel::Position;
using sinkmodel::SinkModel;

constexpr std::uint8_t kFresh = 0xA5;  // what withDirtyStorage() fills with

// Texts that meet each other: few characters, equal prefixes, the same bytes as narrow and as wide
// text, bytes from 128 on, no text at all, and now and then very long ones.
class RandomTexts {
 public:
  explicit RandomTexts(Random &random) : random_(random) {}

  Text next() {
    Text text = random_.oneIn(6) && !recent_.empty() ? variation() : fresh();
    if (recent_.size() < kRecent) {
      recent_.push_back(text);
    } else {
      recent_[random_.below(kRecent)] = text;
    }
    return text;
  }

 private:
  static constexpr std::size_t kRecent = 64;

  Text fresh() {
    const std::size_t length = randomLength();
    const bool isWide = random_.oneIn(2);
    Text text{"", isWide};
    for (std::size_t i = 0; i < length; ++i) addCharacter(text);
    return text;
  }

  // A recent text as the other kind, where its bytes can be that; else a longer or a shorter one.
  Text variation() {
    Text text = recent_[random_.below(recent_.size())];
    const std::size_t step = text.isWide ? 2 : 1;
    switch (random_.below(3)) {
      case 0:
        return otherKind(text);
      case 1:
        if (text.bytes.size() > step) text.bytes.resize(text.bytes.size() - step);
        return text;
      default:
        addCharacter(text);
        return text;
    }
  }

  static Text otherKind(Text text) {
    if (!text.isWide) return {sinkmodel::keyOf(text), true};
    std::string bytes = text.bytes;
    if (!bytes.empty() && bytes.back() == '\0') bytes.pop_back();
    return bytes.find('\0') == std::string::npos ? Text{bytes, false} : text;
  }

  std::size_t randomLength() {
    if (random_.oneIn(250)) return random_.between(20000, 90000);
    if (random_.oneIn(60)) return random_.between(40, 700);
    return random_.below(9);
  }

  // One byte of a wide character may be zero.
  void addCharacter(Text &text) {
    const std::size_t zeroByte = random_.below(3);
    if (text.isWide) text.bytes.push_back(zeroByte == 0 ? '\0' : plainByte());
    text.bytes.push_back(text.isWide && zeroByte == 1 ? '\0' : plainByte());
  }

  char plainByte() {
    static constexpr std::array<int, 6> kBytes = {'a', 'b', 0x01, 0x7F, 0x80, 0xFF};
    return static_cast<char>(kBytes[random_.below(kBytes.size())]);
  }

  Random &random_;
  std::vector<Text> recent_;
};

class SinkModelTest : public SinkTest {
 protected:
  SinkModelTest() : model(kFresh) {}

  const std::uint8_t *addressOf(Position position) {
    return block().Segments[position.segment].pSpace + position.offset;
  }

  void expectAnswer(const Answer &expected, std::int16_t result, const void *pSunk) {
    ++outcomes[expected.code];
    const bool isFailure = expected.code == 4085 || expected.code == 4086;
    ASSERT_EQ(result, isFailure ? kFailed : static_cast<std::int16_t>(expected.code));
    ASSERT_EQ(error().Code, isFailure ? expected.code : 0U);
    const void *const position = expected.code == 0 ? addressOf(expected.position) : &untouched;
    ASSERT_EQ(pSunk, position);
  }

  void sinkOne(const Text &text) {
    const void *pSunk = &untouched;
    const std::int16_t result = sinkText(mem, text, &pSunk);
    expectAnswer(model.sink(text), result, pSunk);
  }

  void verifyOne(const Text &text) {
    const void *pSunk = &untouched;
    const std::int16_t result = verifyText(mem, text, &pSunk);
    expectAnswer(model.verify(text), result, pSunk);
  }

  // Deletes by any address, as either kind: the text is what that address holds.
  void deleteAt(const void *address, bool isWide, bool isCopy, Position position) {
    const Text text = sinkmodel::textAt(address, isWide);
    const Answer expected = model.remove(text, isCopy, position);
    ++outcomes[expected.code];
    const std::int16_t result = deleteSunk(mem, address, isWide);
    ASSERT_EQ(result, expected.code == 4086 ? kFailed : static_cast<std::int16_t>(expected.code));
    ASSERT_EQ(error().Code, expected.code == 4086 ? 4086U : 0U);
  }

  void deleteCopy(std::size_t place, Random &random) {
    const Position position = model.positionAt(place);
    deleteAt(addressOf(position), random.oneIn(2), true, position);
  }

  // As the kind that has all of the copy's bytes.
  void deleteWholly(std::size_t place) {
    const Position position = model.positionAt(place);
    deleteAt(addressOf(position), true, true, position);
  }

  void deleteForeign(const Text &text) {
    const OwnText own(text);
    deleteAt(own.wide(), text.isWide, false, {});
  }

  void deleteInsideCopy(std::size_t place) {
    const Position position = model.positionAt(place);
    const Position inside{position.segment, position.offset + 2};
    if (sinkmodel::textAt(addressOf(position), true).bytes.empty()) return;
    deleteAt(addressOf(inside), true, true, inside);
  }

  // Deletes at the ends of the order, where the index has cases of its own, more often than chance.
  std::size_t somePlace(Random &random) {
    if (random.oneIn(10)) return 0;
    if (random.oneIn(10)) return model.copies() - 1;
    return random.below(model.copies());
  }

  // `shrinking` of 100 operations delete.
  void step(Random &random, RandomTexts &texts, std::size_t shrinking) {
    if (model.copies() != 0 && random.below(100) < shrinking) {
      return deleteWholly(somePlace(random));
    }
    switch (random.below(16)) {
      case 0:
      case 1:
        return verifyOne(texts.next());
      case 2:
        return deleteForeign(texts.next());
      case 3:
        if (model.copies() != 0) return deleteCopy(somePlace(random), random);
        return;
      case 4:
        if (model.copies() != 0) return deleteInsideCopy(somePlace(random));
        return;
      default:
        return sinkOne(texts.next());
    }
  }

  void expectModel() {
    ASSERT_EQ(model.difference(block()), "");
    ASSERT_EQ(host.heldGateCount(), 0U);
    const refhost::Account account = host.account(sinkmodel::kSubPool, 0);
    ASSERT_EQ(account.liveCount, model.segments() + 1);
    ASSERT_EQ(account.liveBytes, model.segments() * sinkmodel::kBlockLen + block().IndexLen);
  }

  SinkModel model;
  std::map<std::uint32_t, int> outcomes;
  const std::uint8_t untouched = 0;
};

TEST_F(SinkModelTest, RandomOperationsLeaveTheModelsState) {
  constexpr int kSteps = 30000;
  const std::uint64_t seed = firstSeed(20250117);
  SCOPED_TRACE(seedNote(seed));
  Random random(seed);
  RandomTexts texts(random);
  std::size_t shrinking = 0;
  for (int i = 0; i < kSteps; ++i) {
    // The sink grows, stays, shrinks, and sometimes runs empty.
    if (i % 1000 == 0) {
      static constexpr std::array<std::size_t, 6> kPhases = {5, 20, 45, 48, 60, 90};
      shrinking = i < 4000 ? 5 : kPhases[random.below(kPhases.size())];
    }
    SCOPED_TRACE(i);
    step(random, texts, shrinking);
    if (HasFatalFailure()) return;
    expectModel();
    if (i % 100 == 0) {
      expectProtected();
      expectSound();
    }
    if (HasFailure()) return;
  }
  // A run that reached none of these would prove little.
  EXPECT_GT(model.compactions(), 0U);
  EXPECT_GT(model.growths(), 0U);
  EXPECT_GT(model.segments(), 2U);
  for (const std::uint32_t code : {0U, 4084U, 4086U}) EXPECT_GT(outcomes[code], 0) << code;

  while (model.copies() != 0 && !HasFatalFailure()) deleteWholly(somePlace(random));
  expectModel();
  expectProtected();
}

// Few texts that are equal as narrow and wide, so that every copy of odd length is made and erased
// as both kinds, next to each other and to the copy of the empty text.
TEST_F(SinkModelTest, OddNarrowAndWideTwinsKeepTheirOwnRoom) {
  constexpr int kSteps = 20000;
  const std::uint64_t seed = firstSeed(20250118);
  SCOPED_TRACE(seedNote(seed));
  Random random(seed);
  for (int i = 0; i < kSteps; ++i) {
    SCOPED_TRACE(i);
    if (model.copies() != 0 && random.oneIn(2)) {
      deleteWholly(random.below(model.copies()));
    } else {
      const bool isWide = random.oneIn(2);
      std::string bytes;
      const std::size_t pairs = random.below(3);
      for (std::size_t pair = 0; pair < pairs; ++pair) {
        const bool isLast = pair + 1 == pairs;
        bytes += static_cast<char>('a' + random.below(2));
        bytes += isLast ? '\0' : 'c';
      }
      if (!isWide && !bytes.empty()) bytes.pop_back();
      sinkOne({bytes, isWide});
    }
    if (HasFatalFailure()) return;
    expectModel();
    expectSound();
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace memtest
