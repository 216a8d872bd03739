// Lives of a process with calls on heaps of both kinds, cell pools, hash tables, concatenation
// buffers and the sink, in random order, while services of the host fail now and then.
#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "cases.hpp"

namespace replay {

namespace {

using refhost::Service;

constexpr std::int16_t kSubPool = 9;
constexpr std::size_t kObjects = 2;  // of each kind

std::string args(std::initializer_list<std::int64_t> numbers) {
  std::string text = "(";
  for (const std::int64_t number : numbers) {
    if (text.size() > 1) text += ", ";
    text += std::to_string(number);
  }
  return text + ")";
}

template <class Number>
Number edgeOr(Random &random, std::initializer_list<std::int64_t> edges, std::size_t below) {
  if (random.oneIn(3)) return static_cast<Number>(edges.begin()[random.below(edges.size())]);
  return static_cast<Number>(random.below(below));
}

void showCell(Watch &watch, const void *stored) {
  watch.log() << "stored ";
  watch.log().address(stored).end();
}

class Heap {
 public:
  explicit Heap(bool isEnhanced) : isEnhanced_(isEnhanced) {}

  void step(Watch &watch, Random &random) {
    if (heap_ == nullptr) return open(watch, random);
    switch (random.below(12)) {
      case 0:
        return close(watch);
      case 1:
      case 2:
        return takeChain(watch, random);
      case 3:
      case 4:
      case 5:
        return give(watch, random);
      default:
        return take(watch, random);
    }
  }

  void close(Watch &watch) {
    if (heap_ == nullptr) return;
    const bool isWrong = entries_.size() % 5 == 4;  // by the other kind's service first
    if (isWrong) closeAs(watch, !isEnhanced_);
    if (closeAs(watch, isEnhanced_) != 0 && closeAs(watch, isEnhanced_) != 0) return;
    heap_ = nullptr;
    entries_.clear();
  }

 private:
  struct Entry {
    void *area;
    std::int32_t length;
  };

  std::int16_t closeAs(Watch &watch, bool asEnhanced) {
    return asEnhanced ? watch.did("MEM_EHeapClose", watch.mem().MEM_EHeapClose(heap_))
                      : watch.did("MEM_HeapClose", watch.mem().MEM_HeapClose(heap_));
  }

  void open(Watch &watch, Random &random) {
    const auto areaKb = edgeOr<std::int16_t>(random, {-1, 0, 1, 63, 64}, 6);
    const std::string with = args({areaKb});
    if (isEnhanced_) {
      watch.did("MEM_EHeapOpen" + with, watch.mem().MEM_EHeapOpen(&heap_, areaKb, kSubPool));
    } else {
      watch.did("MEM_HeapOpen" + with, watch.mem().MEM_HeapOpen(&heap_, areaKb, kSubPool));
    }
    showCell(watch, heap_);
  }

  void take(Watch &watch, Random &random) {
    const auto length = edgeOr<std::int32_t>(
        random, {-1, 0, 1, 8, 15, 16, 17, 960, 968, 969, 1000, 5000, 70000}, 256);
    void *entry = nullptr;
    switch (random.below(3)) {
      case 0:
        watch.did("MEM_HeapAllocEntry" + args({length}),
                  watch.mem().MEM_HeapAllocEntry(heap_, static_cast<std::int16_t>(length), &entry));
        break;
      case 1:
        watch.did("MEM_HeapAllocEntryLong" + args({length}),
                  watch.mem().MEM_HeapAllocEntryLong(heap_, length, &entry));
        break;
      default:
        watch.did("MEM_EHeapAllocEntry" + args({length}),
                  watch.mem().MEM_EHeapAllocEntry(heap_, length, &entry));
    }
    showCell(watch, entry);
    if (entry != nullptr) entries_.push_back({entry, length});
  }

