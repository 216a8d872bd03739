// The line language of memtool heapmap, and a run of it through the library.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "heap_store.hpp"
#include "tool_library.hpp"

namespace memtool {

// The script that is run when none is given.
extern const std::string_view kExampleScript;

// Runs a script and returns the states that it wants shown. `name` stands in messages. Throws
// ToolError with the line that is wrong, or whose service failed.
std::vector<Snapshot> runHeapScript(RunningLibrary &library, const std::string &name,
                                    std::string_view script);

}  // namespace memtool
