#include "utf_text.hpp"

#include <cstdint>

#ifdef _WIN32
#include <windows.h>

#include <shellapi.h>  // needs what windows.h declares
#endif

namespace catalog {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kLastCodePoint = 0x10FFFF;

bool isSurrogate(char32_t codePoint) {
  return codePoint >= 0xD800 && codePoint <= 0xDFFF;
}
bool isHighSurrogate(char16_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
bool isLowSurrogate(char16_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

std::uint8_t byteAt(std::string_view text, std::size_t index) {
  return static_cast<std::uint8_t>(text[index]);
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
  const std::size_t length = characterLength(byteAt(text, 0));
  char32_t codePoint = kReplacement;
  std::size_t taken = 1;
  if (length == 1) {
    codePoint = byteAt(text, 0);
  } else if (length > 1 && length <= text.size()) {
    char32_t bits = byteAt(text, 0) & (0xFFU >> (length + 1));
    bool wellFormed = true;
    for (std::size_t i = 1; i < length; ++i) {
      wellFormed = wellFormed && (byteAt(text, i) & 0xC0U) == 0x80U;
      bits = bits << 6 | (byteAt(text, i) & 0x3FU);
    }
    if (wellFormed && bits >= kSmallest[length] && bits <= kLastCodePoint && !isSurrogate(bits)) {
      codePoint = bits;
      taken = length;
    }
  }
  text.remove_prefix(taken);
  return codePoint;
}

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

}  // namespace

std::u16string utf16FromUtf8(std::string_view text) {
  std::u16string wide;
  wide.reserve(text.size());
  while (!text.empty()) {
    const char32_t codePoint = takeCharacter(text);
    if (codePoint < 0x10000) {
      wide.push_back(static_cast<char16_t>(codePoint));
    } else {
      wide.push_back(static_cast<char16_t>(0xD800 + ((codePoint - 0x10000) >> 10)));
      wide.push_back(static_cast<char16_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF)));
    }
  }
  return wide;
}

std::string utf8FromUtf16(std::u16string_view text) {
  std::string narrow;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t codePoint = text[i];
    if (isHighSurrogate(text[i]) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
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

#ifdef _WIN32

std::vector<std::string> programArguments(int, const char *const *) {
  static_assert(sizeof(wchar_t) == sizeof(char16_t), "Windows hands over UTF-16");
  int count = 0;
  LPWSTR *values = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; values != nullptr && i < count; ++i) {
    const std::wstring_view value(values[i]);
    arguments.push_back(utf8FromUtf16(std::u16string(value.begin(), value.end())));
  }
  LocalFree(values);
  return arguments;
}

#else

std::vector<std::string> programArguments(int count, const char *const *values) {
  if (count < 2) return {};
  return std::vector<std::string>(values + 1, values + count);
}

#endif

}  // namespace catalog
