// memtool port on random graphs, which must come back unchanged, and on damaged files, with which
// it must end with 0, or with 1 and one line.

#include "memtooltest.hpp"
#include "portdefsjson.hpp"
#include "portgraph.hpp"
#include "portmodel.hpp"
#include "portmutants.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

class MemtoolPortRandomTest : public ToolTest {
 protected:
  // 0, or 1 with one line.
  static ToolRun tolerantRun(const std::vector<std::string> &words) {
    ToolRun run = runTool(words);
    EXPECT_TRUE(run.code == 0 || run.code == 1) << run.code << run.err;
    EXPECT_EQ(run.err.empty(), run.code == 0) << run.err;
    EXPECT_TRUE(run.err.empty() || isOneLine(run.err)) << run.err;
    return run;
  }
};

TEST_F(MemtoolPortRandomTest, GraphsComeBackCharacterForCharacter) {
  constexpr std::uint64_t kGraphs = 100;
  const std::uint64_t begin = firstSeed(20260901);
  for (std::uint64_t seed = begin; seed < begin + kGraphs; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    const PortGraph graph(seed);
    const std::string text = portmodel::write(graph.defs(), graph.rootID(), graph.root());
    writeBytes("text.port", text);
    writeBytes("defs.json", definitionsJson(graph.defs(), seed % 2 == 0 ? "" : "n").dump());
    outputOf({"port", "text.port", "--check", "--defs", "defs.json"});
    writeBytes("graph.json", outputOf({"port", "text.port", "--defs", "defs.json", "--json"}));
    ASSERT_EQ(outputOf({"port", "--encode", "graph.json", "--defs", "defs.json"}), text);
    outputOf({"port", "text.port", "--svg", "out.svg"});
    ASSERT_EQ(XmlCheck::fault(readBytes("out.svg")), "");
    if (HasFailure()) return;
  }
}

TEST_F(MemtoolPortRandomTest, DamagedTexts) {
  constexpr std::size_t kMutants = 500;
  Random random(firstSeed(20260902));
  SCOPED_TRACE(seedNote(firstSeed(20260902)));
  const std::vector<std::string> texts = soundTexts(7, 12);
  writeBytes("defs.json", definitionsJson(richDefs().table(), "n").dump());
  std::size_t faults = 0;
  std::size_t refusals = 0;
  for (std::size_t i = 0; i < kMutants; ++i) {
    const std::string text =
        mutant(texts[random.below(texts.size())], texts[random.below(texts.size())], random);
    SCOPED_TRACE("mutant " + std::to_string(i) + ": " + text);
    writeBytes("bad.port", text);
    const ToolRun shown = tolerantRun({"port", "bad.port", "--json"});
    ASSERT_EQ(Json::parse(shown.out)["fault"].is_null(), shown.code == 0);
    const ToolRun check = tolerantRun({"port", "bad.port", "--check"});
    ASSERT_GE(check.code, shown.code);
    ASSERT_EQ(tolerantRun({"port", "bad.port", "--svg", "out.svg"}).code, shown.code);
    ASSERT_EQ(XmlCheck::fault(readBytes("out.svg")), "");
    const ToolRun decoded = tolerantRun({"port", "bad.port", "--defs", "defs.json", "--json"});
    faults += shown.code == 0 ? 0U : 1U;
    refusals += decoded.code == 0 ? 0U : 1U;
    if (decoded.code == 0) {
      ASSERT_TRUE(Json::parse(decoded.out)["structures"].is_array());
      writeBytes("graph.json", decoded.out);
      tolerantRun({"port", "--encode", "graph.json", "--defs", "defs.json"});
    }
    if (HasFailure()) return;
  }
  EXPECT_GT(faults, kMutants / 10);
  EXPECT_LT(faults, kMutants);
  EXPECT_GT(refusals, kMutants / 10);
  EXPECT_LT(refusals, kMutants);
}

// Half of the time one digit becomes another one, which leaves JSON that parses.
std::string damaged(std::string bytes, Random &random) {
  constexpr char kLikely[] = "0123456789{}[]\",:-e. \\ntf";
  const bool isGentle = random.oneIn(2);
  for (std::size_t changes = random.between(1, 2); changes > 0 && !bytes.empty(); --changes) {
    const std::size_t at = random.below(bytes.size());
    if (isGentle) {
      const std::size_t digit = std::min(bytes.find_first_of("0123456789", at), bytes.size() - 1);
      if (bytes[digit] >= '0' && bytes[digit] <= '9') bytes[digit] = kLikely[random.below(10)];
      continue;
    }
    switch (random.below(5)) {
      case 0:
        bytes[at] = kLikely[random.below(sizeof kLikely - 1)];
        break;
      case 1:
        bytes[at] = static_cast<char>(random.below(256));
        break;
      case 2:
        bytes.erase(at, random.between(1, 12));
        break;
      case 3:
        bytes.insert(at, 1, kLikely[random.below(sizeof kLikely - 1)]);
        break;
      default:
        bytes.insert(at, bytes.substr(random.below(bytes.size()), random.between(1, 30)));
    }
  }
  return bytes;
}

// Many of the definitions are valid, but not those that the text was written with.
TEST_F(MemtoolPortRandomTest, DamagedDefinitionsAndGraphs) {
  constexpr std::size_t kMutants = 600;
  Random random(firstSeed(20260903));
  SCOPED_TRACE(seedNote(firstSeed(20260903)));
  const std::filesystem::path fixtures = std::filesystem::path(MEM_FIXTURES) / "memtool" / "port";
  const std::string definitions = readBytes(fixtures / "all.defs.json");
  const std::string graph = readBytes(fixtures / "all.json");
  std::filesystem::copy_file(fixtures / "all.port", "all.port");
  std::filesystem::copy_file(fixtures / "all.json", "all.json");
  std::filesystem::copy_file(fixtures / "all.defs.json", "all.defs.json");
  std::size_t sound[3] = {};
  for (std::size_t i = 0; i < kMutants; ++i) {
    writeBytes("defs.json", damaged(definitions, random));
    writeBytes("graph.json", damaged(graph, random));
    SCOPED_TRACE("mutant " + std::to_string(i));
    const ToolRun runs[] = {
        tolerantRun({"port", "all.port", "--defs", "defs.json", "--json"}),
        tolerantRun({"port", "--encode", "all.json", "--defs", "defs.json", "-o", "out"}),
        tolerantRun({"port", "--encode", "graph.json", "--defs", "all.defs.json", "-o", "out"})};
    for (std::size_t k = 0; k < 3; ++k) sound[k] += runs[k].code == 0 ? 1U : 0U;
    if (HasFailure()) {
      ADD_FAILURE() << readBytes("defs.json") << readBytes("graph.json");
      return;
    }
  }
  for (const std::size_t count : sound) {
    EXPECT_GT(count, kMutants / 50);
    EXPECT_LT(count, kMutants);
  }
}

}  // namespace
}  // namespace memtest
