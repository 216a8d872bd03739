// Models of heaps and hash tables that know nothing of the library, and drivers that make each call
// on the real object and on its model and compare: results, errors, requests of storage, addresses,
// and at any time all memory. Storage may be refused at any call.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "heaptest.hpp"
#include "randomrun.hpp"

namespace memtest {

// low .. high, both included.
inline std::int32_t numberBetween(Random &random, std::int32_t low, std::int32_t high) {
  return low + static_cast<std::int32_t>(random.below(static_cast<std::size_t>(high - low) + 1));
}

// Seeds of a random test's runs.
inline auto seedsOfRuns() {
  const std::uint64_t first = firstSeed(1);
  return ::testing::Range(first, first + 3);
}

// How often the paths that a random test is about have been taken.
struct Tally {
  int areas = 0;
  int blocks = 0;
  int refused = 0;
  int inserted = 0;
  int duplicates = 0;
  int reused = 0;
  int removed = 0;
  int absent = 0;
};

// What drivers work with.
struct Stage {
  refhost::Host &host;
  MEMFunctionVector &mem;
  VectorWatch &watch;
  std::uint8_t dirty;  // what fresh storage is filled with
  Tally tally{};
};

// The requests of storage that a call has made, taken one by one.
class StorageTrail {
 public:
  explicit StorageTrail(Stage &stage) : tally_(stage.tally), uses_(stage.watch.takeUsesOf(8)) {}
  ~StorageTrail() { EXPECT_EQ(next_, uses_.size()) << "more storage than needed was asked for"; }
  StorageTrail(const StorageTrail &) = delete;
  StorageTrail &operator=(const StorageTrail &) = delete;

  // What the next request allocated; null when it was refused.
  std::uint8_t *take(std::uint32_t length, std::uint16_t subPool) {
    if (next_ == uses_.size()) {
      ADD_FAILURE() << "no storage was asked for where " << length << " bytes are needed";
      return nullptr;
    }
    const SlotUse &use = uses_[next_++];
    EXPECT_EQ(use.length, length);
    EXPECT_EQ(static_cast<std::uint16_t>(use.subPool), subPool);
    if (use.object == nullptr) ++tally_.refused;
    return static_cast<std::uint8_t *>(const_cast<void *>(use.object));
  }

 private:
  Tally &tally_;
  const std::vector<SlotUse> uses_;
  std::size_t next_ = 0;
};

// How a call is to end: code 0 is success.
struct Outcome {
  std::uint32_t code = 0;
  std::string text = {};
  FailureMarks marks = {};
};

inline void expectOutcome(Stage &stage, std::int16_t result, const Outcome &expected) {
  if (expected.code == 0) {
    EXPECT_EQ(result, 0);
    return;
  }
  const MEMErrorArea &error = stage.host.thread().Error;
  EXPECT_EQ(result, kFailed);
  EXPECT_EQ(error.ReturnCode, kFailedCode);
  EXPECT_EQ(error.Code, expected.code);
  EXPECT_EQ(std::string(error.NameText), expected.text);
  EXPECT_EQ(error.Component, expected.marks.component);
  EXPECT_EQ(error.InnerCode, expected.marks.innerCode);
  EXPECT_EQ(std::string(error.InnerText), expected.marks.innerText);
}

// In what the two kinds of heap differ.
struct HeapKind {
  const char *eyecatcher;
  std::uint32_t headerLen;
  std::size_t curAreaAt;  // offsets in the header
  std::size_t largeBlocksAt;
  std::size_t areaSizeAt;
  std::size_t subPoolAt;
  std::uint32_t leastLen;  // of an entry
  bool refusesLenBelow1;
  const char *noAreaText;
  FailureMarks marks;
};

inline constexpr HeapKind kStandardKind = {"QQQHEAP1", kHeapHeaderLen,     24, 32, 40, 44, 8,
                                           true,       "MemAllocAreaFail", {}};
inline constexpr HeapKind kEnhancedKind = {"ENHHEAP1", kEHeapHeaderLen, 40,       48, 56, 28, 16,
                                           false,      "MemAllocFail",  kOwnMarks};

// A heap: areas that are filled from one end, and blocks for what is too long for them.
class HeapModel {
 public:
  HeapModel(std::uint8_t *header, std::uint32_t areaSize, std::uint16_t subPool,
            const HeapKind &kind = kStandardKind)
      : kind_(&kind), areaSize_(areaSize), subPool_(subPool), areas_{{header, kind.headerLen}} {}

