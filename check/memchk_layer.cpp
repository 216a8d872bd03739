#include "memchk_layer.hpp"

#include <algorithm>
#include <string>
#include <utility>

#include "memchk_checkers.hpp"

namespace memchk {

namespace {

// How many handles of closed heaps and pools are kept.
constexpr std::size_t kMostClosed = 4096;

std::uint32_t threadNumber() noexcept {
  static std::atomic<std::uint32_t> threads{0};
  thread_local const std::uint32_t number = ++threads;
  return number;
}

// Multiples of 16 keep the alignment that the entry has without red zones.
std::uint32_t zoneLen(std::uint32_t wanted) noexcept {
  if (wanted == 0) return MEMCHK_RED_ZONE;
  constexpr std::uint32_t kLeast = MEMCHK_MIN_RED_ZONE;
  constexpr std::uint32_t kMost = MEMCHK_MAX_RED_ZONE;
  return (std::clamp(wanted, kLeast, kMost) + 15) & ~15U;
}

}  // namespace

Layer::Layer(const MEMCheckOptions &options) : options_(options), zone_(zoneLen(options.RedZone)) {}

Place Layer::enter(std::uint32_t slot, const void *pCaller) {
  const std::uint64_t call = calls_.fetch_add(1, std::memory_order_relaxed) + 1;
  const Place place{pCaller, call, threadNumber(), slot};
  if (options_.VerifyEvery != 0 && call % options_.VerifyEvery == 0) verify(place);
  return place;
}

void Layer::count(std::uint32_t slot, bool failed) noexcept {
  counts_[slot].calls.fetch_add(1, std::memory_order_relaxed);
  if (failed) counts_[slot].failures.fetch_add(1, std::memory_order_relaxed);
}

void Layer::deliverAll(const Findings &findings, const Place &place) {
  for (const Finding &finding : findings) {
    reports_.fetch_add(1, std::memory_order_relaxed);
    deliver(finding, place, options_.pReport, options_.pContext);
  }
}

void Layer::useHandle(const void *pHandle, const Place &place) {
  if (!checks()) return;
  Finding finding;
  {
    const std::lock_guard lock(mutex_);
    const auto found = closed_.find(pHandle);
    if (found == closed_.end()) return;
    const Closed &closed = found->second;
    finding.kind = MEMCHK_CLOSED_HANDLE;
    finding.code = closed.code;
    finding.pAddress = pHandle;
    finding.pOwner = pHandle;
    finding.made = closed.opened;
    finding.pMade = "opened";
    finding.ended = closed.closed;
    finding.pEnded = "closed";
    finding.where = closed.name;
  }
  finding.what = std::string("closed handle: ") + serviceName(place.slot) +
                 " was called with a handle that was closed";
  deliverAll({finding}, place);
}

void Layer::noteClosed(const void *pHandle, Closed closed) {
  closed_.insert_or_assign(pHandle, std::move(closed));
  closedOrder_.push_back(pHandle);
  if (closedOrder_.size() <= kMostClosed) return;
  closed_.erase(closedOrder_.front());
  closedOrder_.pop_front();
}

std::uint64_t Layer::verify(const Place &place) {
  if (!checks()) return 0;
  Findings findings;
  {
    const std::lock_guard lock(mutex_);
    for (auto &[pHandle, heap] : heaps_) heap.checkAll(findings);
    for (auto &[pHandle, pool] : pools_) pool.checkAll(findings);
  }
  deliverAll(findings, place);
  return findings.size();
}

void Layer::release() {
  const std::lock_guard lock(mutex_);
  for (auto &[pHandle, heap] : heaps_) heap.allowAll();
  for (auto &[pHandle, pool] : pools_) pool.allowAll();
}

// The error may be the layer's own, while it holds the lock: then nothing is reported.
void Layer::describe(const void *pAddress) {
  Findings findings;
  {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock.owns_lock()) return;
    for (auto &[pHandle, heap] : heaps_) {
      if (const Entry *pEntry = heap.findAround(pAddress)) {
        findings.push_back(heap.accessAt(*pEntry, pAddress));
      }
    }
    for (auto &[pHandle, pool] : pools_) pool.describe(pAddress, findings);
  }
  deliverAll(findings, {});
}

// --- heaps

HeapRecord *Layer::heapOf(HMEMHEAP hMemHeap) {
  const auto found = heaps_.find(hMemHeap);
  return found == heaps_.end() ? nullptr : &found->second;
}

