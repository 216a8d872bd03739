#include "port/write/to_text.h"

#include <algorithm>

#include "base/bytes.h"
#include "platform/textscan.h"
#include "port/words.h"

namespace memlib {

namespace {

std::string_view bytesOf(std::int32_t length, const std::byte *pField) noexcept {
  return {reinterpret_cast<const char *>(pField),
          length > 0 ? static_cast<std::size_t>(length) : std::size_t{0}};
}

// Appends narrow text between double quotes: plain characters in runs, the others after "/".
bool appendEscaped(PortOutput &output, std::string_view text) noexcept {
  if (!output.append('"')) return false;
  while (!text.empty()) {
    const std::size_t run = plainLength(text, '"', Zeros::escaped);
    if (!output.append(firstOf(text, run))) return false;
    text = behind(text, run);
    if (text.empty()) break;
    const char escape[] = {'/', text.front() == '\0' ? '0' : text.front()};
    if (!output.append(std::string_view(escape, sizeof escape))) return false;
    text.remove_prefix(1);
  }
  return output.append('"');
}

// A view of UTF-16 text at any alignment.
class WideView {
 public:
  WideView(const std::byte *pText, std::size_t units) noexcept : pText_(pText), units_(units) {}

  std::size_t size() const noexcept { return units_; }
  std::uint32_t operator[](std::size_t i) const noexcept {
    return loadAs<char16_t>(pText_ + 2 * i);
  }

 private:
  const std::byte *pText_;
  std::size_t units_;
};

std::size_t wideUnits(std::int32_t length) noexcept {
  return length > 0 ? static_cast<std::size_t>(length) / 2 : 0;
}

// Writes one unit as text: at most "/", a digit and three groups of 6 bits. Returns the end.
char *putUnit(char *pTo, std::uint32_t unit) noexcept {
  if (unit == '\'' || unit == '/' || unit == 0) {
    *pTo++ = '/';
    *pTo++ = unit == 0 ? '0' : static_cast<char>(unit);
    return pTo;
  }
  if (unit < 128) {
    *pTo++ = static_cast<char>(unit);
    return pTo;
  }
  const std::uint32_t groups = unit < 4096 ? 2 : 3;
  *pTo++ = '/';
  *pTo++ = static_cast<char>('0' + groups);
  for (std::uint32_t shift = groups * 6; shift > 0;) {
    shift -= 6;
    *pTo++ = static_cast<char>('0' + ((unit >> shift) & 63));
  }
  return pTo;
}

// Appends wide text between single quotes, collected in pieces.
bool appendWideQuoted(PortOutput &output, const WideView &text) noexcept {
  constexpr std::size_t kPiece = 240;
  constexpr std::size_t kLongestUnit = 5;
  char piece[kPiece];
  char *pEnd = piece;
  *pEnd++ = '\'';
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (pEnd + kLongestUnit > piece + kPiece) {
      if (!output.append(std::string_view(piece, static_cast<std::size_t>(pEnd - piece)))) {
        return false;
      }
      pEnd = piece;
    }
    pEnd = putUnit(pEnd, text[i]);
  }
  return output.append(std::string_view(piece, static_cast<std::size_t>(pEnd - piece))) &&
         output.append('\'');
}

std::size_t highSurrogates(const WideView &text) noexcept {
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] >= 0xD800 && text[i] <= 0xDBFF) ++count;
  }
  return count;
}

// As appendEscaped, optimised for text that is mainly plain: copies while it scans.
// REQUIRES: no zeros in it.
bool appendQuoted(PortOutput &output, std::string_view text) noexcept {
  char *pEnd = output.room() < text.size() + kQuotesLen ? nullptr : putQuoted(output.next(), text);
  if (pEnd == nullptr) return appendEscaped(output, text);
  output.advanceTo(pEnd);
  return true;
}

}  // namespace

bool appendChar(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept {
  return appendEscaped(output, bytesOf(length, pField));
}

bool appendCharSZ(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept {
  const std::string_view field = bytesOf(length, pField);
  return appendQuoted(output, firstOf(field, std::min(field.find('\0'), field.size())));
}

bool appendPStr(PortOutput &output, const char *pText) noexcept {
  if (!output.append('X')) return false;
  return pText == nullptr || appendText(output, pText);
}

bool appendText(PortOutput &output, std::string_view text) noexcept {
  return output.appendReversed(text.size()) && appendQuoted(output, text);
}

bool appendBin(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept {
  constexpr std::size_t kPiece = 256;
  if (!output.append('H')) return false;
  char piece[kPiece];
  std::size_t filled = 0;
  for (const char c : bytesOf(length, pField)) {
    const auto byte = static_cast<unsigned char>(c);
    piece[filled++] = "0123456789ABCDEF"[byte >> 4];
    piece[filled++] = "0123456789ABCDEF"[byte & 0xF];
    if (filled == kPiece) {
      if (!output.append(std::string_view(piece, filled))) return false;
      filled = 0;
    }
  }
  return output.append(std::string_view(piece, filled));
}

bool appendBit(PortOutput &output, const std::byte *pField) noexcept {
  char text[] = "B00000000";
  const auto flags = std::to_integer<std::uint32_t>(*pField);
  for (std::uint32_t bit = 0; bit < 8; ++bit) {
    if ((flags >> bit & 1U) != 0) text[1 + bit] = '1';
  }
  return output.append(std::string_view(text, 9));
}

bool appendWChar(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept {
  return appendWideQuoted(output, WideView(pField, wideUnits(length)));
}

bool appendWCharSZ(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept {
  return appendWideQuoted(output, WideView(pField, wideLengthWithin(pField, wideUnits(length))));
}

bool appendWPStr(PortOutput &output, const char16_t *pText) noexcept {
  if (!output.append('x')) return false;
  if (pText == nullptr) return true;
  const WideView text(reinterpret_cast<const std::byte *>(pText), wideLength(pText));
  const std::size_t pairs = highSurrogates(text);
  return output.appendReversed(text.size() - pairs) && output.append(';') &&
         output.appendReversed(pairs) && appendWideQuoted(output, text);
}

}  // namespace memlib
