// Finding one's way in large files: what --kind, --at, --root, --depth, --limit and --block choose
// is what a model of each finds in the JSON of the whole file, and nothing is left out unsaid.

#include <functional>
#include <map>
#include <optional>
#include <set>

#include "chainfixtures.hpp"
#include "memtooltest.hpp"
#include "packed_picture.hpp"
#include "port_picture.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using Spot = std::pair<std::uint32_t, std::uint32_t>;  // block and offset

std::string fixturePath(const std::string &name) {
  return (std::filesystem::path(MEM_FIXTURES) / "chains" / (name + ".chain")).string();
}

void copyPortFixture(const std::string &name) {
  std::filesystem::copy_file(std::filesystem::path(MEM_FIXTURES) / "memtool" / "port" / name, name);
}

Spot spotOf(const Json &json) {
  return {json["block"].get<std::uint32_t>(), json["offset"].get<std::uint32_t>()};
}

std::string textOf(Spot spot) {
  return std::to_string(spot.first) + ":" + std::to_string(spot.second);
}

// A segment without what depends on which others are shown: where its texts are written.
Json bare(Json segment) {
  for (Json &pointer : segment["pointers"]) {
    pointer.erase("text");
    pointer.erase("textAt");
    pointer.erase("isCut");
  }
  return segment;
}

// The segments of the whole file, and what a filter leaves of them, by the JSON alone.
class ChainModel {
 public:
  explicit ChainModel(const Json &whole) : whole_(whole) {
    for (std::size_t i = 0; i < whole["segments"].size(); ++i) {
      indices_.emplace(spotOf(whole["segments"][i]), i);
    }
  }

  const Json &segment(std::size_t index) const { return whole_["segments"][index]; }
  std::size_t count() const { return whole_["segments"].size(); }

  bool isTextKind(const Json &kind) const {
    const std::string form = whole_["controlBlock"]["kinds"][kind.get<std::size_t>()]["form"];
    return form == "text" || form == "wide text";
  }

  // The segment that a pointer leads to.
  std::optional<std::size_t> target(const Json &pointer) const {
    if (pointer["target"].is_null()) return {};
    if (pointer["field"] == "child" && isTextKind(pointer["kind"])) return {};
    const auto found = indices_.find(spotOf(pointer["target"]));
    return found == indices_.end() ? std::nullopt : std::optional<std::size_t>(found->second);
  }

  std::set<std::size_t> walk(std::size_t root) const {
    std::set<std::size_t> reached;
    std::vector<std::size_t> open{root};
    while (!open.empty()) {
      const std::size_t index = open.back();
      open.pop_back();
      if (!reached.insert(index).second) continue;
      for (const Json &pointer : segment(index)["pointers"]) {
        if (pointer["field"] == "reference") continue;
        if (const auto next = target(pointer)) open.push_back(*next);
      }
    }
    return reached;
  }

  std::vector<std::size_t> chosen(std::optional<std::size_t> root, std::optional<int> kind,
                                  std::optional<int> depth) const {
    std::vector<std::size_t> made;
    const int level = root ? segment(*root)["level"].get<int>() : 0;
    const std::set<std::size_t> reached = walk(root.value_or(0));
    for (std::size_t i = 0; i < count(); ++i) {
      if (root && reached.count(i) == 0) continue;
      if (depth && segment(i)["level"].get<int>() - level > *depth) continue;
      if (kind && !isOfKind(segment(i), *kind)) continue;
      made.push_back(i);
    }
    return made;
  }

 private:
  bool isOfKind(const Json &segment, int kind) const {
    if (!isTextKind(kind)) return segment["kind"] == kind;
    for (const Json &pointer : segment["pointers"]) {
      const bool isNull = pointer["target"].is_null() && !pointer.contains("isFaulty");
      if (pointer["field"] == "child" && pointer["kind"] == kind && !isNull) return true;
    }
    return false;
  }

  const Json &whole_;
  std::map<Spot, std::size_t> indices_;
};