  void takeChain(Watch &watch, Random &random) {
    const auto length = static_cast<std::int32_t>(random.below(200));
    const auto count = edgeOr<std::int32_t>(random, {-1, 0, 1, 40}, 6);
    // A link beyond its entry would be the caller's affair; these are inside.
    const auto linkOff = edgeOr<std::int16_t>(random, {-8, -1, 0},
                                              static_cast<std::size_t>(std::max(length - 7, 1)));
    const auto shortLength = static_cast<std::int16_t>(length);
    const auto shortCount = static_cast<std::int16_t>(count);
    const std::string with = args({length, count, linkOff});
    void *first = nullptr;
    switch (random.below(4)) {
      case 0:
        watch.did(
            "MEM_HeapAllocMultEntries" + with,
            watch.mem().MEM_HeapAllocMultEntries(heap_, shortLength, shortCount, linkOff, &first));
        break;
      case 1:
        watch.did("MEM_HeapAllocLongMultEntries" + with,
                  watch.mem().MEM_HeapAllocLongMultEntries(heap_, length, count, linkOff, &first));
        break;
      case 2:
        watch.did(
            "MEM_EHeapAllocMultEntries" + with,
            watch.mem().MEM_EHeapAllocMultEntries(heap_, length, shortCount, linkOff, &first));
        break;
      default:
        watch.did("MEM_EHeapAllocLongMultEntries" + with,
                  watch.mem().MEM_EHeapAllocLongMultEntries(heap_, length, count, linkOff, &first));
    }
    showCell(watch, first);
    if (first != nullptr && isEnhanced_) entries_.push_back({first, length});
  }

  void give(Watch &watch, Random &random) {
    if (entries_.empty()) return;
    const std::size_t index = random.below(entries_.size());
    Entry entry = entries_[index];
    if (random.oneIn(12)) entry.length += 16;
    if (random.oneIn(20)) entry.area = static_cast<std::uint8_t *>(entry.area) + 8;
    const std::int16_t result =
        watch.did("MEM_EHeapFreeEntry" + args({entry.length}),
                  watch.mem().MEM_EHeapFreeEntry(heap_, entry.length, entry.area));
    if (result == 0) entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  const bool isEnhanced_;
  HMEMHEAP heap_ = nullptr;
  std::vector<Entry> entries_;
};

class Pool {
 public:
  void step(Watch &watch, Random &random) {
    if (pool_ == nullptr) return open(watch, random);
    switch (random.below(12)) {
      case 0:
        return close(watch);
      case 1:
        watch.did("MEM_CellClear", watch.mem().MEM_CellClear(pool_));
        return cells_.clear();
      case 2:
      case 3:
      case 4:
      case 5:
        return give(watch, random);
      default:
        return take(watch);
    }
  }

  void close(Watch &watch) {
    if (pool_ == nullptr) return;
    watch.did("MEM_CellClose", watch.mem().MEM_CellClose(pool_));
    pool_ = nullptr;
    cells_.clear();
  }

 private:
  void open(Watch &watch, Random &random) {
    const auto areaLen = edgeOr<std::int32_t>(random, {255, 256, 0x100000, 0x100001, -1}, 4000);
    const auto cellLen = edgeOr<std::int32_t>(random, {7, 8, 9, 88, 89, -1}, 300);
    watch.did("MEM_CellOpen" + args({areaLen, cellLen}),
              watch.mem().MEM_CellOpen(&pool_, areaLen, cellLen, kSubPool));
    showCell(watch, pool_);
  }

  void take(Watch &watch) {
    void *cell = nullptr;
    watch.did("MEM_CellAllocEntry", watch.mem().MEM_CellAllocEntry(pool_, &cell));
    showCell(watch, cell);
    if (cell != nullptr) cells_.push_back(cell);
  }

