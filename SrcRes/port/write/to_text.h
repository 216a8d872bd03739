// Field values as text of a port string. Each writer returns false when no chunk could be obtained.
#pragma once

#include <cstdint>

#include "base/bytes.h"
#include "port/write/digits.h"
#include "port/write/port_output.h"

namespace mem {

bool MEM_Char2PortStr(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool MEM_CharSZ2PortStr(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool MEM_PStr2PortStr(PortOutput &output, const char *pText) noexcept;
bool MEM_Bin2PortStr(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
// REQUIRES: the field's length is 1.
bool MEM_Bit2PortStr(PortOutput &output, const std::byte *pField) noexcept;
bool MEM_WChar2PortStr(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool MEM_WCharSZ2PortStr(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool MEM_WPStr2PortStr(PortOutput &output, const char16_t *pText) noexcept;

// A text's length, and the text between double quotes.
bool appendText(PortOutput &output, const char *pText) noexcept;

// Characters that putNumber may store.
inline constexpr std::size_t kMostNumber = 1 + kMostStoredDigits;

inline char *putSigned(char *pTo, std::int64_t value) noexcept {
  // Without a branch, since signs come in any order. Negation in unsigned arithmetic gives the
  // magnitude of the most negative value as well.
  const auto bits = static_cast<std::uint64_t>(value);
  const std::uint64_t isNegative = bits >> 63;
  *pTo = '-';
  return putReversed(pTo + isNegative, (bits ^ (0 - isNegative)) + isNegative);
}

// Stores the sign and digits of a number and returns their end. REQUIRES: one of the six types;
// room for kMostNumber characters.
inline char *putNumber(char *pTo, std::uint8_t type, const std::byte *pField) noexcept {
  switch (type) {
    case MEM_PORT_SHORT:
      return putSigned(pTo, loadAs<std::int16_t>(pField));
    case MEM_PORT_USHORT:
      return putReversed(pTo, loadAs<std::uint16_t>(pField));
    case MEM_PORT_LONG:
      return putSigned(pTo, loadAs<std::int32_t>(pField));
    case MEM_PORT_ULONG:
      return putReversed(pTo, loadAs<std::uint32_t>(pField));
    case MEM_PORT_BIGINT:
      return putSigned(pTo, loadAs<std::int64_t>(pField));
    default:
      return putReversed(pTo, loadAs<std::uint64_t>(pField));
  }
}

// The whole value of a number.
bool appendNumber(PortOutput &output, std::uint8_t type, const std::byte *pField) noexcept;

}  // namespace mem
