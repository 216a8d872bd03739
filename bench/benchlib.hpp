// What all benchmark programs share: the library, loaded once, and the check of a service's result.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "refhost.hpp"

namespace bench {

inline refhost::Library &library() {
  static refhost::Library loaded(refhost::Library::besideProgram());
  return loaded;
}

inline void require(std::int16_t result, const char *what) {
  if (result != 0) throw std::runtime_error(std::string(what) + " failed");
}

inline void returnChain(MEMFunctionVector &mem, MemPackBlock *block, std::uint32_t blockLen) {
  while (block != nullptr) {
    MemPackBlock *const next = block->pNext;
    mem.MEM_Free(block, blockLen, 0);
    block = next;
  }
}

// A heap of the library, closed at the end of its scope.
class OpenHeap {
 public:
  explicit OpenHeap(MEMFunctionVector &mem, std::int16_t areaKb = 256) : mem_(mem) {
    require(mem_.MEM_HeapOpen(&heap_, areaKb, 0), "MEM_HeapOpen");
  }
  ~OpenHeap() { mem_.MEM_HeapClose(heap_); }
  OpenHeap(const OpenHeap &) = delete;
  OpenHeap &operator=(const OpenHeap &) = delete;
  HMEMHEAP get() const { return heap_; }

 private:
  MEMFunctionVector &mem_;
  HMEMHEAP heap_ = nullptr;
};

}  // namespace bench