  void give(Watch &watch, Random &random) {
    if (cells_.empty()) return;
    const std::size_t index = random.below(cells_.size());
    watch.did("MEM_CellFreeEntry", watch.mem().MEM_CellFreeEntry(pool_, cells_[index]));
    cells_.erase(cells_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  HMEMCELL pool_ = nullptr;
  std::vector<void *> cells_;
};

class Table {
 public:
  void step(Watch &watch, Random &random) {
    if (table_ == nullptr) return open(watch, random);
    const auto key = static_cast<std::uint32_t>(random.below(random.oneIn(20) ? 200 : 40));
    switch (random.below(16)) {
      case 0:
        return close(watch);
      case 1:
        return scan(watch, random);
      case 2:
      case 3:
      case 4:
        watch.did("MEM_HashDelEntry" + args({key}), watch.mem().MEM_HashDelEntry(table_, &key));
        return;
      case 5:
      case 6:
      case 7:
        return get(watch, key);
      default:
        return insert(watch, random, key);
    }
  }

  void close(Watch &watch) {
    if (table_ == nullptr) return;
    if (watch.did("MEM_HashClose", watch.mem().MEM_HashClose(table_)) == 0) table_ = nullptr;
  }

 private:
  struct Record {
    std::uint32_t value;
    std::uint32_t key;
  };

  // Keys of 100 and more have no bucket.
  static std::int16_t hash(const void *pKey) {
    std::uint32_t key = 0;
    std::memcpy(&key, pKey, sizeof key);
    if (key >= 100) return key % 2 == 0 ? std::int16_t{-1} : std::int16_t{500};
    return static_cast<std::int16_t>(key % 8);
  }

  void open(Watch &watch, Random &random) {
    const auto areaKb = edgeOr<std::int16_t>(random, {0, 1, 4}, 3);
    watch.did("MEM_HashOpen" + args({areaKb}),
              watch.mem().MEM_HashOpen(&table_, offsetof(Record, key), sizeof(Record::key), 7, hash,
                                       areaKb, kSubPool));
    showCell(watch, table_);
  }

  void insert(Watch &watch, Random &random, std::uint32_t key) {
    const Record record{static_cast<std::uint32_t>(random.bits()), key};
    void *stored = nullptr;
    watch.did("MEM_HashInsEntry" + args({key}),
              watch.mem().MEM_HashInsEntry(table_, sizeof record, &record, &stored));
    showCell(watch, stored);
  }

  void get(Watch &watch, std::uint32_t key) {
    void *found = nullptr;
    watch.did("MEM_HashGetEntry" + args({key}), watch.mem().MEM_HashGetEntry(table_, &key, &found));
    showCell(watch, found);
  }

  void scan(Watch &watch, Random &random) {
    struct Seen {
      Watch *watch;
      std::size_t failing;
    } seen{&watch, random.below(8)};
    watch.did("MEM_HashScan", watch.mem().MEM_HashScan(
                                  table_,
                                  [](void *record, void *parm) -> std::int16_t {
                                    auto *at = static_cast<Seen *>(parm);
                                    showCell(*at->watch, record);
                                    return at->failing-- == 0 ? 77 : 0;
                                  },
                                  &seen));
  }

  HMEMHASH table_ = nullptr;
};

class Buffer {
 public:
  void step(Watch &watch, Random &random) {
    if (!isOpen_ && !random.oneIn(4)) return open(watch);  // else a closed buffer is appended to
    switch (random.below(8)) {
      case 0:
        return isOpen_ ? close(watch) : open(watch);
      case 1:
        return append(watch, random, cat_.pText != nullptr && cat_.Len < 20000);
      default:
        return append(watch, random, false);
    }
  }

  void close(Watch &watch) {
    if (!isOpen_) return;
    watch.did("MEM_CatClose", watch.mem().MEM_CatClose(&cat_));
    show(watch);
    isOpen_ = false;
  }

 private:
  void open(Watch &watch) {
    isOpen_ = watch.did("MEM_CatOpen", watch.mem().MEM_CatOpen(&cat_)) == 0;
    show(watch);
  }

  void append(Watch &watch, Random &random, bool isOwn) {
    const std::u16string piece(random.below(random.oneIn(4) ? 2000 : 40),
                               static_cast<char16_t>(random.between(1, 0xFFFF)));
    const char16_t *from = isOwn ? cat_.pText : piece.c_str();
    const auto length = static_cast<std::int32_t>(isOwn ? cat_.Len : piece.size());
    if (random.oneIn(2)) {
      watch.did("MEM_Cat" + args({length}), watch.mem().MEM_Cat(&cat_, from));
    } else {
      const std::int32_t told = random.oneIn(20) ? -1 : length;
      watch.did("MEM_MemCat" + args({told}), watch.mem().MEM_MemCat(&cat_, from, told));
    }
    show(watch);
  }

  void show(Watch &watch) {
    watch.log() << "buffer ";
    watch.log().address(cat_.pText) << args({cat_.BlkLen, cat_.Len, cat_.Mark});
    watch.log().end();
    if (isOpen_ && cat_.pText != nullptr) {
      watch.log().bytes("text", cat_.pText, std::size_t{cat_.Len} * 2);
    }
  }

  MEMCatCB cat_{};
  bool isOpen_ = false;
};

// Texts of a few characters, so that equal ones, prefixes and neighbours in the order are common.
class Sink {
 public:
  void step(Watch &watch, Random &random) {
    const bool isWide = random.oneIn(2);
    if (isWide) {
      stepWith<char16_t>(watch, random, wide_);
    } else {
      stepWith<char>(watch, random, narrow_);
    }
  }

  void close(Watch &watch) {
    for (const char *copy : narrow_) erase(watch, copy);
    for (const char16_t *copy : wide_) erase(watch, copy);
    narrow_.clear();
    wide_.clear();
  }

 private:
  static std::int16_t sink(Watch &watch, const char *text, const char *&copy) {
    return watch.did("MEM_SinkString", watch.mem().MEM_SinkString(text, &copy));
  }
  static std::int16_t sink(Watch &watch, const char16_t *text, const char16_t *&copy) {
    return watch.did("MEM_WSinkString", watch.mem().MEM_WSinkString(text, &copy));
  }
  static std::int16_t verify(Watch &watch, const char *text, const char *&copy) {
    return watch.did("MEM_SinkVerify", watch.mem().MEM_SinkVerify(text, &copy, nullptr));
  }
  static std::int16_t verify(Watch &watch, const char16_t *text, const char16_t *&copy) {
    return watch.did("MEM_WSinkVerify", watch.mem().MEM_WSinkVerify(text, &copy, nullptr));
  }
  static std::int16_t erase(Watch &watch, const char *copy) {
    return watch.did("MEM_SinkDelete", watch.mem().MEM_SinkDelete(copy));
  }
  static std::int16_t erase(Watch &watch, const char16_t *copy) {
    return watch.did("MEM_WSinkDelete", watch.mem().MEM_WSinkDelete(copy));
  }

  template <class Char>
  static std::basic_string<Char> anyText(Random &random) {
    std::basic_string<Char> text(random.below(random.oneIn(10) ? 3000 : 5), Char{'a'});
    if (random.oneIn(12)) text.resize(random.between(60, 70), Char{'z'});  // where excerpts are cut
    for (Char &c : text) {
      if (text.size() < 6) c = static_cast<Char>('a' + random.below(3));
    }
    if (sizeof(Char) == 2 && !text.empty() && random.oneIn(3)) {
      text[0] = static_cast<Char>(random.oneIn(4) ? 0xD83D : random.between(1, 0xFFFF));
    }
    return text;
  }

  template <class Char>
  void stepWith(Watch &watch, Random &random, std::vector<const Char *> &copies) {
    std::optional<std::basic_string<Char>> text;
    copyFixed(text, anyText<Char>(random));
    const Char *from = random.oneIn(30) ? nullptr : text->c_str();
    const Char *copy = nullptr;
    switch (random.below(6)) {
      case 0:
        verify(watch, from, copy);
        return showCell(watch, copy);
      case 1:
      case 2:
        if (random.oneIn(10)) {
          erase(watch, from);
          return;
        }
        if (copies.empty()) return;
        return eraseOne(watch, random, copies);
      default:
        if (sink(watch, from, copy) == 0) copies.push_back(copy);
        showCell(watch, copy);
    }
  }

  template <class Char>
  static void eraseOne(Watch &watch, Random &random, std::vector<const Char *> &copies) {
    const std::size_t index = random.below(copies.size());
    if (erase(watch, copies[index]) != 0) return;
    copies.erase(copies.begin() + static_cast<std::ptrdiff_t>(index));
  }

  std::vector<const char *> narrow_;
  std::vector<const char16_t *> wide_;
};

void mayFail(Watch &watch, Random &random) {
  constexpr Service kServices[] = {Service::GetStorage,     Service::GetStorage,
                                   Service::AcquireGate,    Service::CreateGate,
                                   Service::ProtectStorage, Service::CheckStorage};
  refhost::Fault fault;
  fault.service = kServices[random.below(std::size(kServices))];
  fault.nth = random.between(1, 4);
  if (random.oneIn(2)) {
    fault.errorCode = 1234;
    fault.errorText = "HostErrorText";
  }
  watch.note("fault " + std::string(refhost::serviceName(fault.service)) + " " +
             std::to_string(fault.nth));
  watch.host().arm(fault);
}

void allocAndFree(Watch &watch, Random &random) {
  const auto size = edgeOr<std::uint32_t>(random, {0, 1, 4096, 70000}, 500);
  const auto subPool = static_cast<std::int16_t>(random.oneIn(3) ? -4 : 4);
  void *const area = watch.mem().MEM_Alloc(size, subPool);
  watch.did("MEM_Alloc" + args({size, subPool}));
  showCell(watch, area);
  if (area == nullptr) return;
  watch.mem().MEM_Free(area, size, subPool);
  watch.did("MEM_Free");
}

}  // namespace

void callsCase(Watch &watch, Random &random, const Settings &) {
  std::array<Heap, 2 *kObjects> heaps = {Heap(false), Heap(true), Heap(false), Heap(true)};
  std::array<Pool, kObjects> pools;
  std::array<Table, kObjects> tables;
  std::array<Buffer, kObjects> buffers;
  Sink sink;
  const std::size_t family = random.below(8);  // one that most calls are for, or none
  watch.host().setTraceFlags(anyTraceFlags(random));
  for (std::size_t steps = random.between(10, 90); steps > 0; --steps) {
    if (random.oneIn(30)) mayFail(watch, random);
    const std::size_t choice = family < 6 && random.oneIn(2) ? family : random.below(6);
    switch (choice) {
      case 0:
        heaps[random.below(heaps.size())].step(watch, random);
        break;
      case 1:
        pools[random.below(kObjects)].step(watch, random);
        break;
      case 2:
        tables[random.below(kObjects)].step(watch, random);
        break;
      case 3:
        buffers[random.below(kObjects)].step(watch, random);
        break;
      case 4:
        sink.step(watch, random);
        break;
      default:
        allocAndFree(watch, random);
    }
  }
  watch.host().disarm();
  for (const std::uint16_t subPool : {std::uint16_t{kSubPool}, std::uint16_t{MEM_SINK_SUBPOOL},
                                      std::uint16_t{MEM_PROCESS_BLOCK_SUBPOOL}}) {
    watch.storage(subPool);
  }
  for (Heap &heap : heaps) heap.close(watch);
  for (Pool &pool : pools) pool.close(watch);
  for (Table &table : tables) table.close(watch);
  for (Buffer &buffer : buffers) buffer.close(watch);
  sink.close(watch);
}

}  // namespace replay
