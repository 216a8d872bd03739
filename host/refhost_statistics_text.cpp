// Statistics as JSON and as tables.
#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "refhost.hpp"

namespace refhost {

namespace {

using Json = nlohmann::ordered_json;
using Kind = ObjectStatistics::Kind;

bool isHeap(Kind kind) {
  return kind == Kind::standardHeap || kind == Kind::enhancedHeap;
}

// The smallest length of n binary digits.
std::uint64_t leastLength(std::size_t digits) {
  return digits == 0 ? 0 : std::uint64_t{1} << (digits - 1);
}

std::string addressText(const void *address) {
  return formatText("0x%p", address);
}

// --- JSON

// Members that only the layer counts are left out without it.
Json placeJson(const StatisticsPlace &place) {
  if (place.service.empty() && place.thread == 0) return nullptr;
  Json made;
  made["service"] = place.service;
  if (place.call != 0) made["call"] = place.call;
  made["thread"] = place.thread;
  if (place.caller != nullptr) made["caller"] = addressText(place.caller);
  if (!place.from.empty()) made["from"] = place.from;
  if (place.storageCall != 0) made["storageCall"] = place.storageCall;
  return made;
}

void addUsage(Json &object, const Usage &usage) {
  object["made"] = usage.made;
  object["freed"] = usage.freed;
  object["live"] = usage.live;
  object["bytesAsked"] = usage.bytesAsked;
  object["bytesLive"] = usage.bytesLive;
  object["bytesPeak"] = usage.bytesPeak;
  Json histogram = Json::array();
  for (std::size_t digits = 0; digits < usage.histogram.size(); ++digits) {
    if (usage.histogram[digits] == 0) continue;
    histogram.push_back({{"from", leastLength(digits)}, {"count", usage.histogram[digits]}});
  }
  object["histogram"] = std::move(histogram);
}

Json entryJson(const MappedEntry &entry, bool isHeaps) {
  Json made = {{"offset", entry.offset}, {"asked", entry.asked}, {"taken", entry.taken}};
  made["made"] = placeJson(entry.made);
  if (isHeaps) made["zone"] = entry.zone;
  if (entry.freed) made["freed"] = placeJson(*entry.freed);
  return made;
}

Json mapJson(const ObjectStatistics &object) {
  Json map = Json::array();
  for (const MappedArea &area : object.map) {
    Json made = {{"area", addressText(area.area)}, {"length", area.length}, {"head", area.head}};
    if (isHeap(object.kind)) {
      made["isLarge"] = area.isLarge;
      made["free"] = area.free;
    }
    Json &entries = made["entries"] = Json::array();
    for (const MappedEntry &entry : area.entries) {
      entries.push_back(entryJson(entry, isHeap(object.kind)));
    }
    map.push_back(std::move(made));
  }
  return map;
}

const char *kindName(Kind heap) {
  return heap == Kind::standardHeap ? "standard" : "enhanced";
}

const char *changeName(Change change) {
  switch (change) {
    case Change::opened:
      return "opened";
    case Change::closed:
      return "closed";
    case Change::changed:
      return "changed";
    case Change::none:
      break;
  }
  return "";
}

void addStorage(Json &made, const ObjectStatistics &object) {
  if (isHeap(object.kind)) {
    made["kind"] = kindName(object.kind);
  }
  made["subPool"] = object.subPool;
  made["areaSize"] = object.areaSize;
  if (object.kind == Kind::cellPool) made["cellLen"] = object.cellLen;
  made["areas"] = object.areas;
  if (isHeap(object.kind)) made["largeBlocks"] = object.largeBlocks;
  made["bytesObtained"] = object.bytesObtained;
  made["bytesUsed"] = object.bytesUsed;
  made["bytesWasted"] = object.bytesWasted;
}

Json objectJson(const ObjectStatistics &object) {
  Json made = {{"handle", addressText(object.handle)}};
  made["opened"] = placeJson(object.opened);
  if (object.change != Change::none) made["change"] = changeName(object.change);
  if (isHeap(object.kind) || object.kind == Kind::cellPool) {
    addStorage(made, object);
  } else if (object.kind == Kind::hashTable) {
    made["heap"] = addressText(object.heap);
    if (object.usage) {
      made["duplicates"] = object.duplicates;
      made["found"] = object.found;
      made["notFound"] = object.notFound;
    }
  } else {
    made["bytesObtained"] = object.bytesObtained;
    made["bytesObtainedPeak"] = object.bytesObtainedPeak;
    made["moves"] = object.moves;
  }
  if (object.usage) addUsage(made, *object.usage);
  if (!object.map.empty()) made["map"] = mapJson(object);
  return made;
}

Json familyJson(const FamilyStatistics &family) {
  Json made = Json::object();
  if (family.opened) made["opened"] = *family.opened;
  if (family.closed) made["closed"] = *family.closed;
  Json &open = made["open"] = Json::array();
  for (const ObjectStatistics &object : family.open) open.push_back(objectJson(object));
  return made;
}

Json usageJson(const Usage &usage) {
  Json made = Json::object();
  addUsage(made, usage);
  return made;
}

Json sinkJson(const SinkStatistics &sink) {
  Json made = Json::object();
  if (sink.texts && sink.copies) {
    made["texts"] = usageJson(*sink.texts);
    made["copies"] = usageJson(*sink.copies);
    made["found"] = sink.found;
    made["notFound"] = sink.notFound;
  }
  made["areas"] = sink.areas;
  made["bytesObtained"] = sink.bytesObtained;
  made["bytesObtainedPeak"] = sink.bytesObtainedPeak;
  return made;
}

// --- tables

// Columns as wide as their longest text; the first `left` columns are left-aligned.
class TextTable {
 public:
  explicit TextTable(std::size_t left) : left_(left) {}

  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }

