// The ways of unpacking a chain, and the choice between them.
#pragma once

#include "frame/callframe.h"
#include "pack/pack_descriptors.h"
#include "pack/pack_failure.h"
#include "pack/unpack/chain_reader.h"

namespace memlib {

// Unpacks the chain at `pFirst`, in place or into a new chain, which `pFirst` is set to then. All
// work storage is back when it returns. `pFirst` and `pRoot` are written on success only.
Outcome unpackChain(CallFrame &frame, const PackControlBlock &callers, MemPackBlock *&pFirst,
                    void *&pRoot) noexcept;

// In place: the blocks themselves become the structure. Replaces every relative pointer that is
// reached from `root` by the real address and turns wide text into native UTF-16. A current control
// block of the other byte order is swapped. Each segment and each pointer field is touched once. A
// failure leaves the blocks partly converted.
Outcome unpackInPlace(ChainReader &chain, const ContentPlace &root) noexcept;

// The same for a chain whose segments and texts are in the order in which writers place them: there
// the checks need no record of what has been reached, since what comes next is behind it. Returns
// false, with nothing changed but the chain's scratch, where that does not hold or something is
// wrong.
bool unpackInOrder(const ChainReader &chain, const ContentPlace &root) noexcept;

// Incompatibility mode: a chain whose writer had another pointer width becomes a new chain laid out
// by the caller's control block, with real addresses in its pointer fields. The old one is only
// read. On success stores the new chain and the root's address; on failure everything obtained has
// been returned. Traces the direction under `frame`.
Outcome repack(CallFrame &frame, ChainReader &chain, const ContentPlace &root,
               const PackControlBlock &callers, MemPackBlock *&pNewFirst, void *&pNewRoot) noexcept;

}  // namespace memlib
