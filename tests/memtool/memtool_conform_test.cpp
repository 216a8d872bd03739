// memtool conform: its verdict against the library. Texts are written with the old definitions and
// read with the new ones: a refusal that it foretells is shown by a text, and what it calls read
// the library reads.

#include <functional>
#include <map>
#include <optional>

#include "memtest.hpp"
#include "memtooltest.hpp"
#include "port_conform.hpp"
#include "port_decode.hpp"
#include "port_encode.hpp"
#include "port_heap.hpp"
#include "port_report.hpp"
#include "randomrun.hpp"
#include "tool_library.hpp"

namespace memtest {
namespace {

class MemtoolConformTest : public ToolTest {
 protected:
  MemtoolConformTest() : console_(sink_, sink_, {}), library_({}) {}

  // "" when the library reads the text, else its reason.
  std::string refusal(const memtool::PortDefinitions &definitions, const std::string &text) {
    const memtool::PortHeap heap(library_);
    const memtool::PortHeapWatch watch(library_, heap);
    memtool::PortMessages messages(library_);
    void *root = nullptr;
    const std::int16_t result = library_.vector().MEM_Port1StrToStruct(
        definitions.table(), text.data(), static_cast<std::uint32_t>(text.size()), heap.handle(),
        &root);
    return result == 0 ? "" : messages.reason("MEM_Port1StrToStruct");
  }

  Json decoded(const memtool::PortDefinitions &definitions, const std::string &text) {
    const memtool::PortDocument document =
        memtool::decodePortText(library_, definitions, text, console_);
    return memtool::portGraphJson(document, memtool::PortSelection(document));
  }

