// memtool chain --to-native: any writer's chain becomes one that this library writes, with the same
// structure in it.

#include <map>

#include "chainfixtures.hpp"
#include "memtooltest.hpp"
#include "packed_native.hpp"
#include "packed_reader.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using chainwriter::Fixture;
using chainwriter::Tree;
using chainwriter::Writer;

constexpr std::uint64_t kSeed = 20260117;
constexpr int kTreesOfAWriter = 8;

std::string fixturePath(const std::string &name) {
  return (std::filesystem::path(MEM_FIXTURES) / "chains" / (name + ".chain")).string();
}

void writeChain(const std::string &name, const Tree &tree, const Writer &writer,
                std::size_t blockLen) {
  const chainwriter::Bytes bytes = chainwriter::write(tree, writer, blockLen).file();
  writeBytes(name, std::string(bytes.begin(), bytes.end()));
}

Json chainJson(const std::string &name) {
  return Json::parse(outputOf({"chain", name, "--json", "--data"}));
}

// What a chain says without where it says so: each segment with its kind, its level and, of each
// pointer, the number of the segment that it leads to, or the text; and its other bytes, without a
// length at its start and without zeros at the end of a run, which a wider layout may add. Narrow
// text of EBCDIC writers stays what it is, and so is shown as something else once the writer is
// native.
//
// A text is with the first pointer to it; later ones, and those to its end, name its place.
std::string textAt(const std::map<std::pair<int, int>, std::string> &texts, const Json &pointer) {
  const Json &place = pointer["textAt"];
  const std::size_t skipped =
      pointer["target"]["offset"].get<std::size_t>() - place["offset"].get<std::size_t>();
  return texts.at({place["block"], place["offset"]}).substr(skipped);
}

Json structureOf(const Json &chain, bool hasNarrowText = true) {
  std::map<std::pair<int, int>, std::string> texts;
  for (const Json &segment : chain["segments"]) {
    for (const Json &pointer : segment["pointers"]) {
      if (!pointer.contains("text")) continue;
      const Json &target = pointer["target"];
      texts.emplace(std::pair<int, int>(target["block"], target["offset"]), pointer["text"]);
    }
  }
  std::map<std::pair<int, int>, std::size_t> numbers;
  for (const Json &segment : chain["segments"]) {
    numbers.emplace(std::pair<int, int>(segment["block"], segment["offset"]), numbers.size());
  }
  Json structure = Json::array();
  for (const Json &segment : chain["segments"]) {
    const std::string form =
        chain["controlBlock"]["kinds"][segment["kind"].get<std::size_t>()]["form"];
    Json said{{"kind", segment["kind"]}, {"level", segment["level"]}};
    for (const Json &pointer : segment["pointers"]) {
      if (pointer.contains("isWide")) {
        const bool isSame = hasNarrowText || pointer["isWide"].get<bool>();
        const Json text = pointer.contains("text") ? pointer["text"] : Json(textAt(texts, pointer));
        said["pointers"].push_back({isSame ? text : Json(), pointer["isWide"]});
      } else if (pointer["target"].is_null()) {
        said["pointers"].push_back(nullptr);
      } else {
        said["pointers"].push_back(
            numbers.at({pointer["target"]["block"], pointer["target"]["offset"]}));
      }
    }
    std::string data;
    for (const Json &run : segment["data"]) {
      std::string bytes = run["bytes"];
      if (run["offset"] == 0 && form != "fixed") bytes.erase(0, 4);
      while (bytes.ends_with("00")) bytes.resize(bytes.size() - 2);
      data += bytes + " ";
    }
    while (data.ends_with(' ')) data.pop_back();
    said["data"] = data;
    structure.push_back(said);
  }
  return structure;
}

void expectSameStructure(const std::string &from, const std::string &to) {
  const Json native = chainJson(to);
  EXPECT_EQ(native["version"], "0220");
  EXPECT_EQ(native["writer"]["pointerWidth"], 8);
  EXPECT_FALSE(native["writer"]["isEbcdic"]);
  EXPECT_EQ(structureOf(chainJson(from)), structureOf(native));
}

