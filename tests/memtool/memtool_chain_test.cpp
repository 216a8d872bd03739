// memtool chain: what it shows of valid chains and what it says of others.

#include <optional>
#include <set>

#include "chainfixtures.hpp"
#include "memtooltest.hpp"
#include "packed_picture.hpp"
#include "packed_reader.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using chainwriter::Chain;
using chainwriter::Fixture;
using chainwriter::Place;
using chainwriter::Tree;
using chainwriter::Writer;

std::string fixturePath(const std::string &name) {
  return (std::filesystem::path(MEM_FIXTURES) / "chains" / (name + ".chain")).string();
}

std::string textOf(const chainwriter::Bytes &bytes) {
  return std::string(bytes.begin(), bytes.end());
}

// The expected outputs are kept with CR-less lines under fixtures/memtool.
std::string expected(const std::string &name) {
  return readBytes(std::filesystem::path(MEM_FIXTURES) / "memtool" / name);
}

std::size_t fileOffsetOf(const Chain &chain, Place place) {
  std::size_t offset = place.offset;
  for (std::size_t i = 0; i < place.block; ++i) offset += chain.blocks[i].size();
  return offset;
}

class MemtoolChainTest : public ToolTest {};
class MemtoolFixtureTest : public ToolTest, public ::testing::WithParamInterface<Fixture> {};

TEST_P(MemtoolFixtureTest, IsSound) {
  const std::string path = fixturePath(GetParam().name);
  EXPECT_EQ(outputOf({"chain", path, "--check"}),
            path + ": valid, 10 segments and 7 texts in 2 blocks\n");
}

TEST_P(MemtoolFixtureTest, HeadTellsTheWriter) {
  const Writer &writer = GetParam().chain.writer();
  const std::string out = outputOf({"chain", fixturePath(GetParam().name)});
  const std::string digits = GetParam().name.substr(writer.isEbcdic ? 6 : 0, 4);
  const auto has = [&](const std::string &text) {
    EXPECT_NE(out.find(text), std::string::npos) << text << " in\n" << out;
  };
  has("  version  " + digits + (writer.isEbcdic ? " in EBCDIC" : "") + ", " +
      (writer.isOldLayout ? "old" : "current") + " control block\n");
  has(std::string("  writer   ") + (writer.isBigEndian ? "big" : "little") +
      "-endian, pointers of " + std::to_string(writer.pointerWidth) +
      " bytes, wide characters of " + std::to_string(writer.wideSize) + " bytes, " +
      (writer.isEbcdic ? "EBCDIC" : "ASCII") + "\n");
}

TEST_P(MemtoolFixtureTest, JsonHoldsEveryNodeOfTheTree) {
  const Fixture &fixture = GetParam();
  const Json json = Json::parse(outputOf({"chain", fixturePath(fixture.name), "--json"}));
  EXPECT_TRUE(json["fault"].is_null());
  EXPECT_EQ(json["bytes"], fixture.chain.file().size());
  EXPECT_EQ(json["writer"]["pointerWidth"], fixture.chain.writer().pointerWidth);
  ASSERT_EQ(json["blocks"].size(), fixture.chain.blocks.size());
  for (std::size_t i = 0; i < fixture.chain.blocks.size(); ++i) {
    EXPECT_EQ(json["blocks"][i]["used"], fixture.chain.blocks[i].size());
  }
  std::set<std::pair<std::size_t, std::size_t>> places;
  for (const Json &segment : json["segments"]) {
    places.emplace(segment["block"], segment["offset"]);
    for (const Json &pointer : segment["pointers"]) {
      if (pointer.contains("text")) {
        places.emplace(pointer["target"]["block"], pointer["target"]["offset"]);
      }
    }
  }
  std::set<std::pair<std::size_t, std::size_t>> wanted;
  for (const Place &place : fixture.chain.places) wanted.emplace(place.block, place.offset);
  EXPECT_EQ(places, wanted);
}

// The table and the tree say the same as the JSON.
TEST_P(MemtoolFixtureTest, TextAgreesWithJson) {
  const std::string path = fixturePath(GetParam().name);
  const std::string out = outputOf({"chain", path});
  const Json json = Json::parse(outputOf({"chain", path, "--json"}));
  const auto has = [&](const std::string &text) {
    EXPECT_NE(out.find(text), std::string::npos) << text << " in\n" << out;
  };
  for (const Json &segment : json["segments"]) {
    has(std::to_string(segment["block"].get<int>()) + ":" +
        std::to_string(segment["offset"].get<int>()) + "  kind " +
        std::to_string(segment["kind"].get<int>()) + ", " +
        std::to_string(segment["length"].get<int>()) + " bytes\n");
    for (const Json &pointer : segment["pointers"]) {
      if (!pointer.contains("text")) continue;
      has(std::to_string(pointer["target"]["block"].get<int>()) + ":" +
          std::to_string(pointer["target"]["offset"].get<int>()) + "  \"" +
          pointer["text"].get<std::string>() + "\"\n");
    }
  }
}