  std::string text() const {
    std::vector<std::size_t> widths(rows_.front().size());
    for (const auto &row : rows_) {
      for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const auto &row : rows_) {
      std::string line;
      for (std::size_t i = 0; i < row.size(); ++i) {
        const std::string blanks(widths[i] - row[i].size(), ' ');
        line += "  ";
        line += i < left_ ? row[i] + blanks : blanks + row[i];
      }
      line.erase(line.find_last_not_of(' ') + 1);
      text += line + '\n';
    }
    return text;
  }

 private:
  std::size_t left_;
  std::vector<std::vector<std::string>> rows_;
};

class Tables {
 public:
  explicit Tables(const Statistics &shown) : shown_(shown) {}

  std::string text() {
    addServices();
    addFamily("heaps", shown_.heaps);
    addFamily("pools", shown_.pools);
    if (shown_.tables) addFamily("tables", *shown_.tables);
    if (shown_.buffers) addFamily("buffers", *shown_.buffers);
    addSink();
    return std::move(text_);
  }

 private:
  using Row = std::vector<std::string>;

  // In a difference an increase has a sign.
  std::string figure(std::int64_t value) const {
    return (shown_.isDifference && value > 0 ? "+" : "") + std::to_string(value);
  }

  static std::string numberOrDash(std::uint64_t number) {
    return number == 0 ? "-" : std::to_string(number);
  }

  void addServices() {
    if (!shown_.isCounted) return;
    text_ += "services: " + figure(shown_.componentCalls) + " calls of components, " +
             figure(shown_.reports) + " reports\n";
    TextTable table(1);
    table.add({"service", "slot", "calls", "failures"});
    for (const ServiceStatistics &service : shown_.services) {
      table.add({service.service, std::to_string(service.slot), figure(service.calls),
                 figure(service.failures)});
    }
    if (!shown_.services.empty()) text_ += table.text();
  }

  static constexpr std::array kUsageTitles = {"live", "live bytes", "peak bytes"};

  // Columns with texts, which come first: the handle and the service that opened the object.
  static constexpr std::size_t kTexts = 2;

  std::size_t textColumns(Kind kind) const {
    return kTexts + (shown_.isDifference ? 1U : 0U) + (isHeap(kind) ? 1U : 0U);
  }

  Row titles(Kind kind) const {
    Row row = {"handle", "opened by"};
    if (shown_.isDifference) row.insert(row.begin(), "");
    if (isHeap(kind)) row.emplace_back("kind");
    row.insert(row.end(), {"call", "storage call", "thread"});
    if (isHeap(kind) || kind == Kind::cellPool) {
      row.insert(row.end(), {"areas", "obtained", "used", "wasted"});
    } else if (kind == Kind::hashTable) {
      row.insert(row.end(), {"found", "not found", "duplicates"});
    } else {
      row.insert(row.end(), {"obtained", "peak", "moves"});
    }
    row.insert(row.end(), kUsageTitles.begin(), kUsageTitles.end());
    return row;
  }

  void addUsage(Row &row, const std::optional<Usage> &usage) const {
    if (!usage) {
      row.insert(row.end(), kUsageTitles.size(), "-");
      return;
    }
    row.insert(row.end(),
               {figure(usage->live), figure(usage->bytesLive), figure(usage->bytesPeak)});
  }

