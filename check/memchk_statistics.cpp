// The statistics as JSON.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "memchk_layer.hpp"
#include "memchk_platform.hpp"

namespace memchk {

namespace {

using Json = nlohmann::ordered_json;

// The names of places in code, each looked up once: many entries have the same caller.
class CodeNames {
 public:
  const std::string &of(const void *pCode) {
    const auto [found, isNew] = names_.try_emplace(pCode);
    if (isNew) found->second = platform::codeName(pCode);
    return found->second;
  }

 private:
  std::unordered_map<const void *, std::string> names_;
};

Json placeOf(const Place &place, CodeNames &names) {
  if (!place.isKnown()) return nullptr;
  Json made = {{"service", serviceName(place.slot)},
               {"call", place.call},
               {"thread", place.thread},
               {"caller", addressText(place.pCaller)}};
  const std::string &from = names.of(place.pCaller);
  if (!from.empty()) made["from"] = from;
  return made;
}

// In ascending order, without empty ranges: {"from": 16, "count": 3} is 3 lengths from 16 to 31.
Json histogramOf(const Usage &usage) {
  Json histogram = Json::array();
  for (std::size_t digits = 0; digits < usage.histogram.size(); ++digits) {
    if (usage.histogram[digits] == 0) continue;
    const std::uint64_t from = digits == 0 ? 0 : std::uint64_t{1} << (digits - 1);
    histogram.push_back({{"from", from}, {"count", usage.histogram[digits]}});
  }
  return histogram;
}

void addUsage(Json &object, const Usage &usage) {
  object["made"] = usage.made;
  object["freed"] = usage.freed;
  object["live"] = usage.live();
  object["bytesAsked"] = usage.bytesAsked;
  object["bytesLive"] = usage.liveBytes;
  object["bytesPeak"] = usage.peakBytes;
  object["histogram"] = histogramOf(usage);
}

Json objectOf(const void *pHandle, const Place &opened, CodeNames &names) {
  return {{"handle", addressText(pHandle)}, {"opened", placeOf(opened, names)}};
}

Json areaJson(const std::byte *pArea, std::uint64_t length, std::uint32_t headLen) {
  return {{"area", addressText(pArea)}, {"length", length}, {"head", headLen}};
}

// `taken` is what an entry occupies, with rounding, without its red zones.
Json entryJson(std::int64_t offset, std::int64_t asked, std::int64_t taken, Json made) {
  return {{"offset", offset}, {"asked", asked}, {"taken", taken}, {"made", std::move(made)}};
}

Json mapOf(const HeapRecord &heap, CodeNames &names) {
  Json areas = Json::array();
  for (const HeapRecord::AreaMap &area : heap.map()) {
    Json object = areaJson(area.pArea, area.length, area.headLen);
    object["isLarge"] = area.isLarge;
    object["free"] = area.freeOffset;
    Json &entries = object["entries"] = Json::array();
    for (const Entry *pEntry : area.entries) {
      const auto *pFirst = static_cast<const std::byte *>(pEntry->pEntry);
      Json &entry = entries.emplace_back(
          entryJson(pFirst - area.pArea, usableLen(heap.shape.kind, pEntry->asked),
                    alignedLen(heap.shape.kind, pEntry->asked), placeOf(pEntry->made, names)));
      entry["zone"] = pEntry->zone;
      if (pEntry->state == Entry::State::freed) {
        entry["freed"] = placeOf(heap.freedAt(*pEntry), names);
      }
    }
    areas.push_back(std::move(object));
  }
  return areas;
}

Json mapOf(const PoolRecord &pool, CodeNames &names) {
  Json areas = Json::array();
  for (const PoolRecord::AreaMap &area : pool.map()) {
    Json object = areaJson(area.pArea, static_cast<std::uint64_t>(pool.areaLen), area.headLen);
    Json &entries = object["entries"] = Json::array();
    for (const auto &[pBytes, pCell] : area.cells) {
      entries.push_back(
          entryJson(pBytes - area.pArea, pool.cellLen, pool.cellLen, placeOf(pCell->made, names)));
    }
    areas.push_back(std::move(object));
  }
  return areas;
}

Json heapJson(const HeapRecord &heap, CodeNames &names) {
  Json object = objectOf(heap.handle, heap.opened, names);
  const std::uint64_t areaBytes = heap.areas.size() * std::uint64_t{heap.shape.areaSize};
  object["kind"] = heap.shape.kind == HeapKind::standard ? "standard" : "enhanced";
  object["subPool"] = heap.subPool;
  object["areaSize"] = heap.shape.areaSize;
  object["areas"] = heap.areas.size();
  object["largeBlocks"] = heap.largeBlocks;
  object["bytesObtained"] = areaBytes + heap.largeBytes;
  object["bytesUsed"] = areaBytes - heap.wasted - heap.currentFree + heap.largeBytes;
  object["bytesWasted"] = heap.wasted;
  addUsage(object, heap.usage);
  return object;
}

Json poolJson(const PoolRecord &pool, CodeNames &names) {
  Json object = objectOf(pool.handle, pool.opened, names);
  object["subPool"] = pool.subPool;
  object["areaSize"] = pool.areaLen;
  object["cellLen"] = pool.cellLen;
  object["areas"] = pool.areaCount();
  object["bytesObtained"] = pool.areaCount() * static_cast<std::uint64_t>(pool.areaLen);
  object["bytesUsed"] = pool.usage.liveBytes;
  object["bytesWasted"] = pool.wasted;
  addUsage(object, pool.usage);
  return object;
}

Json tableJson(const void *pHandle, const TableRecord &table, CodeNames &names) {
  Json object = objectOf(pHandle, table.opened, names);
  object["heap"] = addressText(table.pHeap);
  object["duplicates"] = table.duplicates;
  object["found"] = table.found;
  object["notFound"] = table.notFound;
  addUsage(object, table.usage);
  return object;
}

Json bufferJson(const void *pHandle, const BufferRecord &buffer, CodeNames &names) {
  Json object = objectOf(pHandle, buffer.opened, names);
  object["bytesObtained"] = buffer.storage;
  object["bytesObtainedPeak"] = buffer.peakStorage;
  object["moves"] = buffer.moves;
  addUsage(object, buffer.usage);
  return object;
}

Json sinkJson(const SinkRecord &sink) {
  Json asked = Json::object();
  addUsage(asked, sink.asked);
  Json copies = Json::object();
  addUsage(copies, sink.copies);
  return {{"texts", asked}, {"copies", copies}, {"found", sink.found}, {"notFound", sink.notFound}};
}

// The open objects of a family, in the order in which they were opened.
template <class Records, class Show>
Json familyOf(const FamilyCount &count, const Records &records, Show show) {
  std::vector<const typename Records::value_type *> order;
  order.reserve(records.size());
  for (const auto &record : records) order.push_back(&record);
  std::sort(order.begin(), order.end(), [](const auto *pLeft, const auto *pRight) {
    return pLeft->second.opened.call < pRight->second.opened.call;
  });
  Json open = Json::array();
  for (const auto *pRecord : order) open.push_back(show(*pRecord));
  return {{"opened", count.opened}, {"closed", count.closed}, {"open", open}};
}

}  // namespace

std::string Layer::statistics(bool withMaps) {
  const bool showsMaps = withMaps && keepsPlaces();
  Json all;
  all["componentCalls"] = calls_.load(std::memory_order_relaxed);
  all["reports"] = reports();
  Json services = Json::array();
  for (std::uint32_t slot = 0; slot < counts_.size(); ++slot) {
    const std::uint64_t calls = counts_[slot].calls.load(std::memory_order_relaxed);
    if (calls == 0) continue;
    services.push_back({{"slot", slot},
                        {"service", serviceName(slot)},
                        {"calls", calls},
                        {"failures", counts_[slot].failures.load(std::memory_order_relaxed)}});
  }
  all["services"] = services;
  const std::lock_guard lock(mutex_);
  CodeNames names;
  const auto withMap = [&](Json object, const auto &record) {
    if (showsMaps) object["map"] = mapOf(record, names);
    return object;
  };
  all["heaps"] = familyOf(heapCount_, heaps_, [&](const auto &record) {
    return withMap(heapJson(record.second, names), record.second);
  });
  all["pools"] = familyOf(poolCount_, pools_, [&](const auto &record) {
    return withMap(poolJson(record.second, names), record.second);
  });
  if (countsAll()) {
    all["tables"] = familyOf(counted_.tableCount, counted_.tables, [&](const auto &record) {
      return tableJson(record.first, record.second, names);
    });
    all["buffers"] = familyOf(counted_.bufferCount, counted_.buffers, [&](const auto &record) {
      return bufferJson(record.first, record.second, names);
    });
    all["sink"] = sinkJson(counted_.sink);
  }
  return all.dump(-1, ' ', false, Json::error_handler_t::replace);  // names of files are any bytes
}

}  // namespace memchk
