// memtool diff: chains and port strings compared as structures. Equal graphs are equal whoever
// wrote them; each change of a value, a pointer or of sharing is one difference with its path.

#include <functional>

#include "chainfixtures.hpp"
#include "memtooltest.hpp"
#include "portmutants.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using chainwriter::Form;
using chainwriter::kNone;
using chainwriter::Tree;
using chainwriter::Writer;

// A chain of blocks that are `more` bytes longer than they must be.
std::string chainOf(const Tree &tree, const Writer &writer, std::size_t more) {
  const std::size_t length = chainwriter::smallestBlockLen(tree, writer) + more;
  const chainwriter::Bytes bytes = chainwriter::write(tree, writer, length).file();
  return std::string(bytes.begin(), bytes.end());
}

std::string portText(const std::string &body, std::size_t structures) {
  const auto digits = [](std::size_t number) {
    const std::string text = std::to_string(number);
    return std::string(10 - text.size(), '0') + text;
  };
  return "(" + digits(body.size() + 23) + "," + digits(structures) + ")" + body;
}

class MemtoolDiffTest : public ToolTest {
 protected:
  static ToolRun diff(const std::string &a, const std::string &b,
                      std::vector<std::string> options = {}) {
    writeBytes("a", a);
    writeBytes("b", b);
    std::vector<std::string> words{"diff", "a", "b"};
    words.insert(words.end(), options.begin(), options.end());
    return runTool(words);
  }

  static void expectEqual(const std::string &a, const std::string &b,
                          const std::vector<std::string> &options = {}) {
    const ToolRun run = diff(a, b, options);
    EXPECT_EQ(run.code, 0) << run.out << run.err;
    EXPECT_TRUE(run.out.starts_with("a and b: equal, ")) << run.out;
  }

  // Both ways round: one line, and the summary.
  static void expectDifference(const std::string &a, const std::string &b,
                               const std::string &line) {
    const ToolRun run = diff(a, b);
    EXPECT_EQ(run.code, 1) << run.err;
    EXPECT_EQ(run.out.substr(0, run.out.find('\n')), line) << run.out;
    EXPECT_NE(run.out.find("\na and b: 1 difference, "), std::string::npos) << run.out;
    EXPECT_EQ(diff(b, a).code, 1);
    const Json json = Json::parse(diff(a, b, {"--json"}).out);
    EXPECT_EQ(json["count"], 1);
    EXPECT_EQ(json["isEqual"], false);
    EXPECT_TRUE(line.starts_with(json["differences"][0]["path"].get<std::string>() + ": "));
  }
};

// Two kinds of nodes with everything that a difference can be in.
Tree smallTree() {
  Tree tree;
  tree.kinds = {{Form::Fixed,
                 {chainwriter::sibling(), chainwriter::child(1), chainwriter::child(2),
                  chainwriter::data(8), chainwriter::reference()}},
                {Form::Narrow},
                {Form::Wide}};
  const auto node = [&](std::uint8_t value, std::size_t next, const char *narrow,
                        const char32_t *wide, std::size_t reference) {
    chainwriter::Node made;
    made.data = {1, 2, 3, 4, 5, 6, 7, value};
    const std::size_t at = tree.nodes.size();
    made.targets = {next, at + 1, at + 2, reference};
    tree.nodes.push_back(made);
    chainwriter::Node text;
    text.kind = 1;
    text.narrow = narrow;
    tree.nodes.push_back(text);
    chainwriter::Node wideText;
    wideText.kind = 2;
    wideText.wide = wide;
    tree.nodes.push_back(wideText);
  };
  node(8, 3, "first", U"eins", 6);
  node(8, 6, "second", U"zwei", kNone);
  node(8, kNone, "third", U"\U0001F600", 0);
  return tree;
}

