// memtool chain: shows, checks, rewrites and makes packed chains.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "chain_defs.hpp"
#include "chain_encode.hpp"
#include "chain_names.hpp"
#include "memtool_commands.hpp"
#include "packed_native.hpp"
#include "packed_picture.hpp"
#include "packed_reader.hpp"
#include "packed_report.hpp"
#include "packed_selection.hpp"
#include "packed_verdict.hpp"
#include "port_text.hpp"
#include "tool_file.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "Examples:\n"
    "  memtool chain FILE                        show all of it\n"
    "  memtool chain FILE --data                 with the bytes between the pointer fields\n"
    "  memtool chain FILE --json | jq .blocks    as JSON for programs\n"
    "  memtool chain FILE --check                is it valid? Shows every fault\n"
    "  memtool chain FILE --svg OUT.svg          draw its first blocks\n"
    "  memtool chain FILE --at 1:34              the segment there, and what it points to\n"
    "  memtool chain FILE --kind 2 --limit 10    the first ten segments of kind 2\n"
    "  memtool chain FILE --root 1:34 --depth 1  a walk from there, one level down\n"
    "  memtool chain FILE --svg OUT.svg --block 30\n"
    "                                            draw the blocks from this one on\n"
    "  memtool chain FILE --to-native OUT        rewrite any writer's chain for this platform\n"
    "  memtool chain FILE --defs DEFS.json       with names and typed values\n"
    "  memtool chain FILE --defs DEFS.json --json > GRAPH.json\n"
    "  memtool chain --encode GRAPH.json --defs DEFS.json -o OUT\n"
    "\n"
    "FILE contains the used bytes of each block in order. Places are written as block:offset;\n"
    "offset 0 is the first byte of the block in FILE. Of a damaged chain everything is shown "
    "except\n"
    "what can be reached only through a faulty pointer, and the exit code is 1.";

struct ChainOptions {
  std::vector<std::string> files;
  bool asJson = false;
  bool withData = false;
  bool checks = false;
  std::string picture;
  std::uint32_t pointerWidth = 0;
  std::string native;
  std::string like;
  std::uint32_t likePointerWidth = 0;
  std::int32_t blockLength = 0;
  ChainFilter filter;
  std::optional<std::uint32_t> pictureBlock;
  std::string definitions;
  bool encodes = false;
  std::string graph;  // of --encode; empty: the graph is the FILE
  std::string output;

  bool showsSegments() const { return !checks && (asJson || (picture.empty() && native.empty())); }
};

// Ends the report of a chain's faults. With the library's verdict, if it was asked.
std::string remarkOn(const PackedChain &chain, const std::optional<Verdict> &verdict) {
  return (verdict ? remarkOf(*verdict) : "") +
         (isPortText(chain.bytes) ? "; the file looks like a port string: use memtool port" : "");
}

// A line for each fault. The last line has the remark: after several faults, that is a line with
// their number.
ExitCode reportFaults(Console &console, const std::string &file, const PackedChain &chain,
                      const std::optional<Verdict> &verdict) {
  const std::string remark = remarkOn(chain, verdict);
  const bool isOne = chain.faults.size() == 1;
  console.out().flush();
  for (const Fault &fault : chain.faults) {
    complain(console, kExitFault, fmt::format("{}: {}{}", file, fault.text(), isOne ? remark : ""),
             {{"file", validUtf8(file)},
              {"block", fault.place.block},
              {"offset", fault.place.offset},
              {"fileOffset", fault.fileOffset}});
  }
  if (!isOne) {
    complain(console, kExitFault,
             fmt::format("{}: {}{}", file, countOf(chain.faults.size(), "fault"), remark),
             {{"file", validUtf8(file)}});
  }
  return kExitFault;
}

// The library's verdict on a chain with a fault. Without a library only the fault is shown.
Verdict verdictOn(const Tool &tool, const PackedChain &chain) {
  std::optional<RunningLibrary> library;
  try {
    library.emplace(pathFromUtf8(tool.library));
  } catch (const ToolError &error) {
    return {.whyNot = error.what()};
  }
  return askLibrary(*library, chain);
}

void refuseGuess(const std::string &file, const PackedChain &chain, const char *option) {
  if (!chain.isWidthGuessed) return;
  throw ToolError(fmt::format(
      "{0}: the width of the writer's pointers is not evident from the control block; set it with "
      "{1} 4 or {1} 8",
      file, option));
}

