// Field values from the text of a port string. Each reader returns false for a malformed value,
// mostly after a message of its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "port/read/port_scanner.h"
#include "qj7mem00/memport.h"

namespace mem {

// Reads the value of a field of any type but Pnt and Substructure into the structure. What was
// stored before a failure stays. REQUIRES: a type of 1 to 16 other than those, storedLength(field)
// bytes at `pField`.
bool readFieldValue(PortScanner &scanner, const MEMFieldDef &field, std::byte *pField) noexcept;

// The rest of a PStr value, of which "X", the length and the opening quote have been read. Quick
// for text without escapes. REQUIRES: more than `length` characters, and a word of them, in the
// current chunk.
bool readStringText(PortScanner &scanner, std::uint32_t length, std::byte *pField) noexcept;

}  // namespace mem
