// Concatenation buffers against texts of the standard library, with random appends to several
// buffers at once.

#include <algorithm>
#include <array>
#include <memory>

#include "catmodel.hpp"

namespace memtest {
namespace {

class CatModelTest : public HeapHashTest, public ::testing::WithParamInterface<std::uint64_t> {
 protected:
  static constexpr std::size_t kMostBuffers = 5;
  static constexpr std::size_t kLongText = 30000;

  CatModelTest() : watch(mem), stage{host, mem, watch, kDirty}, random(GetParam()) {
    watch.keepFreed = watch.soilFreed = true;  // storage that has been returned is not read again
  }

  std::u16string someText(std::size_t length) {
    std::u16string text(length, u'?');
    for (char16_t &unit : text) {
      unit = static_cast<char16_t>(random.oneIn(200) ? 0 : 1 + random.below(0xFFFF));
    }
    return text;
  }

  // Half of them are short; three in ten fill the buffer, give or take two units.
  std::size_t someLength(const CheckedBuffer &buffer) {
    const std::size_t kind = random.below(100);
    if (kind < 5) return 0;
    if (kind < 50) return random.between(1, 20);
    if (kind < 70) return random.between(1, 1500);
    const std::size_t room = buffer.storageLen() / 2 - 1 - buffer.text().size();
    return room + random.between(0, 4) - std::min<std::size_t>(room, 2);
  }

  void appendTo(CheckedBuffer &buffer) {
    const Append by = random.oneIn(2) ? Append::kText : Append::kLength;
    watch.refuseStorage = random.oneIn(8) ? 1 : 0;
    if (!buffer.text().empty() && random.oneIn(10)) {
      buffer.appendOwn(random.between(0, buffer.text().size()), by);
    } else {
      buffer.append(someText(someLength(buffer)), by);
    }
  }

  void step() {
    std::unique_ptr<CheckedBuffer> &slot = buffers[random.below(kMostBuffers)];
    if (!slot) {
      watch.refuseStorage = random.oneIn(4) ? 1 : 0;
      slot = std::make_unique<CheckedBuffer>(stage);
      if (!slot->isOpen()) slot.reset();
    } else if (slot->text().size() > kLongText || random.oneIn(200)) {
      slot->close();
      slot.reset();
    } else {
      appendTo(*slot);
    }
    watch.refuseStorage = 0;
    watch.releaseKept();
  }

  VectorWatch watch;
  Stage stage;
  Random random;
  std::array<std::unique_ptr<CheckedBuffer>, kMostBuffers> buffers;
};

INSTANTIATE_TEST_SUITE_P(Seeds, CatModelTest, seedsOfRuns());

TEST_P(CatModelTest, RandomAppendsGiveWhatStringsGive) {
  SCOPED_TRACE(seedNote(GetParam()));
  for (int operation = 0; operation < 5000; ++operation) {
    SCOPED_TRACE(operation);
    step();
    ASSERT_FALSE(HasFailure()) << "the first difference ends the test";
  }
  for (const std::unique_ptr<CheckedBuffer> &buffer : buffers) {
    if (buffer) buffer->close();
  }
  EXPECT_GT(stage.tally.areas, 500);
  EXPECT_GT(stage.tally.refused, 50);
}

// One character at a time over the first steps of growth.
TEST_P(CatModelTest, SingleCharactersGrowTheBufferStepByStep) {
  CheckedBuffer buffer(stage);
  for (std::size_t length = 0; length < 5000; ++length) {
    buffer.append(someText(1), Append::kLength);
    ASSERT_FALSE(HasFailure()) << length;
    watch.releaseKept();
  }
  EXPECT_EQ(buffer.storageLen(), 5U * 2048U);
  buffer.close();
}

}  // namespace
}  // namespace memtest