class MemtoolNativeTest : public ToolTest {};

// Whoever wrote the sample tree, the result is one and the same file.
TEST_F(MemtoolNativeTest, AllWritersBecomeTheSameChain) {
  outputOf({"chain", fixturePath("0220_64bit"), "--pointers", "8", "--to-native", "first"});
  const std::string first = readBytes("first");
  for (const Fixture &fixture : chainwriter::allFixtures()) {
    SCOPED_TRACE(fixture.name);
    const std::string width = std::to_string(fixture.chain.writer().pointerWidth);
    outputOf({"chain", fixturePath(fixture.name), "--pointers", width, "--to-native", "out"});
    EXPECT_EQ(readBytes("out"), first);
    expectSameStructure(fixturePath(fixture.name), "out");
  }
}

TEST_F(MemtoolNativeTest, NativeChainStaysAsItIs) {
  outputOf({"chain", fixturePath("0221_32bit"), "--to-native", "once"});
  outputOf({"chain", "once", "--pointers", "8", "--to-native", "twice"});
  EXPECT_EQ(readBytes("once"), readBytes("twice"));
  const std::string sample =
      (std::filesystem::path(MEM_FIXTURES) / "catalog-sample.chain").string();
  outputOf({"chain", sample, "--to-native", "catalog"});  // its layouts are a compiler's
  EXPECT_EQ(readBytes("catalog"), readBytes(sample));
}

// What a control block holds in entries that it does not use decides nothing here.
TEST_F(MemtoolNativeTest, UnusedEntriesOfTheRootDoNotMatter) {
  using chainwriter::data;
  using chainwriter::Form;
  using chainwriter::sibling;
  Tree tree{.kinds = {{Form::Fixed, {sibling(), data(8)}}},
            .nodes = {{0, {1, 2, 3, 4, 5, 6, 7, 8}, {1}},
                      {0, {9, 8, 7, 6, 5, 4, 3, 2}, {chainwriter::kNone}}}};
  for (const std::size_t kinds : {std::size_t{1}, std::size_t{21}}) {
    tree.kinds.resize(kinds, {Form::Fixed, {data(4)}});
    for (const Writer &writer : chainwriter::allWriters()) {
      for (const std::uint16_t stored : {std::uint16_t{0x0012}, std::uint16_t{0xFFF0}}) {
        SCOPED_TRACE(writer.name() + " " + std::to_string(stored));
        chainwriter::Chain chain =
            chainwriter::write(tree, writer, chainwriter::smallestBlockLen(tree, writer) + 100);
        for (std::size_t entry = 0; entry < 2; ++entry) {
          chain.setNumber({0, chain.childEntryPlace(0, entry).offset + 2}, stored);
        }
        const chainwriter::Bytes bytes = chain.file();
        writeBytes("in", std::string(bytes.begin(), bytes.end()));
        const std::string width = std::to_string(writer.pointerWidth);
        outputOf({"chain", "in", "--to-native", "out", "--pointers", width});
        const Json from =
            Json::parse(outputOf({"chain", "in", "--json", "--data", "--pointers", width}));
        EXPECT_EQ(structureOf(from), structureOf(chainJson("out")));
      }
    }
  }
}

TEST_F(MemtoolNativeTest, BlockLengthIsTheUsers) {
  const std::string path = fixturePath("0240_64bit");
  const std::string out =
      outputOf({"chain", path, "--pointers", "8", "--to-native", "out", "--block-length", "1100"});
  EXPECT_NE(out.find(" in 2 blocks of 1,100, version 0220\n"), std::string::npos) << out;
  expectSameStructure(path, "out");
}