  // Bytes that an entry of this length takes.
  std::uint32_t rounded(std::int32_t len) const {
    if (len < 1) return kind_->leastLen;
    return std::max((static_cast<std::uint32_t>(len) + 7) / 8 * 8, kind_->leastLen);
  }

  // The limit is the standard heap's for either kind.
  bool isLarge(std::int32_t len) const { return rounded(len) > areaSize_ - kHeapHeaderLen; }

  // The entry that an allocation is to give, and how the allocation is to end. Fresh storage is
  // taken from the trail.
  std::uint8_t *alloc(std::int32_t len, StorageTrail &trail, Outcome &outcome) {
    outcome = {};
    if (len < 1 && kind_->refusesLenBelow1) {
      outcome = {4051, "Entry Length=" + std::to_string(len) + " too small"};
      return nullptr;
    }
    const std::uint32_t taken = rounded(len);
    if (isLarge(len)) return allocBlock(taken, trail, outcome);
    if (taken > areaSize_ - areas_.back().used && !addArea(trail, outcome)) return nullptr;
    Area &current = areas_.back();
    std::uint8_t *entry = current.base + current.used;
    current.used += taken;
    return entry;
  }

  // All chains in memory are as modelled.
  void expectChains() const {
    const std::uint8_t *header = areas_.front().base;
    EXPECT_EQ(load<std::uint32_t>(header, kind_->areaSizeAt), areaSize_);
    EXPECT_EQ(load<std::uint16_t>(header, kind_->subPoolAt), subPool_);
    EXPECT_EQ(load<std::uint8_t *>(header, kind_->curAreaAt), areas_.back().base);
    const std::uint8_t *area = header;
    for (const Area &expected : areas_) {
      ASSERT_EQ(area, expected.base);
      EXPECT_EQ(eyecatcher(area), area == header ? kind_->eyecatcher : "QQQHEAPN");
      EXPECT_EQ(load<std::uint32_t>(area, 16), expected.used);
      EXPECT_EQ(load<std::uint32_t>(area, 20), areaSize_ - expected.used);
      area = load<std::uint8_t *>(area, 8);
    }
    EXPECT_EQ(area, nullptr);
    const std::uint8_t *block = load<std::uint8_t *>(header, kind_->largeBlocksAt);
    for (auto expected = blocks_.rbegin(); expected != blocks_.rend(); ++expected) {
      ASSERT_EQ(block, expected->base);
      EXPECT_EQ(eyecatcher(block), "QQQHBLKN");
      EXPECT_EQ(load<std::uint32_t>(block, 16), expected->used);
      block = load<std::uint8_t *>(block, 8);
    }
    EXPECT_EQ(block, nullptr);
  }

  // What close is to free, in order, in the form of VectorWatch::takeLines.
  Lines closingLines() const {
    Lines lines;
    const auto add = [&](const std::uint8_t *base, std::uint32_t length) {
      lines.push_back("9(" + hex16(base) + ", " + std::to_string(length) + ", " +
                      std::to_string(static_cast<std::int16_t>(subPool_)) + ")");
    };
    for (auto block = blocks_.rbegin(); block != blocks_.rend(); ++block) {
      add(block->base, block->used);
    }
    for (const Area &area : areas_) add(area.base, areaSize_);
    return lines;
  }

