// Text between the program's UTF-8, the library's UTF-16 and the file system's paths.
//
// Threading: all functions are free of state.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace catalog {

// UTF-16 of UTF-8 text. A byte that belongs to no well-formed character becomes U+FFFD, so that a
// catalogue with one bad byte is still of use.
std::u16string utf16FromUtf8(std::string_view text);

// UTF-8 of UTF-16 text. A surrogate without its partner becomes U+FFFD.
std::string utf8FromUtf16(std::u16string_view text);

std::filesystem::path pathFromUtf8(std::string_view text);
std::string utf8FromPath(const std::filesystem::path &path);

// The program's arguments without its name, in UTF-8. On Windows `main` gets them in the process's
// code page, which cannot hold every path; there they are taken from the wide command line.
std::vector<std::string> programArguments(int count, const char *const *values);

}  // namespace catalog