// The same tree of any writer, in blocks of any length.
TEST_F(MemtoolDiffTest, WritersAndBlocksDoNotMatter) {
  const Tree tree = smallTree();
  for (const std::string_view version : {"0220", "0240", "0100"}) {
    for (const std::size_t width : {4U, 8U}) {
      for (const std::size_t more : {0U, 60U, 5000U}) {
        SCOPED_TRACE(std::string(version) + " " + std::to_string(width));
        expectEqual(chainOf(tree, chainwriter::writerOf("0220"), 200),
                    chainOf(tree, chainwriter::writerOf(version, width), more));
      }
    }
  }
  // Segments of the tree of the fixtures have their data as bytes, which no writer turns.
  for (const chainwriter::Fixture &fixture : chainwriter::allFixtures()) {
    SCOPED_TRACE(fixture.name);
    const Writer &writer = fixture.chain.writer();
    const chainwriter::Bytes bytes = fixture.chain.file();
    const std::string width = std::to_string(writer.pointerWidth);
    const std::string chain(bytes.begin(), bytes.end());
    expectEqual(chain, chainOf(fixture.tree, writer, 4000), {"--pointers", width});
    if (writer.pointerWidth == 8) {
      expectEqual(chain, chainOf(fixture.tree, chainwriter::writerOf("0220"), 90),
                  {"--pointers", width});
    }
  }
}

TEST_F(MemtoolDiffTest, RewrittenChainsAreEqual) {
  for (const chainwriter::Fixture &fixture : chainwriter::allFixtures()) {
    SCOPED_TRACE(fixture.name);
    const chainwriter::Bytes bytes = fixture.chain.file();
    writeBytes("old", std::string(bytes.begin(), bytes.end()));
    const std::string width = std::to_string(fixture.chain.writer().pointerWidth);
    outputOf({"chain", "old", "--pointers", width, "--to-native", "new"});
    const ToolRun run = runTool({"diff", "old", "new"});
    EXPECT_EQ(run.code, 0) << run.out << run.err;
  }
}

TEST_F(MemtoolDiffTest, RandomTreesAreEqualToThemselvesOnly) {
  constexpr std::uint64_t kSeed = 400;
  std::size_t different = 0;
  for (std::uint64_t seed = firstSeed(kSeed); seed < firstSeed(kSeed) + 60; ++seed) {
    SCOPED_TRACE(seedNote(seed));
    const Tree tree = chainwriter::randomTree(seed);
    const std::string one = chainOf(tree, chainwriter::writerOf("0220"), 700);
    expectEqual(one, chainOf(tree, chainwriter::writerOf("0221"), 1500), {"--pointers", "8"});
    Random random(seed);
    Tree changed = tree;
    chainwriter::Node &node = changed.nodes[random.below(changed.nodes.size())];
    if (node.data.empty()) continue;
    node.data[random.below(node.data.size())] ^= 0x15;
    const ToolRun run =
        diff(one, chainOf(changed, chainwriter::writerOf("0220"), 1500), {"--pointers", "8"});
    EXPECT_EQ(run.code, 1) << run.out << run.err;
    EXPECT_NE(run.out.find(": 1 difference, "), std::string::npos) << run.out;
    ++different;
  }
  EXPECT_GT(different, 20U);
}

TEST_F(MemtoolDiffTest, EachKindOfDifferenceIsNamed) {
  const Tree tree = smallTree();
  const Writer &writer = chainwriter::writerOf("0220");
  const std::string plain = chainOf(tree, writer, 2000);
  const auto changed = [&](const std::function<void(Tree &)> &change) {
    Tree made = tree;
    change(made);
    return chainOf(made, writer, 2000);
  };
  const auto lineOf = [&](const std::string &other) {
    const std::string out = diff(plain, other).out;
    return out.substr(0, out.find(" (at "));
  };
  EXPECT_EQ(lineOf(changed([](Tree &made) { made.nodes[3].data[7] = 9; })),
            "root/sibling: bytes at +31: 08 / 09");
  EXPECT_EQ(lineOf(changed([](Tree &made) { made.nodes[7].narrow = "Third"; })),
            "root/reference 0: child 0: \"third\" / \"Third\"");
  EXPECT_EQ(lineOf(changed([](Tree &made) { made.nodes[2].wide = U"ein"; })),
            "root: child 1: \"eins\" / \"ein\"");
  EXPECT_EQ(lineOf(changed([](Tree &made) {
              made.nodes[2].targets = {};
              made.nodes[0].targets[2] = kNone;
            })),
            "root: child 1: \"eins\" / null");
  EXPECT_TRUE(lineOf(changed([](Tree &made) {
                made.nodes[6].targets[3] = 3;
              })).starts_with("root/reference 0: reference 0: "));
  EXPECT_TRUE(
      lineOf(changed([](Tree &made) { made.nodes[6].targets[3] = kNone; })).ends_with(" / null"));
  expectDifference(plain, changed([](Tree &made) { made.nodes[0].data[0] = 0; }),
                   "root: bytes at +24: 01 02 03 04 05 06 07 08 / 00 02 03 04 05 06 07 08 (at "
                   "0:984 and 0:984)");
}

