// What differs between the platforms: the terminal, names of files, and how a program gets its
// arguments.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace memtool::platform {

enum class Stream { Out, Err };

// True when what is written there is read by a person, not by a program or a file.
bool isTerminal(Stream stream);

// Columns of the terminal behind stderr; 80 when it does not tell.
int terminalWidth();

// Makes a terminal show UTF-8 and colours. Nothing happens to what is no terminal.
void prepareTerminal();

// Standard input gives its bytes as they are from now on.
void makeInputBinary();

// How many names a file has; 0 when that cannot be found out. The C++ runtime of mingw-w64 counts
// one always.
std::uintmax_t nameCount(const std::filesystem::path &file);

// The program's arguments without its name, in UTF-8.
std::vector<std::string> programArguments(int count, const char *const *values);

}  // namespace memtool::platform
