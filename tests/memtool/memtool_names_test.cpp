// memtool chain --defs: chains with names and typed values, and definitions that are wrong.

#include <bit>
#include <cstring>

#include "chaindefsjson.hpp"
#include "chainfixtures.hpp"
#include "memtooltest.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

using chainwriter::Tree;
using chainwriter::Writer;

std::filesystem::path fixture(const std::string &name) {
  return std::filesystem::path(MEM_FIXTURES) / name;
}

void writeChain(const std::string &name, const Tree &tree, const Writer &writer,
                std::size_t blockLen) {
  const chainwriter::Bytes bytes = chainwriter::write(tree, writer, blockLen).file();
  writeBytes(name, std::string(bytes.begin(), bytes.end()));
}

class MemtoolNamesTest : public ToolTest {
 protected:
  MemtoolNamesTest() {
    std::filesystem::copy_file(fixture("memtool/items.chain"), "items.chain");
    std::filesystem::copy_file(fixture("memtool/chain/items.defs.json"), "items.defs.json");
    std::filesystem::copy_file(fixture("catalog-sample.chain"), "catalog.chain");
    std::filesystem::copy_file(std::filesystem::path(MEM_EXAMPLES) / "catalog.chain.json",
                               "catalog.defs.json");
  }

  // The definitions of the items with one text replaced.
  static std::string changedDefs(std::string_view from, std::string_view to) {
    std::string json = readBytes("items.defs.json");
    const std::size_t at = json.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return json.replace(at, from.size(), to);
  }

  static Json graphOf(const std::string &chain, const std::string &defs) {
    return Json::parse(outputOf({"chain", chain, "--defs", defs, "--json"}));
  }
};

TEST_F(MemtoolNamesTest, ItemsInWords) {
  EXPECT_EQ(outputOf({"chain", "items.chain", "--defs", "items.defs.json"}),
            "items.chain: 1,080 bytes in 2 blocks, 2 segments and 4 texts\n"
            "little-endian, pointers of 8 bytes, wide characters of 2 bytes, ASCII\n"
            "\n"
            "1  Item, 32 bytes at 0:984\n"
            "    next     sibling    -> 2\n"
            "    code     text       \"ab\"\n"
            "    title    wide text  \"Zug\"\n"
            "    related  reference  null\n"
            "\n"
            "2  Item, 32 bytes at 1:2\n"
            "    next     sibling    null\n"
            "    code     text       \"c\"\n"
            "    title    wide text  \"\u00E9\"\n"
            "    related  reference  -> 1\n");
}

TEST_F(MemtoolNamesTest, ItemsAsGraph) {
  const Json wanted = Json::parse(R"({"root": "1", "structures": [
    {"label": "1", "structure": "Item",
     "fields": {"next": "2", "code": "ab", "title": "Zug", "related": null}},
    {"label": "2", "structure": "Item",
     "fields": {"next": null, "code": "c", "title": "é", "related": "1"}}]})");
  EXPECT_EQ(graphOf("items.chain", "items.defs.json"), wanted);
}

TEST_F(MemtoolNamesTest, CatalogueHasItsNames) {
  const Json graph = graphOf("catalog.chain", "catalog.defs.json");
  ASSERT_EQ(graph["structures"].size(), 72U);
  const Json &package = graph["structures"][0];
  EXPECT_EQ(package["structure"], "Package");
  EXPECT_EQ(package["fields"]["name"], "base-files");
  EXPECT_EQ(package["fields"]["dependencyCount"], 1);
  EXPECT_EQ(package["fields"]["+44"], "00000000") << "what is not defined is shown as bytes";
  const Json &dependency = graph["structures"][1];
  EXPECT_EQ(package["fields"]["dependencies"], dependency["label"]);
  EXPECT_EQ(dependency["structure"], "Dependency");
  EXPECT_EQ(dependency["fields"]["name"], "awk");
  EXPECT_EQ(outputOf({"chain", "catalog.chain", "--defs", "catalog.defs.json", "--check"}),
            "catalog.chain: valid, 72 segments and 157 texts in 1 block\n");
}

// A segment with a value of every type, as each writer lays it out.
struct TypedRecord {
  chainwriter::Bytes bytes;
  Json fields = Json::array();
  Json values = Json::object();

  explicit TypedRecord(const Writer &writer) : writer_(writer) {}

