#include "refhost_blocks.hpp"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <set>
#include <string_view>

namespace refhost {

namespace {

using Kind = ObjectStatistics::Kind;

constexpr std::size_t kLeastBlock = 48;  // the shortest area with a control block is longer
constexpr std::size_t kEyeLen = 8;
constexpr std::size_t kNext = 8;  // of areas and large blocks

template <class T>
T load(std::uintptr_t block, std::size_t offset) {
  T value{};
  std::memcpy(&value, reinterpret_cast<const std::byte *>(block) + offset, sizeof value);
  return value;
}

bool hasEye(std::uintptr_t block, std::string_view eye) {
  return std::memcmp(reinterpret_cast<const void *>(block), eye.data(), kEyeLen) == 0;
}

// Length of the area that begins at an address; 0 if none does.
std::uint32_t lengthAt(const LiveAreas &areas, std::uintptr_t address) {
  const auto found = areas.find(address);
  return found == areas.end() ? 0 : found->second->length;
}

ObjectStatistics object(Kind kind, std::uintptr_t block) {
  ObjectStatistics made;
  made.kind = kind;
  made.handle = reinterpret_cast<const void *>(block);
  return made;
}

// --- heaps

struct HeapPlaces {
  std::size_t largeBlocks;
  std::size_t areaSize;
  std::size_t subPool;
};
constexpr HeapPlaces kStandardPlaces{32, 40, 44};
constexpr HeapPlaces kEnhancedPlaces{48, 56, 28};
constexpr std::size_t kHeapFreeLen = 20;
constexpr std::size_t kBlockLen = 16;
constexpr std::size_t kBlockHeaderLen = 24;

void addLargeBlocks(ObjectStatistics &heap, const LiveAreas &areas, std::uintptr_t first) {
  std::set<std::uintptr_t> seen;
  for (auto block = first; lengthAt(areas, block) >= kBlockHeaderLen && hasEye(block, "QQQHBLKN");
       block = load<std::uintptr_t>(block, kNext)) {
    if (!seen.insert(block).second) return;
    const auto length = load<std::uint32_t>(block, kBlockLen);
    ++heap.largeBlocks;
    heap.bytesObtained += length;
    heap.bytesUsed += length;
  }
}

// The free bytes of the last area are not wasted: later entries use them.
ObjectStatistics readHeap(const LiveAreas &areas, std::uintptr_t block, Kind kind) {
  const HeapPlaces &places = kind == Kind::standardHeap ? kStandardPlaces : kEnhancedPlaces;
  ObjectStatistics heap = object(kind, block);
  heap.areaSize = load<std::uint32_t>(block, places.areaSize);
  heap.subPool = load<std::uint16_t>(block, places.subPool);
  std::set<std::uintptr_t> seen;
  std::int64_t lastFree = 0;
  for (auto area = block; lengthAt(areas, area) == heap.areaSize && seen.insert(area).second;
       area = load<std::uintptr_t>(area, kNext)) {
    heap.bytesWasted += lastFree;
    lastFree = load<std::uint32_t>(area, kHeapFreeLen);
    ++heap.areas;
  }
  heap.bytesObtained = heap.areas * static_cast<std::int64_t>(heap.areaSize);
  heap.bytesUsed = heap.bytesObtained - heap.bytesWasted - lastFree;
  addLargeBlocks(heap, areas, load<std::uintptr_t>(block, places.largeBlocks));
  return heap;
}

// --- pools

constexpr std::size_t kPoolNodes = 8;
constexpr std::size_t kPoolFreeCells = 16;
constexpr std::size_t kPoolAreaLen = 24;
constexpr std::size_t kPoolCellLen = 28;
constexpr std::size_t kPoolSubPool = 32;
constexpr std::size_t kNodeArea = 8;
constexpr std::size_t kNodeLen = 16;

// A pool's areas, each with the offset of its first cell: after the nodes that are in it.
using CellStarts = std::map<std::uintptr_t, std::uintptr_t>;

// The area of a pool that contains `bytes` bytes at an address; end() for none.
CellStarts::iterator areaOf(CellStarts &starts, std::uintptr_t address, std::size_t bytes,
                            std::uint64_t areaLen) {
  auto next = starts.upper_bound(address);
  if (next == starts.begin()) return starts.end();
  --next;
  const std::uint64_t offset = address - next->first;
  return offset < areaLen && areaLen - offset >= bytes ? next : starts.end();
}

CellStarts readNodes(const LiveAreas &areas, std::uintptr_t block, std::uint64_t areaLen) {
  CellStarts starts{{block, 0}};
  std::vector<std::uintptr_t> nodes;
  std::set<std::uintptr_t> seen;
  for (auto node = load<std::uintptr_t>(block, kPoolNodes); node != 0;
       node = load<std::uintptr_t>(node, 0)) {
    const auto holder = areas.upper_bound(node);  // the area after the node's
    if (holder == areas.begin() || !seen.insert(node).second) break;
    const auto &[from, pArea] = *std::prev(holder);
    const std::uint64_t offset = node - from;
    if (offset >= pArea->length || pArea->length - offset < kNodeLen) break;
    nodes.push_back(node);
    const auto area = load<std::uintptr_t>(node, kNodeArea);
    if (lengthAt(areas, area) == areaLen) starts.try_emplace(area, 0);
  }
  for (const std::uintptr_t node : nodes) {
    const auto area = areaOf(starts, node, kNodeLen, areaLen);
    if (area != starts.end()) area->second = std::max(area->second, node + kNodeLen - area->first);
  }
  return starts;
}

std::int64_t countFreeCells(CellStarts &starts, std::uintptr_t block, std::uint64_t areaLen,
                            std::int64_t most) {
  std::int64_t count = 0;
  for (auto cell = load<std::uintptr_t>(block, kPoolFreeCells);
       count < most && areaOf(starts, cell, sizeof(void *), areaLen) != starts.end();
       cell = load<std::uintptr_t>(cell, 0)) {
    ++count;
  }
  return count;
}

ObjectStatistics readPool(const LiveAreas &areas, std::uintptr_t block) {
  ObjectStatistics pool = object(Kind::cellPool, block);
  pool.areaSize = load<std::uint32_t>(block, kPoolAreaLen);
  pool.cellLen = load<std::uint32_t>(block, kPoolCellLen);
  pool.subPool = load<std::uint16_t>(block, kPoolSubPool);
  if (lengthAt(areas, block) != pool.areaSize || pool.cellLen < sizeof(void *)) return pool;
  CellStarts starts = readNodes(areas, block, pool.areaSize);
  std::int64_t cells = 0;
  for (const auto &[area, start] : starts) {
    const std::uint64_t room = pool.areaSize - start;
    cells += static_cast<std::int64_t>(room / pool.cellLen);
    pool.bytesWasted += static_cast<std::int64_t>(room % pool.cellLen);
  }
  pool.areas = static_cast<std::int64_t>(starts.size());
  pool.bytesObtained = pool.areas * static_cast<std::int64_t>(pool.areaSize);
  const std::int64_t used = cells - countFreeCells(starts, block, pool.areaSize, cells);
  pool.bytesUsed = used * static_cast<std::int64_t>(pool.cellLen);
  return pool;
}

// --- tables

constexpr std::size_t kTableHeap = 32;

ObjectStatistics readTable(std::uintptr_t block) {
  ObjectStatistics table = object(Kind::hashTable, block);
  table.heap = load<const void *>(block, kTableHeap);
  return table;
}

}  // namespace

SeenObjects readBlocks(const LiveAreas &areas) {
  SeenObjects seen;
  for (const auto &[block, pArea] : areas) {
    if (pArea->length < kLeastBlock || pArea->kind == kPoolKind) continue;
    if (hasEye(block, "QQQHEAP1")) {
      seen.heaps.push_back(readHeap(areas, block, Kind::standardHeap));
    } else if (hasEye(block, "ENHHEAP1") && pArea->length >= kEnhancedPlaces.areaSize + 8) {
      seen.heaps.push_back(readHeap(areas, block, Kind::enhancedHeap));
    } else if (hasEye(block, "QQQCELL1")) {
      seen.pools.push_back(readPool(areas, block));
    } else if (hasEye(block, "QQQQHASH")) {
      seen.tables.push_back(readTable(block));
    }
  }
  return seen;
}

}  // namespace refhost