TEST_P(MemtoolFixtureTest, PictureIsWellFormedAndShowsEveryItem) {
  outputOf({"chain", fixturePath(GetParam().name), "--svg", "out.svg"});
  const std::string svg = readBytes("out.svg");
  EXPECT_EQ(XmlCheck::fault(svg), "");
  for (const Place &place : GetParam().chain.places) {
    EXPECT_NE(svg.find(" " + std::to_string(place.offset) + "  "), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(All, MemtoolFixtureTest, ::testing::ValuesIn(chainwriter::allFixtures()),
                         [](const ::testing::TestParamInfo<Fixture> &row) {
                           return row.param.name;
                         });

TEST_F(MemtoolChainTest, OutputsOfOneChainAreAsTheyWere) {
  std::filesystem::copy_file(fixturePath("0221_32bit"), "0221_32bit.chain");
  EXPECT_EQ(outputOf({"chain", "0221_32bit.chain", "--data"}), expected("0221_32bit.txt"));
  EXPECT_EQ(outputOf({"chain", "0221_32bit.chain", "--data", "--json"}),
            expected("0221_32bit.json"));
  outputOf({"chain", "0221_32bit.chain", "--svg", "out.svg"});
  EXPECT_EQ(readBytes("out.svg"), expected("0221_32bit.svg"));
}

TEST_F(MemtoolChainTest, ColourAddsNothingButColour) {
  const std::string path = fixturePath("0220_64bit");
  const std::string plain = runTool({"chain", path, "--data"}, false).out;
  const std::string coloured = runTool({"chain", path, "--data"}, true).out;
  EXPECT_EQ(plain.find('\x1b'), std::string::npos);
  std::string stripped;
  for (std::size_t i = 0; i < coloured.size(); ++i) {
    if (coloured[i] == '\x1b') {
      i = coloured.find('m', i);
    } else {
      stripped += coloured[i];
    }
  }
  EXPECT_EQ(stripped, plain);
  EXPECT_NE(coloured, plain);
}

// Every shorter file is refused.
TEST_F(MemtoolChainTest, TruncatedFilesHaveAFault) {
  constexpr std::size_t kRunsApart = 41;  // lengths for which the whole command runs
  std::ostringstream sink;
  memtool::Console console(sink, sink, {});
  for (const char *name : {"0220_64bit", "0201_32bit", "ebcdic0100_64bit"}) {
    const std::string bytes = readBytes(fixturePath(name));
    for (std::size_t length = 0; length < bytes.size(); ++length) {
      SCOPED_TRACE(std::string(name) + " cut to " + std::to_string(length));
      const std::string cut = bytes.substr(0, length);
      ASSERT_FALSE(memtool::readChain(cut, 0, console).isSound());
      if (length % kRunsApart != 0) continue;
      writeBytes("cut.chain", cut);
      const ToolRun run = runTool({"chain", "cut.chain", "--check"});
      ASSERT_EQ(run.code, 1);
      ASSERT_TRUE(areLines(run.err)) << run.err;
      ASSERT_EQ(run.out, "");
      ASSERT_TRUE(run.err.starts_with("memtool: cut.chain: block ")) << run.err;
    }
  }
}

// A chain of the sample tree with one change, and the fault that must be found.
class FaultTest : public MemtoolChainTest {
 protected:
  FaultTest()
      : tree(chainwriter::sampleTree()),
        writer(chainwriter::writerOf("0220")),
        chain(chainwriter::write(tree, writer, chainwriter::smallestBlockLen(tree, writer) + 130)) {
  }

  // `what` after "block B, offset O (file offset F): ".
  void expectFault(Place place, const std::string &what) {
    writeBytes("bad.chain", textOf(chain.file()));
    const std::size_t fileOffset = fileOffsetOf(chain, place);
    const std::string text = "bad.chain: block " + std::to_string(place.block) + ", offset " +
                             std::to_string(place.offset) + " (file offset " +
                             std::to_string(fileOffset) + "): " + what;
    expectFaults(text, {"chain", "bad.chain", "--check"});
    // What does not hang below the fault is shown; the exit code is the same.
    expectFaults(text, {"chain", "bad.chain"});
    const ToolRun run = runTool({"chain", "bad.chain", "--json"});
    EXPECT_EQ(run.code, 1);
    const Json fault = Json::parse(run.out)["fault"];
    EXPECT_EQ(fault["block"], place.block);
    EXPECT_EQ(fault["offset"], place.offset);
    EXPECT_EQ(fault["fileOffset"], fileOffset);
    EXPECT_TRUE(fault["what"].get<std::string>().starts_with(what)) << fault;
    expectFaults(text, {"chain", "bad.chain", "--to-native", "out"});
    EXPECT_FALSE(std::filesystem::exists("out"));
  }

  // Lines on stderr, the first of which holds `text`.
  static void expectFaults(const std::string &text, const std::vector<std::string> &words) {
    const ToolRun run = runTool(words);
    EXPECT_EQ(run.code, 1) << run.err;
    EXPECT_TRUE(areLines(run.err)) << run.err;
    EXPECT_NE(run.err.substr(0, run.err.find('\n')).find(text), std::string::npos) << run.err;
  }

  Place root() const { return chain.places[0]; }
  Place field(std::size_t node, std::size_t part) const {
    return chain.partPlace(tree, node, part);
  }

  Tree tree;
  Writer writer;
  Chain chain;
};

// Pointers that lead to a wrong place.
TEST_F(FaultTest, WrongPointers) {
  const std::size_t used = chain.blocks[1].size();
  const Place noSegment{1, chain.places[1].offset + 1};
  const Place oddText{chain.places[5].block, chain.places[5].offset + 2};
  const struct {
    Place pointer, target;
    std::string what;
  } rows[] = {
      {field(0, 2), {2, 2}, "a child pointer leads to block 2, but the chain has 2 blocks"},
      {field(1, 0),
       {1, used},
       "a sibling pointer leads to offset " + std::to_string(used) + " of block 1, which has " +
           std::to_string(used) + " bytes"},
      {field(0, 0), {0xFFFF, 2}, "a sibling pointer leads to block -1, "},
      {field(0, 0), root(),
       "a pointer leads to " + std::to_string(root().block) + ":" + std::to_string(root().offset) +
           ", which overlaps what another pointer leads to"},
      {field(0, 2), {0, 100}, "a pointer leads to 0:100, into the block's head"},
      {field(0, 7), noSegment,
       "a reference leads to 1:" + std::to_string(noSegment.offset) + ", where no segment begins"},
      {field(0, 5), oddText,
       "a wide text begins at 0:" + std::to_string(oddText.offset) + ", not at a multiple of 4"},
  };
  const Chain right = chain;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    chain = right;
    chain.setPointer(row.pointer, row.target);
    expectFault(row.pointer, row.what);
  }
}

TEST_F(FaultTest, ChildInsideAnotherSegment) {
  chain.setPointer(field(0, 2), {root().block, root().offset + 3});
  // The segment that begins there takes in the text after it, or the root; both are taken.
  writeBytes("bad.chain", textOf(chain.file()));
  expectFaults("block 0, offset ", {"chain", "bad.chain", "--check"});
}

TEST_F(FaultTest, BytesBehindARelativePointer) {
  const Place at = field(0, 2);
  chain.blocks[at.block][at.offset + 7] = 1;
  // Such bytes could mean pointers of 4 bytes, so the width is given here.
  writeBytes("bad.chain", textOf(chain.file()));
  expectFaults("the bytes after a relative pointer are not zero",
               {"chain", "bad.chain", "--check", "--pointers", "8"});
}

TEST_F(FaultTest, WideTextWithoutEnd) {
  const Place place = chain.places[16];
  for (std::size_t at = place.offset; at < chain.blocks[place.block].size(); ++at) {
    chain.blocks[place.block][at] = 0x41;
  }
  expectFault(place, "a wide text begins here and does not end in its block");
}

TEST_F(FaultTest, NarrowTextWithoutEnd) {
  Place place = chain.places[4];
  chain.blocks[place.block].resize(place.offset + 3);
  chain.setUsedLen(place.block, static_cast<std::uint16_t>(chain.blocks[place.block].size()));
  // The root's wide text follows; the pointer to it is refused first.
  expectFault(field(0, 5), "a child pointer leads to offset ");
}

// Numbers of segments and of the control block that cannot be.
TEST_F(FaultTest, WrongNumbers) {
  const Place kind = chain.descriptorPlace(1);
  const struct {
    Place place;
    std::uint16_t number;
    const char *what;
  } rows[] = {
      {chain.places[10], 5000, "a segment of kind 2 and 5002 bytes begins here"},
      {chain.places[6], 1, "a segment of kind 3 has the invalid length 1"},
      {Chain::countPlace(), 0,
       "the control block counts 0 kinds of segments; at least 1 is needed"},
      {Chain::countPlace(), 200, "a control block of 200 kinds takes 24402 bytes"},
      {chain.childEntryPlace(1, 0), 8, "a child is of kind 8, but there are 8 kinds"},
      {{kind.block, kind.offset + 6},
       25,
       "a kind of segment has 25 children; 0 to 24 are possible"},
  };
  const Chain right = chain;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    chain = right;
    chain.setNumber(row.place, row.number);
    expectFault(row.place, row.what);
  }
}

TEST_F(FaultTest, FixedLengthTooShortForAPointer) {
  const Place kind = chain.descriptorPlace(1);
  chain.setNumber({kind.block, kind.offset + 2}, 40);
  writeBytes("bad.chain", textOf(chain.file()));
  // Such a length could mean pointers of 4 bytes, so the width is given here.
  expectFaults("a segment of kind 1 and 40 bytes begins here, too short for its pointer at 34",
               {"chain", "bad.chain", "--check", "--pointers", "8"});
}

TEST_F(FaultTest, NoVersion) {
  chain.blocks[0][2] = 'x';
  expectFault({0, 2}, "no version is here, so the file is not a packed chain");
}

TEST_F(FaultTest, UnknownVersion) {
  chain.blocks[0][3] = '3';
  expectFault({0, 2}, "the version 0320 is unknown");
}

TEST_F(FaultTest, UsedLengthBeyondTheFile) {
  const std::size_t real = chain.blocks[1].size();
  chain.setUsedLen(1, static_cast<std::uint16_t>(real + 1));
  expectFault({1, 0}, "the used length is " + std::to_string(real + 1) + ", but only " +
                          std::to_string(real) + " bytes are left in the file");
}

TEST_F(FaultTest, NoRoot) {
  chain.blocks.resize(1);
  chain.blocks[0].resize(6 + 978);
  chain.setUsedLen(0, 6 + 978);
  expectFault({0, 0}, "the chain ends after its control block, without a root");
}

// Siblings may be as many as they like; children may not.
TEST_F(MemtoolChainTest, DepthHasALimit) {
  const Writer writer = chainwriter::writerOf("0220");
  for (const std::size_t levels : {std::size_t{64}, std::size_t{65}}) {
    Tree deep;
    deep.kinds = {{chainwriter::Form::Fixed, {chainwriter::child(0)}}};
    for (std::size_t i = 0; i < levels; ++i) {
      deep.nodes.push_back({0, {}, {i + 1 < levels ? i + 1 : chainwriter::kNone}});
    }
    writeBytes("deep.chain", textOf(chainwriter::write(deep, writer, 4096).file()));
    if (levels == 64) {
      outputOf({"chain", "deep.chain", "--check"});
    } else {
      expectRefused(1, "the structure is deeper than 64 levels",
                    {"chain", "deep.chain", "--check"});
    }
  }
}

// More blocks and rows than are drawn: the picture says so.
TEST_F(MemtoolChainTest, PictureStatesWhatItLeavesOut) {
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {chainwriter::sibling(), chainwriter::data(60)}}};
  for (std::size_t i = 0; i < 2000; ++i) {
    tree.nodes.push_back(
        {0, chainwriter::Bytes(60, 0x2A), {i + 1 < 2000 ? i + 1 : chainwriter::kNone}});
  }
  const Writer writer = chainwriter::writerOf("0220");
  writeBytes("many.chain", textOf(chainwriter::write(tree, writer, 4096).file()));
  outputOf({"chain", "many.chain", "--svg", "out.svg"});
  const std::string svg = readBytes("out.svg");
  EXPECT_EQ(XmlCheck::fault(svg), "");
  EXPECT_NE(svg.find("Blocks 0 to " + std::to_string(memtool::kMostDrawnBlocks - 1) + " of "),
            std::string::npos);
  EXPECT_NE(svg.find("Of each block the first " + std::to_string(memtool::kMostDrawnRows) +
                     " rows are drawn."),
            std::string::npos);
  EXPECT_EQ(svg.find("Block " + std::to_string(memtool::kMostDrawnBlocks) + "<"),
            std::string::npos);
}

