// The layer itself: all records, guarded by one lock. The lock is not held while a service or a
// callback runs: so they cannot wait for it themselves, and a service that a fault ends leaves it
// unlocked.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "memchk_heaps.hpp"
#include "memchk_pools.hpp"
#include "memchk_report.hpp"
#include "memchk_usage.hpp"
#include "qj7mem00/memchk.h"

namespace memchk {

// How often a slot was called, and how often it failed.
struct CallCount {
  std::atomic<std::uint64_t> calls{0};
  std::atomic<std::uint64_t> failures{0};
};

// Hash tables, concatenation buffers and the sink are only counted.
struct TableRecord {
  Place opened;
  const void *pHeap = nullptr;
  Usage usage;
  std::uint64_t duplicates = 0;
  std::uint64_t found = 0;
  std::uint64_t notFound = 0;
};

struct BufferRecord {
  Place opened;
  Usage usage;  // of appended texts, in bytes
  std::uint64_t storage = 0;
  std::uint64_t peakStorage = 0;
  std::uint64_t moves = 0;
  const void *pText = nullptr;
};

struct SinkRecord {
  struct Copy {
    std::uint64_t uses = 0;
    std::uint64_t bytes = 0;
  };
  Usage asked;   // each text of each call
  Usage copies;  // each shared copy once
  std::uint64_t found = 0;
  std::uint64_t notFound = 0;
  std::unordered_map<const void *, Copy> byAddress;
};

struct FamilyCount {
  std::uint64_t opened = 0;
  std::uint64_t closed = 0;
};

class Layer {
 public:
  explicit Layer(const MEMCheckOptions &options);

  bool checks() const noexcept { return (options_.Flags & MEMCHK_NO_CHECKS) == 0; }
  bool countsAll() const noexcept { return (options_.Flags & MEMCHK_STATISTICS) != 0; }
  bool keepsPlaces() const noexcept { return checks() || (options_.Flags & MEMCHK_PLACES) != 0; }

  // A component calls a service: returns the place of the call, and verifies everything at each
  // VerifyEvery-th call.
  Place enter(std::uint32_t slot, const void *pCaller);
  void count(std::uint32_t slot, bool failed) noexcept;

  // A component uses a handle: reported if it is that of a closed heap or pool.
  void useHandle(const void *pHandle, const Place &place);

  using Heaps = std::unordered_map<const void *, HeapRecord>;
  using Pools = std::unordered_map<const void *, PoolRecord>;

  // --- heaps
  void heapOpened(HMEMHEAP hMemHeap, HeapKind kind, const Place &opened);
  // No other call finds a heap that is being closed. Empty for an unknown heap.
  Heaps::node_type beginHeapClose(HMEMHEAP hMemHeap, const Place &place);
  void endHeapClose(Heaps::node_type &&node, bool isClosed, const Place &place);

  // A service of the host's own has made an entry without slots 14 and 38.
  void heapNotSeenWhole(HMEMHEAP hMemHeap);

  // How the entries of a heap are made; empty for a handle that the service will refuse.
  std::optional<HeapShape> shapeOf(HMEMHEAP hMemHeap);
  std::uint32_t zone() const noexcept { return checks() ? zone_ : 0; }
  void entryMade(HMEMHEAP hMemHeap, void *pEntry, std::int32_t asked, std::uint32_t zone,
                 const Place &made);

  // An entry will be freed. Other threads do not read its bytes until endEntryFree.
  struct EntryFree {
    HMEMHEAP owner = nullptr;  // the heap of the entry; null if it is not an entry
    Entry::State before = Entry::State::live;
    std::int32_t length = 0;  // is passed to the service
  };
  EntryFree beginEntryFree(HMEMHEAP hMemHeap, std::int32_t length, void *pEntry,
                           const Place &place);
  void endEntryFree(const EntryFree &begun, HMEMHEAP hMemHeap, void *pEntry, bool isFreed,
                    const Place &place);

  // --- pools
  void poolOpened(HMEMCELL hMemCell, const Place &opened);
  void adoptPool(HMEMCELL hMemCell);  // if it existed before the layer; else without effect
  // No other call finds a pool that is being cleared or closed. Empty for an unknown pool.
  Pools::node_type beginPoolClear(HMEMCELL hMemCell, const Place &place);
  void endPoolClear(Pools::node_type &&node, bool isCleared);
  void endPoolClose(Pools::node_type &&node, bool isClosed, const Place &place);
  void beginCellAlloc(HMEMCELL hMemCell, const Place &place);
  void endCellAlloc(HMEMCELL hMemCell, void *pCell, const Place &place);  // null: failed
  // The cell to pass to the service: null for one that must not be freed.
  void *beginCellFree(HMEMCELL hMemCell, void *pCell, const Place &place);
  void endCellFree(HMEMCELL hMemCell, void *pCell, bool isFreed, const Place &place);

  // --- what is only counted
  template <class Change>
  void change(Change changeRecords) {
    const std::lock_guard lock(mutex_);
    changeRecords(counted_);
  }
  struct Counted {
    std::unordered_map<const void *, TableRecord> tables;
    std::unordered_map<const void *, BufferRecord> buffers;
    SinkRecord sink;
    FamilyCount tableCount;
    FamilyCount bufferCount;
  };

  std::uint64_t verify(const Place &place);
  std::uint64_t reports() const noexcept { return reports_.load(std::memory_order_relaxed); }
  std::string statistics(bool withMaps);

  // Before the layer ends: allows access to all bytes again.
  void release();

  // AddressSanitizer has reported an error at an address.
  void describe(const void *pAddress);

 private:
  struct Closed {
    Place opened;
    Place closed;
    std::string name;
    std::uint32_t code;
  };

  HeapRecord *heapOf(HMEMHEAP hMemHeap);  // REQUIRES: locked
  PoolRecord *poolOf(HMEMCELL hMemCell);  // REQUIRES: locked
  std::size_t mostKept() const noexcept;
  HeapRecord *ownerOf(const void *pEntry, Entry *&pFound);
  void noteClosed(const void *pHandle, Closed closed);
  void misusedEntry(Findings &findings, HeapRecord &heap, const void *pEntry);
  Finding misusedCell(PoolRecord &pool, const void *pCell, Cell *pKnown);
  void deliverAll(const Findings &findings, const Place &place);

  const MEMCheckOptions options_;
  const std::uint32_t zone_;
  std::atomic<std::uint64_t> calls_{0};
  std::atomic<std::uint64_t> reports_{0};
  std::array<CallCount, MEM_VECTOR_LEN> counts_;

  std::mutex mutex_;  // guards the following
  Heaps heaps_;
  Pools pools_;
  std::unordered_map<const void *, Closed> closed_;
  std::deque<const void *> closedOrder_;  // oldest first; may contain handles that are open again
  FamilyCount heapCount_;
  FamilyCount poolCount_;
  Counted counted_;
};

}  // namespace memchk
