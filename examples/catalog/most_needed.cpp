#include "most_needed.hpp"

#include <algorithm>
#include <unordered_map>

namespace catalog {

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

}  // namespace catalog
