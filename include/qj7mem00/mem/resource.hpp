/** @file resource.hpp
 * Heaps and cell pools as memory resources of the standard library's containers. Part of mem.hpp,
 * whose conventions apply with one exception: memory resources throw std::bad_alloc on failure, as
 * their users expect. Without exceptions they print the error to stderr and end the program.
 */
#ifndef QJ7MEM00_MEM_RESOURCE_HPP
#define QJ7MEM00_MEM_RESOURCE_HPP

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory_resource>
#include <new>

#include "cell.hpp"
#include "heap.hpp"

namespace mem {

/** @name Memory resources */
/** @{ */

namespace detail {

[[noreturn]] inline void failToAllocate([[maybe_unused]] const Error &error) {
#ifdef __cpp_exceptions
  throw std::bad_alloc();
#else
  endWith(error);
#endif
}

}  // namespace detail

/** A heap as a memory resource: `HeapResource resource(heap);`. The heap must outlive the resource,
 * and the resource its containers. One thread at a time over a `Heap`; any number over an
 * `EnhancedHeap`.
 *
 * Storage that a container frees
 *  - of an `EnhancedHeap` returns to the host when the heap is closed; a failure to free it is
 *    ignored;
 *  - of a `Heap` stays allocated until the heap is closed, so a container that grows step by step
 *    takes several times its final size. Reserve first, or put
 *    std::pmr::unsynchronized_pool_resource in between.
 * Closing the heap frees everything, even if containers still exist. */
template <class HeapType>
class HeapResource final : public std::pmr::memory_resource {
 public:
  explicit HeapResource(HeapType &heap) noexcept : heap_(heap) {}

 private:
  // Entries are aligned to 8 bytes. For a larger alignment, the entry's address is stored before
  // the returned storage.
  static std::size_t entryLength(std::size_t bytes, std::size_t alignment) noexcept {
    if (alignment > detail::kEntryAlignment) return bytes + alignment;
    return bytes == 0 ? 1 : bytes;
  }

  void *do_allocate(std::size_t bytes, std::size_t alignment) override {
    constexpr auto kMost = static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
    if (alignment > kMost || bytes > kMost - alignment) {
      detail::failToAllocate(Error::refusal("HeapResource", "an entry is too long"));
    }
    const auto length = static_cast<std::int32_t>(entryLength(bytes, alignment));
    const Result<void *> entry = heap_.allocate(length);
    if (!entry.isOk()) detail::failToAllocate(entry.error());
    if (alignment <= detail::kEntryAlignment) return entry.value();
    auto *const pEntry = static_cast<std::byte *>(entry.value());
    const std::size_t past = (reinterpret_cast<std::uintptr_t>(pEntry) + sizeof pEntry) % alignment;
    std::byte *const pAligned = pEntry + sizeof pEntry + (past == 0 ? 0 : alignment - past);
    std::memcpy(pAligned - sizeof pEntry, &pEntry, sizeof pEntry);
    return pAligned;
  }

  void do_deallocate(void *pArea, std::size_t bytes, std::size_t alignment) override {
    if constexpr (requires { heap_.free(pArea, std::int32_t{}); }) {
      if (alignment > detail::kEntryAlignment) {
        std::memcpy(&pArea, static_cast<const std::byte *>(pArea) - sizeof pArea, sizeof pArea);
      }
      static_cast<void>(
          heap_.free(pArea, static_cast<std::int32_t>(entryLength(bytes, alignment))));
    }
  }

  bool do_is_equal(const std::pmr::memory_resource &other) const noexcept override {
    return this == &other;
  }

  HeapType &heap_;
};

/** A cell pool as a memory resource, for containers of nodes: `CellResource resource(pool);`. A
 * request that fits into a cell gets one; other requests, such as a container's arrays, go to
 * `pUpstream`. The pool, the resource and `pUpstream` must outlive the containers. One thread at a
 * time.
 *
 * The pool can reuse a cell as soon as a container frees it. The pool's storage returns to the host
 * when it is cleared or closed, even if containers still exist. */
template <class Record>
class CellResource final : public std::pmr::memory_resource {
 public:
  using Pool = CellPool<Record>;

  explicit CellResource(
      Pool &pool, std::pmr::memory_resource *pUpstream = std::pmr::null_memory_resource()) noexcept
      : pool_(pool), pUpstream_(pUpstream) {}

  /** True when a cell serves the request. */
  static constexpr bool isCell(std::size_t bytes, std::size_t alignment) noexcept {
    return bytes <= kCellLen && alignment <= kAlignment;
  }

 private:
  static constexpr auto kCellLen = static_cast<std::size_t>(Pool::kCellLen);
  // Areas are aligned to 8 bytes, and cells are contiguous.
  static constexpr std::size_t kAlignment =
      std::size_t{1} << (std::countr_zero(kCellLen) < 3 ? std::countr_zero(kCellLen) : 3);

  void *do_allocate(std::size_t bytes, std::size_t alignment) override {
    if (!isCell(bytes, alignment)) return pUpstream_->allocate(bytes, alignment);
    const Result<void *> cell = pool_.allocate();
    if (!cell.isOk()) detail::failToAllocate(cell.error());
    return cell.value();
  }

  void do_deallocate(void *pArea, std::size_t bytes, std::size_t alignment) override {
    if (!isCell(bytes, alignment)) return pUpstream_->deallocate(pArea, bytes, alignment);
    static_cast<void>(pool_.freeCell(pArea));
  }

  bool do_is_equal(const std::pmr::memory_resource &other) const noexcept override {
    return this == &other;
  }

  Pool &pool_;
  std::pmr::memory_resource *pUpstream_;
};
/** @} */

}  // namespace mem

#endif