PackedChain readLike(const ChainOptions &options, Console &console) {
  PackedChain chain = readChain(readFile(options.like), options.likePointerWidth, console);
  if (!chain.isSound()) throw ToolError(options.like + ": " + chain.faults.front().text());
  refuseGuess(options.like, chain, "--like-pointers");
  return chain;
}

void printValid(Console &console, const std::string &file, const PackedChain &chain) {
  console.print("{}: {}, {} and {} in {}\n", file, console.paint(Ink::Good, "valid"),
                countOf(chain.segments.size(), "segment"), countOf(chain.texts.size(), "text"),
                countOf(chain.blocks.size(), "block"));
  for (const std::uint32_t block : chain.unusedBlocks()) {
    console.print(
        "{}: nothing leads to block {} ({} bytes): a pointer was lost, or files were joined\n",
        file, block, grouped(chain.blocks[block].used));
  }
}

void writePicture(Console &console, const ChainOptions &options, const std::string &file,
                  const PackedChain &chain) {
  const PictureStart start{options.pictureBlock, options.filter.root};
  writeFile(options.picture, chainPicture(file, chain, start));
  if (!options.asJson) console.print("{}: the picture is written\n", options.picture);
}

void printWritten(Console &console, const std::string &file, const NativeChain &chain) {
  console.print("{}: {} bytes in {} block{} of {}, version {}\n", file, grouped(chain.bytes.size()),
                grouped(chain.blocks), chain.blocks == 1 ? "" : "s",
                grouped(static_cast<std::uint64_t>(chain.blockLength)), chain.version);
}

void writeNative(Tool &tool, const ChainOptions &options, const std::string &file,
                 const PackedChain &chain) {
  refuseGuess(file, chain, "--pointers");
  NativeRequest request;
  request.blockLength = options.blockLength;
  if (!options.like.empty()) request.like = readLike(options, tool.console);
  RunningLibrary library(pathFromUtf8(tool.library));
  const NativeChain native = toNative(library, chain, request, tool.console);
  writeFile(options.native, native.bytes);
  if (options.asJson) return;
  printWritten(tool.console, options.native, native);
  if (!native.remark.empty()) tool.console.print("{}\n", native.remark);
}

// `definitions`, which may be null, decide the width of pointers if the chain does not show it.
PackedChain readNamed(const ChainOptions &options, const std::string &file,
                      const ChainDefinitions *definitions, Console &console) {
  PackedChain chain = readChain(readFile(file), options.pointerWidth, console);
  const std::uint32_t width = definitions == nullptr ? 0 : definitions->pointerWidth();
  if (!chain.isWidthGuessed || width == 0) return chain;
  return readChain(std::move(chain.bytes), width, console);
}

// A valid chain's reference to a segment of another structure than its definition names.
ExitCode reportReference(Console &console, const std::string &file, const Fault &wrong) {
  console.out().flush();
  complain(console, kExitFault, file + ": " + wrong.what,
           {{"file", validUtf8(file)},
            {"block", wrong.place.block},
            {"offset", wrong.place.offset},
            {"fileOffset", wrong.fileOffset}});
  return kExitFault;
}

// With definitions, --kind may be a name.
ChainFilter filterOf(const ChainOptions &options, const ChainDefinitions *definitions) {
  ChainFilter filter = options.filter;
  const bool isNumber = filter.kind.find_first_not_of("0123456789") == std::string::npos;
  if (definitions == nullptr || isNumber) return filter;
  const ChainKindDefinition *const kind = definitions->find(std::string_view(filter.kind));
  if (kind != nullptr) filter.kind = std::to_string(kind->kind);
  return filter;
}

void show(Console &console, const ChainOptions &options, const std::string &file,
          const PackedChain &chain, const std::optional<Verdict> &verdict,
          const ChainDefinitions *definitions) {
  const ChainSelection selection(chain, filterOf(options, definitions));
  if (definitions != nullptr) {
    if (options.asJson) return writeNamedChainJson(console, *definitions, chain, selection);
    return printNamedChain(console, file, *definitions, chain, selection);
  }
  if (options.asJson) {
    return writeChainJson(console, file, chain, selection, verdict, options.withData);
  }
  printChain(console, file, chain, selection, options.withData);
}

