#include "port_values.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "port_defs.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

template <class... Cases>
struct Overloaded : Cases... {
  using Cases::operator()...;
};
template <class... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

std::string decimal(const PortNumber &number) {
  return fmt::format("{}{}", number.isNegative ? "-" : "", number.magnitude);
}

PortShown quoted(const std::string &utf8, bool isNull, std::size_t most) {
  if (isNull) return {"null", Ink::Dim};
  return {inQuotes(utf8, most), Ink::Text};
}

PortShown shownBytes(const PortBytes &value, std::size_t most) {
  const std::size_t shown = std::min(value.bytes.size(), std::max<std::size_t>(most / 3, 1));
  std::string text = portHex(std::string_view(value.bytes).substr(0, shown), " ");
  if (shown < value.bytes.size()) {
    text += fmt::format(" … ({} bytes)", grouped(value.bytes.size()));
  }
  return {text.empty() ? "no bytes" : text, value.bytes.empty() ? Ink::Dim : Ink::Plain};
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

PortJson textJson(const PortText &value) {
  if (value.isNull) return nullptr;
  if (validUtf8(value.bytes) == value.bytes) return value.bytes;
  return {{"hex", portHex(value.bytes)}};
}

PortJson wideJson(const PortWideText &value) {
  if (value.isNull) return nullptr;
  std::string utf8 = utf8FromUtf16(value.units);
  if (portWideOf(utf8) == value.units) return utf8;
  PortJson units = PortJson::array();
  for (const char16_t unit : value.units) units.push_back(static_cast<std::uint32_t>(unit));
  return {{"units", std::move(units)}};
}

// What only a 64-bit field can hold is a string: programs that know doubles only would change it.
PortJson numberJson(const PortNumber &value) {
  constexpr std::uint64_t kMostLong = std::uint64_t{1} << 31;
  if (value.magnitude > (value.isNegative ? kMostLong : UINT32_MAX)) return decimal(value);
  if (!value.isNegative) return value.magnitude;
  return static_cast<std::int64_t>(0 - value.magnitude);
}

std::uint8_t nibbleOf(char c) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  return static_cast<std::uint8_t>(kDigits.find(c));
}

}  // namespace

std::string portHex(std::string_view bytes, const char *between) {
  std::string hex;
  for (const char byte : bytes) {
    if (!hex.empty()) hex += between;
    hex += fmt::format("{:02X}", static_cast<std::uint8_t>(byte));
  }
  return hex;
}

std::optional<std::string> portBytesOfHex(std::string_view hex) {
  const bool isHex = hex.find_first_not_of("0123456789ABCDEF") == std::string_view::npos;
  if (!isHex || hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
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

std::vector<std::string> portFieldNames(const PortStructure &structure) {
  const PortStructDefinition *const definition = structure.definition;
  const bool repeats = definition != nullptr && definition->hasRepeatField();
  std::vector<std::string> names;
  std::size_t element = 0;
  for (const PortField &field : structure.fields) {
    if (field.definition == nullptr) {
      names.push_back(std::to_string(field.id));
    } else if (repeats && field.definition == &definition->repeatField()) {
      names.push_back(fmt::format("{}[{}]", field.definition->name, element++));
    } else {
      names.push_back(field.definition->name);
    }
  }
  return names;
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
  return std::visit(Overloaded{[](const PortNumber &number) {
                                 return PortShown{decimal(number), Ink::Plain};
                               },
                               [most](const PortText &text) {
                                 return quoted(validUtf8(text.bytes), text.isNull, most);
                               },
                               [most](const PortWideText &text) {
                                 return quoted(utf8FromUtf16(text.units), text.isNull, most);
                               },
                               [most](const PortBytes &bytes) { return shownBytes(bytes, most); },
                               [](const PortFlags &flags) { return shownFlags(flags); },
                               [](const PortPointer &pointer) { return shownPointer(pointer); },
                               [](const PortEmbedded &) { return PortShown{}; }},
                    value);
}

PortJson portValueJson(const PortValue &value) {
  return std::visit(
      Overloaded{[](const PortNumber &number) { return numberJson(number); },
                 [](const PortText &text) { return textJson(text); },
                 [](const PortWideText &text) { return wideJson(text); },
                 [](const PortBytes &bytes) { return PortJson(portHex(bytes.bytes)); },
                 [](const PortFlags &flags) { return PortJson(flags.bits); },
                 [](const PortPointer &) { return PortJson(); },
                 [](const PortEmbedded &) { return PortJson(); }},
      value);
}

}  // namespace memtool