  void add(const char *type, std::size_t length, std::uint64_t bits, const Json &value) {
    addField(type, value);
    putNumber(bits, length);
  }
  void addText(const char *type, const chainwriter::Bytes &text, const Json &value) {
    addField(type, value);
    fields.back()["length"] = text.size();
    bytes.insert(bytes.end(), text.begin(), text.end());
  }
  void putNumber(std::uint64_t bits, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
      const std::size_t shift = 8 * (writer_.isBigEndian ? length - 1 - i : i);
      bytes.push_back(static_cast<std::uint8_t>(bits >> shift));
    }
  }
  void addField(const char *type, const Json &value) {
    const std::string name = type + std::to_string(fields.size());
    fields.push_back(
        {{"id", fields.size() + 1}, {"name", name}, {"type", type}, {"offset", bytes.size()}});
    values[name] = value;
  }

 private:
  const Writer &writer_;
};

chainwriter::Bytes wideBytes(const Writer &writer, std::u32string_view text) {
  TypedRecord record(writer);
  for (const char32_t unit : text) record.putNumber(unit, writer.wideSize);
  return record.bytes;
}

TypedRecord everyType(const Writer &writer) {
  TypedRecord record(writer);
  record.add("SByte", 1, 0xFE, -2);
  record.add("UByte", 1, 0xFE, 254);
  record.add("Short", 2, 0xFFFE, -2);
  record.add("UShort", 2, 0xFFFE, 65534);
  record.add("Long", 4, 0xFFFFFFFE, -2);
  record.add("ULong", 4, 0x80000001, 2147483649U);
  record.add("BigInt", 8, 0x8000000000000000, "-9223372036854775808");
  record.add("UBigInt", 8, 0xFFFFFFFFFFFFFFFF, "18446744073709551615");
  record.add("UBigInt", 8, 7, "7");
  record.add("Float", 4, std::bit_cast<std::uint32_t>(-1.5F), -1.5);
  record.add("Double", 8, std::bit_cast<std::uint64_t>(0.1), 0.1);
  record.add("Bit", 1, 0x81, 129);
  record.addText("Bin", {0x1F, 0xA0, 0x00}, "1FA000");
  const bool isEbcdic = writer.isEbcdic;  // "AB " and "A" in either code
  record.addText(
      "Char", isEbcdic ? chainwriter::Bytes{0xC1, 0xC2, 0x40} : chainwriter::Bytes{'A', 'B', ' '},
      "AB ");
  record.addText("CharSZ",
                 isEbcdic ? chainwriter::Bytes{0xC1, 0, 9} : chainwriter::Bytes{'A', 0, 9}, "A");
  record.addText("WChar", wideBytes(writer, U"\u00C4 "), "\u00C4 ");
  record.addText("WCharSZ", wideBytes(writer, std::u32string_view(U"\u65E5\0\0", 3)), "\u65E5");
  record.addField("Short", Json::array({1, -1, 300}));
  record.fields.back()["count"] = 3;
  for (const std::uint64_t number : {1U, 0xFFFFU, 300U}) record.putNumber(number, 2);
  return record;
}

// The record is all of a fixed segment, or what follows the length in one that holds it.
class MemtoolTypesTest : public MemtoolNamesTest, public ::testing::WithParamInterface<Writer> {};

TEST_P(MemtoolTypesTest, EveryTypeInEveryWritersOrder) {
  const Writer &writer = GetParam();
  const TypedRecord record = everyType(writer);
  for (const chainwriter::Form form :
       {chainwriter::Form::Fixed, chainwriter::Form::Counted, chainwriter::Form::SelfDescribing}) {
    const std::size_t start = form == chainwriter::Form::Fixed ? 0 : 2;
    Tree tree;
    tree.kinds = {{form, {chainwriter::data(record.bytes.size()), chainwriter::child(1)}},
                  {chainwriter::Form::Narrow}};
    tree.nodes = {{0, record.bytes, {1}}, {1, {}, {}, "text"}};
    writeChain("in", tree, writer, chainwriter::smallestBlockLen(tree, writer) + 300);
    Json fields = record.fields;
    for (Json &field : fields) field["offset"] = field["offset"].get<std::size_t>() + start;
    fields.push_back(
        {{"id", 99}, {"name", "text"}, {"type", "PStr"}, {"offset", record.bytes.size() + start}});
    Json kind{{"id", 1}, {"name", "Record"}, {"segment", letterOf(form)}, {"fields", fields}};
    if (start == 0) kind["length"] = record.bytes.size() + writer.pointerWidth;
    const Json defs{{"pointers", writer.pointerWidth}, {"structures", Json::array({kind})}};
    writeBytes("defs.json", defs.dump());
    Json values = record.values;
    values["text"] = "text";
    const Json graph = graphOf("in", "defs.json");
    ASSERT_EQ(graph["structures"].size(), 1U);
    EXPECT_EQ(graph["structures"][0]["fields"], values) << graph["structures"][0]["fields"].dump(1);
  }
}

