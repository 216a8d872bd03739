// Pack and unpack: pointer-linked structures become a chain of blocks, and structures again.
//
//   memcpack           MEM_Pack: walk over the structure, fix-up of the pointers
//   memcpack_unpack    MEM_Unpack: choice between the two ways of unpacking
//   memcpack_inplace   unpacking in place
//   memcpack_inorder   the same, fast, for chains that lie as writers leave them
//   memcpack_restore   takes back what that has changed in other chains
//   memcpack_repack    unpacking into a new chain, for another pointer width
//   memcpack_outcome   failures inside the unit
//   memcpack_cb        control blocks, and the old layout
//   memcpack_plan      what packing a segment takes, by descriptor
//   memcpack_fields    pointer fields under two control blocks
//   memcpack_blocks    a chain under construction
//   memcpack_version   the version table
//   memcpack_chain     a chain of any writer, read with every check
//   memcpack_walk      the walk over such a chain
//   memcpack_text      its wide text
//   memcpack_textlength where text ends
#pragma once

#include <cstdint>

#include "qj7mem00/memvect.h"

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_Pack(const MemPackCB *pPackCB, const void *pRoot, std::int32_t BlkLen,
                      MemPackBlock **ppFirstBlk) noexcept;
std::int16_t MEM_Unpack(MemPackBlock **ppFirstBlk, void **ppRoot,
                        const MemPackCB *pPackCB) noexcept;

// Hash function of the packer's table: 0..127 from an 8-byte address, by the byte that is the
// lowest one of a 4-byte address on the host's platform, without the bit that alignment clears.
std::int16_t MEM_PackHashFunc(const void *pKey) noexcept;

}  // namespace mem
