// The catalogue as linked records in a heap of the library, and their description for packed chains
// and port strings.
//
//   PackageRecord ──pNext──▶ PackageRecord ──pNext──▶ … null
//     │ pName, pVersion: narrow strings      ▲
//     │ pSummary: wide string                │ pPackage (reference: not owned, may be null)
//     └─pFirstDependency──▶ DependencyRecord ┘──pNext──▶ DependencyRecord … null
//                             pName, pConstraint: narrow strings
//
// The first package is the root. Records and strings are entries of one heap and live until it is
// closed. A pointer to a string is null where the catalogue has no such text.
#pragma once

#include <cstdint>
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
  PackageRecord *pPackage;  // the package of that name, null when the catalogue does not have it
  std::uint32_t Flags;      // kDependency…
  std::uint32_t Reserved36;
};
MEM_CHECK_SIZE(DependencyRecord, 40);

inline constexpr std::uint32_t kDependencyPre = 0x1;          // from Pre-Depends
inline constexpr std::uint32_t kDependencyAlternative = 0x2;  // may stand for the one before it

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

// The records as structures of a port string. Identifiers keep their meaning for as long as files
// are read.
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

// Builds the records of one package or more in the heap and returns the first. Throws ServiceError.
PackageRecord *buildRecords(const mem::Context &context, mem::Heap &heap,
                            const std::vector<Package> &packages);

// Compares records with the catalogue that they were made from, every field and every reference.
// Throws DifferenceError for the first package that differs.
void checkRecords(const PackageRecord *root, const std::vector<Package> &packages);

// Calls `visit` with a copy of each record of a chain: those of an unpacked chain lie at any
// address.
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

}  // namespace catalog