  Row rowOf(const ObjectStatistics &object) const {
    Row row = {addressText(object.handle),
               object.opened.service.empty() ? "-" : object.opened.service};
    if (shown_.isDifference) row.insert(row.begin(), changeName(object.change));
    if (isHeap(object.kind)) row.emplace_back(kindName(object.kind));
    row.insert(row.end(),
               {numberOrDash(object.opened.call), numberOrDash(object.opened.storageCall),
                numberOrDash(object.opened.thread)});
    if (isHeap(object.kind) || object.kind == Kind::cellPool) {
      row.insert(row.end(),
                 {figure(object.areas + object.largeBlocks), figure(object.bytesObtained),
                  figure(object.bytesUsed), figure(object.bytesWasted)});
    } else if (object.kind == Kind::hashTable && !object.usage) {
      row.insert(row.end(), {"-", "-", "-"});
    } else if (object.kind == Kind::hashTable) {
      row.insert(row.end(),
                 {figure(object.found), figure(object.notFound), figure(object.duplicates)});
    } else {
      row.insert(row.end(), {figure(object.bytesObtained), figure(object.bytesObtainedPeak),
                             figure(object.moves)});
    }
    addUsage(row, object.usage);
    return row;
  }

  void addFamily(const char *name, const FamilyStatistics &family) {
    if (family.open.empty() && family.opened.value_or(0) == 0 && family.closed.value_or(0) == 0) {
      return;
    }
    text_ += std::string(name) + ":";
    if (family.opened && family.closed) {
      text_ += ' ' + figure(*family.opened) + " opened, " + figure(*family.closed) + " closed";
    } else {
      text_ +=
          ' ' + std::to_string(family.open.size()) + (shown_.isDifference ? " changed" : " open");
    }
    text_ += '\n';
    if (family.open.empty()) return;
    const Kind kind = family.open.front().kind;
    TextTable table(textColumns(kind));
    table.add(titles(kind));
    for (const ObjectStatistics &object : family.open) table.add(rowOf(object));
    text_ += table.text();
    for (const ObjectStatistics &object : family.open) {
      if (object.usage) addLengths(addressText(object.handle), *object.usage);
    }
  }

  // "lengths in 0x…: 16 to 31: 3, 64 to 127: 1"
  void addLengths(const std::string &what, const Usage &usage) {
    std::string ranges;
    for (std::size_t digits = 0; digits < usage.histogram.size(); ++digits) {
      if (usage.histogram[digits] == 0) continue;
      const std::uint64_t from = leastLength(digits);
      const std::uint64_t to = from == 0 ? 0 : 2 * from - 1;
      ranges += ranges.empty() ? "" : ", ";
      ranges += std::to_string(from);
      if (to != from) ranges += " to " + std::to_string(to);
      ranges += ": " + figure(usage.histogram[digits]);
    }
    if (!ranges.empty()) text_ += "  lengths in " + what + ": " + ranges + '\n';
  }

  void addSink() {
    const SinkStatistics &sink = shown_.sink;
    const bool isUsed = sink.texts && (sink.texts->made != 0 || sink.texts->freed != 0);
    if (shown_.isDifference && !isUsed && sink.bytesObtained == 0) return;
    text_ += "sink: " + figure(sink.bytesObtained) + " bytes in " + figure(sink.areas) +
             " areas, at most " + figure(sink.bytesObtainedPeak) + '\n';
    if (!isUsed || !sink.copies) return;
    TextTable table(1);
    Row titles = {""};
    titles.insert(titles.end(), kUsageTitles.begin(), kUsageTitles.end());
    table.add(std::move(titles));
    for (const auto &[name, usage] :
         {std::pair("texts", &*sink.texts), std::pair("copies", &*sink.copies)}) {
      Row row = {name};
      addUsage(row, *usage);
      table.add(std::move(row));
    }
    text_ += table.text();
    text_ += "  found: " + figure(sink.found) + ", not found: " + figure(sink.notFound) + '\n';
  }

  const Statistics &shown_;
  std::string text_;
};

}  // namespace

std::string Statistics::json() const {
  Json all = Json::object();
  if (isDifference) all["isDifference"] = true;
  if (isCounted) {
    all["componentCalls"] = componentCalls;
    all["reports"] = reports;
    Json &called = all["services"] = Json::array();
    for (const ServiceStatistics &service : services) {
      called.push_back({{"slot", service.slot},
                        {"service", service.service},
                        {"calls", service.calls},
                        {"failures", service.failures}});
    }
  }
  all["heaps"] = familyJson(heaps);
  all["pools"] = familyJson(pools);
  if (tables) all["tables"] = familyJson(*tables);
  if (buffers) all["buffers"] = familyJson(*buffers);
  all["sink"] = sinkJson(sink);
  return all.dump(-1, ' ', false, Json::error_handler_t::replace);  // names of files are any bytes
}

std::string Statistics::table() const {
  return Tables(*this).text();
}

}  // namespace refhost
