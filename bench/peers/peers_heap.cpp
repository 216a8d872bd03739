// Arenas: many entries are allocated and all are freed together. If an allocator cannot free all
// together, the entries are freed one by one, and that is part of its time.
#include <apr_general.h>
#include <apr_pools.h>

#include <array>
#include <boost/pool/pool.hpp>
#include <cstdlib>
#include <cstring>
#include <memory_resource>
#include <thread>
#include <vector>

#include "peers_mimalloc.hpp"
#include "peers_tables.hpp"
#include "peers_work.hpp"

namespace bench {

namespace {

constexpr std::size_t kEntries = 10000;

// Lengths of entries, the same for all.
using Lengths = std::array<std::uint32_t, kEntries>;

Lengths sameLengths() {
  Lengths lengths;
  lengths.fill(48);
  return lengths;
}

Lengths mixedLengths() {
  Lengths lengths;
  std::uint32_t state = 1;
  for (std::uint32_t &length : lengths) {
    state = state * 1664525 + 1013904223;
    length = 16 + 8 * (state >> 27);  // 16 to 264
  }
  return lengths;
}

// An arena is opened, allocates entries and is closed.
template <class Arena>
class ArenaWork {
 public:
  template <class... Args>
  explicit ArenaWork(const Lengths &lengths, Args &...args) : lengths_(lengths), arena_(args...) {}

  std::int64_t run() {
    arena_.open();
    for (const std::uint32_t length : lengths_) {
      void *entry = arena_.take(length);
      benchmark::DoNotOptimize(entry);
    }
    arena_.close();
    return kEntries;
  }

  // No two entries overlap: each keeps its contents until the end.
  void check() {
    arena_.open();
    std::vector<unsigned char *> entries;
    for (const std::uint32_t length : lengths_) {
      auto *entry = static_cast<unsigned char *>(arena_.take(length));
      demand(entry != nullptr && reinterpret_cast<std::uintptr_t>(entry) % 8 == 0,
             "an entry is null or not aligned");
      std::memset(entry, static_cast<int>(entries.size() % 251), length);
      entries.push_back(entry);
    }
    for (std::size_t i = 0; i < kEntries; ++i) {
      for (std::uint32_t at = 0; at < lengths_[i]; ++at) {
        demand(entries[i][at] == i % 251, "entries overlap");
      }
    }
    arena_.close();
  }

 private:
  const Lengths lengths_;
  Arena arena_;
};

// Allocators that free entry by entry: the arena remembers them.
class Remembered {
 public:
  Remembered() { entries_.reserve(kEntries); }
  void open() { entries_.clear(); }

 protected:
  void *remember(void *entry) {
    entries_.push_back(entry);
    return entry;
  }
  std::vector<void *> entries_;
};

// A heap of the library, with the slots of its kind.
template <class Length, auto kOpen, auto kTake, auto kClose>
class LibraryEntries {
 public:
  explicit LibraryEntries(BenchSession &session) : mem_(session.mem()) {}
  void open() { require((mem_.*kOpen)(&heap_, 64, 0), "opening the heap"); }
  void *take(std::uint32_t length) {
    void *entry = nullptr;
    (mem_.*kTake)(heap_, static_cast<Length>(length), &entry);
    return entry;
  }
  void close() { require((mem_.*kClose)(heap_), "closing the heap"); }

 private:
  MEMFunctionVector &mem_;
  HMEMHEAP heap_ = nullptr;
};

using Vector = MEMFunctionVector;
using LongEntries = LibraryEntries<std::int32_t, &Vector::MEM_HeapOpen,
                                   &Vector::MEM_HeapAllocEntryLong, &Vector::MEM_HeapClose>;
using ShortEntries = LibraryEntries<std::int16_t, &Vector::MEM_HeapOpen,
                                    &Vector::MEM_HeapAllocEntry, &Vector::MEM_HeapClose>;
using EnhancedEntries = LibraryEntries<std::int32_t, &Vector::MEM_EHeapOpen,
                                       &Vector::MEM_EHeapAllocEntry, &Vector::MEM_EHeapClose>;

class CLibrary : public Remembered {
 public:
  void *take(std::uint32_t length) { return remember(std::malloc(length)); }
  void close() {
    for (void *entry : entries_) std::free(entry);
  }
};

class Mimalloc : public Remembered {
 public:
  void *take(std::uint32_t length) { return remember(mimalloc().malloc(length)); }
  void close() {
    for (void *entry : entries_) mimalloc().free(entry);
  }
};

class MimallocHeap {
 public:
  void open() { heap_ = mimalloc().heapNew(); }
  void *take(std::uint32_t length) { return mimalloc().heapMalloc(heap_, length); }
  void close() { mimalloc().heapDestroy(heap_); }

 private:
  mi_heap_t *heap_ = nullptr;
};

// Resources that free all entries together.
template <class Resource>
class Pmr {
 public:
  void open() {}
  void *take(std::uint32_t length) { return resource_.allocate(length, 8); }
  void close() { resource_.release(); }

 private:
  Resource resource_;
};

// One length only.
class BoostPool {
 public:
  void open() {}
  void *take(std::uint32_t) { return pool_.malloc(); }
  void close() { pool_.purge_memory(); }

