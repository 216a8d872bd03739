// Hash functions of the library's own tables: the packer's and the port string writer's. Their keys
// are addresses that never change in place, as a caller's keys may; so these tables may have an
// index.
#pragma once

#include <cstdint>

namespace mem {

// 0..127 from an 8-byte address, by the byte that is the lowest one of a 4-byte address on the
// host's platform, without the bit that alignment clears.
std::int16_t MEM_PackHashFunc(const void *pKey) noexcept;

// 0..1998 from an 8-byte address.
std::int16_t MEM_PortHash(const void *pKey) noexcept;

}  // namespace mem
