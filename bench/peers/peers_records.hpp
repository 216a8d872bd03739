// The graph that is packed and written as text: a catalogue of packages in linked records, as in
// the storage of a host's component.
//
//   PackageRecord ──pNext──▶ PackageRecord ──pNext──▶ … null
//     │ pName, pVersion, pSummary            ▲
//     └─pFirstDependency──▶ DependencyRecord ┘──pNext──▶ … null      pPackage: shared, not owned
//                             pConstraint: null in half of them
//
// A package has 0 to 7 dependencies, 3.5 on average, on any packages of the catalogue.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qj7mem00/qj7mem00.h"

namespace bench {

struct PackageRecord;

struct DependencyRecord {
  DependencyRecord *pNext;
  const char *pConstraint;
  PackageRecord *pPackage;
  std::uint32_t Flags;
  std::uint32_t Reserved28;
};
MEM_CHECK_SIZE(DependencyRecord, 32);

struct PackageRecord {
  PackageRecord *pNext;
  const char *pName;
  const char *pVersion;
  const char *pSummary;
  DependencyRecord *pFirstDependency;
  std::uint32_t Number;  // place in the catalogue, from 0
  std::uint32_t DependencyCount;
};
MEM_CHECK_SIZE(PackageRecord, 48);

// A catalogue of `count` packages, the same one for the same count. Exists until the program ends.
class Graph {
 public:
  static const Graph &ofPackages(std::size_t count);

  const PackageRecord *root() const { return packages_.data(); }
  std::size_t count() const { return packages_.size(); }

 private:
  explicit Graph(std::size_t count);

  std::vector<PackageRecord> packages_;
  std::vector<DependencyRecord> dependencies_;
  std::vector<char> texts_;
};

// The descriptions of the records for the library.
MemPackCB packDescription();
const MEMStructDef *portDescription();
inline constexpr std::uint32_t kPackageStruct = 1;

// Visitors of a decoded catalogue. Every form passes its packages in order, and after each its
// dependencies in order, to one of these.
//
// Touch is the traversal that is measured: it reads every number, the first character of every
// text, and through every shared reference the number of the package that it leads to.
class Touch {
 public:
  void package(std::uint32_t number, const char *name, const char *version, const char *summary) {
    sum_ += number + byte(name) + byte(version) + byte(summary);
  }
  // `constraint` is null or the empty text if there is none.
  void dependency(std::uint32_t flags, const char *constraint, std::uint32_t targetNumber) {
    sum_ += flags + targetNumber + (constraint == nullptr ? 0 : byte(constraint));
  }
  std::uint64_t result() const { return sum_; }

 private:
  static std::uint64_t byte(const char *text) { return static_cast<unsigned char>(*text); }
  std::uint64_t sum_ = 0;
};

// Digest reads everything; two catalogues with one digest are equal.
class Digest {
 public:
  void package(std::uint32_t number, const char *name, const char *version, const char *summary) {
    add(number);
    add(name);
    add(version);
    add(summary);
  }
  void dependency(std::uint32_t flags, const char *constraint, std::uint32_t targetNumber) {
    add(flags);
    add(constraint == nullptr ? "" : constraint);
    add(targetNumber);
  }
  std::uint64_t result() const { return hash_; }

 private:
  void add(std::uint64_t value) { hash_ = (hash_ ^ value) * 1099511628211U; }
  void add(const char *text) {
    for (; *text != '\0'; ++text)
      add(static_cast<std::uint64_t>(static_cast<unsigned char>(*text)));
    add(std::uint64_t{256});
  }
  std::uint64_t hash_ = 14695981039346656037U;
};

// Records in a packed chain may not be aligned, so they are copied out.
template <class Record>
Record recordAt(const Record *pRecord) {
  Record record;
  std::memcpy(&record, static_cast<const void *>(pRecord), sizeof record);
  return record;
}

template <class Visitor>
void visitRecords(const PackageRecord *root, Visitor &visitor) {
  for (const PackageRecord *at = root; at != nullptr;) {
    const PackageRecord package = recordAt(at);
    visitor.package(package.Number, package.pName, package.pVersion, package.pSummary);
    for (const DependencyRecord *entry = package.pFirstDependency; entry != nullptr;) {
      const DependencyRecord dependency = recordAt(entry);
      visitor.dependency(dependency.Flags, dependency.pConstraint,
                         recordAt(dependency.pPackage).Number);
      entry = dependency.pNext;
    }
    at = package.pNext;
  }
}

// For encoders: calls `use` for every record of a chain. Records are linked through `pNext`.
template <class Record, class Use>
void forEach(const Record *first, Use use) {
  for (const Record *record = first; record != nullptr; record = record->pNext) use(*record);
}

}  // namespace bench
