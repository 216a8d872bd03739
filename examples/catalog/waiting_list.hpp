// Dependencies that wait until the package they name has its record: work items in cells of the
// library. An item is given back when its package has come, so the pool stays as small as the most
// that ever wait at once.
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_map>

#include "catalog_model.hpp"
#include "refhost.hpp"

namespace catalog {

// One thread at a time.
class WaitingList {
 public:
  // Throws ServiceError when there is no storage.
  explicit WaitingList(refhost::Host &host);
  // Those that still wait keep their null pointer.
  ~WaitingList();
  WaitingList(const WaitingList &) = delete;
  WaitingList &operator=(const WaitingList &) = delete;

  // `package` and `dependency` are kept by address. Throws ServiceError when there is no storage.
  void add(std::string_view package, DependencyRecord &dependency);

  // Points all that wait for `package` at its record, and returns how many did.
  std::uint64_t resolve(std::string_view package, PackageRecord &record);

 private:
  struct Item;

  refhost::Host &host_;
  HMEMCELL cells_ = nullptr;
  std::unordered_map<std::string_view, Item *> firstByPackage_;
};

}  // namespace catalog
