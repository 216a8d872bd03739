// Fuzzes sequences of calls on heaps of both kinds, cell pools, hash tables, the sink and
// concatenation buffers. Each byte or two of an input decides the next call; storage is refused
// where the input says so. Models that know only what a caller may rely on check every result, and
// that nothing which belongs to a caller changes or is allocated twice.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "binding/entrypoints.h"
#include "fuzzfail.hpp"
#include "randomrun.hpp"
#include "refhost.hpp"

namespace {

using memtest::Random;
using memtest::require;

constexpr std::size_t kObjects = 3;  // of each kind
constexpr std::uint16_t kSubPool = 9;

// Ranges that callers own, each filled with a pattern of its own.
class Owned {
 public:
  void add(void *area, std::size_t length) {
    auto *start = static_cast<std::uint8_t *>(area);
    const auto above = ranges_.lower_bound(start);
    require(above == ranges_.end() || start + length <= above->first, "allocated twice");
    if (above != ranges_.begin()) {
      const auto below = std::prev(above);
      require(below->first + below->second.length <= start, "allocated twice");
    }
    const auto pattern = static_cast<std::uint8_t>(++count_ | 1);
    std::memset(start, pattern, length);
    ranges_[start] = {length, pattern};
  }

  void check(void *area) const {
    const auto found = ranges_.find(static_cast<std::uint8_t *>(area));
    for (std::size_t i = 0; i < found->second.length; ++i) {
      require(found->first[i] == found->second.pattern, "a caller's bytes have changed");
    }
  }

  // The owner is done with a range: whole to the last, or written over by whom it was given to.
  void drop(void *area) {
    check(area);
    forget(area);
  }
  void forget(void *area) { ranges_.erase(static_cast<std::uint8_t *>(area)); }

 private:
  struct Range {
    std::size_t length;
    std::uint8_t pattern;
  };
  std::map<std::uint8_t *, Range> ranges_;
  unsigned count_ = 0;
};

struct Entry {
  void *area;
  std::int32_t length;
};

// A heap of either kind with the entries that were taken from it.
class HeapRun {
 public:
  HeapRun(MEMFunctionVector &mem, Owned &owned, bool isEnhanced)
      : mem_(mem), owned_(owned), isEnhanced_(isEnhanced) {}
  ~HeapRun() { close(); }
  HeapRun(const HeapRun &) = delete;
  HeapRun &operator=(const HeapRun &) = delete;

  void step(Random &random) {
    switch (random.below(8)) {
      case 0:
        isOpen() ? close() : open(static_cast<std::int16_t>(random.below(6)));
        break;
      case 1:
        takeChain(random);
        break;
      case 2:
      case 3:
        give(random);
        break;
      default:
        take(random);
    }
  }

 private:
  bool isOpen() const { return heap_ != nullptr; }

  void open(std::int16_t areaLen) {
    const std::int16_t result = isEnhanced_ ? mem_.MEM_EHeapOpen(&heap_, areaLen, kSubPool)
                                            : mem_.MEM_HeapOpen(&heap_, areaLen, kSubPool);
    require(areaLen >= 1 || result != 0, "an area length of 0 is accepted");
    if (result != 0) require(heap_ == nullptr, "a failed open stores a handle");
  }

  void close() {
    if (!isOpen()) return;
    for (const Entry &entry : entries_) owned_.drop(entry.area);
    entries_.clear();
    const std::int16_t wrong = isEnhanced_ ? mem_.MEM_HeapClose(heap_) : mem_.MEM_EHeapClose(heap_);
    require(wrong != 0, "a heap of the other kind is closed");
    // A gate that could not be acquired leaves the heap as it was.
    if (closeHeap() != 0) require(isEnhanced_ && closeHeap() == 0, "a heap is not closed");
    heap_ = nullptr;
  }

  std::int16_t closeHeap() {
    return isEnhanced_ ? mem_.MEM_EHeapClose(heap_) : mem_.MEM_HeapClose(heap_);
  }

  static std::int32_t anyLength(Random &random) {
    constexpr std::int32_t kEdges[] = {-1, 0, 1, 8, 15, 16, 17, 960, 968, 969, 1000, 5000, 70000};
    return random.oneIn(3) ? kEdges[random.below(std::size(kEdges))]
                           : static_cast<std::int32_t>(random.below(256));
  }

