#include "peers_mimalloc.hpp"

#include <dlfcn.h>

#include <stdexcept>

namespace bench {

namespace {

template <class Entry>
Entry *find(void *library, const char *name) {
  void *const found = dlsym(library, name);
  if (found == nullptr) throw std::runtime_error(dlerror());
  return reinterpret_cast<Entry *>(found);
}

MimallocEntries load() {
  void *const library = dlopen("libmimalloc.so.2", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error(dlerror());
  return {find<decltype(mi_malloc)>(library, "mi_malloc"),
          find<decltype(mi_free)>(library, "mi_free"),
          find<decltype(mi_heap_new)>(library, "mi_heap_new"),
          find<decltype(mi_heap_malloc)>(library, "mi_heap_malloc"),
          find<decltype(mi_heap_destroy)>(library, "mi_heap_destroy")};
}

}  // namespace

const MimallocEntries kMimalloc = load();

}  // namespace bench