  std::ostringstream sink_;
  memtool::Console console_;
  memtool::RunningLibrary library_;
};

Json parse(std::string text) {
  std::replace(text.begin(), text.end(), '\'', '"');
  return Json::parse(text);
}

// One definition of StructID 1 in both tables, or the rows of both.
struct Row {
  const char *name;
  const char *old;      // fields, or structures
  const char *fresh;    // the same of the reader
  const char *verdict;  // and what the finding says
  const char *what;
  const char *graph;  // fields of a structure 1 that shows it
  const char *after;  // what the library makes of it; null when it refuses it
};

Json tableOf(const char *text) {
  Json json = parse(text);
  if (json.is_array())
    json = Json{{"structures", Json::array({{{"id", 1}, {"length", 64}, {"fields", json}}})}};
  return json;
}

constexpr Row kRows[] = {
    {"same", "[{'id':1,'type':'Long','offset':0}]", "[{'id':1,'type':'Long','offset':8}]", "read",
     "", "{'1':-5}", "{'1':-5}"},
    {"newer field", "[{'id':1,'type':'Long','offset':0},{'id':2,'type':'PStr','offset':8}]",
     "[{'id':1,'type':'Long','offset':0}]", "read with losses", "dropped", "{'1':7,'2':'a>/\\\"b'}",
     "{'1':7}"},
    {"unknown older field", "[{'id':1,'type':'Long','offset':0},{'id':2,'type':'Long','offset':8}]",
     "[{'id':2,'type':'Long','offset':8}]", "refused", "does not know the field", "{}", nullptr},
    {"newer wide field", "[{'id':1,'type':'Long','offset':0},{'id':2,'type':'WPStr','offset':8}]",
     "[{'id':1,'type':'Long','offset':0}]", "refused", "wide text with one of", "{'2':'<'}",
     nullptr},
    {"wide text in a newer embedded structure",
     "{'structures':[{'id':1,'length':32,'fields':[{'id':1,'type':'Long','offset':0},"
     "{'id':2,'type':'Substructure','structure':2,'offset':8}]},"
     "{'id':2,'length':8,'fields':[{'id':1,'type':'WCharSZ','length':8,'offset':0}]}]}",
     "{'structures':[{'id':1,'length':32,'fields':[{'id':1,'type':'Long','offset':0}]},"
     "{'id':2,'length':8,'fields':[{'id':1,'type':'WCharSZ','length':8,'offset':0}]}]}",
     "refused", "wide text with one of", "{'2':{'1':'<'}}", nullptr},
    {"required and absent", "[{'id':1,'type':'Long','offset':0}]",
     "[{'id':1,'type':'Long','offset':0},{'id':2,'type':'Long','offset':8,'required':true}]",
     "refused", "requires the field", "{}", nullptr},
    {"required, with an alternative", "[{'id':1,'type':'Long','offset':0}]",
     "[{'id':1,'type':'Long','offset':0},{'id':2,'type':'ULong','offset':0,'required':true}]",
     "read", "", "{'1':9}", "{'1':9,'2':9}"},
    {"an alternative with a default", "[{'id':1,'type':'Long','offset':0}]",
     "[{'id':1,'type':'Long','offset':0},{'id':2,'type':'Short','offset':0}]", "read with losses",
     "overwrites it", "{'1':9}", "{'1':0,'2':0}"},
    {"required and not ported", "[{'id':1,'type':'Long','offset':0}]",
     "[{'id':1,'type':'Long','offset':0},"
     "{'id':2,'type':'Char','length':2,'offset':8,'required':true,'notPorted':true}]",
     "read", "", "{'1':9}", nullptr},
    {"absent with a default", "[{'id':1,'type':'Long','offset':0}]",
     "[{'id':1,'type':'Long','offset':0},{'id':2,'type':'CharSZ','length':4,'offset':8,"
     "'default':'abc'}]",
     "read", "", "{'1':9}", "{'1':9,'2':'abc'}"},
    {"absent with a default that is too long", "[{'id':1,'type':'Long','offset':0}]",
     "[{'id':1,'type':'Long','offset':0},{'id':2,'type':'CharSZ','length':4,'offset':8,"
     "'default':'abcd','noTruncate':true}]",
     "refused", "default is too long", "{}", nullptr},
    {"absent without a default", "[{'id':1,'type':'Long','offset':0}]",
     "[{'id':1,'type':'Long','offset':0},{'id':2,'type':'Bin','length':4,'offset':8}]",
     "read with losses", "has no default", "{'1':9}", ""},
    {"text is cut", "[{'id':1,'type':'CharSZ','length':9,'offset':0}]",
     "[{'id':1,'type':'CharSZ','length':4,'offset':0}]", "read with losses", "keeps 3 of 8",
     "{'1':'abcdefgh'}", "{'1':'abc'}"},
    {"text must not be cut", "[{'id':1,'type':'CharSZ','length':9,'offset':0}]",
     "[{'id':1,'type':'CharSZ','length':8,'offset':0,'noTruncate':true}]", "refused",
     "8 characters do not fit 7", "{'1':'abcdefgh'}", nullptr},
    {"text that just fits", "[{'id':1,'type':'CharSZ','length':9,'offset':0}]",
     "[{'id':1,'type':'Char','length':8,'offset':0,'noTruncate':true}]", "read", "",
     "{'1':'abcdefgh'}", "{'1':'abcdefgh'}"},
    {"blanks count", "[{'id':1,'type':'Char','length':8,'offset':0}]",
     "[{'id':1,'type':'CharSZ','length':8,'offset':0,'noTruncate':true}]", "refused",
     "8 characters do not fit 7", "{'1':'a'}", nullptr},
    {"narrow text in a wide field", "[{'id':1,'type':'CharSZ','length':5,'offset':0}]",
     "[{'id':1,'type':'WCharSZ','length':10,'offset':0,'noTruncate':true}]", "read", "",
     "{'1':'abcd'}", "{'1':'abcd'}"},
    {"wide text in a narrow field", "[{'id':1,'type':'WCharSZ','length':10,'offset':0}]",
     "[{'id':1,'type':'CharSZ','length':10,'offset':0}]", "refused",
     "a WCharSZ cannot be read as CharSZ", "{}", nullptr},
    {"a string in a wide string", "[{'id':1,'type':'PStr','offset':0}]",
     "[{'id':1,'type':'WPStr','offset':0}]", "read", "", "{'1':'abc'}", "{'1':'abc'}"},
    {"a string in text", "[{'id':1,'type':'PStr','offset':0}]",
     "[{'id':1,'type':'CharSZ','length':20,'offset':0}]", "refused",
     "a PStr cannot be read as CharSZ", "{}", nullptr},
    {"a sign", "[{'id':1,'type':'Short','offset':0}]", "[{'id':1,'type':'ULong','offset':0}]",
     "refused", "the reader's ULong has no sign", "{'1':-1}", nullptr},
    {"a wider number", "[{'id':1,'type':'ULong','offset':0}]",
     "[{'id':1,'type':'BigInt','offset':0}]", "read", "", "{'1':4294967295}", "{'1':'4294967295'}"},
    {"the same width with a sign", "[{'id':1,'type':'ULong','offset':0}]",
     "[{'id':1,'type':'Long','offset':0}]", "read with losses", "may not fit", "{'1':4294967295}",
     "{'1':-1}"},
    {"bytes that are too many", "[{'id':1,'type':'Bin','length':4,'offset':0}]",
     "[{'id':1,'type':'Bin','length':3,'offset':0,'noTruncate':true}]", "refused",
     "4 bytes do not fit 3", "{}", nullptr},
    {"bytes that are too few", "[{'id':1,'type':'Bin','length':3,'offset':0}]",
     "[{'id':1,'type':'Bin','length':4,'offset':0}]", "read with losses",
     "sets 3 of the field's 4 bytes", "{'1':'010203'}", ""},
    {"no repeat field",
     "{'structures':[{'id':1,'length':8,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0},{'id':2,'type':'Long','offset':4}]}]}",
     "[{'id':1,'type':'Short','offset':0},{'id':2,'type':'Long','offset':4}]", "refused",
     "has a number of elements", "{'2':[4]}", nullptr},
    {"elements of another length",
     "{'structures':[{'id':1,'length':8,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0},{'id':2,'type':'Long','offset':4}]}]}",
     "{'structures':[{'id':1,'length':16,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0},{'id':2,'type':'BigInt','offset':8}]}]}",
     "read", "", "{'2':[4,5,6]}", "{'1':3,'2':['4','5','6']}"},
    {"elements that are not the last field",
     "{'structures':[{'id':1,'length':8,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0},{'id':2,'type':'Long','offset':4}]}]}",
     "{'structures':[{'id':1,'length':16,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0},{'id':2,'type':'Long','offset':4},"
     "{'id':3,'type':'Long','offset':12,'default':1}]}]}",
     "read with losses", "only the last element is kept", "{'2':[4,5,6]}",
     "{'1':3,'2':6,'3':[1,0,0]}"},
    {"a count in bytes",
     "{'structures':[{'id':1,'length':8,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0},{'id':2,'type':'Long','offset':4}]}]}",
     "{'structures':[{'id':1,'length':8,'countField':'1','countIsLength':true,'fields':["
     "{'id':1,'type':'Short','offset':0},{'id':2,'type':'Long','offset':4}]}]}",
     "read with losses", "its value may differ from their number", "{'2':[4,5,6]}", ""},
    {"no field without elements",
     "{'structures':[{'id':1,'length':8,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0,'notPorted':true},{'id':2,'type':'Long','offset':4}]}]}",
     "{'structures':[{'id':1,'length':8,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0,'notPorted':true},{'id':2,'type':'Long','offset':4}]}]}",
     "refused", "the text may have no field", "{}", nullptr},
    {"an element that is required",
     "{'structures':[{'id':1,'length':8,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0},{'id':2,'type':'Long','offset':4}]}]}",
     "{'structures':[{'id':1,'length':8,'countField':'1','fields':["
     "{'id':1,'type':'Short','offset':0},{'id':2,'type':'Long','offset':4,'required':true}]}]}",
     "refused", "absent when there are no elements", "{}", nullptr},
    {"a pointer to an unknown structure",
     "{'structures':[{'id':1,'length':8,'fields':[{'id':1,'type':'Pnt','structure':2,'offset':0}]},"
     "{'id':2,'length':4,'fields':[{'id':1,'type':'Long','offset':0}]}]}",
     "{'structures':[{'id':1,'length':8,'fields':[{'id':1,'type':'Pnt','structure':1,'offset':0}]}]"
     "}",
     "refused", "does not know the structure", "{'1':'2'}", nullptr},
    {"a pointer to a structure of another kind",
     "{'structures':[{'id':1,'length':8,'fields':[{'id':1,'type':'Pnt','structure':2,'offset':0}]},"
     "{'id':2,'length':4,'fields':[{'id':1,'type':'Long','offset':0}]}]}",
     "{'structures':[{'id':1,'length':8,'fields':[{'id':1,'type':'Pnt','structure':3,'offset':0}]},"
     "{'id':2,'length':4,'fields':[{'id':1,'type':'Long','offset':0}]},"
     "{'id':3,'length':4,'fields':[{'id':1,'type':'ULong','offset':0}]}]}",
     "read with losses", "reads a 2 (StructID 2) as a 3 (StructID 3)", "{'1':'2'}", ""},
    {"an embedded structure that is too short",
     "{'structures':[{'id':1,'length':16,'fields':["
     "{'id':1,'type':'Substructure','structure':2,'offset':0}]},"
     "{'id':2,'length':4,'fields':[{'id':1,'type':'Long','offset':0}]}]}",
     "{'structures':[{'id':1,'length':16,'fields':["
     "{'id':1,'type':'Substructure','structure':2,'offset':0,'length':8}]},"
     "{'id':2,'length':4,'fields':[{'id':1,'type':'Long','offset':0}]}]}",
     "refused", "the reader's field has 8 bytes, the structure in it only 4", "{}", nullptr},
    {"an embedded structure that does not fit",
     "{'structures':[{'id':1,'length':16,'fields':["
     "{'id':1,'type':'Substructure','structure':2,'offset':0}]},"
     "{'id':2,'length':16,'fields':[{'id':1,'type':'BigInt','offset':8}]}]}",
     "{'structures':[{'id':1,'length':12,'fields':["
     "{'id':1,'type':'Substructure','structure':2,'offset':4,'length':8}]},"
     "{'id':2,'length':16,'fields':[{'id':1,'type':'BigInt','offset':8}]}]}",
     "refused", "no room for the field where the structure is embedded", "{}", nullptr},
};

TEST_F(MemtoolConformTest, EachRuleIsTheLibrarys) {
  for (const Row &row : kRows) {
    SCOPED_TRACE(row.name);
    const Json old = tableOf(row.old);
    const Json fresh = tableOf(row.fresh);
    writeBytes("old.json", old.dump());
    writeBytes("new.json", fresh.dump());
    const ToolRun run = runTool({"conform", "old.json", "new.json", "--json", "--root", "1"});
    const Json report = Json::parse(run.out);
    EXPECT_EQ(report["verdict"], row.verdict) << run.out;
    const bool isRefused = report["verdict"] == "refused";
    EXPECT_EQ(run.code, isRefused ? 1 : 0) << run.err;
    const std::string shown = runTool({"conform", "old.json", "new.json", "--root", "1"}).out;
    EXPECT_NE(shown.find(row.what), std::string::npos) << shown;

    const memtool::PortDefinitions writer("old", old.dump());
    const memtool::PortDefinitions reader("new", fresh.dump());
    Json graph{{"structures",
                Json::array({{{"label", "1"}, {"structure", 1}, {"fields", parse(row.graph)}}})}};
    for (const Json &structure : old["structures"]) {
      if (structure["id"] == 1) continue;
      graph["structures"].push_back({{"label", structure["id"].dump()},
                                     {"structure", structure["id"]},
                                     {"fields", Json::object()}});
    }
    const std::string text = memtool::encodePortText(library_, writer, "graph", graph.dump());
    EXPECT_EQ(refusal(reader, text).empty(), !isRefused) << text << refusal(reader, text);
    if (isRefused || row.after == nullptr || *row.after == '\0') continue;
    EXPECT_EQ(decoded(reader, text)["structures"][0]["fields"], parse(row.after)) << text;
  }
}

// Random definitions: a table, and another one that was made of it.
class RandomTables {
 public:
  explicit RandomTables(Random &random) : random_(random) {
    const std::size_t count = random.between(1, 3);
    for (std::size_t i = 0; i < count; ++i) addStructure(i, count);
    old = finished(structures_);
    std::vector<Json> changed = structures_;
    for (std::size_t i = random.between(0, 3); i > 0; --i) change(changed);
    fresh = finished(changed);
  }

