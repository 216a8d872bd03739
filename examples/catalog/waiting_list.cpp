#include "waiting_list.hpp"

#include "catalog_errors.hpp"

namespace catalog {

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

}  // namespace catalog
