#include "tool_text.hpp"

#include <fmt/format.h>

namespace memtool {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kLastCodePoint = 0x10FFFF;

bool isSurrogate(char32_t codePoint) {
  return codePoint >= 0xD800 && codePoint <= 0xDFFF;
}

bool isTrail(char byte) {
  return (static_cast<std::uint8_t>(byte) & 0xC0U) == 0x80U;
}

// Bytes of the character that begins with `lead`, 0 when none does.
std::size_t characterLength(std::uint8_t lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead < 0xE0) return 2;
  if (lead >= 0xE0 && lead < 0xF0) return 3;
  if (lead >= 0xF0 && lead < 0xF5) return 4;
  return 0;
}

// Takes one character off the front of `text`, or one byte that is none and stands for U+FFFD.
char32_t takeCharacter(std::string_view &text) {
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};  // by length; less is overlong
  const auto lead = static_cast<std::uint8_t>(text[0]);
  const std::size_t length = characterLength(lead);
  char32_t bits = length == 1 ? lead : lead & (0xFFU >> (length + 1));
  bool isWellFormed = length > 0 && length <= text.size();
  for (std::size_t i = 1; isWellFormed && i < length; ++i) {
    isWellFormed = isTrail(text[i]);
    bits = bits << 6 | (static_cast<std::uint8_t>(text[i]) & 0x3FU);
  }
  isWellFormed =
      isWellFormed && bits >= kSmallest[length] && bits <= kLastCodePoint && !isSurrogate(bits);
  text.remove_prefix(isWellFormed ? length : 1);
  return isWellFormed ? bits : kReplacement;
}

}  // namespace

void appendUtf8(std::string &text, char32_t codePoint) {
  const auto add = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
  const auto addTrail = [&add](char32_t bits) { add(0x80 | (bits & 0x3F)); };
  if (codePoint < 0x80) {
    add(codePoint);
  } else if (codePoint < 0x800) {
    add(0xC0 | codePoint >> 6);
    addTrail(codePoint);
  } else if (codePoint < 0x10000) {
    add(0xE0 | codePoint >> 12);
    addTrail(codePoint >> 6);
    addTrail(codePoint);
  } else {
    add(0xF0 | codePoint >> 18);
    addTrail(codePoint >> 12);
    addTrail(codePoint >> 6);
    addTrail(codePoint);
  }
}

std::string utf8FromUtf16(std::u16string_view text) {
  std::string narrow;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t codePoint = text[i];
    const bool isPair = text[i] >= 0xD800 && text[i] <= 0xDBFF && i + 1 < text.size() &&
                        text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF;
    if (isPair) {
      codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (text[i + 1] - 0xDC00U);
      ++i;
    } else if (isSurrogate(codePoint)) {
      codePoint = kReplacement;
    }
    appendUtf8(narrow, codePoint);
  }
  return narrow;
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

}  // namespace memtool