  // Names for all that close frees.
  AddressNames names() const {
    AddressNames names;
    for (const Area &area : areas_) names[asNumber(area.base)] = hex16(area.base);
    for (const Area &block : blocks_) names[asNumber(block.base)] = hex16(block.base);
    return names;
  }

  std::uint8_t *header() const { return areas_.front().base; }
  std::size_t areaCount() const { return areas_.size(); }
  std::size_t blockCount() const { return blocks_.size(); }

 private:
  struct Area {
    std::uint8_t *base;
    std::uint32_t used;  // bytes from the base on; of a block: all
  };

  bool addArea(StorageTrail &trail, Outcome &outcome) {
    std::uint8_t *base = trail.take(areaSize_, subPool_);
    if (base == nullptr) {
      outcome = {4055, kind_->noAreaText, kind_->marks};
      return false;
    }
    areas_.push_back({base, kAreaHeaderLen});
    return true;
  }

  std::uint8_t *allocBlock(std::uint32_t taken, StorageTrail &trail, Outcome &outcome) {
    const std::uint32_t size = kBlockHeaderLen + taken;
    std::uint8_t *base = trail.take(size, subPool_);
    if (base == nullptr) {
      outcome = {4055, "MemAllocBlkFail", kind_->marks};
      return nullptr;
    }
    blocks_.push_back({base, size});
    return base + kBlockHeaderLen;
  }

  const HeapKind *kind_;
  std::uint32_t areaSize_;
  std::uint16_t subPool_;
  std::vector<Area> areas_;   // oldest first, the last is the current one
  std::vector<Area> blocks_;  // oldest first
};

// What the drivers of both kinds of heap do: they compare with the model what the library's calls
// have given, and remember what a caller has written into the entries.
class HeapDriver {
 public:
  bool isOpen() const { return handle_ != nullptr; }
  std::size_t entryCount() const { return entries_.size(); }

 protected:
  static constexpr std::int16_t kNoLink = -1;

  struct Entry {
    std::uint8_t *address;
    std::int32_t askedLen;
    std::uint32_t len;  // bytes that the caller may use
    std::int16_t linkOff;
    const std::uint8_t *link;
    std::uint8_t fill;
    bool isFreed = false;
  };

  HeapDriver(Stage &stage, const HeapKind &kind) : stage_(stage), kind_(kind) {}

  // A heap has been opened, or not. `marks` are those of a refusal of storage.
  void recordOpen(std::int16_t result, HMEMHEAP handle, std::int16_t areaLen, std::uint16_t subPool,
                  const FailureMarks &marks) {
    const auto areaSize = static_cast<std::uint32_t>(areaLen) * 1024;
    StorageTrail trail(stage_);
    std::uint8_t *header = trail.take(areaSize, subPool);
    if (header == nullptr) {
      expectOutcome(stage_, result, {4055, "MemAllocFail", marks});
      EXPECT_EQ(handle, untouched());
      return;
    }
    expectOutcome(stage_, result, {});
    EXPECT_EQ(static_cast<void *>(handle), header);
    handle_ = handle;
    model_.emplace_back(header, areaSize, subPool, kind_);
  }

  // REQUIRES for all below: isOpen()

  // The entry that an allocation is to give, and the allocation's outcome.
  using EntryOfModel = std::function<std::uint8_t *(StorageTrail &, Outcome &)>;

  void recordAlloc(std::int16_t result, void *entry, std::int32_t len,
                   const EntryOfModel &expected) {
    StorageTrail trail(stage_);
    Outcome outcome;
    std::uint8_t *modelled = expected(trail, outcome);
    expectOutcome(stage_, result, outcome);
    EXPECT_EQ(entry, outcome.code == 0 ? modelled : untouched());
    if (entry == modelled && outcome.code == 0) use(modelled, len, kNoLink, nullptr);
  }

