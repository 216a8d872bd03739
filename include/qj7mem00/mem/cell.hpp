/** @file cell.hpp
 * Cell pools of one type of record. Part of mem.hpp, whose conventions apply.
 */
#ifndef QJ7MEM00_MEM_CELL_HPP
#define QJ7MEM00_MEM_CELL_HPP

#include <cstdint>
#include <utility>

#include "heap.hpp"

namespace mem {

/** @name Cell pool */
/** @{ */

/** Areas of `areaLen` bytes, 256 to 1,048,576, from a subpool; -1, -2, … select storage kind 2. */
struct CellSettings {
  std::int32_t areaLen = 4096;
  std::int16_t subPool = 0;
};

/** A pool of records of one type, allocated and freed individually in constant time. One thread at
 * a time. */
template <class Record>
class CellPool : public Owner<CellPool<Record>, HMEMCELL> {
  using Base = Owner<CellPool<Record>, HMEMCELL>;

 public:
  /** Bytes of a cell: a record, or the 8 bytes that the pool itself needs. */
  static constexpr std::int32_t kCellLen = sizeof(Record) < 8 ? 8 : sizeof(Record);

  CellPool() noexcept = default;

  static Result<CellPool> open(ContextRef context, CellSettings settings = {}) noexcept {
    detail::checkEntryType<Record>();
    HMEMCELL hMemCell = nullptr;
    const Status opened = call(context.get(), slots::MEM_CellOpen, &hMemCell, settings.areaLen,
                               kCellLen, settings.subPool);
    if (!opened.isOk()) return opened.error();
    return CellPool(context, hMemCell);
  }

  static Status closeHandle(const Context &context, HMEMCELL hMemCell) noexcept {
    return call(context, slots::MEM_CellClose, hMemCell);
  }

  /** A new record, initialised as Record{args…}. It lives until it is freed, or the pool is
   * cleared or closed. */
  template <class... Args>
  Result<Record *> make(Args &&...args) noexcept {
    const Result<void *> cell = allocate();
    if (!cell.isOk()) return cell.error();
    return detail::construct<Record>(cell.value(), std::forward<Args>(args)...);
  }

  /** A cell of kCellLen bytes with its old contents. */
  Result<void *> allocate() noexcept {
    void *pCell = nullptr;
    const Status taken = call(this->context(), slots::MEM_CellAllocEntry, this->handle(), &pCell);
    if (!taken.isOk()) return taken.error();
    return pCell;
  }

  /** Frees a record. REQUIRES: it belongs to this pool and has not been freed. */
  Status free(Record *pRecord) noexcept { return freeCell(pRecord); }

  /** The same for any cell. */
  Status freeCell(void *pCell) noexcept {
    return call(this->context(), slots::MEM_CellFreeEntry, this->handle(), pCell);
  }

  /** Frees all records, and all storage except the first area. */
  Status clear() noexcept { return call(this->context(), slots::MEM_CellClear, this->handle()); }

 private:
  CellPool(ContextRef context, HMEMCELL hMemCell) noexcept : Base(context, hMemCell) {}
};
/** @} */

}  // namespace mem

#endif
