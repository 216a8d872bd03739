#include "memchk_heaps.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>

#include "memchk_checkers.hpp"

namespace memchk {

namespace {

// The control blocks of heaps, as docs/heaps.md describes them.
constexpr char kStandardEye[] = "QQQHEAP1";
constexpr char kEnhancedEye[] = "ENHHEAP1";
constexpr char kBlockEye[] = "QQQHBLKN";
constexpr std::size_t kEyeLen = 8;
constexpr std::size_t kNextArea = 8;
constexpr std::size_t kNextFreeOff = 16;
constexpr std::size_t kFreeLen = 20;
constexpr std::int64_t kAreaOverhead = 56;
constexpr std::int64_t kBlockHeaderLen = 24;
constexpr std::int64_t kMinEnhancedLen = 16;

struct HeaderPlaces {
  std::size_t areaSize;
  std::size_t subPool;
};

constexpr std::uint32_t headLen(HeapKind kind, bool isFirstArea) noexcept {
  if (!isFirstArea) return 24;
  return kind == HeapKind::standard ? 56 : 64;
}

constexpr HeaderPlaces places(HeapKind kind) noexcept {
  return kind == HeapKind::standard ? HeaderPlaces{40, 44} : HeaderPlaces{56, 28};
}

template <class T>
T load(const void *pBlock, std::size_t offset) noexcept {
  T value{};
  zones::copyOut(&value, static_cast<const std::byte *>(pBlock) + offset, sizeof value);
  return value;
}

bool hasEye(const void *pBlock, const char *pEye) noexcept {
  char eye[kEyeLen];
  zones::copyOut(eye, pBlock, sizeof eye);
  return std::memcmp(eye, pEye, sizeof eye) == 0;
}

// A header field of a heap that the library has made; 0 for any other.
template <class T>
T headerField(HMEMHEAP hMemHeap, HeapKind kind, std::size_t offset) noexcept {
  HeapKind found{};
  return readKind(hMemHeap, found) && found == kind ? load<T>(hMemHeap, offset) : T{};
}

zones::Damage joined(zones::Damage first, zones::Damage second) noexcept {
  if (!first) return second;
  if (!second) return first;
  const std::size_t from = std::min(first.offset, second.offset);
  const std::size_t to = std::max(first.offset + first.length, second.offset + second.length);
  return {from, to - from};
}

zones::Damage moved(zones::Damage damage, std::size_t by) noexcept {
  return {damage.offset + by, damage.length};
}

std::string entryText(const Entry &entry, HeapKind kind) {
  return "entry of " + countText(static_cast<std::uint64_t>(usableLen(kind, entry.asked)), "byte") +
         " at " + addressText(entry.pEntry);
}

}  // namespace

std::int64_t usableLen(HeapKind kind, std::int32_t asked) noexcept {
  if (asked > 0) return asked;
  return kind == HeapKind::enhanced ? kMinEnhancedLen : 0;
}

std::int64_t alignedLen(HeapKind kind, std::int32_t asked) noexcept {
  const std::int64_t aligned = (usableLen(kind, asked) + 7) & ~std::int64_t{7};
  return kind == HeapKind::enhanced ? std::max(aligned, kMinEnhancedLen) : aligned;
}

bool readKind(HMEMHEAP hMemHeap, HeapKind &kind) noexcept {
  kind = hasEye(hMemHeap, kEnhancedEye) ? HeapKind::enhanced : HeapKind::standard;
  return kind == HeapKind::enhanced || hasEye(hMemHeap, kStandardEye);
}

bool HeapShape::isLarge(std::int64_t aligned) const noexcept {
  return areaSize != 0 && aligned > std::int64_t{areaSize} - kAreaOverhead;
}

std::uint32_t HeapShape::zoneOf(std::int32_t asked, std::uint32_t wanted) const noexcept {
  const std::int64_t aligned = alignedLen(kind, asked);
  std::int64_t room = std::numeric_limits<std::int32_t>::max() - aligned;
  if (areaSize != 0 && !isLarge(aligned)) room = std::int64_t{areaSize} - kAreaOverhead - aligned;
  return static_cast<std::uint32_t>(std::clamp(room / 2, std::int64_t{0}, std::int64_t{wanted})) &
         ~15U;
}

bool HeapShape::hasBlockHeader(std::int32_t asked, std::uint32_t zone) const noexcept {
  return kind == HeapKind::enhanced && zone >= kBlockHeaderLen && isLarge(alignedLen(kind, asked));
}

void HeapShape::fillZoneBefore(void *pEntry, std::int32_t asked,
                               std::uint32_t zone) const noexcept {
  auto *pBytes = static_cast<std::byte *>(pEntry);
  zones::fill(pBytes - zone, zone, zones::kZone);
  if (hasBlockHeader(asked, zone)) zones::copyIn(pBytes - kBlockHeaderLen, kBlockEye, kEyeLen);
}

void HeapShape::fillZones(void *pEntry, std::int32_t asked, std::uint32_t zone) const noexcept {
  auto *pBytes = static_cast<std::byte *>(pEntry);
  fillZoneBefore(pEntry, asked, zone);
  const std::int64_t usable = usableLen(kind, asked);
  const std::int64_t behind = alignedLen(kind, asked) + zone - usable;
  zones::fill(pBytes + usable, static_cast<std::size_t>(behind), zones::kZone);
}

HeapRecord::HeapRecord(HMEMHEAP hMemHeap, HeapKind kind, const Place &openedAt, bool isNew,
                       bool isChecking)
    : handle(hMemHeap),
      shape{kind, headerField<std::uint32_t>(hMemHeap, kind, places(kind).areaSize)},
      opened(openedAt),
      subPool(headerField<std::uint16_t>(hMemHeap, kind, places(kind).subPool)),
      isSeenWhole(isNew),
      checks(isChecking) {
  if (isNew && shape.areaSize != 0) {
    areas.push_back(reinterpret_cast<std::byte *>(handle));
    denyTail(areas.back());
    noteAreas();
  }
}

std::byte *HeapRecord::zoneStart(const Entry &entry) const noexcept {
  return static_cast<std::byte *>(entry.pEntry) - entry.zone;
}

std::byte *HeapRecord::end(const Entry &entry) const noexcept {
  return static_cast<std::byte *>(entry.pEntry) + usableLen(shape.kind, entry.asked);
}

std::byte *HeapRecord::zoneEnd(const Entry &entry) const noexcept {
  return static_cast<std::byte *>(entry.pEntry) + alignedLen(shape.kind, entry.asked) + entry.zone;
}

void HeapRecord::count(std::int32_t asked, std::uint32_t zone) {
  noteAreas();
  const std::int64_t aligned = alignedLen(shape.kind, asked) + 2 * std::int64_t{zone};
  if (shape.isLarge(aligned)) {
    ++largeBlocks;
    largeBytes += static_cast<std::uint64_t>(aligned + kBlockHeaderLen);
  }
  usage.add(static_cast<std::uint64_t>(usableLen(shape.kind, asked)));
}

void HeapRecord::countFree(const void *pEntry, std::int32_t length, const Place &freed) {
  usage.remove(static_cast<std::uint64_t>(usableLen(shape.kind, length)));
  Entry *pFound = entries_.empty() ? nullptr : find(pEntry);
  if (pFound == nullptr) return;
  pFound->state = Entry::State::freed;
  freed_.emplace(pEntry, freed);
}

void HeapRecord::add(void *pEntry, std::int32_t asked, std::uint32_t zone, const Place &made) {
  count(asked, zone);
  Entry entry{pEntry, made, asked, zone, 0, Entry::State::live};
  deny(entry);
  rename(entry);
  // A heap of the host's own may allocate again what was freed; that entry is gone then.
  Entry *pOld = freed_.empty() ? nullptr : find(pEntry);
  if (pOld != nullptr) {
    freed_.erase(pEntry);
    checkers::unname(pOld->block);
    *pOld = entry;
    return;
  }
  if (isIndexed_) index_[pEntry] = entries_.size();
  entries_.push_back(entry);
}

Entry *HeapRecord::find(const void *pEntry) {
  if (!isIndexed_) {
    isIndexed_ = true;
    for (std::size_t i = 0; i < entries_.size(); ++i) index_[entries_[i].pEntry] = i;
  }
  const auto found = index_.find(pEntry);
  return found == index_.end() ? nullptr : &entries_[found->second];
}

Entry *HeapRecord::findAround(const void *pAddress) noexcept {
  for (Entry &entry : entries_) {
    if (pAddress >= zoneStart(entry) && pAddress < zoneEnd(entry)) return &entry;
  }
  return nullptr;
}

bool HeapRecord::isInAreas(const void *pAddress) const noexcept {
  return std::any_of(areas.begin(), areas.end(), [this, pAddress](const std::byte *pArea) {
    return pAddress >= pArea && pAddress < pArea + shape.areaSize;
  });
}

void HeapRecord::deny(const Entry &entry) const noexcept {
  if (!checks || !checkers::isPresent()) return;
  const std::byte *pStart = zoneStart(entry);
  const auto length = static_cast<std::size_t>(zoneEnd(entry) - pStart);
  checkers::deny(pStart, length);
  if (entry.state != Entry::State::freed) {
    checkers::allow(entry.pEntry, static_cast<std::size_t>(usableLen(shape.kind, entry.asked)));
  }
}

void HeapRecord::rename(Entry &entry) const {
  if (!checks || !checkers::showsNames()) return;
  checkers::unname(entry.block);
  std::string text = entry.state == Entry::State::freed ? "freed and " : "";
  text += "red-zoned " + entryText(entry, shape.kind);
  const std::byte *pStart = zoneStart(entry);
  entry.block =
      checkers::name(pStart, static_cast<std::size_t>(zoneEnd(entry) - pStart), text.c_str());
}

void HeapRecord::beginFree(Entry &entry) {
  entry.state = Entry::State::freeing;
  if (checkers::isPresent()) {
    checkers::allow(zoneStart(entry), static_cast<std::size_t>(zoneEnd(entry) - zoneStart(entry)));
  }
}

void HeapRecord::endFree(Entry &entry, const Place &freed) {
  entry.state = Entry::State::freed;
  if (freed_.emplace(entry.pEntry, freed).second) {  // else freed before
    usage.remove(static_cast<std::uint64_t>(usableLen(shape.kind, entry.asked)));
  }
  zones::fill(entry.pEntry, static_cast<std::size_t>(alignedLen(shape.kind, entry.asked)),
              zones::kFreed);
  deny(entry);
  rename(entry);
}

void HeapRecord::cancelFree(Entry &entry, Entry::State before) {
  entry.state = before;
  deny(entry);
}

const Place &HeapRecord::freedAt(const Entry &entry) const {
  static constexpr Place kUnknown;
  const auto found = freed_.find(entry.pEntry);
  return found == freed_.end() ? kUnknown : found->second;
}

Finding HeapRecord::finding(MEMCheckKind found, const Entry &entry) const {
  Finding made;
  made.kind = found;
  made.pAddress = entry.pEntry;
  made.pObject = entry.pEntry;
  made.pOwner = handle;
  made.length = usableLen(shape.kind, entry.asked);
  made.made = entry.made;
  made.pMade = "allocated";
  if (entry.state == Entry::State::freed) {
    made.ended = freedAt(entry);
    made.pEnded = "freed";
  }
  made.where = entryText(entry, shape.kind) + " of " + name();
  return made;
}

std::string HeapRecord::name() const {
  return (shape.kind == HeapKind::standard ? "standard heap " : "enhanced heap ") +
         addressText(handle);
}

std::string HeapRecord::distanceText(const Entry &entry, const void *pAddress) const {
  const auto *pByte = static_cast<const std::byte *>(pAddress);
  const auto *pEntry = static_cast<const std::byte *>(entry.pEntry);
  const auto bytes = [](std::ptrdiff_t count) {
    return countText(static_cast<std::uint64_t>(count), "byte");
  };
  if (pByte < pEntry) return bytes(pEntry - pByte) + " before";
  if (pByte < end(entry)) return bytes(pByte - pEntry) + " into";
  return bytes(pByte - end(entry)) + " after";
}

Finding HeapRecord::accessAt(const Entry &entry, const void *pAddress) const {
  const auto *pByte = static_cast<const std::byte *>(pAddress);
  MEMCheckKind found = MEMCHK_FREED_WRITE;
  if (pByte >= end(entry)) found = MEMCHK_OVERRUN;
  if (pByte < entry.pEntry) found = MEMCHK_UNDERRUN;
  Finding made = finding(found, entry);
  made.pAddress = pAddress;
  made.what = "the reported access is to a heap entry";
  made.where = addressText(pAddress) + ", " + distanceText(entry, pAddress) + " the " + made.where;
  return made;
}

void HeapRecord::reportWrite(Findings &findings, MEMCheckKind found, const Entry &entry,
                             const std::byte *pFirst, std::size_t length) const {
  Finding made = finding(found, entry);
  made.pAddress = pFirst;
  made.given = static_cast<std::int64_t>(length);
  const std::string bytes = countText(length, "byte");
  if (found == MEMCHK_OVERRUN) {
    made.what = "overrun: " + bytes + " written after an entry";
  } else if (found == MEMCHK_UNDERRUN) {
    made.what = "underrun: " + bytes + " written before an entry";
  } else {
    made.what = "write after free: " + bytes + " written to a freed entry";
  }
  made.where =
      "first at " + addressText(pFirst) + ", " + distanceText(entry, pFirst) + " the " + made.where;
  findings.push_back(std::move(made));
}

zones::Damage HeapRecord::lookBefore(const Entry &entry) const noexcept {
  const std::byte *pStart = zoneStart(entry);
  if (!shape.hasBlockHeader(entry.asked, entry.zone)) {
    return zones::look(pStart, entry.zone, zones::kZone);
  }
  const std::size_t eyeAt = entry.zone - static_cast<std::size_t>(kBlockHeaderLen);
  const std::size_t rest = eyeAt + kEyeLen;
  zones::Damage damage = zones::look(pStart, eyeAt, zones::kZone);
  if (!hasEye(pStart + eyeAt, kBlockEye)) damage = joined(damage, {eyeAt, kEyeLen});
  return joined(damage, moved(zones::look(pStart + rest, entry.zone - rest, zones::kZone), rest));
}

void HeapRecord::check(Entry &entry, Findings &findings) {
  if (entry.state == Entry::State::freeing) return;
  if (const zones::Damage before = lookBefore(entry)) {
    reportWrite(findings, MEMCHK_UNDERRUN, entry, zoneStart(entry) + before.offset, before.length);
    shape.fillZoneBefore(entry.pEntry, entry.asked, entry.zone);
  }
  auto *pEntry = static_cast<std::byte *>(entry.pEntry);
  std::byte *pBehind = end(entry);
  if (entry.state == Entry::State::freed) {  // the pattern fills the rounding, too
    pBehind = pEntry + alignedLen(shape.kind, entry.asked);
    const auto bytes = static_cast<std::size_t>(pBehind - pEntry);
    if (const zones::Damage inside = zones::look(pEntry, bytes, zones::kFreed)) {
      reportWrite(findings, MEMCHK_FREED_WRITE, entry, pEntry + inside.offset, inside.length);
      zones::fill(pEntry, bytes, zones::kFreed);
    }
  }
  const auto bytes = static_cast<std::size_t>(zoneEnd(entry) - pBehind);
  if (const zones::Damage behind = zones::look(pBehind, bytes, zones::kZone)) {
    reportWrite(findings, MEMCHK_OVERRUN, entry, pBehind + behind.offset, behind.length);
    zones::fill(pBehind, bytes, zones::kZone);
  }
}

void HeapRecord::checkAll(Findings &findings) {
  for (Entry &entry : entries_) check(entry, findings);
}

void HeapRecord::repairAround(const void *pAddress, std::int64_t length) {
  const auto *pFrom = static_cast<const std::byte *>(pAddress);
  for (const Entry &entry : entries_) {
    if (entry.state == Entry::State::freeing) continue;
    if (pFrom >= zoneEnd(entry) || pFrom + length <= zoneStart(entry)) continue;
    shape.fillZones(entry.pEntry, entry.asked, entry.zone);
    if (entry.state != Entry::State::freed) continue;
    zones::fill(entry.pEntry, static_cast<std::size_t>(alignedLen(shape.kind, entry.asked)),
                zones::kFreed);
  }
}

// Other threads may be adding areas to an enhanced heap meanwhile. That is safe: an area has its
// header before it is linked, and because the record is locked, its entries are allowed after this.
void HeapRecord::noteAreas() {
  if (areas.empty()) return;
  while (auto *pNext = load<std::byte *>(areas.back(), kNextArea)) {
    wasted += load<std::uint32_t>(areas.back(), kFreeLen);
    areas.push_back(pNext);
    denyTail(pNext);
  }
  currentFree = load<std::uint32_t>(areas.back(), kFreeLen);
}

// Large blocks are found by their entries, because the heap's list of them may be changing.
std::vector<HeapRecord::AreaMap> HeapRecord::map() const {
  std::vector<AreaMap> found;
  std::map<const std::byte *, std::size_t> byAddress;
  for (const std::byte *pArea : areas) {
    const bool isFirst = found.empty();
    byAddress[pArea] = found.size();
    found.push_back({pArea,
                     shape.areaSize,
                     false,
                     headLen(shape.kind, isFirst),
                     load<std::uint32_t>(pArea, kNextFreeOff),
                     {}});
  }
  for (const Entry &entry : entries_) {
    const std::byte *pFirst = zoneStart(entry);
    const std::int64_t length = zoneEnd(entry) - pFirst;
    if (shape.isLarge(length)) {
      const auto whole = static_cast<std::uint32_t>(kBlockHeaderLen + length);
      found.push_back({pFirst - kBlockHeaderLen, whole, true, kBlockHeaderLen, whole, {&entry}});
      continue;
    }
    auto area = byAddress.upper_bound(pFirst);
    if (area == byAddress.begin()) continue;
    --area;
    if (pFirst < area->first + shape.areaSize) found[area->second].entries.push_back(&entry);
  }
  return found;
}

void HeapRecord::denyTail(const std::byte *pArea) const noexcept {
  if (!checks || !checkers::isPresent()) return;
  const auto used = load<std::uint32_t>(pArea, kNextFreeOff);
  if (used < shape.areaSize) checkers::deny(pArea + used, shape.areaSize - used);
}

void HeapRecord::allowAll() {
  if (!checks || !checkers::isPresent()) return;
  for (const std::byte *pArea : areas) checkers::allow(pArea, shape.areaSize);
  for (Entry &entry : entries_) {
    checkers::allow(zoneStart(entry), static_cast<std::size_t>(zoneEnd(entry) - zoneStart(entry)));
    checkers::unname(entry.block);
    entry.block = 0;
  }
}

void HeapRecord::denyAll() {
  if (!checks || !checkers::isPresent()) return;
  for (const std::byte *pArea : areas) denyTail(pArea);
  for (const Entry &entry : entries_) {
    deny(entry);
  }
}

}  // namespace memchk
