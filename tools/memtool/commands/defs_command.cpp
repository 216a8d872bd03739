// memtool defs: checks definitions and writes them in one form.
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
    "  memtool defs order.defs.json              check them, and write them with a field a line\n"
    "  memtool defs items.defs.json --for chain  when nothing in them shows that they are of "
    "chains\n"
    "\n"
    "Exit codes: 0 the definitions are sound; 1 they have a fault, which is shown with its line "
    "and\n"
    "column; 2 wrong usage; 3 the file cannot be read.";

struct DefsOptions {
  std::string file;
  std::string subject;  // "chain", "port", or "" when the definitions show it
};

// In the order in which they are written.
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
  const PortJson &type = field["type"];
  return type == "SByte" || type == "UByte" || type == "Float" || type == "Double";
}

// True when something is said that only chains have. Wrong forms are left to the check.
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

// On one line, with blanks.
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

// What a key says that need not be there.
bool saysNothing(const std::string &key, const PortJson &value) {
  return value.is_null() || value == false || (key == "segment" && value == "F");
}

// The keys in their order, without those that say nothing and without the fields.
template <std::size_t kCount>
PortJson inOrder(const PortJson &json, const std::array<const char *, kCount> &keys) {
  PortJson ordered = PortJson::object();
  for (const std::string key : keys) {
    if (key == "fields" || !json.contains(key) || saysNothing(key, json[key])) continue;
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

// Chains do not look at the keys that only port strings use, so any JSON may stand there.
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
          unused->fail("this is no value of a field");
      }
    }
  }
}

// Throws ToolError with line and column.
void check(const DefsOptions &options, const std::string &json, bool isChain) {
  if (!isChain) {
    const PortDefinitions sound(options.file, json);
    return;
  }
  const ChainDefinitions sound(options.file, json);
  // What does not fit with the short pointers does not fit with long ones.
  if (sound.pointerWidth() == 0) sound.checkLayout(4);
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
      app.add_subcommand("defs", "Check definitions and write them in one form");
  command->add_option("FILE", options->file, "Definitions of port strings or chains, as JSON")
      ->required()
      ->type_name("");
  command->add_option("--for", options->subject, "What they are for; else what they show")
      ->check(CLI::IsMember({"chain", "port"}))
      ->type_name("chain|port");
  command->footer(kFooter);
  command->callback(
      [&tool, options] { tool.command = [&tool, options] { return runDefs(tool, *options); }; });
}

}  // namespace memtool
