// Reading of a port string without definitions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "port_model.hpp"
#include "tool_console.hpp"

namespace memtool {

// Never fails: the result has the fault of the text. The text must outlive the
// document.
PortDocument readPortText(std::string_view text, Console &console);
PortDocument readPortText(std::string &&text, Console &console) = delete;

// True when the header's marks are in their places, which no chain has.
bool isPortText(std::string_view text);

// Structures according to the header, as readers take it: blanks and a sign may come before the
// digits, and any other character ends them. 0 when there is no such number.
std::uint64_t portPromised(std::string_view text);

// Identifier of the first structure text, 0 when there is none.
std::uint32_t portRootId(std::string_view text);

}  // namespace memtool