  void recordChain(std::int16_t result, void *first, std::int32_t len, std::int32_t count,
                   std::int16_t linkOff, const EntryOfModel &expected) {
    StorageTrail trail(stage_);
    Outcome outcome;
    std::vector<std::uint8_t *> entries;
    while (outcome.code == 0 && static_cast<std::int32_t>(entries.size()) < count) {
      std::uint8_t *entry = expected(trail, outcome);
      if (outcome.code == 0) entries.push_back(entry);
    }
    expectOutcome(stage_, result, outcome);
    EXPECT_EQ(first, outcome.code == 0 ? entries[0] : untouched());
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const bool isLast = i + 1 == entries.size();
      // The last entry of a chain that could not be completed has no link.
      const std::int16_t off = isLast && outcome.code != 0 ? kNoLink : linkOff;
      use(entries[i], len, off, isLast ? nullptr : entries[i + 1]);
    }
  }

  // The heap's own records and all that callers have written are as they should be.
  void expectIntact() const {
    model().expectChains();
    for (const Entry &entry : entries_) expectIntact(entry);
  }

  // Around a close: the lines of the storage that it is to return, and the comparison.
  Lines beginClose() {
    stage_.tally.areas += static_cast<int>(model().areaCount());
    stage_.tally.blocks += static_cast<int>(model().blockCount());
    stage_.watch.uses.clear();
    return model().closingLines();
  }

  void endClose(const Lines &expected) {
    EXPECT_EQ(stage_.watch.takeLines(model().names()), expected);
    handle_ = nullptr;
  }

  HeapModel &model() { return model_.front(); }
  const HeapModel &model() const { return model_.front(); }

  static void expectIntact(const Entry &entry) {
    if (entry.isFreed) return expectFreed(entry);
    forFreeParts(entry, [&](const std::uint8_t *part, std::size_t length) {
      EXPECT_TRUE(allBytesAre(part, length, entry.fill));
    });
    if (entry.linkOff == kNoLink) return;
    EXPECT_EQ(load<std::uint8_t *>(entry.address, static_cast<std::size_t>(entry.linkOff)),
              entry.link);
  }

  // An area entry that was freed: no link, its size, zeros.
  static void expectFreed(const Entry &entry) {
    const std::uint32_t size = (entry.len + 7) / 8 * 8;
    EXPECT_TRUE(allBytesAre(entry.address, 8, 0));
    EXPECT_EQ(load<std::uint32_t>(entry.address, 8), size);
    EXPECT_TRUE(allBytesAre(entry.address + 12, size - 12, 0));
  }

  Stage &stage_;
  HMEMHEAP handle_ = nullptr;
  std::vector<Entry> entries_;

 private:
  // Bytes of an entry before and after its link.
  template <class Visit>
  static void forFreeParts(const Entry &entry, Visit visit) {
    if (entry.linkOff == kNoLink) {
      visit(entry.address, std::size_t{entry.len});
      return;
    }
    const auto link = static_cast<std::size_t>(entry.linkOff);
    visit(entry.address, std::min<std::size_t>(link, entry.len));
    if (link + 8 < entry.len) visit(entry.address + link + 8, entry.len - link - 8);
  }

  // A new entry is as the host delivered it but for its link; then the caller fills it.
  void use(std::uint8_t *address, std::int32_t len, std::int16_t linkOff,
           const std::uint8_t *link) {
    const auto fill = static_cast<std::uint8_t>(entries_.size() * 7 + 1);
    const auto usable = static_cast<std::uint32_t>(
        std::max(len, kind_.refusesLenBelow1 ? 1 : static_cast<std::int32_t>(kind_.leastLen)));
    const Entry entry = {address, len, usable, linkOff, link, fill};
    forFreeParts(entry, [&](std::uint8_t *part, std::size_t length) {
      EXPECT_TRUE(allBytesAre(part, length, stage_.dirty));
      std::memset(part, fill, length);
    });
    entries_.push_back(entry);
  }

  const HeapKind &kind_;
  std::vector<HeapModel> model_;  // one, once the heap is open
};