// A counted segment, a narrow text or a wide text is long, by the number of its kind.
Tree longItem(int longest) {
  using chainwriter::child;
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {child(1), chainwriter::data(4)}},
                {chainwriter::Form::Counted, {child(2), child(3)}},
                {chainwriter::Form::Narrow},
                {chainwriter::Form::Wide}};
  tree.nodes = {{0, {1, 2, 3, 4}, {1}},
                {1, chainwriter::Bytes(longest == 1 ? 2000 : 1, 7), {2, 3}},
                {2, {}, {}, std::string(longest == 2 ? 2000 : 1, 'n')},
                {3, {}, {}, {}, std::u32string(longest == 3 ? 700 : 1, U'w')}};
  return tree;
}

// The least length in the message is the least that the library takes.
TEST_F(MemtoolNativeTest, BlocksThatAreTooShort) {
  const auto expectLeast = [](const std::string &from, const Writer &writer, int length,
                              const std::string &what) {
    SCOPED_TRACE(writer.name());
    const auto rewrite = [&](int asked) {
      return runTool({"chain", from, "--pointers", std::to_string(writer.pointerWidth),
                      "--to-native", "out", "--block-length", std::to_string(asked)});
    };
    const ToolRun refused = rewrite(length);
    EXPECT_EQ(refused.code, memtool::kExitFault);
    const std::string before = "memtool: --block-length: " + std::to_string(length) +
                               " is too short for " + what + "; at least ";
    ASSERT_TRUE(refused.err.starts_with(before)) << refused.err;
    EXPECT_TRUE(refused.err.ends_with(" is needed\n")) << refused.err;
    EXPECT_FALSE(std::filesystem::exists("out"));
    const int least = std::stoi(refused.err.substr(before.size()));
    EXPECT_EQ(rewrite(least - 1).code, memtool::kExitFault);
    EXPECT_EQ(rewrite(least).code, memtool::kExitFine);
    std::filesystem::remove("out");
  };
  for (const int longest : {1, 2, 3}) {
    const Tree tree = longItem(longest);
    for (const Writer &writer : chainwriter::allWriters()) {
      writeChain("in", tree, writer, 8000);
      expectLeast("in", writer, 1100, "the longest segment or text");
    }
  }
  for (const Fixture &fixture : chainwriter::allFixtures()) {
    const Writer &writer = fixture.chain.writer();
    expectLeast(fixturePath(fixture.name), writer, 900, "this control block");
    expectLeast(fixturePath(fixture.name), writer, 1, "this control block");
  }
}

TEST_F(MemtoolNativeTest, RemarksTellWhatWasLeftAsItWas) {
  const auto remark = [](const std::string &name) {
    const std::string width = name.ends_with("_64bit") ? "8" : "4";
    return outputOf({"chain", fixturePath(name), "--pointers", width, "--to-native", "out"});
  };
  EXPECT_NE(remark("0221_64bit").find("still in the writer's byte order"), std::string::npos);
  EXPECT_NE(remark("ebcdic0200_32bit").find("still EBCDIC"), std::string::npos);
  EXPECT_EQ(remark("0220_32bit").find("still"), std::string::npos);
}