  void take(Random &random) {
    const std::int32_t length = anyLength(random);
    void *entry = nullptr;
    std::int16_t result = 0;
    switch (random.below(3)) {
      case 0:
        result = mem_.MEM_HeapAllocEntry(heap_, static_cast<std::int16_t>(length), &entry);
        keep(result, entry, static_cast<std::int16_t>(length));
        return;
      case 1:
        result = mem_.MEM_HeapAllocEntryLong(heap_, length, &entry);
        break;
      default:
        result = mem_.MEM_EHeapAllocEntry(heap_, length, &entry);
        if (!isEnhanced_) require(result != 0, "a standard heap serves as an enhanced one");
    }
    keep(result, entry, length);
  }

  void keep(std::int16_t result, void *entry, std::int32_t length) {
    if (result != 0) {
      require(entry == nullptr, "a failed allocation stores an entry");
      return;
    }
    require(isOpen() && entry != nullptr, "success without an entry");
    require(isEnhanced_ || length > 0, "a standard heap accepts a length of 0");
    const std::size_t least = isEnhanced_ ? 16 : 1;
    owned_.add(entry, std::max(least, static_cast<std::size_t>(std::max(length, 0))));
    entries_.push_back({entry, length});
  }

  void takeChain(Random &random) {
    const auto length = static_cast<std::int32_t>(random.between(16, 300));
    const auto count = static_cast<std::int32_t>(random.below(6));
    const auto linkOff = static_cast<std::int16_t>(random.below(2) * 8);
    void *first = nullptr;
    const std::int16_t result =
        random.oneIn(2)
            ? mem_.MEM_HeapAllocLongMultEntries(heap_, length, count, linkOff, &first)
            : mem_.MEM_HeapAllocMultEntries(heap_, static_cast<std::int16_t>(length),
                                            static_cast<std::int16_t>(count), linkOff, &first);
    if (result != 0) {
      require(first == nullptr, "a failed chain is stored");
      return;
    }
    std::int32_t found = 0;
    while (first != nullptr) {
      void *next = nullptr;
      std::memcpy(&next, static_cast<std::uint8_t *>(first) + linkOff, sizeof next);
      keep(0, first, length);
      first = next;
      require(++found <= count, "a chain is too long");
    }
    require(found == count, "a chain is too short");
  }

  void give(Random &random) {
    if (!isEnhanced_ || entries_.empty()) return;
    const std::size_t index = random.below(entries_.size());
    const Entry entry = entries_[index];
    if (mem_.MEM_EHeapFreeEntry(heap_, entry.length, entry.area) != 0) return;
    // A large entry stays as it is; an area entry is the heap's now. Neither comes back.
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(index));
    owned_.forget(entry.area);
  }

  MEMFunctionVector &mem_;
  Owned &owned_;
  const bool isEnhanced_;
  HMEMHEAP heap_ = nullptr;
  std::vector<Entry> entries_;
};

// A cell pool with the cells that are out.
class PoolRun {
 public:
  PoolRun(MEMFunctionVector &mem, Owned &owned) : mem_(mem), owned_(owned) {}
  ~PoolRun() { close(); }
  PoolRun(const PoolRun &) = delete;
  PoolRun &operator=(const PoolRun &) = delete;

  void step(Random &random) {
    switch (random.below(16)) {
      case 0:
        pool_ != nullptr ? close() : open(random);
        break;
      case 1:
        clear();
        break;
      case 2:
      case 3:
      case 4:
      case 5:
        give(random);
        break;
      default:
        take();
    }
  }

 private:
  void open(Random &random) {
    const auto areaLen = static_cast<std::int32_t>(random.between(200, 3000));
    cellLen_ = static_cast<std::int32_t>(random.below(300)) - 4;
    const std::int16_t result = mem_.MEM_CellOpen(&pool_, areaLen, cellLen_, kSubPool);
    const bool isRight = areaLen >= 256 && cellLen_ >= 8 && areaLen >= cellLen_ + 168;
    require(isRight || result != 0, "wrong lengths are accepted");
    require((result == 0) == (pool_ != nullptr), "result and handle differ");
  }

  void dropCells() {
    for (void *cell : cells_) owned_.drop(cell);
    cells_.clear();
    lastGiven_ = nullptr;
  }

