// memtool defs: checks definitions and writes them in a uniform format.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <memory>

#include "chain_defs.hpp"
#include "memtool_commands.hpp"
#include "port_defs.hpp"
#include "tool_file.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "Examples:\n"
    "  memtool defs order.defs.json              check them, and write them with one field a line\n"
    "  memtool defs items.defs.json --for chain  if no key in them is only for chains\n"
    "\n"
    "Exit codes: 0 the definitions are valid; 1 they have a fault, which is shown with its line\n"
    "and column; 2 wrong usage; 3 the file cannot be read.";

struct DefsOptions {
  std::string file;
  std::string subject;  // "chain", "port", or "" to decide by the keys
};

// The keys in the order in which they are written.
constexpr std::array<const char *, 8> kStructureKeys{
    "id", "name", "segment", "length", "next", "countField", "countIsLength", "fields"};
constexpr std::array<const char *, 13> kFieldKeys{
    "id",        "name",      "type",     "offset",     "length",    "count",  "toEnd",
    "structure", "reference", "required", "noTruncate", "notPorted", "default"};

bool hasAny(const PortJson &json, std::initializer_list<const char *> keys) {
  return std::any_of(keys.begin(), keys.end(),
                     [&json](const char *key) { return json.contains(key); });
}

bool isChainField(const PortJson &field) {
  if (hasAny(field, {"reference", "count", "toEnd"})) return true;
  if (!field.contains("type")) return false;
  return std::find(kChainOnlyTypes.begin(), kChainOnlyTypes.end(), field["type"]) !=
         kChainOnlyTypes.end();
}

// True when a key or type is only for chains. The check finds wrong forms later.
bool showsChain(const PortJson &document) {
  if (document.contains("pointers")) return true;
  if (!document.contains("structures")) return false;
  for (const PortJson &structure : document["structures"]) {
    if (hasAny(structure, {"segment", "next"})) return true;
    if (!structure.contains("fields")) continue;
    const PortJson &fields = structure["fields"];
    if (std::any_of(fields.begin(), fields.end(), isChainField)) return true;
  }
  return false;
}

// The JSON on one line, with blanks.
std::string inLine(const PortJson &json) {
  if (!json.is_structured()) return json.dump();
  std::string line;
  for (const auto &[key, value] : json.items()) {
    if (!line.empty()) line += ", ";
    line += json.is_object() ? fmt::format("{}: {}", PortJson(key).dump(), inLine(value))
                             : inLine(value);
  }
  return json.is_object() ? '{' + line + '}' : '[' + line + ']';
}

// True for the value that an absent key has.
bool isDefault(const std::string &key, const PortJson &value) {
  return value.is_null() || value == false || (key == "segment" && value == "F");
}

// The keys in their order, without default values and without the fields.
template <std::size_t kCount>
PortJson inOrder(const PortJson &json, const std::array<const char *, kCount> &keys) {
  PortJson ordered = PortJson::object();
  for (const std::string key : keys) {
    if (key == "fields" || !json.contains(key) || isDefault(key, json[key])) continue;
    const bool isCode = key == "type" && json[key].is_number();
    ordered[key] = isCode ? PortJson(portTypeName(json[key].get<MEMFieldType>())) : json[key];
  }
  return ordered;
}

std::string withoutBraces(const std::string &line) {
  return line.substr(1, line.size() - 2);
}

std::string structureText(const PortJson &structure) {
  std::string text = "    {\n      " + withoutBraces(inLine(inOrder(structure, kStructureKeys)));
  if (structure.contains("fields")) {
    const char *before = "\n";
    text += ",\n      \"fields\": [";
    for (const PortJson &field : structure["fields"]) {
      text += before + ("        " + inLine(inOrder(field, kFieldKeys)));
      before = ",\n";
    }
    text += "\n      ]";
  }
  return text + "\n    }";
}

std::string definitionsText(const PortJson &document) {
  std::string text = "{\n";
  if (document.contains("pointers")) {
    text += fmt::format("  \"pointers\": {},\n", document["pointers"].dump());
  }
  text += "  \"structures\": [";
  const char *before = "\n";
  for (const PortJson &structure : document["structures"]) {
    text += before + structureText(structure);
    before = ",\n";
  }
  return text + "\n  ]\n}\n";
}

bool isFlat(const PortJson &json) {
  return std::none_of(json.begin(), json.end(),
                      [](const PortJson &part) { return part.is_structured(); });
}

// Chains ignore the keys that are only for port strings, so their values may be any JSON.
void checkUnused(const PortJsonText &text) {
  for (const PortJsonNode &structure : PortJsonNode(text).at("structures").elements()) {
    const std::optional<PortJsonNode> fields = structure.find("fields");
    if (!fields) continue;
    for (const PortJsonNode &field : fields->elements()) {
      for (const char *const key : {"required", "noTruncate", "notPorted", "default"}) {
        const std::optional<PortJsonNode> unused = field.find(key);
        if (!unused) continue;
        const PortJson &json = unused->json();
        if (!std::all_of(json.begin(), json.end(), isFlat))
          unused->fail("the value is nested too deeply for a field");
      }
    }
  }
}

// Throws ToolError with line and column.
void check(const DefsOptions &options, const std::string &json, bool isChain) {
  if (!isChain) {
    const PortDefinitions valid(options.file, json);
    return;
  }
  const ChainDefinitions valid(options.file, json);
  // Fields that do not fit with 4-byte pointers do not fit with 8-byte ones.
  if (valid.pointerWidth() == 0) valid.checkLayout(4);
}

ExitCode runDefs(Tool &tool, const DefsOptions &options) {
  const std::string json = readFile(options.file);
  const PortJsonText text(options.file, json);
  const bool isChain =
      options.subject.empty() ? showsChain(text.document()) : options.subject == "chain";
  check(options, json, isChain);
  checkUnused(text);
  tool.console.write(definitionsText(text.document()));
  return kExitFine;
}

}  // namespace

void addDefsCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<DefsOptions>();
  CLI::App *const command =
      app.add_subcommand("defs", "Check definitions and write them in a uniform format");
  command->add_option("FILE", options->file, "Definitions of port strings or chains, as JSON")
      ->required()
      ->type_name("");
  command
      ->add_option("--for", options->subject, "What they are for; default: decided by their keys")
      ->check(CLI::IsMember({"chain", "port"}).description(""))
      ->type_name("chain|port");
  command->footer(kFooter);
  command->callback(
      [&tool, options] { tool.command = [&tool, options] { return runDefs(tool, *options); }; });
}

}  // namespace memtool
