/** @file heap.hpp
 * Heaps of both kinds. Part of mem.hpp, whose conventions apply.
 */
#ifndef QJ7MEM00_MEM_HEAP_HPP
#define QJ7MEM00_MEM_HEAP_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>

#include "context.hpp"

namespace mem {

/** @name Heaps */
/** @{ */

/** Areas of `areaKb` KB, 1 to 256, from a host subpool. */
struct HeapSettings {
  std::int16_t areaKb = 64;
  std::uint16_t subPool = 0;
};

namespace detail {

struct HeapSlots {
  static constexpr const auto &open = slots::MEM_HeapOpen;
  static constexpr const auto &close = slots::MEM_HeapClose;
  static constexpr const auto &allocate = slots::MEM_HeapAllocEntryLong;
  static constexpr const auto &allocateChain = slots::MEM_HeapAllocLongMultEntries;
};

struct EnhancedHeapSlots {
  static constexpr const auto &open = slots::MEM_EHeapOpen;
  static constexpr const auto &close = slots::MEM_EHeapClose;
  static constexpr const auto &allocate = slots::MEM_EHeapAllocEntry;
  static constexpr const auto &allocateChain = slots::MEM_EHeapAllocLongMultEntries;
};

template <class Record>
constexpr void checkEntryType() noexcept {
  static_assert(std::is_trivially_destructible_v<Record>,
                "mem: a heap or pool is closed as a whole and runs no destructors");
  static_assert(alignof(Record) <= kEntryAlignment, "mem: entries are aligned to 8 bytes");
  static_assert(sizeof(Record) <= std::numeric_limits<std::int32_t>::max(),
                "mem: an entry is too long");
}

// Makes Record{args…} in an entry. Initialised from a temporary, which the compiler elides: g++
// rejects a record with a constant member directly after `new`.
template <class Record, class... Args>
Record *construct(void *pEntry, Args &&...args) noexcept {
  return new (pEntry) Record(Record{std::forward<Args>(args)...});
}

}  // namespace detail

/** Operations of both kinds of heap. Entries are 8-byte aligned and live until the heap is
 * closed. */
template <class Derived, class Slots>
class BasicHeap : public Owner<Derived, HMEMHEAP> {
 public:
  BasicHeap() noexcept = default;

  static Result<Derived> open(ContextRef context, HeapSettings settings = {}) noexcept {
    HMEMHEAP hMemHeap = nullptr;
    const Status opened =
        call(context.get(), Slots::open, &hMemHeap, settings.areaKb, settings.subPool);
    if (!opened.isOk()) return opened.error();
    return Derived(context, hMemHeap);
  }

  static Status closeHandle(const Context &context, HMEMHEAP hMemHeap) noexcept {
    return call(context, Slots::close, hMemHeap);
  }

  /** An entry of `length` bytes with the old contents of the host's storage. */
  Result<void *> allocate(std::int32_t length) noexcept {
    void *pEntry = nullptr;
    const Status allocated =
        call(this->context(), Slots::allocate, this->handle(), length, &pEntry);
    if (!allocated.isOk()) return allocated.error();
    return pEntry;
  }

  /** A new `Record`, initialised as Record{args…}. */
  template <class Record, class... Args>
  Result<Record *> make(Args &&...args) noexcept {
    detail::checkEntryType<Record>();
    const Result<void *> entry = allocate(static_cast<std::int32_t>(sizeof(Record)));
    if (!entry.isOk()) return entry.error();
    return detail::construct<Record>(entry.value(), std::forward<Args>(args)...);
  }

  /** `count` records, 1 or more, initialised as Record{} and linked through `link`; the last link
   * is null. On failure the records made so far stay in the heap. */
  template <class Record, std::size_t kOffset>
  Result<Record *> makeChain(Member<Record, Record *, kOffset>, std::int32_t count) noexcept {
    detail::checkEntryType<Record>();
    static_assert(kOffset <= std::numeric_limits<std::int16_t>::max(),
                  "mem: the link's offset in the structure is too large");
    void *pFirst = nullptr;
    const Status made = call(this->context(), Slots::allocateChain, this->handle(),
                             static_cast<std::int32_t>(sizeof(Record)), count,
                             static_cast<std::int16_t>(kOffset), &pFirst);
    if (!made.isOk()) return made.error();
    for (void *pEntry = pFirst; pEntry != nullptr;) {
      char *const pLink = static_cast<char *>(pEntry) + kOffset;
      void *pNext = nullptr;
      std::memcpy(&pNext, pLink, sizeof pNext);
      detail::construct<Record>(pEntry);
      std::memcpy(pLink, &pNext, sizeof pNext);
      pEntry = pNext;
    }
    return static_cast<Record *>(pFirst);
  }

  /** A copy of the text with its terminator. */
  Result<char *> copyText(std::string_view text) noexcept { return copyUnits(text); }
  Result<char16_t *> copyText(std::u16string_view text) noexcept { return copyUnits(text); }

 protected:
  BasicHeap(ContextRef context, HMEMHEAP hMemHeap) noexcept
      : Owner<Derived, HMEMHEAP>(context, hMemHeap) {}

 private:
  template <class Char>
  Result<Char *> copyUnits(std::basic_string_view<Char> text) noexcept {
    constexpr std::size_t kMost = std::numeric_limits<std::int32_t>::max() / sizeof(Char) - 1;
    if (text.size() > kMost) return Error::refusal(Slots::allocate.name, "the text is too long");
    const std::size_t length = text.size() * sizeof(Char);
    const Result<void *> entry = allocate(static_cast<std::int32_t>(length + sizeof(Char)));
    if (!entry.isOk()) return entry.error();
    Char *const pCopy = static_cast<Char *>(entry.value());
    if (length > 0) std::memcpy(pCopy, text.data(), length);
    pCopy[text.size()] = Char{};
    return pCopy;
  }
};

/** A standard heap: entries are never freed individually. One thread at a time. */
class Heap : public BasicHeap<Heap, detail::HeapSlots> {
 public:
  Heap() noexcept = default;

 private:
  friend BasicHeap;
  Heap(ContextRef context, HMEMHEAP hMemHeap) noexcept : BasicHeap(context, hMemHeap) {}
};

/** A heap with a gate: any number of threads may allocate and free. Move or close it only with no
 * other call on it running. */
class EnhancedHeap : public BasicHeap<EnhancedHeap, detail::EnhancedHeapSlots> {
 public:
  EnhancedHeap() noexcept = default;

  /** Frees an entry of `length` bytes. Its storage returns to the host at close. */
  Status free(void *pEntry, std::int32_t length) noexcept {
    return call(context(), slots::MEM_EHeapFreeEntry, handle(), length, pEntry);
  }
  template <class Record>
  Status free(Record *pRecord) noexcept {
    detail::checkEntryType<Record>();
    return free(pRecord, static_cast<std::int32_t>(sizeof(Record)));
  }

 private:
  friend BasicHeap;
  EnhancedHeap(ContextRef context, HMEMHEAP hMemHeap) noexcept : BasicHeap(context, hMemHeap) {}
};
/** @} */

}  // namespace mem

#endif
