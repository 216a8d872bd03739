// Converts text to and from UTF-8, which the program writes, and formats text and numbers for
// output.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace memtool {

void appendUtf8(std::string &text, char32_t codePoint);

bool isSurrogate(char16_t unit);
// Two units that are one character.
bool isSurrogatePair(char16_t first, char16_t second);

// A surrogate without its partner becomes U+FFFD.
std::string utf8FromUtf16(std::u16string_view text);

std::filesystem::path pathFromUtf8(std::string_view text);
std::string utf8FromPath(const std::filesystem::path &path);

// `text`, which may be any bytes, as valid UTF-8: bytes that are not part of a character become
// U+FFFD.
std::string validUtf8(std::string_view text);
bool isValidUtf8(std::string_view text);

// A file's contents without the byte order mark of UTF-8 that some editors write.
std::string_view withoutByteOrderMark(std::string_view utf8);

// Text in quotes on one line: quotes and backslashes are escaped, control characters become "\x0A".
// Longer texts are cut to `most` characters and end with an ellipsis after the closing quote.
std::string inQuotes(std::string_view utf8, std::size_t most = SIZE_MAX);

// Length of valid UTF-8 in characters, each counted as one column.
std::size_t columnsOf(std::string_view utf8);

// "1,234,567".
std::string grouped(std::uint64_t number);

// A number of things: "1 block", "2,000 blocks".
std::string countOf(std::uint64_t count, std::string_view thing);

}  // namespace memtool
