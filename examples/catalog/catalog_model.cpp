#include "catalog_model.hpp"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "running_library.hpp"
#include "utf_text.hpp"
#include "waiting_list.hpp"

namespace catalog {
namespace {

constexpr std::int16_t kHeapAreaKb = 64;
constexpr std::uint16_t kHeapSubPool = 20;  // any number that the host gives the program

constexpr std::int16_t segmentOffset(std::size_t offset) {
  return static_cast<std::int16_t>(offset);
}

void addChild(MemPackDescriptor &descriptor, SegmentKind kind, std::size_t offset) {
  descriptor.Children[descriptor.ChildCount++] = {kind, segmentOffset(offset)};
}

MemPackDescriptor fixedSegment(std::size_t length, std::size_t siblingOffset) {
  MemPackDescriptor descriptor{};
  descriptor.Type = MEM_PACK_FIXED;
  descriptor.FixedLen = static_cast<std::uint16_t>(length);
  descriptor.SiblingOff = segmentOffset(siblingOffset);
  return descriptor;
}

MemPackDescriptor stringSegment(std::uint16_t type) {
  MemPackDescriptor descriptor{};
  descriptor.Type = type;
  descriptor.SiblingOff = MEM_PACK_NO_SIBLING;
  return descriptor;
}

std::uint32_t flagsOf(const Dependency &dependency) {
  return (dependency.preDepends ? kDependencyPre : 0) |
         (dependency.alternative ? kDependencyAlternative : 0);
}

}  // namespace

MemPackCB describeRecords() {
  MemPackDescriptor package = fixedSegment(sizeof(PackageRecord), offsetof(PackageRecord, pNext));
  addChild(package, kNarrowString, offsetof(PackageRecord, pName));
  addChild(package, kNarrowString, offsetof(PackageRecord, pVersion));
  addChild(package, kWideString, offsetof(PackageRecord, pSummary));
  addChild(package, kDependencySegment, offsetof(PackageRecord, pFirstDependency));

  MemPackDescriptor dependency =
      fixedSegment(sizeof(DependencyRecord), offsetof(DependencyRecord, pNext));
  addChild(dependency, kNarrowString, offsetof(DependencyRecord, pName));
  addChild(dependency, kNarrowString, offsetof(DependencyRecord, pConstraint));
  dependency.References[dependency.ReferenceCount++] =
      segmentOffset(offsetof(DependencyRecord, pPackage));

  MemPackCB packCB{};
  packCB.Count = kSegmentKinds;
  packCB.Descriptors[kPackageSegment] = package;
  packCB.Descriptors[kDependencySegment] = dependency;
  packCB.Descriptors[kNarrowString] = stringSegment(MEM_PACK_STRING);
  packCB.Descriptors[kWideString] = stringSegment(MEM_PACK_WIDE_STRING);
  return packCB;
}

// Fills the heap. Its entries come with whatever the host's storage held, so every field is set.
class CatalogRecords::Builder {
 public:
  explicit Builder(CatalogRecords &records) : records_(records), waiting_(records.host_) {}

  PackageRecord *build(const std::vector<Package> &packages) {
    PackageRecord *const root = makeChain<PackageRecord>(packages.size());
    PackageRecord *record = root;
    for (const Package &package : packages) {
      fillPackage(*record, package);
      announce(*record, package.name);
      record = record->pNext;
    }
    return root;
  }

 private:
  // A chain of `count` records, linked through `pNext`; null when `count` is 0.
  template <typename Record>
  Record *makeChain(std::size_t count) {
    if (count == 0) return nullptr;
    void *first = nullptr;
    check(host(), "MEM_HeapAllocLongMultEntries",
          host().vector().MEM_HeapAllocLongMultEntries(
              records_.heap_, sizeof(Record), static_cast<std::int32_t>(count),
              segmentOffset(offsetof(Record, pNext)), &first));
    return static_cast<Record *>(first);
  }

  // A copy of `text` with its terminator; null when it is empty. A catalogue is short enough for
  // every length in it to fit 32 bits.
  template <typename Char>
  Char *copyText(std::basic_string_view<Char> text, std::uint64_t &count) {
    if (text.empty()) return nullptr;
    void *entry = nullptr;
    check(host(), "MEM_HeapAllocEntryLong",
          host().vector().MEM_HeapAllocEntryLong(
              records_.heap_, static_cast<std::int32_t>((text.size() + 1) * sizeof(Char)), &entry));
    Char *const copy = static_cast<Char *>(entry);
    *std::copy(text.begin(), text.end(), copy) = Char{};
    ++count;
    return copy;
  }

  char *copyNarrow(std::string_view text) { return copyText(text, counts().narrowStrings); }

  void fillPackage(PackageRecord &record, const Package &package) {
    record.pName = copyNarrow(package.name);
    record.pVersion = copyNarrow(package.version);
    record.pSummary = copyText<char16_t>(utf16FromUtf8(package.summary), counts().wideStrings);
    record.pFirstDependency = makeChain<DependencyRecord>(package.dependencies.size());
    record.DependencyCount = static_cast<std::uint32_t>(package.dependencies.size());
    record.Reserved44 = 0;
    ++counts().packages;

    DependencyRecord *entry = record.pFirstDependency;
    for (const Dependency &dependency : package.dependencies) {
      fillDependency(*entry, dependency);
      entry = entry->pNext;
    }
  }