INSTANTIATE_TEST_SUITE_P(Writers, MemtoolTypesTest, ::testing::ValuesIn(chainwriter::allWriters()),
                         [](const ::testing::TestParamInfo<Writer> &row) {
                           return row.param.name();
                         });

// A chain of one segment that holds its length: the number, then the bytes.
void writeCounted(const std::string &name, const chainwriter::Bytes &bytes) {
  Tree tree;
  tree.kinds = {{chainwriter::Form::Counted, {}}};
  tree.nodes = {{0, bytes, {}}};
  writeChain(name, tree, chainwriter::writerOf("0220"), 1200);
}

TEST_F(MemtoolNamesTest, SegmentsOfVaryingLength) {
  const auto fieldsOf = [](const chainwriter::Bytes &bytes, const Json &fields) {
    writeCounted("in", bytes);
    writeBytes("defs.json",
               Json{{"structures", {{{"id", 1}, {"segment", "C"}, {"fields", fields}}}}}.dump());
    return graphOf("in", "defs.json")["structures"][0]["fields"];
  };
  const Json count{{"id", 1}, {"name", "count"}, {"type", "Short"}, {"offset", 0}};
  const Json number{{"id", 2}, {"name", "number"}, {"type", "Long"}, {"offset", 2}};
  const auto toEnd = [](const char *type) {
    return Json{{"id", 3}, {"name", "rest"}, {"type", type}, {"offset", 6}, {"toEnd", true}};
  };
  EXPECT_EQ(fieldsOf({}, {count, number}), Json({{"count", 0}}));
  EXPECT_EQ(fieldsOf({1, 2, 3}, {count, number}), Json({{"count", 3}, {"+2", "010203"}}))
      << "a field that the segment's end cuts is bytes";
  EXPECT_EQ(fieldsOf({1, 0, 0, 0}, {number, toEnd("Bin")}), Json({{"number", 1}, {"rest", ""}}));
  EXPECT_EQ(fieldsOf({1, 0, 0, 0, 'h', 'i'}, {number, toEnd("Char")}),
            Json({{"number", 1}, {"rest", "hi"}}));
  EXPECT_EQ(fieldsOf({1, 0, 0, 0, 'h', 0}, {number, toEnd("CharSZ")}),
            Json({{"number", 1}, {"rest", "h"}}));
  EXPECT_EQ(fieldsOf({1, 0, 0, 0, 5, 0, 6, 0, 7}, {number, toEnd("UShort")}),
            Json({{"number", 1}, {"rest", {5, 6}}, {"+10", "07"}}));
  EXPECT_EQ(fieldsOf({1, 0, 0, 0, 5}, Json::array({number})), Json({{"number", 1}, {"+6", "05"}}));
}

// What a type cannot be is shown as bytes.
TEST_F(MemtoolNamesTest, ValuesThatCannotBe) {
  const float notANumber = std::numeric_limits<float>::quiet_NaN();
  chainwriter::Bytes bytes(4);
  std::memcpy(bytes.data(), &notANumber, sizeof notANumber);
  bytes.insert(bytes.end(), {'n', 'o', 'e', 'n', 'd'});
  writeCounted("in", bytes);
  writeBytes("defs.json", R"({"structures": [{"id": 1, "segment": "C", "fields": [
    {"id": 1, "name": "number", "type": "Float", "offset": 2},
    {"id": 2, "name": "text", "type": "CharSZ", "offset": 6, "length": 3},
    {"id": 3, "name": "wide", "type": "WChar", "offset": 6, "length": 3}]}]})");
  const Json fields = graphOf("in", "defs.json")["structures"][0]["fields"];
  EXPECT_EQ(fields.size(), 1U);
  EXPECT_EQ(fields["+2"], "0000C07F6E6F656E64");
}

