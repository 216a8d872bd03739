// Control block and location nodes of a cell pool. The offsets are contract.
//
//   first area     | MEMCellCtlBlk | location nodes | cells ... | rest |
//   further areas  | location nodes, only when no vacant one was left | cells ... | rest |
//
// The location list goes from the latest nodes to the oldest: vacant nodes first, then used ones,
// last the node of the first area. A node is in the area that it records or in an older one, so a
// walk that frees areas never reaches a node in a freed area.
//
// Cells may have any alignment. A free cell begins with the address of the next one.
#pragma once

#include <cstdint>

#include "base/bytes.h"
#include "qj7mem00/membase.h"

namespace memlib {

inline constexpr Eyecatcher kCellEye = "QQQCELL1";

struct CellAreaNode {
  CellAreaNode *pNext;
  void *pArea;  // null while the node is vacant
};
MEM_CHECK_SIZE(CellAreaNode, 16);
MEM_CHECK_OFFSET(CellAreaNode, pArea, 8);

// The pool's handle is this block's address.
struct MEMCellCtlBlk {
  char Eyecatcher[8];
  CellAreaNode *pAreaLocList;
  void *pFreeCells;
  std::int32_t AreaLen;  // bytes, the same for every area
  std::int32_t CellLen;
  std::int16_t SubPool;
  std::uint8_t Reserved34[6];
};
MEM_CHECK_SIZE(MEMCellCtlBlk, 40);
MEM_CHECK_OFFSET(MEMCellCtlBlk, pAreaLocList, 8);
MEM_CHECK_OFFSET(MEMCellCtlBlk, pFreeCells, 16);
MEM_CHECK_OFFSET(MEMCellCtlBlk, AreaLen, 24);
MEM_CHECK_OFFSET(MEMCellCtlBlk, CellLen, 28);
MEM_CHECK_OFFSET(MEMCellCtlBlk, SubPool, 32);

inline constexpr std::int32_t kMinCellAreaLen = 256;
inline constexpr std::int32_t kMaxCellAreaLen = 0x100000;
inline constexpr std::int32_t kMinCellLen = 8;      // room for a free cell's link
inline constexpr std::int32_t kMinNodeSpace = 128;  // bytes for location nodes in a node block
inline constexpr std::int64_t kCellOverhead = sizeof(MEMCellCtlBlk) + kMinNodeSpace;

// Bytes for location nodes after a header of `headerLen`: at least kMinNodeSpace, and enough that
// header, nodes and whole cells leave less than one node of the area unused.
inline std::int32_t nodeSpace(const MEMCellCtlBlk &ctl, std::int32_t headerLen) noexcept {
  const std::int32_t rest = ctl.AreaLen % ctl.CellLen;
  const std::int32_t lacking = headerLen + kMinNodeSpace - rest;
  if (lacking <= 0) return rest - headerLen;
  const std::int32_t cells = (lacking + ctl.CellLen - 1) / ctl.CellLen;
  return cells * ctl.CellLen + rest - headerLen;
}

// For checks (cell_check.cpp): true when the pool's invariants hold: its lists end, vacant nodes
// come before used ones, every node is in its place in an area, and every free cell is a cell of
// the pool. The pool does not check what callers free: a caller that frees a foreign cell, or a
// cell twice, breaks them.
bool isValid(const MEMCellCtlBlk &ctl) noexcept;

}  // namespace memlib
