// Functions that differ between the platforms: for the terminal, names of files and arguments.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace memtool::platform {

enum class Stream { Out, Err };

// True when the stream is a terminal, not a file or a pipe.
bool isTerminal(Stream stream);

// Columns of stderr's terminal; 80 when unknown.
int terminalWidth();

// Makes terminals show UTF-8 and colours.
void prepareTerminal();

// From now on standard input returns its bytes unchanged.
void makeInputBinary();

// How many names a file has; 0 when that is unknown. (The C++ runtime of mingw-w64 always says 1.)
std::uintmax_t nameCount(const std::filesystem::path &file);

// The program's arguments without its name, in UTF-8.
std::vector<std::string> programArguments(int count, const char *const *values);

}  // namespace memtool::platform