// Shows the readable part of the chain, if its segments are to be shown, and then the faults.
ExitCode showChain(Tool &tool, const ChainOptions &options, const std::string &file,
                   const ChainDefinitions *definitions) {
  Console &console = tool.console;
  const PackedChain chain = readNamed(options, file, definitions, console);
  if (definitions != nullptr && chain.isHeadSound) definitions->checkAgainst(file, chain);
  std::optional<Verdict> verdict;
  if (!chain.isSound()) verdict = verdictOn(tool, chain);
  std::optional<Fault> wrong;
  if (definitions != nullptr && chain.isSound()) wrong = wrongReference(*definitions, chain);
  if (options.asJson && options.checks) {
    console.print("{}\n", chainCheckJson(file, chain, verdict, wrong).dump(2));
  } else if (options.showsSegments()) {
    try {
      show(console, options, file, chain, verdict, definitions);
    } catch (const UnknownValue &) {
      if (!chain.isSound()) reportFaults(console, file, chain, verdict);  // they may explain it
      throw;
    }
  }
  if (!options.picture.empty() && chain.version) writePicture(console, options, file, chain);
  if (!chain.isSound()) return reportFaults(console, file, chain, verdict);
  if (wrong) return reportReference(console, file, *wrong);
  if (options.checks && !options.asJson) printValid(console, file, chain);
  if (!options.native.empty()) writeNative(tool, options, file, chain);
  return kExitFine;
}

// Refuses filters when no segments are shown.
void checkFilter(const ChainOptions &options) {
  const ChainFilter &filter = options.filter;
  const bool isDrawing = !options.picture.empty();
  if (options.pictureBlock && !isDrawing) throw UsageError("--block goes with --svg");
  ChainFilter ofSegments = filter;
  if (isDrawing) ofSegments.root.clear();
  if (!ofSegments.isEmpty() && !options.showsSegments()) {
    throw UsageError(isDrawing ? "--svg takes --root and --block only, unless --json is given"
                               : "--kind, --at, --root, --depth and --limit do not go with --check "
                                 "and --to-native, which show no segments");
  }
  if (!filter.at.empty() && (!filter.kind.empty() || !filter.root.empty() || filter.depth)) {
    throw UsageError("--at does not go with --kind, --root and --depth");
  }
}

// Refuses --data when no bytes between the pointer fields are shown, or all bytes.
void checkData(const ChainOptions &options) {
  if (!options.withData) return;
  if (!options.showsSegments()) {
    throw UsageError(
        "--data does not go with --check, nor without --json with --svg and --to-native: they show "
        "no segments");
  }
  if (!options.definitions.empty()) {
    throw UsageError("--data does not go with --defs, which shows these bytes anyway");
  }
}

// Options that --encode does not use.
bool asksForMore(const ChainOptions &options) {
  return options.asJson || options.checks || options.withData || !options.picture.empty() ||
         options.pictureBlock || !options.native.empty() || !options.like.empty() ||
         options.likePointerWidth != 0 || options.pointerWidth != 0 || !options.filter.isEmpty();
}

ExitCode encode(Tool &tool, const ChainOptions &options) {
  std::vector<std::string> graphs = options.files;
  if (!options.graph.empty()) graphs.push_back(options.graph);
  if (asksForMore(options))
    throw UsageError("--encode takes --defs, --block-length and --output only");
  if (options.definitions.empty()) throw UsageError("--encode needs --defs");
  if (options.output.empty()) throw UsageError("--encode needs --output");
  const ChainDefinitions definitions(options.definitions, readFile(options.definitions));
  if (graphs.size() != 1) throw UsageError("--encode takes one GRAPH.json");
  requireOutput(options.output, {graphs.front(), options.definitions});
  const std::string graph = readFile(graphs.front());
  RunningLibrary library(pathFromUtf8(tool.library));
  const NativeChain made =
      encodeChain(library, definitions, graphs.front(), graph, options.blockLength);
  writeFile(options.output, made.bytes);
  printWritten(tool.console, options.output, made);
  return kExitFine;
}

