#include "memchk_pools.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "memchk_checkers.hpp"
#include "memchk_zones.hpp"

namespace memchk {

namespace {

// The control block and the location nodes, as docs/cell-pools.md describes them.
constexpr char kPoolEye[] = "QQQCELL1";
constexpr std::size_t kNodeList = 8;
constexpr std::size_t kFreeCells = 16;
constexpr std::size_t kAreaLen = 24;
constexpr std::size_t kCellLen = 28;
constexpr std::size_t kSubPool = 32;
constexpr std::size_t kNodeArea = 8;
constexpr std::size_t kLinkLen = sizeof(void *);

template <class T>
T load(const void *pBlock, std::size_t offset) noexcept {
  T value{};
  zones::copyOut(&value, static_cast<const std::byte *>(pBlock) + offset, sizeof value);
  return value;
}

bool isPool(HMEMCELL hMemCell) noexcept {
  char eye[8];
  zones::copyOut(eye, hMemCell, sizeof eye);
  return std::memcmp(eye, kPoolEye, sizeof eye) == 0;
}

}  // namespace

PoolRecord::PoolRecord(HMEMCELL hMemCell, const Place &openedAt, bool isNew, std::size_t mostKept,
                       bool isChecking)
    : handle(hMemCell),
      opened(openedAt),
      isLibrarys(isPool(hMemCell)),
      checks(isChecking),
      areaLen(isLibrarys ? load<std::int32_t>(hMemCell, kAreaLen) : 0),
      cellLen(isLibrarys ? load<std::int32_t>(hMemCell, kCellLen) : 0),
      subPool(isLibrarys ? load<std::int16_t>(hMemCell, kSubPool) : std::int16_t{0}),
      isSeenWhole(isNew),
      mostKept_(mostKept) {
  if (isNew && isLibrarys) clear();
}

std::byte *PoolRecord::head() const noexcept {
  return isLibrarys ? load<std::byte *>(handle, kFreeCells) : nullptr;
}

void PoolRecord::setHead(const void *pCell) const noexcept {
  zones::copyIn(reinterpret_cast<std::byte *>(handle) + kFreeCells, &pCell, sizeof pCell);
}

void PoolRecord::clear() {
  usage.removeAll();
  wasted = 0;
  cells_.clear();
  kept_.clear();
  areas_.clear();
  auto *pFirstArea = reinterpret_cast<std::byte *>(handle);
  if (isLibrarys) addArea(pFirstArea, head(), head());
  isSeenWhole = true;
}

// REQUIRES: the area's cells from `pFirstFree` on are free.
void PoolRecord::addArea(std::byte *pArea, std::byte *pFirstCell, std::byte *pFirstFree) {
  std::byte *pAreaEnd = pArea + areaLen;
  const auto rest = static_cast<std::uint64_t>((pAreaEnd - pFirstCell) % cellLen);
  wasted += rest;
  areas_[pArea] = {pFirstFree, pAreaEnd - rest, static_cast<std::uint32_t>(pFirstCell - pArea)};
  if (checks) checkers::deny(pFirstFree, static_cast<std::size_t>(pAreaEnd - pFirstFree));
}

PoolRecord::Areas::const_iterator PoolRecord::areaOf(const void *pAddress) const noexcept {
  auto *pByte = const_cast<std::byte *>(static_cast<const std::byte *>(pAddress));
  const auto next = areas_.upper_bound(pByte);
  if (next == areas_.begin()) return areas_.end();
  const auto found = std::prev(next);
  return pByte < found->first + areaLen ? found : areas_.end();
}

bool PoolRecord::isInAreas(const void *pAddress) const noexcept {
  return areaOf(pAddress) != areas_.end();
}

Cell *PoolRecord::find(const void *pCell) {
  const auto found = cells_.find(pCell);
  return found == cells_.end() ? nullptr : &found->second;
}

void PoolRecord::beginAlloc(Findings &findings) {
  if (!isLibrarys) return;
  if (head() == nullptr && !kept_.empty()) giveBackOldest(findings);
  std::byte *pCell = head();
  if (pCell == nullptr) return;
  checkHead(pCell, findings);
  if (Cell *pKnown = find(pCell)) pKnown->state = Cell::State::changing;
  checkers::allow(pCell, kLinkLen);
}

// The link of a free cell is known: from its free, or because its area is new and links its cells
// in order.
void PoolRecord::checkHead(std::byte *pCell, Findings &findings) {
  if (const Cell *pKnown = find(pCell)) {
    if (pKnown->state == Cell::State::free) checkFree(pCell, *pKnown, findings);
    return;
  }
  const auto area = areaOf(pCell);
  if (area == areas_.end() || area->second.pFirst != pCell) return;
  std::byte *pNext = pCell + cellLen;
  if (area->second.pEnd - pNext < cellLen) pNext = nullptr;
  if (load<std::byte *>(pCell, 0) == pNext) return;
  reportWrite(findings, pCell, {}, 0, kLinkLen);
  zones::copyIn(pCell, &pNext, sizeof pNext);
}

void PoolRecord::endAlloc(void *pCell, const Place &made) {
  count(pCell);
  auto *pBytes = static_cast<std::byte *>(pCell);
  const auto area = areaOf(pCell);
  if (area != areas_.end() && area->second.pFirst == pBytes) {
    areas_[area->first].pFirst += cellLen;
  }
  Cell &cell = cells_[pCell];
  cell.made = made;
  cell.state = Cell::State::live;
  checkers::allow(pCell, static_cast<std::size_t>(cellLen));
}

void PoolRecord::cancelAlloc() {
  Cell *pKnown = find(head());
  if (pKnown != nullptr && pKnown->state == Cell::State::changing) {
    pKnown->state = Cell::State::free;
  }
}

// The pool has a new area, and this is its lowest cell, because no other cell was free. A location
// node in the pool's list contains the area. In an area that existed before the layer, any cell may
// be the first to be allocated.
void PoolRecord::noteGrowth(std::byte *pCell) {
  constexpr int kMostNodes = 1 << 20;
  const auto *pNode = load<std::byte *>(handle, kNodeList);
  for (int i = 0; i < kMostNodes && pNode != nullptr; ++i) {
    auto *pArea = load<std::byte *>(pNode, kNodeArea);
    if (pArea != nullptr && pCell >= pArea && pCell < pArea + areaLen) {
      if (isSeenWhole) {
        addArea(pArea, pCell, pCell);
      } else {
        areas_[pArea] = {};
      }
      return;
    }
    pNode = load<std::byte *>(pNode, 0);
  }
}

void PoolRecord::beginFree(Cell &cell) {
  cell.state = Cell::State::changing;
}

void PoolRecord::cancelFree(Cell &cell) {
  cell.state = Cell::State::live;
}

void PoolRecord::endFree(void *pCell, Cell &cell, const Place &freed, Findings &findings) {
  usage.remove(static_cast<std::uint64_t>(cellLen));
  cell.freed = freed;
  auto *pBytes = static_cast<std::byte *>(pCell);
  if (!isLibrarys || head() != pBytes) {  // the library would have freed it otherwise
    cells_.erase(pCell);
    return;
  }
  setHead(load<std::byte *>(pBytes, 0));
  cell.state = Cell::State::kept;
  zones::fill(pBytes, static_cast<std::size_t>(cellLen), zones::kFreed);
  checkers::deny(pBytes, static_cast<std::size_t>(cellLen));
  if (checkers::showsNames()) {
    const std::string text = "freed cell of " + name();
    cell.block = checkers::name(pBytes, static_cast<std::size_t>(cellLen), text.c_str());
  }
  kept_.push_back(pBytes);
  if (kept_.size() > mostKept_) giveBackOldest(findings);
}

// Puts the oldest kept cell back into the pool's list, with the contents of a free cell.
void PoolRecord::giveBackOldest(Findings &findings) {
  std::byte *pCell = kept_.front();
  kept_.pop_front();
  Cell &cell = cells_[pCell];
  checkKept(pCell, cell, findings);
  checkers::unname(std::exchange(cell.block, 0));
  zones::fill(pCell, static_cast<std::size_t>(cellLen), 0);
  cell.state = Cell::State::free;
  cell.pLink = head();
  zones::copyIn(pCell, &cell.pLink, sizeof cell.pLink);
  setHead(pCell);
}

void PoolRecord::count(void *pCell) {
  usage.add(static_cast<std::uint64_t>(cellLen));
  if (isLibrarys && !isInAreas(pCell)) noteGrowth(static_cast<std::byte *>(pCell));
}

void PoolRecord::keep(void *pCell, const Place &made) {
  cells_[pCell] = {made, {}, nullptr, 0, Cell::State::live};
}

void PoolRecord::countFree(const void *pCell) {
  usage.remove(static_cast<std::uint64_t>(cellLen));
  cells_.erase(pCell);
}

std::vector<PoolRecord::AreaMap> PoolRecord::map() const {
  std::vector<AreaMap> found;
  if (!isSeenWhole) return found;
  std::map<const std::byte *, std::size_t> byAddress;
  for (const auto &[pArea, fresh] : areas_) {
    byAddress[pArea] = found.size();
    found.push_back({pArea, fresh.headLen, {}});
  }
  for (const auto &[pCell, cell] : cells_) {
    if (cell.state == Cell::State::kept || cell.state == Cell::State::free) continue;
    const auto area = areaOf(pCell);
    if (area == areas_.end()) continue;
    found[byAddress[area->first]].cells.emplace_back(static_cast<const std::byte *>(pCell), &cell);
  }
  for (AreaMap &area : found) std::sort(area.cells.begin(), area.cells.end());
  return found;
}

void PoolRecord::checkKept(std::byte *pCell, const Cell &cell, Findings &findings) const {
  const auto bytes = static_cast<std::size_t>(cellLen);
  const zones::Damage damage = zones::look(pCell, bytes, zones::kFreed);
  if (!damage) return;
  reportWrite(findings, pCell, cell, damage.offset, damage.length);
  zones::fill(pCell, bytes, zones::kFreed);
}

void PoolRecord::checkFree(std::byte *pCell, const Cell &cell, Findings &findings) const {
  const auto bytes = static_cast<std::size_t>(cellLen);
  const bool isLinkWhole = load<void *>(pCell, 0) == cell.pLink;
  const zones::Damage rest = zones::look(pCell + kLinkLen, bytes - kLinkLen, 0);
  if (isLinkWhole && !rest) return;
  const std::size_t first = isLinkWhole ? kLinkLen + rest.offset : 0;
  const std::size_t end = rest ? kLinkLen + rest.offset + rest.length : kLinkLen;
  reportWrite(findings, pCell, cell, first, end - first);
  zones::fill(pCell, bytes, 0);
  zones::copyIn(pCell, &cell.pLink, sizeof cell.pLink);
}

void PoolRecord::checkAll(Findings &findings) {
  for (auto &[pCell, cell] : cells_) {
    auto *pBytes = const_cast<std::byte *>(static_cast<const std::byte *>(pCell));
    if (cell.state == Cell::State::kept) checkKept(pBytes, cell, findings);
    if (cell.state == Cell::State::free) checkFree(pBytes, cell, findings);
  }
}

void PoolRecord::describe(const void *pAddress, Findings &findings) const {
  if (!isInAreas(pAddress)) return;
  const auto *pByte = static_cast<const std::byte *>(pAddress);
  for (const auto &[pCell, cell] : cells_) {
    const auto *pFirst = static_cast<const std::byte *>(pCell);
    if (pByte < pFirst || pByte >= pFirst + cellLen) continue;
    findings.push_back(finding(MEMCHK_FREED_WRITE, pCell, cell));
    findings.back().where = addressText(pAddress) + ", " +
                            countText(static_cast<std::uint64_t>(pByte - pFirst), "byte") +
                            " into the " + findings.back().where;
  }
  if (findings.empty()) {
    findings.push_back(finding(MEMCHK_FREED_WRITE, nullptr, {}));
    findings.back().where =
        addressText(pAddress) + ", outside all allocated cells, in an area of " + name();
  }
  findings.back().pAddress = pAddress;
  findings.back().what = "the reported access is to a cell";
}

void PoolRecord::allowAll() {
  if (!checkers::isPresent()) return;
  for (const auto &[pArea, fresh] : areas_) {
    checkers::allow(pArea, static_cast<std::size_t>(areaLen));
  }
  for (auto &[pCell, cell] : cells_) checkers::unname(std::exchange(cell.block, 0));
}

void PoolRecord::denyAll() {
  if (!checks || !checkers::isPresent()) return;
  for (const auto &[pArea, fresh] : areas_) {
    if (fresh.pFirst == nullptr) continue;
    checkers::deny(fresh.pFirst, static_cast<std::size_t>(pArea + areaLen - fresh.pFirst));
  }
  for (const auto &[pCell, cell] : cells_) {
    if (cell.state == Cell::State::live) continue;
    checkers::deny(pCell, static_cast<std::size_t>(cellLen));
  }
}

std::string PoolRecord::name() const {
  return "cell pool " + addressText(handle);
}

Finding PoolRecord::finding(MEMCheckKind kind, const void *pCell, const Cell &cell) const {
  Finding made;
  made.kind = kind;
  made.pAddress = pCell;
  made.pObject = pCell;
  made.pOwner = handle;
  made.length = cellLen;
  made.made = cell.made;
  made.pMade = "allocated";
  if (cell.state != Cell::State::live) {
    made.ended = cell.freed;
    made.pEnded = "freed";
  }
  made.where = "cell of " + countText(static_cast<std::uint64_t>(cellLen), "byte") + " at " +
               addressText(pCell) + " of " + name();
  return made;
}

void PoolRecord::reportWrite(Findings &findings, const std::byte *pCell, const Cell &cell,
                             std::size_t offset, std::size_t length) const {
  Finding made = finding(MEMCHK_FREED_WRITE, pCell, cell);
  made.pAddress = pCell + offset;
  made.given = static_cast<std::int64_t>(length);
  const bool wasUsed = cell.made.isKnown();
  made.what = "write after free: " + countText(length, "byte") + " written to a " +
              (wasUsed ? "freed" : "free") + " cell";
  made.where = "first at " + addressText(pCell + offset) + ", " + countText(offset, "byte") +
               " into the " + made.where;
  findings.push_back(std::move(made));
}

}  // namespace memchk
