#include "port_values.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "port_defs.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

template <class... Cases>
struct Overloaded : Cases... {
  using Cases::operator()...;
};
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

PortShown quoted(const std::string &utf8, bool isNull, std::size_t most) {
  if (isNull) return {"null", Ink::Dim};
  return {inQuotes(utf8, most), Ink::Text};
}

// Long texts are read only as far as they are shown, and one character further, which decides on
// the ellipsis. A character has at most 4 bytes or 2 units.
PortShown shownText(const PortText &value, std::size_t most) {
  return quoted(value.bytes(4 * most + 4), value.isNull, most);
}

PortShown shownWideText(const PortWideText &value, std::size_t most) {
  return quoted(utf8FromUtf16(value.units(2 * most + 2)), value.isNull, most);
}

PortShown shownBytes(const PortBytes &value, std::size_t most) {
  const std::size_t size = value.size();
  const std::size_t shown = std::min(size, std::max<std::size_t>(most / 3, 1));
  std::string text = portHex(value.bytes(0, shown), " ");
  if (shown < size) text += fmt::format(" … ({} bytes)", grouped(size));
  return {text.empty() ? "no bytes" : text, size == 0 ? Ink::Dim : Ink::Plain};
}

PortShown shownFlags(PortFlags value) {
  std::string text = fmt::format("{:02X}", value.bits);
  for (std::uint32_t bit = 0; bit < 8; ++bit) {
    if ((value.bits >> bit & 1U) != 0) text += fmt::format(" bit{}", bit);
  }
  return {text, Ink::Plain};
}

PortShown shownPointer(PortPointer value) {
  if (value.number == 0) return {"null", Ink::Dim};
  return {fmt::format("-> {}", value.number), Ink::Place};
}

// Values are written piece by piece: one of them may be as long as the port string.
constexpr std::size_t kPiece = 1 << 16;

void writeHex(JsonStream &json, const PortBytes &value) {
  json.beginText();
  for (std::size_t at = 0; at < value.size(); at += kPiece) {
    json.addText(portHex(value.bytes(at, kPiece)));
  }
  json.endText();
}

void writeText(JsonStream &json, const PortText &value) {
  if (value.isNull) return json.literal("null");
  const std::string bytes = value.bytes();
  if (isValidUtf8(bytes)) return json.text(bytes);
  json.beginObject();
  json.key("hex");
  writeHex(json, {bytes, false});
  json.end();
}

// Whole units of a text, from `first` on, without dividing a pair.
std::u16string_view pieceOf(std::u16string_view units, std::size_t first) {
  std::size_t end = std::min(units.size(), first + kPiece);
  if (end < units.size() && isSurrogatePair(units[end - 1], units[end])) ++end;
  return units.substr(first, end - first);
}

bool hasLoneSurrogate(std::u16string_view units) {
  for (std::size_t i = 0; i < units.size(); ++i) {
    if (!isSurrogate(units[i])) continue;
    if (i + 1 == units.size() || !isSurrogatePair(units[i], units[i + 1])) return true;
    ++i;
  }
  return false;
}

void writeWideText(JsonStream &json, const PortWideText &value) {
  if (value.isNull) return json.literal("null");
  const std::u16string units = value.units();
  if (!hasLoneSurrogate(units)) {
    json.beginText();
    for (std::size_t at = 0; at < units.size();) {
      const std::u16string_view piece = pieceOf(units, at);
      json.addText(utf8FromUtf16(piece));
      at += piece.size();
    }
    return json.endText();
  }
  json.beginObject();
  json.key("units");
  json.beginArray();
  for (const char16_t unit : units) json.literal(std::to_string(static_cast<unsigned>(unit)));
  json.end();
  json.end();
}

// What only a 64-bit field can hold is a string: programs that know doubles only would change it.
void writeNumber(JsonStream &json, const PortNumber &value) {
  constexpr std::uint64_t kMostLong = std::uint64_t{1} << 31;
  const bool isBig = value.magnitude > (value.isNegative ? kMostLong : UINT32_MAX);
  const std::string digits = portDecimal(value);
  json.literal(isBig ? fmt::format("\"{}\"", digits) : digits);
}

std::uint8_t nibbleOf(char c) {
  return static_cast<std::uint8_t>(kHexDigits.find(c));
}

}  // namespace

