// The sub-commands. Each has a source of its own, <name>_command.cpp, and is added to the program
// in memtool_run.cpp.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "tool_console.hpp"
#include "tool_errors.hpp"

namespace memtool {

// What all sub-commands share while the program runs.
struct Tool {
  Console &console;
  std::string library = {};                // path of the library; empty: the one beside the program
  std::function<ExitCode()> command = {};  // what the named sub-command does; set by its callback
};

// Each adds its sub-command to `app`. When the user names it, its callback sets `tool.command`,
// which may throw ToolError and UsageError. Both arguments outlive the command.
void addChainCommand(CLI::App &app, Tool &tool);
void addContractCommand(CLI::App &app, Tool &tool);
void addErrorsCommand(CLI::App &app, Tool &tool);
void addHeapmapCommand(CLI::App &app, Tool &tool);
void addPortCommand(CLI::App &app, Tool &tool);

}  // namespace memtool