TEST_F(MemtoolChainTest, TextMayHoldAnything) {
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {chainwriter::child(1), chainwriter::child(2)}},
                {chainwriter::Form::Narrow},
                {chainwriter::Form::Wide}};
  tree.nodes = {{0, {}, {1, 2}},
                {1, {}, {}, "<&\"\\>\x01\x1b[31m\xff\xc3"},
                {2, {}, {}, {}, U"\uFFFE\uFFFF]]>\u0007"}};
  const Writer writer = chainwriter::writerOf("0221");
  writeBytes("odd.chain", textOf(chainwriter::write(tree, writer, 4096).file()));
  const std::string out = outputOf({"chain", "odd.chain"});
  EXPECT_EQ(out.find('\x1b'), std::string::npos);
  EXPECT_NE(out.find("\"<&\\\"\\\\>\\x01\\x1B[31m\uFFFD\uFFFD\""), std::string::npos) << out;
  const Json json = Json::parse(outputOf({"chain", "odd.chain", "--json"}));
  EXPECT_EQ(json["segments"][0]["pointers"][0]["text"], "<&\"\\>\x01\x1b[31m\uFFFD\uFFFD");
  outputOf({"chain", "odd.chain", "--svg", "out.svg"});
  EXPECT_EQ(XmlCheck::fault(readBytes("out.svg")), "");
}

