// Dependencies that wait until the package they name has its record: work items in cells of the
// library. An item is given back when its package has come, so the pool stays as small as the most
// that ever wait at once.
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_map>

#include "catalog_model.hpp"

namespace catalog {

// One thread at a time.
class WaitingList {
 public:
  // Throws ServiceError when there is no storage. Those that still wait when it dies keep their
  // null pointer.
  explicit WaitingList(const mem::Context &context);

  // `package` and `dependency` are kept by address. Throws ServiceError when there is no storage.
  void add(std::string_view package, DependencyRecord &dependency);

  // Points all that wait for `package` at its record, and returns how many did.
  std::uint64_t resolve(std::string_view package, PackageRecord &record);

 private:
  struct Item {
    Item *next;  // waits for the same package
    DependencyRecord *dependency;
  };

  mem::CellPool<Item> cells_;
  std::unordered_map<std::string_view, Item *> firstByPackage_;
};

}  // namespace catalog