  Json old;
  Json fresh;

 private:
  static constexpr const char *kTypes[] = {
      "Char", "CharSZ", "PStr",    "Bin", "Short", "UShort",  "Long",  "ULong",
      "Pnt",  "BigInt", "UBigInt", "Bit", "WChar", "WCharSZ", "WPStr", "Substructure"};

  Json field(std::size_t structure, std::size_t count, std::uint32_t id) {
    std::string type = kTypes[random_.below(std::size(kTypes))];
    if (type == "Substructure" && structure == 0) type = "Long";
    Json made{{"id", id}, {"type", type}};
    if (type == "Pnt") made["structure"] = random_.below(count) + 1;
    if (type == "Substructure") made["structure"] = random_.below(structure) + 1;
    if (type == "Char" || type == "CharSZ" || type == "Bin") made["length"] = random_.between(1, 6);
    if (type == "WChar" || type == "WCharSZ") made["length"] = 2 * random_.between(1, 4);
    if (random_.oneIn(3)) made["noTruncate"] = true;
    if (random_.oneIn(4)) made["required"] = true;
    if (random_.oneIn(10)) made["notPorted"] = true;
    if (random_.oneIn(4)) setDefault(made);
    return made;
  }

  void setDefault(Json &field) {
    const std::string type = field["type"];
    if (type == "CharSZ" || type == "WCharSZ" || type == "PStr" || type == "WPStr") {
      field["default"] = std::string(random_.below(6), 'd');
    } else if (type == "Bin") {
      field["default"] = std::string(2 * field["length"].get<std::size_t>(), '7');
    } else if (type == "Char" || type == "WChar" || type == "Bit") {
      field["default"] = type == "Bit" ? Json(3) : Json("d");
    } else if (type != "Pnt" && type != "Substructure") {
      field["default"] = 12;
    }
  }

