// The ways to unpack a chain, and the choice between them.
#pragma once

#include "frame/callframe.h"
#include "pack/pack_descriptors.h"
#include "pack/unpack/chain_reader.h"

namespace memlib {

// Unpacks the chain at `pFirst`, in place or into a new chain, to which `pFirst` is then set. All
// work storage is freed before it returns. `pFirst` and `pRoot` are written on success only.
Outcome unpackChain(CallFrame &frame, const PackControlBlock &callers, MemPackBlock *&pFirst,
                    void *&pRoot) noexcept;

// The fast way in place, for a chain whose segments and texts are in the order in which writers
// place them. There the checks need no record of what has been reached, because each item comes
// after all earlier ones. If the order differs or the chain is invalid, returns false and changes
// only the chain's scratch storage.
bool unpackInOrder(const ChainReader &chain, const ContentPlace &root) noexcept;

// Incompatibility mode: copies a chain whose writer had another pointer width into a new chain with
// the layout of the caller's control block and real addresses in its pointer fields. The old one is
// only read. On success stores the new chain and the root's address; on failure frees all that it
// allocated. Traces the direction under `frame`.
Outcome repack(CallFrame &frame, ChainReader &chain, const ContentPlace &root,
               const PackControlBlock &callers, MemPackBlock *&pNewFirst, void *&pNewRoot) noexcept;

}  // namespace memlib