// "" when the output has these segments of the whole file, and their texts.
std::string difference(const ChainModel &model, const std::vector<std::size_t> &wanted,
                       std::size_t limit, const Json &got) {
  const std::size_t shown = std::min(limit, wanted.size());
  const Json selection{
      {"matching", wanted.size()}, {"shown", shown}, {"leftOut", wanted.size() - shown}};
  if (got["selection"] != selection) return got["selection"].dump() + " not " + selection.dump();
  if (got["segments"].size() != shown) return "other segments";
  std::set<Spot> written;
  for (std::size_t i = 0; i < shown; ++i) {
    const Json &segment = got["segments"][i];
    if (bare(segment) != bare(model.segment(wanted[i]))) return segment.dump();
    for (std::size_t k = 0; k < segment["pointers"].size(); ++k) {
      const Json &pointer = segment["pointers"][k];
      if (pointer.contains("text")) written.insert(spotOf(pointer["target"]));
      if (pointer.contains("textAt") && written.count(spotOf(pointer["textAt"])) == 0) {
        return "a text that is nowhere: " + pointer.dump();
      }
      const bool had = model.segment(wanted[i])["pointers"][k].contains("isWide");
      if (had != (pointer.contains("text") || pointer.contains("textAt"))) return "no text";
    }
  }
  return "";
}

class MemtoolFindingTest : public ToolTest {};

TEST_F(MemtoolFindingTest, ChosenSegmentsAreThoseOfTheModel) {
  constexpr std::uint64_t kSeed = 20261122;
  Random random(firstSeed(kSeed));
  std::vector<std::string> paths;
  for (const chainwriter::Fixture &fixture : chainwriter::allFixtures()) {
    paths.push_back(fixturePath(fixture.name));
  }
  for (const std::uint64_t seed : {3U, 4U, 5U, 6U}) {
    const chainwriter::Tree tree = chainwriter::randomTree(seed);
    const chainwriter::Writer &writer = chainwriter::allWriters()[seed];
    const std::size_t length = chainwriter::smallestBlockLen(tree, writer) + 400;
    const chainwriter::Bytes bytes = chainwriter::write(tree, writer, length).file();
    paths.push_back("random" + std::to_string(seed) + ".chain");
    writeBytes(paths.back(), std::string(bytes.begin(), bytes.end()));
  }
  std::size_t shown = 0;
  for (const std::string &path : paths) {
    const ToolRun plain = runTool({"chain", path, "--json"});
    const Json whole = Json::parse(plain.out);
    ASSERT_FALSE(whole.contains("selection"));
    const ChainModel model(whole);
    for (int i = 0; i < 40; ++i) {
      std::vector<std::string> words{"chain", path, "--json"};
      std::optional<std::size_t> root;
      std::optional<int> kind;
      std::optional<int> depth;
      std::size_t limit = model.count();
      const auto ask = [&words](const char *option, const std::string &value) {
        words.insert(words.end(), {option, value});
      };
      if (random.oneIn(2))
        ask("--root", textOf(spotOf(model.segment(*(root = random.below(model.count()))))));
      if (random.oneIn(2)) {
        kind = static_cast<int>(random.below(whole["controlBlock"]["kinds"].size()));
        ask("--kind", std::to_string(*kind));
      }
      if (random.oneIn(3))
        ask("--depth", std::to_string(*(depth = static_cast<int>(random.below(4)))));
      if (random.oneIn(3) || words.size() == 3)
        ask("--limit", std::to_string(limit = random.below(6)));
      SCOPED_TRACE(path + ": " + Json(words).dump() + ", " + seedNote(firstSeed(kSeed)));
      const ToolRun run = runTool(words);
      ASSERT_EQ(run.code, plain.code) << run.err;
      const Json got = Json::parse(run.out);
      ASSERT_EQ(difference(model, model.chosen(root, kind, depth), limit, got), "");
      shown += got["segments"].size();
    }
  }
  EXPECT_GT(shown, 1000U);
}