  void addStructure(std::size_t index, std::size_t count) {
    Json made{{"id", index + 1}, {"length", 0}, {"fields", Json::array()}};
    std::uint32_t id = 0;
    for (std::size_t i = random_.between(1, 5); i > 0; --i) {
      id += static_cast<std::uint32_t>(random_.between(1, 2));
      made["fields"].push_back(field(index, count, id));
    }
    if (random_.oneIn(3)) addCount(made);
    structures_.push_back(std::move(made));
  }

  void addCount(Json &structure) {
    Json &fields = structure["fields"];
    static constexpr const char *kCounts[] = {"Short", "UShort", "Long", "ULong"};
    for (std::size_t i = 0; i + 1 < fields.size(); ++i) {
      fields[i] = {{"id", fields[i]["id"]}, {"type", kCounts[random_.below(4)]}};
      structure["countField"] = fields[i]["id"].dump();
      if (random_.oneIn(3)) structure["countIsLength"] = true;
      return;
    }
  }

  void change(std::vector<Json> &structures) {
    const std::size_t index = random_.below(structures.size());
    Json &structure = structures[index];
    Json &fields = structure["fields"];
    const std::size_t at = random_.below(fields.size());
    const bool isCount = structure.contains("countField") &&
                         fields[at]["id"].dump() == structure["countField"].get<std::string>();
    switch (random_.below(9)) {
      case 0:
        if (fields.size() > 1 && !structure.contains("countField")) fields.erase(at);
        break;
      case 1:
        if (fields.size() > 1 && !structure.contains("countField")) fields.erase(fields.size() - 1);
        break;
      case 2:
        fields.push_back(
            field(index, structures.size(), fields.back()["id"].get<std::uint32_t>() + 1));
        break;
      case 3:
        if (!isCount) fields[at] = field(index, structures.size(), fields[at]["id"]);
        break;
      case 4:
        if (fields[at].contains("length")) {
          const std::size_t unit = fields[at]["type"].get<std::string>()[0] == 'W' ? 2 : 1;
          fields[at]["length"] = unit * random_.between(1, 6);
          fields[at].erase("default");
        }
        break;
      case 5:
        fields[at][random_.oneIn(2) ? "required" : "noTruncate"] = true;
        break;
      case 6:
        structure.erase("countField");
        structure.erase("countIsLength");
        break;
      case 7:
        if (!structure.contains("countField")) addCount(structure);
        break;
      default:
        structure["isUnion"] = true;  // the last two fields share their offset
    }
  }

