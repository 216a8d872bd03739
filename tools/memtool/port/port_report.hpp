// Port strings as text and as JSON.
#pragma once

#include <string>

#include "port_model.hpp"
#include "port_selection.hpp"
#include "port_values.hpp"
#include "tool_console.hpp"

namespace memtool {

// Structures with their numbers, fields and values, and with names where the document was read with
// definitions.
void printPort(Console &console, const std::string &name, const PortDocument &document,
               const PortSelection &selection);

// What the text alone shows: {"file", "characters", "structures": […], "fault"}. Piece by piece.
void writePortTextJson(Console &console, const std::string &name, const PortDocument &document,
                       const PortSelection &selection);

// What --check shows. A fault that only --check reports is one here.
PortJson portCheckJson(const std::string &name, const PortDocument &document);

// A document that was read with definitions, in the form that encodePortText takes: all of it, or
// what can be reached from one structure. A selection that leaves targets of pointers out cannot be
// encoded. Piece by piece.
void writePortGraphJson(Console &console, const PortDocument &document,
                        const PortSelection &selection);
// The same as a whole.
PortJson portGraphJson(const PortDocument &document, const PortSelection &selection);

}  // namespace memtool