// Its bytes find a segment, and what it points to follows it.
TEST_F(MemtoolFindingTest, AtFindsTheSegmentAndItsTargets) {
  for (const std::string name : {"0220_64bit", "0221_32bit", "ebcdic0200_64bit"}) {
    const std::string path = fixturePath(name);
    const Json whole = Json::parse(outputOf({"chain", path, "--json"}));
    const ChainModel model(whole);
    for (std::size_t i = 0; i < model.count(); ++i) {
      const Json &segment = model.segment(i);
      std::vector<std::size_t> wanted{i};
      for (const Json &pointer : segment["pointers"]) {
        const auto target = model.target(pointer);
        if (target && std::find(wanted.begin(), wanted.end(), *target) == wanted.end()) {
          wanted.push_back(*target);
        }
      }
      const Spot begin = spotOf(segment);
      const std::uint32_t last = segment["length"].get<std::uint32_t>() - 1;
      for (const std::uint32_t byte : {0U, 1U, last / 2, last}) {
        const std::string at = textOf({begin.first, begin.second + byte});
        SCOPED_TRACE(path + " " + at);
        const Json got = Json::parse(outputOf({"chain", path, "--json", "--at", at}));
        ASSERT_EQ(difference(model, wanted, wanted.size(), got), "");
      }
    }
  }
  const std::string shared = outputOf({"chain", fixturePath("0221_32bit"), "--at", "1:120"});
  EXPECT_NE(shared.find("Segments: 4 of 10, at 1:92 with what it points to\n  1:92  kind 1"),
            std::string::npos)
      << shared;
}

TEST_F(MemtoolFindingTest, WhatIsLeftOutIsSaid) {
  const std::string path = fixturePath("0220_64bit");
  const std::string limited = outputOf({"chain", path, "--kind", "1", "--limit", "1"});
  EXPECT_NE(limited.find("Segments: 3 of 10, of kind 1\n"), std::string::npos) << limited;
  EXPECT_TRUE(limited.ends_with("  … and 2 more (--limit 1)\n")) << limited;
  EXPECT_EQ(limited.find("Blocks\n"), std::string::npos);
  const std::string none = outputOf({"chain", path, "--limit", "0"});
  EXPECT_TRUE(none.ends_with("Segments: 10 of 10\n  … and 10 more (--limit 0)\n")) << none;
}

TEST_F(MemtoolFindingTest, UnknownValuesAreNamed) {
  const std::string path = fixturePath("0220_64bit");
  const auto refuse = [](const char *text, std::vector<std::string> words) {
    SCOPED_TRACE(Json(words).dump());
    expectRefused(2, text, words);
  };
  refuse("--kind: there is no kind \"77\" of segments; the control block has kinds 0 to 6",
         {"chain", path, "--kind", "77"});
  refuse("--kind: there is no kind \"F\" of segments", {"chain", path, "--kind", "F"});
  refuse("--at: \"7\" is not a place; a place is BLOCK:OFFSET, for example 1:34",
         {"chain", path, "--at", "7"});
  refuse("--at: \"-1:2\" is not a place", {"chain", path, "--at=-1:2"});
  refuse("--at: there is no block 9; the chain has 2 blocks", {"chain", path, "--at", "9:2"});
  refuse("--at: block 1 has ", {"chain", path, "--at", "1:60000"});
  refuse("--root: no segment or text that was read is at 0:7", {"chain", path, "--root", "0:7"});
  refuse("--depth", {"chain", path, "--depth", "-1"});
  refuse("--limit", {"chain", path, "--limit", "many"});
  refuse("--at does not go with --kind, --root and --depth",
         {"chain", path, "--at", "1:2", "--depth", "1"});
  refuse("do not go with --check", {"chain", path, "--check", "--kind", "1"});
  refuse("--svg takes --root and --block only", {"chain", path, "--svg", "o.svg", "--kind", "1"});
  refuse("--block goes with --svg", {"chain", path, "--block", "1"});
  refuse("--block: there is no block 2; the chain has 2 blocks",
         {"chain", path, "--svg", "o.svg", "--block", "2"});
  refuse("--root: there is no block 5", {"chain", path, "--svg", "o.svg", "--root", "5:0"});

  copyPortFixture("order.port");
  copyPortFixture("order.defs.json");
  refuse("--kind: no structure has the StructID 8", {"port", "order.port", "--kind", "8"});
  refuse("--kind: \"Order\" is no StructID; names need --defs",
         {"port", "order.port", "--kind", "Order"});
  refuse("--kind: the definitions have no structure \"Card\"",
         {"port", "order.port", "--kind", "Card", "--defs", "order.defs.json"});
  refuse("--root: there is no structure 3; those that were read are 1 to 2",
         {"port", "order.port", "--root", "3"});
  refuse("--root: there is no structure 0",
         {"port", "order.port", "--svg", "o.svg", "--root", "0"});
  refuse("do not go with --check", {"port", "order.port", "--check", "--depth", "1"});
  refuse("--svg takes --root only", {"port", "order.port", "--svg", "o.svg", "--limit", "1"});

  // One file without the value does not keep the others from being shown.
  const ToolRun two = runTool({"chain", path, fixturePath("0100_64bit"), "--at", "0:1041"});
  EXPECT_EQ(two.code, 2) << two.err;
  EXPECT_NE(two.out.find("Segments: 4 of 10"), std::string::npos) << two.out;
  EXPECT_NE(two.err.find("0100_64bit.chain: --at: "), std::string::npos) << two.err;
}

