#include "memtool_run.hpp"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <new>
#include <nlohmann/json.hpp>
#include <numeric>
#include <ostream>
#include <utility>

#include "memtool_commands.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr const char *kFooter =
    "FILE may be - for standard input. Exit codes: 0 success; 1 the input is damaged or "
    "different,\n"
    "or the operation failed; 2 wrong usage; 3 something cannot be read or written. For several\n"
    "files it is the highest. `memtool COMMAND --help` shows a command's options and examples.";
constexpr const char *kJsonErrors = "--json-errors";

ExitCode fail(Console &console, const std::string &what, ExitCode code) {
  complain(console, code, what);
  return code;
}

void describe(CLI::App &app, Tool &tool) {
  app.name("memtool");
  app.get_formatter()->label("SUBCOMMAND", "COMMAND");
  app.allow_windows_style_options(false);  // /name is a path on every platform
  app.set_version_flag("--version", std::string("memtool ") + kVersion, "Show the version");
  app.set_help_flag("-h,--help", "Show this help");
  app.add_option("--library", tool.library,
                 "The library to use instead of the one in the program's folder")
      ->type_name("PATH");
  app.add_flag(kJsonErrors, tool.hasJsonErrors,
               "Write each failure as a JSON object on one line of stderr");
  app.require_subcommand(1);
  app.fallthrough();  // these options may follow the command's name, too
  app.footer(kFooter);
  addChainCommand(app, tool);
  addCompletionCommand(app, tool);
  addConformCommand(app, tool);
  addContractCommand(app, tool);
  addDefsCommand(app, tool);
  addDiffCommand(app, tool);
  addErrorsCommand(app, tool);
  addHeapmapCommand(app, tool);
  addPortCommand(app, tool);
  for (CLI::App *const command : app.get_subcommands(nullptr)) command->group("Commands");
}

// The number of characters to insert, remove or change to turn one word into the other.
std::size_t distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t changed = diagonal + (from[i] == to[j] ? 0U : 1U);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

std::string nearest(std::string_view word, const std::vector<std::string> &known) {
  return *std::min_element(known.begin(), known.end(),
                           [word](const std::string &a, const std::string &b) {
                             return distance(word, a) < distance(word, b);
                           });
}

std::vector<std::string> optionsOf(const CLI::App &app) {
  std::vector<std::string> names;
  const auto add = [&names](const CLI::App &from) {
    for (const CLI::Option *option : from.get_options()) {
      for (const std::string &name : option->get_lnames()) names.push_back("--" + name);
    }
  };
  add(app);
  for (const CLI::App *command : app.get_subcommands()) add(*command);
  return names;
}

// A message that names the unknown word and the most similar known one; "" when the mistake is
// another one.
std::string unknownWord(const CLI::App &app) {
  for (const std::string &word : app.remaining(true)) {
    if (word.starts_with("--")) {
      const std::string name = word.substr(0, word.find('='));
      return fmt::format("there is no option {}; the most similar one is {}", name,
                         nearest(name, optionsOf(app)));
    }
    if (!app.get_subcommands().empty() || word.starts_with('-')) continue;
    std::vector<std::string> commands;
    for (const CLI::App *command : app.get_subcommands(nullptr)) {
      commands.push_back(command->get_name());
    }
    return fmt::format("there is no command {}; the most similar one is {}", inQuotes(word, 40),
                       nearest(word, commands));
  }
  return "";
}

std::string mistakeOf(const CLI::App &app, const CLI::ParseError &error) {
  const std::string unknown = unknownWord(app);
  if (!unknown.empty()) return unknown;
  const bool isRequired = dynamic_cast<const CLI::RequiredError *>(&error) != nullptr;
  if (isRequired && app.get_subcommands().empty()) return "a command is required";
  return error.what();
}

void flush(Console &console) {
  if (!console.out().flush()) throw FileError("the output could not be written");
}

ExitCode parseAndRun(CLI::App &app, Tool &tool, std::vector<std::string> words) {
  std::reverse(words.begin(), words.end());  // the order that the parser takes
  app.parse(words);
  return tool.command();
}

