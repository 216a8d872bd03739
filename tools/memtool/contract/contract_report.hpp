// Prints the contract: lists of everything, or one slot, service or record.
#pragma once

#include <string>

#include "tool_console.hpp"

namespace memtool {

// The JSON of the installed file, with its last line end.
std::string contractText();

// Slots, services and records in tables.
void printContract(Console &console);

// The slot, service or record of this name. Throws ToolError when there is none.
void printContractEntry(Console &console, const std::string &name);

}  // namespace memtool
