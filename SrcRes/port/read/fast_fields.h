// The fast way to read fields. The plain way, PortReader::readFields, handles every text; this one
// stops where it cannot continue. It saves a quarter of the time of a catalogue and half of the
// time of numbers: bench/TRIED.md, "port string reading, fields".
#pragma once

#include "port/read/port_scanner.h"
#include "port/read/struct_index.h"
#include "port/read/struct_text.h"

namespace memlib {

enum class FastFields {
  none,    // nothing was read
  some,    // fields were read; the text after the last one was not checked
  failed,  // the last value is invalid
};

// Reads fields in the form that writers produce: in the order of the definition, the start of each
// contiguous in one chunk. Stops before any other field, without reading any of it or calling the
// host.
FastFields readFieldsFast(PortScanner &scanner, StructIndex &index, StructText &text) noexcept;

}  // namespace memlib
