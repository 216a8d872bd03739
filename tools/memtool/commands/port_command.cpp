// memtool port: shows, checks and makes port strings.
#include <memory>
#include <optional>
#include <vector>

#include "memtool_commands.hpp"
#include "packed_head.hpp"
#include "port_decode.hpp"
#include "port_defs.hpp"
#include "port_encode.hpp"
#include "port_notes.hpp"
#include "port_picture.hpp"
#include "port_report.hpp"
#include "port_selection.hpp"
#include "port_text.hpp"
#include "tool_file.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "Examples:\n"
    "  memtool port FILE                             structures, fields and values\n"
    "  memtool port FILE --json | jq .structures     as JSON for programs\n"
    "  memtool port FILE --check                     is it valid? Shows the first fault\n"
    "  memtool port FILE --svg OUT.svg               draw its first structures\n"
    "  memtool port FILE --kind 12 --limit 10        the first ten structures of StructID 12\n"
    "  memtool port FILE --root 7 --depth 1          structure 7 and what it points to\n"
    "  memtool port FILE --defs DEFS.json            with names, as the library reads it\n"
    "  memtool port FILE --defs DEFS.json --json > GRAPH.json\n"
    "  memtool port --encode GRAPH.json --defs DEFS.json -o FILE\n"
    "\n"
    "Characters are counted from 0. A port string with a fault is shown up to the fault, and the\n"
    "exit code is 1. Only --check reports what readers let pass, such as text after the end.";

struct PortOptions {
  std::vector<std::string> files;
  std::string file;  // the current one
  bool asJson = false;
  bool checks = false;
  std::string picture;
  std::string definitions;
  std::string graph;
  std::string output;
  PortFilter filter;

  bool showsStructures() const { return !checks && (asJson || picture.empty()); }
};

// Ends the report of a fault.
std::string remarkOn(const std::string &text) {
  const bool isChain = hasVersion(text) && !isPortText(text);
  return isChain ? "; the file looks like a packed chain: use memtool chain" : "";
}

ExitCode reportFault(Console &console, const PortOptions &options, const std::string &text,
                     const PortFault &fault) {
  console.out().flush();
  complain(console, kExitFault, options.file + ": " + fault.text() + remarkOn(text),
           {{"file", validUtf8(options.file)}, {"offset", fault.offset}});
  return kExitFault;
}

// What the library skips, drops or changes; --check shows it.
using PortNotes = std::vector<PortNote>;

void show(Console &console, const PortOptions &options, const PortDocument &document,
          const PortNotes &notes, const PortDefinitions *definitions) {
  if (!options.picture.empty()) {
    writeFile(options.picture, portPicture(options.file, document, options.filter.root));
    if (!options.asJson) console.print("{}: the picture is written\n", options.picture);
  }
  if (options.checks) {
    if (!options.asJson) return;
    PortJson json = portCheckJson(options.file, document);
    if (definitions != nullptr) json["notes"] = portNotesJson(notes);
    console.print("{}\n", json.dump(2));
    return;
  }
  if (!options.showsStructures()) return;
  const PortSelection selection(document, options.filter, definitions);
  if (options.asJson && definitions != nullptr) {
    writePortGraphJson(console, document, selection);
  } else if (options.asJson) {
    writePortTextJson(console, options.file, document, selection);
  } else {
    printPort(console, options.file, document, selection);
  }
}

void showValid(Console &console, const PortOptions &options, const PortDocument &document) {
  if (!options.checks || options.asJson) return;
  console.print("{}: {}, {}, {}\n", options.file, console.paint(Ink::Good, "valid"),
                countOf(document.characters, "character"), countOf(document.promised, "structure"));
}

void printNotes(Console &console, const PortOptions &options, const PortNotes &notes) {
  if (options.asJson) return;
  for (const PortNote &note : notes) console.print("{}: {}\n", options.file, note.text());
}

ExitCode showText(Tool &tool, const PortOptions &options) {
  const std::string text = readFile(options.file);
  const PortDocument document = readPortText(text, tool.console);
  show(tool.console, options, document, {}, nullptr);
  // Readers let deviations pass; --check reports them.
  const std::optional<PortFault> fault = options.checks ? firstPortFault(document) : document.fault;
  if (fault) return reportFault(tool.console, options, text, *fault);
  showValid(tool.console, options, document);
  return kExitFine;
}

PortDocument decode(RunningLibrary &library, const PortOptions &options,
                    const PortDefinitions &definitions, const std::string &text, Console &console) {
  try {
    return decodePortText(library, definitions, text, console);
  } catch (const ToolError &error) {
    const PortDocument document = readPortText(text, console);
    const std::string where = document.fault ? "; " + document.fault->text() : "";
    throw ToolError(options.file + ": " + error.what() + where + remarkOn(text));
  }
}

