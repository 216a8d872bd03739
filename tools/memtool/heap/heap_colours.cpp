#include "heap_colours.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::uint32_t kSizes[] = {16, 64, 256, 1024,
                                    4096};  // the upper limit of each class except the last
constexpr std::size_t kAges = 5;
constexpr std::size_t kOwners = 7;  // with their own colour

// From yellow to violet.
constexpr const char *kSizeStyles =
    "  .size0 { fill: #fbf3c4; } .size1 { fill: #d6ecb2; } .size2 { fill: #aee0c4; }\n"
    "  .size3 { fill: #a2d8ea; } .size4 { fill: #b0c4f2; } .size5 { fill: #d0b6ee; }\n";
// From old to new.
constexpr const char *kAgeStyles =
    "  .age0 { fill: #fdf6ea; } .age1 { fill: #fce6c8; } .age2 { fill: #f9d3a2; }\n"
    "  .age3 { fill: #f5be7e; } .age4 { fill: #efa65a; }\n";
// The last class is for all other owners.
constexpr const char *kOwnerStyles =
    "  .owner0 { fill: #bcd9f3; } .owner1 { fill: #c9e7bf; } .owner2 { fill: #f5e09c; }\n"
    "  .owner3 { fill: #dcc4ea; } .owner4 { fill: #b5e6e1; } .owner5 { fill: #f6c79c; }\n"
    "  .owner6 { fill: #d3d6a0; } .owner7 { fill: #dddddd; }\n";

template <class Visit>
void forEachEntry(const std::vector<Snapshot> &snapshots, Visit visit) {
  for (const Snapshot &snapshot : snapshots) {
    for (const Store &store : snapshot.stores) {
      for (const StoreArea &area : store.areas) {
        for (const StoreEntry &entry : area.entries) {
          if (!entry.isFreed) visit(entry);
        }
      }
    }
  }
}

}  // namespace

const char *EntryColours::styles() const {
  switch (by_) {
    case ColourBy::Size:
      return kSizeStyles;
    case ColourBy::Age:
      return kAgeStyles;
    case ColourBy::Owner:
      break;
  }
  return kOwnerStyles;
}

EntryColours::EntryColours(ColourBy by, const std::vector<Snapshot> &snapshots) : by_(by) {
  std::map<std::string, std::uint64_t> bytes;
  forEachEntry(snapshots, [&](const StoreEntry &entry) {
    last_ = std::max(last_, entry.made);
    bytes[entry.owner] += entry.taken;
  });
  for (const Snapshot &snapshot : snapshots) isOfProgram_ = isOfProgram_ || snapshot.isOfProgram;
  std::vector<std::pair<std::string, std::uint64_t>> order(bytes.begin(), bytes.end());
  std::stable_sort(order.begin(), order.end(),
                   [](const auto &a, const auto &b) { return a.second > b.second; });
  if (order.size() > kOwners + 1) order.resize(kOwners);
  for (const auto &[owner, taken] : order) {
    owners_.emplace(owner, ownerNames_.size());
    ownerNames_.push_back(owner);
  }
  std::set<std::size_t> used;
  forEachEntry(snapshots, [&](const StoreEntry &entry) { used.insert(classNumberOf(entry)); });
  const char *const prefix = by == ColourBy::Size ? "size" : by == ColourBy::Age ? "age" : "owner";
  for (const std::size_t number : used) {
    meanings_.push_back({fmt::format("{}{}", prefix, number), textOf(number)});
  }
}

std::size_t EntryColours::classNumberOf(const StoreEntry &entry) const {
  switch (by_) {
    case ColourBy::Size:
      return static_cast<std::size_t>(
          std::lower_bound(std::begin(kSizes), std::end(kSizes), entry.asked) - std::begin(kSizes));
    case ColourBy::Age:
      return entry.made == 0 ? 0 : static_cast<std::size_t>((entry.made - 1) * kAges / last_);
    case ColourBy::Owner:
      break;
  }
  const auto owner = owners_.find(entry.owner);
  return owner == owners_.end() ? kOwners : owner->second;
}

std::string EntryColours::classOf(const StoreEntry &entry) const {
  const std::size_t number = classNumberOf(entry);
  switch (by_) {
    case ColourBy::Size:
      return fmt::format("part size{}", number);
    case ColourBy::Age:
      return fmt::format("part age{}", number);
    case ColourBy::Owner:
      break;
  }
  return fmt::format("part owner{}", number);
}

std::string EntryColours::textOf(std::size_t number) const {
  switch (by_) {
    case ColourBy::Size: {
      const std::string from = number == 0 ? "" : grouped(kSizes[number - 1] + 1);
      if (number == std::size(kSizes)) return from + " and more";
      return number == 0 ? "up to " + grouped(kSizes[0]) : from + " to " + grouped(kSizes[number]);
    }
    case ColourBy::Age: {
      // The lowest number of a class is the first whose product reaches it.
      const auto first = [this](std::size_t age) { return (age * last_ + kAges - 1) / kAges + 1; };
      const std::uint64_t from = first(number);
      const std::uint64_t to = number + 1 == kAges ? last_ : first(number + 1) - 1;
      return from == to ? grouped(from) : fmt::format("{} to {}", grouped(from), grouped(to));
    }
    case ColourBy::Owner:
      break;
  }
  return number < ownerNames_.size() ? ownerNames_[number] : "others";
}

const char *EntryColours::title() const {
  switch (by_) {
    case ColourBy::Size:
      return "Entries and cells by requested bytes:";
    case ColourBy::Age:
      return isOfProgram_ ? "Entries and cells by the call that made them; the newest are darkest:"
                          : "Entries and cells by the script's line; the newest are darkest:";
    case ColourBy::Owner:
      break;
  }
  return isOfProgram_ ? "Entries and cells by the calling place, most bytes first:"
                      : "Entries and cells by their names, most bytes first:";
}

}  // namespace memtool