 private:
  boost::pool<> pool_{48};
};

class AprPool {
 public:
  AprPool() {
    demand(apr_initialize() == APR_SUCCESS, "apr_initialize failed");
    demand(apr_pool_create(&root_, nullptr) == APR_SUCCESS, "apr_pool_create failed");
  }
  ~AprPool() {
    apr_pool_destroy(root_);
    apr_terminate();
  }
  AprPool(const AprPool &) = delete;
  AprPool &operator=(const AprPool &) = delete;

  void open() { apr_pool_create(&pool_, root_); }
  void *take(std::uint32_t length) { return apr_palloc(pool_, length); }
  void close() { apr_pool_destroy(pool_); }

 private:
  apr_pool_t *root_ = nullptr;
  apr_pool_t *pool_ = nullptr;
};

// Two threads allocate entries from one arena at the same time. `take` may be called on both.
constexpr std::int64_t kPerThread = 200000;
constexpr std::int64_t kLiveEntries = 1000;

template <class Arena>
class TwoThreads {
 public:
  static constexpr bool kUsesThreads = true;

  template <class... Args>
  explicit TwoThreads(Args &...args) : arena_(args...) {}

  std::int64_t run() {
    arena_.open();
    std::thread other([this] { arena_.use(); });
    arena_.use();
    other.join();
    arena_.close();
    return 2 * kPerThread;
  }

 private:
  Arena arena_;
};

class SharedEnhanced {
 public:
  explicit SharedEnhanced(BenchSession &session)
      : session_(session), entries_(session), ownThread_(std::this_thread::get_id()) {}
  void open() { entries_.open(); }
  void use() {
    if (std::this_thread::get_id() == ownThread_) return takeAll();
    const BenchThread thread(session_);
    takeAll();
  }
  void close() { entries_.close(); }

 private:
  void takeAll() {
    for (std::int64_t i = 0; i < kPerThread; ++i) {
      void *entry = entries_.take(48);
      benchmark::DoNotOptimize(entry);
    }
  }

  BenchSession &session_;
  EnhancedEntries entries_;
  const std::thread::id ownThread_;
};

// General allocators: each thread frees its own entries, 1,000 at a time.
template <void *(*kTake)(std::size_t), void (*kGiveBack)(void *)>
class SharedAllocator {
 public:
  void open() {}
  void use() {
    std::vector<void *> entries(kLiveEntries);
    for (std::int64_t i = 0; i < kPerThread; i += kLiveEntries) {
      for (void *&entry : entries) entry = kTake(48);
      for (void *entry : entries) kGiveBack(entry);
    }
  }
  void close() {}
};

void *takeMimalloc(std::size_t length) {
  return mimalloc().malloc(length);
}
void giveBackMimalloc(void *entry) {
  mimalloc().free(entry);
}

class SharedPmr {
 public:
  void open() {}
  void use() {
    for (std::int64_t i = 0; i < kPerThread; ++i) {
      void *entry = resource_.allocate(48, 8);
      benchmark::DoNotOptimize(entry);
    }
  }
  void close() { resource_.release(); }

 private:
  std::pmr::synchronized_pool_resource resource_;
};

template <class Arena>
void addLibraryArena(const std::string &name, const Lengths &lengths) {
  addLibraryUnderBothHosts(
      name, [lengths](BenchSession &session) { return ArenaWork<Arena>(lengths, session); });
}

template <class Arena>
void addPeerArena(const std::string &name, const Lengths &lengths) {
  addPeer(name, [lengths] { return ArenaWork<Arena>(lengths); });
}

void addArenas(const std::string &table, const Lengths &lengths) {
  addLibraryArena<LongEntries>(table + "/MEM_HeapAllocEntryLong", lengths);
  addLibraryArena<ShortEntries>(table + "/MEM_HeapAllocEntry", lengths);
  addLibraryArena<EnhancedEntries>(table + "/MEM_EHeapAllocEntry", lengths);
  addPeerArena<CLibrary>(table + "/malloc and free", lengths);
  addPeerArena<Mimalloc>(table + "/mi_malloc and mi_free", lengths);
  addPeerArena<MimallocHeap>(table + "/mi_heap_malloc, destroyed", lengths);
  addPeerArena<Pmr<std::pmr::monotonic_buffer_resource>>(table + "/pmr monotonic", lengths);
  addPeerArena<Pmr<std::pmr::unsynchronized_pool_resource>>(table + "/pmr unsynchronized pool",
                                                            lengths);
  addPeerArena<Pmr<std::pmr::synchronized_pool_resource>>(table + "/pmr synchronized pool",
                                                          lengths);
  addPeerArena<AprPool>(table + "/APR pool", lengths);
}

}  // namespace

void addHeaps() {
  addArenas("heap-48", sameLengths());
  addPeerArena<BoostPool>("heap-48/Boost.Pool", sameLengths());
  addArenas("heap-mixed", mixedLengths());

  addLibrary("heap-threads/MEM_EHeapAllocEntry", HostKind::bench,
             [](BenchSession &session) { return TwoThreads<SharedEnhanced>(session); });
  addPeer("heap-threads/malloc and free",
          [] { return TwoThreads<SharedAllocator<std::malloc, std::free>>(); });
  addPeer("heap-threads/mi_malloc and mi_free",
          [] { return TwoThreads<SharedAllocator<takeMimalloc, giveBackMimalloc>>(); });
  addPeer("heap-threads/pmr synchronized pool", [] { return TwoThreads<SharedPmr>(); });
}

}  // namespace bench