// Only the first kind is defined, and of it a number only.
TEST_F(MemtoolNamesTest, KindsWithoutDefinitionAreShownAsTheyAre) {
  writeBytes("defs.json", R"({"structures": [{"id": 7, "length": 48, "fields": [
    {"id": 1, "name": "number", "type": "ULong", "offset": 40}]}]})");
  const Json graph = graphOf("catalog.chain", "defs.json");
  const Json &package = graph["structures"][0];
  EXPECT_EQ(package["structure"], 7);
  EXPECT_EQ(package["fields"]["+0"], Json({{"pointer", "3"}}));
  EXPECT_EQ(package["fields"]["+8"], Json({{"pointer", "base-files"}}));
  EXPECT_EQ(package["fields"]["number"], 1);
  const Json &dependency = graph["structures"][1];
  EXPECT_EQ(dependency["kind"], 1);
  EXPECT_EQ(dependency["fields"]["+32"], "0100000000000000");
  const std::string out = outputOf({"chain", "catalog.chain", "--defs", "defs.json"});
  EXPECT_NE(out.find("1  StructID 7, 48 bytes at 0:984\n"
                     "    +0      sibling    -> 3\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("2  kind 1, 40 bytes at 0:1184\n"), std::string::npos) << out;
}

TEST_F(MemtoolNamesTest, DefinitionsThatAreNotOfTheChain) {
  struct Row {
    const char *from;
    const char *to;
    const char *message;
  };
  const Row rows[] = {
      {"\"pointers\": 8", "\"pointers\": 4",
       "items.chain has pointers of 8 bytes (line 2, column 15)"},
      {"\"length\": 32", "\"length\": 40", "kind 0 has 32 bytes (line 5, column 42)"},
      {"\"length\": 32", "\"segment\": \"C\"", "are the segment's length, a Short"},
      {"\"segment\": \"W\"}", "\"segment\": \"V\", \"fields\": []}",
       "kind 2 is of type W (wide text) (line 14, column 5)"},
      {"\"segment\": \"W\"}",
       "\"segment\": \"W\"}, {\"id\": 9, \"segment\": \"D\", \"fields\": []}",
       "it has 3 kinds (line 14, column 32)"},
      {"\"type\": \"PStr\"", "\"type\": \"WPStr\"", "the child at offset 8 is of kind 1 (text)"},
      {"\"type\": \"PStr\"", "\"type\": \"Pnt\", \"structure\": \"Item\"",
       "the child at offset 8 is of kind 1 (text) (line 8, column 9)"},
      {"\"type\": \"PStr\"", "\"type\": \"BigInt\"", "a pointer is at offset 8 (line 8, column 9)"},
      {", \"reference\": true", "", "the pointer at offset 24 is a reference (line 10, column 9)"},
      {", \"next\": \"next\"", "", "the pointer at offset 0 is a sibling (line 7, column 9)"},
      {"\"offset\": 0", "\"offset\": 0, \"reference\": true",
       "the pointer to the next segment must not be a reference"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.to);
    writeBytes("defs.json", changedDefs(row.from, row.to));
    expectRefused(1, row.message, {"chain", "items.chain", "--defs", "defs.json"});
    expectRefused(1, "defs.json: ", {"chain", "items.chain", "--defs", "defs.json", "--json"});
    expectRefused(1, "(line ", {"chain", "items.chain", "--defs", "defs.json", "--check"});
  }
  // A pointer where the control block has none.
  writeBytes("defs.json", R"({"structures": [{"id": 1, "length": 48, "fields": [
    {"id": 1, "type": "PStr", "offset": 40}]}]})");
  expectRefused(1, "no pointer is at offset 40 (line 2, column 5)",
                {"chain", "catalog.chain", "--defs", "defs.json"});
}

TEST_F(MemtoolNamesTest, PointersOfAnotherWidth) {
  writeBytes("defs.json", R"({"pointers": 8, "structures": [
    {"id": 1, "length": 400, "fields": []}]})");
  expectRefused(1, "defs.json: pointers: ",
                {"chain", fixture("chains/0220_32bit.chain").string(), "--pointers", "4", "--defs",
                 "defs.json"});
  // They decide it where the control block does not show it.
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {chainwriter::child(1), chainwriter::child(1)}},
                {chainwriter::Form::Narrow}};
  tree.nodes = {{0, {}, {1, chainwriter::kNone}}, {1, {}, {}, "text"}};
  writeChain("in", tree, chainwriter::writerOf("0220", 8), 2000);
  writeBytes("defs.json", R"({"pointers": 4, "structures": [
    {"id": 1, "length": 16, "fields": []}]})");
  const std::string out = outputOf({"chain", "in", "--defs", "defs.json"});
  EXPECT_NE(out.find("pointers of 4 bytes"), std::string::npos) << out;
}

