// Hash tables: records of 16 bytes with a key of 8. The library's table always has 1,023 buckets,
// so the number of records determines the length of its chains; the others grow.
#include <absl/container/flat_hash_map.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <unordered_map>
#include <vector>

#include "peers_tables.hpp"
#include "peers_work.hpp"

namespace bench {

namespace {

struct Record {
  std::uint64_t key;
  std::uint64_t value;
};

constexpr std::int16_t kLastBucket = 1022;
constexpr std::uint64_t kBuckets = kLastBucket + 1;

std::int16_t bucketOf(const void *pKey) {
  std::uint64_t key;
  std::memcpy(&key, pKey, sizeof key);
  return static_cast<std::int16_t>(key % kBuckets);
}

std::uint64_t keyOf(std::uint64_t number) {
  return number * 7919;
}

class LibraryTable {
 public:
  explicit LibraryTable(BenchSession &session) : mem_(session.mem()) {}
  ~LibraryTable() { close(); }
  LibraryTable(const LibraryTable &) = delete;
  LibraryTable &operator=(const LibraryTable &) = delete;

  void open() {
    close();
    require(mem_.MEM_HashOpen(&table_, 0, sizeof(Record::key), kLastBucket, bucketOf, 64, 0),
            "MEM_HashOpen");
  }
  void insert(const Record &record) {
    void *stored = nullptr;
    mem_.MEM_HashInsEntry(table_, sizeof record, &record, &stored);
  }
  const Record *get(std::uint64_t key) {
    void *found = nullptr;
    return mem_.MEM_HashGetEntry(table_, &key, &found) == 0 ? static_cast<const Record *>(found)
                                                            : nullptr;
  }
  void remove(std::uint64_t key) { mem_.MEM_HashDelEntry(table_, &key); }

 private:
  void close() {
    if (table_ != nullptr) mem_.MEM_HashClose(table_);
    table_ = nullptr;
  }

  MEMFunctionVector &mem_;
  HMEMHASH table_ = nullptr;
};

template <class Map>
class MapTable {
 public:
  void open() { map_ = Map(); }
  void insert(const Record &record) { map_.emplace(record.key, record); }
  const Record *get(std::uint64_t key) {
    const auto found = map_.find(key);
    return found == map_.end() ? nullptr : &found->second;
  }
  void remove(std::uint64_t key) { map_.erase(key); }

 private:
  Map map_;
};
using StdTable = MapTable<std::unordered_map<std::uint64_t, Record>>;
using AbslTable = MapTable<absl::flat_hash_map<std::uint64_t, Record>>;

// The work of MEM_HashGetEntry that its contract requires in addition to the frame: call the
// caller's function, and read the link and the key of every record up to the wanted one. A table
// without the library, with chains of the same order in one block of storage.
class FloorTable {
 public:
  void open() {
    nodes_.clear();
    nodes_.reserve(20000);
    buckets_.assign(kBuckets, Bucket{});
  }
  void insert(const Record &record) {
    nodes_.push_back({nullptr, record});
    Bucket &bucket = buckets_[static_cast<std::size_t>(bucketOf(&record.key))];
    (bucket.last == nullptr ? bucket.first : bucket.last->next) = &nodes_.back();
    bucket.last = &nodes_.back();
  }
  const Record *get(std::uint64_t key) {
    const Node *node = buckets_[static_cast<std::size_t>(function_(&key))].first;
    while (node != nullptr && node->record.key != key) node = node->next;
    return node == nullptr ? nullptr : &node->record;
  }

 private:
  struct Node {
    Node *next;
    Record record;
  };
  struct Bucket {
    Node *first = nullptr;
    Node *last = nullptr;
  };
  std::int16_t (*volatile function_)(const void *) = bucketOf;
  std::vector<Node> nodes_;
  std::vector<Bucket> buckets_;
};

// Records in a mixed order, the same for all.
template <class Table>
class HashWork {
 public:
  template <class... Args>
  explicit HashWork(std::size_t count, Args &...args) : table_(args...) {
    for (std::uint64_t i = 0; i < count; ++i) records_.push_back({keyOf(i), i});
    std::shuffle(records_.begin(), records_.end(), std::mt19937(1));
    order_ = records_;
    std::shuffle(order_.begin(), order_.end(), std::mt19937(2));
  }

  void check() {
    fill();
    for (const Record &record : order_) {
      const Record *found = table_.get(record.key);
      demand(found != nullptr && found->value == record.value, "a record is not found");
    }
    demand(table_.get(keyOf(records_.size())) == nullptr, "a record is found that does not exist");
    if constexpr (requires { table_.remove(0); }) {
      for (const Record &record : order_) table_.remove(record.key);
      for (const Record &record : order_) {
        demand(table_.get(record.key) == nullptr, "a deleted record is found");
      }
    }
  }

 protected:
  void fill() {
    table_.open();
    for (const Record &record : records_) table_.insert(record);
  }
  std::int64_t count() const { return static_cast<std::int64_t>(records_.size()); }

  Table table_;
  std::vector<Record> records_;
  std::vector<Record> order_;  // of look-ups and deletes
};

template <class Table>
class Insert : public HashWork<Table> {
 public:
  using HashWork<Table>::HashWork;
  std::int64_t run() {
    this->fill();
    return this->count();
  }
};

template <class Table>
class Get : public HashWork<Table> {
 public:
  template <class... Args>
  explicit Get(std::size_t count, Args &...args) : HashWork<Table>(count, args...) {
    this->fill();
  }
  std::int64_t run() {
    for (const Record &record : this->order_) {
      benchmark::DoNotOptimize(this->table_.get(record.key));
    }
    return this->count();
  }
};

template <class Table>
class Delete : public HashWork<Table> {
 public:
  using HashWork<Table>::HashWork;
  void prepare() { this->fill(); }
  std::int64_t run() {
    for (const Record &record : this->order_) this->table_.remove(record.key);
    return this->count();
  }
};

template <template <class> class Work>
void addTable(const std::string &table, const std::string &service) {
  for (const std::size_t count : {1000U, 3000U, 10000U}) {
    const std::string column = "/" + std::to_string(count);
    const auto library = [count](BenchSession &session) {
      return Work<LibraryTable>(count, session);
    };
    addLibrary(table + "/" + service + column, HostKind::bench, library);
    addLibrary(table + "/" + service + " (reference host)" + column, HostKind::reference, library);
    addPeer(table + "/std::unordered_map" + column, [count] { return Work<StdTable>(count); });
    addPeer(table + "/absl::flat_hash_map" + column, [count] { return Work<AbslTable>(count); });
  }
}

}  // namespace

void addHashes() {
  addTable<Insert>("hash-insert", "MEM_HashInsEntry");
  addTable<Get>("hash-get", "MEM_HashGetEntry");
  addTable<Delete>("hash-delete", "MEM_HashDelEntry");
  for (const std::size_t count : {1000U, 3000U, 10000U}) {
    addPeer("floor-hash/chain walk/" + std::to_string(count),
            [count] { return Get<FloorTable>(count); });
  }
}

}  // namespace bench