  // Lengths and offsets.
  Json finished(std::vector<Json> structures) {
    std::vector<std::size_t> lengths;
    for (Json &structure : structures) {
      std::size_t end = 0;
      std::size_t before = 0;
      Json &fields = structure["fields"];
      for (std::size_t i = 0; i < fields.size(); ++i) {
        Json &made = fields[i];
        const std::string type = made["type"];
        std::size_t length = made.contains("length") ? made["length"].get<std::size_t>() : 8;
        if (type == "Substructure") {
          length = lengths[made["structure"].get<std::size_t>() - 1];
          if (random_.oneIn(6)) made["length"] = length += random_.below(3);
        }
        const bool shares = structure.contains("isUnion") && i > 0 && i + 1 == fields.size();
        made["offset"] = shares ? before : end;
        before = made["offset"].get<std::size_t>();
        end = std::max(end, before + length) + (random_.oneIn(4) ? 4 : 0);
      }
      structure.erase("isUnion");
      structure["length"] = end;
      lengths.push_back(end);
    }
    return {{"structures", structures}};
  }

  Random &random_;
  std::vector<Json> structures_;
};

// Graphs of one of each structure, with values at their limits.
class RandomGraph {
 public:
  RandomGraph(Random &random, const Json &table, std::size_t root)
      : random_(random), table_(table) {
    isExtreme_ = random.oneIn(2);
    hasElements_ = random.oneIn(2);
    Json list = Json::array();
    for (const Json &structure : table["structures"]) {
      list.push_back({{"label", structure["id"].dump()},
                      {"structure", structure["id"]},
                      {"fields", fieldsOf(structure, 1000)}});
    }
    json = {{"root", std::to_string(root)}, {"structures", list}};
  }