// In a damaged chain, what was read is found as in a whole one, and the faults are reported.
TEST_F(MemtoolFindingTest, DamagedChains) {
  constexpr std::uint64_t kSeed = 20261123;
  Random random(firstSeed(kSeed));
  std::size_t found = 0;
  for (const chainwriter::Fixture &fixture : chainwriter::allFixtures()) {
    const chainwriter::Bytes bytes = fixture.chain.file();
    for (int i = 0; i < 12; ++i) {
      SCOPED_TRACE(fixture.name + ", " + seedNote(firstSeed(kSeed)));
      std::string mutant(bytes.begin(), bytes.end());
      for (int change = 0; change < 3; ++change) {
        mutant[random.between(bytes.size() / 2, bytes.size() - 1)] =
            static_cast<char>(random.below(4) * 85);
      }
      if (random.oneIn(4)) mutant.resize(random.between(bytes.size() / 2, bytes.size()));
      writeBytes("bad.chain", mutant);
      const ToolRun plain = runTool({"chain", "bad.chain", "--json"});
      const Json whole = Json::parse(plain.out);
      const ChainModel model(whole);
      if (model.count() == 0) continue;
      const std::size_t root = random.below(model.count());
      const std::string at = textOf(spotOf(model.segment(root)));
      const ToolRun walk = runTool({"chain", "bad.chain", "--json", "--root", at});
      ASSERT_EQ(walk.code, plain.code);
      ASSERT_EQ(walk.err, plain.err);
      ASSERT_EQ(difference(model, model.chosen(root, {}, {}), model.count(), Json::parse(walk.out)),
                "");
      ASSERT_EQ(runTool({"chain", "bad.chain", "--at", at, "--data"}).code, plain.code);
      ASSERT_EQ(runTool({"chain", "bad.chain", "--svg", "o.svg", "--root", at}).code, plain.code);
      ASSERT_EQ(XmlCheck::fault(readBytes("o.svg")), "");
      const std::string anywhere = textOf({static_cast<std::uint32_t>(random.below(3)),
                                           static_cast<std::uint32_t>(random.below(1200))});
      const ToolRun other = runTool({"chain", "bad.chain", "--at", anywhere});
      ASSERT_TRUE(other.code == plain.code || other.code == 2) << other.err;
      ++found;
    }
  }
  EXPECT_GT(found, 150U);
}

