// Reads and writes whole files as bytes, in binary mode on every platform. Names are UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace memtool {

// "-" is standard input, which can be read once in a run. Throws FileError with the reason.
std::string readFile(const std::string &name);

// Writes a new file first, and then replaces the old file by it, with the old file's mode; links
// are followed. A file that is not regular or has several names is overwritten in place. Throws
// FileError with the reason; an incomplete new file is removed.
void writeFile(const std::string &name, std::string_view bytes);

}  // namespace memtool
