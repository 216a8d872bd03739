// Storage that the library keeps for a thread beyond a call: areas that hang on its thread block.
// The room that makes one returns it; what is left at the thread's end goes with the thread block.
#pragma once

#include <cstdint>

#include "frame/callframe.h"

namespace memlib {

// The head of such an area.
struct ThreadArea {
  ThreadArea *pNext;
  std::uint32_t size;    // bytes, this head included
  std::int16_t subPool;  // of the storage
};

// The calling thread's block, or null when the frame has none.
inline MEMThreadBlock *threadBlock(const CallFrame &frame) noexcept {
  const MEMThreadEnv *pThread = frame.thread();
  return pThread == nullptr ? nullptr : pThread->pMemThreadBlk;
}

// Where the calling thread's first area hangs, or null when the frame has no thread block.
inline ThreadArea **threadAreas(const CallFrame &frame) noexcept {
  MEMThreadBlock *pThreadBlk = threadBlock(frame);
  if (pThreadBlk == nullptr) return nullptr;
  return reinterpret_cast<ThreadArea **>(&pThreadBlk->pHashIndexes);
}

// Takes the area that a link points at off the thread and returns its storage.
inline void releaseThreadArea(ThreadArea **ppLink) noexcept {
  ThreadArea *pArea = *ppLink;
  *ppLink = pArea->pNext;
  functionVector().MEM_Free(pArea, pArea->size, pArea->subPool);
}

}  // namespace memlib