  Json json;

 private:
  const Json &structure(const Json &id) const {
    return table_["structures"][id.get<std::size_t>() - 1];
  }

  Json fieldsOf(const Json &structure, std::size_t room) {
    Json made = Json::object();
    const Json &fields = structure["fields"];
    for (std::size_t i = 0; i < fields.size(); ++i) {
      const std::string id = fields[i]["id"].dump();
      const bool counts = structure.contains("countField") && structure["countField"] == id;
      if (counts) continue;
      if (!structure.contains("countField") || i + 1 < fields.size()) {
        made[id] = value(fields[i]);
        continue;
      }
      const std::size_t length = lengthOf(fields[i]);
      const std::size_t fixed = structure["length"].get<std::size_t>() - length;
      const std::size_t most = room < fixed ? 0 : std::min<std::size_t>((room - fixed) / length, 3);
      made[id] = Json::array();
      for (std::size_t n = hasElements_ && most > 0 ? random_.between(1, most) : 0; n > 0; --n) {
        made[id].push_back(value(fields[i]));
      }
    }
    return made;
  }

  std::size_t lengthOf(const Json &field) const {
    if (field.contains("length")) return field["length"].get<std::size_t>();
    const std::string type = field["type"];
    if (type == "Substructure") return structure(field["structure"])["length"].get<std::size_t>();
    if (type == "Short" || type == "UShort") return 2;
    if (type == "Bit") return 1;
    return type == "Long" || type == "ULong" ? 4 : 8;
  }

