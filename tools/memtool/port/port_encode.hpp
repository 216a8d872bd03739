// Port strings through the library's writer.
#pragma once

#include <string>

#include "port_defs.hpp"
#include "tool_library.hpp"

namespace memtool {

// The port string of the graph that `json` describes, in the form of docs/memtool-port.md. Throws
// ToolError when the description does not fit the definitions, with a message that begins with
// `name`, or when the library fails.
std::string encodePortText(RunningLibrary &library, const PortDefinitions &definitions,
                           const std::string &name, std::string_view json);

}  // namespace memtool