// The root's only pointers are where the library cannot see their width.
TEST_F(MemtoolNativeTest, WidthThatTheLibraryCannotSee) {
  using chainwriter::child;
  using chainwriter::data;
  using chainwriter::sibling;
  const std::vector<std::vector<chainwriter::Part>> roots = {
      {child(1), sibling(), data(4)},  // the first child at offset 0
      {sibling(), data(8)},            // no child
      {child(0), child(1), data(3)}};
  for (const std::vector<chainwriter::Part> &parts : roots) {
    Tree tree;
    tree.kinds = {{chainwriter::Form::Fixed, parts}, {chainwriter::Form::Narrow}};
    const std::size_t pointers = parts.size() - 1;
    tree.nodes = {{0, {}, std::vector<std::size_t>(pointers, chainwriter::kNone)},
                  {0, {}, std::vector<std::size_t>(pointers, chainwriter::kNone)},
                  {1, {}, {}, "text"}};
    tree.nodes[0].data = tree.nodes[1].data = {9, 8, 7, 6, 5, 4, 3, 2};
    tree.nodes[0].data.resize(parts.back().number);
    tree.nodes[1].data.resize(parts.back().number);
    for (std::size_t i = 0; i < pointers; ++i) {
      const bool isText = parts[i].what == chainwriter::Part::What::Child && parts[i].number == 1;
      tree.nodes[0].targets[i] = isText ? 2 : 1;
    }
    if (pointers == 1) tree.nodes.resize(2);
    for (const char *version : {"0220", "0221", "0100"}) {
      SCOPED_TRACE(version);
      writeChain("in", tree, chainwriter::writerOf(version, 4), 2000);
      outputOf({"chain", "in", "--pointers", "4", "--to-native", "out"});
      const Json native = chainJson("out");
      EXPECT_EQ(structureOf(
                    Json::parse(outputOf({"chain", "in", "--pointers", "4", "--json", "--data"}))),
                structureOf(native));
      EXPECT_EQ(native["blocks"].size(), 1U);
    }
  }
}

// Pointers at multiples of 4 move to multiples of 8, as compilers place them.
TEST_F(MemtoolNativeTest, AlignedLayoutsStayAligned) {
  Tree tree;
  tree.kinds = {
      {chainwriter::Form::Fixed,
       {chainwriter::data(4), chainwriter::child(1), chainwriter::data(8), chainwriter::sibling()}},
      {chainwriter::Form::Narrow}};
  tree.nodes = {{0, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, {1, chainwriter::kNone}},
                {1, {}, {}, "text"}};
  writeChain("in", tree, chainwriter::writerOf("0220", 4), 2000);
  outputOf({"chain", "in", "--to-native", "out"});
  const Json kind = chainJson("out")["controlBlock"]["kinds"][0];
  EXPECT_EQ(kind["children"][0]["offset"], 8);
  EXPECT_EQ(kind["siblingOffset"], 24);
  EXPECT_EQ(kind["fixedLength"], 32);
  expectSameStructure("in", "out");
}

TEST_F(MemtoolNativeTest, LaidOutLikeAnotherChain) {
  const std::string from = fixturePath("0201_32bit");
  const std::string like = fixturePath("0241_64bit");
  outputOf({"chain", from, "--to-native", "out", "--like", like, "--like-pointers", "8"});
  const Json wanted = chainJson(like)["controlBlock"]["kinds"];
  EXPECT_EQ(chainJson("out")["controlBlock"]["kinds"], wanted);
  expectSameStructure(from, "out");
  expectRefused(1, "--like is for chains with 4-byte pointers",
                {"chain", like, "--pointers", "8", "--to-native", "none", "--like", like,
                 "--like-pointers", "8"});
  expectRefused(1, "--like needs a chain with 8-byte pointers",
                {"chain", from, "--to-native", "none", "--like", from});
}

// A width that the control block does not show decides how segments are rewritten: it is not
// guessed.
TEST_F(MemtoolNativeTest, GuessedWidthsAreRefused) {
  using chainwriter::child;
  Tree tree;  // 4-byte pointers with other fields between, or 8-byte ones
  tree.kinds = {{chainwriter::Form::Fixed, {child(1), child(1)}}, {chainwriter::Form::Narrow}};
  tree.nodes = {{0, {}, {1, chainwriter::kNone}}, {1, {}, {}, "text"}};
  writeChain("in", tree, chainwriter::writerOf("0220", 8), 2000);
  EXPECT_NE(outputOf({"chain", "in"}).find("the width of pointers is a guess"), std::string::npos);
  EXPECT_EQ(chainJson("in")["writer"]["isPointerWidthGuessed"], true);
  expectRefused(1, "set it with --pointers 4 or --pointers 8",
                {"chain", "in", "--to-native", "out"});
  EXPECT_FALSE(std::filesystem::exists("out"));
  outputOf({"chain", "in", "--to-native", "out", "--pointers", "8"});
  expectSameStructure("in", "out");

  const std::string from = fixturePath("0201_32bit");
  const std::string like = fixturePath("0241_64bit");
  expectRefused(1,
                like + ": the width of the writer's pointers is not evident from the control block",
                {"chain", from, "--to-native", "none", "--like", like});
  expectRefused(1, "set it with --like-pointers 4 or --like-pointers 8",
                {"chain", from, "--to-native", "none", "--like", like});
  expectRefused(2, "--like-pointers goes with --like",
                {"chain", from, "--to-native", "none", "--like-pointers", "8"});
  EXPECT_FALSE(std::filesystem::exists("none"));
}

