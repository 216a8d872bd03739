// memtool chain --encode: a chain of the structures that JSON describes. What is decoded and made
// again says the same, and the library finds the same structures in it.

#include <cstring>
#include <set>

#include "chaindefsjson.hpp"
#include "chainfixtures.hpp"
#include "memtooltest.hpp"
#include "qj7mem00/mem.hpp"
#include "randomrun.hpp"
#include "tool_library.hpp"

namespace memtest {
namespace {

using chainwriter::Tree;
using chainwriter::Writer;

constexpr std::uint64_t kSeed = 20261123;

std::filesystem::path fixture(const std::string &name) {
  return std::filesystem::path(MEM_FIXTURES) / name;
}

// The chain of the file "out", loaded into the library.
class MadeChain {
 public:
  MadeChain() : file_(readBytes("out")) { EXPECT_TRUE(chain_.isOk()); }

  // A control block as it is in the file.
  std::string controlBlock() const {
    constexpr std::size_t kAt = 6;  // after the used length and the version
    std::int16_t kinds = 0;
    std::memcpy(&kinds, file_.data() + kAt, sizeof kinds);
    return file_.substr(kAt, MEM_PACK_CB_LEN(static_cast<std::size_t>(kinds)));
  }
  // The root; null, which is a failure, if the library refuses the chain.
  void *unpack(const MemPackCB &controlBlock) {
    if (!chain_.isOk()) return nullptr;
    const mem::Result<void *> root = chain_.value().unpackUnchecked(controlBlock);
    EXPECT_TRUE(root.isOk());
    return root.isOk() ? root.value() : nullptr;
  }
  MEMFunctionVector &vector() { return library_.vector(); }

 private:
  std::string file_;
  memtool::RunningLibrary library_{{}};
  mem::Context context_ = mem::contextOf(library_.host());
  mem::Result<mem::PackedChain> chain_ =
      mem::PackedChain::load(context_, std::as_bytes(std::span(file_)));
};

class MemtoolEncodeTest : public ToolTest {
 protected:
  static void encode(const std::vector<std::string> &more = {}) {
    std::vector<std::string> words{"chain",     "--encode", "graph.json", "--defs",
                                   "defs.json", "-o",       "out"};
    words.insert(words.end(), more.begin(), more.end());
    outputOf(words);
  }
  static std::string decode(const std::string &chain) {
    return outputOf({"chain", chain, "--defs", "defs.json", "--json"});
  }

  // Decodes, makes and decodes again.
  static void expectRoundTrip(const std::string &chain, const std::vector<std::string> &more = {}) {
    const std::string graph = decode(chain);
    writeBytes("graph.json", graph);
    encode(more);
    EXPECT_EQ(decode("out"), graph);
    outputOf({"chain", "out", "--check"});
  }

  // With a copy of a narrow text for each pointer to it, as the packer makes them.
  static Tree unshared(Tree tree) {
    std::set<std::size_t> met;
    for (std::size_t i = 0; i < tree.nodes.size(); ++i) {
      for (std::size_t k = 0; k < tree.nodes[i].targets.size(); ++k) {
        const std::size_t target = tree.nodes[i].targets[k];
        if (target == chainwriter::kNone) continue;
        const bool isNarrow = tree.kinds[tree.nodes[target].kind].form == chainwriter::Form::Narrow;
        if (!isNarrow || met.insert(target).second) continue;
        tree.nodes[i].targets[k] = tree.nodes.size();
        tree.nodes.push_back(chainwriter::Node(tree.nodes[target]));
      }
    }
    return tree;
  }

