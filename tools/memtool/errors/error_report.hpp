// What `memtool errors` writes.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "error_codes.hpp"
#include "tool_console.hpp"

namespace memtool {

using ErrorList = std::vector<const ErrorCode *>;

// Codes with names and messages, a line each.
void printErrorTable(Console &console, const ErrorList &codes);

// All that is known of one code.
void printError(Console &console, const ErrorCode &code);

nlohmann::ordered_json errorJson(const ErrorList &codes);

}  // namespace memtool
