// Reading of a port string without definitions.
#pragma once

#include <string_view>

#include "port_model.hpp"
#include "tool_console.hpp"

namespace memtool {

// Never fails: what is wrong with the text stands in the result.
PortDocument readPortText(std::string_view text, Console &console);

// Identifier of the first structure text, 0 when there is none.
std::uint32_t portRootId(std::string_view text);

}  // namespace memtool
