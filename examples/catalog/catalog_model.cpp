#include "catalog_model.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "catalog_support.hpp"

namespace catalog {
namespace {

std::uint32_t flagsOf(const Dependency &dependency) {
  return (dependency.preDepends ? kDependencyPre : 0) |
         (dependency.alternative ? kDependencyAlternative : 0);
}

class Builder {
 public:
  Builder(const mem::Context &context, mem::Heap &heap) : heap_(heap), waiting_(context) {}

  PackageRecord *build(const std::vector<Package> &packages) {
    PackageRecord *const root = makeChain<PackageRecord>(packages.size());
    PackageRecord *record = root;
    for (const Package &package : packages) {
      fillPackage(*record, package);
      // Of packages with the same name the first is used.
      if (byName_.emplace(package.name, record).second) waiting_.resolve(package.name, *record);
      record = record->pNext;
    }
    return root;
  }

 private:
  template <class Record>
  Record *makeChain(std::size_t count) {
    if (count == 0) return nullptr;
    return need(heap_.makeChain(MEM_FIELD(Record, pNext), static_cast<std::int32_t>(count)));
  }

  char *copyText(std::string_view text) {
    return text.empty() ? nullptr : need(heap_.copyText(text));
  }

  void fillPackage(PackageRecord &record, const Package &package) {
    record.pName = copyText(package.name);
    record.pVersion = copyText(package.version);
    const std::u16string summary = utf16FromUtf8(package.summary);
    if (!summary.empty()) record.pSummary = need(heap_.copyText(summary));
    record.pFirstDependency = makeChain<DependencyRecord>(package.dependencies.size());
    record.DependencyCount = static_cast<std::uint32_t>(package.dependencies.size());
    DependencyRecord *entry = record.pFirstDependency;
    for (const Dependency &dependency : package.dependencies) {
      entry->pName = copyText(dependency.name);
      entry->pConstraint = copyText(dependency.constraint);
      entry->Flags = flagsOf(dependency);
      resolve(*entry, bareName(dependency.name));
      entry = entry->pNext;
    }
  }

  // Sets the dependency's pointer to its package, now or when that has its record.
  void resolve(DependencyRecord &record, std::string_view packageName) {
    const auto found = byName_.find(packageName);
    if (found != byName_.end()) {
      record.pPackage = found->second;
    } else {
      waiting_.add(packageName, record);
    }
  }

  mem::Heap &heap_;
  std::unordered_map<std::string_view, PackageRecord *> byName_;
  WaitingList waiting_;
};

template <class Char>
bool isText(const Char *pText, std::basic_string_view<Char> expected) {
  return pText == nullptr ? expected.empty() : expected == pText;
}

// Compares records with the catalogue; a difference is reported with the name of its package.
class Checker {
 public:
  void check(const PackageRecord *root, const std::vector<Package> &packages) {
    const PackageRecord *next = root;
    for (const Package &package : packages) {
      require(next != nullptr, package, "is missing");
      byName_.emplace(package.name, next);
      next = mem::readRecord(next).pNext;
    }
    require(next == nullptr, packages.back(), "is not the last one");

    auto package = packages.begin();
    forEachRecord(root, [&](const PackageRecord &record) { checkPackage(record, *package++); });
  }

 private:
  void checkPackage(const PackageRecord &record, const Package &package) {
    require(isText<char>(record.pName, package.name), package, "has another name");
    require(isText<char>(record.pVersion, package.version), package, "has another version");
    require(isText<char16_t>(record.pSummary, utf16FromUtf8(package.summary)), package,
            "has another summary");
    require(record.DependencyCount == package.dependencies.size(), package,
            "has another number of dependencies");
    const DependencyRecord *next = record.pFirstDependency;
    for (const Dependency &dependency : package.dependencies) {
      require(next != nullptr, package, "lacks a dependency");
      const DependencyRecord entry = mem::readRecord(next);
      require(isSame(entry, dependency), package, "has another dependency");
      next = entry.pNext;
    }
    require(next == nullptr, package, "has more dependencies");
  }