  // What the library unpacks of the made chain is the tree.
  static void expectTree(const Tree &tree) {
    MadeChain chain;
    const chainwriter::Bytes controlBlock = chainwriter::readersControlBlock(tree);
    void *const root = chain.unpack(*reinterpret_cast<const MemPackCB *>(controlBlock.data()));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(chainwriter::difference(unshared(tree), chainwriter::writerOf("0220"),
                                      chainwriter::Became::Structure, root),
              "");
  }
};

TEST_F(MemtoolEncodeTest, CatalogueComesBackByteForByte) {
  const std::string path = fixture("catalog-sample.chain").string();
  std::filesystem::copy_file(std::filesystem::path(MEM_EXAMPLES) / "catalog.chain.json",
                             "defs.json");
  expectRoundTrip(path);
  EXPECT_EQ(readBytes("out"), readBytes(path));
  const std::string small = fixture("catalog-sample-1100.chain").string();
  expectRoundTrip(small, {"--block-length", "1100"});
  EXPECT_EQ(readBytes("out"), readBytes(small));
  EXPECT_EQ(outputOf({"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "out"}),
            "out: 9,730 bytes in 1 block of 32,768, version 0220\n");
}

TEST_F(MemtoolEncodeTest, SampleTreeOfEveryWriterWithLongPointers) {
  for (const chainwriter::Fixture &row : chainwriter::allFixtures()) {
    if (row.chain.writer().pointerWidth != 8) continue;
    SCOPED_TRACE(row.name);
    writeBytes("defs.json", chainDefinitionsJson(row.tree, 8).dump());
    expectRoundTrip(fixture("chains/" + row.name + ".chain").string());
    expectTree(row.tree);
  }
}

// Graphs with references in every direction, which may form circles, and with texts that pointers
// share.
TEST_F(MemtoolEncodeTest, RandomTrees) {
  constexpr std::uint64_t kTrees = 60;
  const std::vector<Writer> writers{chainwriter::writerOf("0220"), chainwriter::writerOf("0221"),
                                    chainwriter::writerOf("0240"),
                                    chainwriter::ebcdicWriterOf("0200")};
  for (std::uint64_t seed = firstSeed(kSeed); seed < firstSeed(kSeed) + kTrees; ++seed) {
    const Writer &writer = writers[seed % writers.size()];
    SCOPED_TRACE(writer.name() + ", " + seedNote(seed));
    const Tree tree = chainwriter::randomTree(seed);
    const std::size_t blockLen = chainwriter::smallestBlockLen(tree, writer) + 500;
    const chainwriter::Bytes bytes = chainwriter::write(tree, writer, blockLen).file();
    writeBytes("in", std::string(bytes.begin(), bytes.end()));
    writeBytes("defs.json", chainDefinitionsJson(tree, 8).dump());
    expectRoundTrip("in");
    if (!writer.isEbcdic) expectTree(tree);  // whose narrow texts are Unicode now
    if (HasFailure()) return;
  }
}

constexpr const char *kDefs = R"({"structures": [
  {"id": 1, "name": "Node", "length": 32, "next": "next", "fields": [
    {"id": 1, "name": "child", "type": "Pnt", "offset": 0, "structure": "Node"},
    {"id": 2, "name": "next", "type": "Pnt", "offset": 8, "structure": "Node"},
    {"id": 3, "name": "text", "type": "PStr", "offset": 16},
    {"id": 4, "name": "number", "type": "Long", "offset": 24},
    {"id": 5, "name": "low", "type": "UShort", "offset": 24},
    {"id": 6, "name": "code", "type": "CharSZ", "offset": 28, "length": 4}]},
  {"id": 2, "segment": "S"},
  {"id": 3, "name": "Data", "segment": "C", "fields": [
    {"id": 1, "name": "count", "type": "Short", "offset": 0},
    {"id": 2, "name": "owner", "type": "Pnt", "offset": 2, "structure": "Node", "reference": true},
    {"id": 3, "name": "numbers", "type": "Double", "offset": 10, "toEnd": true}]},
  {"id": 4, "name": "Holder", "segment": "D", "fields": [
    {"id": 1, "name": "data", "type": "Pnt", "offset": 2, "structure": "Data"},
    {"id": 2, "name": "wide", "type": "WPStr", "offset": 10}]}]})";

TEST_F(MemtoolEncodeTest, WhatIsLeftOutIsNullOrZero) {
  writeBytes("defs.json", kDefs);
  writeBytes("graph.json", R"({"structures": [{"structure": "Node", "fields": {}}]})");
  encode();
  const Json fields = Json::parse(decode("out"))["structures"][0]["fields"];
  EXPECT_EQ(fields, Json::parse(R"({"child": null, "next": null, "text": null, "number": 0,
                                    "low": 0, "code": ""})"));
}

TEST_F(MemtoolEncodeTest, BytesWithoutAName) {
  writeBytes("defs.json", R"({"structures": [{"id": 1, "segment": "C", "fields": [
    {"id": 1, "name": "a", "type": "Short", "offset": 2}]}]})");
  writeBytes("graph.json",
             R"({"structures": [{"structure": 1, "fields": {"+4": "0102FF", "a": -1}}]})");
  encode();
  EXPECT_EQ(readBytes("out").substr(984), std::string("\x05\x00\xFF\xFF\x01\x02\xFF", 7));
  EXPECT_EQ(Json::parse(decode("out"))["structures"][0]["fields"],
            Json::parse(R"({"a": -1, "+4": "0102FF"})"));
}