  void clear() {
    if (pool_ != nullptr) dropCells();
    require((mem_.MEM_CellClear(pool_) == 0) == (pool_ != nullptr), "clear ends wrongly");
  }

  void close() {
    if (pool_ == nullptr) return;
    dropCells();
    require(mem_.MEM_CellClose(pool_) == 0, "a pool is not closed");
    pool_ = nullptr;
  }

  void take() {
    void *cell = nullptr;
    if (mem_.MEM_CellAllocEntry(pool_, &cell) != 0) {
      require(cell == nullptr, "a failed allocation stores a cell");
      return;
    }
    require(pool_ != nullptr && cell != nullptr, "success without a cell");
    std::uint64_t head = 1;
    std::memcpy(&head, cell, sizeof head);
    require(head == 0, "a cell does not begin with zeros");
    if (lastGiven_ != nullptr) require(cell == lastGiven_, "not the cell that was given last");
    lastGiven_ = nullptr;
    owned_.add(cell, static_cast<std::size_t>(cellLen_));
    cells_.push_back(cell);
  }

  void give(Random &random) {
    if (cells_.empty()) return;
    const std::size_t index = random.below(cells_.size());
    void *cell = cells_[index];
    owned_.drop(cell);
    require(mem_.MEM_CellFreeEntry(pool_, cell) == 0, "a cell is not taken back");
    cells_.erase(cells_.begin() + static_cast<std::ptrdiff_t>(index));
    lastGiven_ = cell;
  }

  MEMFunctionVector &mem_;
  Owned &owned_;
  HMEMCELL pool_ = nullptr;
  std::int32_t cellLen_ = 0;
  std::vector<void *> cells_;
  void *lastGiven_ = nullptr;  // the next one to come
};

// A hash table over records of a key and a value, some keys in one bucket.
class TableRun {
 public:
  explicit TableRun(refhost::Host &host) : host_(host), mem_(host.vector()) {}
  ~TableRun() { close(); }
  TableRun(const TableRun &) = delete;
  TableRun &operator=(const TableRun &) = delete;

  void step(Random &random) {
    const auto key = static_cast<std::uint32_t>(random.below(64));
    switch (random.below(16)) {
      case 0:
        table_ != nullptr ? close() : open();
        break;
      case 1:
        scan();
        break;
      case 2:
      case 3:
      case 4:
      case 5:
        remove(key);
        break;
      case 6:
      case 7:
      case 8:
        get(key);
        break;
      default:
        insert(key, static_cast<std::uint32_t>(random.bits()));
    }
  }

 private:
  struct Record {
    std::uint32_t value;
    std::uint32_t key;
  };

  static std::int16_t hash(const void *pKey) {
    std::uint32_t key = 0;
    std::memcpy(&key, pKey, sizeof key);
    return static_cast<std::int16_t>(key % 8);
  }

  void open() {
    const std::int16_t result = mem_.MEM_HashOpen(&table_, offsetof(Record, key),
                                                  sizeof(Record::key), 7, hash, 1, kSubPool);
    require((result == 0) == (table_ != nullptr), "result and handle differ");
    if (result != 0) returnControlBlock();
  }

  // A table whose heap could not be opened leaves its control block to the host.
  void returnControlBlock() {
    constexpr std::uint32_t kControlBlockLen = 56 + 7 * 8;
    for (const refhost::Leak &area : host_.leaks()) {
      const bool isControlBlock = area.subPool == kSubPool && area.length == kControlBlockLen;
      if (isControlBlock && !isOpenTable(area.area)) {
        mem_.MEM_Free(area.area, kControlBlockLen, kSubPool);
      }
    }
  }

  static bool isOpenTable(const void *area) {
    HMEMHEAP heap = nullptr;
    std::memcpy(&heap, static_cast<const std::uint8_t *>(area) + 32, sizeof heap);
    return heap != nullptr;
  }

  void close() {
    if (table_ == nullptr) return;
    require(mem_.MEM_HashClose(table_) == 0, "a table is not closed");
    table_ = nullptr;
    values_.clear();
  }

  void expectStored(const void *found, std::uint32_t key) const {
    Record record{};
    std::memcpy(&record, found, sizeof record);
    require(record.key == key && record.value == values_.at(key), "a record has changed");
  }