void Layer::heapOpened(HMEMHEAP hMemHeap, HeapKind kind, const Place &opened) {
  if (hMemHeap == nullptr) return;
  const std::lock_guard lock(mutex_);
  closed_.erase(hMemHeap);
  heaps_.erase(hMemHeap);  // a heap that was closed without the layer
  heaps_.try_emplace(hMemHeap, hMemHeap, kind, opened, true, checks());
  ++heapCount_.opened;
}

std::optional<HeapShape> Layer::shapeOf(HMEMHEAP hMemHeap) {
  if (hMemHeap == nullptr) return std::nullopt;
  {
    const std::lock_guard lock(mutex_);
    if (const HeapRecord *pHeap = heapOf(hMemHeap)) return pHeap->shape;
    if (closed_.contains(hMemHeap)) return std::nullopt;
  }
  // A heap that existed before the layer. Reading its header is safe: the service does it, too.
  HeapKind kind{};
  if (!readKind(hMemHeap, kind)) return std::nullopt;
  HeapRecord heap(hMemHeap, kind, {}, false, checks());
  const HeapShape shape = heap.shape;
  const std::lock_guard lock(mutex_);
  heaps_.try_emplace(hMemHeap, std::move(heap));
  return shape;
}

void Layer::heapNotSeenWhole(HMEMHEAP hMemHeap) {
  const std::lock_guard lock(mutex_);
  if (HeapRecord *pHeap = heapOf(hMemHeap)) pHeap->isSeenWhole = false;
}

Layer::Heaps::node_type Layer::beginHeapClose(HMEMHEAP hMemHeap, const Place &place) {
  Findings findings;
  Heaps::node_type node;
  {
    const std::lock_guard lock(mutex_);
    node = heaps_.extract(hMemHeap);
    if (!node.empty() && checks()) node.mapped().checkAll(findings);
  }
  deliverAll(findings, place);
  if (!node.empty()) node.mapped().allowAll();
  return node;
}

void Layer::endHeapClose(Heaps::node_type &&node, bool isClosed, const Place &place) {
  HeapRecord &heap = node.mapped();
  const std::lock_guard lock(mutex_);
  if (isClosed) {
    ++heapCount_.closed;
    noteClosed(heap.handle, {heap.opened, place, heap.name(), MEMERR_HEAPBHDL});
  } else {
    heap.denyAll();
    heaps_.insert(std::move(node));
  }
}

void Layer::entryMade(HMEMHEAP hMemHeap, void *pEntry, std::int32_t asked, std::uint32_t zone,
                      const Place &made) {
  const std::lock_guard lock(mutex_);
  HeapRecord *pHeap = heapOf(hMemHeap);
  if (pHeap == nullptr) return;  // being closed meanwhile
  if (keepsPlaces()) {
    pHeap->add(pEntry, asked, zone, made);
  } else {
    pHeap->count(asked, zone);
  }
}

// The heap with an entry at this address; null if there is none.
HeapRecord *Layer::ownerOf(const void *pEntry, Entry *&pFound) {
  for (auto &[pHandle, heap] : heaps_) {
    pFound = heap.find(pEntry);
    if (pFound != nullptr) return &heap;
  }
  return nullptr;
}

// No entry begins at the address.
void Layer::misusedEntry(Findings &findings, HeapRecord &heap, const void *pEntry) {
  Finding finding;
  finding.where = addressText(pEntry) + " is not an entry of " + heap.name();
  for (auto &[pHandle, other] : heaps_) {
    const Entry *pAround = other.findAround(pEntry);
    if (pAround == nullptr) continue;
    finding = other.finding(MEMCHK_FOREIGN, *pAround);
    finding.where = other.distanceText(*pAround, pEntry) + " the " + finding.where;
    break;
  }
  finding.kind = MEMCHK_FOREIGN;
  finding.what = "foreign entry: an address is freed that was not allocated";
  finding.code = MEMERR_HEAPENTRY;
  finding.pAddress = pEntry;
  finding.pOwner = heap.handle;
  findings.push_back(std::move(finding));
}

