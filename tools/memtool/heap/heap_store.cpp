#include "heap_store.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace memtool {
namespace {

const char *whatOf(const StoreEntry &entry) {
  return entry.isFreed ? ", freed" : "";
}

std::string entryText(const StoreEntry &entry) {
  const bool isExact = entry.asked == entry.taken;
  return isExact ? entry.label + whatOf(entry)
                 : fmt::format("{} ({}){}", entry.label, entry.asked, whatOf(entry));
}

// The cells from `from` to `to`, none of which is in use.
void addFreeCells(std::vector<AreaPart> &parts, std::uint32_t from, std::uint32_t to,
                  std::uint32_t cellLen) {
  if (from >= to) return;
  const std::uint32_t count = (to - from) / cellLen;
  const std::string text = count == 1 ? "1 free cell" : fmt::format("{} free cells", count);
  parts.push_back({AreaPart::What::Free, from, to - from, "free", text});
}

// Bytes of a heap with unknown contents: entries that were made without being recorded.
void addUnknown(std::vector<AreaPart> &parts, std::uint32_t from, std::uint32_t to) {
  if (from < to) parts.push_back({AreaPart::What::Unknown, from, to - from, "?", "unknown"});
}

void addEntry(std::vector<AreaPart> &parts, const StoreEntry &entry) {
  const AreaPart zone{AreaPart::What::Zone, entry.offset - entry.zone, entry.zone, "z", "red zone"};
  if (entry.zone != 0) parts.push_back(zone);
  parts.push_back({entry.isFreed ? AreaPart::What::Freed : AreaPart::What::Entry, entry.offset,
                   entry.taken, entry.label, entryText(entry), entry.isFreed ? nullptr : &entry});
  if (entry.zone == 0) return;
  parts.push_back(zone);
  parts.back().offset = entry.offset + entry.taken;
}

}  // namespace

const char *nameOf(StoreType type) {
  switch (type) {
    case StoreType::Heap:
      return "standard heap";
    case StoreType::EnhancedHeap:
      return "enhanced heap";
    case StoreType::Pool:
      break;
  }
  return "cell pool";
}

std::vector<AreaPart> partsOf(const Store &store, const StoreArea &area) {
  using What = AreaPart::What;
  const bool isPool = store.type == StoreType::Pool;
  std::vector<const StoreEntry *> entries;
  for (const StoreEntry &entry : area.entries) {
    if (!isPool || !entry.isFreed) entries.push_back(&entry);  // a freed cell is a free cell
  }
  std::sort(entries.begin(), entries.end(),
            [](const StoreEntry *a, const StoreEntry *b) { return a->offset < b->offset; });

  std::vector<AreaPart> parts;
  if (area.headLen > 0) parts.push_back({What::Head, 0, area.headLen, "head", "head"});
  std::uint32_t at = area.headLen;
  for (const StoreEntry *const entry : entries) {
    const std::uint32_t begin = entry->offset - entry->zone;
    if (isPool) {
      addFreeCells(parts, at, begin, store.cellLen);
    } else {
      addUnknown(parts, at, begin);
    }
    addEntry(parts, *entry);
    at = entry->offset + entry->taken + entry->zone;
  }
  std::uint32_t end = area.length;
  if (isPool) {
    end = at + (area.length - at) / store.cellLen * store.cellLen;
    addFreeCells(parts, at, end, store.cellLen);
  } else {
    addUnknown(parts, at, area.free);
    at = std::max(at, area.free);
    if (at < end) parts.push_back({What::Free, at, end - at, "free", "free"});
  }
  if (isPool && end < area.length) {
    parts.push_back({What::Rest, end, area.length - end, "rest", "rest"});
  }
  return parts;
}

}  // namespace memtool