// Numbers of a writer of the other byte order may be turned; the summary says so.
TEST_F(MemtoolDiffTest, TurnedNumbers) {
  Tree turned = smallTree();
  turned.nodes[0].data = {8, 7, 6, 5, 4, 3, 2, 1};
  const std::string plain = chainOf(smallTree(), chainwriter::writerOf("0220"), 300);
  const ToolRun other = diff(plain, chainOf(turned, chainwriter::writerOf("0221"), 300));
  EXPECT_EQ(other.code, 0) << other.out;
  EXPECT_NE(other.out.find(" (1 run of bytes equal in the other byte order)\n"), std::string::npos)
      << other.out;
  EXPECT_EQ(diff(plain, chainOf(turned, chainwriter::writerOf("0220"), 300)).code, 1);
}

TEST_F(MemtoolDiffTest, PortStrings) {
  // 1 points to 2 and 3; the numbers are exchanged in the other text.
  const std::string plain = portText("(1<1S2/2S3>)(2<1N5>)(2<1N6>)", 3);
  expectEqual(plain, plain);
  expectEqual(plain, portText("(1<1S3/2S2>)(2<1N6>)(2<1N5>)", 3));
  expectDifference(plain, portText("(1<1S2/2S3>)(2<1N5>)(2<1N7>)", 3),
                   "root/field 2: field 1: 6 / 7 (at structure 3, character 43 and structure 3, "
                   "character 43)");
  expectDifference(plain, portText("(1<1S2/2S>)(2<1N5>)", 2),
                   "root: field 2: structure 3, character 43 / null (at structure 1, character 23 "
                   "and structure 1, character 23)");
  expectDifference(plain, portText("(1<1S2/2S3>)(2<1N5>)(3<1N6>)", 3),
                   "root/field 2: StructID: 2 / 3 (at structure 3, character 43 and structure 3, "
                   "character 43)");
  expectDifference(portText("(1<1E(5<1N1/2\"a\">)>)", 1), portText("(1<1E(5<1N1/2\"b\">)>)", 1),
                   "root: field 1.2: \"a\" / \"b\" (at structure 1, character 23 and structure 1, "
                   "character 23)");
  expectDifference(portText("(1<1\"a\">)", 1), portText("(1<1'a'>)", 1),
                   "root: field 1: text \"a\" / wide text \"a\" (at structure 1, character 23 and "
                   "structure 1, character 23)");
  expectDifference(portText("(1<1N1>)", 1), portText("(1<1N1/2N>)", 1),
                   "root: field 2: absent / 0 (at structure 1, character 23 and structure 1, "
                   "character 23)");
}

// Shared by two pointers in one, copied in the other.
TEST_F(MemtoolDiffTest, SharingCounts) {
  const ToolRun run =
      diff(portText("(1<1S2/2S2>)(2<1N5>)", 2), portText("(1<1S2/2S3>)(2<1N5>)(2<1N5>)", 3));
  EXPECT_EQ(run.code, 1);
  EXPECT_TRUE(run.out.starts_with(
      "root: field 2: structure 2, character 35, shared with root/field 1 / structure 3, character "
      "43, met for the first time (at "))
      << run.out;
  // Cycles end, and where they close counts.
  const std::string cycle = portText("(1<1S2>)(1<1S1>)", 2);
  expectEqual(cycle, cycle);
  EXPECT_EQ(diff(cycle, portText("(1<1S2>)(1<1S2>)", 2)).code, 1);
  EXPECT_EQ(diff(cycle, portText("(1<1S1>)", 1)).code, 1);
}

// A list of structures that is far deeper than any stack.
TEST_F(MemtoolDiffTest, DeepGraphs) {
  constexpr std::size_t kNodes = 100000;
  const auto list = [](const char *last) {
    std::string body;
    for (std::size_t i = 2; i <= kNodes; ++i) {
      std::string digits = std::to_string(i);
      std::reverse(digits.begin(), digits.end());
      body += "(1<1S" + digits + ">)";
    }
    return portText(body + last, kNodes);
  };
  const std::string one = list("(1<1S/2N1>)");
  expectEqual(one, one);
  const ToolRun run = diff(one, list("(1<1S/2N2>)"), {"--short"});
  EXPECT_EQ(run.code, 1);
  EXPECT_TRUE(run.out.starts_with("root/field 1*99999: field 2: 1 / 2 (at ")) << run.out;
}