  bool isSame(const DependencyRecord &record, const Dependency &dependency) const {
    const auto found = byName_.find(bareName(dependency.name));
    return isText<char>(record.pName, dependency.name) &&
           isText<char>(record.pConstraint, dependency.constraint) &&
           record.Flags == flagsOf(dependency) &&
           record.pPackage == (found == byName_.end() ? nullptr : found->second);
  }

  static void require(bool holds, const Package &package, const char *difference) {
    if (holds) return;
    throw DifferenceError("the chain differs from the catalogue: package " + package.name + " " +
                          difference);
  }

  std::unordered_map<std::string_view, const PackageRecord *> byName_;
};

}  // namespace

WaitingList::WaitingList(const mem::Context &context)
    : cells_(need(mem::CellPool<Item>::open(context, {.areaLen = 4096, .subPool = 21}))) {}

void WaitingList::add(std::string_view package, DependencyRecord &dependency) {
  Item *&first = firstByPackage_[package];
  first = need(cells_.make(first, &dependency));
}

std::uint64_t WaitingList::resolve(std::string_view package, PackageRecord &record) {
  const auto found = firstByPackage_.find(package);
  if (found == firstByPackage_.end()) return 0;
  std::uint64_t resolved = 0;
  for (Item *item = found->second; item != nullptr; ++resolved) {
    Item *const next = item->next;
    item->dependency->pPackage = &record;
    need(cells_.free(item));
    item = next;
  }
  firstByPackage_.erase(found);
  return resolved;
}

PackageRecord *buildRecords(const mem::Context &context, mem::Heap &heap,
                            const std::vector<Package> &packages) {
  return Builder(context, heap).build(packages);
}

void checkRecords(const PackageRecord *root, const std::vector<Package> &packages) {
  Checker().check(root, packages);
}

RecordCounts countRecords(const PackageRecord *root) {
  RecordCounts counts;
  const auto one = [](const void *target) { return target == nullptr ? 0U : 1U; };
  forEachRecord(root, [&](const PackageRecord &package) {
    ++counts.packages;
    counts.narrowStrings += one(package.pName) + one(package.pVersion);
    counts.wideStrings += one(package.pSummary);
    forEachRecord(package.pFirstDependency, [&](const DependencyRecord &dependency) {
      ++counts.dependencies;
      counts.references += one(dependency.pPackage);
      counts.narrowStrings += one(dependency.pName) + one(dependency.pConstraint);
    });
  });
  return counts;
}

std::vector<NeededPackage> mostNeeded(const PackageRecord *root, std::size_t count) {
  std::unordered_map<const PackageRecord *, std::uint64_t> dependencies;
  for (const PackageRecord *package = root; package != nullptr; package = package->pNext) {
    const DependencyRecord *entry = package->pFirstDependency;
    for (; entry != nullptr; entry = entry->pNext) {
      if (entry->pPackage != nullptr) ++dependencies[entry->pPackage];
    }
  }
  std::vector<NeededPackage> needed;
  for (const PackageRecord *package = root; package != nullptr; package = package->pNext) {
    const auto found = dependencies.find(package);
    if (found != dependencies.end()) needed.push_back({package, found->second});
  }
  const auto isMoreNeeded = [](const NeededPackage &a, const NeededPackage &b) {
    return a.dependencies > b.dependencies;
  };
  std::stable_sort(needed.begin(), needed.end(), isMoreNeeded);
  needed.resize(std::min(needed.size(), count));
  return needed;
}

NameCounts sinkNames(const mem::Context &context, const MEMProcessBlock &process,
                     const PackageRecord *root) {
  NameCounts counts;
  const auto sinkName = [&](const char *name) {
    if (name == nullptr) return;
    static_cast<void>(need(mem::SunkString::sink(context, name)).release());
    ++counts.names;
    counts.separateBytes += std::strlen(name) + 1;
  };
  forEachRecord(root, [&](const PackageRecord &package) {
    sinkName(package.pName);
    forEachRecord(package.pFirstDependency,
                  [&](const DependencyRecord &dependency) { sinkName(dependency.pName); });
  });
  counts.distinct = process.Act;
  for (const MEMSinkSegment &segment : process.Segments) counts.sinkBytes += segment.UsedLen;
  return counts;
}

}  // namespace catalog