TEST_F(MemtoolChainTest, EbcdicTextIsReadInItsCodePage) {
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {chainwriter::child(1)}}, {chainwriter::Form::Narrow}};
  tree.nodes = {{0, {}, {1}}, {1, {}, {}, "\xC8\x85\x93\x93\x96\x40\x84\x43\x94"}};
  const Writer writer = chainwriter::ebcdicWriterOf("0200");
  writeBytes("e.chain", textOf(chainwriter::write(tree, writer, 4096).file()));
  EXPECT_NE(outputOf({"chain", "e.chain"}).find("\"Hello däm\""), std::string::npos);
}

// Letters of EBCDIC writers mean something in chains of big-endian writers, and nowhere else.
TEST_F(MemtoolChainTest, EbcdicLettersAreThoseOfBigEndianWriters) {
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {chainwriter::child(1)}},
                {chainwriter::Form::SelfDescribing, {chainwriter::data(3)}}};
  tree.nodes = {{0, {}, {chainwriter::kNone}}};
  struct Row {
    std::uint16_t type;
    const char *form;  // in a big-endian chain
  };
  const Row rows[] = {{0xC6, "fixed"},   {0xC3, "counted"},   {0xE2, "text"},
                      {0xE5, "unknown"}, {0xE6, "wide text"}, {0xE7, "unknown"}};
  for (const Writer &writer : chainwriter::allWriters()) {
    for (const Row &row : rows) {
      SCOPED_TRACE(writer.name() + " type " + std::to_string(row.type));
      chainwriter::Chain chain = chainwriter::write(tree, writer, 4096);
      chain.setNumber(chain.descriptorPlace(1), row.type);
      writeBytes("in.chain", textOf(chain.file()));
      const Json json = Json::parse(outputOf({"chain", "in.chain", "--json"}));
      EXPECT_EQ(json["controlBlock"]["kinds"][1]["form"],
                writer.isBigEndian ? row.form : "own length");
    }
  }
}