  void insert(std::uint32_t key, std::uint32_t value) {
    const Record record{value, key};
    void *stored = nullptr;
    const std::int16_t result = mem_.MEM_HashInsEntry(table_, sizeof record, &record, &stored);
    if (values_.count(key) != 0) {
      require(result == MEMERR_HASHDKEY, "a key is inserted twice");
      return expectStored(stored, key);
    }
    if (result != 0) return require(stored == nullptr, "a failed insert stores a record");
    require(table_ != nullptr, "a closed table takes a record");
    values_[key] = value;
    expectStored(stored, key);
  }

  void get(std::uint32_t key) {
    void *found = nullptr;
    const std::int16_t result = mem_.MEM_HashGetEntry(table_, &key, &found);
    if (values_.count(key) == 0) return require(result != 0, "a key is found that is not there");
    require(result == 0, "a key is not found");
    expectStored(found, key);
  }

  void remove(std::uint32_t key) {
    const std::int16_t result = mem_.MEM_HashDelEntry(table_, &key);
    require((result == 0) == (values_.erase(key) != 0), "a removal ends wrongly");
  }

  void scan() {
    struct Count {
      const TableRun *run;
      std::size_t records;
    } count{this, 0};
    const std::int16_t result = mem_.MEM_HashScan(
        table_,
        [](void *record, void *parm) -> std::int16_t {
          auto *seen = static_cast<Count *>(parm);
          Record copy{};
          std::memcpy(&copy, record, sizeof copy);
          seen->run->expectStored(record, copy.key);
          ++seen->records;
          return 0;
        },
        &count);
    require((result == 0) == (table_ != nullptr), "a scan ends wrongly");
    require(count.records == values_.size(), "a scan misses records");
  }

  refhost::Host &host_;
  MEMFunctionVector &mem_;
  HMEMHASH table_ = nullptr;
  std::map<std::uint32_t, std::uint32_t> values_;
};

// Texts of both widths in the process's sink.
class SinkRun {
 public:
  explicit SinkRun(MEMFunctionVector &mem) : mem_(mem) {}
  ~SinkRun() {
    for (auto &[text, use] : uses_) {
      for (; use.count > 0; --use.count) mem_.MEM_SinkDelete(use.copy);
    }
  }
  SinkRun(const SinkRun &) = delete;
  SinkRun &operator=(const SinkRun &) = delete;

  void step(Random &random) {
    const std::string text(random.below(random.oneIn(8) ? 3000 : 6),
                           static_cast<char>('a' + random.below(3)));
    switch (random.below(4)) {
      case 0:
        verify(text);
        break;
      case 1:
        erase(text);
        break;
      default:
        sink(text);
    }
  }

 private:
  struct Use {
    const char *copy;
    int count;
  };

  // An empty text is refused or sunk like any other; whatever is stored must read back.
  void sink(const std::string &text) {
    const char *copy = nullptr;
    if (mem_.MEM_SinkString(text.c_str(), &copy) != 0) return;
    require(copy != nullptr && text == copy, "a sunk copy differs");
    const auto found = uses_.find(text);
    if (found == uses_.end()) {
      uses_[text] = {copy, 1};
    } else {
      require(found->second.copy == copy, "equal texts have two copies");
      ++found->second.count;
    }
  }

  void verify(const std::string &text) {
    const char *copy = nullptr;
    const std::int16_t result = mem_.MEM_SinkVerify(text.c_str(), &copy, nullptr);
    if (result == -1) return;  // no gate
    const auto found = uses_.find(text);
    if (found == uses_.end())
      return require(result == MEMERR_SINKNFND, "a text is found that was not sunk");
    require(result == 0 && copy == found->second.copy, "a sunk text is not found");
  }

  void erase(const std::string &text) {
    const auto found = uses_.find(text);
    if (found == uses_.end()) return;
    require(text == found->second.copy, "a sunk copy has changed");
    if (mem_.MEM_SinkDelete(found->second.copy) == 0 && --found->second.count == 0) {
      uses_.erase(found);
    }
  }

  MEMFunctionVector &mem_;
  std::map<std::string, Use> uses_;
};

class BufferRun {
 public:
  explicit BufferRun(MEMFunctionVector &mem) : mem_(mem) {}
  ~BufferRun() { close(); }
  BufferRun(const BufferRun &) = delete;
  BufferRun &operator=(const BufferRun &) = delete;

