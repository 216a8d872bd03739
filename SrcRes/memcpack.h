// Pack: flattening of pointer-linked structures into a chain of blocks.
//
//   memcpack         entry point, walk over the structure, fix-up of the pointers
//   memcpack_cb      the caller's control block, and its old layout
//   memcpack_blocks  the chain under construction
#pragma once

#include <cstdint>

#include "qj7mem00/memvect.h"

namespace mem {

// See the declaration of the same name in memvect.h.
std::int16_t MEM_Pack(const MemPackCB *pPackCB, const void *pRoot, std::int32_t BlkLen,
                      MemPackBlock **ppFirstBlk) noexcept;

// Hash function of the packer's table: 0..127 from an 8-byte address, by the byte that is the
// lowest one of a 4-byte address on the host's platform, without the bit that alignment clears.
std::int16_t MEM_PackHashFunc(const void *pKey) noexcept;

}  // namespace mem