// By themselves, before any chain is looked at.
TEST_F(MemtoolNamesTest, WrongDefinitions) {
  struct Row {
    const char *json;
    const char *message;
  };
  const Row rows[] = {
      {"{", "no JSON from byte 1 on (line 1, column 2)"},
      {"[]", "expected an object (line 1, column 1)"},
      {R"({"pointers": 8})", "\"structures\" is missing"},
      {R"({"structures": []})", "structures: no structure is defined (line 1, column 16)"},
      {R"({"structures": 1})", "structures: expected an array"},
      {R"({"kinds": []})", "unknown key \"kinds\""},
      {R"({"root": "1", "structures": []})",
       "defs.json: unknown key \"root\": this is a graph, not definitions (line 1, column 1)"},
      {R"({"structures": [{"label": "1", "structure": "A", "fields": {}}]})",
       "structures[0]: unknown key \"label\": this is a graph, not definitions"},
      {R"({"structures": [{"id": 1, "length": 8, "countField": 1, "fields": []}]})",
       "structures[0]: unknown key \"countField\": these definitions are for port strings, not for "
       "packed chains"},
      {R"({"structures": [{"id": 1, "length": 8, "countIsLength": true, "fields": []}]})",
       "unknown key \"countIsLength\": these definitions are for port strings"},
      {R"({"structures": [], "structures": []})",
       "defs.json: the key \"structures\" appears a second time (line 1, column 20)"},
      {R"({"pointers": 6, "structures": []})", "pointers have 4 or 8 bytes (line 1, column 14)"},
      {R"({"structures": [{"id": 1}]})", "structures[0]: \"length\" is missing"},
      {R"({"structures": [{"id": 1, "length": 0}]})", "from 1 to 65535"},
      {R"({"structures": [{"id": 1, "length": 4}]})", "\"fields\" is missing"},
      {R"({"structures": [{"id": 1, "segment": "FF", "length": 4}]})", "one letter, or a number"},
      {R"({"structures": [{"id": 0, "segment": "S"}]})", "from 1 to 2147483647"},
      {R"({"structures": [{"id": 1, "segment": "S"}, {"id": 1, "segment": "W"}]})",
       "structures[1]: a second structure with the id 1 (line 1, column 44)"},
      {R"({"structures": [{"id": 1, "name": "A", "segment": "S"},
                          {"id": 2, "name": "A", "segment": "W"}]})",
       "a second structure A"},
      {R"({"structures": [{"id": 1, "name": "7", "segment": "S"}]})", "a name must not be"},
      {R"({"structures": [{"id": 1, "segment": "S", "fields": []}]})", "text has no fields"},
      {R"({"structures": [{"id": 1, "segment": "S", "next": [[]]}]})", "text has no next segment"},
      {R"({"structures": [{"id": 1, "length": 8, "next": "a", "fields": []}]})",
       "expected a Pnt of this structure to the same structure"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.json);
    writeBytes("defs.json", row.json);
    expectRefused(1, row.message, {"chain", "items.chain", "--defs", "defs.json"});
  }
  const Row fields[] = {
      {R"({"id": 1, "type": "Long"})", "\"offset\" is missing"},
      {R"({"name": "a", "type": "Long", "offset": 0})", "\"id\" is missing"},
      {R"({"id": 1, "type": "Int", "offset": 0})", "unknown type; there are Char, CharSZ"},
      {R"({"id": 1, "type": "Substructure", "offset": 0})",
       "only port strings have this type; there are Char, CharSZ"},
      {R"({"id": 1, "name": "+1", "type": "Long", "offset": 0})", "must not begin with +"},
      {R"({"id": 1, "type": "Long", "offset": 29})", "4 bytes at 29 exceed the segment's 32"},
      {R"({"id": 1, "type": "Long", "offset": 0, "length": 8})", "from 4 to 4"},
      {R"({"id": 1, "type": "Char", "offset": 0})", "\"length\" is missing"},
      {R"({"id": 1, "type": "Bin", "offset": 0})", "\"length\" is missing"},
      {R"({"id": 1, "type": "Char", "offset": 0, "length": 4, "count": 2})",
       "only numbers have this key"},
      {R"({"id": 1, "type": "Long", "offset": 0, "count": 9})", "36 bytes at 0 exceed"},
      {R"({"id": 1, "type": "Long", "offset": 0, "toEnd": true})",
       "only a segment that begins with its length has a varying end"},
      {R"({"id": 1, "type": "Long", "offset": 0, "reference": true})",
       "only pointers have this key"},
      {R"({"id": 1, "type": "Pnt", "offset": 0})", "\"structure\" is missing"},
      {R"({"id": 1, "type": "Pnt", "offset": 0, "structure": 5})", "no such structure"},
      {R"({"id": 1, "type": "Pnt", "offset": 0, "structure": 2})",
       "a pointer to text has the type PStr or WPStr"},
      {R"({"id": 1, "type": "Pnt", "offset": 0, "structure": 1, "count": 8})",
       "pointers do not have this key"},
      {R"({"id": 1, "type": "PStr", "offset": 0, "reference": true})",
       "only a Pnt can be a reference"},
      {R"({"id": 1, "type": "PStr", "offset": 0, "structure": 1})", "PStr leads to text"},
      {R"({"id": 1, "type": "PStr", "offset": 26})", "8 bytes at 26 exceed"},
      {R"({"id": 1, "name": "a", "type": "PStr", "offset": 0}, {"id": 2, "type": "Long", "offset": 7})",
       "the field overlaps the pointer a"},
      {R"({"id": 1, "type": "Long", "offset": 0}, {"id": 1, "name": "b", "type": "Long", "offset": 8})",
       "fields[1]: the ids of fields must ascend"},
      {R"({"id": 1, "name": "a", "type": "Long", "offset": 0}, {"id": 2, "name": "a", "type": "Long", "offset": 8})",
       "fields[1]: a second field a"},
  };
  for (const Row &row : fields) {
    SCOPED_TRACE(row.json);
    writeBytes("defs.json",
               "{\"pointers\": 8, \"structures\": [{\"id\": 1, \"length\": 32, \"fields\": [\n" +
                   std::string(row.json) + "]}, {\"id\": 2, \"segment\": \"S\"}]}");
    expectRefused(1, row.message, {"chain", "items.chain", "--defs", "defs.json"});
    expectRefused(1, "(line 2, column ", {"chain", "items.chain", "--defs", "defs.json"});
  }
}

