#include "memtool_run.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <ostream>

#include "memtool_commands.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "Exit codes: 0 fine, 1 the input has a fault or the operation failed, 2 wrong usage.\n"
    "`memtool COMMAND --help` shows a command's options and examples.";

// Failure texts stand on one line, whatever they quote.
std::string oneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return text;
}

ExitCode fail(Console &console, const std::string &what, ExitCode code) {
  console.err() << "memtool: " << oneLine(what) << std::endl;
  return code;
}

void describe(CLI::App &app, Tool &tool) {
  app.name("memtool");
  app.allow_windows_style_options(false);  // /name is a path on every platform
  app.set_version_flag("--version", std::string("memtool ") + kVersion, "Show the version");
  app.set_help_flag("-h,--help", "Show this help");
  app.add_option("--library", tool.library,
                 "The library to use instead of the one beside the program")
      ->type_name("PATH");
  app.require_subcommand(1);
  app.fallthrough();  // --library may stand behind the command's name, too
  app.footer(kFooter);
  addChainCommand(app, tool);
  addContractCommand(app, tool);
  addErrorsCommand(app, tool);
  addHeapmapCommand(app, tool);
  addPortCommand(app, tool);
}

ExitCode parseAndRun(CLI::App &app, Tool &tool, std::vector<std::string> words) {
  std::reverse(words.begin(), words.end());  // the order that the parser takes
  app.parse(words);
  const ExitCode code = tool.command();
  if (!tool.console.out().flush()) throw ToolError("the output could not be written");
  return code;
}

ExitCode run(const std::vector<std::string> &words, Console &console) {
  Tool tool{console};
  CLI::App app("Looks into what QJ7MEM00 writes and does.");
  describe(app, tool);
  try {
    return parseAndRun(app, tool, words);
  } catch (const CLI::CallForHelp &) {
    console.write(app.help());
    return kExitFine;
  } catch (const CLI::CallForVersion &version) {
    console.print("{}\n", version.what());
    return kExitFine;
  } catch (const CLI::ParseError &error) {
    return fail(console, std::string(error.what()) + " (try --help)", kExitUsage);
  }
}

}  // namespace

ExitCode runMemtool(const std::vector<std::string> &words, Console &console) noexcept {
  try {
    return run(words, console);
  } catch (const UsageError &error) {
    return fail(console, std::string(error.what()) + " (try --help)", kExitUsage);
  } catch (const std::exception &error) {
    return fail(console, error.what(), kExitFault);
  }
}

}  // namespace memtool
