// Check of a whole hash table, for MEM_ASSERT_VALID.
#pragma once

#include "frame/callframe.h"
#include "hash/hashblocks.h"

namespace memlib {

// True when the control block is valid, all chains and the list of deleted nodes end, each record
// of a table that may have an index is in the bucket that its hash function returns, and the index,
// if the frame finds one, gives the same answers as a walk of the chains. A caller's hash function
// is not called, because the host could notice. Changes nothing.
bool isValidTable(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

}  // namespace memlib
