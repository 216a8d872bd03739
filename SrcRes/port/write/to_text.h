// Field values as text of a port string, MEM_Char2PortStr for a Char and so on. The functions that
// append return false when no chunk could be allocated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/check.h"
#include "platform/textscan.h"
#include "port/write/port_output.h"

namespace memlib {

// Stores text between double quotes and returns the end, or null when some of its characters need
// an escape. REQUIRES: room for the text and kQuotesLen characters; no zeros in the text.
inline constexpr std::size_t kQuotesLen = 2;
inline char *putQuoted(char *pTo, std::string_view text) noexcept {
  MEM_ASSERT(text.find('\0') == std::string_view::npos);
  char *pText = pTo + 1;
  if (!copyPlain(reinterpret_cast<std::byte *>(pText), text.data(), text.size(), '"')) {
    return nullptr;
  }
  char *pEnd = pText + text.size();
  *pTo = '"';
  *pEnd = '"';
  return pEnd + 1;
}

bool appendChar(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool appendCharSZ(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool appendPStr(PortOutput &output, const char *pText) noexcept;
// The characters of a PStr after its letter.
bool appendText(PortOutput &output, std::string_view text) noexcept;
bool appendBin(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
// REQUIRES: the field's length is 1.
bool appendBit(PortOutput &output, const std::byte *pField) noexcept;
bool appendWChar(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool appendWCharSZ(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool appendWPStr(PortOutput &output, const char16_t *pText) noexcept;

}  // namespace memlib