TEST_F(MemtoolChainTest, WidthOfPointersCanBeGiven) {
  // Nothing but nulls and room: both widths make sense.
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {chainwriter::data(4), chainwriter::child(0)}}};
  tree.nodes = {{0, {1, 2, 3, 4}, {chainwriter::kNone}}};
  const Writer writer = chainwriter::writerOf("0220", 8);
  writeBytes("null.chain", textOf(chainwriter::write(tree, writer, 4096).file()));
  const auto width = [](const std::vector<std::string> &words) {
    return Json::parse(outputOf(words))["writer"]["pointerWidth"].get<int>();
  };
  EXPECT_EQ(width({"chain", "null.chain", "--json"}), 8);
  EXPECT_EQ(width({"chain", "null.chain", "--json", "--pointers", "4"}), 4);
}

// Four items of the manual's example: a sibling, two texts and a reference, all 8 bytes apart.
Tree itemsTree() {
  using chainwriter::child;
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed,
                 {chainwriter::sibling(), child(1), child(2), chainwriter::reference()}},
                {chainwriter::Form::Narrow},
                {chainwriter::Form::Wide}};
  tree.nodes = {{0, {}, {3, 1, 2, chainwriter::kNone}}, {1, {}, {}, "ab"}, {2, {}, {}, {}, U"Zug"},
                {0, {}, {chainwriter::kNone, 4, 5, 0}}, {1, {}, {}, "c"},  {2, {}, {}, {}, U"e"}};
  return tree;
}

// The control block shows the width; what is damaged in a segment does not change it.
TEST_F(MemtoolChainTest, WidthOfPointersComesFromTheControlBlock) {
  const Tree tree = itemsTree();
  struct Row {
    std::uint32_t width;
    bool isBigEndian;
  };
  for (const Row &row : {Row{8, false}, Row{8, true}, Row{4, false}, Row{4, true}}) {
    SCOPED_TRACE(std::to_string(row.width) + (row.isBigEndian ? " big-endian" : ""));
    const Writer writer = chainwriter::writerOf(row.isBigEndian ? "0221" : "0220", row.width);
    const Chain chain = chainwriter::write(tree, writer, 4096);
    writeBytes("in", textOf(chain.file()));
    const Json good = Json::parse(outputOf({"chain", "in", "--json"}));
    EXPECT_EQ(good["writer"]["pointerWidth"], row.width);
    EXPECT_EQ(good["writer"]["isPointerWidthGuessed"], false);
    Chain damaged = chain;
    damaged.setPointer(chain.partPlace(tree, 3, 3), {7, 2});
    writeBytes("in", textOf(damaged.file()));
    expectRefused(1, "a reference pointer leads to block 7", {"chain", "in", "--check"});
  }
}

// A kind of which there is no segment shows nothing.
TEST_F(MemtoolChainTest, UnusedKindsDoNotDecideTheWidth) {
  Tree tree = itemsTree();
  tree.kinds.push_back({chainwriter::Form::Fixed, {chainwriter::child(1), chainwriter::child(1)}});
  Chain chain = chainwriter::write(tree, chainwriter::writerOf("0220", 8), 4096);
  const Place entry = chain.childEntryPlace(3, 1);
  chain.setNumber({entry.block, entry.offset + 2}, 4);  // too close for 8 bytes
  writeBytes("in", textOf(chain.file()));
  const Json json = Json::parse(outputOf({"chain", "in", "--json"}));
  EXPECT_EQ(json["writer"]["pointerWidth"], 8);
}

// What is a fault of 8-byte pointers would be data after 4-byte ones: both are reported.
TEST_F(MemtoolChainTest, FaultsAreNotReadAwayAsTheOtherWidth) {
  const Tree tree = itemsTree();
  Chain chain = chainwriter::write(tree, chainwriter::writerOf("0220", 8), 4096);
  const Place field = chain.partPlace(tree, 0, 1);
  chain.blocks[field.block][field.offset + 6] = 1;
  writeBytes("bad", textOf(chain.file()));
  const std::string fault =
      "the bytes after a relative pointer are not zero; with pointers of 4 bytes the file would "
      "be "
      "valid (--pointers 4)";
  expectRefused(1, fault, {"chain", "bad", "--check"});
  expectRefused(1, fault, {"chain", "bad", "--to-native", "out"});
  EXPECT_FALSE(std::filesystem::exists("out"));
  const Json json = Json::parse(runTool({"chain", "bad", "--json"}).out)["fault"];
  EXPECT_EQ(json["what"], "the bytes after a relative pointer are not zero");
  EXPECT_EQ(json["remark"], "with pointers of 4 bytes the file would be valid (--pointers 4)");
  // The user's word counts.
  outputOf({"chain", "bad", "--check", "--pointers", "4"});
  EXPECT_EQ(
      runTool({"chain", "bad", "--check", "--pointers", "8"}).err.find("with pointers of 4 bytes"),
      std::string::npos);
}

// The segments that are shown, as block and offset.
std::set<std::pair<std::size_t, std::size_t>> shownSegments(const Json &json) {
  std::set<std::pair<std::size_t, std::size_t>> shown;
  for (const Json &segment : json["segments"]) shown.emplace(segment["block"], segment["offset"]);
  return shown;
}