Layer::EntryFree Layer::beginEntryFree(HMEMHEAP hMemHeap, std::int32_t length, void *pEntry,
                                       const Place &place) {
  EntryFree begun{nullptr, Entry::State::live, length};
  if (!checks()) return begun;
  Findings findings;
  {
    const std::lock_guard lock(mutex_);
    HeapRecord *pHeap = heapOf(hMemHeap);
    if (pHeap == nullptr) return begun;
    Entry *pFound = pHeap->find(pEntry);
    HeapRecord *pOwner = pFound != nullptr ? pHeap : ownerOf(pEntry, pFound);
    if (pFound == nullptr) {
      const bool isKnown = pHeap->isSeenWhole || pHeap->findAround(pEntry) != nullptr;
      if (isKnown) misusedEntry(findings, *pHeap, pEntry);
    } else if (pFound->state == Entry::State::freeing) {
      // Two threads free it at once. The layer cannot say which of them is wrong: no report.
    } else {
      begun.owner = pOwner->handle;
      begun.before = pFound->state;
      if (pOwner != pHeap) {
        Finding finding = pOwner->finding(MEMCHK_OTHER_OWNER, *pFound);
        finding.what = "other owner: an entry of another heap is freed in " + pHeap->name();
        finding.code = MEMERR_HEAPENTRY;
        findings.push_back(std::move(finding));
      }
      if (pFound->state == Entry::State::freed) {
        Finding finding = pOwner->finding(MEMCHK_DOUBLE_FREE, *pFound);
        finding.what = "double free: the entry was freed before";
        finding.code = MEMERR_HEAPENTRY;
        findings.push_back(std::move(finding));
      } else if (pFound->asked != length) {
        Finding finding = pOwner->finding(MEMCHK_WRONG_LENGTH, *pFound);
        finding.what = "wrong length: an entry of " + std::to_string(pFound->asked) +
                       " bytes is freed with a length of " + std::to_string(length);
        finding.given = length;
        finding.code = MEMERR_HEAPENTRY;
        findings.push_back(std::move(finding));
      }
      pOwner->check(*pFound, findings);
      // A heap clears the bytes of the length that it gets: no more than those of the entry.
      const bool clears = !pHeap->shape.isLarge(alignedLen(pHeap->shape.kind, length));
      if (clears &&
          alignedLen(pHeap->shape.kind, length) > alignedLen(pOwner->shape.kind, pFound->asked)) {
        begun.length = pFound->asked;
      }
      pOwner->beginFree(*pFound);
    }
  }
  deliverAll(findings, place);
  return begun;
}

void Layer::endEntryFree(const EntryFree &begun, HMEMHEAP hMemHeap, void *pEntry, bool isFreed,
                         const Place &place) {
  const std::lock_guard lock(mutex_);
  if (!checks()) {
    HeapRecord *pHeap = isFreed ? heapOf(hMemHeap) : nullptr;
    if (pHeap != nullptr) pHeap->countFree(pEntry, begun.length, place);
    return;
  }
  HeapRecord *pOwner = heapOf(begun.owner);
  Entry *pFound = pOwner == nullptr ? nullptr : pOwner->find(pEntry);
  if (pFound != nullptr && isFreed) {
    pOwner->endFree(*pFound, place);
  } else if (pFound != nullptr) {
    pOwner->cancelFree(*pFound, begun.before);
  } else if (isFreed) {
    // The heap has cleared bytes that are not one of its entries; they may overlap some.
    for (auto &[pHandle, heap] : heaps_) {
      heap.repairAround(pEntry, alignedLen(HeapKind::enhanced, begun.length));
    }
  }
}

// --- pools

PoolRecord *Layer::poolOf(HMEMCELL hMemCell) {
  const auto found = pools_.find(hMemCell);
  return found == pools_.end() ? nullptr : &found->second;
}

void Layer::adoptPool(HMEMCELL hMemCell) {
  if (hMemCell == nullptr) return;
  {
    const std::lock_guard lock(mutex_);
    if (pools_.contains(hMemCell) || closed_.contains(hMemCell)) return;
  }
  PoolRecord pool(hMemCell, {}, false, mostKept(), checks());
  if (!pool.isLibrarys) return;
  const std::lock_guard lock(mutex_);
  pools_.try_emplace(hMemCell, std::move(pool));
}

std::size_t Layer::mostKept() const noexcept {
  return options_.Quarantine == 0 ? std::size_t{MEMCHK_QUARANTINE} : options_.Quarantine;
}

void Layer::poolOpened(HMEMCELL hMemCell, const Place &opened) {
  if (hMemCell == nullptr) return;
  const std::lock_guard lock(mutex_);
  closed_.erase(hMemCell);
  pools_.erase(hMemCell);
  pools_.try_emplace(hMemCell, hMemCell, opened, true, mostKept(), checks());
  ++poolCount_.opened;
}

