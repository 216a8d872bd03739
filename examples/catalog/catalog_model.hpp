// The catalogue as linked records in a heap of the library, and their description for MEM_Pack.
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
#include <string>
#include <vector>

#include "refhost.hpp"
#include "status_reader.hpp"

namespace catalog {

struct PackageRecord;

// One dependency of a package, 40 bytes.
struct DependencyRecord {
  DependencyRecord *pNext;  // the same package's next dependency
  char *pName;
  char *pConstraint;
  PackageRecord *pPackage;  // the package of that name, null when the catalogue does not have it
  std::uint32_t Flags;      // kDependency…
  std::uint32_t Reserved36;
};

inline constexpr std::uint32_t kDependencyPre = 0x1;          // from Pre-Depends
inline constexpr std::uint32_t kDependencyAlternative = 0x2;  // may stand for the one before it

MEM_CHECK_SIZE(DependencyRecord, 40);
MEM_CHECK_OFFSET(DependencyRecord, pName, 8);
MEM_CHECK_OFFSET(DependencyRecord, pConstraint, 16);
MEM_CHECK_OFFSET(DependencyRecord, pPackage, 24);
MEM_CHECK_OFFSET(DependencyRecord, Flags, 32);

// One package, 48 bytes.
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
MEM_CHECK_OFFSET(PackageRecord, pName, 8);
MEM_CHECK_OFFSET(PackageRecord, pVersion, 16);
MEM_CHECK_OFFSET(PackageRecord, pSummary, 24);
MEM_CHECK_OFFSET(PackageRecord, pFirstDependency, 32);
MEM_CHECK_OFFSET(PackageRecord, DependencyCount, 40);

// Kinds of segment: places in the control block.
enum SegmentKind : std::uint16_t {
  kPackageSegment,
  kDependencySegment,
  kNarrowString,
  kWideString,
  kSegmentKinds
};

// The control block that describes the records above.
MemPackCB describeRecords();

struct RecordCounts {
  std::uint64_t packages = 0;
  std::uint64_t dependencies = 0;
  std::uint64_t references = 0;  // dependencies whose package is in the catalogue
  std::uint64_t narrowStrings = 0;
  std::uint64_t wideStrings = 0;
};

// Compares records with the catalogue that they were made from, every field and every reference.
// Throws DifferenceError for the first package that differs.
RecordCounts checkRecords(const PackageRecord *root, const std::vector<Package> &packages);

// The records of one catalogue and the heap that holds them. One thread at a time.
class CatalogRecords {
 public:
  // Throws ServiceError when the heap gives no storage. REQUIRES: one package or more.
  CatalogRecords(refhost::Host &host, const std::vector<Package> &packages);
  ~CatalogRecords();
  CatalogRecords(const CatalogRecords &) = delete;
  CatalogRecords &operator=(const CatalogRecords &) = delete;

  const PackageRecord *root() const { return root_; }
  const RecordCounts &counts() const { return counts_; }

  // Ends the records' life. Throws ServiceError when the heap cannot be closed.
  void close();

 private:
  class Builder;

  refhost::Host &host_;
  HMEMHEAP heap_ = nullptr;
  PackageRecord *root_ = nullptr;
  RecordCounts counts_;
};

}  // namespace catalog