// A standard heap of the library with its model.
class CheckedHeap : public HeapDriver {
 public:
  CheckedHeap(Stage &stage, std::int16_t areaLen, std::uint16_t subPool)
      : HeapDriver(stage, kStandardKind) {
    stage_.watch.uses.clear();
    auto *handle = static_cast<HMEMHEAP>(untouched());
    const std::int16_t result = stage_.mem.MEM_HeapOpen(&handle, areaLen, subPool);
    recordOpen(result, handle, areaLen, subPool, {});
  }

  // REQUIRES for all below: isOpen()

  void alloc(std::int32_t len, bool asShort) {
    void *entry = untouched();
    const std::int16_t result =
        asShort ? stage_.mem.MEM_HeapAllocEntry(handle_, static_cast<std::int16_t>(len), &entry)
                : stage_.mem.MEM_HeapAllocEntryLong(handle_, len, &entry);
    recordAlloc(result, entry, len, entryOfModel(len));
  }

  void chain(std::int32_t len, std::int32_t count, std::int16_t linkOff, bool asShort) {
    void *first = untouched();
    const std::int16_t result =
        asShort
            ? stage_.mem.MEM_HeapAllocMultEntries(handle_, static_cast<std::int16_t>(len),
                                                  static_cast<std::int16_t>(count), linkOff, &first)
            : stage_.mem.MEM_HeapAllocLongMultEntries(handle_, len, count, linkOff, &first);
    recordChain(result, first, len, count, linkOff, entryOfModel(len));
  }

  void check() const { expectIntact(); }

  void close() {
    check();
    Lines expected = beginClose();
    expected.insert(expected.begin(), "11(" + hex16(handle_) + ")");
    EXPECT_EQ(stage_.mem.MEM_HeapClose(handle_), 0);
    endClose(expected);
  }

 private:
  EntryOfModel entryOfModel(std::int32_t len) {
    return [this, len](StorageTrail &trail, Outcome &outcome) {
      return model().alloc(len, trail, outcome);
    };
  }
};

// Hash functions for keys of any length: by the first byte.
template <int kBuckets>
std::int16_t firstByteModulo(const void *pKey) {
  return static_cast<std::int16_t>(*static_cast<const std::uint8_t *>(pKey) % kBuckets);
}

struct TableShape {
  std::int16_t keyOff;
  std::int16_t keyLen;
  int buckets;
  MEMHashFunc function;
  std::int16_t len;  // of every record
  std::int16_t areaLen;
  std::uint16_t subPool;
};

// A table of the library with its model: a list of records for each bucket, a stack of deleted
// nodes and a heap.
class CheckedTable {
 public:
  CheckedTable(Stage &stage, const TableShape &shape)
      : stage_(stage), shape_(shape), buckets_(static_cast<std::size_t>(shape.buckets)) {
    stage_.watch.uses.clear();
    auto *handle = static_cast<HMEMHASH>(untouched());
    const std::int16_t result = stage_.mem.MEM_HashOpen(
        &handle, shape_.keyOff, shape_.keyLen, static_cast<std::int16_t>(shape_.buckets - 1),
        shape_.function, shape_.areaLen, shape_.subPool);
    StorageTrail trail(stage_);
    std::uint8_t *block = trail.take(ctlBlkLen(), shape_.subPool);
    if (block == nullptr) {
      expectOutcome(stage_, result, {4030, "HashCBAllocFail"});
      EXPECT_EQ(handle, untouched());
      return;
    }
    std::uint8_t *header = trail.take(areaSize(), shape_.subPool);
    if (header == nullptr) {
      expectOutcome(stage_, result, {4055, "MemAllocFail"});
      EXPECT_EQ(handle, untouched());
      // The control block is left to the host.
      stage_.mem.MEM_Free(block, ctlBlkLen(), static_cast<std::int16_t>(shape_.subPool));
      return;
    }
    expectOutcome(stage_, result, {});
    EXPECT_EQ(static_cast<void *>(handle), block);
    handle_ = handle;
    heap_.emplace_back(header, areaSize(), shape_.subPool);
  }

