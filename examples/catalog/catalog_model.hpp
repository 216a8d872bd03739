// The catalogue as linked records in a heap of the library, and their description for packed chains
// and port strings.
//
//   PackageRecord ──pNext──▶ PackageRecord ──pNext──▶ … null
//     │ pName, pVersion: narrow strings      ▲
//     │ pSummary: wide string                │ pPackage (reference: not owned, may be null)
//     └─pFirstDependency──▶ DependencyRecord ┘──pNext──▶ DependencyRecord … null
//                             pName, pConstraint: narrow strings
//
// The first package is the root. Records and strings are entries of one heap and exist until it is
// closed. A pointer to a string is null if the catalogue has no such text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qj7mem00/mem.hpp"
#include "status_reader.hpp"

namespace catalog {

struct PackageRecord;

// One dependency of a package.
struct DependencyRecord {
  DependencyRecord *pNext;  // the same package's next dependency
  char *pName;
  char *pConstraint;
  PackageRecord *pPackage;  // the package of that name, null if the catalogue does not have it
  std::uint32_t Flags;      // kDependency…
  std::uint32_t Reserved36;
};
MEM_CHECK_SIZE(DependencyRecord, 40);

inline constexpr std::uint32_t kDependencyPre = 0x1;          // from Pre-Depends
inline constexpr std::uint32_t kDependencyAlternative = 0x2;  // may replace the one before it

// One package.
struct PackageRecord {
  PackageRecord *pNext;
  char *pName;
  char *pVersion;
  char16_t *pSummary;
  DependencyRecord *pFirstDependency;
  std::uint32_t DependencyCount;
  std::uint32_t Reserved44;
};
MEM_CHECK_SIZE(PackageRecord, 48);

// The records as segments of a packed chain.
inline constexpr auto kPackTable = mem::packTable(
    mem::segment<PackageRecord>(mem::sibling(MEM_FIELD(PackageRecord, pNext)),
                                mem::child(MEM_FIELD(PackageRecord, pName)),
                                mem::child(MEM_FIELD(PackageRecord, pVersion)),
                                mem::child(MEM_FIELD(PackageRecord, pSummary)),
                                mem::child(MEM_FIELD(PackageRecord, pFirstDependency))),
    mem::segment<DependencyRecord>(mem::sibling(MEM_FIELD(DependencyRecord, pNext)),
                                   mem::child(MEM_FIELD(DependencyRecord, pName)),
                                   mem::child(MEM_FIELD(DependencyRecord, pConstraint)),
                                   mem::reference(MEM_FIELD(DependencyRecord, pPackage))));

// The records as structures of a port string. Never change the meaning of an identifier: older
// files contain it.
inline constexpr mem::PortTable kPortTable{
    mem::structure<PackageRecord, 1>(
        mem::field<1>(MEM_FIELD(PackageRecord, pNext)).required(),
        mem::field<2>(MEM_FIELD(PackageRecord, pName)).required(),
        mem::field<3>(MEM_FIELD(PackageRecord, pVersion)).required(),
        mem::field<4>(MEM_FIELD(PackageRecord, pSummary)).required(),
        mem::field<5>(MEM_FIELD(PackageRecord, pFirstDependency)).required(),
        mem::field<6>(MEM_FIELD(PackageRecord, DependencyCount)).required()),
    mem::structure<DependencyRecord, 2>(
        mem::field<1>(MEM_FIELD(DependencyRecord, pNext)).required(),
        mem::field<2>(MEM_FIELD(DependencyRecord, pName)).required(),
        mem::field<3>(MEM_FIELD(DependencyRecord, pConstraint)).required(),
        mem::field<4>(MEM_FIELD(DependencyRecord, pPackage)).required(),
        mem::field<5>(MEM_FIELD(DependencyRecord, Flags)).required())};

// Dependencies that wait until their package has its record: work items in cells of the library. An
// item is freed when its package has a record, so the pool only has as many cells as items ever
// wait at the same time. One thread at a time.
class WaitingList {
 public:
  // Throws ServiceError if there is no storage. Dependencies that still wait at the list's
  // destruction keep their null pointer.
  explicit WaitingList(const mem::Context &context);

  // Keeps the addresses of `package` and `dependency`. Throws ServiceError if there is no storage.
  void add(std::string_view package, DependencyRecord &dependency);

  // Sets the pointers of all that wait for `package` to its record, and returns their number.
  std::uint64_t resolve(std::string_view package, PackageRecord &record);

 private:
  struct Item {
    Item *next;  // waits for the same package
    DependencyRecord *dependency;
  };

  mem::CellPool<Item> cells_;
  std::unordered_map<std::string_view, Item *> firstByPackage_;
};

// Builds the records of one package or more in the heap and returns the first. Throws ServiceError.
PackageRecord *buildRecords(const mem::Context &context, mem::Heap &heap,
                            const std::vector<Package> &packages);

// Compares every field and every reference of the records with the catalogue. Throws
// DifferenceError for the first package that differs.
void checkRecords(const PackageRecord *root, const std::vector<Package> &packages);

// Calls `visit` with a copy of each record of a chain: those of an unpacked chain may not be
// aligned.
template <class Record, class Visit>
void forEachRecord(const Record *first, Visit visit) {
  while (first != nullptr) {
    const Record record = mem::readRecord(first);
    visit(record);
    first = record.pNext;
  }
}

struct RecordCounts {
  std::uint64_t packages = 0;
  std::uint64_t dependencies = 0;
  std::uint64_t references = 0;  // dependencies whose package is in the catalogue
  std::uint64_t narrowStrings = 0;
  std::uint64_t wideStrings = 0;
};

RecordCounts countRecords(const PackageRecord *root);

struct NeededPackage {
  const PackageRecord *package = nullptr;
  std::uint64_t dependencies = 0;  // that lead to it, 1 or more
};

// At most `count` packages, the most needed first; of equal ones the earlier in the catalogue.
std::vector<NeededPackage> mostNeeded(const PackageRecord *root, std::size_t count);

struct NameCounts {
  std::uint64_t names = 0;          // of packages and in dependencies
  std::uint64_t separateBytes = 0;  // of separate copies of all, with terminators
  std::uint64_t distinct = 0;       // copies in the sink
  std::uint64_t sinkBytes = 0;      // reserved by these copies
};

// Sinks every name of the records at `root`. The copies exist until the process with this block is
// ended. Throws ServiceError.
NameCounts sinkNames(const mem::Context &context, const MEMProcessBlock &process,
                     const PackageRecord *root);

}  // namespace catalog
