// Field values as text of a port string, MEM_Char2PortStr for a Char and so on. Each function
// returns false when no chunk could be allocated.
#pragma once

#include <cstddef>
#include <cstdint>

#include "port/write/port_output.h"

namespace memlib {

bool appendChar(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool appendCharSZ(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool appendPStr(PortOutput &output, const char *pText) noexcept;
bool appendBin(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
// REQUIRES: the field's length is 1.
bool appendBit(PortOutput &output, const std::byte *pField) noexcept;
bool appendWChar(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool appendWCharSZ(PortOutput &output, std::int32_t length, const std::byte *pField) noexcept;
bool appendWPStr(PortOutput &output, const char16_t *pText) noexcept;

}  // namespace memlib
