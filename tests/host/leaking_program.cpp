// A component with one mistake, as a user of the reference host runs it: leaking_program CASE
// [--stacks]. The address concerned goes to stdout, so that the report can be compared with it.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "refhost.hpp"

namespace {

constexpr std::uint16_t kSubPool = 7;

void show(const void *address) {
  std::printf("%s\n", refhost::formatText("%p", address).c_str());
  std::fflush(stdout);  // a sanitizer ends a leaking program without
}

std::int16_t bucketOf(const void *key) {
  return static_cast<std::int16_t>(*static_cast<const std::uint8_t *>(key) % 4);
}

}  // namespace

// Not static: a stack names functions of the program that it exports.
void heap(refhost::Host &host, bool isCorrect) {
  HMEMHEAP handle = nullptr;
  host.vector().MEM_HeapOpen(&handle, 4, kSubPool);
  show(handle);
  if (isCorrect) host.vector().MEM_HeapClose(handle);
}

void enhancedHeap(refhost::Host &host, bool isCorrect) {
  HMEMHEAP handle = nullptr;
  host.vector().MEM_EHeapOpen(&handle, 4, kSubPool);
  show(handle);
  if (isCorrect) host.vector().MEM_EHeapClose(handle);
}

void area(refhost::Host &host, bool isCorrect) {
  void *const storage = host.vector().MEM_Alloc(100, kSubPool);
  show(storage);
  if (isCorrect) host.vector().MEM_Free(storage, 100, kSubPool);
}

void largeArea(refhost::Host &host, bool isCorrect) {
  void *const storage = host.vector().MEM_Alloc(1 << 20, kSubPool);
  show(storage);
  if (isCorrect) host.vector().MEM_Free(storage, 1 << 20, kSubPool);
}

void equalAreas(refhost::Host &host, bool isCorrect) {
  for (int i = 0; i < 10; ++i) area(host, isCorrect);
}

void hashTable(refhost::Host &host, bool isCorrect) {
  HMEMHASH handle = nullptr;
  host.vector().MEM_HashOpen(&handle, 0, 8, 3, bucketOf, 4, kSubPool);
  show(handle);
  if (isCorrect) host.vector().MEM_HashClose(handle);
}

void cellPool(refhost::Host &host, bool isCorrect) {
  HMEMCELL handle = nullptr;
  host.vector().MEM_CellOpen(&handle, 4096, 64, kSubPool);
  show(handle);
  if (isCorrect) host.vector().MEM_CellClose(handle);
}

void textBuffer(refhost::Host &host, bool isCorrect) {
  MEMCatCB buffer{};
  host.vector().MEM_CatOpen(&buffer);
  show(buffer.pText);
  if (isCorrect) host.vector().MEM_CatClose(&buffer);
}

void length(refhost::Host &host, bool isCorrect) {
  void *const storage = host.vector().MEM_Alloc(100, kSubPool);
  show(storage);
  host.vector().MEM_Free(storage, isCorrect ? 100 : 99, kSubPool);
}

void chain(refhost::Host &host, bool isCorrect) {
  constexpr std::uint16_t kBlockLen = 2048;
  const std::uint64_t root = 0;
  MemPackCB kinds{};
  kinds.Count = 1;
  kinds.Descriptors[0].Type = MEM_PACK_FIXED;
  kinds.Descriptors[0].FixedLen = sizeof root;
  kinds.Descriptors[0].SiblingOff = MEM_PACK_NO_SIBLING;
  MemPackBlock *pFirst = nullptr;
  host.vector().MEM_Pack(&kinds, &root, kBlockLen, &pFirst);
  show(pFirst);
  if (isCorrect) host.vector().MEM_Free(pFirst, kBlockLen, 0);
}

void freedTwice(refhost::Host &host, bool isCorrect) {
  void *const storage = host.vector().MEM_Alloc(100, kSubPool);
  show(storage);
  host.vector().MEM_Free(storage, 100, kSubPool);
  if (!isCorrect) host.vector().MEM_Free(storage, 100, kSubPool);
}

void otherSubPool(refhost::Host &host, bool isCorrect) {
  void *const storage = host.vector().MEM_Alloc(100, kSubPool);
  show(storage);
  host.vector().MEM_Free(storage, 100, isCorrect ? kSubPool : kSubPool + 1);
}

void foreignArea(refhost::Host &host, bool isCorrect) {
  static std::uint64_t own[8];
  show(own);
  if (!isCorrect) host.vector().MEM_Free(own, sizeof own, kSubPool);
}

void activate(refhost::Host &host, bool isCorrect) {
  host.vector().MEM_ThreadAct();
  show(host.thread().pMemThreadBlk);
  if (isCorrect) host.vector().MEM_ThreadTerm();
}

void thread(refhost::Host &host, bool isCorrect) {
  std::thread(activate, std::ref(host), isCorrect).join();
}

void heldGate(refhost::Host &host, bool isCorrect) {
  std::uint32_t gate = 0;
  host.runtime().CreateGate(&gate);
  host.runtime().AcquireGate(gate);
  if (!isCorrect) return;
  host.runtime().ReleaseGate(gate);
  host.runtime().DeleteGate(gate);
}

namespace {

struct Case {
  const char *name;
  void (*run)(refhost::Host &host, bool isCorrect);
};

constexpr Case kCases[] = {
    {"heap", heap},
    {"enhancedHeap", enhancedHeap},
    {"area", area},
    {"largeArea", largeArea},
    {"equalAreas", equalAreas},
    {"hashTable", hashTable},
    {"cellPool", cellPool},
    {"textBuffer", textBuffer},
    {"chain", chain},
    {"length", length},
    {"freedTwice", freedTwice},
    {"otherSubPool", otherSubPool},
    {"foreignArea", foreignArea},
    {"thread", thread},
    {"gate", heldGate},
};

}  // namespace

int main(int count, char **arguments) {
  const std::string wanted = count > 1 ? arguments[1] : "";
  refhost::Options options;
  options.stacks = count > 2 && std::strcmp(arguments[2], "--stacks") == 0;
  const refhost::Library library(refhost::Library::besideProgram());
  refhost::Session session(library.bindEntry(), options);
  for (const Case &each : kCases) {
    if (wanted == each.name) each.run(session.host(), false);
    if (wanted == "none") each.run(session.host(), true);
  }
  return session.close().empty() ? 0 : 1;
}
