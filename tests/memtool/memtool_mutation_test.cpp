// memtool chain on damaged files: whatever the bytes are, it ends with 0 or with 1 and lines,
// writes JSON that parses and pictures that are well-formed, and calls nothing valid that the
// library refuses.

#include <cstring>

#include "chainfixtures.hpp"
#include "chainrun.hpp"
#include "memtest.hpp"
#include "memtooltest.hpp"
#include "packed_reader.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using chainwriter::Fixture;

constexpr std::uint64_t kSeed = 20260605;
constexpr int kMutantsOfAFixture = 15;
constexpr std::uint8_t kInteresting[] = {0, 1, 2, 3, 4, 8, 0x18, 0x7F, 0x80, 0xE5, 0xFE, 0xFF};

std::string mutantOf(const std::string &original, Random &random) {
  std::string bytes = original;
  for (std::size_t changes = random.between(1, 4); changes > 0 && !bytes.empty(); --changes) {
    // Half of the changes hit what follows the control block, where the pointers are.
    const std::size_t from = random.oneIn(2) ? 0 : bytes.size() * 2 / 3;
    const std::size_t at = random.between(from, bytes.size() - 1);
    switch (random.below(5)) {
      case 0:
        bytes[at] = static_cast<char>(bytes[at] ^ (1 << random.below(8)));
        break;
      case 1:
        bytes[at] = static_cast<char>(kInteresting[random.below(std::size(kInteresting))]);
        break;
      case 2:
        bytes[at] = static_cast<char>(random.below(256));
        break;
      case 3:
        bytes.resize(at);
        break;
      default:
        std::swap(bytes[at], bytes[random.below(bytes.size())]);
        break;
    }
  }
  return bytes;
}

class MemtoolMutationTest : public ToolTest {};

TEST_F(MemtoolMutationTest, DamagedFilesEndWithLines) {
  Random random(firstSeed(kSeed));
  int sound = 0;
  int faulty = 0;
  for (const Fixture &fixture : chainwriter::allFixtures()) {
    const chainwriter::Bytes bytes = fixture.chain.file();
    const std::string original(bytes.begin(), bytes.end());
    for (int i = 0; i < kMutantsOfAFixture; ++i) {
      SCOPED_TRACE(fixture.name + " mutant " + std::to_string(i) + ", " +
                   seedNote(firstSeed(kSeed)));
      writeBytes("bad.chain", mutantOf(original, random));
      const ToolRun check = runTool({"chain", "bad.chain", "--check"});
      ASSERT_TRUE(check.code == 0 || check.code == 1) << check.code;
      ASSERT_EQ(check.err.empty(), check.code == 0);
      ASSERT_TRUE(areLines(check.err)) << check.err;
      ++(check.code == 0 ? sound : faulty);
      const ToolRun json = runTool({"chain", "bad.chain", "--json", "--data"});
      ASSERT_EQ(json.code, check.code);
      const Json parsed = Json::parse(json.out);
      ASSERT_EQ(parsed["fault"].is_null(), check.code == 0);
      ASSERT_EQ(parsed["faults"].empty(), check.code == 0);
      ASSERT_EQ(runTool({"chain", "bad.chain", "--svg", "out.svg"}).code, check.code);
      if (std::filesystem::exists("out.svg")) {
        ASSERT_EQ(XmlCheck::fault(readBytes("out.svg")), "");
      }
      ASSERT_EQ(runTool({"chain", "bad.chain", "--data"}).code, check.code);
      std::filesystem::remove("out.svg");
    }
  }
  EXPECT_GT(sound, 20);
  EXPECT_GT(faulty, 100);
}

// With the file's own control block the library unpacks every chain of 8-byte pointers in place.
TEST_F(MemtoolMutationTest, WhatIsSoundTheLibraryTakes) {
  std::ostringstream sink;
  memtool::Console console(sink, sink, {});
  refhost::Session session(library().bindEntry());
  chainrun::CheckedUnpack unpack(session);
  Random random(firstSeed(kSeed) + 1);
  int taken = 0;
  int refusedByBoth = 0;
  int refusedByToolOnly = 0;
  for (const Fixture &fixture : chainwriter::allFixtures()) {
    if (fixture.chain.writer().pointerWidth != 8) continue;
    const chainwriter::Bytes bytes = fixture.chain.file();
    const std::string original(bytes.begin(), bytes.end());
    const chainwriter::Bytes callers = chainwriter::readersControlBlock(fixture.tree);
    for (int i = 0; i < kMutantsOfAFixture * 25; ++i) {
      SCOPED_TRACE(fixture.name + " mutant " + std::to_string(i) + ", " +
                   seedNote(firstSeed(kSeed)));
      const std::string mutant = mutantOf(original, random);
      const memtool::PackedChain chain = memtool::readChain(mutant, 8, console);
      // The offset of the root's first child decides how the library reads; leave it as it was.
      if (!chain.version || chain.kinds.empty() || chain.kinds[0].children.empty() ||
          chain.kinds[0].children[0].Offset != 11) {
        continue;
      }
      const chainrun::Bytes file(mutant.begin(), mutant.end());
      ASSERT_EQ(unpack.run(chainrun::splitFile(file, false),
                           reinterpret_cast<const MemPackCB *>(callers.data())),
                "");
      const std::int16_t result = unpack.answer().result;
      if (chain.isSound()) {
        ASSERT_EQ(result, 0) << unpack.answer().text;
        ++taken;
      } else if (result == 0) {
        ++refusedByToolOnly;
      } else {
        ++refusedByBoth;
      }
    }
  }
  EXPECT_GT(taken, 100);
  EXPECT_GT(refusedByBoth, 500);
  RecordProperty("refusedByToolOnly", refusedByToolOnly);
}

// What can be read can be rewritten, unless the library reports a reason.
TEST_F(MemtoolMutationTest, SoundChainsAreRewrittenOrRefused) {
  Random random(firstSeed(kSeed) + 2);
  int rewritten = 0;
  for (const Fixture &fixture : chainwriter::allFixtures()) {
    const chainwriter::Bytes bytes = fixture.chain.file();
    const std::string original(bytes.begin(), bytes.end());
    for (int i = 0; i < kMutantsOfAFixture; ++i) {
      SCOPED_TRACE(fixture.name + " mutant " + std::to_string(i) + ", " +
                   seedNote(firstSeed(kSeed)));
      writeBytes("in", mutantOf(original, random));
      std::filesystem::remove("out");
      const ToolRun run = runTool({"chain", "in", "--to-native", "out"});
      ASSERT_TRUE(run.code == 0 || (run.code == 1 && areLines(run.err))) << run.err;
      if (run.code != 0) continue;
      ++rewritten;
      ASSERT_EQ(runTool({"chain", "out", "--check"}).err, "");
    }
  }
  EXPECT_GT(rewritten, 20);
}

}  // namespace
}  // namespace memtest
