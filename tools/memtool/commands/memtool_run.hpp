// The program without its process: what `main` does with the arguments.
#pragma once

#include <string>
#include <vector>

#include "tool_console.hpp"
#include "tool_errors.hpp"

namespace memtool {

inline constexpr const char *kVersion = MEMTOOL_VERSION;

// Runs the program. Failures are one line on the console's stderr. Nothing is thrown.
ExitCode runMemtool(const std::vector<std::string> &words, Console &console) noexcept;

}  // namespace memtool
