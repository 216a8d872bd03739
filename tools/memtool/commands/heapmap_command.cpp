// memtool heapmap: shows the contents of heaps and pools, from a script of calls that it runs or
// from the statistics of a program.
#include <iostream>
#include <iterator>
#include <memory>

#include "heap_picture.hpp"
#include "heap_script.hpp"
#include "heap_snapshot.hpp"
#include "memtool_commands.hpp"
#include "tool_file.hpp"
#include "tool_table.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "A script has one call on a line; # begins a comment.\n"
    "  open NAME heap AREA_KB [SUBPOOL]                open a standard heap\n"
    "  open NAME eheap AREA_KB [SUBPOOL]               open an enhanced heap\n"
    "  open NAME pool AREA_BYTES CELL_BYTES [SUBPOOL]  open a cell pool\n"
    "  entry HEAP LABEL LENGTH                         allocate an entry\n"
    "  chain HEAP LABEL LENGTH COUNT                   allocate linked entries LABEL.1, LABEL.2 …\n"
    "  cell POOL LABEL [COUNT]                         allocate a cell, or LABEL.1, LABEL.2 …\n"
    "  free NAME LABEL                                 free an entry or a cell\n"
    "  clear POOL                                      free all cells\n"
    "  show [CAPTION]                                  show all open heaps and pools\n"
    "  close NAME                                      close a heap or a pool\n"
    "Heaps and pools that are open at the end are shown and closed. AREA_KB is 1 to 256,\n"
    "AREA_BYTES 256 to 1048576; SUBPOOL is 0 to 65535 for a heap, -32768 to 32767 for a pool.\n"
    "\n"
    "A file that begins with { contains statistics of a running program with maps, as JSON.\n"
    "\n"
    "Examples:\n"
    "  memtool heapmap --svg OUT.svg           run the example; text and picture\n"
    "  memtool heapmap --example > SCRIPT      write the example's script, to change it\n"
    "  memtool heapmap SCRIPT                  run another script\n"
    "  memtool heapmap snapshot.json --svg OUT.svg --colour owner\n"
    "  echo 'open a heap 1' | memtool heapmap -";

struct HeapmapOptions {
  std::vector<std::string> scripts;
  std::string picture;
  std::string colour;
  bool showsExample = false;
};

Ink inkOf(AreaPart::What what) {
  switch (what) {
    case AreaPart::What::Entry:
      return Ink::Name;
    case AreaPart::What::Freed:
    case AreaPart::What::Zone:
      return Ink::Bad;
    default:
      break;
  }
  return Ink::Dim;
}

// For a program's entries also the callers that made them; a script's entries have names.
void printArea(Console &console, const Store &store, const StoreArea &area, std::size_t number,
               bool isOfProgram) {
  const std::string what = area.isLarge ? "large block" : "area " + std::to_string(number);
  console.print("  {}, {} bytes\n", what, grouped(area.length));
  std::vector<Column> columns{{"offset", true}, {"bytes", true}, {"what"}};
  if (isOfProgram) columns.push_back({"made by"});
  Table table(std::move(columns));
  for (const AreaPart &part : partsOf(store, area)) {
    std::vector<Cell> row{{std::to_string(part.offset), Ink::Place},
                          {std::to_string(part.length)},
                          {part.text, inkOf(part.what)}};
    if (part.entry != nullptr && isOfProgram) row.push_back({part.entry->owner});
    table.add(std::move(row));
  }
  console.write(table.text(console, 4));
}

void printStore(Console &console, const Store &store, bool isOfProgram) {
  console.print("{}: {}, areas of {} bytes", console.paint(Ink::Heading, store.name),
                nameOf(store.type), grouped(store.areaLen));
  if (store.type == StoreType::Pool) console.print(", cells of {} bytes", grouped(store.cellLen));
  console.print(", subpool {}\n", store.subPool);
  if (!store.note.empty()) console.print("  {}\n", store.note);
  std::size_t number = 0;
  for (const StoreArea &area : store.areas) {
    if (!area.isLarge) ++number;
    printArea(console, store, area, number, isOfProgram);
  }
}

void printSnapshots(Console &console, const std::vector<Snapshot> &snapshots) {
  bool isFirst = true;
  for (const Snapshot &snapshot : snapshots) {
    if (!isFirst) console.write("\n");
    isFirst = false;
    if (!snapshot.caption.empty()) {
      console.print("{}\n", console.paint(Ink::Heading, "== " + snapshot.caption));
    }
    for (const Store &store : snapshot.stores) {
      printStore(console, store, snapshot.isOfProgram);
    }
  }
}

std::string scriptText(const std::string &file) {
  if (file.empty()) return std::string(kExampleScript);
  return readFile(file);
}

bool isEmptyScript(const std::string &text) {
  return !isHeapSnapshot(text) && !hasCommands(text);
}

std::vector<Snapshot> snapshotsOf(Tool &tool, const std::string &name, const std::string &text) {
  if (isHeapSnapshot(text)) return {readHeapSnapshot(name, text)};
  RunningLibrary library(pathFromUtf8(tool.library));
  return runHeapScript(library, name, text);
}

ColourBy colourOf(const HeapmapOptions &options) {
  if (options.colour == "age") return ColourBy::Age;
  return options.colour == "owner" ? ColourBy::Owner : ColourBy::Size;
}

ExitCode showFile(Tool &tool, const HeapmapOptions &options, const std::string &file) {
  const std::string name = file.empty() ? "the example" : file;
  const std::string text = scriptText(file);
  if (isEmptyScript(text)) tool.console.print("{}: the script has no commands\n", name);
  const std::vector<Snapshot> snapshots = snapshotsOf(tool, name, text);
  printSnapshots(tool.console, snapshots);
  if (options.picture.empty()) return kExitFine;
  writeFile(options.picture, heapPicture(name, snapshots, colourOf(options)));
  tool.console.print("\n{}: the picture is written\n", options.picture);
  return kExitFine;
}

ExitCode runHeapmap(Tool &tool, const HeapmapOptions &options) {
  if (options.showsExample) {
    tool.console.write(kExampleScript);
    return kExitFine;
  }
  if (!options.picture.empty() && options.scripts.size() > 1) {
    throw UsageError("--svg takes one SCRIPT or SNAPSHOT");
  }
  if (!options.colour.empty() && options.picture.empty()) {
    throw UsageError("--colour goes with --svg");
  }
  std::vector<std::string> scripts = options.scripts;
  if (!options.picture.empty()) requireOutput(options.picture, scripts);
  if (scripts.empty()) scripts.emplace_back();
  return forEachFile(tool, scripts, false, true,
                     [&](const std::string &script) { return showFile(tool, options, script); });
}

}  // namespace

void addHeapmapCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<HeapmapOptions>();
  CLI::App *const command = app.add_subcommand("heapmap", "Show the contents of heaps and pools");
  command
      ->add_option("SCRIPT", options->scripts,
                   "Calls to run, or a program's statistics; - is stdin; default: an example")
      ->type_name("");
  command->add_option("--svg", options->picture, "Draw the areas")->type_name("OUT.svg");
  command
      ->add_option("--colour", options->colour,
                   "What the colours of entries mean: size (default), age or owner")
      ->check(CLI::IsMember({"size", "age", "owner"}).description(""))
      ->type_name("BY");
  command->add_flag("--example", options->showsExample, "Write the example's script");
  command->footer(kFooter);
  command->callback(
      [&tool, options] { tool.command = [&tool, options] { return runHeapmap(tool, *options); }; });
}

}  // namespace memtool
