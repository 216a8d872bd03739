// Storage that the library keeps for a thread between calls: areas in a list on its thread block.
// The room that allocates an area frees it; areas left at the thread's end are freed with the
// thread block.
#pragma once

#include <cstdint>

#include "frame/callframe.h"

namespace memlib {

// The header of such an area.
struct ThreadArea {
  ThreadArea *pNext;
  std::uint32_t size;    // bytes, this header included
  std::int16_t subPool;  // of the storage
};

// The calling thread's block, or null when the frame has none.
inline MEMThreadBlock *threadBlock(const CallFrame &frame) noexcept {
  const MEMThreadEnv *pThread = frame.thread();
  return pThread == nullptr ? nullptr : pThread->pMemThreadBlk;
}

// The link to the calling thread's first area, or null when the frame has no thread block.
inline ThreadArea **threadAreas(const CallFrame &frame) noexcept {
  MEMThreadBlock *pThreadBlk = threadBlock(frame);
  if (pThreadBlk == nullptr) return nullptr;
  return reinterpret_cast<ThreadArea **>(&pThreadBlk->pHashIndexes);
}

// Unlinks the area that a link points at and frees its storage.
inline void releaseThreadArea(ThreadArea **ppLink) noexcept {
  ThreadArea *pArea = *ppLink;
  *ppLink = pArea->pNext;
  functionVector().MEM_Free(pArea, pArea->size, pArea->subPool);
}

}  // namespace memlib
