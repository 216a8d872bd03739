#include "tool_text.hpp"

#include <fmt/format.h>
#include <utf8cpp/utf8.h>

#include <iterator>

namespace memtool {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

bool isTrail(char byte) {
  return (static_cast<std::uint8_t>(byte) & 0xC0U) == 0x80U;
}

// Removes and returns the first character of `text`; for an invalid byte, removes that byte and
// returns U+FFFD. REQUIRES: the text is not empty.
char32_t takeCharacter(std::string_view &text) {
  constexpr std::size_t kMostBytes = 4;
  if (utf8::find_invalid(text.substr(0, kMostBytes)) == 0) {
    text.remove_prefix(1);
    return kReplacement;
  }
  const char *pNext = text.data();
  const char32_t character = utf8::unchecked::next(pNext);
  text.remove_prefix(static_cast<std::size_t>(pNext - text.data()));
  return character;
}

}  // namespace

void appendUtf8(std::string &text, char32_t codePoint) {
  utf8::unchecked::append(codePoint, std::back_inserter(text));
}

bool isSurrogate(char16_t unit) {
  return unit >= 0xD800 && unit <= 0xDFFF;
}

bool isSurrogatePair(char16_t first, char16_t second) {
  return isSurrogate(first) && first < 0xDC00 && isSurrogate(second) && second >= 0xDC00;
}

std::string utf8FromUtf16(std::u16string_view text) {
  std::u16string whole(text);
  for (std::size_t i = 0; i < whole.size(); ++i) {
    if (!isSurrogate(whole[i])) continue;
    if (i + 1 < whole.size() && isSurrogatePair(whole[i], whole[i + 1])) {
      ++i;
    } else {
      whole[i] = kReplacement;
    }
  }
  return utf8::utf16to8(whole);
}

std::filesystem::path pathFromUtf8(std::string_view text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string utf8FromPath(const std::filesystem::path &path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

std::string validUtf8(std::string_view text) {
  std::string valid;
  while (!text.empty()) appendUtf8(valid, takeCharacter(text));
  return valid;
}

bool isValidUtf8(std::string_view text) {
  return utf8::find_invalid(text) == std::string_view::npos;
}

std::string_view withoutByteOrderMark(std::string_view utf8) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  return utf8.starts_with(kMark) ? utf8.substr(kMark.size()) : utf8;
}

std::string inQuotes(std::string_view utf8, std::size_t most) {
  std::string text = "\"";
  std::size_t count = 0;
  for (; !utf8.empty() && count < most; ++count) {
    const char32_t c = takeCharacter(utf8);
    if (c < 0x20 || (c >= 0x7F && c < 0xA0)) {
      text += fmt::format("\\x{:02X}", static_cast<std::uint32_t>(c));
      continue;
    }
    if (c == '"' || c == '\\') text += '\\';
    appendUtf8(text, c);
  }
  text += '"';
  if (!utf8.empty()) text += "…";
  return text;
}

std::size_t columnsOf(std::string_view utf8) {
  std::size_t columns = 0;
  for (const char byte : utf8) columns += isTrail(byte) ? 0U : 1U;
  return columns;
}

std::string grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, 1, ',');
  return digits;
}

std::string countOf(std::uint64_t count, std::string_view thing) {
  return fmt::format("{} {}{}", grouped(count), thing, count == 1 ? "" : "s");
}

}  // namespace memtool
