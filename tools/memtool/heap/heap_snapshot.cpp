#include "heap_snapshot.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "port_json.hpp"
#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::int64_t kMostBytes = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t kMostNumber = 1'000'000'000'000'000;  // of calls, entries and bytes

std::uint32_t bytesAt(const PortJsonNode &object, const std::string &key, std::int64_t least,
                      std::int64_t most) {
  return static_cast<std::uint32_t>(object.at(key).integer(least, most));
}

std::uint64_t numberIn(const PortJsonNode &object, const std::string &key) {
  const auto found = object.find(key);
  return found ? static_cast<std::uint64_t>(found->integer(0, kMostNumber)) : 0;
}

// "MEM_HeapOpen from program+0x1234".
std::string callerText(const PortJsonNode &place) {
  std::string text = place.at("service").text();
  auto from = place.find("from");
  if (!from) from = place.find("caller");
  if (from) text += " from " + from->text();
  return text;
}

StoreEntry readEntry(const PortJsonNode &node, std::uint32_t areaLen) {
  StoreEntry entry;
  entry.offset = bytesAt(node, "offset", 0, areaLen);
  if (const auto zone = node.find("zone")) {
    entry.zone = static_cast<std::uint32_t>(zone->integer(0, entry.offset));
  }
  entry.asked = bytesAt(node, "asked", 0, kMostBytes);
  entry.taken = bytesAt(node, "taken", 0, std::int64_t{areaLen} - entry.offset);
  if (std::int64_t{entry.offset} + entry.taken + entry.zone > areaLen) {
    node.fail("the entry ends after its area");
  }
  entry.isFreed = node.find("freed").has_value();
  entry.label = "?";
  entry.owner = "unknown";
  const PortJsonNode made = node.at("made");
  if (made.json().is_null()) return entry;
  entry.made = numberIn(made, "call");
  if (entry.made != 0) entry.label = fmt::format("#{}", entry.made);
  entry.owner = callerText(made);
  return entry;
}

void refuseOverlaps(const PortJsonNode &node, const StoreArea &area) {
  std::uint32_t at = area.headLen;
  for (const StoreEntry &entry : area.entries) {
    if (entry.offset - entry.zone < at) {
      node.fail(
          fmt::format("the entry at offset {} begins before {}, where the preceding item ends",
                      entry.offset, at));
    }
    at = entry.offset + entry.taken + entry.zone;
  }
}

StoreArea readArea(const PortJsonNode &node) {
  StoreArea area;
  area.length = bytesAt(node, "length", 1, kMostBytes);
  area.headLen = bytesAt(node, "head", 0, area.length);
  if (const auto isLarge = node.find("isLarge")) area.isLarge = isLarge->flag();
  if (const auto free = node.find("free")) {
    area.free = static_cast<std::uint32_t>(free->integer(0, area.length));
  }
  const PortJsonNode entries = node.at("entries");
  for (const PortJsonNode &entry : entries.elements()) {
    area.entries.push_back(readEntry(entry, area.length));
  }
  std::stable_sort(area.entries.begin(), area.entries.end(),
                   [](const auto &a, const auto &b) { return a.offset < b.offset; });
  refuseOverlaps(entries, area);
  return area;
}

// The areas of a pool are listed by address. Sorts them by age: first the area of the control
// block, then by the oldest cell.
void sortAreas(std::vector<std::pair<std::string, StoreArea>> &areas, const std::string &handle) {
  const auto firstCall = [&](const std::pair<std::string, StoreArea> &area) {
    std::uint64_t first = std::numeric_limits<std::uint64_t>::max();
    if (area.first == handle) return std::uint64_t{0};
    for (const StoreEntry &entry : area.second.entries) first = std::min(first, entry.made);
    return first;
  };
  std::stable_sort(areas.begin(), areas.end(),
                   [&](const auto &a, const auto &b) { return firstCall(a) < firstCall(b); });
}

