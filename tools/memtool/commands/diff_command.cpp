// memtool diff: compares two packed chains, or two port strings, as structures.
#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "memtool_commands.hpp"
#include "packed_diff.hpp"
#include "packed_reader.hpp"
#include "port_diff.hpp"
#include "port_text.hpp"
#include "tool_file.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "Examples:\n"
    "  memtool diff A B           each difference with its path from the root\n"
    "  memtool diff --short A B   the first difference and the number of differences\n"
    "  memtool diff A B --json    as JSON for programs\n"
    "\n"
    "Both are packed chains or both are port strings. Places in the files do not matter. Of "
    "chains,\n"
    "the writers' byte orders, pointer widths, widths of wide characters and character sets do "
    "not\n"
    "matter either, as far as the files show them. Exit codes: 0 equal; 1 different, or a file "
    "has\n"
    "a fault; 2 wrong usage; 3 a file cannot be read.";

using Json = nlohmann::ordered_json;

struct DiffOptions {
  std::string a;
  std::string b;
  bool isShort = false;
  bool asJson = false;
  std::optional<std::uint64_t> limit;
  std::uint32_t pointerWidth = 0;
};

// Writes differences as they are found.
class DiffReport {
 public:
  DiffReport(Console &console, const DiffOptions &options, const char *form)
      : console_(console), options_(options) {
    most_ = options.limit.value_or(UINT64_MAX);
    if (options.isShort) most_ = 1;
    if (!options.asJson) return;
    console_.print("{{\n  \"a\": {},\n  \"b\": {},\n  \"form\": \"{}\",\n  \"differences\": [",
                   Json(validUtf8(options.a)).dump(), Json(validUtf8(options.b)).dump(), form);
  }

  void add(const Difference &difference) {
    if (++count_ > most_) return;
    if (!options_.asJson) {
      console_.print("{}\n", difference.text());
      return;
    }
    const Json json{{"path", difference.path},
                    {"what", difference.what},
                    {"a", {{"place", difference.placeA}, {"value", difference.a}}},
                    {"b", {{"place", difference.placeB}, {"value", difference.b}}}};
    console_.print("{}\n    {}", count_ == 1 ? "" : ",", json.dump());
  }

  // `remark` follows the number of pairs.
  ExitCode finish(std::uint64_t pairs, const char *thing, const std::string &remark) {
    const std::uint64_t leftOut = count_ > most_ ? count_ - most_ : 0;
    if (options_.asJson) {
      console_.print(
          "{}],\n  \"isEqual\": {},\n  \"count\": {},\n  \"leftOut\": {},\n  \"compared\": "
          "{}\n}}\n",
          count_ == 0 || most_ == 0 ? "" : "\n  ", count_ == 0, count_, leftOut, pairs);
    } else {
      if (leftOut > 0) console_.print("… and {} more\n", grouped(leftOut));
      console_.print("{} and {}: {}, {} compared{}\n", options_.a, options_.b,
                     count_ == 0 ? console_.paint(Ink::Good, "equal")
                                 : console_.paint(Ink::Bad, countOf(count_, "difference")),
                     countOf(pairs, thing), remark);
    }
    return count_ == 0 ? kExitFine : kExitFault;
  }

 private:
  Console &console_;
  const DiffOptions &options_;
  std::uint64_t most_ = 0;
  std::uint64_t count_ = 0;
};

void reportFaults(Console &console, const std::string &file, const PackedChain &chain) {
  for (const Fault &fault : chain.faults) {
    complain(console, kExitFault, fmt::format("{}: {}", file, fault.text()),
             {{"file", validUtf8(file)},
              {"block", fault.place.block},
              {"offset", fault.place.offset},
              {"fileOffset", fault.fileOffset}});
  }
}

void reportFault(Console &console, const std::string &file, const PortDocument &document) {
  if (!document.fault) return;
  complain(console, kExitFault, fmt::format("{}: {}", file, document.fault->text()),
           {{"file", validUtf8(file)}, {"offset", document.fault->offset}});
}

ExitCode diffChains(Tool &tool, const DiffOptions &options, std::string a, std::string b) {
  const PackedChain one = readChain(std::move(a), options.pointerWidth, tool.console);
  const PackedChain other = readChain(std::move(b), options.pointerWidth, tool.console);
  if (!one.isSound() || !other.isSound()) {
    reportFaults(tool.console, options.a, one);
    reportFaults(tool.console, options.b, other);
    return kExitFault;
  }
  DiffReport report(tool.console, options, "packed chain");
  const ChainComparison made =
      compareChains(one, other, [&](const Difference &difference) { report.add(difference); });
  const std::string remark = made.turned == 0
                                 ? ""
                                 : fmt::format(" ({} of bytes equal in the other byte order)",
                                               countOf(made.turned, "run"));
  return report.finish(made.compared, "segment", remark);
}

ExitCode diffPorts(Tool &tool, const DiffOptions &options, const std::string &a,
                   const std::string &b) {
  const PortDocument one = readPortText(a, tool.console);
  const PortDocument other = readPortText(b, tool.console);
  if (one.fault || other.fault) {
    reportFault(tool.console, options.a, one);
    reportFault(tool.console, options.b, other);
    return kExitFault;
  }
  DiffReport report(tool.console, options, "port string");
  const PortComparison made =
      comparePorts(one, other, [&](const Difference &difference) { report.add(difference); });
  return report.finish(made.compared, "structure", "");
}

ExitCode runDiff(Tool &tool, const DiffOptions &options) {
  if (options.isShort && options.limit) throw UsageError("--short does not go with --limit");
  std::string a = readFile(options.a);
  std::string b = readFile(options.b);
  if (isPortText(a) != isPortText(b)) {
    const std::string &port = isPortText(a) ? options.a : options.b;
    const std::string &other = isPortText(a) ? options.b : options.a;
    throw ToolError(fmt::format("{} is a port string, but {} is not", port, other));
  }
  if (isPortText(a)) return diffPorts(tool, options, a, b);
  return diffChains(tool, options, std::move(a), std::move(b));
}

}  // namespace

void addDiffCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<DiffOptions>();
  CLI::App *const command =
      app.add_subcommand("diff", "Compare two packed chains or two port strings as structures");
  command->add_option("A", options->a, "A packed chain or a port string; - is stdin")
      ->required()
      ->type_name("");
  command->add_option("B", options->b, "The chain or port string to compare it with")
      ->required()
      ->type_name("");
  command->add_flag("-q,--short", options->isShort,
                    "Show only the first difference and the number of differences");
  command->add_option("--limit", options->limit, "Show only the first N differences")
      ->type_name("N")
      ->check(kWholeNumber);
  command->add_flag("--json", options->asJson, "Write JSON instead of text");
  command
      ->add_option("--pointers", options->pointerWidth,
                   "Bytes of the writers' pointers; default: found from the files")
      ->type_name("4|8")
      ->check(kPointerWidth);
  command->footer(kFooter);
  command->callback(
      [&tool, options] { tool.command = [&tool, options] { return runDiff(tool, *options); }; });
}

}  // namespace memtool
