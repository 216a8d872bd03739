// Reading of a port string without definitions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "port_model.hpp"
#include "tool_console.hpp"

namespace memtool {

// Never fails: what is wrong with the text stands in the result. The text must outlive the
// document.
PortDocument readPortText(std::string_view text, Console &console);
PortDocument readPortText(std::string &&text, Console &console) = delete;

// Structures that the header tells of, as readers take it: blanks and a sign may stand before the
// digits, and any character ends them. 0 when there is no such number.
std::uint64_t portPromised(std::string_view text);

// Identifier of the first structure text, 0 when there is none.
std::uint32_t portRootId(std::string_view text);

}  // namespace memtool