TEST_F(MemtoolEncodeTest, WrongGraphsAreNamedWithTheirPlace) {
  struct Row {
    const char *structures;  // from line 2 on
    const char *message;
  };
  const Row rows[] = {
      {R"()", "structures: the list has no structure (line 1, column 16)"},
      {R"({"structure": "Nod", "fields": {}})",
       "structures[0].structure: no definition has the name or id \"Nod\" (line 2, column 15)"},
      {R"({"structure": 2, "fields": {}})", "a text is no structure, but the value of its pointer"},
      {R"({"structure": "Node"})", "structures[0]: \"fields\" is missing (line 2, column 1)"},
      {R"({"structure": "Node", "fields": []})", "fields: expected an object (line 2, column 33)"},
      {R"({"structure": "Node", "fields": {"x": 1}})", "Node has no field \"x\""},
      {R"({"structure": "Node", "fields": {"number": 2147483648}})",
       "from -2147483648 to 2147483647 (line 2, column 44)"},
      {R"({"structure": "Node", "fields": {"number": true}})", "expected a whole number"},
      {R"({"structure": "Node", "fields": {"code": "abcd"}})", "4 bytes; the field has room for 3"},
      {R"({"structure": "Node", "fields": {"text": 5}})", "expected text (line 2, column 42)"},
      {R"({"structure": "Node", "fields": {"text": "a\u0000b"}})", "text with a zero in it"},
      {R"({"structure": "Node", "fields": {"child": "7"}})",
       "no structure has the label \"7\" (line 2, column 43)"},
      {R"({"structure": "Node", "fields": {"child": {"fault": "7:2"}}})", "expected text"},
      {R"({"structure": "Node", "fields": {"+30": "FF"}})", ""},  // of the text's end: nothing
      {R"({"structure": "Node", "fields": {"+32": "FF"}})", "1 bytes at 32 exceed"},
      {R"({"structure": "Node", "fields": {"+16": "FF"}})", "the bytes overlap the pointer text"},
      {R"({"structure": "Node", "fields": {"+x": "FF"}})",
       "a name with + is + and an offset, for example +44"},
      {R"({"structure": "Node", "fields": {"+24": "F"}})",
       "expected bytes in hexadecimal capitals"},
      {R"({"structure": "Node", "fields": {"number": 1, "low": 2}})",
       "another value has set different bytes here (line 2, column 44)"},
      {R"({"label": "a", "structure": "Node", "fields": {"child": "a"}})",
       "a child or sibling pointer leads to the root; only references may (line 2, column 57)"},
      {R"({"structure": "Data", "fields": {}})",
       "the root must be a Node, the first structure of the definitions"},
      {R"({"structure": "Node", "fields": {}}, {"structure": "Node", "fields": {}})",
       "structures[1]: no child or sibling pointers lead from the root to this structure (line 2, "
       "column "
       "38)"},
      {"{\"structure\": \"Node\", \"fields\": {\"child\": \"b\", \"next\": \"b\"}},\n"
       "{\"label\": \"b\", \"structure\": \"Node\", \"fields\": {}}",
       "a second child or sibling pointer leads to \"b\"; further ones must be references (line 2, "
       "column "
       "56)"},
      {"{\"structure\": \"Node\", \"fields\": {}},\n"
       "{\"label\": \"b\", \"structure\": \"Node\", \"fields\": {\"child\": \"c\"}},\n"
       "{\"label\": \"c\", \"structure\": \"Node\", \"fields\": {\"child\": \"b\"}}",
       "no child or sibling pointers lead from the root to this structure (line 3, column 1)"},
      {"{\"label\": \"b\", \"structure\": \"Node\", \"fields\": {}},\n"
       "{\"label\": \"b\", \"structure\": \"Node\", \"fields\": {}}",
       "a second structure with the label \"b\" (line 3, column 11)"},
      {"{\"structure\": \"Node\", \"fields\": {\"child\": \"d\"}},\n"
       "{\"label\": \"d\", \"structure\": \"Data\", \"fields\": {}}",
       "\"d\" is a Data, but the field points to a Node (line 2, column 43)"},
      {"{\"structure\": \"Node\", \"fields\": {}},\n"
       "{\"structure\": \"Data\", \"fields\": {\"count\": 9, \"numbers\": [1]}}",
       "the length that follows from the segment's other values is 16 (line 3, column 43)"},
      {"{\"structure\": \"Node\", \"fields\": {}},\n"
       "{\"structure\": \"Data\", \"fields\": {\"numbers\": [1, \"2\"]}}",
       "expected a number (line 3, column 49)"},
      {"{\"structure\": \"Node\", \"fields\": {}},\n"
       "{\"structure\": \"Data\", \"fields\": {\"+0\": \"0100\"}}",
       "are the segment's length"},
  };
  writeBytes("defs.json", kDefs);
  for (const Row &row : rows) {
    SCOPED_TRACE(row.structures);
    writeBytes("graph.json", "{\"structures\": [\n" + std::string(row.structures) + "]}");
    const std::vector<std::string> words{"chain",     "--encode", "graph.json", "--defs",
                                         "defs.json", "-o",       "out"};
    if (*row.message == 0) {
      outputOf(words);
    } else {
      expectRefused(1, "graph.json: ", words);
      expectRefused(1, row.message, words);
      expectRefused(1, "(line ", words);
    }
  }
  EXPECT_TRUE(std::filesystem::exists("out"));
}

