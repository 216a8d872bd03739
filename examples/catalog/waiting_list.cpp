#include "waiting_list.hpp"

#include <new>

#include "running_library.hpp"

namespace catalog {
namespace {

constexpr std::int32_t kCellAreaLength = 4096;
constexpr std::int16_t kCellSubPool = 21;  // any number that the host gives the program

}  // namespace

struct WaitingList::Item {
  Item *next;  // waits for the same package
  DependencyRecord *dependency;
};

WaitingList::WaitingList(refhost::Host &host) : host_(host) {
  check(host_, "MEM_CellOpen",
        host_.vector().MEM_CellOpen(&cells_, kCellAreaLength, sizeof(Item), kCellSubPool));
}

WaitingList::~WaitingList() {
  host_.vector().MEM_CellClose(cells_);
}

void WaitingList::add(std::string_view package, DependencyRecord &dependency) {
  void *cell = nullptr;
  check(host_, "MEM_CellAllocEntry", host_.vector().MEM_CellAllocEntry(cells_, &cell));
  Item *&first = firstByPackage_[package];
  first = new (cell) Item{first, &dependency};
}

std::uint64_t WaitingList::resolve(std::string_view package, PackageRecord &record) {
  const auto found = firstByPackage_.find(package);
  if (found == firstByPackage_.end()) return 0;
  std::uint64_t resolved = 0;
  for (Item *item = found->second; item != nullptr; ++resolved) {
    Item *const next = item->next;
    item->dependency->pPackage = &record;
    check(host_, "MEM_CellFreeEntry", host_.vector().MEM_CellFreeEntry(cells_, item));
    item = next;
  }
  firstByPackage_.erase(found);
  return resolved;
}

}  // namespace catalog