ExitCode run(const std::vector<std::string> &words, Console &console) {
  Tool tool{console};
  CLI::App app(
      "Shows packed chains, port strings and heaps of QJ7MEM00, and explains its error codes.");
  describe(app, tool);
  ExitCode code = kExitFine;
  try {
    code = parseAndRun(app, tool, words);
  } catch (const CLI::CallForHelp &) {
    console.write(app.help());
  } catch (const CLI::CallForVersion &version) {
    console.print("{}\n", version.what());
  } catch (const CLI::ParseError &error) {
    return fail(console, mistakeOf(app, error) + " (try --help)", kExitUsage);
  }
  flush(console);
  return code;
}

std::string wholeNumberMistake(const std::string &word) {
  const bool isNumber = !word.empty() && word.find_first_not_of("0123456789") == word.npos;
  const bool isDecimal = isNumber && (word.size() == 1 || word.front() != '0');
  return isDecimal ? "" : "expected a decimal number, found " + inQuotes(word, 40);
}

std::string pointerWidthMistake(const std::string &word) {
  return word == "4" || word == "8" ? "" : "expected 4 or 8, found " + inQuotes(word, 40);
}

}  // namespace

const CLI::Validator kWholeNumber(wholeNumberMistake, "");
const CLI::Validator kPointerWidth(pointerWidthMistake, "");

ExitCode reportFailure(Console &console, const std::exception &error, const std::string &file) {
  console.out().flush();
  const auto report = [&](const std::string &what, ExitCode code) {
    complain(console, code, what,
             file.empty() ? nlohmann::ordered_json()
                          : nlohmann::ordered_json{{"file", validUtf8(file)}});
    return code;
  };
  if (dynamic_cast<const std::bad_alloc *>(&error) != nullptr) {
    return report((file.empty() ? "" : file + ": ") + "there is not enough memory", kExitFile);
  }
  if (dynamic_cast<const FileError *>(&error) != nullptr) return report(error.what(), kExitFile);
  if (dynamic_cast<const UsageError *>(&error) != nullptr) {
    return report(std::string(error.what()) + " (try --help)", kExitUsage);
  }
  if (dynamic_cast<const UnknownValue *>(&error) != nullptr) {
    const bool isNamed = std::string_view(error.what()).starts_with(file);
    return report((file.empty() || isNamed ? "" : file + ": ") + error.what(), kExitUsage);
  }
  return report(error.what(), kExitFault);
}

ExitCode runMemtool(const std::vector<std::string> &words, Console &console) noexcept {
  if (std::find(words.begin(), words.end(), kJsonErrors) != words.end()) console.useJsonErrors();
  try {
    return run(words, console);
  } catch (const std::exception &error) {
    return reportFailure(console, error, "");
  }
}

namespace {

// A mistake in the arguments is no failure of the file.
ExitCode showOne(const Tool &tool, const std::string &file,
                 const std::function<ExitCode(const std::string &)> &show) {
  try {
    return show(file);
  } catch (const UsageError &) {
    throw;
  } catch (const UnknownValue &) {
    throw;
  } catch (const std::exception &error) {
    return reportFailure(tool.console, error, file);
  }
}

}  // namespace

ExitCode forEachFile(Tool &tool, const std::vector<std::string> &files, bool asJson, bool isApart,
                     const std::function<ExitCode(const std::string &)> &show) {
  if (files.size() == 1) return showOne(tool, files.front(), show);
  ExitCode worst = kExitFine;
  bool isFirst = true;
  for (const std::string &file : files) {
    if (asJson) tool.console.write(isFirst ? "[\n" : ",\n");
    if (!asJson && isApart && !isFirst) tool.console.write("\n");
    isFirst = false;
    ExitCode code = kExitFine;
    try {
      code = show(file);
    } catch (const UsageError &) {
      throw;
    } catch (const std::exception &error) {
      code = reportFailure(tool.console, error, file);
      if (asJson) {
        const nlohmann::ordered_json json{{"file", validUtf8(file)},
                                          {"error", validUtf8(error.what())}};
        tool.console.print("{}\n", json.dump(2));
      }
    }
    worst = std::max(worst, code);
  }
  if (asJson) tool.console.write("]\n");
  return worst;
}

}  // namespace memtool