// Every damaged pointer is a fault of its own, with its place in the file, and hides what hangs
// below it, and nothing else.
TEST_F(FaultTest, DamagedPointersHideWhatHangsBelowThemOnly) {
  writeBytes("bad.chain", textOf(chain.file()));
  const Json good = Json::parse(outputOf({"chain", "bad.chain", "--json"}));
  const std::vector<Place> pointers{field(1, 0), field(0, 7), field(6, 3)};
  for (std::size_t count = 1; count <= pointers.size(); ++count) {
    SCOPED_TRACE(count);
    for (std::size_t i = 0; i < count; ++i) chain.setPointer(pointers[i], {7, 2});
    writeBytes("bad.chain", textOf(chain.file()));
    const ToolRun run = runTool({"chain", "bad.chain", "--json"});
    EXPECT_EQ(run.code, 1);
    const Json json = Json::parse(run.out);
    std::size_t told = 0;
    for (const Json &fault : json["faults"]) {
      EXPECT_TRUE(fault.contains("what"));
      for (std::size_t i = 0; i < count; ++i) {
        const bool isIt = fault["block"] == pointers[i].block &&
                          fault["offset"] == pointers[i].offset &&
                          fault["fileOffset"] == fileOffsetOf(chain, pointers[i]);
        told += isIt ? 1U : 0U;
      }
    }
    EXPECT_EQ(told, count);
    const auto shown = shownSegments(json);
    const auto all = shownSegments(good);
    EXPECT_TRUE(std::includes(all.begin(), all.end(), shown.begin(), shown.end()));
    EXPECT_LT(shown.size(), all.size());
    for (const std::size_t node : {0U, 1U, 6U, 10U, 14U}) {
      EXPECT_TRUE(shown.contains({chain.places[node].block, chain.places[node].offset})) << node;
    }
  }
}

// A list of many items, all of one kind: those before the cut are shown, whatever is missing.
class CutTest : public MemtoolChainTest {
 protected:
  static constexpr std::size_t kItems = 400;

  CutTest() {
    tree.kinds = {{chainwriter::Form::Fixed,
                   {chainwriter::sibling(), chainwriter::child(1), chainwriter::data(8)}},
                  {chainwriter::Form::Narrow}};
    for (std::size_t i = 0; i < kItems; ++i) {
      const std::size_t next = i + 1 < kItems ? 2 * i + 2 : chainwriter::kNone;
      tree.nodes.push_back({0, chainwriter::Bytes(8, 0x2A), {next, 2 * i + 1}});
      tree.nodes.push_back({1, {}, {}, "text " + std::to_string(i)});
    }
    const Writer writer = chainwriter::writerOf("0220", 8);
    chain = chainwriter::write(tree, writer, 2000);
    bytes = textOf(chain->file());
  }

  // Everything whole before the cut is shown, and nothing that is not in the chain.
  void expectCut(std::size_t length) {
    SCOPED_TRACE("cut to " + std::to_string(length));
    std::ostringstream sink;
    memtool::Console console(sink, sink, {});
    const memtool::PackedChain seen = memtool::readChain(bytes.substr(0, length), 8, console);
    ASSERT_FALSE(seen.isSound());
    std::size_t whole = 0;
    for (std::size_t i = 0; i < kItems; ++i) {
      const Place &place = chain->places[2 * i];
      if (fileOffsetOf(*chain, place) + 24 <= length) ++whole;
    }
    // The last item may be cut.
    ASSERT_GE(seen.segments.size(), whole);
    ASSERT_LE(seen.segments.size(), whole + 1);
    for (std::size_t i = 0; i < seen.segments.size(); ++i) {
      const Place &place = chain->places[2 * i];
      ASSERT_EQ(seen.segments[i].place.block, place.block);
      ASSERT_EQ(seen.segments[i].place.offset, place.offset);
    }
    for (const memtool::Fault &fault : seen.faults) ASSERT_LE(fault.fileOffset, length);
  }

  Tree tree;
  std::optional<Chain> chain;
  std::string bytes;
};

TEST_F(CutTest, TwoThirdsShowTwoThirds) {
  expectCut(bytes.size() * 2 / 3);
  writeBytes("cut.chain", bytes.substr(0, bytes.size() * 2 / 3));
  const ToolRun run = runTool({"chain", "cut.chain"});
  EXPECT_EQ(run.code, 1);
  EXPECT_NE(run.out.find("\"text 200\""), std::string::npos);
  EXPECT_TRUE(areLines(run.err)) << run.err;
  EXPECT_NE(run.err.find(" bytes are left in the file"), std::string::npos) << run.err;
}

TEST_F(CutTest, EveryBlockBoundary) {
  std::size_t end = 0;
  for (std::size_t i = 0; i + 1 < chain->blocks.size(); ++i) {
    end += chain->blocks[i].size();
    for (const std::size_t length : {end - 1, end, end + 1, end + 2}) {
      if (length >= 1000) expectCut(length);
    }
  }
}

TEST_F(CutTest, RandomPlaces) {
  Random random(firstSeed(20261124));
  for (int i = 0; i < 200; ++i) expectCut(random.between(984, bytes.size() - 1));
}

// Files of a few bytes, and such that begin as a chain does.
TEST_F(MemtoolChainTest, ShortFilesHaveFaults) {
  Random random(firstSeed(20261125));
  for (std::size_t length = 0; length <= 64; ++length) {
    for (const bool hasVersion : {false, true}) {
      SCOPED_TRACE(length);
      std::string bytes;
      while (bytes.size() < length) bytes += static_cast<char>(random.below(256));
      if (hasVersion && length >= 6) bytes.replace(2, 4, "0220");
      writeBytes("short", bytes);
      for (const char *option : {"--check", "--json", "--data"}) {
        const ToolRun run = runTool({"chain", "short", option});
        ASSERT_EQ(run.code, 1);
        ASSERT_FALSE(run.err.empty());
        ASSERT_TRUE(areLines(run.err)) << run.err;
      }
    }
  }
}