// A list with an item for each block.
chainwriter::Tree longList(std::size_t items) {
  using chainwriter::Form;
  chainwriter::Tree tree;
  tree.kinds = {
      {Form::Fixed, {chainwriter::sibling(), chainwriter::child(1), chainwriter::data(600)}},
      {Form::Narrow}};
  for (std::size_t i = 0; i < items; ++i) {
    chainwriter::Node node;
    node.kind = 0;
    node.data.assign(600, 1);
    node.targets = {i + 1 < items ? 2 * i + 2 : chainwriter::kNone, 2 * i + 1};
    tree.nodes.push_back(node);
    chainwriter::Node text;
    text.kind = 1;
    text.narrow = "item " + std::to_string(i);
    tree.nodes.push_back(text);
  }
  return tree;
}

bool has(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

TEST_F(MemtoolFindingTest, PicturesBeginWhereAsked) {
  const chainwriter::Tree tree = longList(40);
  const chainwriter::Writer &writer = chainwriter::writerOf("0220");
  const chainwriter::Bytes bytes =
      chainwriter::write(tree, writer, chainwriter::smallestBlockLen(tree, writer)).file();
  writeBytes("list.chain", std::string(bytes.begin(), bytes.end()));
  const auto picture = [](std::vector<std::string> words) {
    words.insert(words.begin(), {"chain", "list.chain", "--svg", "o.svg"});
    EXPECT_EQ(outputOf(words), "o.svg: the picture is written\n");
    const std::string svg = readBytes("o.svg");
    EXPECT_EQ(XmlCheck::fault(svg), "");
    return svg;
  };
  const auto hasBlock = [](const std::string &svg, int number) {
    return has(svg, ">Block " + std::to_string(number) + "<");
  };
  const std::string first = picture({});
  EXPECT_TRUE(hasBlock(first, 0) && hasBlock(first, 23) && !hasBlock(first, 24));
  EXPECT_TRUE(has(first, ">Blocks 0 to 23 of 41 are drawn.<")) << first;

  const std::string later = picture({"--block", "30"});
  EXPECT_TRUE(!hasBlock(later, 29) && hasBlock(later, 30) && hasBlock(later, 40));
  EXPECT_TRUE(has(later, ">Blocks 30 to 40 of 41 are drawn.<"));
  EXPECT_TRUE(has(later, "&quot;item 29&quot;") || has(later, "\"item 29\"")) << later;
  EXPECT_FALSE(has(later, "version 0220<"));

  // The item before the last begins block 39.
  const std::string end = picture({"--root", "39:2"});
  EXPECT_TRUE(!hasBlock(end, 0) && !hasBlock(end, 38) && hasBlock(end, 39) && hasBlock(end, 40));
  EXPECT_TRUE(has(end,
                  ">Only what a walk from 39:2 reaches is drawn: 2 of 40 segments, in "
                  "2 blocks.<"))
      << end;
  const std::string both = picture({"--root", "5:2", "--block", "7"});
  EXPECT_TRUE(!hasBlock(both, 6) && hasBlock(both, 7) && hasBlock(both, 30) && !hasBlock(both, 31));
  EXPECT_TRUE(has(both, "36 of 40 segments, in 36 blocks, of which 24 are drawn.<")) << both;
}

// Structures that can be reached in so many steps, by the JSON alone.
std::set<std::size_t> reached(const Json &structures, std::size_t root, std::size_t depth) {
  std::set<std::size_t> all{root};
  std::set<std::size_t> ring{root};
  const std::function<void(const Json &, std::set<std::size_t> &)> add =
      [&add](const Json &fields, std::set<std::size_t> &to) {
        for (const Json &field : fields) {
          if (field["form"] == "pointer" && !field["value"].is_null()) {
            to.insert(field["value"].get<std::size_t>());
          }
          if (field["form"] == "structure") add(field["value"]["fields"], to);
        }
      };
  for (std::size_t i = 0; i < depth && !ring.empty(); ++i) {
    std::set<std::size_t> next;
    for (const std::size_t number : ring) add(structures[number - 1]["fields"], next);
    ring.clear();
    for (const std::size_t number : next) {
      if (all.insert(number).second) ring.insert(number);
    }
  }
  return all;
}

TEST_F(MemtoolFindingTest, ChosenStructuresAreThoseOfTheModel) {
  copyPortFixture("all.port");
  copyPortFixture("shop.port");
  std::filesystem::copy_file(std::filesystem::path(MEM_FIXTURES) / "catalog-sample.chain.port",
                             "catalog.port");
  for (const std::string file : {"all.port", "shop.port", "catalog.port"}) {
    const Json whole = Json::parse(outputOf({"port", file, "--json"}));
    const Json &structures = whole["structures"];
    for (std::size_t root = 1; root <= std::min<std::size_t>(structures.size(), 12); ++root) {
      for (std::size_t depth = 0; depth < 4; ++depth) {
        SCOPED_TRACE(file + " " + std::to_string(root) + " " + std::to_string(depth));
        const std::string number = std::to_string(root);
        Json wanted = Json::array();
        for (const std::size_t i : reached(structures, root, depth))
          wanted.push_back(structures[i - 1]);
        const Json got = Json::parse(
            outputOf({"port", file, "--json", "--root", number, "--depth", std::to_string(depth)}));
        ASSERT_EQ(got["structures"], wanted);
        const Json limited =
            Json::parse(outputOf({"port", file, "--json", "--root", number, "--depth",
                                  std::to_string(depth), "--limit", "1"}));
        ASSERT_EQ(limited["structures"], Json::array({wanted[0]}));
        ASSERT_EQ(limited["selection"]["leftOut"], wanted.size() - 1);
      }
    }
    const Json &first = structures[0]["structID"];
    const Json got = Json::parse(outputOf({"port", file, "--json", "--kind", first.dump()}));
    for (const Json &structure : got["structures"]) EXPECT_EQ(structure["structID"], first);
    const auto isFirst = [&](const Json &structure) { return structure["structID"] == first; };
    EXPECT_EQ(static_cast<std::ptrdiff_t>(got["structures"].size()),
              std::count_if(structures.begin(), structures.end(), isFirst));
  }
}

// What one structure leads to is a graph by itself: it can be written as a port string.
TEST_F(MemtoolFindingTest, PartsOfGraphsAreEncodedAgain) {
  copyPortFixture("shop.port");
  copyPortFixture("shop.defs.json");
  const Json whole = Json::parse(outputOf({"port", "shop.port", "--json"}));
  for (std::size_t root = 1; root <= whole["structures"].size(); ++root) {
    SCOPED_TRACE(root);
    writeBytes("part.json", outputOf({"port", "shop.port", "--defs", "shop.defs.json", "--json",
                                      "--root", std::to_string(root)}));
    outputOf({"port", "--encode", "part.json", "--defs", "shop.defs.json", "-o", "part.port"});
    const Json part = Json::parse(outputOf({"port", "part.port", "--json"}));
    EXPECT_EQ(part["structures"].size(), reached(whole["structures"], root, 1000).size());
    EXPECT_EQ(part["structures"][0]["structID"], whole["structures"][root - 1]["structID"]);
  }
  const std::string shown = outputOf(
      {"port", "shop.port", "--defs", "shop.defs.json", "--kind", "Order", "--limit", "1"});
  EXPECT_TRUE(has(shown, "Order (StructID ")) << shown;
  EXPECT_TRUE(has(shown, " more (--limit 1)\n")) << shown;
}

TEST_F(MemtoolFindingTest, PortPicturesBeginWhereAsked) {
  copyPortFixture("shop.port");
  outputOf({"port", "shop.port", "--svg", "o.svg", "--root", "2"});
  const std::string svg = readBytes("o.svg");
  EXPECT_EQ(XmlCheck::fault(svg), "");
  EXPECT_TRUE(has(svg, "; drawn is what 2 leads to, ")) << svg;
  EXPECT_TRUE(has(svg, ">2  StructID "));
}

}  // namespace
}  // namespace memtest
