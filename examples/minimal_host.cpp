#include <cstdio>

#include "refhost.hpp"

int main() {
  const refhost::Library library(refhost::Library::installed());
  refhost::Session session(library.bindEntry());  // binds, starts the process and this thread
  const MEMFunctionVector &mem = session.vector();

  HMEMHEAP heap = nullptr;
  void *entry = nullptr;
  if (mem.MEM_HeapOpen(&heap, 64, 0) != 0 || mem.MEM_HeapAllocEntry(heap, 100, &entry) != 0) {
    const MEMErrorArea &error = session.host().thread().Error;
    std::printf("failed with code %u (%s)\n", unsigned{error.Code}, error.NameText);
    return 1;
  }
  std::snprintf(static_cast<char *>(entry), 100, "a string in a heap of 64 KB areas");
  std::printf("%s\n", static_cast<char *>(entry));
  mem.MEM_HeapClose(heap);
  return session.close().empty() ? 0 : 1;  // leaks and misuses are on stderr
}