  Json value(const Json &field) {
    static const std::map<std::string, std::pair<const char *, const char *>> kLimits{
        {"Short", {"-32768", "32767"}},
        {"UShort", {"0", "65535"}},
        {"Long", {"-2147483648", "2147483647"}},
        {"ULong", {"0", "4294967295"}},
        {"BigInt", {"-9223372036854775808", "9223372036854775807"}},
        {"UBigInt", {"0", "18446744073709551615"}}};
    const std::string type = field["type"];
    const auto limits = kLimits.find(type);
    if (limits != kLimits.end()) {
      if (isExtreme_ && limits->second.first[0] == '-') return "-1";
      const std::size_t choice = random_.below(3);
      return choice == 0 ? limits->second.first : choice == 1 ? limits->second.second : "7";
    }
    if (type == "Pnt")
      return isExtreme_ || random_.oneIn(2) ? Json(field["structure"].dump()) : Json();
    if (type == "Substructure") return fieldsOf(structure(field["structure"]), lengthOf(field));
    if (type == "Bit") return random_.below(256);
    if (type == "Bin") return std::string(2 * lengthOf(field), 'A');
    const bool isWide = type[0] == 'W';
    const bool isString = type == "PStr" || type == "WPStr";
    if (isString && !isExtreme_ && random_.oneIn(3)) return Json();
    std::size_t most = isString ? 5 : lengthOf(field) / (isWide ? 2 : 1);
    if (type == "CharSZ" || type == "WCharSZ") --most;
    const std::size_t length = isExtreme_ ? most : random_.between(0, most);
    if (isExtreme_) return std::string(length, '<');
    std::string text;
    for (std::size_t i = 0; i < length; ++i) text += "ab/\"'>(x"[random_.below(8)];
    return text;
  }