// The code is what the library says, not what memtool thinks of.
TEST_F(FaultTest, LibraryIsAsked) {
  const auto refusal = [&](const std::vector<std::string> &more = {}) {
    writeBytes("bad.chain", textOf(chain.file()));
    std::vector<std::string> words{"chain", "bad.chain", "--check", "--pointers", "8"};
    words.insert(words.end(), more.begin(), more.end());
    return runTool(words).err;
  };
  const auto ends = [](const std::string &text, const std::string &end) {
    EXPECT_TRUE(text.ends_with(end + "\n")) << text;
  };
  const Chain right = chain;
  chain.setPointer(field(0, 2), {7, 2});
  ends(refusal(), " (the library's code is 4070 MEMERR_PACKRBLK: Invalid Relative Blk=7)");
  ends(refusal({"--library", "absent"}),
       " (the library was not asked: there is no library absent; name it with --library PATH)");
  const Json json = Json::parse(runTool({"chain", "bad.chain", "--json"}).out)["fault"];
  EXPECT_EQ(json["code"], 4070);
  EXPECT_EQ(json["library"]["text"], "Invalid Relative Blk=7");

  chain = right;  // a reference to the middle of a segment
  chain.setPointer(field(0, 7), {1, chain.places[1].offset + 1});
  ends(refusal(), "where no segment begins (the library accepts it)");
  const Json taken = Json::parse(runTool({"chain", "bad.chain", "--json"}).out)["fault"];
  EXPECT_TRUE(taken["code"].is_null());
  EXPECT_EQ(taken["library"]["takesIt"], true);

  chain = right;
  chain.blocks[0][3] = '9';
  ends(refusal(), " (the library's code is 4075 MEMERR_PACKCBVR: MemPackCBstructIDVersion)");
  chain = right;
  chain.setUsedLen(1, static_cast<std::uint16_t>(chain.blocks[1].size() + 1));
  ends(refusal(), " (the library was not asked: the file does not form blocks)");
}

TEST_F(MemtoolChainTest, WrongUseEndsWithTwo) {
  const std::string path = fixturePath("0220_64bit");
  expectRefused(2, "chain needs a FILE", {"chain"});
  expectRefused(2, "--pointers", {"chain", path, "--pointers", "5"});
  expectRefused(2, "--unknown", {"chain", path, "--unknown"});
  expectRefused(2, "--block-length needs --to-native or --encode",
                {"chain", path, "--block-length", "2000"});
  expectRefused(2, "--block-length", {"chain", path, "--to-native", "out", "--block-length", "0"});
  expectRefused(2, "take one FILE", {"chain", path, path, "--svg", "out.svg"});
  const std::string noData = "--data does not go with --check";
  expectRefused(2, noData, {"chain", path, "--data", "--check"});
  expectRefused(2, noData, {"chain", path, "--data", "--check", "--json"});
  for (const std::string option : {"--svg", "--to-native"}) {
    std::vector<std::string> words{"chain", path, "--pointers", "8", "--data", option, "out"};
    expectRefused(2, noData, words);
    EXPECT_FALSE(std::filesystem::exists("out"));
    words.push_back("--json");
    EXPECT_NE(outputOf(words).find("\"data\": ["), std::string::npos);
    std::filesystem::remove("out");
  }
  expectRefused(2, "there is no option --jsn; the most similar one is --json",
                {"chain", path, "--jsn"});
}

// One that cannot be read does not keep the others from being shown; the highest code counts.
TEST_F(MemtoolChainTest, SeveralFiles) {
  const std::string path = fixturePath("0220_64bit");
  const std::string sound = path + ": valid, 10 segments and 7 texts in 2 blocks\n";
  EXPECT_EQ(outputOf({"chain", path, path, "--check"}), sound + sound);
  EXPECT_EQ(outputOf({"chain", path, path}),
            outputOf({"chain", path}) + "\n" + outputOf({"chain", path}));
  writeBytes("none", "no chain at all");
  ToolRun run = runTool({"chain", path, "none", path, "--check"});
  EXPECT_EQ(run.code, 1);
  EXPECT_EQ(run.out, sound + sound);
  run = runTool({"chain", "absent", "none", path, "--check", "--json"});
  EXPECT_EQ(run.code, 3);
  const Json json = Json::parse(run.out);
  ASSERT_EQ(json.size(), 3U);
  EXPECT_TRUE(json[0].contains("error"));
  EXPECT_EQ(json[1]["isSound"], false);
  EXPECT_EQ(json[2]["isSound"], true);
}

TEST_F(MemtoolChainTest, CheckInJsonIsShort) {
  const Json json =
      Json::parse(outputOf({"chain", fixturePath("0220_64bit"), "--check", "--json"}));
  EXPECT_EQ(json["segments"], 10);
  EXPECT_EQ(json["texts"], 7);
  EXPECT_TRUE(json["fault"].is_null());
  EXPECT_EQ(json["faults"], Json::array());
}

