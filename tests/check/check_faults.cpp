// A component with one fault, named by the argument, under a host that has attached the checking
// layer. On stdout: the address that the layer is to name; the call that it is to name as the
// origin, with its service, number and line here; the call in which it is to find the fault; then
// "survived" when the program has come to its end.
//
//   check_faults <fault>     list shows all; clean is a component without a fault
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "qj7mem00/memchk.h"
#include "refhost.hpp"

#if defined(_MSC_VER) && !defined(__clang__)
#define NOINLINE __declspec(noinline)
#else
#define NOINLINE __attribute__((noinline))
#endif

namespace {

constexpr std::int32_t kLen = 40;

// A call of the component, counted from 1.
struct Call {
  const char *service;
  int number;
  int line;  // 0 where nobody looks at it
};

constexpr Call kNone{"", 0, 0};

// Announces what the report has to have: before the fault, which may end the program.
void expect(const void *address, const Call &origin, const Call &found) {
  std::printf("address 0x%016llX\norigin %s %d %d\nfound %s %d\n",
              static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(address)),
              origin.service, origin.number, origin.line, found.service, found.number);
  std::fflush(stdout);
}

NOINLINE void writeAt(void *entry, std::int64_t offset) {
  volatile std::uint8_t *byte = static_cast<std::uint8_t *>(entry) + offset;
  *byte = 0x11;
}

struct Component {
  const MEMFunctionVector &mem;
  HMEMHEAP heap = nullptr;
  HMEMHEAP other = nullptr;
  HMEMCELL pool = nullptr;
  HMEMCELL otherPool = nullptr;
  void *entry = nullptr;
  void *neighbour = nullptr;
  void *cell = nullptr;

  Call entryMade = kNone;
  Call cellMade = kNone;
  Call closing = kNone;  // the first call of close, when nothing comes between

  // Between two entries, so that no storage of others is touched. Eight calls.
  bool open(bool enhanced) {
    const auto openHeap = enhanced ? mem.MEM_EHeapOpen : mem.MEM_HeapOpen;
    closing = {enhanced ? "MEM_EHeapClose" : "MEM_HeapClose", 9, 0};
    if (openHeap(&heap, 4, 7) != 0 || openHeap(&other, 4, 7) != 0) return false;
    if (mem.MEM_HeapAllocEntry(heap, kLen, &neighbour) != 0) return false;
    entryMade = {"MEM_HeapAllocEntry", 4, __LINE__ + 1};
    if (mem.MEM_HeapAllocEntry(heap, kLen, &entry) != 0) return false;
    if (mem.MEM_HeapAllocEntry(heap, kLen, &neighbour) != 0) return false;
    if (mem.MEM_CellOpen(&pool, 4096, kLen, 7) != 0) return false;
    if (mem.MEM_CellOpen(&otherPool, 4096, kLen, 7) != 0) return false;
    cellMade = {"MEM_CellAllocEntry", 8, __LINE__ + 1};
    return mem.MEM_CellAllocEntry(pool, &cell) == 0;
  }

  void close(bool enhanced) {
    const auto closeHeap = enhanced ? mem.MEM_EHeapClose : mem.MEM_HeapClose;
    if (heap != nullptr) closeHeap(heap);
    if (other != nullptr) closeHeap(other);
    if (pool != nullptr) mem.MEM_CellClose(pool);
    if (otherPool != nullptr) mem.MEM_CellClose(otherPool);
  }

  void write(std::int64_t offset) {
    expect(static_cast<std::uint8_t *>(entry) + offset, entryMade, closing);
    writeAt(entry, offset);
  }
};

struct Fault {
  const char *name;
  bool enhanced;
  void (*run)(Component &);
};