  bool isOpen() const { return handle_ != nullptr; }
  std::size_t recordCount() const { return count_; }

  // REQUIRES for all below: isOpen(), and that keys fit in the table's key length.

  void insert(std::uint64_t key) {
    const Bytes input = makeRecord(key);
    void *entry = untouched();
    const std::int16_t result =
        stage_.mem.MEM_HashInsEntry(handle_, shape_.len, input.data(), &entry);
    StorageTrail trail(stage_);
    std::list<Record> &bucket = bucketOf(key);
    const auto found = find(bucket, key);
    if (found != bucket.end()) {
      ++stage_.tally.duplicates;
      EXPECT_EQ(result, 4033);
      EXPECT_EQ(entry, found->address);
      return;
    }
    std::uint8_t *expected = nullptr;
    Outcome outcome;
    if (!deleted_.empty()) {
      ++stage_.tally.reused;
      expected = deleted_.back();
      deleted_.pop_back();
    } else {
      expected = heap_.front().alloc(shape_.len + 15, trail, outcome);
      if (outcome.code == 0) expected += 8;
    }
    expectOutcome(stage_, result, outcome);
    EXPECT_EQ(entry, outcome.code == 0 ? expected : untouched());
    if (outcome.code != 0) return;
    bucket.push_back({key, expected, input});
    ++count_;
    ++stage_.tally.inserted;
  }

  void get(std::uint64_t key) const {
    void *entry = untouched();
    const Bytes bytes = keyBytes(key);
    const std::int16_t result = stage_.mem.MEM_HashGetEntry(handle_, bytes.data(), &entry);
    const StorageTrail none(stage_);
    const std::list<Record> &bucket = bucketOf(key);
    const auto found = find(bucket, key);
    EXPECT_EQ(result, found != bucket.end() ? 0 : 4034);
    EXPECT_EQ(entry, found != bucket.end() ? found->address : untouched());
  }

  void remove(std::uint64_t key) {
    const Bytes bytes = keyBytes(key);
    const std::int16_t result = stage_.mem.MEM_HashDelEntry(handle_, bytes.data());
    const StorageTrail none(stage_);
    std::list<Record> &bucket = bucketOf(key);
    const auto found = find(bucket, key);
    EXPECT_EQ(result, found != bucket.end() ? 0 : 4034);
    if (found == bucket.end()) {
      ++stage_.tally.absent;
      return;
    }
    ++stage_.tally.removed;
    deleted_.push_back(found->address);
    bucket.erase(found);
    --count_;
  }

  // Visits all records; each call gives the next of `results`, then 0.
  void scan(const std::vector<std::int16_t> &results) const {
    Visit visit{{}, &results};
    const std::int16_t result = stage_.mem.MEM_HashScan(handle_, visitRecord, &visit);
    const StorageTrail none(stage_);
    std::vector<std::uint8_t *> expected;
    std::int16_t last = 0;
    for (const std::list<Record> &bucket : buckets_) {
      for (const Record &record : bucket) {
        if (expected.size() < results.size() && results[expected.size()] != 0) {
          last = results[expected.size()];
        }
        expected.push_back(record.address);
      }
    }
    EXPECT_EQ(visit.records, expected);
    EXPECT_EQ(result, last);
  }

