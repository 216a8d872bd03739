#include "base/listends.h"
#include "cell/cellblocks.h"

namespace memlib {

namespace {

// Offset of an address in an area. An address before the area gives an offset beyond any area.
std::size_t offsetIn(const void *pArea, const void *pAddress) noexcept {
  return reinterpret_cast<std::uintptr_t>(pAddress) - reinterpret_cast<std::uintptr_t>(pArea);
}

// The recorded area that contains an address, or null.
const void *areaOf(const MEMCellCtlBlk &ctl, const void *pAddress) noexcept {
  const auto areaLen = static_cast<std::size_t>(ctl.AreaLen);
  for (const CellAreaNode *pNode = ctl.pAreaLocList; pNode != nullptr; pNode = pNode->pNext) {
    if (pNode->pArea != nullptr && offsetIn(pNode->pArea, pAddress) < areaLen) return pNode->pArea;
  }
  return nullptr;
}

// Offsets of the begin of an area's node block, and of its end if the area has one.
std::size_t nodesBegin(const MEMCellCtlBlk &ctl, const void *pArea) noexcept {
  return pArea == &ctl ? sizeof ctl : 0;
}

std::size_t nodesEnd(const MEMCellCtlBlk &ctl, const void *pArea) noexcept {
  const std::size_t begin = nodesBegin(ctl, pArea);
  const auto space = static_cast<std::size_t>(nodeSpace(ctl, static_cast<std::int32_t>(begin)));
  return begin + space / sizeof(CellAreaNode) * sizeof(CellAreaNode);
}

bool areLengthsValid(const MEMCellCtlBlk &ctl) noexcept {
  return ctl.AreaLen >= kMinCellAreaLen && ctl.AreaLen <= kMaxCellAreaLen &&
         ctl.CellLen >= kMinCellLen && ctl.AreaLen - kCellOverhead >= ctl.CellLen;
}

// Vacant nodes come first, then used ones; the first area's node is last.
bool areNodesInOrder(const MEMCellCtlBlk &ctl) noexcept {
  if (!listEnds(ctl.pAreaLocList, offsetof(CellAreaNode, pNext))) return false;
  const void *pLastArea = nullptr;
  for (const CellAreaNode *pNode = ctl.pAreaLocList; pNode != nullptr; pNode = pNode->pNext) {
    if (pLastArea != nullptr && pNode->pArea == nullptr) return false;
    pLastArea = pNode->pArea;
  }
  return pLastArea == &ctl;
}

// The list consists of whole node blocks, each from its end to its begin.
bool areNodesInPlace(const MEMCellCtlBlk &ctl) noexcept {
  const CellAreaNode *pNode = ctl.pAreaLocList;
  while (pNode != nullptr) {
    const void *pArea = areaOf(ctl, pNode);
    if (pArea == nullptr) return false;
    const std::size_t begin = nodesBegin(ctl, pArea);
    for (std::size_t end = nodesEnd(ctl, pArea); end > begin; end -= sizeof *pNode) {
      if (pNode == nullptr || offsetIn(pArea, pNode) != end - sizeof *pNode) return false;
      pNode = pNode->pNext;
    }
  }
  return true;
}

bool hasNodes(const MEMCellCtlBlk &ctl, const void *pArea) noexcept {
  const std::size_t begin = nodesBegin(ctl, pArea);
  for (const CellAreaNode *pNode = ctl.pAreaLocList; pNode != nullptr; pNode = pNode->pNext) {
    if (offsetIn(pArea, pNode) == begin) return true;
  }
  return false;
}

bool isCell(const MEMCellCtlBlk &ctl, const void *pCell) noexcept {
  const void *pArea = areaOf(ctl, pCell);
  if (pArea == nullptr) return false;
  const auto cellLen = static_cast<std::size_t>(ctl.CellLen);
  const std::size_t firstCell = hasNodes(ctl, pArea) ? nodesEnd(ctl, pArea) : 0;
  const std::size_t offset = offsetIn(pArea, pCell);
  return offset >= firstCell && (offset - firstCell) % cellLen == 0 &&
         cellLen <= static_cast<std::size_t>(ctl.AreaLen) - offset;
}

// A cell freed twice would make the list endless, so a list that ends has none.
bool areFreeCellsValid(const MEMCellCtlBlk &ctl) noexcept {
  if (!listEnds(ctl.pFreeCells, 0)) return false;
  const void *pCell = ctl.pFreeCells;
  while (pCell != nullptr && isCell(ctl, pCell)) pCell = loadAs<const void *>(pCell);
  return pCell == nullptr;
}

}  // namespace

bool isValid(const MEMCellCtlBlk &ctl) noexcept {
  return hasEyecatcher(&ctl, kCellEye) && areLengthsValid(ctl) && areNodesInOrder(ctl) &&
         areNodesInPlace(ctl) && areFreeCellsValid(ctl);
}

}  // namespace memlib
