// The sub-commands. Each has its own source, <name>_command.cpp; memtool_run.cpp adds them to the
// program.
#pragma once

#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "tool_console.hpp"
#include "tool_errors.hpp"

namespace memtool {

// What all sub-commands share while the program runs.
struct Tool {
  Console &console;
  std::string library = {};                // path of the library; empty: in the program's folder
  bool hasJsonErrors = false;              // for the parser; runMemtool itself finds the option
  std::function<ExitCode()> command = {};  // runs the named sub-command; set by its callback
};

// Writes the failure; `file` is the file that was read, or "". Returns the exit code.
ExitCode reportFailure(Console &console, const std::exception &error, const std::string &file);

// Shows each file; after a failure of one it continues with the others. Several files are an array
// in JSON; as text, `isApart` puts an empty line between them. Returns the highest code.
ExitCode forEachFile(Tool &tool, const std::vector<std::string> &files, bool asJson, bool isApart,
                     const std::function<ExitCode(const std::string &)> &show);

// Checks of an option's value. The parser itself would take 010 as octal and -1 for a large number.
extern const CLI::Validator kWholeNumber;
extern const CLI::Validator kPointerWidth;

// Each adds its sub-command to `app`. When the user names it, its callback sets `tool.command`,
// which may throw ToolError and UsageError. Both arguments outlive the command.
void addChainCommand(CLI::App &app, Tool &tool);
void addCompletionCommand(CLI::App &app, Tool &tool);
void addConformCommand(CLI::App &app, Tool &tool);
void addContractCommand(CLI::App &app, Tool &tool);
void addDefsCommand(CLI::App &app, Tool &tool);
void addDiffCommand(CLI::App &app, Tool &tool);
void addErrorsCommand(CLI::App &app, Tool &tool);
void addHeapmapCommand(CLI::App &app, Tool &tool);
void addPortCommand(CLI::App &app, Tool &tool);

}  // namespace memtool
