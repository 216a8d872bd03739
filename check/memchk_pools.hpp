// What the layer knows of one cell pool. Cells keep their length: by contract they follow each
// other without gaps, aligned as their length makes them, in areas of a given length. So there is
// no room for red zones; a write beyond a cell is detected if it hits a free one.
//
// The pool frees a cell as without the layer. Then the layer takes it off the pool's list of free
// cells, fills it with a pattern and keeps it for a while. It puts kept cells back before the pool
// would need another area: a pool has as many areas as without the layer.
//
// Call members only while the layer's lock is held, or for a record that is taken out of its table.
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
    free       // freed and in the pool's list, zero except its link
  };

  Place made;
  Place freed;
  void *pLink = nullptr;    // in a free cell
  std::uint32_t block = 0;  // name for valgrind, of a kept cell
  State state = State::live;
};

class PoolRecord {
 public:
  // A pool that has just been opened (`isNew`), or one that existed before the layer.
  PoolRecord(HMEMCELL hMemCell, const Place &openedAt, bool isNew, std::size_t mostKept,
             bool isChecking);

  // Around an allocation. beginAlloc() puts a kept cell back if the pool has no free one, and
  // checks the cell that comes next; endAlloc() records the allocated cell.
  void beginAlloc(Findings &findings);
  void endAlloc(void *pCell, const Place &made);
  void cancelAlloc();

  Cell *find(const void *pCell);
  bool isInAreas(const void *pAddress) const noexcept;

  // Around a free of a live cell.
  void beginFree(Cell &cell);
  void endFree(void *pCell, Cell &cell, const Place &freed, Findings &findings);
  void cancelFree(Cell &cell);

  // Without checks: count() and countFree() only count, keep() records where a cell was allocated.
  void count(void *pCell);
  void keep(void *pCell, const Place &made);
  void countFree(const void *pCell);

  // Reports and repairs writes to free and kept cells.
  void checkAll(Findings &findings);

  // An access to a free cell that a memory checker has reported.
  void describe(const void *pAddress, Findings &findings) const;

  // Before the pool's storage is freed, and if that fails.
  void allowAll();
  void denyAll();
  // The pool is as it was after opening.
  void clear();

  Finding finding(MEMCheckKind kind, const void *pCell, const Cell &cell) const;
  std::string name() const;

  // An area, and its cells that are in use.
  struct AreaMap {
    const std::byte *pArea;
    std::uint32_t headLen;  // where its cells begin
    std::vector<std::pair<const std::byte *, const Cell *>> cells;
  };
  // Valid until the record changes. The areas of a pool that existed before the layer are unknown.
  std::vector<AreaMap> map() const;

  const HMEMCELL handle;
  const Place opened;
  const bool isLibrarys;  // the handle is a control block of the library
  const bool checks;
  const std::int32_t areaLen;
  const std::int32_t cellLen;
  const std::int16_t subPool;
  bool isSeenWhole;
  Usage usage;
  std::uint64_t wasted = 0;  // after the last whole cells of areas
  std::size_t areaCount() const noexcept { return areas_.size(); }

 private:
  // Cells of an area that were never allocated; the pool allocates them from the lowest on. For an
  // area that existed before the layer all is 0.
  struct FreshCells {
    std::byte *pFirst = nullptr;
    std::byte *pEnd = nullptr;
    std::uint32_t headLen = 0;  // length of what comes before the area's cells
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
