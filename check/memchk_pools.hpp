// What the layer knows of one cell pool. Cells keep their length: the contract has them lie side by
// side, aligned as their length makes them, in areas of a given length. So there is no room for red
// zones; a write that leaves its cell is found where it meets a free one.
//
// The pool frees a cell as without the layer. Then the layer takes it off the pool's list of free
// cells, fills it with a pattern and keeps it for a while. What it keeps goes back before the pool
// would need an area for it: a pool has as many areas as without the layer.
//
// A record is locked by the layer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "memchk_report.hpp"
#include "memchk_usage.hpp"
#include "qj7mem00/memvect.h"

namespace memchk {

struct Cell {
  enum class State : std::uint8_t {
    live,
    changing,  // a call that allocates or frees it is running
    kept,      // freed and kept by the layer, filled with the pattern
    free       // freed and on the pool's list, zero but for its link
  };

  Place made;
  Place freed;
  void *pLink = nullptr;    // in a free cell
  std::uint32_t block = 0;  // name for valgrind, of a cell that is kept
  State state = State::live;
};

class PoolRecord {
 public:
  // Of a pool that has just been opened, or one that was there before the layer.
  PoolRecord(HMEMCELL hMemCell, const Place &openedAt, bool isNew, std::size_t mostKept,
             bool isChecking);

  // Around an allocation: gives back a kept cell where the pool has none, and looks at the cell
  // that is next; notes the cell that it was.
  void beginAlloc(Findings &findings);
  void endAlloc(void *pCell, const Place &made);
  void cancelAlloc();

  Cell *find(const void *pCell);
  bool isInAreas(const void *pAddress) const noexcept;

  // Around a free of a live cell.
  void beginFree(Cell &cell);
  void endFree(void *pCell, Cell &cell, const Place &freed, Findings &findings);
  void cancelFree(Cell &cell);

  // Without checks: numbers alone, and the cell's place where places are kept.
  void count(void *pCell);
  void keep(void *pCell, const Place &made);
  void countFree(const void *pCell);

  // Reports and repairs what has been written to in cells that are free.
  void checkAll(Findings &findings);

  // An access to a free cell that a memory checker has reported.
  void describe(const void *pAddress, Findings &findings) const;

  // Before storage goes back to the host, and when it did not go after all.
  void allowAll();
  void denyAll();
  // The pool is as after its opening.
  void clear();

  Finding finding(MEMCheckKind kind, const void *pCell, const Cell &cell) const;
  std::string name() const;

  // An area, and the cells of it that are in use.
  struct AreaMap {
    const std::byte *pArea;
    std::uint32_t headLen;  // where its cells begin
    std::vector<std::pair<const std::byte *, const Cell *>> cells;
  };
  // Valid as long as the record is not changed. Of a pool from before the layer no area is known.
  std::vector<AreaMap> map() const;

  const HMEMCELL handle;
  const Place opened;
  const bool isLibrarys;  // the handle is a control block of the library's
  const bool checks;
  const std::int32_t areaLen;
  const std::int32_t cellLen;
  const std::int16_t subPool;
  bool isSeenWhole;
  Usage usage;
  std::uint64_t wasted = 0;  // after the last whole cells of areas
  std::size_t areaCount() const noexcept { return areas_.size(); }

 private:
  // Cells of an area that were never allocated; they will be, from the lowest on. Of an area that
  // was there before the layer nothing is known.
  struct FreshCells {
    std::byte *pFirst = nullptr;
    std::byte *pEnd = nullptr;
    std::uint32_t headLen = 0;  // what is before the area's cells, all that were there included
  };
  using Areas = std::map<std::byte *, FreshCells>;

  std::byte *head() const noexcept;
  void setHead(const void *pCell) const noexcept;
  void addArea(std::byte *pArea, std::byte *pFirstCell, std::byte *pFirstFree);
  Areas::const_iterator areaOf(const void *pAddress) const noexcept;  // end() for none
  void noteGrowth(std::byte *pCell);
  void giveBackOldest(Findings &findings);
  void checkKept(std::byte *pCell, const Cell &cell, Findings &findings) const;
  void checkFree(std::byte *pCell, const Cell &cell, Findings &findings) const;
  void checkHead(std::byte *pCell, Findings &findings);
  void reportWrite(Findings &findings, const std::byte *pCell, const Cell &cell, std::size_t offset,
                   std::size_t length) const;

  const std::size_t mostKept_;
  std::unordered_map<const void *, Cell> cells_;  // all that were allocated since open or clear
  std::deque<std::byte *> kept_;                  // oldest first
  Areas areas_;
};

}  // namespace memchk