TEST_F(FaultTest, FailuresAsJson) {
  chain.setPointer(field(0, 7), {7, 2});
  writeBytes("bad.chain", textOf(chain.file()));
  const ToolRun run = runTool({"chain", "bad.chain", "--check", "--json-errors"});
  ASSERT_TRUE(isOneLine(run.err)) << run.err;
  const Json json = Json::parse(run.err);
  EXPECT_EQ(json["exitCode"], 1);
  EXPECT_EQ(json["file"], "bad.chain");
  EXPECT_EQ(json["block"], field(0, 7).block);
  EXPECT_EQ(json["offset"], field(0, 7).offset);
  EXPECT_EQ(json["fileOffset"], fileOffsetOf(chain, field(0, 7)));
  EXPECT_EQ(Json::parse(runTool({"chain", "--json-errors", "absent"}).err)["exitCode"], 3);
  EXPECT_EQ(Json::parse(runTool({"nonsense", "--json-errors"}).err)["exitCode"], 2);
}

// A text that many pointers lead to, whole or by its end, is in the JSON once.
TEST_F(MemtoolChainTest, SharedTextsStandOnceInJson) {
  constexpr std::size_t kItems = 500;
  constexpr std::size_t kTextLen = 4000;
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {chainwriter::sibling(), chainwriter::child(1)}},
                {chainwriter::Form::Narrow}};
  for (std::size_t i = 0; i < kItems; ++i) {
    const std::size_t next = i + 1 < kItems ? i + 1 : chainwriter::kNone;
    tree.nodes.push_back({0, {}, {next, kItems}});
  }
  tree.nodes.push_back({1, {}, {}, std::string(kTextLen, 't')});
  Chain chain = chainwriter::write(tree, chainwriter::writerOf("0220", 8), 30000);
  const Place text = chain.places[kItems];
  for (std::size_t i = 0; i < kItems; i += 2) {  // every other one leads to an end of the text
    chain.setPointer(chain.partPlace(tree, i, 1), {text.block, text.offset + i});
  }
  writeBytes("shared.chain", textOf(chain.file()));
  const std::string out = outputOf({"chain", "shared.chain", "--json"});
  EXPECT_LT(out.size(), 700 * kItems + 2 * kTextLen + 10000);
  const Json json = Json::parse(out);
  EXPECT_EQ(json["segments"].size(), kItems);
  std::size_t texts = 0;
  for (const Json &segment : json["segments"]) {
    const Json &pointer = segment["pointers"][1];
    EXPECT_EQ(pointer["isWide"], false);
    texts += pointer.contains("text") ? 1U : 0U;
    if (pointer.contains("text")) continue;
    EXPECT_EQ(pointer["textAt"]["block"], text.block);
    EXPECT_EQ(pointer["textAt"]["offset"], text.offset);
  }
  EXPECT_EQ(texts, 1U);
}

TEST_F(MemtoolChainTest, CheckNamesBlocksThatNothingLeadsTo) {
  const std::string path = (std::filesystem::path(MEM_FIXTURES) / "memtool/items.chain").string();
  const std::string good = readBytes(path);
  EXPECT_EQ(outputOf({"chain", path, "--check"}),
            path + ": valid, 2 segments and 4 texts in 2 blocks\n");
  writeBytes("joined", good + good);
  EXPECT_EQ(outputOf({"chain", "joined", "--check"}),
            "joined: valid, 2 segments and 4 texts in 4 blocks\n"
            "joined: nothing leads to block 2 (1,036 bytes): a pointer was lost, or files were "
            "joined\n"
            "joined: nothing leads to block 3 (44 bytes): a pointer was lost, or files were "
            "joined\n");
  std::string lost = good;
  lost.replace(984, 8, 8, '\0');  // the sibling of the first segment
  writeBytes("lost", lost);
  const Json json = Json::parse(outputOf({"chain", "lost", "--check", "--json"}));
  EXPECT_EQ(json["isSound"], true);
  EXPECT_EQ(json["unusedBlocks"], Json::array({1}));
  for (const char *name : {"0220_64bit", "0221_64bit"}) {
    EXPECT_EQ(outputOf({"chain", fixturePath(name), "--check"}).find("nothing leads"),
              std::string::npos);
  }
}

TEST_F(MemtoolChainTest, FaultsAreShownWhenTheFilterFindsNothing) {
  std::string damaged = readBytes(std::filesystem::path(MEM_FIXTURES) / "memtool" / "items.chain");
  damaged[984] = '\7';
  writeBytes("damaged", damaged);
  const ToolRun run = runTool({"chain", "damaged", "--at", "1:2"});
  EXPECT_EQ(run.code, 2);
  EXPECT_NE(run.err.find("a sibling pointer leads to block 7"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("--at: no segment or text that was read is at 1:2"), std::string::npos);
}

TEST_F(MemtoolChainTest, BlocksWithTheirAddressesAreRecognised) {
  const std::string good =
      readBytes(std::filesystem::path(MEM_FIXTURES) / "memtool" / "items.chain");
  writeBytes("memory", std::string(8, '\0') + good);
  expectRefused(1, "no version is here, but 8 bytes later: the blocks were written with their",
                {"chain", "memory"});
}

TEST_F(MemtoolChainTest, FilesThatAreNone) {
  expectRefused(3, "cannot read absent", {"chain", "absent"});
  expectRefused(3, "it is a folder", {"chain", "."});
  writeBytes("empty", "");
  expectRefused(1, "the file has 0 bytes, too few for a packed chain", {"chain", "empty"});
  const std::string path = fixturePath("0220_64bit");
  expectRefused(3, "cannot write absent/out.svg", {"chain", path, "--svg", "absent/out.svg"});
  expectRefused(3, "cannot write absent/out",
                {"chain", path, "--pointers", "8", "--to-native", "absent/out"});
}

}  // namespace
}  // namespace memtest