TEST_F(MemtoolNamesTest, DamagedChainsAreShownAsFarAsTheyGo) {
  std::string bytes = readBytes("items.chain");
  bytes[984] = 7;  // the block of the first sibling
  writeBytes("damaged.chain", bytes);
  const ToolRun run = runTool({"chain", "damaged.chain", "--defs", "items.defs.json", "--json"});
  EXPECT_EQ(run.code, 1);
  EXPECT_TRUE(isOneLine(run.err)) << run.err;
  const Json graph = Json::parse(run.out);
  ASSERT_EQ(graph["structures"].size(), 1U);
  EXPECT_EQ(graph["structures"][0]["fields"]["next"], Json({{"fault", "7:2"}}));
  EXPECT_EQ(graph["structures"][0]["fields"]["code"], "ab");
  EXPECT_EQ(graph["faults"].size(), 1U);
  const ToolRun text = runTool({"chain", "damaged.chain", "--defs", "items.defs.json"});
  EXPECT_EQ(text.code, 1);
  EXPECT_NE(text.out.find("next     sibling    7:2  (a fault)"), std::string::npos) << text.out;
}

// The control block does not say where references lead; definitions may.
TEST_F(MemtoolNamesTest, ReferencesToAnotherKind) {
  std::string json = readBytes("catalog.defs.json");
  const std::string from = R"("structure": "Package", "reference": true)";
  json.replace(json.find(from), from.size(), R"("structure": "Dependency", "reference": true)");
  writeBytes("defs.json", json);
  const ToolRun run = runTool({"chain", "catalog.chain", "--defs", "defs.json", "--json"});
  EXPECT_EQ(run.code, 1);
  EXPECT_EQ(run.err,
            "memtool: catalog.chain: the reference package of the Dependency at 0:1500 leads to a "
            "Package, not to a Dependency\n");
  EXPECT_TRUE(Json::accept(run.out));

  const ToolRun check =
      runTool({"chain", "catalog.chain", "--defs", "defs.json", "--check", "--json"});
  EXPECT_EQ(check.code, 1);
  EXPECT_EQ(check.err, run.err);
  const Json checked = Json::parse(check.out);
  EXPECT_EQ(checked["isSound"], false);
  ASSERT_EQ(checked["faults"].size(), 1U);
  Json fault = checked["faults"][0];
  EXPECT_EQ(fault["block"], 0);
  EXPECT_EQ(fault["offset"], 1500 + 24);
  EXPECT_EQ(fault["fileOffset"], 1500 + 24);
  const std::string what = fault["what"];
  EXPECT_EQ(run.err, "memtool: catalog.chain: " + what + "\n");
  fault["code"] = nullptr;
  fault["library"] = {{"wasAsked", false}, {"whyNot", "the library does not know the definitions"}};
  EXPECT_EQ(checked["fault"], fault);

  const Json sound = Json::parse(
      outputOf({"chain", "catalog.chain", "--defs", "catalog.defs.json", "--check", "--json"}));
  EXPECT_EQ(sound["isSound"], true);
  EXPECT_EQ(sound["faults"], Json::array());
}

// A text that many pointers share is written with each of them.
TEST_F(MemtoolNamesTest, SharedTextsWithoutEnd) {
  constexpr std::size_t kSegments = 36000;
  Tree tree;
  tree.kinds = {{chainwriter::Form::Fixed, {chainwriter::sibling(), chainwriter::child(1)}},
                {chainwriter::Form::Narrow}};
  for (std::size_t i = 0; i < kSegments; ++i) {
    tree.nodes.push_back({0, {}, {i + 1 < kSegments ? i + 1 : chainwriter::kNone, kSegments}});
  }
  tree.nodes.push_back({1, {}, {}, std::string(30000, 'x')});
  writeChain("in", tree, chainwriter::writerOf("0220"), 65000);
  writeBytes("defs.json", R"({"pointers": 8, "structures": [{"id": 1, "length": 16, "fields": [
    {"id": 1, "name": "text", "type": "PStr", "offset": 8}]}]})");
  expectRefused(1, "the texts would take 1,080,036,000 bytes",
                {"chain", "in", "--defs", "defs.json", "--json"});
}