TEST_F(MemtoolEncodeTest, DefinitionsThatDoNotMakeAControlBlock) {
  struct Row {
    const char *defs;
    const char *message;
  };
  const Row rows[] = {
      {R"({"pointers": 4, "structures": [{"id": 1, "length": 8, "fields": []}]})",
       "for pointers of 4 bytes"},
      {R"({"structures": [{"id": 1, "length": 8, "fields": [
           {"id": 1, "type": "Pnt", "structure": 1, "offset": 4}]}]})",
       "8 bytes at 4 exceed"},
      {R"({"structures": [{"id": 1, "length": 16, "fields": [
           {"id": 1, "type": "PStr", "offset": 0}, {"id": 2, "type": "PStr", "offset": 4}]}]})",
       "the field overlaps the pointer 1"},
      {R"({"structures": [{"id": 1, "segment": "S"}]})", "no structure"},
  };
  writeBytes("graph.json", R"({"structures": []})");
  for (const Row &row : rows) {
    SCOPED_TRACE(row.defs);
    writeBytes("defs.json", row.defs);
    expectRefused(1, row.message,
                  {"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "out"});
  }
  Json fields = Json::array();
  for (int i = 0; i < 25; ++i) {
    fields.push_back({{"id", i + 1}, {"type", "Pnt"}, {"structure", 1}, {"offset", 8 * i}});
  }
  Json defs{{"structures", {{{"id", 1}, {"length", 200}, {"fields", fields}}}}};
  writeBytes("defs.json", defs.dump());
  expectRefused(1, "at most 24 children",
                {"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "out"});
  EXPECT_FALSE(std::filesystem::exists("out"));
}

TEST_F(MemtoolEncodeTest, LongestTextsAndSegments) {
  writeBytes("defs.json", R"({"structures": [{"id": 1, "segment": "D", "fields": [
    {"id": 1, "name": "text", "type": "PStr", "offset": 2},
    {"id": 2, "name": "wide", "type": "WPStr", "offset": 10},
    {"id": 3, "name": "rest", "type": "Char", "offset": 18, "toEnd": true}]}]})");
  const auto graph = [](const char *field, std::size_t length) {
    const Json fields{{field, std::string(length, 'x')}};
    writeBytes("graph.json", Json{{"structures", {{{"structure", 1}, {"fields", fields}}}}}.dump());
  };
  const auto refused = [](const char *message) {
    expectRefused(1, message,
                  {"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "none"});
  };
  for (const auto &[field, most] : {std::pair<const char *, std::size_t>{"text", 65530},
                                    std::pair<const char *, std::size_t>{"wide", 16381},
                                    std::pair<const char *, std::size_t>{"rest", 65533 - 18}}) {
    SCOPED_TRACE(field);
    graph(field, most);
    encode();
    EXPECT_EQ(
        Json::parse(decode("out"))["structures"][0]["fields"][field].get<std::string>().size(),
        most);
    graph(field, most + 1);
    refused("structures[0].fields.");
  }
}

TEST_F(MemtoolEncodeTest, DeepestStructure) {
  writeBytes("defs.json", kDefs);
  for (const int depth : {64, 65}) {
    Json structures = Json::array();
    for (int i = 0; i < depth; ++i) {
      Json fields = Json::object();
      if (i + 1 < depth) fields["child"] = std::to_string(i + 1);
      structures.push_back(
          {{"label", std::to_string(i)}, {"structure", "Node"}, {"fields", fields}});
    }
    writeBytes("graph.json", Json{{"structures", structures}}.dump(1));
    if (depth == 64) {
      encode();
    } else {
      expectRefused(1, "structures[63].fields.child: the structure is deeper than 64 levels",
                    {"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "none"});
    }
  }
}

// The result of packing the structures of the file "out" into blocks of this length.
std::int16_t packedAgain(std::int32_t blockLength) {
  MadeChain chain;
  const std::string bytes = chain.controlBlock();
  const auto &controlBlock = *reinterpret_cast<const MemPackCB *>(bytes.data());
  void *const root = chain.unpack(controlBlock);
  if (root == nullptr) return -1;
  MemPackBlock *first = nullptr;
  const std::int16_t result = chain.vector().MEM_Pack(&controlBlock, root, blockLength, &first);
  while (first != nullptr) {
    MemPackBlock *const next = first->pNext;
    chain.vector().MEM_Free(first, static_cast<std::uint32_t>(blockLength), 0);
    first = next;
  }
  return result;
}

// The least length that memtool takes is the least that the library takes.
TEST_F(MemtoolEncodeTest, BlocksThatAreTooShort) {
  const auto graph = [](const std::string &fields) {
    writeBytes("graph.json", R"({"structures": [{"structure": 1, "fields": {)" + fields + "}}]}");
  };
  const auto expectLeast = [](int least, const std::string &what) {
    SCOPED_TRACE(what);
    encode();
    EXPECT_EQ(packedAgain(least), 0);
    EXPECT_EQ(packedAgain(least - 1), MEMERR_PACKBMIN);
    expectRefused(1,
                  "--block-length: " + std::to_string(least - 1) + " is too short for " + what +
                      "; at least " + std::to_string(least) + " is needed",
                  {"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "none",
                   "--block-length", std::to_string(least - 1)});
    encode({"--block-length", std::to_string(least)});
    outputOf({"chain", "out", "--check"});
  };
  writeBytes("defs.json", kDefs);
  graph("");
  expectLeast(978 + 19, "this control block");
  graph(R"("text": ")" + std::string(3000, 'x') + "\"");
  expectLeast(3001 + 15, "the longest segment or text");
  Json kinds = Json::array();
  for (int i = 1; i <= 12; ++i) kinds.push_back({{"id", i}, {"segment", "D"}, {"fields", {}}});
  kinds[0]["fields"] = {
      {{"id", 1}, {"name", "wide"}, {"type", "WPStr"}, {"offset", 2}},
      {{"id", 2}, {"name", "rest"}, {"type", "Char"}, {"offset", 10}, {"toEnd", true}}};
  for (std::size_t i = 1; i < kinds.size(); ++i) kinds[i]["fields"] = Json::array();
  writeBytes("defs.json", Json{{"structures", kinds}}.dump());
  graph("");
  expectLeast(978 + 5 * 122 + 19, "this control block");  // the wide text is a kind as well
  graph(R"("wide": ")" + std::string(800, 'x') + "\"");
  expectLeast(4 * 801 + 15, "the longest segment or text");
  graph(R"("rest": ")" + std::string(5000, 'x') + "\"");
  expectLeast(5010 + 15, "the longest segment or text");
  EXPECT_FALSE(std::filesystem::exists("none"));
}

