// Reads and writes whole files as bytes, in binary mode on every platform. Names are UTF-8.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace memtool {

// "-" is standard input, which can be read once in a run. Throws FileError with the reason.
std::string readFile(const std::string &name);

// Throws UsageError when `output` is "-", or one of the files that the command reads.
void requireOutput(const std::string &output, const std::vector<std::string> &inputs);

// Writes a new file first, and then replaces the old file by it, with the old file's mode; links
// are followed. A file that is not regular or has several names is overwritten in place. Throws
// FileError with the reason; an incomplete new file is removed.
void writeFile(const std::string &name, std::string_view bytes);

}  // namespace memtool
