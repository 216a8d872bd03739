// Values of port strings as a person and as programs read them.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "port_model.hpp"
#include "tool_console.hpp"
#include "tool_json.hpp"

namespace memtool {

using PortJson = nlohmann::ordered_json;

// "1FA0".
std::string portHex(std::string_view bytes, const char *between = "");
// The bytes of such text; nothing when it is none.
std::optional<std::string> portBytesOfHex(std::string_view hex);

// UTF-16 of valid UTF-8; nothing for other bytes.
std::optional<std::u16string> portWideOf(std::string_view utf8);

// The definition's name where there is one, else "StructID 7".
std::string portStructureName(const PortStructure &structure);

// Names of the fields of one structure, in order: the definition's name, with an index for
// elements, or the identifier.
class PortFieldNames {
 public:
  explicit PortFieldNames(const PortStructure &structure) : definition_(structure.definition) {}

  std::string next(const PortField &field);

 private:
  const PortStructDefinition *definition_;
  std::size_t element_ = 0;
};

// Kind of value as the text alone shows it: "number", "text", "string", "wide text", …
const char *portFormName(const PortValue &value);

struct PortShown {
  std::string text;
  Ink ink = Ink::Plain;
};

// On one line, at most `most` characters of text and bytes. Empty for embedded structures.
PortShown showPortValue(const PortValue &value, std::size_t most);

// Loses nothing: text that is no valid Unicode becomes {"hex": …} or {"units": […]}. REQUIRES: no
// embedded structure and no pointer, whose JSON depends on what surrounds it.
void writePortValue(JsonStream &json, const PortValue &value);

// Text in the same forms.
PortJson portTextJson(std::string_view bytes);
PortJson portUnitsJson(std::u16string_view units);

// "-305".
std::string portDecimal(const PortNumber &number);

}  // namespace memtool
