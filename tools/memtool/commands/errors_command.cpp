// memtool errors: explains the library's codes.
#include <memory>
#include <nlohmann/json.hpp>

#include "error_report.hpp"
#include "memtool_commands.hpp"
#include "tool_file.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "WANTED is a code (decimal, or hexadecimal after 0x), all or part of a name, a text that a\n"
    "failed call recorded, or a text of the explanations. One code is explained; several are\n"
    "listed.\n"
    "\n"
    "Examples:\n"
    "  memtool errors                         all codes\n"
    "  memtool errors 4072                    one code: cause, what the caller sees, what to do\n"
    "  memtool errors 0xFE8                   the same code\n"
    "  memtool errors MEMERR_PACKCYCL         the same by its name\n"
    "  memtool errors heap                    every code whose name contains \"heap\"\n"
    "  memtool errors \"Link offset=-8 less than zero\"\n"
    "                                         the code that records this text";

struct ErrorsOptions {
  std::string wanted;
  std::string page;
  bool asJson = false;
};

std::string notFound(const std::string &wanted) {
  if (isFailedResult(wanted)) {
    return inQuotes(wanted) +
           " is the result of a failing call, not its code; the code is at offset 80 of the thread "
           "environment (MEMThreadEnv.Error.Code)";
  }
  if (isCodeNumber(wanted)) {
    return inQuotes(wanted) +
           " is not a code of this library; in InnerCode or PrevInnerCode it is the host's own "
           "code, which the host's manual explains";
  }
  return "no code has the name or the text " + inQuotes(wanted) +
         "; `memtool errors` lists them all";
}

ExitCode runErrors(Tool &tool, const ErrorsOptions &options) {
  if (!options.page.empty()) {
    writeFile(options.page, errorPage());
    tool.console.print("{}: the page is written\n", options.page);
    return kExitFine;
  }
  const ErrorList codes = findErrorCodes(options.wanted);
  if (codes.empty()) throw ToolError(notFound(options.wanted));
  if (options.asJson) {
    tool.console.print("{}\n", errorJson(codes).dump(2));
  } else if (codes.size() == 1) {
    printError(tool.console, *codes.front());
  } else {
    printErrorTable(tool.console, codes);
  }
  return kExitFine;
}

}  // namespace

void addErrorsCommand(CLI::App &app, Tool &tool) {
  const auto options = std::make_shared<ErrorsOptions>();
  CLI::App *const command = app.add_subcommand("errors", "Explain the library's error codes");
  CLI::Option *const wanted =
      command->add_option("WANTED", options->wanted, "A code, a name or a text")
          ->type_name("CODE|NAME|TEXT");
  CLI::Option *const json =
      command->add_flag("--json", options->asJson, "Write JSON instead of text");
  command->add_option("--page", options->page, "Write all codes as the page of the manual")
      ->type_name("OUT.md")
      ->excludes(wanted)
      ->excludes(json);
  command->footer(kFooter);
  command->callback(
      [&tool, options] { tool.command = [&tool, options] { return runErrors(tool, *options); }; });
}

}  // namespace memtool
