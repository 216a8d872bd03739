// Hash tables over records with a key at a fixed place and a caller's hash function.
#pragma once

#include <cstdint>

#include "qj7mem00/memvect.h"

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_HashOpen(HMEMHASH *phHash, std::int16_t KeyOff, std::int16_t KeyLen,
                          std::int16_t Max, MEMHashFunc pFunc, std::int16_t AreaLen,
                          std::uint16_t SubPool) noexcept;
std::int16_t MEM_HashClose(HMEMHASH hMemHash) noexcept;
std::int16_t MEM_HashInsEntry(HMEMHASH hMemHash, std::int16_t Len, const void *pInputEntry,
                              void **ppNewEntry) noexcept;
std::int16_t MEM_HashGetEntry(HMEMHASH hMemHash, const void *pKey, void **ppEntry) noexcept;
std::int16_t MEM_HashDelEntry(HMEMHASH hMemHash, const void *pKey) noexcept;
std::int16_t MEM_HashScan(HMEMHASH hMemHash, MEMScanFunc pFct, void *pParm) noexcept;

class CallFrame;
class HashIndex;

// The index of a table when it is so large that its user had better ask for keys ahead (wantSlot(),
// wantRecord()), else null: also when the host has put other services into the table's slots, since
// nothing is known of its handle then. Valid until the table is changed or closed.
const HashIndex *indexToAskAhead(const CallFrame &frame, HMEMHASH hMemHash) noexcept;

}  // namespace mem
