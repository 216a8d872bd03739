// Whole files as bytes, in binary form on every platform. Names are UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace memtool {

// Throws ToolError with the reason when the file cannot be read.
std::string readFile(const std::string &name);

// Throws ToolError with the reason when the file cannot be written; a file begun is removed then.
void writeFile(const std::string &name, std::string_view bytes);

}  // namespace memtool
