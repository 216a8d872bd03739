// Field values as text of a port string. Each writer returns false when no chunk could be obtained.
#pragma once

#include <cstddef>
#include <cstdint>

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

}  // namespace mem
