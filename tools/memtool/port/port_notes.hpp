// What the library's reader skips, drops or changes of a port string without a message, by the
// definitions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "port_defs.hpp"
#include "port_model.hpp"

namespace memtool {

struct PortNote {
  std::size_t offset = 0;      // of the character, from 0
  std::uint32_t structID = 0;  // of the structure around the field
  std::uint32_t fieldID = 0;   // 0: the note is on the StructID itself
  std::string what;

  // "character 48: …".
  std::string text() const { return "character " + std::to_string(offset) + ": " + what; }
};

// `document` is what was read from the text alone. In the order of the text. Where the library
// refuses a structure there are no notes on the rest of it.
std::vector<PortNote> portNotes(const PortDefinitions &definitions, const PortDocument &document);

PortJson portNotesJson(const std::vector<PortNote> &notes);

}  // namespace memtool