  // The table, its heap and all records are as modelled.
  void check() const {
    EXPECT_EQ(eyecatcher(handle_), "QQQQHASH");
    EXPECT_EQ(load<std::uint8_t *>(handle_, 32), heap_.front().header());
    for (std::size_t i = 0; i < buckets_.size(); ++i) {
      const std::uint8_t *node = load<std::uint8_t *>(handle_, 48 + 8 * i);
      for (const Record &record : buckets_[i]) {
        ASSERT_EQ(node + 8, record.address);
        EXPECT_EQ(std::memcmp(record.address, record.bytes.data(), record.bytes.size()), 0);
        node = load<std::uint8_t *>(node, 0);
      }
      EXPECT_EQ(node, nullptr);
    }
    const std::uint8_t *node = load<std::uint8_t *>(handle_, 40);
    for (auto expected = deleted_.rbegin(); expected != deleted_.rend(); ++expected) {
      ASSERT_EQ(node + 8, *expected);
      node = load<std::uint8_t *>(node, 0);
    }
    EXPECT_EQ(node, nullptr);
    heap_.front().expectChains();
  }

  void close() {
    check();
    stage_.watch.uses.clear();
    AddressNames names = heap_.front().names();
    names[asNumber(handle_)] = "table";
    Lines expected = heap_.front().closingLines();
    expected.insert(expected.begin(), "11(" + hex16(heap_.front().header()) + ")");
    expected.push_back("9(table, " + std::to_string(ctlBlkLen()) + ", " +
                       std::to_string(static_cast<std::int16_t>(shape_.subPool)) + ")");
    EXPECT_EQ(stage_.mem.MEM_HashClose(handle_), 0);
    EXPECT_EQ(stage_.watch.takeLines(names), expected);
    handle_ = nullptr;
  }

 private:
  struct Record {
    std::uint64_t key;
    std::uint8_t *address;
    Bytes bytes;
  };
  struct Visit {
    std::vector<std::uint8_t *> records;
    const std::vector<std::int16_t> *results;
  };

  static std::int16_t visitRecord(void *pRecord, void *pParm) {
    auto &visit = *static_cast<Visit *>(pParm);
    visit.records.push_back(static_cast<std::uint8_t *>(pRecord));
    const std::size_t call = visit.records.size() - 1;
    return call < visit.results->size() ? (*visit.results)[call] : std::int16_t{0};
  }

  std::uint32_t ctlBlkLen() const { return static_cast<std::uint32_t>(shape_.buckets * 8 + 48); }
  std::uint32_t areaSize() const { return static_cast<std::uint32_t>(shape_.areaLen) * 1024; }

  // A key as bytes, lowest first, with zeros after the eighth.
  Bytes keyBytes(std::uint64_t key) const {
    Bytes bytes(static_cast<std::size_t>(shape_.keyLen));
    for (std::size_t i = 0; i < bytes.size() && i < 8; ++i) {
      bytes[i] = static_cast<std::uint8_t>(key >> (8 * i));
    }
    return bytes;
  }

  Bytes makeRecord(std::uint64_t key) {
    Bytes record(static_cast<std::size_t>(shape_.len), static_cast<std::uint8_t>(++fill_));
    const Bytes bytes = keyBytes(key);
    std::memcpy(record.data() + shape_.keyOff, bytes.data(), bytes.size());
    return record;
  }

  std::size_t bucketIndex(std::uint64_t key) const {
    return static_cast<std::size_t>((key & 0xFF) % static_cast<unsigned>(shape_.buckets));
  }
  std::list<Record> &bucketOf(std::uint64_t key) { return buckets_[bucketIndex(key)]; }
  const std::list<Record> &bucketOf(std::uint64_t key) const { return buckets_[bucketIndex(key)]; }

  template <class Bucket>
  static auto find(Bucket &bucket, std::uint64_t key) -> decltype(bucket.begin()) {
    return std::find_if(bucket.begin(), bucket.end(),
                        [key](const Record &record) { return record.key == key; });
  }

  Stage &stage_;
  const TableShape shape_;
  HMEMHASH handle_ = nullptr;
  std::vector<HeapModel> heap_;             // one, once the table is open
  std::vector<std::list<Record>> buckets_;  // in order of insertion
  std::vector<std::uint8_t *> deleted_;     // the last is reused first
  std::size_t count_ = 0;
  unsigned fill_ = 0;
};

}  // namespace memtest