// "opened by MEM_HeapOpen from program+0x1234, call 2; 100 entries of 5,430 bytes, 296 bytes lost".
std::string noteOf(const PortJsonNode &object, const char *entries) {
  std::string text;
  const PortJsonNode opened = object.at("opened");
  if (!opened.json().is_null()) {
    text = "opened by " + opened.at("service").text();
    const std::uint64_t call = numberIn(opened, "call");
    if (call != 0) text += fmt::format(", call {}", call);
    text += "; ";
  }
  return text + fmt::format("{} {} of {} bytes, {} lost at the ends of areas",
                            grouped(numberIn(object, "live")), entries,
                            grouped(numberIn(object, "bytesLive")),
                            grouped(numberIn(object, "bytesWasted")));
}

StoreType typeOf(const PortJsonNode &object) {
  const auto kind = object.find("kind");
  if (!kind) return StoreType::Pool;
  if (kind->text() == "standard") return StoreType::Heap;
  if (kind->text() == "enhanced") return StoreType::EnhancedHeap;
  kind->fail("expected \"standard\" or \"enhanced\"");
}

// Signed for a pool, unsigned for a heap, whichever of both the statistics have.
std::int32_t subPoolOf(const PortJsonNode &node, bool isPool) {
  const std::int64_t number = node.integer(std::numeric_limits<std::int16_t>::min(),
                                           std::numeric_limits<std::uint16_t>::max());
  if (isPool) return static_cast<std::int16_t>(number);
  return static_cast<std::uint16_t>(number);
}

Store readStore(const PortJsonNode &object, const PortJsonNode &map) {
  Store store;
  store.type = typeOf(object);
  const bool isPool = store.type == StoreType::Pool;
  store.areaLen = bytesAt(object, "areaSize", 0, kMostBytes);
  store.subPool = subPoolOf(object.at("subPool"), isPool);
  if (isPool) store.cellLen = bytesAt(object, "cellLen", 1, kMostBytes);
  store.note = noteOf(object, isPool ? "cells" : "entries");
  std::vector<std::pair<std::string, StoreArea>> areas;
  for (const PortJsonNode &area : map.elements()) {
    areas.emplace_back(area.at("area").text(), readArea(area));
  }
  if (isPool) sortAreas(areas, object.at("handle").text());
  for (auto &[address, area] : areas) store.areas.push_back(std::move(area));
  return store;
}

// Adds the open objects of a family; returns how many of them have no map.
std::size_t addStores(std::vector<Store> &stores, const PortJsonNode &all,
                      const std::string &family, const char *name) {
  const auto found = all.find(family);
  if (!found) return 0;
  std::size_t count = 0;
  std::size_t without = 0;
  for (const PortJsonNode &object : found->at("open").elements()) {
    ++count;
    const auto map = object.find("map");
    if (!map) {
      ++without;
      continue;
    }
    stores.push_back(readStore(object, *map));
    stores.back().name = fmt::format("{} {}", name, count);
  }
  return without;
}

}  // namespace

bool isHeapSnapshot(std::string_view text) {
  text = withoutByteOrderMark(text);
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && text[first] == '{';
}

Snapshot readHeapSnapshot(const std::string &name, std::string_view text) {
  const PortJsonText json(name, text);
  const PortJsonNode all(json);
  if (all.find("isDifference")) all.fail("this is a difference of statistics, which has no maps");
  if (!all.find("heaps") && !all.find("pools"))
    all.fail("this JSON has no statistics of heaps or pools");
  Snapshot snapshot;
  snapshot.isOfProgram = true;
  const std::size_t without = addStores(snapshot.stores, all, "heaps", "heap") +
                              addStores(snapshot.stores, all, "pools", "pool");
  if (snapshot.stores.empty() && without != 0) {
    all.fail(
        "no heap or pool has a map; write the statistics with statistics(true) of a host with "
        "Options::places, or with MEMCheckMap");
  }
  const std::uint64_t calls = numberIn(all, "componentCalls");
  snapshot.caption = fmt::format("{} after {} calls", name, grouped(calls));
  return snapshot;
}

}  // namespace memtool