const Fault kFaults[] = {
    {"clean", true,
     [](Component &c) {
       std::memset(c.entry, 1, kLen);
       std::memset(c.cell, 1, kLen);
       c.mem.MEM_CellFreeEntry(c.pool, c.cell);
       c.mem.MEM_EHeapFreeEntry(c.heap, kLen, c.entry);
     }},
    {"overrun-1", false, [](Component &c) { c.write(kLen); }},
    {"overrun-48", false, [](Component &c) { c.write(kLen + 47); }},
    {"underrun-1", false, [](Component &c) { c.write(-1); }},
    {"underrun-48", false, [](Component &c) { c.write(-48); }},
    {"enhanced-overrun-1", true, [](Component &c) { c.write(kLen); }},
    {"enhanced-overrun-48", true, [](Component &c) { c.write(kLen + 47); }},
    {"enhanced-underrun-1", true, [](Component &c) { c.write(-1); }},
    {"enhanced-underrun-48", true, [](Component &c) { c.write(-48); }},
    {"freed-write", true,
     [](Component &c) {
       const Call freed{"MEM_EHeapFreeEntry", 9, __LINE__ + 1};
       c.mem.MEM_EHeapFreeEntry(c.heap, kLen, c.entry);
       expect(static_cast<std::uint8_t *>(c.entry) + 20, freed, {"MEM_EHeapClose", 10, 0});
       writeAt(c.entry, 20);
     }},
    {"freed-cell-write", true,
     [](Component &c) {
       const Call freed{"MEM_CellFreeEntry", 9, __LINE__ + 1};
       c.mem.MEM_CellFreeEntry(c.pool, c.cell);
       expect(static_cast<std::uint8_t *>(c.cell) + 20, freed, {"MEM_CellClose", 12, 0});
       writeAt(c.cell, 20);
     }},
    {"wrong-length", true,
     [](Component &c) {
       expect(c.entry, c.entryMade, {"MEM_EHeapFreeEntry", 9, 0});
       c.mem.MEM_EHeapFreeEntry(c.heap, kLen + 8, c.entry);
     }},
    {"double-free", true,
     [](Component &c) {
       const Call freed{"MEM_EHeapFreeEntry", 9, __LINE__ + 1};
       c.mem.MEM_EHeapFreeEntry(c.heap, kLen, c.entry);
       expect(c.entry, freed, {"MEM_EHeapFreeEntry", 10, 0});
       c.mem.MEM_EHeapFreeEntry(c.heap, kLen, c.entry);
     }},
    {"double-free-cell", true,
     [](Component &c) {
       const Call freed{"MEM_CellFreeEntry", 9, __LINE__ + 1};
       c.mem.MEM_CellFreeEntry(c.pool, c.cell);
       expect(c.cell, freed, {"MEM_CellFreeEntry", 10, 0});
       c.mem.MEM_CellFreeEntry(c.pool, c.cell);
     }},
    {"foreign-cell", true,
     [](Component &c) {
       static std::uint64_t own[8];
       expect(own, kNone, {"MEM_CellFreeEntry", 9, 0});
       c.mem.MEM_CellFreeEntry(c.pool, own);
     }},
    {"cell-of-another-pool", true,
     [](Component &c) {
       expect(c.cell, c.cellMade, {"MEM_CellFreeEntry", 9, 0});
       c.mem.MEM_CellFreeEntry(c.otherPool, c.cell);
     }},
    {"foreign-entry", true,
     [](Component &c) {
       void *storage = c.mem.MEM_Alloc(64, 7);
       expect(storage, kNone, {"MEM_EHeapFreeEntry", 9, 0});
       c.mem.MEM_EHeapFreeEntry(c.heap, kLen, storage);
       c.mem.MEM_Free(storage, 64, 7);
     }},
    {"entry-of-another-heap", true,
     [](Component &c) {
       expect(c.entry, c.entryMade, {"MEM_EHeapFreeEntry", 9, 0});
       c.mem.MEM_EHeapFreeEntry(c.other, kLen, c.entry);
     }},
    {"closed-heap", false,
     [](Component &c) {
       const Call closed{"MEM_HeapClose", 9, __LINE__ + 1};
       c.mem.MEM_HeapClose(c.heap);
       expect(c.heap, closed, {"MEM_HeapAllocEntry", 10, 0});
       c.mem.MEM_HeapAllocEntry(c.heap, kLen, &c.entry);
       c.heap = nullptr;
     }},
    {"closed-enhanced-heap", true,
     [](Component &c) {
       const Call closed{"MEM_EHeapClose", 9, __LINE__ + 1};
       c.mem.MEM_EHeapClose(c.heap);
       expect(c.heap, closed, {"MEM_EHeapFreeEntry", 10, 0});
       c.mem.MEM_EHeapFreeEntry(c.heap, kLen, c.entry);
       c.heap = nullptr;
     }},
    {"closed-pool", true,
     [](Component &c) {
       const Call closed{"MEM_CellClose", 9, __LINE__ + 1};
       c.mem.MEM_CellClose(c.pool);
       expect(c.pool, closed, {"MEM_CellAllocEntry", 10, 0});
       c.mem.MEM_CellAllocEntry(c.pool, &c.cell);
       c.pool = nullptr;
     }},
};

int run(const Fault &fault) {
  const refhost::Library library(refhost::Library::besideProgram());
  refhost::Session session(library.bindEntry());
  MEMCheck *check = nullptr;
  if (MEMCheckAttach(&session.vector(), nullptr, &check) != 0) return 1;
  Component component{session.vector()};
  if (!component.open(fault.enhanced)) return 1;
  fault.run(component);
  component.close(fault.enhanced);
  MEMCheckDetach(check);
  std::puts("survived");
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string_view wanted = argc > 1 ? argv[1] : "list";
  for (const Fault &fault : kFaults) {
    if (wanted == "list") std::puts(fault.name);
    if (wanted == fault.name) return run(fault);
  }
  return wanted == "list" ? 0 : 2;
}
