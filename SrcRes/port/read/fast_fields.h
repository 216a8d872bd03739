// The fast way to read fields, beside the plain one of PortReader::readFields, which alone is right
// for every text. It takes a quarter off a catalogue and half off numbers: bench/TRIED.md, "port
// string reading, fields".
#pragma once

#include "port/read/port_scanner.h"
#include "port/read/struct_index.h"
#include "port/read/struct_text.h"

namespace memlib {

enum class FastFields {
  none,    // nothing was read
  some,    // fields were read; what is behind the last one has not been looked at
  failed,  // the value that was read last is wrong
};

// Reads fields as a writer puts them: in the order of the definition, the start of each in one
// piece. In front of any other it stops, with nothing of it read and nothing of the host called.
FastFields readFieldsFast(PortScanner &scanner, StructIndex &index, StructText &text) noexcept;

}  // namespace memlib
