// Whole files as bytes, in binary form on every platform. Names are UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace memtool {

// "-" is standard input, once in a run. Throws FileError with the reason when the file cannot be
// read.
std::string readFile(const std::string &name);

// An old file is replaced when the new one is whole, and keeps its mode; links are followed. What
// is no regular file, or has several names, is written as it stands. Throws FileError with the
// reason when the file cannot be written; a new file begun is removed then.
void writeFile(const std::string &name, std::string_view bytes);

}  // namespace memtool