ExitCode showDecoded(Tool &tool, const PortOptions &options, const PortDefinitions &definitions) {
  const std::string text = readFile(options.file);
  PortNotes notes;
  if (options.checks) {
    const PortDocument document = readPortText(text, tool.console);
    if (const std::optional<PortFault> fault = firstPortFault(document)) {
      show(tool.console, options, document, notes, &definitions);
      return reportFault(tool.console, options, text, *fault);
    }
    notes = portNotes(definitions, document);
  }
  try {
    RunningLibrary library(pathFromUtf8(tool.library));
    const PortDocument document = decode(library, options, definitions, text, tool.console);
    show(tool.console, options, document, notes, &definitions);
    showValid(tool.console, options, document);
  } catch (const ToolError &) {
    printNotes(tool.console, options, notes);  // they may explain the failure
    tool.console.out().flush();
    throw;
  }
  printNotes(tool.console, options, notes);
  return kExitFine;
}

ExitCode encode(Tool &tool, const PortOptions &options) {
  const PortDefinitions definitions(options.definitions, readFile(options.definitions));
  const std::string graph = readFile(options.graph);
  RunningLibrary library(pathFromUtf8(tool.library));
  const std::string text = encodePortText(library, definitions, options.graph, graph);
  if (options.output.empty()) {
    tool.console.write(text);
    return kExitFine;
  }
  writeFile(options.output, text);
  tool.console.print("{}: {} characters\n", options.output, grouped(text.size()));
  return kExitFine;
}

// `definitions` may be null.
ExitCode showPort(Tool &tool, const PortOptions &options, const PortDefinitions *definitions) {
  return definitions == nullptr ? showText(tool, options)
                                : showDecoded(tool, options, *definitions);
}

// Refuses filters when no structures are shown.
void checkFilter(const PortOptions &options) {
  PortFilter ofText = options.filter;
  if (!options.picture.empty()) ofText.root.reset();
  if (ofText.isEmpty() || options.showsStructures()) return;
  throw UsageError(options.picture.empty()
                       ? "--kind, --root, --depth and --limit do not go with --check, which "
                         "shows no structures"
                       : "--svg takes --root only, unless --json is given");
}

ExitCode showFiles(Tool &tool, const PortOptions &options) {
  if (options.files.empty()) throw UsageError("port needs a FILE, or --encode");
  if (!options.output.empty()) throw UsageError("--output goes with --encode");
  if (!options.picture.empty()) {
    if (options.files.size() > 1) throw UsageError("--svg takes one FILE");
    requireOutput(options.picture, {options.files.front(), options.definitions});
  }
  checkFilter(options);
  std::optional<PortDefinitions> definitions;
  if (!options.definitions.empty()) {
    definitions.emplace(options.definitions, readFile(options.definitions));
  }
  const PortDefinitions *const pDefinitions = definitions ? &*definitions : nullptr;
  return forEachFile(tool, options.files, options.asJson, !options.checks,
                     [&](const std::string &file) {
                       PortOptions one = options;
                       one.file = file;
                       return showPort(tool, one, pDefinitions);
                     });
}

ExitCode runPort(Tool &tool, const PortOptions &options) {
  if (options.graph.empty()) return showFiles(tool, options);
  if (options.definitions.empty()) throw UsageError("--encode needs --defs");
  if (!options.files.empty() || options.asJson || options.checks || !options.picture.empty() ||
      !options.filter.isEmpty()) {
    throw UsageError("--encode takes --defs and --output only");
  }
  if (!options.output.empty()) requireOutput(options.output, {options.graph, options.definitions});
  return encode(tool, options);
}

}  // namespace

void addPortCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<PortOptions>();
  CLI::App *const command = app.add_subcommand("port", "Show, check or make a port string");
  command->add_option("FILE", options->files, "Files of port strings; - is stdin")->type_name("");
  command->add_flag("--json", options->asJson, "Write JSON instead of text");
  command->add_option("--kind", options->filter.kind, "Show only structures of this kind")
      ->type_name("STRUCTID|NAME");
  command
      ->add_option("--root", options->filter.root,
                   "Show what this structure reaches; also in a picture")
      ->type_name("NUMBER")
      ->check(kWholeNumber);
  command
      ->add_option("--depth", options->filter.depth,
                   "Show structures at most N pointers away from the root")
      ->type_name("N")
      ->check(kWholeNumber);
  command->add_option("--limit", options->filter.limit, "Show only the first N of these structures")
      ->type_name("N")
      ->check(kWholeNumber);
  command->add_flag("--check", options->checks, "Only check whether the port string is valid");
  command->add_option("--svg", options->picture, "Draw structures and pointers")
      ->type_name("OUT.svg");
  command->add_option("--defs", options->definitions, "Definitions of the structures, as JSON")
      ->type_name("DEFS.json");
  command->add_option("--encode", options->graph, "Make a port string from this JSON")
      ->type_name("GRAPH.json");
  command
      ->add_option("-o,--output", options->output,
                   "With --encode: the file to write; default: stdout")
      ->type_name("OUT");
  command->footer(kFooter);
  command->callback(
      [&tool, options] { tool.command = [&tool, options] { return runPort(tool, *options); }; });
}

}  // namespace memtool
