// Cell pools: cells of one length from areas that are allocated on demand.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cell/cellblocks.h"
#include "frame/callframe.h"
#include "platform/check.h"
#include "platform/platform.h"

namespace memlib {

namespace {

// Two trace names differ from the names of the entry points; hosts rely on them.
constexpr EntryPoint kCellOpen{"MEM_CellOpen", kSourceCell, 173, 218};
constexpr EntryPoint kCellClose{"MemCellClose", kSourceCell, 268, 291};
constexpr EntryPoint kCellClear{"MEM_CellClear", kSourceCell, 337, 375};
constexpr EntryPoint kCellAllocEntry{"MemCellAllocEntry", kSourceCell, 426, 485};
constexpr EntryPoint kCellFreeEntry{"MEM_CellFreeEntry", kSourceCell, 538, 562};

MEMCellCtlBlk &pool(HMEMCELL hMemCell) noexcept {
  return *reinterpret_cast<MEMCellCtlBlk *>(hMemCell);
}

bool isPool(HMEMCELL hMemCell) noexcept {
  return hMemCell != nullptr && hasEyecatcher(hMemCell, kCellEye);
}

std::int16_t failHandle(CallFrame &frame, HMEMCELL hMemCell, Wording wording) noexcept {
  return frame.fail({.code = MEMERR_CELLBHDL,
                     .text = ErrorText("Invalid Cell Handle=").pointer(hMemCell).c_str(),
                     .wording = wording});
}

std::int16_t failComposed(CallFrame &frame, std::uint32_t code, const char *pText) noexcept {
  return frame.fail({.code = code, .text = pText, .wording = Wording::composed});
}

std::int16_t failStorage(CallFrame &frame) noexcept {
  return failComposed(frame, MEMERR_CELLAMEM, "Memory Alloc failed");
}

void *getArea(std::int32_t areaLen, std::int16_t subPool) noexcept {
  return functionVector().MEM_Alloc(static_cast<std::uint32_t>(areaLen), subPool);
}

void freeArea(void *pArea, std::int32_t areaLen, std::int16_t subPool) noexcept {
  functionVector().MEM_Free(pArea, static_cast<std::uint32_t>(areaLen), subPool);
}

// MEM_CellInitAreaLocList: puts the location nodes of an area on the list and returns the place of
// the area's first cell. `headerLen` is the control block's length in the first area, whose lowest
// node records the area itself, and 0 in further ones.
std::byte *initAreaLocList(MEMCellCtlBlk &ctl, void *pArea, std::int32_t headerLen) noexcept {
  std::byte *pNext = bytesAt(pArea, static_cast<std::size_t>(headerLen));
  void *pRecorded = headerLen != 0 ? pArea : nullptr;
  for (std::int32_t slack = nodeSpace(ctl, headerLen); slack > 15; slack -= 16) {
    auto *pNode = reinterpret_cast<CellAreaNode *>(pNext);
    pNode->pNext = ctl.pAreaLocList;
    pNode->pArea = pRecorded;
    pRecorded = nullptr;
    ctl.pAreaLocList = pNode;
    pNext += sizeof(CellAreaNode);
  }
  return pNext;
}

// MEM_CellBuildAvailCells: makes the cells from `pFirstCell` to the area's end the free list,
// lowest first. REQUIRES: the free list is empty; at least one cell fits.
void buildAvailCells(MEMCellCtlBlk &ctl, const void *pArea, std::byte *pFirstCell) noexcept {
  const auto cellLen = static_cast<std::size_t>(ctl.CellLen);
  auto remaining = static_cast<std::size_t>(ctl.AreaLen) -
                   static_cast<std::size_t>(pFirstCell - static_cast<const std::byte *>(pArea));
  MEM_ASSERT(ctl.pFreeCells == nullptr && remaining >= cellLen);
  ctl.pFreeCells = pFirstCell;
  std::byte *pCell = pFirstCell;
  for (; remaining >= 2 * cellLen; remaining -= cellLen) {
    storeAs<void *>(pCell, pCell + cellLen);
    pCell += cellLen;
  }
  storeAs<void *>(pCell, nullptr);
}

constexpr std::size_t kBlockLen = 16;  // every processor of the platform clears this with one store

void clearBlock(void *pTo) noexcept {
  struct Block {
    std::uint64_t words[kBlockLen / sizeof(std::uint64_t)];
  };
  storeAs(pTo, Block{});
}

// Clears a cell and adds it to the head of the free list. Optimised for short cells: overlapping
// blocks are faster than a call of memset.
void addFreeCell(MEMCellCtlBlk &ctl, void *pCell) noexcept {
  const auto length = static_cast<std::size_t>(ctl.CellLen);
  std::byte *pEnd = bytesAt(pCell, length);
  if (length < kBlockLen || length > 4 * kBlockLen) {
    std::memset(pCell, 0, length);
  } else {
    if (length > 2 * kBlockLen) {
      clearBlock(bytesAt(pCell, kBlockLen));
      clearBlock(pEnd - 2 * kBlockLen);
    }
    clearBlock(pEnd - kBlockLen);
    clearBlock(pCell);
  }
  storeAs(pCell, ctl.pFreeCells);
  ctl.pFreeCells = pCell;
}

// Sets the state of a new pool: one area whose cells are all free.
void initFirstArea(MEMCellCtlBlk &ctl) noexcept {
  ctl.pAreaLocList = nullptr;
  ctl.pFreeCells = nullptr;
  std::byte *pFirstCell = initAreaLocList(ctl, &ctl, sizeof(MEMCellCtlBlk));
  buildAvailCells(ctl, &ctl, pFirstCell);
}

// Adds an area of free cells. False, with nothing changed, when there is no storage.
// REQUIRES: the free list is empty.
MEM_NOINLINE bool growPool(MEMCellCtlBlk &ctl) noexcept {
  MEM_ASSERT(ctl.pFreeCells == nullptr);
  void *pArea = getArea(ctl.AreaLen, ctl.SubPool);
  if (pArea == nullptr) return false;
  const bool hasVacantNode = ctl.pAreaLocList->pArea == nullptr;
  std::byte *pFirstCell =
      hasVacantNode ? static_cast<std::byte *>(pArea) : initAreaLocList(ctl, pArea, 0);
  // The list ends in a used node, so the walk ends.
  CellAreaNode *pNode = ctl.pAreaLocList;
  while (pNode->pNext->pArea == nullptr) pNode = pNode->pNext;
  pNode->pArea = pArea;
  buildAvailCells(ctl, pArea, pFirstCell);
  return true;
}

}  // namespace

std::int16_t MEM_CellOpen(HMEMCELL *phMemCell, std::int32_t AreaLen, std::int32_t CellLen,
                          std::int16_t SubPool) noexcept {
  CallFrame frame(kCellOpen, ErrorArea::clear);
  frame.traceEntry("Parms: phMemCell=%lX, AreaLen=%ld, CellLen=%ld, SubPool=%hd", phMemCell,
                   AreaLen, CellLen, SubPool);
  if (AreaLen < kMinCellAreaLen || AreaLen > kMaxCellAreaLen) {
    return failComposed(frame, MEMERR_CELLBNDS, "Invalid area bounds");
  }
  if (AreaLen < CellLen + kCellOverhead) {
    return failComposed(frame, MEMERR_CELLSIZE, "Invalid area length");
  }
  if (CellLen < kMinCellLen) return failComposed(frame, MEMERR_CELLELEN, "Invalid cell length");
  void *pArea = getArea(AreaLen, SubPool);
  if (pArea == nullptr) return failStorage(frame);
  auto *pCtl = static_cast<MEMCellCtlBlk *>(pArea);
  writeEyecatcher(pCtl->Eyecatcher, kCellEye);
  pCtl->AreaLen = AreaLen;
  pCtl->CellLen = CellLen;
  pCtl->SubPool = SubPool;
  initFirstArea(*pCtl);
  MEM_ASSERT_VALID(isValid(*pCtl));
  *phMemCell = reinterpret_cast<HMEMCELL>(pCtl);
  frame.traceExit("Cell Object=%08X", *phMemCell);
  return frame.finish(0);
}

std::int16_t MEM_CellClose(HMEMCELL hMemCell) noexcept {
  CallFrame frame(kCellClose, ErrorArea::clear);
  frame.traceEntry("Parms: hMemCell=%lX", hMemCell);
  if (!isPool(hMemCell)) return failHandle(frame, hMemCell, Wording::named);
  MEMCellCtlBlk &ctl = pool(hMemCell);
  MEM_ASSERT_VALID(isValid(ctl));
  const std::int32_t areaLen = ctl.AreaLen;
  const std::int16_t subPool = ctl.SubPool;
  const CellAreaNode *pNode = ctl.pAreaLocList;
  // A stale handle fails the eye-catcher test until the storage is reused.
  std::memset(ctl.Eyecatcher, 0, sizeof ctl.Eyecatcher);
  while (pNode != nullptr) {
    const CellAreaNode *pNext = pNode->pNext;
    if (pNode->pArea != nullptr) freeArea(pNode->pArea, areaLen, subPool);
    pNode = pNext;
  }
  return frame.succeed();
}

std::int16_t MEM_CellClear(HMEMCELL hMemCell) noexcept {
  CallFrame frame(kCellClear, ErrorArea::clear);
  frame.traceEntry("Parms: hMemCell=%lx", hMemCell);
  if (!isPool(hMemCell)) return failHandle(frame, hMemCell, Wording::named);
  MEMCellCtlBlk &ctl = pool(hMemCell);
  const CellAreaNode *pNode = ctl.pAreaLocList;
  while (pNode != nullptr) {
    const CellAreaNode *pNext = pNode->pNext;
    if (pNode->pArea != nullptr && pNode->pArea != &ctl) {
      freeArea(pNode->pArea, ctl.AreaLen, ctl.SubPool);
    }
    pNode = pNext;
  }
  std::memset(bytesAt(&ctl, sizeof ctl), 0, static_cast<std::size_t>(ctl.AreaLen) - sizeof ctl);
  initFirstArea(ctl);
  MEM_ASSERT_VALID(isValid(ctl));
  return frame.succeed();
}

std::int16_t MEM_CellAllocEntry(HMEMCELL hMemCell, void **ppCell) noexcept {
  CallFrame frame(kCellAllocEntry, ErrorArea::clear);
  frame.traceEntry("Parms: hMemCell=%lX, ppCell=%lX", hMemCell, ppCell);
  if (!isPool(hMemCell)) return failHandle(frame, hMemCell, Wording::composed);
  MEMCellCtlBlk &ctl = pool(hMemCell);
  if (ctl.pFreeCells == nullptr && !growPool(ctl)) return failStorage(frame);
  void *pCell = ctl.pFreeCells;
  ctl.pFreeCells = loadAs<void *>(pCell);
  storeAs<void *>(pCell, nullptr);
  *ppCell = pCell;
  MEM_ASSERT_VALID(isValid(ctl));
  return frame.succeed();
}

std::int16_t MEM_CellFreeEntry(HMEMCELL hMemCell, void *pEntry) noexcept {
  CallFrame frame(kCellFreeEntry, ErrorArea::clear);
  frame.traceEntry("Parms: hMemCell=%lX, pEntry=%lX", hMemCell, pEntry);
  if (!isPool(hMemCell)) return failHandle(frame, hMemCell, Wording::named);
  if (pEntry != nullptr) addFreeCell(pool(hMemCell), pEntry);
  MEM_ASSERT_VALID(isValid(pool(hMemCell)));
  return frame.succeed();
}

}  // namespace memlib