// Filters choose by name as by number, and what is shown is as in the whole.
TEST_F(MemtoolNamesTest, FiltersChooseByName) {
  const Json whole = graphOf("catalog.chain", "catalog.defs.json");
  const std::vector<std::string> words = {"chain", "catalog.chain", "--defs", "catalog.defs.json",
                                          "--json"};
  for (const std::string kind : {"Dependency", "1"}) {
    std::vector<std::string> filtered = words;
    filtered.insert(filtered.end(), {"--kind", kind, "--limit", "3"});
    const Json shown = Json::parse(outputOf(filtered));
    std::size_t matching = 0;
    std::vector<Json> expected;
    for (const Json &structure : whole["structures"]) {
      if (structure["structure"] != "Dependency") continue;
      if (++matching <= 3) expected.push_back(structure);
    }
    ASSERT_GT(matching, 3U);
    EXPECT_EQ(shown["structures"], Json(expected)) << kind;
    const Json selection{{"matching", matching}, {"shown", 3}, {"leftOut", matching - 3}};
    EXPECT_EQ(shown["selection"], selection);
    EXPECT_FALSE(shown.contains("root"));
  }
  std::vector<std::string> around = words;
  const std::string place = "0:1184";  // of a Dependency, as the list in words has it
  around.insert(around.end(), {"--root", place});
  const Json graph = Json::parse(outputOf(around));
  EXPECT_EQ(graph["root"], graph["structures"][0]["label"]);
  EXPECT_EQ(graph["structures"][0]["structure"], "Dependency");
  EXPECT_LT(graph["structures"].size(), whole["structures"].size());
}

TEST_F(MemtoolNamesTest, Arguments) {
  expectRefused(2, "chain needs a FILE", {"chain"});
  expectRefused(2, "--output goes with --encode", {"chain", "items.chain", "-o", "out"});
  expectRefused(2, "--defs does not go with --svg",
                {"chain", "items.chain", "--defs", "items.defs.json", "--svg", "out"});
  expectRefused(2, "--data does not go with --defs",
                {"chain", "items.chain", "--defs", "items.defs.json", "--data", "--json"});
  expectRefused(3, "none.json", {"chain", "items.chain", "--defs", "none.json"});
}

Json mended(const Json &value) {
  if (!value.is_structured()) return value;
  if (value.contains("fault")) return nullptr;
  const bool isCut = value.is_object() && value.value("isCut", false);
  Json made = value;
  if (isCut) made.erase("isCut");
  for (auto &[key, member] : made.items()) member = mended(member);
  if (!isCut) return made;
  Json fields = Json::object();
  for (const auto &[key, member] : made["fields"].items()) {
    if (!key.starts_with("+")) fields[key] = member;
  }
  made["fields"] = fields;
  return made;
}

// What save.jq of the page does with the JSON of a damaged chain.
std::string savedJson(const std::string &shown) {
  Json graph = Json::parse(shown);
  graph.erase("faults");
  return mended(graph).dump();
}

// The page's examples, as they are there.
TEST_F(MemtoolNamesTest, ManualShowsWhatTheProgramWrites) {
  const std::string page = readBytes(std::filesystem::path(MEM_DOCS) / "memtool-chain-names.md");
  const auto expectShown = [&](const std::string &text) {
    EXPECT_NE(page.find(text), std::string::npos) << text;
  };
  const std::string json =
      outputOf({"chain", "items.chain", "--defs", "items.defs.json", "--json"});
  expectShown("```json\n" + readBytes("items.defs.json") + "```\n");
  expectShown("$ memtool chain items.chain --defs items.defs.json\n" +
              outputOf({"chain", "items.chain", "--defs", "items.defs.json"}) + "```\n");
  expectShown("$ memtool chain items.chain --defs items.defs.json --json\n" +
              json.substr(0, json.find("    },\n") + 7));
  writeBytes("items.json", json);
  expectShown("$ memtool chain --encode items.json --defs items.defs.json -o again.chain\n" +
              outputOf({"chain", "--encode", "items.json", "--defs", "items.defs.json", "-o",
                        "again.chain"}));
  writeBytes("short.chain", readBytes("items.chain").substr(0, 1060));
  const ToolRun damaged = runTool({"chain", "short.chain", "--defs", "items.defs.json", "--json"});
  writeBytes("saved.json", savedJson(damaged.out));
  expectShown("$ memtool chain --encode saved.json --defs items.defs.json -o saved.chain\n" +
              outputOf({"chain", "--encode", "saved.json", "--defs", "items.defs.json", "-o",
                        "saved.chain"}));
  writeBytes("other.defs.json", changedDefs("\"length\": 32", "\"length\": 40"));
  expectShown("$ memtool chain items.chain --defs other.defs.json\n" +
              runTool({"chain", "items.chain", "--defs", "other.defs.json"}).err);
}