std::string portHex(std::string_view bytes, const char *between) {
  std::string hex;
  for (const char byte : bytes) {
    if (!hex.empty()) hex += between;
    hex += kHexDigits[static_cast<std::uint8_t>(byte) >> 4U];
    hex += kHexDigits[static_cast<std::uint8_t>(byte) & 0xFU];
  }
  return hex;
}

std::optional<std::string> portBytesOfHex(std::string_view hex) {
  const bool isHex = hex.find_first_not_of(kHexDigits) == std::string_view::npos;
  if (!isHex || hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(nibbleOf(hex[i]) << 4 | nibbleOf(hex[i + 1])));
  }
  return bytes;
}

// Valid text needs no further checks on the way.
std::optional<std::u16string> portWideOf(std::string_view utf8) {
  if (validUtf8(utf8) != utf8) return std::nullopt;
  std::u16string units;
  for (std::size_t at = 0; at < utf8.size();) {
    const auto lead = static_cast<std::uint8_t>(utf8[at]);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    std::uint32_t point = length == 1 ? lead : lead & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
      point = point << 6 | (static_cast<std::uint8_t>(utf8[at + i]) & 0x3FU);
    }
    at += length;
    if (point < 0x10000) {
      units.push_back(static_cast<char16_t>(point));
    } else {
      units.push_back(static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF)));
    }
  }
  return units;
}

std::string portStructureName(const PortStructure &structure) {
  const std::string id = std::to_string(structure.id);
  const bool isNamed = structure.definition != nullptr && structure.definition->name != id;
  return isNamed ? structure.definition->name : "StructID " + id;
}

std::string PortFieldNames::next(const PortField &field) {
  if (field.definition == nullptr) return std::to_string(field.id);
  const bool isElement = definition_ != nullptr && definition_->hasRepeatField() &&
                         field.definition == &definition_->repeatField();
  if (!isElement) return field.definition->name;
  return fmt::format("{}[{}]", field.definition->name, element_++);
}

std::string portDecimal(const PortNumber &number) {
  return fmt::format("{}{}", number.isNegative ? "-" : "", number.magnitude);
}

const char *portFormName(const PortValue &value) {
  return std::visit(
      Overloaded{
          [](const PortNumber &) { return "number"; },
          [](const PortText &text) { return text.isString ? "string" : "text"; },
          [](const PortWideText &text) { return text.isString ? "wide string" : "wide text"; },
          [](const PortBytes &) { return "bytes"; }, [](const PortFlags &) { return "flags"; },
          [](const PortPointer &) { return "pointer"; },
          [](const PortEmbedded &) { return "structure"; }},
      value);
}

PortShown showPortValue(const PortValue &value, std::size_t most) {
  return std::visit(
      Overloaded{[](const PortNumber &number) {
                   return PortShown{portDecimal(number), Ink::Plain};
                 },
                 [most](const PortText &text) { return shownText(text, most); },
                 [most](const PortWideText &text) { return shownWideText(text, most); },
                 [most](const PortBytes &bytes) { return shownBytes(bytes, most); },
                 [](const PortFlags &flags) { return shownFlags(flags); },
                 [](const PortPointer &pointer) { return shownPointer(pointer); },
                 [](const PortEmbedded &) { return PortShown{}; }},
      value);
}

PortJson portTextJson(std::string_view bytes) {
  if (isValidUtf8(bytes)) return bytes;
  return {{"hex", portHex(bytes)}};
}

PortJson portUnitsJson(std::u16string_view units) {
  if (!hasLoneSurrogate(units)) return utf8FromUtf16(units);
  PortJson numbers = PortJson::array();
  for (const char16_t unit : units) numbers.push_back(static_cast<std::uint32_t>(unit));
  return {{"units", std::move(numbers)}};
}

void writePortValue(JsonStream &json, const PortValue &value) {
  std::visit(Overloaded{[&](const PortNumber &number) { writeNumber(json, number); },
                        [&](const PortText &text) { writeText(json, text); },
                        [&](const PortWideText &text) { writeWideText(json, text); },
                        [&](const PortBytes &bytes) { writeHex(json, bytes); },
                        [&](const PortFlags &flags) { json.literal(std::to_string(flags.bits)); },
                        [&](const PortPointer &) { json.literal("null"); },
                        [&](const PortEmbedded &) { json.literal("null"); }},
             value);
}

}  // namespace memtool
