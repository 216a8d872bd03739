// Runs the scripts of memtool heapmap through the library.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "heap_store.hpp"
#include "tool_library.hpp"

namespace memtool {

// The script that runs when none is given.
extern const std::string_view kExampleScript;

// False for a script of blank lines and comments.
bool hasCommands(std::string_view script);

// Runs a script and returns the states at its `show` lines and at its end. Messages contain `name`.
// Throws ToolError with the line that is wrong or whose service failed.
std::vector<Snapshot> runHeapScript(RunningLibrary &library, const std::string &name,
                                    std::string_view script);

}  // namespace memtool
