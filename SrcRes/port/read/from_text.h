// Reads field values from the text of a port string: one table describes all types.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bytes.h"
#include "platform/check.h"
#include "port/read/port_scanner.h"
#include "qj7mem00/memport.h"

namespace memlib {

// Reads the rest of a value, after its opening, into the structure. False for a malformed value;
// most are reported. What was stored before stays. REQUIRES: storedLength(field) bytes at `pField`.
using ReadValue = bool(PortScanner &scanner, const MessagePoint &point, const MEMFieldDef &field,
                       std::byte *pField) noexcept;

// Description of a field type.
struct FieldType {
  // A character that values may begin with.
  struct Opening {
    std::int16_t character;  // 16-bit, so that none equals kNoCharacter
    ReadValue *pRead;        // null for types that link or embed structures
  };
  Opening first;
  Opening second;
  std::uint8_t storedLen;  // bytes of the field; 0: as its definition says
  bool isSigned;
  MessagePoint point;      // the routine that reports
  const char *pNotOpened;  // its message for any other character
};
inline constexpr std::int16_t kNoCharacter = 0x100;
inline constexpr char kNumberOpening = 'N';
inline constexpr char kPointerOpening = 'S';
inline constexpr char kStringOpening = 'X';

// Indexed by the type's code. The first row is for no type.
extern const FieldType kFieldTypes[MEM_PORT_WPSTR + 1];

// The row for a type's code; the first row for a code of no type.
inline const FieldType &fieldType(std::uint8_t type) noexcept {
  return type <= MEM_PORT_WPSTR ? kFieldTypes[type] : kFieldTypes[0];
}

inline bool isFieldType(std::uint8_t type) noexcept {
  return type >= MEM_PORT_CHAR && type <= MEM_PORT_WPSTR;
}

// Bytes that are written at a field of a structure. Negative if the definition's Length is
// negative.
inline std::int64_t storedLength(const MEMFieldDef &field) noexcept {
  const std::uint8_t length = fieldType(field.Type).storedLen;
  return length != 0 ? length : field.Length;
}

// Reads the value of a field of any type but Pnt and Substructure into the structure, with its
// opening. REQUIRES: such a type; else as for ReadValue.
bool readFieldValue(PortScanner &scanner, const MEMFieldDef &field, std::byte *pField) noexcept;

// Reads only the opening. REQUIRES: a type with a single opening.
inline bool readOpening(PortScanner &scanner, const FieldType &type) noexcept {
  MEM_ASSERT(type.first.character != kNoCharacter && type.second.character == kNoCharacter);
  return scanner.expect(static_cast<char>(type.first.character), type.point, type.pNotOpened);
}

// The steps of reading a PStr value after its opening quote. The first allocates storage for
// `length` characters; null, reported, when there is none. The second reads the text, which must
// have this length.
std::byte *allocateString(PortScanner &scanner, std::uint32_t length, std::byte *pField) noexcept;
bool fillString(PortScanner &scanner, std::uint32_t length, std::byte *pText) noexcept;

// Stores a number in `length` bytes; larger values wrap. False, with nothing stored, for a length
// that no number has.
inline bool storeNumber(std::byte *pField, std::int64_t length, std::uint64_t value) noexcept {
  switch (length) {
    case 2:
      storeAs(pField, static_cast<std::uint16_t>(value));
      return true;
    case 4:
      storeAs(pField, static_cast<std::uint32_t>(value));
      return true;
    case 8:
      storeAs(pField, value);
      return true;
    default:
      return false;
  }
}

}  // namespace memlib
