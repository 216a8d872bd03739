// mimalloc, loaded at run time with local names: a program that is linked with it gets its malloc
// instead of the C library's, which is a peer, too.
#pragma once

#include <mimalloc.h>

#include <cstddef>

namespace bench {

struct MimallocEntries {
  void *(*malloc)(std::size_t);
  void (*free)(void *);
  mi_heap_t *(*heapNew)();
  void *(*heapMalloc)(mi_heap_t *, std::size_t);
  void (*heapDestroy)(mi_heap_t *);
};

// Set before main. Calls through it cost as much as calls of a linked library.
extern const MimallocEntries kMimalloc;

inline const MimallocEntries &mimalloc() {
  return kMimalloc;
}

}  // namespace bench
