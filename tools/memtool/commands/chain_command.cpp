// memtool chain: looks into the file of a packed chain.
#include <fmt/format.h>

#include <memory>
#include <optional>

#include "memtool_commands.hpp"
#include "packed_native.hpp"
#include "packed_picture.hpp"
#include "packed_reader.hpp"
#include "packed_report.hpp"
#include "packed_verdict.hpp"
#include "tool_file.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "Examples:\n"
    "  memtool chain FILE                        what is in it\n"
    "  memtool chain FILE --data                 the segments' other bytes as well\n"
    "  memtool chain FILE --json | jq .blocks    the same for programs\n"
    "  memtool chain FILE --check                is it sound? Tells the first fault\n"
    "  memtool chain FILE --svg OUT.svg          a picture of its first blocks\n"
    "  memtool chain FILE --to-native OUT        any writer's chain as one of this platform\n"
    "\n"
    "FILE holds the blocks in order, each as its used bytes from block offset 8 on. Places are\n"
    "written as block:offset, the offset counted as in relative pointers. A chain that has a "
    "fault\n"
    "is shown up to there, and the exit code is 1.";

struct ChainOptions {
  std::string file;
  bool asJson = false;
  bool withData = false;
  bool checks = false;
  std::string picture;
  std::uint32_t pointerWidth = 0;
  std::string native;
  std::string like;
  std::uint32_t likePointerWidth = 0;
  std::int32_t blockLength = 0;
};

[[noreturn]] void throwFault(const ChainOptions &options, const Fault &fault,
                             const Verdict &verdict) {
  throw ToolError(options.file + ": " + fault.text() + remarkOf(verdict));
}

// What the library says of a chain that has a fault. Without a library the fault is shown alone.
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
      "{0}: the control block does not show the width of the writer's pointers; give it: "
      "{1} 4 or {1} 8",
      file, option));
}

PackedChain readLike(const ChainOptions &options, Console &console) {
  PackedChain chain = readChain(readFile(options.like), options.likePointerWidth, console);
  if (chain.fault) throw ToolError(options.like + ": " + chain.fault->text());
  refuseGuess(options.like, chain, "--like-pointers");
  return chain;
}

void printSound(Console &console, const ChainOptions &options, const PackedChain &chain) {
  console.print("{}: {}, {} segments and {} texts in {} block{}\n", options.file,
                console.paint(Ink::Good, "sound"), grouped(chain.segments.size()),
                grouped(chain.texts.size()), grouped(chain.blocks.size()),
                chain.blocks.size() == 1 ? "" : "s");
}

void writePicture(Console &console, const ChainOptions &options, const PackedChain &chain) {
  writeFile(options.picture, chainPicture(options.file, chain));
  if (!options.asJson) console.print("{}: the picture is written\n", options.picture);
}

void writeNative(Tool &tool, const ChainOptions &options, const PackedChain &chain) {
  refuseGuess(options.file, chain, "--pointers");
  NativeRequest request;
  request.blockLength = options.blockLength;
  if (!options.like.empty()) request.like = readLike(options, tool.console);
  RunningLibrary library(pathFromUtf8(tool.library));
  const NativeChain native = toNative(library, chain, request, tool.console);
  writeFile(options.native, native.bytes);
  if (options.asJson) return;
  tool.console.print("{}: {} bytes in {} block{} of {}, version {}\n", options.native,
                     grouped(native.bytes.size()), grouped(native.blocks),
                     native.blocks == 1 ? "" : "s",
                     grouped(static_cast<std::uint64_t>(native.blockLength)), native.version);
  if (!native.remark.empty()) tool.console.print("{}\n", native.remark);
}

// What is left of the chain is shown in front of its fault, where it is to be shown at all.
ExitCode runChain(Tool &tool, const ChainOptions &options) {
  if (options.native.empty() && (!options.like.empty() || options.blockLength != 0)) {
    throw UsageError("--like and --block-length go with --to-native");
  }
  if (options.like.empty() && options.likePointerWidth != 0) {
    throw UsageError("--like-pointers goes with --like");
  }
  const PackedChain chain = readChain(readFile(options.file), options.pointerWidth, tool.console);
  std::optional<Verdict> verdict;
  if (chain.fault) verdict = verdictOn(tool, chain);
  const bool isQuiet = options.checks || !options.picture.empty() || !options.native.empty();
  if (options.asJson) {
    const auto json = chainJson(options.file, chain, verdict, options.withData);
    tool.console.print("{}\n", json.dump(2));
  } else if (!isQuiet) {
    printChain(tool.console, options.file, chain, options.withData);
  }
  if (!options.picture.empty() && chain.version) writePicture(tool.console, options, chain);
  if (chain.fault) {
    tool.console.out().flush();
    throwFault(options, *chain.fault, *verdict);
  }
  if (options.checks && !options.asJson) printSound(tool.console, options, chain);
  if (!options.native.empty()) writeNative(tool, options, chain);
  return kExitFine;
}

}  // namespace

void addChainCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<ChainOptions>();
  CLI::App *const command = app.add_subcommand("chain", "Look into the file of a packed chain");
  command->add_option("FILE", options->file, "The chain")->required()->type_name("");
  command->add_flag("--json", options->asJson, "Write JSON instead of tables");
  command->add_flag("--data", options->withData, "Show the bytes between the pointer fields");
  command->add_flag("--check", options->checks, "Only tell whether the chain is sound");
  command->add_option("--svg", options->picture, "Draw blocks, segments and pointers")
      ->type_name("OUT.svg");
  command->add_option("--to-native", options->native, "Write the chain as one of this platform")
      ->type_name("OUT");
  command
      ->add_option("--like", options->like,
                   "With --to-native: lay segments out by this chain's control block")
      ->type_name("CHAIN");
  command
      ->add_option("--like-pointers", options->likePointerWidth,
                   "Bytes of the pointers in the chain of --like; found when not given")
      ->type_name("4|8")
      ->check(CLI::IsMember({4, 8}));
  command
      ->add_option("--block-length", options->blockLength,
                   "With --to-native: length of the blocks (32768)")
      ->type_name("N")
      ->check(CLI::Range(1, 0x7FFFFFFF));
  command
      ->add_option("--pointers", options->pointerWidth,
                   "Bytes of the writer's pointers, 4 or 8; from the control block when not given")
      ->type_name("4|8")
      ->check(CLI::IsMember({4, 8}));
  command->footer(kFooter);
  command->callback(
      [&tool, options] { tool.command = [&tool, options] { return runChain(tool, *options); }; });
}

}  // namespace memtool