  void fillDependency(DependencyRecord &record, const Dependency &dependency) {
    record.pName = copyNarrow(dependency.name);
    record.pConstraint = copyNarrow(dependency.constraint);
    record.Flags = flagsOf(dependency);
    record.Reserved36 = 0;
    ++counts().dependencies;
    resolve(record, bareName(dependency.name));
  }

  // Points the dependency at its package, now or when that has its record.
  void resolve(DependencyRecord &record, std::string_view packageName) {
    const auto found = byName_.find(packageName);
    if (found != byName_.end()) {
      record.pPackage = found->second;
      ++counts().references;
    } else {
      record.pPackage = nullptr;
      waiting_.add(packageName, record);
    }
  }

  // Of packages with one name the first is meant.
  void announce(PackageRecord &record, std::string_view name) {
    if (byName_.emplace(name, &record).second) {
      counts().references += waiting_.resolve(name, record);
    }
  }

  refhost::Host &host() { return records_.host_; }
  RecordCounts &counts() { return records_.counts_; }

  CatalogRecords &records_;
  std::unordered_map<std::string_view, PackageRecord *> byName_;
  WaitingList waiting_;
};

namespace {

template <typename Char>
bool isText(const Char *pText, std::basic_string_view<Char> expected) {
  return pText == nullptr ? expected.empty() : expected == pText;
}

// Segments of a chain lie at any address, so records are copied out before they are looked at.
template <typename Record>
Record recordAt(const Record *pRecord) {
  Record record;
  std::memcpy(&record, static_cast<const void *>(pRecord), sizeof record);
  return record;
}

using RecordsByName = std::unordered_map<std::string_view, const PackageRecord *>;

// Checks records against the catalogue; what differs is told by the name of its package.
class Checker {
 public:
  RecordCounts check(const PackageRecord *root, const std::vector<Package> &packages) {
    index(root, packages);
    const PackageRecord *next = root;
    for (const Package &package : packages) {
      const PackageRecord record = recordAt(next);
      checkPackage(record, package);
      next = record.pNext;
    }
    return counts_;
  }

 private:
  // There must be a record for each package; dependencies refer to them by name.
  void index(const PackageRecord *root, const std::vector<Package> &packages) {
    const PackageRecord *record = root;
    for (const Package &package : packages) {
      require(record != nullptr, package, "is missing");
      byName_.emplace(package.name, record);
      record = recordAt(record).pNext;
    }
    require(record == nullptr, packages.back(), "is not the last one");
  }

  void checkPackage(const PackageRecord &record, const Package &package) {
    require(isText<char>(record.pName, package.name), package, "has another name");
    require(isText<char>(record.pVersion, package.version), package, "has another version");
    require(isText<char16_t>(record.pSummary, utf16FromUtf8(package.summary)), package,
            "has another summary");
    require(record.DependencyCount == package.dependencies.size(), package,
            "has another number of dependencies");
    ++counts_.packages;
    counts_.narrowStrings += countOf(record.pName) + countOf(record.pVersion);
    counts_.wideStrings += countOf(record.pSummary);
    checkDependencies(record.pFirstDependency, package);
  }

  void checkDependencies(const DependencyRecord *next, const Package &package) {
    for (const Dependency &dependency : package.dependencies) {
      require(next != nullptr, package, "lacks a dependency");
      const DependencyRecord record = recordAt(next);
      checkDependency(record, dependency, package);
      next = record.pNext;
    }
    require(next == nullptr, package, "has more dependencies");
  }

  void checkDependency(const DependencyRecord &record, const Dependency &dependency,
                       const Package &package) {
    const auto found = byName_.find(bareName(dependency.name));
    const PackageRecord *const meant = found == byName_.end() ? nullptr : found->second;
    require(isText<char>(record.pName, dependency.name) &&
                isText<char>(record.pConstraint, dependency.constraint) &&
                record.Flags == flagsOf(dependency) && record.pPackage == meant,
            package, "has another dependency");
    ++counts_.dependencies;
    counts_.references += countOf(record.pPackage);
    counts_.narrowStrings += countOf(record.pName) + countOf(record.pConstraint);
  }

  static std::uint64_t countOf(const void *target) { return target == nullptr ? 0U : 1U; }

  static void require(bool holds, const Package &package, const char *difference) {
    if (!holds) {
      throw DifferenceError("the chain differs from the catalogue: package " + package.name + " " +
                            difference);
    }
  }

  RecordsByName byName_;
  RecordCounts counts_;
};

}  // namespace

RecordCounts checkRecords(const PackageRecord *root, const std::vector<Package> &packages) {
  return Checker().check(root, packages);
}

CatalogRecords::CatalogRecords(refhost::Host &host, const std::vector<Package> &packages)
    : host_(host) {
  check(host_, "MEM_HeapOpen", host_.vector().MEM_HeapOpen(&heap_, kHeapAreaKb, kHeapSubPool));
  try {
    root_ = Builder(*this).build(packages);
  } catch (...) {
    host_.vector().MEM_HeapClose(heap_);
    throw;
  }
}

CatalogRecords::~CatalogRecords() {
  if (heap_ != nullptr) host_.vector().MEM_HeapClose(heap_);
}

void CatalogRecords::close() {
  const HMEMHEAP heap = heap_;
  heap_ = nullptr;
  root_ = nullptr;
  check(host_, "MEM_HeapClose", host_.vector().MEM_HeapClose(heap));
}

}  // namespace catalog