TEST_F(MemtoolNativeTest, LengthsThatOnlyTheWriterKnows) {
  const Fixture fixture = chainwriter::allFixtures().back();
  ASSERT_TRUE(fixture.chain.writer().isEbcdic);
  chainwriter::Chain chain = fixture.chain;
  chain.setNumber(chain.descriptorPlace(3), 0xE5);
  const chainwriter::Bytes bytes = chain.file();
  writeBytes("in", std::string(bytes.begin(), bytes.end()));
  EXPECT_NE(outputOf({"chain", "in"}).find("at least "), std::string::npos);
  expectRefused(1, "segments of type 0xE5 cannot be rewritten",
                {"chain", "in", "--to-native", "o"});
}

TEST_F(MemtoolNativeTest, TreesOfEveryShapeAndWriter) {
  for (const Writer &writer : chainwriter::allWriters()) {
    for (std::uint64_t seed = firstSeed(kSeed); seed < firstSeed(kSeed) + kTreesOfAWriter; ++seed) {
      SCOPED_TRACE(writer.name() + ", " + seedNote(seed));
      const Tree tree = chainwriter::randomTree(seed);
      const std::size_t room = seed % 2 == 0 ? 0 : 500;
      writeChain("in", tree, writer, chainwriter::smallestBlockLen(tree, writer) + room);
      const std::vector<std::string> width{"--pointers", std::to_string(writer.pointerWidth)};
      std::vector<std::string> words{"chain", "in", "--to-native", "out"};
      words.insert(words.end(), width.begin(), width.end());
      outputOf(words);
      words = {"chain", "in", "--json", "--data"};
      words.insert(words.end(), width.begin(), width.end());
      const Json from = Json::parse(outputOf(words));
      EXPECT_EQ(structureOf(from, !writer.isEbcdic),
                structureOf(chainJson("out"), !writer.isEbcdic));
      if (HasFailure()) return;
    }
  }
}

// Nothing stays in the host's storage, whether it succeeds or not.
TEST_F(MemtoolNativeTest, GivesAllStorageBack) {
  std::ostringstream sink;
  memtool::Console console(sink, sink, {});
  memtool::RunningLibrary library({});
  const auto live = [&] { return library.host().account().liveBytes; };
  const std::uint64_t before = live();
  for (const Fixture &fixture : chainwriter::allFixtures()) {
    const memtool::PackedChain chain =
        memtool::readChain(readBytes(fixturePath(fixture.name)), 0, console);
    memtool::NativeRequest request;
    memtool::toNative(library, chain, request, console);
    EXPECT_EQ(live(), before);
    request.blockLength = 900;
    EXPECT_THROW(memtool::toNative(library, chain, request, console), memtool::ToolError);
    EXPECT_EQ(live(), before);
  }
  writeChain("in", longItem(2), chainwriter::writerOf("0220", 4), 8000);
  const memtool::PackedChain chain = memtool::readChain(readBytes("in"), 4, console);
  memtool::NativeRequest request;
  request.blockLength = 1100;
  EXPECT_THROW(memtool::toNative(library, chain, request, console), memtool::ToolError);
  EXPECT_EQ(live(), before);
}

}  // namespace
}  // namespace memtest
