// Check of a whole hash table, for MEM_ASSERT_VALID.
#pragma once

#include "frame/callframe.h"
#include "hash/hashblocks.h"

namespace memlib {

// True when the control block is whole, all chains and the list of deleted nodes end, each record
// of a table that may have an index is in the bucket that its hash function tells, and the index,
// where the frame finds one, tells what a walk of the chains would. A caller's hash function is not
// asked: its host would see that. Changes nothing.
bool isValidTable(const CallFrame &frame, MEMHashCtlBlk &ctl) noexcept;

}  // namespace memlib