// Definitions of port strings describe segments as far as these have no further pointers.
TEST_F(MemtoolNamesTest, KeysOfPortStringsMeanNothing) {
  writeBytes("defs.json", R"({"structures": [{"id": 1, "name": "P", "length": 48, "fields": [
    {"id": 6, "name": "n", "type": "ULong", "offset": 40, "required": true, "noTruncate": false,
     "notPorted": false, "default": 5}]}]})");
  EXPECT_EQ(graphOf("catalog.chain", "defs.json")["structures"][0]["fields"]["n"], 1);
}

// Half of the time one digit becomes another one, which leaves JSON that parses.
std::string damagedJson(std::string bytes, Random &random) {
  constexpr char kLikely[] = "0123456789{}[]\",:-e. \\ntf";
  if (random.oneIn(2)) {
    const std::size_t at = random.below(bytes.size());
    const std::size_t digit = std::min(bytes.find_first_of("0123456789", at), bytes.size() - 1);
    if (bytes[digit] >= '0' && bytes[digit] <= '9') bytes[digit] = kLikely[random.below(10)];
    return bytes;
  }
  const std::size_t at = random.below(bytes.size());
  switch (random.below(3)) {
    case 0:
      bytes[at] = kLikely[random.below(sizeof kLikely - 1)];
      break;
    case 1:
      bytes.erase(at, random.between(1, 12));
      break;
    default:
      bytes.insert(at, bytes.substr(random.below(bytes.size()), random.between(1, 30)));
  }
  return bytes;
}

TEST_F(MemtoolNamesTest, DamagedDefinitionsAndChains) {
  constexpr std::size_t kMutants = 600;
  constexpr std::size_t kRoot = 984;  // the bytes before it are the control block and the version
  Random random(firstSeed(20261122));
  SCOPED_TRACE(seedNote(firstSeed(20261122)));
  const Tree tree = chainwriter::sampleTree();
  const std::string defs = chainDefinitionsJson(tree, 8).dump(1);
  const std::string path = fixture("chains/0221_64bit.chain").string();
  const std::string chain = readBytes(path);
  writeBytes("valid.json", defs);
  std::size_t taken = 0;
  std::size_t savedChains = 0;
  for (std::size_t i = 0; i < kMutants; ++i) {
    SCOPED_TRACE("mutant " + std::to_string(i));
    writeBytes("defs.json", damagedJson(defs, random));
    const ToolRun run = runTool({"chain", path, "--defs", "defs.json", "--json"});
    ASSERT_TRUE(run.code == 0 || run.code == 1) << run.err;
    ASSERT_TRUE(run.err.empty() == (run.code == 0)) << run.err;
    ASSERT_TRUE(run.code != 0 || Json::accept(run.out));
    taken += run.code == 0 ? 1U : 0U;

    std::string damaged = chain;
    for (std::size_t k = random.between(1, 3); k > 0; --k) {
      damaged[random.below(damaged.size())] = static_cast<char>(random.below(256));
    }
    writeBytes("bad", damaged);
    const ToolRun shown = runTool({"chain", "bad", "--defs", "valid.json", "--json"});
    ASSERT_TRUE(shown.code == 0 || shown.code == 1) << shown.err;
    ASSERT_TRUE(areLines(shown.err)) << shown.err;
    ASSERT_TRUE(shown.out.empty() || Json::accept(shown.out)) << shown.out;
    // A damaged control block describes other segments than the definitions.
    const bool isDescribed = damaged.compare(0, kRoot, chain, 0, kRoot) == 0;
    if (isDescribed && shown.code == 1) {
      writeBytes("saved.json", savedJson(shown.out));
      const ToolRun made =
          runTool({"chain", "--encode", "saved.json", "--defs", "valid.json", "-o", "saved.chain"});
      ASSERT_EQ(made.code, 0) << made.err << shown.err;
      ++savedChains;
    }
    if (HasFailure()) return;
  }
  EXPECT_GT(taken, kMutants / 50);
  EXPECT_LT(taken, kMutants);
  EXPECT_GT(savedChains, kMutants / 50);
}

}  // namespace
}  // namespace memtest
