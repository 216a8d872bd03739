// The sub-commands. Each has a source of its own, <name>_command.cpp, and is added to the program
// in memtool_run.cpp.
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
  std::string library = {};                // path of the library; empty: the one beside the program
  bool hasJsonErrors = false;              // the console knows it from the start
  std::function<ExitCode()> command = {};  // what the named sub-command does; set by its callback
};

// Writes the failure; `file` is what was read, or "". Returns the exit code.
ExitCode tellFailure(Console &console, const std::exception &error, const std::string &file);

// Shows each file; a failure of one does not keep the others from being shown. Several are an array
// in JSON, and have an empty line between them where they are `isApart`. Returns the highest code.
ExitCode forEachFile(Tool &tool, const std::vector<std::string> &files, bool asJson, bool isApart,
                     const std::function<ExitCode(const std::string &)> &show);

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
