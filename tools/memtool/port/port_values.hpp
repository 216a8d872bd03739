// Values of port strings as a person and as programs read them.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "port_model.hpp"
#include "tool_console.hpp"

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

// For each field the definition's name, with an index for elements, or the identifier.
std::vector<std::string> portFieldNames(const PortStructure &structure);

// Kind of value as the text alone tells it: "number", "text", "string", "wide text", …
const char *portFormName(const PortValue &value);

struct PortShown {
  std::string text;
  Ink ink = Ink::Plain;
};

// On one line, at most `most` characters of text and bytes. Empty for embedded structures.
PortShown showPortValue(const PortValue &value, std::size_t most);

// Loses nothing: text that is no valid Unicode becomes {"hex": …} or {"units": […]}. REQUIRES: no
// embedded structure and no pointer, whose JSON depends on what surrounds it.
PortJson portValueJson(const PortValue &value);

}  // namespace memtool
