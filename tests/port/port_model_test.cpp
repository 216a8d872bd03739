// Random graphs against the model: the text character for character, and the way back.

#include <string>

#include "port_check.h"
#include "portgraph.hpp"
#include "porttest.hpp"

namespace memtest {
namespace {

constexpr std::int32_t kCapacities[] = {23, 24, 50, 1000, 0};
constexpr std::int32_t kAreaCapacity = 4 * 1024 - 72;  // capacity 0 in a heap of 4 KB areas

class PortModelTest : public PortTest {
 protected:
  // Every chunk but the last is full.
  void expectCut(const std::string &text, std::int32_t capacity) {
    const auto length = static_cast<std::size_t>(capacity == 0 ? kAreaCapacity : capacity);
    std::size_t at = 0;
    for (const std::string &piece : piecesOf(firstChunk)) {
      ASSERT_EQ(piece, text.substr(at, length)) << "at " << at;
      at += piece.size();
    }
    ASSERT_EQ(at, text.size());
    ASSERT_EQ(totalLen, text.size());
  }

  void expectSameGraph(const PortGraph &graph, const std::string &text) {
    EXPECT_EQ(messages(), Lines());
    ASSERT_EQ(portmodel::difference(graph.defs(), graph.rootID(), graph.root(), read), "") << text;
    const void *copy = read;
    ASSERT_EQ(write(graph.defs(), graph.rootID(), copy, 0), 0);
    ASSERT_EQ(textOf(firstChunk), text);
  }

  void roundTrip(const PortGraph &graph) {
    const std::string expected = portmodel::write(graph.defs(), graph.rootID(), graph.root());
    EXPECT_TRUE(isAsDefined(graph.defs(), graph.rootID(), expected.data(), expected.size()))
        << expected;
    for (const std::int32_t capacity : kCapacities) {
      SCOPED_TRACE("capacity " + std::to_string(capacity));
      ASSERT_EQ(write(graph.defs(), graph.rootID(), graph.root(), capacity), 0);
      ASSERT_EQ(textOf(firstChunk), expected);
      EXPECT_EQ(messages(), Lines());
      expectCut(expected, capacity);
      ASSERT_EQ(readChain(graph.defs(), firstChunk), 0) << expected;
      expectSameGraph(graph, expected);
      if (HasFailure()) return;
    }
    ASSERT_EQ(readBlock(graph.defs(), expected), 0) << expected;
    expectSameGraph(graph, expected);
  }
};

TEST_F(PortModelTest, RandomGraphsBecomeTheModelsTextAndComeBack) {
  constexpr std::uint64_t kGraphs = 600;
  bool seenType[17] = {};
  bool seenUnion = false;
  bool seenRepeat[2] = {};
  const std::uint64_t begin = firstSeed(41424420);
  for (std::uint64_t seed = begin; seed < begin + kGraphs; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    const PortGraph graph(seed);
    roundTrip(graph);
    if (HasFailure()) return;
    renewHeap();
    for (std::uint8_t type = 1; type <= 16; ++type) seenType[type] |= graph.hasType(type);
    seenUnion |= graph.hasUnion();
    for (const bool isLength : {false, true}) seenRepeat[isLength] |= graph.hasRepeat(isLength);
  }
  // A generator that made none of these would prove little.
  for (int type = 1; type <= 16; ++type) EXPECT_TRUE(seenType[type]) << "type " << type;
  EXPECT_TRUE(seenUnion);
  EXPECT_TRUE(seenRepeat[0]);
  EXPECT_TRUE(seenRepeat[1]);
}

// A chain of many structures: sequence numbers of several digits, one area after another.
TEST_F(PortModelTest, LongChainComesBack) {
  Defs defs;
  defs.add(7, 24,
           {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_PNT, 8, 8).of(7),
            Field(3, MEM_PORT_PNT, 8, 16).of(7)});
  constexpr std::size_t kCount = 1500;
  std::vector<Record> records;
  for (std::size_t i = 0; i < kCount; ++i) records.emplace_back(24U);
  Random random(firstSeed(7));
  for (std::size_t i = 0; i < kCount; ++i) {
    const void *next = i + 1 < kCount ? records[i + 1].data() : records[0].data();
    const void *any = records[random.below(kCount)].data();
    records[i].set(0, static_cast<std::int32_t>(i) - 700).set(8, next).set(16, any);
  }
  const std::string expected = portmodel::write(defs.table(), 7, records[0].data());
  ASSERT_EQ(written(defs, 7, records[0].data(), 100), expected);
  ASSERT_EQ(readChain(defs.table(), firstChunk), 0);
  EXPECT_EQ(portmodel::difference(defs.table(), 7, records[0].data(), read), "");
  ASSERT_EQ(readBlock(defs.table(), expected), 0);
  EXPECT_EQ(portmodel::difference(defs.table(), 7, records[0].data(), read), "");
}

// So many structures, all over storage, that the writer looks ahead, in the registry's index as
// well.
TEST_F(PortModelTest, LargeGraphIsTheModels) {
  Defs defs;
  defs.add(7, 44,
           {Field(1, MEM_PORT_PNT, 8, 0).of(7), Field(2, MEM_PORT_PSTR, 8, 8),
            Field(3, MEM_PORT_PNT, 8, 16).of(8), Field(4, MEM_PORT_PSTR, 8, 24),
            Field(5, MEM_PORT_LONG, 4, 40)});
  defs.add(8, 20, {Field(1, MEM_PORT_PNT, 8, 4).of(7), Field(2, MEM_PORT_PNT, 8, 12).of(8)});
  constexpr std::size_t kCount = 17500;
  std::vector<Record> ones;
  std::vector<Record> others;
  for (std::size_t i = 0; i < kCount; ++i) {
    ones.emplace_back(44U);
    others.emplace_back(20U);
  }
  Random random(firstSeed(8));
  const auto anyOf = [&](std::vector<Record> &all) -> const void * {
    return random.oneIn(5) ? nullptr : all[random.below(kCount)].data();
  };
  const char *const texts[] = {nullptr, "", "some text", "a \"text\" that is somewhat/longer"};
  for (std::size_t i = 0; i < kCount; ++i) {
    const void *next = i + 1 < kCount ? ones[i + 1].data() : nullptr;
    ones[i].set(0, next).set(8, texts[random.below(4)]).set(16, others[i].data());
    ones[i].set(24, texts[random.below(4)]).set(40, static_cast<std::int32_t>(i));
    others[i].set(4, anyOf(ones)).set(12, anyOf(others));
  }
  const std::string expected = portmodel::write(defs.table(), 7, ones[0].data());
  ASSERT_EQ(written(defs, 7, ones[0].data(), 0), expected);
  ASSERT_EQ(written(defs, 7, ones[0].data(), 1000000), expected);
}

}  // namespace
}  // namespace memtest
