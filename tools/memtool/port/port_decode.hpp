// Port strings through the library's reader.
#pragma once

#include <string_view>

#include "port_defs.hpp"
#include "port_model.hpp"
#include "tool_library.hpp"

namespace memtool {

// What the library makes of the text. Structures have the numbers that a writer would give them, in
// the order in which pointers to them are met. Throws ToolError when the library refuses the text,
// or when what it made does not fit the definitions. The library and the definitions must outlive
// the document, which does not need the text.
PortDocument decodePortText(RunningLibrary &library, const PortDefinitions &definitions,
                            std::string_view text, Console &console);

}  // namespace memtool