TEST_F(MemtoolDiffTest, ShortFormAndLimits) {
  const std::string a = portText("(1<1N1/2N1/3N1>)", 1);
  const std::string b = portText("(1<1N2/2N2/3N2>)", 1);
  const std::string first =
      "root: field 1: 1 / 2 (at structure 1, character 23 and structure 1, character 23)\n";
  const std::string end = "a and b: 3 differences, 1 structure compared\n";
  EXPECT_EQ(diff(a, b, {"--short"}).out, first + "… and 2 more\n" + end);
  EXPECT_EQ(diff(a, b, {"--limit", "0"}).out, "… and 3 more\n" + end);
  EXPECT_EQ(Json::parse(diff(a, b, {"--json", "--limit", "2"}).out)["leftOut"], 1);
  EXPECT_EQ(Json::parse(diff(a, b, {"--json", "--limit", "0"}).out)["leftOut"], 3);
  EXPECT_EQ(Json::parse(diff(a, a, {"--json"}).out)["isEqual"], true);
}

TEST_F(MemtoolDiffTest, DamagedAndWrongInput) {
  const std::string chain = chainOf(smallTree(), chainwriter::writerOf("0220"), 300);
  const ToolRun cut = diff(chain, chain.substr(0, chain.size() - 20));
  EXPECT_EQ(cut.code, 1);
  EXPECT_EQ(cut.out, "");
  EXPECT_TRUE(areLines(cut.err)) << cut.err;
  EXPECT_NE(cut.err.find("memtool: b: block "), std::string::npos) << cut.err;
  const std::string text = portText("(1<1N1>)", 1);
  const ToolRun broken = diff(text, text.substr(0, text.size() - 1));
  EXPECT_EQ(broken.code, 1);
  EXPECT_TRUE(broken.err.starts_with("memtool: b: character 30: expected ")) << broken.err;
  const ToolRun mixed = diff(chain, text);
  EXPECT_EQ(mixed.code, 1);
  EXPECT_EQ(mixed.err, "memtool: b is a port string, but a is not\n");
  expectRefused(3, "cannot read none", {"diff", "a", "none"});
  expectRefused(2, "--short does not go with --limit",
                {"diff", "a", "b", "--short", "--limit", "1"});
  expectRefused(2, "B", {"diff", "a"});
}

// Whatever the bytes are, it ends with 0 or with 1 and says why; and what it calls equal is
// equal the other way round.
TEST_F(MemtoolDiffTest, DamagedBytes) {
  constexpr std::uint64_t kSeed = 20261125;
  Random random(firstSeed(kSeed));
  SCOPED_TRACE(seedNote(firstSeed(kSeed)));
  std::size_t compared = 0;
  const auto check = [&](const std::string &a, const std::string &b,
                         const std::vector<std::string> &options) {
    const ToolRun run = diff(a, b, options);
    ASSERT_TRUE(run.code == 0 || run.code == 1) << run.code << run.err;
    ASSERT_TRUE(areLines(run.err)) << run.err;
    ASSERT_NE(run.out.empty(), run.err.empty()) << run.err;
    ASSERT_EQ(diff(b, a, options).code, run.code);
    ASSERT_EQ(diff(b, b, options).code, run.err.empty() ? 0 : 1);
    if (run.err.empty()) ++compared;
  };
  for (const chainwriter::Fixture &fixture : chainwriter::allFixtures()) {
    const chainwriter::Bytes bytes = fixture.chain.file();
    const std::string width = std::to_string(fixture.chain.writer().pointerWidth);
    for (int i = 0; i < 20; ++i) {
      const std::string original(bytes.begin(), bytes.end());
      std::string mutant = original;
      for (std::size_t k = random.between(1, 3); k > 0; --k) {
        const std::size_t from = random.oneIn(3) ? 0 : bytes.size() / 2;
        mutant[random.between(from, bytes.size() - 1)] = static_cast<char>(random.below(256));
      }
      check(original, mutant, {"--pointers", width});
    }
  }
  const std::vector<std::string> texts = soundTexts(11, 20);
  for (const std::string &text : texts) {
    for (int i = 0; i < 20; ++i) check(text, mutant(text, texts[random.below(20)], random), {});
  }
  EXPECT_GT(compared, 150U);
}

}  // namespace
}  // namespace memtest
