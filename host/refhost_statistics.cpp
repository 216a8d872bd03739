// Statistics: the figures of the checking layer, completed from the storage account; without the
// layer, those of the control blocks.
#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <utility>

#include "refhost_blocks.hpp"
#include "refhost_impl.hpp"

namespace refhost {

namespace {

using Json = nlohmann::json;
using Kind = ObjectStatistics::Kind;

// Figures with their names in the layer's JSON.
template <class Object>
struct Figure {
  const char *name;
  std::int64_t Object::*value;
};

constexpr Figure<Usage> kUsageFigures[] = {
    {"made", &Usage::made},           {"freed", &Usage::freed},
    {"live", &Usage::live},           {"bytesAsked", &Usage::bytesAsked},
    {"bytesLive", &Usage::bytesLive}, {"bytesPeak", &Usage::bytesPeak},
};

constexpr Figure<ObjectStatistics> kObjectFigures[] = {
    {"areas", &ObjectStatistics::areas},
    {"largeBlocks", &ObjectStatistics::largeBlocks},
    {"bytesObtained", &ObjectStatistics::bytesObtained},
    {"bytesUsed", &ObjectStatistics::bytesUsed},
    {"bytesWasted", &ObjectStatistics::bytesWasted},
    {"duplicates", &ObjectStatistics::duplicates},
    {"found", &ObjectStatistics::found},
    {"notFound", &ObjectStatistics::notFound},
    {"bytesObtainedPeak", &ObjectStatistics::bytesObtainedPeak},
    {"moves", &ObjectStatistics::moves},
};

// --- the layer's JSON

Json countedBy(MEMCheck *check, bool withMaps) {
  std::string text;
  const auto append = [](void *pContext, const char *pText, std::size_t length) {
    static_cast<std::string *>(pContext)->append(pText, length);
  };
  (withMaps ? MEMCheckMap : MEMCheckStatistics)(check, append, &text);
  return Json::parse(text);
}

const void *addressIn(const Json &text) {
  constexpr int kHexadecimal = 16;
  return reinterpret_cast<const void *>(
      static_cast<std::uintptr_t>(std::stoull(text.get<std::string>(), nullptr, kHexadecimal)));
}

// Reads a member that objects of some families do not have.
template <class T>
void read(const Json &object, const char *name, T &value) {
  const auto found = object.find(name);
  if (found != object.end()) value = found->get<T>();
}

StatisticsPlace placeIn(const Json &object) {
  StatisticsPlace place;
  if (object.is_null()) return place;
  place.service = object.at("service");
  place.call = object.at("call");
  place.thread = object.at("thread");
  place.caller = addressIn(object.at("caller"));
  read(object, "from", place.from);
  return place;
}

Usage usageIn(const Json &object) {
  Usage usage;
  for (const auto &[name, figure] : kUsageFigures) usage.*figure = object.at(name);
  for (const Json &range : object.at("histogram")) {
    std::size_t digits = 0;
    for (auto from = range.at("from").get<std::uint64_t>(); from != 0; from >>= 1) ++digits;
    usage.histogram.at(digits) = range.at("count");
  }
  return usage;
}

MappedArea areaIn(const Json &object) {
  MappedArea area;
  area.area = addressIn(object.at("area"));
  area.length = object.at("length");
  area.head = object.at("head");
  read(object, "isLarge", area.isLarge);
  read(object, "free", area.free);
  for (const Json &shown : object.at("entries")) {
    MappedEntry entry;
    entry.offset = shown.at("offset");
    entry.asked = shown.at("asked");
    entry.taken = shown.at("taken");
    read(shown, "zone", entry.zone);
    entry.made = placeIn(shown.at("made"));
    if (shown.contains("freed")) entry.freed = placeIn(shown.at("freed"));
    area.entries.push_back(std::move(entry));
  }
  return area;
}

ObjectStatistics objectIn(const Json &object, Kind kind) {
  ObjectStatistics made;
  made.kind = kind;
  if (kind == Kind::standardHeap && object.at("kind") == "enhanced") made.kind = Kind::enhancedHeap;
  made.handle = addressIn(object.at("handle"));
  made.opened = placeIn(object.at("opened"));
  read(object, "subPool", made.subPool);
  read(object, "areaSize", made.areaSize);
  read(object, "cellLen", made.cellLen);
  for (const auto &[name, figure] : kObjectFigures) read(object, name, made.*figure);
  if (object.contains("heap")) made.heap = addressIn(object.at("heap"));
  if (object.contains("map")) {
    for (const Json &area : object.at("map")) made.map.push_back(areaIn(area));
  }
  made.usage = usageIn(object);
  return made;
}

FamilyStatistics familyIn(const Json &family, Kind kind) {
  FamilyStatistics made;
  made.opened = family.at("opened").get<std::int64_t>();
  made.closed = family.at("closed").get<std::int64_t>();
  for (const Json &object : family.at("open")) made.open.push_back(objectIn(object, kind));
  return made;
}

void addCounted(Statistics &taken, const Json &counted) {
  taken.isCounted = true;
  taken.componentCalls = counted.at("componentCalls");
  taken.reports = counted.at("reports");
  for (const Json &service : counted.at("services")) {
    taken.services.push_back(
        {service.at("slot"), service.at("service"), service.at("calls"), service.at("failures")});
  }
  taken.heaps = familyIn(counted.at("heaps"), Kind::standardHeap);
  taken.pools = familyIn(counted.at("pools"), Kind::cellPool);
  if (!counted.contains("tables")) return;
  taken.tables = familyIn(counted.at("tables"), Kind::hashTable);
  taken.buffers = familyIn(counted.at("buffers"), Kind::buffer);
  const Json &sink = counted.at("sink");
  taken.sink.texts = usageIn(sink.at("texts"));
  taken.sink.copies = usageIn(sink.at("copies"));
  taken.sink.found = sink.at("found");
  taken.sink.notFound = sink.at("notFound");
}

// --- the storage account

// Handles are addresses of areas: the account has the calls that allocated them.
void addOrigins(std::vector<ObjectStatistics> &objects, const LiveAreas &areas) {
  for (ObjectStatistics &object : objects) {
    const auto found = areas.find(reinterpret_cast<std::uintptr_t>(object.handle));
    if (found == areas.end()) continue;
    const FoundArea &area = *found->second;
    object.opened.thread = area.origin.thread;
    object.opened.storageCall = area.callNumber;
    const ServiceChain &services = *area.origin.services;
    if (object.opened.service.empty() && !services.empty()) {
      object.opened.service = services.front();
    }
  }
  std::stable_sort(objects.begin(), objects.end(), [](const auto &a, const auto &b) {
    return a.opened.storageCall < b.opened.storageCall;
  });
}

// --- differences

// Calls `visit` with each figure of one and the same figure of the other.
template <class Visit>
void withFigures(Usage &one, const Usage &other, Visit visit) {
  for (const auto &figure : kUsageFigures) visit(one.*figure.value, other.*figure.value);
  for (std::size_t i = 0; i < one.histogram.size(); ++i) {
    visit(one.histogram[i], other.histogram[i]);
  }
}

template <class Visit>
void withFigures(std::optional<Usage> &one, const std::optional<Usage> &other, Visit visit) {
  if (one && other) {
    withFigures(*one, *other, visit);
  } else {
    one.reset();
  }
}

template <class Visit>
void withFigures(ObjectStatistics &one, const ObjectStatistics &other, Visit visit) {
  for (const auto &figure : kObjectFigures) visit(one.*figure.value, other.*figure.value);
  withFigures(one.usage, other.usage, visit);
}

template <class Figures>
void subtract(Figures &from, const Figures &what) {
  withFigures(from, what,
              [](std::int64_t &figure, std::int64_t subtracted) { figure -= subtracted; });
}

bool hasFigures(ObjectStatistics object) {
  bool hasSome = false;
  withFigures(object, object,
              [&](std::int64_t figure, std::int64_t) { hasSome = hasSome || figure != 0; });
  return hasSome;
}

// An object that is opened at the address of a closed one has other call numbers.
using ObjectKey = std::tuple<std::uintptr_t, std::uint64_t, std::uint64_t>;
using ObjectsByKey = std::map<ObjectKey, const ObjectStatistics *>;

ObjectKey keyOf(const ObjectStatistics &object) {
  return {reinterpret_cast<std::uintptr_t>(object.handle), object.opened.storageCall,
          object.opened.call};
}

ObjectsByKey byKey(const std::vector<ObjectStatistics> &objects) {
  ObjectsByKey found;
  for (const ObjectStatistics &object : objects) found.emplace(keyOf(object), &object);
  return found;
}

// The object with all figures 0.
ObjectStatistics nothingOf(const ObjectStatistics &object) {
  ObjectStatistics nothing = object;
  subtract(nothing, object);
  return nothing;
}

std::optional<std::int64_t> difference(const std::optional<std::int64_t> &after,
                                       const std::optional<std::int64_t> &before) {
  if (!after || !before) return std::nullopt;
  return *after - *before;
}

FamilyStatistics difference(const FamilyStatistics &after, const FamilyStatistics &before) {
  FamilyStatistics made;
  made.opened = difference(after.opened, before.opened);
  made.closed = difference(after.closed, before.closed);
  const auto add = [&](ObjectStatistics object, const ObjectStatistics &earlier, Change change) {
    object.map.clear();
    object.change = change;
    subtract(object, earlier);
    if (change != Change::changed || hasFigures(object)) made.open.push_back(std::move(object));
  };
  const ObjectsByKey earlier = byKey(before.open);
  const ObjectsByKey later = byKey(after.open);
  for (const ObjectStatistics &object : before.open) {
    if (!later.contains(keyOf(object))) add(nothingOf(object), object, Change::closed);
  }
  for (const ObjectStatistics &object : after.open) {
    const auto same = earlier.find(keyOf(object));
    if (same == earlier.end()) {
      add(object, nothingOf(object), Change::opened);
    } else {
      add(object, *same->second, Change::changed);
    }
  }
  return made;
}

std::optional<FamilyStatistics> difference(const std::optional<FamilyStatistics> &after,
                                           const std::optional<FamilyStatistics> &before) {
  if (!after || !before) return std::nullopt;
  return difference(*after, *before);
}

SinkStatistics difference(SinkStatistics sink, const SinkStatistics &before) {
  sink.areas -= before.areas;
  sink.bytesObtained -= before.bytesObtained;
  sink.bytesObtainedPeak -= before.bytesObtainedPeak;
  sink.found -= before.found;
  sink.notFound -= before.notFound;
  const auto change = [](std::int64_t &figure, std::int64_t other) { figure -= other; };
  withFigures(sink.texts, before.texts, change);
  withFigures(sink.copies, before.copies, change);
  return sink;
}

}  // namespace

Statistics Host::statistics(bool withMaps) const {
  Statistics taken;
  if (impl_->check != nullptr) addCounted(taken, countedBy(impl_->check, withMaps));
  const std::vector<FoundArea> found = impl_->storage.areas();
  LiveAreas areas;
  for (const FoundArea &area : found) {
    areas.emplace(reinterpret_cast<std::uintptr_t>(area.address), &area);
  }
  if (!taken.isCounted) {
    SeenObjects seen = readBlocks(areas);
    taken.heaps.open = std::move(seen.heaps);
    taken.pools.open = std::move(seen.pools);
    taken.tables.emplace().open = std::move(seen.tables);
  }
  addOrigins(taken.heaps.open, areas);
  addOrigins(taken.pools.open, areas);
  if (taken.tables) addOrigins(taken.tables->open, areas);
  const Account sink = impl_->storage.account(MEM_SINK_SUBPOOL);
  taken.sink.areas = static_cast<std::int64_t>(sink.liveCount);
  taken.sink.bytesObtained = static_cast<std::int64_t>(sink.liveBytes);
  taken.sink.bytesObtainedPeak = static_cast<std::int64_t>(sink.peakBytes);
  return taken;
}

Statistics Statistics::since(const Statistics &before) const {
  Statistics made;
  made.isDifference = true;
  made.isCounted = isCounted && before.isCounted;
  made.componentCalls = componentCalls - before.componentCalls;
  made.reports = reports - before.reports;
  for (ServiceStatistics service : services) {
    const auto earlier =
        std::find_if(before.services.begin(), before.services.end(),
                     [&](const auto &other) { return other.slot == service.slot; });
    if (earlier != before.services.end()) {
      service.calls -= earlier->calls;
      service.failures -= earlier->failures;
    }
    if (service.calls != 0) made.services.push_back(std::move(service));
  }
  made.heaps = difference(heaps, before.heaps);
  made.pools = difference(pools, before.pools);
  made.tables = difference(tables, before.tables);
  made.buffers = difference(buffers, before.buffers);
  made.sink = difference(sink, before.sink);
  return made;
}

}  // namespace refhost