  Random &random_;
  const Json &table_;
  bool isExtreme_;
  bool hasElements_;
};

// The values without those of fields that are not ported, which are as the storage came.
Json withoutUnported(const Json &fields, const Json &table, std::size_t structID) {
  Json made = Json::object();
  for (const Json &field : table["structures"][structID - 1]["fields"]) {
    const std::string id = field["id"].dump();
    if (field.contains("notPorted") || !fields.contains(id)) continue;
    if (field["type"] != "Substructure") {
      made[id] = fields[id];
      continue;
    }
    const std::size_t inner = field["structure"].get<std::size_t>();
    if (!fields[id].is_array()) {
      made[id] = withoutUnported(fields[id], table, inner);
      continue;
    }
    made[id] = Json::array();
    for (const Json &element : fields[id]) {
      made[id].push_back(withoutUnported(element, table, inner));
    }
  }
  return made;
}

// The values of fields that both definitions have. Text may have got blanks at its end.
void expectSameValues(const Json &old, const Json &fresh) {
  if (old.is_object() && fresh.is_object()) {
    for (const auto &[key, value] : old.items()) {
      if (fresh.contains(key)) expectSameValues(value, fresh[key]);
    }
  } else if (old.is_array() && fresh.is_array()) {
    ASSERT_EQ(old.size(), fresh.size());
    for (std::size_t i = 0; i < old.size(); ++i) expectSameValues(old[i], fresh[i]);
  } else {
    const auto bare = [](const Json &value) {
      std::string text = value.is_string() ? value.get<std::string>() : value.dump();
      text.erase(text.find_last_not_of(' ') + 1);
      return text;
    };
    EXPECT_EQ(bare(old), bare(fresh));
  }
}

// Refused if and only if the library refuses a text; read without losses only if values stay.
TEST_F(MemtoolConformTest, RandomTablesAgreeWithTheLibrary) {
  constexpr std::uint64_t kSeed = 20261124;
  constexpr std::size_t kPairs = 600 / MEM_FEWER_CASES;
  constexpr std::size_t kTexts = 40;
  std::map<std::string, std::size_t> seen;
  std::size_t compared = 0;
  for (std::size_t i = 0; i < kPairs; ++i) {
    const std::uint64_t seed = firstSeed(kSeed) + i;
    SCOPED_TRACE(seedNote(seed));
    Random random(seed);
    const RandomTables tables(random);
    std::optional<memtool::PortDefinitions> writer;
    std::optional<memtool::PortDefinitions> reader;
    try {
      writer.emplace("old", tables.old.dump());
      reader.emplace("new", tables.fresh.dump());
    } catch (const memtool::ToolError &) {
      ++seen["no tables"];
      continue;
    }
    const std::size_t rootId = random.between(1, tables.old["structures"].size());
    const memtool::PortConformity verdict = memtool::checkConformity(
        *writer, *reader, writer->find(static_cast<std::uint32_t>(rootId)));
    std::string first;
    for (const memtool::PortFinding &finding : verdict.findings) {
      first += finding.text() + "\n";
    }
    std::string refused;
    std::size_t written = 0;
    for (std::size_t k = 0; k < kTexts && refused.empty(); ++k) {
      const RandomGraph graph(random, tables.old, rootId);
      std::string text;
      try {
        text = memtool::encodePortText(library_, *writer, "graph", graph.json.dump());
      } catch (const memtool::ToolError &) {
        continue;  // defaults and shared bytes may make no graph
      }
      ++written;
      const std::string reason = refusal(*reader, text);
      if (!reason.empty()) {
        refused = reason;
        ASSERT_TRUE(verdict.isRefused()) << reason << "\n"
                                         << text << "\n"
                                         << tables.old.dump() << "\n"
                                         << tables.fresh.dump() << "\n"
                                         << first;
        continue;
      }
      if (!verdict.isLossless()) continue;
      Json before;
      Json after;
      try {
        before = decoded(*writer, text);
        after = decoded(*reader, text);
      } catch (const memtool::ToolError &) {
        continue;  // fields that are not ported are as the storage came
      }
      ASSERT_EQ(before["structures"].size(), after["structures"].size());
      for (std::size_t n = 0; n < before["structures"].size(); ++n) {
        const std::size_t id = before["structures"][n]["structure"].get<std::size_t>();
        const Json &fields = before["structures"][n]["fields"];
        expectSameValues(withoutUnported(fields, tables.old, id),
                         withoutUnported(after["structures"][n]["fields"], tables.fresh, id));
      }
      ASSERT_FALSE(HasFailure()) << text << tables.old.dump() << tables.fresh.dump();
      ++compared;
    }
    if (written == 0) continue;
    ++seen[verdict.isRefused() ? "refused" : verdict.isLossless() ? "read" : "losses"];
    ASSERT_EQ(verdict.isRefused(), !refused.empty()) << first << tables.old.dump() << "\n"
                                                     << tables.fresh.dump();
  }
  EXPECT_GT(seen["refused"] * MEM_FEWER_CASES, 80U);
  EXPECT_GT(seen["read"] * MEM_FEWER_CASES, 40U);
  EXPECT_GT(seen["losses"] * MEM_FEWER_CASES, 40U);
  EXPECT_GT(compared * MEM_FEWER_CASES, 800U);
}

TEST_F(MemtoolConformTest, ManualShowsRealOutput) {
  const std::filesystem::path fixtures(MEM_FIXTURES);
  std::filesystem::copy_file(fixtures / "memtool" / "port" / "order.defs.json", "order.defs.json");
  Json fresh = Json::parse(readBytes("order.defs.json"));
  fresh["structures"][0]["fields"][1]["length"] = 4;
  fresh["structures"][0]["length"] = 32;
  fresh["structures"][0]["fields"].push_back(
      {{"id", 4}, {"name", "due"}, {"type", "Long"}, {"offset", 24}, {"required", true}});
  writeBytes("strict.defs.json", fresh.dump());
  const std::string manual = readBytes(std::filesystem::path(MEM_DOCS) / "memtool-port.md");
  const std::string shown = runTool({"conform", "order.defs.json", "strict.defs.json"}).out;
  EXPECT_NE(manual.find("$ memtool conform order.defs.json strict.defs.json\n" + shown),
            std::string::npos)
      << shown;
}

TEST_F(MemtoolConformTest, WrongUsage) {
  writeBytes("a.json", tableOf(kRows[0].old).dump());
  writeBytes("bad.json", "{}");
  expectRefused(2, "--root: a.json has no structure \"Order\"",
                {"conform", "a.json", "a.json", "--root", "Order"});
  expectRefused(2, "NEW", {"conform", "a.json"});
  expectRefused(1, "bad.json: ", {"conform", "a.json", "bad.json"});
  expectRefused(3, "cannot read none.json", {"conform", "none.json", "a.json"});
  EXPECT_EQ(outputOf({"conform", "a.json", "a.json"}), "a.json: texts of a.json are read\n");
}

}  // namespace
}  // namespace memtest
