// memtool conform: checks whether port strings written with old definitions can be read with new
// ones.
#include <fmt/format.h>

#include <map>
#include <memory>

#include "memtool_commands.hpp"
#include "port_conform.hpp"
#include "port_defs.hpp"
#include "tool_file.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "Examples:\n"
    "  memtool conform OLD.json NEW.json               new readers of old texts\n"
    "  memtool conform NEW.json OLD.json               old readers of new texts\n"
    "  memtool conform OLD.json NEW.json --root Order  only texts that begin with this structure\n"
    "\n"
    "Exit codes: 0 NEW reads every text (dropped or changed values are shown); 1 it refuses at\n"
    "least one text; 2 wrong usage; 3 a file cannot be read.";

struct ConformOptions {
  std::string old;
  std::string fresh;
  std::string root;
  bool asJson = false;
};

const char *verdictOf(const PortConformity &made) {
  if (made.isRefused()) return "refused";
  return made.isLossless() ? "read" : "read with losses";
}

Ink inkOf(PortEffect effect) {
  return effect == PortEffect::Refused ? Ink::Bad : Ink::Name;
}

void printConformity(Console &console, const ConformOptions &options, const PortConformity &made) {
  for (const PortFinding &finding : made.findings) {
    const std::string name = nameOf(finding.effect);
    console.print("{}{:{}}  {}\n", console.paint(inkOf(finding.effect), name), "",
                  std::string_view("undefined").size() - name.size(), finding.text());
  }
  std::map<PortEffect, std::size_t> counts;
  for (const PortFinding &finding : made.findings) ++counts[finding.effect];
  std::string list;
  for (const auto &[effect, count] : counts) {
    list += fmt::format("{}{} {}", list.empty() ? " (" : ", ", count, nameOf(effect));
  }
  if (!list.empty()) list += ")";
  console.print("{}: texts of {} are {}{}\n", options.fresh, options.old,
                console.paint(made.isRefused() ? Ink::Bad : Ink::Good,
                              made.isRefused() ? "not all read" : verdictOf(made)),
                list);
}

PortJson conformityJson(const ConformOptions &options, const PortConformity &made) {
  PortJson json{{"old", validUtf8(options.old)},
                {"new", validUtf8(options.fresh)},
                {"verdict", verdictOf(made)},
                {"findings", PortJson::array()}};
  for (const PortFinding &finding : made.findings) {
    json["findings"].push_back(
        {{"effect", nameOf(finding.effect)},
         {"structID", finding.structID},
         {"structure", finding.structure},
         {"fieldID", finding.fieldID == 0 ? PortJson() : PortJson(finding.fieldID)},
         {"field", finding.fieldID == 0 ? PortJson() : PortJson(finding.field)},
         {"what", finding.what}});
  }
  return json;
}

ExitCode runConform(Tool &tool, const ConformOptions &options) {
  const PortDefinitions old(options.old, readFile(options.old));
  const PortDefinitions fresh(options.fresh, readFile(options.fresh));
  const PortStructDefinition *root = nullptr;
  if (!options.root.empty()) {
    root = old.find(options.root);
    if (root == nullptr) {
      throw UnknownValue(
          fmt::format("--root: {} has no structure {}", options.old, inQuotes(options.root, 40)));
    }
  }
  const PortConformity made = checkConformity(old, fresh, root);
  if (options.asJson) {
    tool.console.print("{}\n", conformityJson(options, made).dump(2));
  } else {
    printConformity(tool.console, options, made);
  }
  return made.isRefused() ? kExitFault : kExitFine;
}

}  // namespace

void addConformCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<ConformOptions>();
  CLI::App *const command =
      app.add_subcommand("conform", "Check whether new definitions can read texts of old ones");
  command->add_option("OLD", options->old, "The definitions of the writer, as JSON")
      ->required()
      ->type_name("");
  command->add_option("NEW", options->fresh, "The definitions of the reader, as JSON")
      ->required()
      ->type_name("");
  command->add_option("--root", options->root, "The structure that texts begin with; default: any")
      ->type_name("STRUCTID|NAME");
  command->add_flag("--json", options->asJson, "Write JSON instead of text");
  command->footer(kFooter);
  command->callback(
      [&tool, options] { tool.command = [&tool, options] { return runConform(tool, *options); }; });
}

}  // namespace memtool