  void step(Random &random) {
    switch (random.below(8)) {
      case 0:
        isOpen_ ? close() : open();
        break;
      case 1:
        appendSelf(random);
        break;
      default:
        append(random);
    }
  }

 private:
  void open() {
    isOpen_ = mem_.MEM_CatOpen(&cat_) == 0;
    require(isOpen_ == (cat_.pText != nullptr), "result and storage differ");
    text_.clear();
  }

  void close() {
    require(mem_.MEM_CatClose(&cat_) == 0, "a buffer is not closed");
    require(cat_.pText == nullptr, "a closed buffer still has storage");
    isOpen_ = false;
  }

  void append(Random &random) {
    const std::u16string piece(random.below(random.oneIn(4) ? 2000 : 40),
                               static_cast<char16_t>(random.between(1, 0xFFFF)));
    const std::int16_t result =
        random.oneIn(2)
            ? mem_.MEM_Cat(&cat_, piece.c_str())
            : mem_.MEM_MemCat(&cat_, piece.c_str(), static_cast<std::int32_t>(piece.size()));
    finish(result, piece);
  }

  void appendSelf(Random &random) {
    if (!isOpen_ || text_.empty() || text_.size() > 20000) return;
    const std::size_t from = random.below(text_.size());
    finish(mem_.MEM_Cat(&cat_, cat_.pText + from), text_.substr(from));
  }

  void finish(std::int16_t result, const std::u16string &piece) {
    if (result == 0) {
      require(isOpen_, "a closed buffer takes text");
      text_ += piece;
    }
    if (!isOpen_) return;
    require(cat_.Len == text_.size(), "wrong length");
    if (!text_.empty()) require(text_ == cat_.pText, "wrong text");
  }

  MEMFunctionVector &mem_;
  MEMCatCB cat_{};
  bool isOpen_ = false;
  std::u16string text_;
};

// One input's objects.
class Run {
 public:
  explicit Run(refhost::Host &host) : host_(host) {}

  void step(Random &random) {
    const std::size_t object = random.below(kObjects);
    switch (random.below(11)) {
      case 0:
        refuse(random);
        break;
      case 1:
      case 2:
      case 3:
        heaps_[object].step(random);
        break;
      case 4:
      case 5:
        pools_[object].step(random);
        break;
      case 6:
      case 7:
        tables_[object].step(random);
        break;
      case 8:
        sink_.step(random);
        break;
      default:
        buffers_[object].step(random);
    }
    require(host_.heldGateCount() == 0, "a gate is held");
  }

 private:
  // One of the next few calls of a service fails.
  void refuse(Random &random) {
    constexpr refhost::Service kServices[] = {
        refhost::Service::GetStorage, refhost::Service::AcquireGate, refhost::Service::CreateGate};
    refhost::Fault fault;
    fault.service = kServices[random.below(std::size(kServices))];
    fault.nth = random.between(1, 4);
    host_.arm(fault);
  }

  refhost::Host &host_;
  MEMFunctionVector &mem_ = host_.vector();
  Owned owned_;
  HeapRun heaps_[kObjects] = {{mem_, owned_, false}, {mem_, owned_, true}, {mem_, owned_, true}};
  PoolRun pools_[kObjects] = {{mem_, owned_}, {mem_, owned_}, {mem_, owned_}};
  TableRun tables_[kObjects] = {TableRun(host_), TableRun(host_), TableRun(host_)};
  SinkRun sink_{mem_};
  BufferRun buffers_[kObjects] = {BufferRun(mem_), BufferRun(mem_), BufferRun(mem_)};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static refhost::Session session(ENV_FWV_V00M00_GFunc);
  refhost::Host &host = session.host();
  const std::uint64_t before = host.account(kSubPool).liveBytes;
  const std::uint64_t textBefore = host.account(0).liveBytes;
  const std::size_t gatesBefore = host.gateCount();
  host.setDirtyStorage(size % 2 != 0);
  {
    Random random(std::span<const std::uint8_t>(data, size));
    Run run(host);
    while (random.hasChoices()) run.step(random);
    host.disarm();
  }
  require(host.account(kSubPool).liveBytes == before, "storage is left");
  require(host.account(0).liveBytes == textBefore, "text storage is left");
  require(host.gateCount() == gatesBefore, "a gate is left");
  require(host.takeMisuses().empty(), "a host service was misused");
  return 0;
}
