// The output of `memtool errors`.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "error_codes.hpp"
#include "tool_console.hpp"

namespace memtool {

using ErrorList = std::vector<const ErrorCode *>;

// Prints codes with names and messages, one a line.
void printErrorTable(Console &console, const ErrorList &codes);

// Prints all cases of one code.
void printError(Console &console, const ErrorCode &code);

nlohmann::ordered_json errorJson(const ErrorList &codes);

}  // namespace memtool
