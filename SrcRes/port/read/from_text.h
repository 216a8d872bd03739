// Field values from the text of a port string: what there is to know of each type, in one table.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bytes.h"
#include "platform/check.h"
#include "port/read/port_scanner.h"
#include "qj7mem00/memport.h"

namespace memlib {

// Reads a value behind its opening into the structure. False for a malformed one, mostly after a
// message of its own; what was stored before stays. REQUIRES: storedLength(field) bytes at
// `pField`.
using ReadValue = bool(PortScanner &scanner, const MessagePoint &point, const MEMFieldDef &field,
                       std::byte *pField) noexcept;

// What there is to know of a type of fields.
struct FieldType {
  // A character that values may begin with.
  struct Opening {
    std::int16_t character;  // wider, so that none equals kNoCharacter
    ReadValue *pRead;        // null where structures are linked or follow
  };
  Opening first;
  Opening second;
  std::uint8_t storedLen;  // bytes of the field; 0 for as many as its definition says
  bool isSigned;
  MessagePoint point;      // the routine that reports
  const char *pNotOpened;  // its message for any other character
};
inline constexpr std::int16_t kNoCharacter = 0x100;
inline constexpr char kNumberOpening = 'N';
inline constexpr char kPointerOpening = 'S';
inline constexpr char kStringOpening = 'X';

// By the type's code; the first one is of no type.
extern const FieldType kFieldTypes[MEM_PORT_WPSTR + 1];

// What is known of a type's code, whatever it is.
inline const FieldType &fieldType(std::uint8_t type) noexcept {
  return type <= MEM_PORT_WPSTR ? kFieldTypes[type] : kFieldTypes[0];
}

inline bool isFieldType(std::uint8_t type) noexcept {
  return type >= MEM_PORT_CHAR && type <= MEM_PORT_WPSTR;
}

// Bytes that are written at a field of a structure. Negative for a definition whose Length is.
inline std::int64_t storedLength(const MEMFieldDef &field) noexcept {
  const std::uint8_t length = fieldType(field.Type).storedLen;
  return length != 0 ? length : field.Length;
}

// Reads the value of a field of any type but Pnt and Substructure into the structure, with its
// opening. REQUIRES: such a type; else as for ReadValue.
bool readFieldValue(PortScanner &scanner, const MEMFieldDef &field, std::byte *pField) noexcept;

// Reads the opening alone. REQUIRES: a type that has one only.
inline bool readOpening(PortScanner &scanner, const FieldType &type) noexcept {
  MEM_ASSERT(type.first.character != kNoCharacter && type.second.character == kNoCharacter);
  return scanner.expect(static_cast<char>(type.first.character), type.point, type.pNotOpened);
}

// The steps of reading a PStr value behind its opening quote: storage for so many characters, null,
// reported, when there is none, and the text, which must have as many.
std::byte *allocateString(PortScanner &scanner, std::uint32_t length, std::byte *pField) noexcept;
bool fillString(PortScanner &scanner, std::uint32_t length, std::byte *pText) noexcept;

// Stores a number in so many bytes; excess ones wrap. False, with nothing stored, for a length that
// no number has.
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