Layer::Pools::node_type Layer::beginPoolClear(HMEMCELL hMemCell, const Place &place) {
  Findings findings;
  Pools::node_type node;
  {
    const std::lock_guard lock(mutex_);
    node = pools_.extract(hMemCell);
    if (!node.empty() && checks()) node.mapped().checkAll(findings);
  }
  deliverAll(findings, place);
  if (!node.empty()) node.mapped().allowAll();
  return node;
}

void Layer::endPoolClear(Pools::node_type &&node, bool isCleared) {
  const std::lock_guard lock(mutex_);
  if (isCleared) {
    node.mapped().clear();
  } else {
    node.mapped().denyAll();
  }
  pools_.insert(std::move(node));
}

void Layer::endPoolClose(Pools::node_type &&node, bool isClosed, const Place &place) {
  PoolRecord &pool = node.mapped();
  const std::lock_guard lock(mutex_);
  if (isClosed) {
    ++poolCount_.closed;
    noteClosed(pool.handle, {pool.opened, place, pool.name(), MEMERR_CELLBHDL});
  } else {
    pool.denyAll();
    pools_.insert(std::move(node));
  }
}

void Layer::beginCellAlloc(HMEMCELL hMemCell, const Place &place) {
  if (!checks()) return;
  Findings findings;
  {
    const std::lock_guard lock(mutex_);
    if (PoolRecord *pPool = poolOf(hMemCell)) pPool->beginAlloc(findings);
  }
  deliverAll(findings, place);
}

void Layer::endCellAlloc(HMEMCELL hMemCell, void *pCell, const Place &place) {
  const std::lock_guard lock(mutex_);
  PoolRecord *pPool = poolOf(hMemCell);
  if (pPool == nullptr) return;
  if (pCell == nullptr) {
    pPool->cancelAlloc();
  } else if (checks()) {
    pPool->endAlloc(pCell, place);
  } else {
    pPool->count(pCell);
    if (keepsPlaces()) pPool->keep(pCell, place);
  }
}

// REQUIRES: the cell is not a live one of the pool.
Finding Layer::misusedCell(PoolRecord &pool, const void *pCell, Cell *pKnown) {
  Finding finding;
  if (pKnown != nullptr) {
    finding = pool.finding(MEMCHK_DOUBLE_FREE, pCell, *pKnown);
    finding.what = "double free: the cell was freed before";
    return finding;
  }
  for (auto &[pHandle, other] : pools_) {
    const Cell *pOther = other.find(pCell);
    if (pOther == nullptr) continue;
    finding = other.finding(MEMCHK_OTHER_OWNER, pCell, *pOther);
    finding.what = "other owner: a cell of another pool is freed in " + pool.name();
    return finding;
  }
  finding.kind = MEMCHK_FOREIGN;
  finding.pAddress = pCell;
  finding.pOwner = pool.handle;
  finding.what = "foreign cell: an address is freed that was not allocated";
  finding.where = addressText(pCell) + " is not a cell of " + pool.name();
  return finding;
}

// Freeing a foreign or free cell damages a pool: the layer passes null instead, which it ignores.
void *Layer::beginCellFree(HMEMCELL hMemCell, void *pCell, const Place &place) {
  if (!checks() || pCell == nullptr) return pCell;
  Finding finding;
  {
    const std::lock_guard lock(mutex_);
    PoolRecord *pPool = poolOf(hMemCell);
    if (pPool == nullptr) return pCell;
    Cell *pKnown = pPool->find(pCell);
    if (pKnown != nullptr && pKnown->state == Cell::State::live) {
      pPool->beginFree(*pKnown);
      return pCell;
    }
    if (pKnown == nullptr && !pPool->isSeenWhole) return pCell;
    finding = misusedCell(*pPool, pCell, pKnown);
  }
  deliverAll({finding}, place);
  return nullptr;
}

void Layer::endCellFree(HMEMCELL hMemCell, void *pCell, bool isFreed, const Place &place) {
  Findings findings;
  {
    const std::lock_guard lock(mutex_);
    PoolRecord *pPool = poolOf(hMemCell);
    if (pPool == nullptr || pCell == nullptr) return;
    if (!checks()) {
      if (isFreed) pPool->countFree(pCell);
      return;
    }
    Cell *pKnown = pPool->find(pCell);
    if (pKnown == nullptr) return;
    if (isFreed) {
      pPool->endFree(pCell, *pKnown, place, findings);
    } else {
      pPool->cancelFree(*pKnown);
    }
  }
  deliverAll(findings, place);
}

}  // namespace memchk