ExitCode runChain(Tool &tool, const ChainOptions &options) {
  if (options.encodes) return encode(tool, options);
  if (options.files.empty()) throw UsageError("chain needs a FILE, or --encode");
  if (!options.output.empty()) throw UsageError("--output goes with --encode");
  if (options.native.empty() && (!options.like.empty() || options.blockLength != 0)) {
    throw UsageError("--like needs --to-native; --block-length needs --to-native or --encode");
  }
  if (options.like.empty() && options.likePointerWidth != 0) {
    throw UsageError("--like-pointers goes with --like");
  }
  checkFilter(options);
  checkData(options);
  const bool writes = !options.native.empty() || !options.picture.empty();
  if (writes && options.files.size() > 1) {
    throw UsageError("--svg and --to-native take one FILE");
  }
  for (const std::string &output : {options.picture, options.native}) {
    if (!output.empty()) requireOutput(output, {options.files.front(), options.like});
  }
  std::optional<ChainDefinitions> definitions;
  if (!options.definitions.empty()) {
    if (writes) throw UsageError("--defs does not go with --svg and --to-native");
    definitions.emplace(options.definitions, readFile(options.definitions));
  }
  const ChainDefinitions *const pDefinitions = definitions ? &*definitions : nullptr;
  return forEachFile(
      tool, options.files, options.asJson, !options.checks,
      [&](const std::string &file) { return showChain(tool, options, file, pDefinitions); });
}

}  // namespace

void addChainCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<ChainOptions>();
  CLI::App *const command =
      app.add_subcommand("chain", "Show, check, rewrite or make a packed chain");
  command->add_option("FILE", options->files, "Files of chains; - is stdin")->type_name("");
  command->add_flag("--json", options->asJson, "Write JSON instead of tables");
  command->add_flag("--data", options->withData,
                    "Show the bytes between the pointer fields; not with --defs");
  command->add_option("--kind", options->filter.kind, "Show only segments of this kind")
      ->type_name("KIND");
  command
      ->add_option("--at", options->filter.at,
                   "Show the segment that contains this byte, and what it points to")
      ->type_name("BLOCK:OFFSET");
  command->add_option("--root", options->filter.root, "Start at this segment; also in a picture")
      ->type_name("BLOCK:OFFSET");
  command->add_option("--depth", options->filter.depth, "Show at most N levels below the start")
      ->type_name("N")
      ->check(kWholeNumber);
  command->add_option("--limit", options->filter.limit, "Show only the first N of these segments")
      ->type_name("N")
      ->check(kWholeNumber);
  command->add_option("--block", options->pictureBlock, "With --svg: the first block to draw")
      ->type_name("N")
      ->check(kWholeNumber);
  command->add_flag("--check", options->checks, "Only check whether the chain is valid");
  command->add_option("--svg", options->picture, "Draw blocks, segments and pointers")
      ->type_name("OUT.svg");
  command->add_option("--to-native", options->native, "Rewrite the chain for this platform")
      ->type_name("OUT");
  command
      ->add_option("--like", options->like,
                   "With --to-native: use the layout of this chain's control block")
      ->type_name("CHAIN");
  command
      ->add_option("--like-pointers", options->likePointerWidth,
                   "Bytes of the pointers in the chain of --like; default: from its control block")
      ->type_name("4|8")
      ->check(kPointerWidth);
  command
      ->add_option(
          "--block-length", options->blockLength,
          "With --to-native and --encode: length of the blocks; default: 32768, or more if "
          "an item needs it")
      ->type_name("N")
      ->check(CLI::Range(1, 0x7FFFFFFF).description(""));
  command
      ->add_option("--pointers", options->pointerWidth,
                   "Bytes of the writer's pointers; default: found from the file")
      ->type_name("4|8")
      ->check(kPointerWidth);
  command->add_option("--defs", options->definitions, "Definitions of the kinds, as JSON")
      ->type_name("DEFS.json");
  const CLI::Option *const encodeOption =
      command->add_option("--encode", options->graph, "Make a chain from this JSON")
          ->type_name("GRAPH.json")
          ->expected(0, 1);  // the FILE may be the graph as well
  command->add_option("-o,--output", options->output, "With --encode: the file to write")
      ->type_name("OUT");
  command->footer(kFooter);
  command->callback([&tool, options, encodeOption] {
    options->encodes = encodeOption->count() > 0;
    tool.command = [&tool, options] { return runChain(tool, *options); };
  });
}

}  // namespace memtool
