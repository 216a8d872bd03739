// Incompatibility mode of unpacking: a chain whose writer had another pointer width becomes a new
// chain laid out by the caller's control block.
#pragma once

#include "frame/callframe.h"
#include "pack/unpack/chain_reader.h"

namespace mem {

// Builds the new chain from the old one, which is only read, with real addresses in its pointer
// fields. On success stores the new chain and the root's address; on failure everything obtained
// has been returned. Traces the direction under `frame`.
Outcome repack(CallFrame &frame, PackedChain &chain, const ContentPlace &root,
               const PackControlBlock &callers, MemPackBlock *&pNewFirst, void *&pNewRoot) noexcept;

}  // namespace mem
