#include "refhost_unicode.hpp"

namespace refhost {

Decoded decodeUtf16(const void *text, std::size_t index, std::size_t count) {
  const char32_t first = loadUnit<char16_t>(text, index);
  if (!isSurrogate(first)) return {first, 1, true};
  if (isHighSurrogate(first) && count - index > 1) {
    const char32_t second = loadUnit<char16_t>(text, index + 1);
    if (isLowSurrogate(second)) {
      return {0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00), 2, true};
    }
  }
  return {kReplacement, 1, false};
}

Decoded decodeUtf32(const void *text, std::size_t index) {
  const char32_t unit = loadUnit<char32_t>(text, index);
  if (unit > kLastCodePoint || isSurrogate(unit)) return {kReplacement, 1, false};
  return {unit, 1, true};
}

std::size_t encodeUtf8(char32_t codePoint, char (&out)[4]) {
  const auto tail = [codePoint](int shift) {
    return static_cast<char>(0x80 | ((codePoint >> shift) & 0x3F));
  };
  if (codePoint < 0x80) {
    out[0] = static_cast<char>(codePoint);
    return 1;
  }
  if (codePoint < 0x800) {
    out[0] = static_cast<char>(0xC0 | (codePoint >> 6));
    out[1] = tail(0);
    return 2;
  }
  if (codePoint < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (codePoint >> 12));
    out[1] = tail(6);
    out[2] = tail(0);
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | (codePoint >> 18));
  out[1] = tail(12);
  out[2] = tail(6);
  out[3] = tail(0);
  return 4;
}

std::string utf8FromUtf16(const char16_t *text) {
  if (text == nullptr) return "(null)";
  std::string result;
  const std::size_t count = unitsToTerminator<char16_t>(text);
  for (std::size_t i = 0; i < count;) {
    const Decoded decoded = decodeUtf16(text, i, count);
    char bytes[4];
    result.append(bytes, encodeUtf8(decoded.codePoint, bytes));
    i += decoded.units;
  }
  return result;
}

}  // namespace refhost