// What memtool writes with a filter can be made again if no other structure is needed.
TEST_F(MemtoolEncodeTest, SelectionsAreGraphs) {
  std::filesystem::copy_file(fixture("memtool/items.chain"), "items.chain");
  std::filesystem::copy_file(fixture("memtool/chain/items.defs.json"), "defs.json");
  const auto limited = [](const char *count) {
    const std::string json =
        outputOf({"chain", "items.chain", "--defs", "defs.json", "--json", "--limit", count});
    EXPECT_TRUE(Json::parse(json).contains("selection"));
    writeBytes("graph.json", json);
  };
  limited("2");
  encode();
  EXPECT_EQ(decode("out"), decode("items.chain"));
  limited("1");
  expectRefused(1,
                "next: no structure has the label \"2\"; the JSON is a selection, which may have "
                "left it out (line ",
                {"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "none"});
}

TEST_F(MemtoolEncodeTest, GraphsOfDamagedChains) {
  std::filesystem::copy_file(fixture("memtool/chain/items.defs.json"), "defs.json");
  std::string bytes = readBytes(fixture("memtool/items.chain"));
  bytes[984] = 7;  // the block of the first sibling
  writeBytes("damaged.chain", bytes);
  const ToolRun run = runTool({"chain", "damaged.chain", "--defs", "defs.json", "--json"});
  writeBytes("graph.json", run.out);
  const std::vector<std::string> words{"chain",     "--encode", "graph.json", "--defs",
                                       "defs.json", "-o",       "out"};
  expectRefused(1,
                "graph.json: faults: this is the JSON of a damaged chain; mend the pointers with "
                "\"fault\" and the structures with \"isCut\", and delete \"faults\" (line ",
                words);
  Json graph = Json::parse(run.out);
  graph.erase("faults");
  writeBytes("graph.json", graph.dump());
  expectRefused(1, "next: expected text (line 1, column ", words);
  graph["structures"][0]["fields"]["next"] = nullptr;
  writeBytes("graph.json", graph.dump());
  outputOf(words);
}

TEST_F(MemtoolEncodeTest, RepeatedKeys) {
  writeBytes("defs.json", kDefs);
  writeBytes("graph.json",
             "{\"structures\": [{\"structure\": \"Node\",\n \"fields\": {\"number\": 1, "
             "\"number\": 2}}]}");
  expectRefused(1,
                "graph.json: structures[0].fields: the key \"number\" appears a second time (line "
                "2, column 26)",
                {"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "none"});
}

TEST_F(MemtoolEncodeTest, Arguments) {
  writeBytes("defs.json", kDefs);
  expectRefused(2, "--encode needs --defs", {"chain", "--encode", "graph.json", "-o", "out"});
  expectRefused(2, "--encode needs --output",
                {"chain", "--encode", "graph.json", "--defs", "defs.json"});
  const std::vector<std::vector<std::string>> ignored{
      {"--json"},       {"--check"},          {"--data"},          {"--svg", "a.svg"},
      {"--block", "1"}, {"--to-native", "a"}, {"--like", "a"},     {"--like-pointers", "8"},
      {"--kind", "0"},  {"--at", "0:984"},    {"--root", "0:984"}, {"--depth", "1"},
      {"--limit", "1"}, {"--pointers", "8"}};
  for (const std::vector<std::string> &option : ignored) {
    std::vector<std::string> words{"chain",     "--encode", "graph.json", "--defs",
                                   "defs.json", "-o",       "out"};
    words.insert(words.end(), option.begin(), option.end());
    expectRefused(2, "--encode takes --defs", words);
  }
  expectRefused(3, "graph.json",
                {"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "out"});
}

// The graph may be named as the command's FILE as well.
TEST_F(MemtoolEncodeTest, GraphAsFile) {
  writeBytes("defs.json", kDefs);
  writeBytes("graph.json", R"({"structures": [{"structure": "Node", "fields": {}}]})");
  outputOf({"chain", "--encode", "--defs", "defs.json", "graph.json", "-o", "out"});
  outputOf({"chain", "out", "--check"});
  expectRefused(2, "--encode takes one GRAPH.json",
                {"chain", "--encode", "--defs", "defs.json", "-o", "out"});
}

// One character of the graph of the sample tree is another one.
TEST_F(MemtoolEncodeTest, DamagedGraphs) {
  constexpr std::size_t kMutants = 600;
  constexpr char kLikely[] = "0123456789{}[]\",:-e. \\ntf+FkK";
  Random random(firstSeed(kSeed));
  SCOPED_TRACE(seedNote(firstSeed(kSeed)));
  const Tree tree = chainwriter::sampleTree();
  writeBytes("defs.json", chainDefinitionsJson(tree, 8).dump());
  const std::string graph = decode(fixture("chains/0220_64bit.chain").string());
  std::size_t made = 0;
  for (std::size_t i = 0; i < kMutants; ++i) {
    SCOPED_TRACE("mutant " + std::to_string(i));
    std::string damaged = graph;
    if (random.oneIn(2)) {
      const std::size_t at = damaged.find_first_of("0123456789", random.below(damaged.size()));
      if (at != std::string::npos) damaged[at] = kLikely[random.below(10)];
    } else if (random.oneIn(2)) {
      damaged[random.below(damaged.size())] = kLikely[random.below(sizeof kLikely - 1)];
    } else {
      damaged.erase(random.below(damaged.size()), random.between(1, 40));
    }
    writeBytes("graph.json", damaged);
    const ToolRun run =
        runTool({"chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "out"});
    ASSERT_TRUE(run.code == 0 || run.code == 1) << run.err;
    ASSERT_TRUE(run.code == 0 ? run.err.empty() : isOneLine(run.err)) << run.err;
    if (run.code == 0) {
      ++made;
      outputOf({"chain", "out", "--defs", "defs.json", "--check"});
    }
    if (HasFailure()) return;
  }
  EXPECT_GT(made, kMutants / 50);
  EXPECT_LT(made, kMutants);
}

}  // namespace
}  // namespace memtest
