// Long chains in tables of the library's own packer and port string writer: whatever answers, the
// table must be the one that a walk of its chains would give, and storage must be accounted for.

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include "heaptest.hpp"
#include "portdefs.hpp"
#include "randomrun.hpp"

namespace memtest {
namespace {

constexpr std::int16_t kDuplicate = 4033;
constexpr std::int16_t kNotFound = 4034;
constexpr std::size_t kLongestWalked = 64;

struct Record {
  std::uint64_t value;
  std::uint64_t key;
};
constexpr std::int16_t kKeyOff = 8;

// A hash function of a caller's own that puts everything into one bucket.
std::int16_t oneBucket(const void *) {
  return 0;
}

// Where the library's own tables put an address on a little-endian host: by its lowest byte.
std::int16_t packerBucket(std::uint64_t key) {
  return static_cast<std::int16_t>((key & 0xFF) >> 1);
}

struct Structure {
  std::uint64_t number;
};

class HashIndexTest : public HeapHashTest {
 protected:
  ~HashIndexTest() override {
    if (table != nullptr) close();
  }

  // A table that may have an index: one of the packer's. The host opens it with arguments of its
  // own and keeps it when the packer closes it; the packer's records do not come into it.
  void open(std::int16_t keyLen = 8, MEMHashFunc function = nullptr) {
    static MEMFunctionVector own;
    static HMEMHASH kept;
    static std::int16_t keyLenAsked;
    static MEMHashFunc functionAsked;
    static std::uint8_t storedRecord[64];
    own = mem;
    kept = nullptr;
    keyLenAsked = keyLen;
    functionAsked = function;
    mem.MEM_HashOpen = [](HMEMHASH *phHash, std::int16_t, std::int16_t, std::int16_t max,
                          MEMHashFunc pFunc, std::int16_t, std::uint16_t) {
      const MEMHashFunc asked = functionAsked == nullptr ? pFunc : functionAsked;
      const std::int16_t result =
          own.MEM_HashOpen(&kept, kKeyOff, keyLenAsked, max, asked, 64, kSubPool);
      *phHash = kept;
      return result;
    };
    mem.MEM_HashInsEntry = [](HMEMHASH, std::int16_t len, const void *record, void **ppNew) {
      std::memcpy(storedRecord, record, static_cast<std::size_t>(len));
      *ppNew = storedRecord;
      return std::int16_t{0};
    };
    mem.MEM_HashClose = [](HMEMHASH) { return std::int16_t{0}; };
    packOne();
    mem = own;
    table = kept;
    ASSERT_NE(table, nullptr);
  }

  void packOne() {
    MemPackCB cb{};
    cb.Count = 1;
    cb.Descriptors[0].Type = MEM_PACK_FIXED;
    cb.Descriptors[0].FixedLen = sizeof(Structure);
    cb.Descriptors[0].SiblingOff = MEM_PACK_NO_SIBLING;
    const Structure structure{1};
    MemPackBlock *first = nullptr;
    ASSERT_EQ(mem.MEM_Pack(&cb, &structure, 1024, &first), 0);
    mem.MEM_Free(first, 1024, 0);
  }

  void close() {
    ASSERT_EQ(mem.MEM_HashClose(table), 0);
    table = nullptr;
  }

  void insert(std::uint64_t key) {
    const Record record{key * 3, key};
    void *stored = nullptr;
    ASSERT_EQ(mem.MEM_HashInsEntry(table, sizeof record, &record, &stored), 0);
    expectNoError();
    EXPECT_EQ(static_cast<Record *>(stored)->key, key);
    chains[static_cast<std::size_t>(bucketOf(key))].push_back(key);
  }

  void expectKnown(std::uint64_t key) {
    void *found = nullptr;
    ASSERT_EQ(mem.MEM_HashGetEntry(table, &key, &found), 0) << key;
    EXPECT_EQ(static_cast<Record *>(found)->value, key * 3);
    const Record again{0, key};
    void *there = nullptr;
    ASSERT_EQ(mem.MEM_HashInsEntry(table, sizeof again, &again, &there), kDuplicate) << key;
    EXPECT_EQ(there, found);
    EXPECT_EQ(static_cast<Record *>(found)->value, key * 3) << "nothing is copied";
  }

  void expectUnknown(std::uint64_t key) {
    void *found = untouched();
    EXPECT_EQ(mem.MEM_HashGetEntry(table, &key, &found), kNotFound) << key;
    EXPECT_EQ(found, untouched());
  }

  void remove(std::uint64_t key) {
    ASSERT_EQ(mem.MEM_HashDelEntry(table, &key), 0) << key;
    std::vector<std::uint64_t> &chain = chains[static_cast<std::size_t>(bucketOf(key))];
    chain.erase(std::find(chain.begin(), chain.end(), key));
  }

  // The chains in storage hold exactly what was inserted, in that order.
  void expectChains() {
    for (std::size_t bucket = 0; bucket < 128; ++bucket) {
      std::vector<std::uint64_t> keys;
      void *node = load<void *>(table, 48 + 8 * bucket);
      for (; node != nullptr; node = load<void *>(node, 0)) {
        keys.push_back(load<std::uint64_t>(node, 8 + kKeyOff));
      }
      EXPECT_EQ(keys, chains[bucket]) << "bucket " << bucket;
    }
  }

  std::int16_t bucketOf(std::uint64_t key) const { return isOneBucket ? 0 : packerBucket(key); }

  HMEMHASH table = nullptr;
  std::vector<std::uint64_t> chains[128];
  bool isOneBucket = false;
};

// Storage areas of the table's subpool: control block and heap areas; anything more is an index.
class Areas {
 public:
  Areas(refhost::Host &host, std::uint16_t subPool) : host_(host), subPool_(subPool) {}
  std::uint64_t obtained() const { return host_.account(subPool_).totalCount; }
  std::uint64_t live() const { return host_.account(subPool_).liveCount; }

 private:
  refhost::Host &host_;
  std::uint16_t subPool_;
};

TEST_F(HashIndexTest, ChainsUpTo64NodesObtainNothing) {
  const Areas areas(host, kSubPool);
  open();
  const std::uint64_t before = areas.obtained();
  for (std::uint64_t i = 0; i < kLongestWalked; ++i) insert(0x1000 + 256 * i);
  EXPECT_EQ(areas.obtained(), before);
  insert(0x1000 + 256 * kLongestWalked);
  EXPECT_EQ(areas.obtained(), before + 1) << "the chain has grown past 64";
  expectChains();
}

// The index comes with the 17th node of a chain, if it is at least the 129th of the table.
TEST_F(HashIndexTest, ChainsUpTo16NodesOfMoreThan128ObtainNothing) {
  for (const std::uint64_t others : {111U, 112U}) {
    for (std::vector<std::uint64_t> &chain : chains) chain.clear();
    open();
    for (std::uint64_t i = 0; i < others; ++i) insert(0x1002 + 2 * (i % 7) + 256 * (i / 7));
    for (std::uint64_t i = 0; i < 16; ++i) insert(0x1000 + 256 * i);
    EXPECT_EQ(env().pMemThreadBlk->pHashIndexes, nullptr);
    insert(0x1000 + 256 * 16);
    EXPECT_EQ(env().pMemThreadBlk->pHashIndexes != nullptr, others == 112);
    for (std::uint64_t i = 0; i <= 16; ++i) expectKnown(0x1000 + 256 * i);
    expectChains();
    close();
  }
}

TEST_F(HashIndexTest, ManyShortChainsObtainNothingUpTo2048Nodes) {
  const Areas areas(host, kSubPool);
  open();
  const std::uint64_t before = areas.obtained();
  const auto indexes = [&] { return env().pMemThreadBlk->pHashIndexes; };
  for (std::uint64_t i = 0; i < 2048; ++i) insert(0x1000 + 2 * i);  // 16 in each of 128 buckets
  EXPECT_EQ(indexes(), nullptr);
  insert(0x1000 + 2 * 2048);
  EXPECT_NE(indexes(), nullptr);
  EXPECT_GT(areas.obtained(), before);
  for (std::uint64_t i = 0; i <= 2048; ++i) expectKnown(0x1000 + 2 * i);
  expectChains();
}

TEST_F(HashIndexTest, ClosingReturnsTheIndex) {
  const Areas areas(host, kSubPool);
  const std::uint64_t before = areas.live();
  open();
  for (std::uint64_t i = 0; i < 5000; ++i) insert(0x1000 + 8 * i);
  EXPECT_NE(env().pMemThreadBlk->pHashIndexes, nullptr);
  close();
  EXPECT_EQ(areas.live(), before);
  EXPECT_EQ(env().pMemThreadBlk->pHashIndexes, nullptr);
}

TEST_F(HashIndexTest, ManyAddressesInAnyOrderStayFindable) {
  open();
  std::mt19937_64 random(20261121);
  std::vector<std::uint64_t> keys;
  for (std::uint64_t i = 0; i < 20000; ++i) keys.push_back(0x7F0000000000 + 8 * i);
  std::shuffle(keys.begin(), keys.end(), random);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    insert(keys[i]);
    if (i % 97 == 0) expectKnown(keys[random() % (i + 1)]);
    if (i % 101 == 0) expectUnknown(keys[i] + 4);
  }
  for (const std::uint64_t key : keys) expectKnown(key);
  expectChains();
}

// Neighbours crowd the index, and some of the crowds reach its end. What is put beyond it is lost
// when it grows.
TEST_F(HashIndexTest, NeighboursAtTheIndexsEndStayFindable) {
  for (std::uint64_t base = 0x1000000; base < 0x3000000; base += 0x123000) {
    for (std::vector<std::uint64_t> &chain : chains) chain.clear();
    open();
    for (std::uint64_t i = 0; i <= kLongestWalked; ++i) insert(base + 256 * i);
    for (std::uint64_t i = 0; i < 400; ++i) insert(base + 0x10000 + 4096 * (i / 50) + 2 * (i % 50));
    for (std::uint64_t i = 0; i < 100; ++i) insert(base + 0x20000 + 4096 * i);
    for (const std::vector<std::uint64_t> &chain : chains) {
      for (const std::uint64_t key : chain) expectKnown(key);
    }
    expectChains();
    close();
  }
}

// More keys than the index has places for in their pages, as it is made and while it grows.
TEST_F(HashIndexTest, KeysCloseTogetherStayFindable) {
  for (const std::uint64_t apart : {1U, 2U, 3U, 4U, 8U, 12U, 17U}) {
    for (std::vector<std::uint64_t> &chain : chains) chain.clear();
    open();
    const auto keyAt = [apart](std::uint64_t i) { return 0x1003 + apart * i; };
    for (std::uint64_t i = 0; i < 20000; ++i) insert(keyAt(i * 7 % 20000));
    for (std::uint64_t i = 0; i < 20000; ++i) expectKnown(keyAt(i));
    expectUnknown(keyAt(20000));
    if (apart > 1) expectUnknown(keyAt(10000) + 1);
    expectChains();
    close();
  }
}

TEST_F(HashIndexTest, ZeroAndExtremeKeysAreKeysLikeOthers) {
  open();
  for (std::uint64_t i = 1; i <= 100; ++i) insert(256 * i);
  expectUnknown(0);
  expectUnknown(~std::uint64_t{0});
  insert(0);
  insert(~std::uint64_t{0});
  expectKnown(0);
  expectKnown(~std::uint64_t{0});
  expectChains();
}

TEST_F(HashIndexTest, DeletingGivesTheIndexUpAndKeepsTheTable) {
  open();
  for (std::uint64_t i = 0; i < 3000; ++i) insert(0x2000 + 8 * i);
  ASSERT_NE(env().pMemThreadBlk->pHashIndexes, nullptr);
  remove(0x2000 + 8 * 500);
  EXPECT_EQ(env().pMemThreadBlk->pHashIndexes, nullptr);
  expectUnknown(0x2000 + 8 * 500);
  expectKnown(0x2000);
  insert(0x2000 + 8 * 3500);
  insert(0x2000 + 8 * 500);  // at its chain's end now
  expectKnown(0x2000 + 8 * 3500);
  expectChains();
  for (std::uint64_t i = 4000; i < 6000; ++i) insert(0x2000 + 8 * i);
  expectChains();
}

TEST_F(HashIndexTest, TwoTablesOfAThreadKeepApart) {
  open();
  for (std::uint64_t i = 0; i < 3000; ++i) insert(0x1000 + 8 * i);
  const HMEMHASH first = table;
  open();
  const HMEMHASH second = table;
  table = first;
  for (std::uint64_t i = 0; i < 3000; ++i) {
    const Record record{7, 0x1000 + 8 * i};
    void *stored = nullptr;
    ASSERT_EQ(mem.MEM_HashInsEntry(second, sizeof record, &record, &stored), 0);
  }
  for (std::uint64_t i = 3000; i < 3100; ++i) insert(0x1000 + 8 * i);
  const std::uint64_t key = 0x1000;
  void *found = nullptr;
  ASSERT_EQ(mem.MEM_HashGetEntry(second, &key, &found), 0);
  EXPECT_EQ(static_cast<Record *>(found)->value, 7U);
  expectKnown(key);
  close();
  ASSERT_EQ(mem.MEM_HashGetEntry(second, &key, &found), 0);
  EXPECT_EQ(static_cast<Record *>(found)->value, 7U);
  ASSERT_EQ(mem.MEM_HashClose(second), 0);
}

// A caller's keys may change in place, so its chains are always walked, whatever function it gives.
TEST_F(HashIndexTest, CallersTablesNeverGetOne) {
  open();
  const auto packers = load<MEMHashFunc>(table, 16);
  close();
  for (const MEMHashFunc function : {oneBucket, packers}) {
    ASSERT_EQ(mem.MEM_HashOpen(&table, kKeyOff, 8, 127, function, 64, kSubPool), 0);
    isOneBucket = function == oneBucket;
    const Areas areas(host, kSubPool);
    const std::uint64_t before = areas.obtained();
    for (std::uint64_t i = 0; i < 1000; ++i) insert(256 * i);
    EXPECT_EQ(areas.obtained(), before);
    std::uint64_t key = 256 * 900;
    void *found = nullptr;
    ASSERT_EQ(mem.MEM_HashGetEntry(table, &key, &found), 0);
    static_cast<Record *>(found)->key = 256 * 5000;
    key = 256 * 5000;
    void *moved = nullptr;
    EXPECT_EQ(mem.MEM_HashGetEntry(table, &key, &moved), 0);
    EXPECT_EQ(moved, found);
    close();
  }
}

// A host that opens tables itself may leave anything in the gaps of the control block.
TEST_F(HashIndexTest, JunkInACallersTableAllowsNone) {
  for (const auto junk :
       std::initializer_list<std::uint16_t>{1, 2, 0x8001, 0xA5A5, 0xCDCD, 0xEEEE, 0xFFFF}) {
    ASSERT_EQ(mem.MEM_HashOpen(&table, kKeyOff, 8, 127, oneBucket, 256, kSubPool), 0);
    isOneBucket = true;
    for (std::vector<std::uint64_t> &chain : chains) chain.clear();
    store(table, 14, junk);
    store(table, 26, junk);
    const Areas areas(host, kSubPool);
    const std::uint64_t before = areas.obtained();
    for (std::uint64_t i = 0; i < 2200; ++i) insert(256 * i);
    EXPECT_EQ(areas.obtained(), before) << junk;
    expectChains();
    close();
  }
}

// The packer vouches for its own hash function only, and sees it called for each key otherwise.
TEST_F(HashIndexTest, AnotherFunctionThatAHostHasPutInGetsNone) {
  isOneBucket = true;
  const Areas areas(host, kSubPool);
  open(8, oneBucket);
  const std::uint64_t before = areas.obtained();
  for (std::uint64_t i = 0; i < 1000; ++i) insert(i);
  EXPECT_EQ(areas.obtained(), before);
  expectChains();
}

TEST_F(HashIndexTest, KeysOfAnotherLengthNeverGetOne) {
  const Areas areas(host, kSubPool);
  // Also where a host's own service has left something in the block's gaps.
  for (const auto state : std::initializer_list<std::uint16_t>{0, 1, 2, 0xA5A5}) {
    for (std::vector<std::uint64_t> &chain : chains) chain.clear();
    open(7);
    if (state != 0) store(table, 14, state);
    store<std::uint16_t>(table, 26, 2048);
    const std::uint64_t before = areas.obtained();
    for (std::uint64_t i = 0; i < 200; ++i) insert(0x1000 + 256 * i);
    EXPECT_EQ(areas.obtained(), before);
    expectChains();
    close();
  }
}

TEST_F(HashIndexTest, WithoutAThreadBlockChainsAreWalked) {
  const Areas areas(host, kSubPool);
  open();
  MEMThreadBlock *const block = env().pMemThreadBlk;
  env().pMemThreadBlk = nullptr;
  const std::uint64_t before = areas.obtained();
  for (std::uint64_t i = 0; i < 1000; ++i) insert(0x1000 + 8 * i);
  EXPECT_EQ(areas.obtained(), before);
  expectKnown(0x1000);
  expectChains();
  env().pMemThreadBlk = block;
}

// An index that appears, or is asked for, while its thread block is away.
TEST_F(HashIndexTest, ATableWhoseThreadBlockIsAwayIsWalked) {
  open();
  for (std::uint64_t i = 0; i < 3000; ++i) insert(0x1000 + 8 * i);
  MEMThreadBlock *const block = env().pMemThreadBlk;
  env().pMemThreadBlk = nullptr;
  expectKnown(0x1000 + 8 * 2999);
  expectUnknown(0x1000 + 8 * 3000);
  env().pMemThreadBlk = block;
  expectKnown(0x1000 + 8 * 2999);
  expectChains();
}

// Storage that is refused costs speed only: no result and no error area shows it.
TEST_F(HashIndexTest, RefusedStorageLeavesTheTableAsItWouldBe) {
  constexpr std::uint64_t kKeys = 70000;  // three areas in turn
  for (std::uint64_t refused = 1; refused <= 3; ++refused) {
    for (std::vector<std::uint64_t> &chain : chains) chain.clear();
    open();
    static std::uint64_t asked;
    static std::uint64_t refusedNow;
    static MEMThreadEnv *thread;
    static MEM_AllocFn *own;
    asked = 0;
    refusedNow = refused;
    thread = &env();
    own = mem.MEM_Alloc;
    mem.MEM_Alloc = [](std::uint32_t size, std::int16_t subPool) -> void * {
      constexpr std::uint32_t kHeapArea = 64 * 1024;
      if (size != kHeapArea && ++asked >= refusedNow) {
        thread->Error.Code = 99;  // as a host does
        return nullptr;
      }
      return own(size, subPool);
    };
    for (std::uint64_t i = 0; i < kKeys; ++i) insert(0x1000 + 8 * i);
    mem.MEM_Alloc = own;
    // The first request is for a fresh index. One that has to grow asks for less, too.
    EXPECT_EQ(asked, refused == 1 ? 1 : refused + 1) << "a refusal is final";
    for (std::uint64_t i = 0; i < kKeys; i += 501) expectKnown(0x1000 + 8 * i);
    expectUnknown(0x1000 + 8 * kKeys);
    expectChains();
    close();
    EXPECT_EQ(env().pMemThreadBlk->pHashIndexes, nullptr);
  }
}

TEST_F(HashIndexTest, AnIndexThatMayNotGrowFourfoldDoubles) {
  constexpr std::uint64_t kKeys = 70000;
  static std::uint64_t refused;
  static std::uint32_t mostObtained;
  static MEM_AllocFn *own;
  refused = 0;
  mostObtained = 0;
  own = mem.MEM_Alloc;
  open();
  mem.MEM_Alloc = [](std::uint32_t size, std::int16_t subPool) -> void * {
    if (mostObtained != 0 && size > 3 * mostObtained) {
      ++refused;
      return nullptr;
    }
    constexpr std::uint32_t kHeapArea = 64 * 1024;
    if (size != kHeapArea) mostObtained = std::max(mostObtained, size);
    return own(size, subPool);
  };
  for (std::uint64_t i = 0; i < kKeys; ++i) insert(0x1000 + 8 * i);
  mem.MEM_Alloc = own;
  EXPECT_GT(refused, 1U);
  EXPECT_GT(mostObtained, 2 * kKeys * 16) << "slots of 16 bytes, at most half of them in use";
  EXPECT_NE(env().pMemThreadBlk->pHashIndexes, nullptr);
  expectChains();
}

// Deletions give the index up. The next one may find a single node.
TEST_F(HashIndexTest, AnIndexOfFewNodesAnswers) {
  for (std::uint64_t left = 0; left < 4; ++left) {
    for (std::vector<std::uint64_t> &chain : chains) chain.clear();
    open();
    for (std::uint64_t i = 0; i <= 2048; ++i) insert(0x1000 + 2 * i);
    for (std::uint64_t i = left; i <= 2048; ++i) remove(0x1000 + 2 * i);
    EXPECT_EQ(env().pMemThreadBlk->pHashIndexes, nullptr);
    for (std::uint64_t i = 0; i < 20; ++i) {
      insert(0x9000 + 2 * i);
      EXPECT_NE(env().pMemThreadBlk->pHashIndexes, nullptr);
      expectUnknown(0x9000 + 2 * i + 2);
      expectKnown(0x9000);
    }
    expectChains();
    close();
  }
}

// The port string writer's tables, too: a list of more structures than chains are walked for.
TEST_F(HashIndexTest, APortStringsRegistryGetsOne) {
  struct Item {
    const Item *next;
  };
  Defs defs;
  defs.add(1, sizeof(Item), {Field(1, MEM_PORT_PNT, 8, 0).of(1)});
  std::vector<Item> items(5000);
  for (std::size_t i = 0; i + 1 < items.size(); ++i) items[i].next = &items[i + 1];

  static MEM_HashCloseFn *own;
  static MEMThreadEnv *thread;
  static void *indexes;
  own = mem.MEM_HashClose;
  thread = &env();
  indexes = nullptr;
  mem.MEM_HashClose = [](HMEMHASH registry) {
    indexes = thread->pMemThreadBlk->pHashIndexes;
    return own(registry);
  };
  HMEMHEAP heap = nullptr;
  ASSERT_EQ(mem.MEM_HeapOpen(&heap, 16, kSubPool), 0);
  std::uint32_t length = 0;
  MEMPortChunk *chunk = nullptr;
  EXPECT_EQ(mem.MEM_StructToPortStr(defs.table(), 1, items.data(), 0, heap, &length, &chunk), 0);
  EXPECT_NE(indexes, nullptr);
  EXPECT_EQ(env().pMemThreadBlk->pHashIndexes, nullptr);
  mem.MEM_HashClose = own;
  EXPECT_EQ(mem.MEM_HeapClose(heap), 0);
}

// A host's own services for the same tables, which know nothing of an index: the table's blocks are
// public.

struct OwnServices {
  inline static MEM_HeapAllocEntryFn *allocEntry;

  static void **linkTo(HMEMHASH table, const void *key) {
    const auto bucket = static_cast<std::size_t>(load<MEMHashFunc>(table, 16)(key));
    void **link = reinterpret_cast<void **>(at(table, 48 + 8 * bucket));
    while (*link != nullptr && std::memcmp(at(*link, 8 + kKeyOff), key, 8) != 0) {
      link = static_cast<void **>(*link);
    }
    return link;
  }

  static std::int16_t insert(HMEMHASH table, std::int16_t len, const void *record, void **ppNew) {
    void **link = linkTo(table, static_cast<const std::uint8_t *>(record) + kKeyOff);
    const bool isThere = *link != nullptr;
    if (!isThere) {
      void *node = load<void *>(table, 40);
      if (node != nullptr) {
        store(table, 40, load<void *>(node, 0));
      } else {
        allocEntry(load<HMEMHEAP>(table, 32), static_cast<std::int16_t>(len + 15), &node);
      }
      store<void *>(node, 0, nullptr);
      std::memcpy(at(node, 8), record, static_cast<std::size_t>(len));
      *link = node;
    }
    *ppNew = at(*link, 8);
    return isThere ? kDuplicate : std::int16_t{0};
  }

  static std::int16_t remove(HMEMHASH table, const void *key) {
    void **link = linkTo(table, key);
    void *node = *link;
    if (node == nullptr) return kNotFound;
    *link = load<void *>(node, 0);
    store(node, 0, load<void *>(table, 40));
    store(table, 40, node);
    return 0;
  }
};

// A table that is changed past its index, against a model of plain chains: results, addresses, the
// order of the chains and of a scan, and storage.
class PastTheIndexTest : public HashIndexTest {
 protected:
  // Who works on the table: the library as usual, the host's own services, the library in a frame
  // without thread environment, in one without thread block, and on another thread.
  enum class By { library, host, noEnvironment, noThreadBlock, otherThread };
  static constexpr By kAll[] = {By::library, By::host, By::noEnvironment, By::noThreadBlock,
                                By::otherThread};
  static constexpr std::uint64_t kFirst = 0x2000;
  static constexpr std::uint64_t kCount = 210;  // in three chains: enough for an index

  PastTheIndexTest() {
    OwnServices::allocEntry = mem.MEM_HeapAllocEntry;
    firstBlock_ = env().pMemThreadBlk;
    env().pMemThreadBlk = nullptr;
    EXPECT_EQ(mem.MEM_ThreadAct(), 0);
    otherBlock_ = env().pMemThreadBlk;
    env().pMemThreadBlk = firstBlock_;
  }

  ~PastTheIndexTest() override {
    if (table != nullptr) close();
    firstBlock_ = env().pMemThreadBlk;
    env().pMemThreadBlk = otherBlock_;
    EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
    env().pMemThreadBlk = firstBlock_;
  }

  template <class Call>
  void by(By who, Call call) {
    const MEMFunctionVector own = mem;
    MEMThreadBlock *const block = env().pMemThreadBlk;
    if (who == By::host) mem.MEM_HashInsEntry = OwnServices::insert;
    if (who == By::host) mem.MEM_HashDelEntry = OwnServices::remove;
    if (who == By::noThreadBlock) env().pMemThreadBlk = nullptr;
    if (who == By::otherThread) env().pMemThreadBlk = otherBlock_;
    host.withoutThreadEnv(who == By::noEnvironment);
    call();
    host.withoutThreadEnv(false);
    env().pMemThreadBlk = block;
    mem.MEM_HashInsEntry = own.MEM_HashInsEntry;
    mem.MEM_HashDelEntry = own.MEM_HashDelEntry;
  }

  void openIndexed() {
    for (std::vector<std::uint64_t> &chain : chains) chain.clear();
    records_.clear();
    deleted_.clear();
    open();
    for (std::uint64_t i = 0; i < kCount; ++i) put(keyAt(i));
    ASSERT_NE(indexes(), nullptr);
  }

  static std::uint64_t keyAt(std::uint64_t i) { return kFirst + 256 * (i / 3) + 8 * (i % 3); }

  void put(std::uint64_t key, By who = By::library) {
    const Record record{key * 3, key};
    void *stored = untouched();
    std::int16_t result = kFailed;
    by(who, [&] { result = mem.MEM_HashInsEntry(table, sizeof record, &record, &stored); });
    const auto known = records_.find(key);
    if (known != records_.end()) {
      ASSERT_EQ(result, kDuplicate) << key;
      ASSERT_EQ(stored, known->second) << key;
      return;
    }
    ASSERT_EQ(result, 0) << key;
    if (!deleted_.empty()) {
      ASSERT_EQ(stored, deleted_.back()) << "deleted nodes are used first, the latest one first";
      deleted_.pop_back();
    }
    records_[key] = stored;
    chains[static_cast<std::size_t>(packerBucket(key))].push_back(key);
  }

  void take(std::uint64_t key, By who = By::library) {
    std::int16_t result = kFailed;
    by(who, [&] { result = mem.MEM_HashDelEntry(table, &key); });
    const auto known = records_.find(key);
    ASSERT_EQ(result, known == records_.end() ? kNotFound : 0) << key;
    if (known == records_.end()) return;
    deleted_.push_back(known->second);
    records_.erase(known);
    std::vector<std::uint64_t> &chain = chains[static_cast<std::size_t>(packerBucket(key))];
    chain.erase(std::find(chain.begin(), chain.end(), key));
  }

  void look(std::uint64_t key, By who = By::library) {
    void *found = untouched();
    std::int16_t result = kFailed;
    by(who, [&] { result = mem.MEM_HashGetEntry(table, &key, &found); });
    const auto known = records_.find(key);
    ASSERT_EQ(result, known == records_.end() ? kNotFound : 0) << key;
    ASSERT_EQ(found, known == records_.end() ? untouched() : known->second) << key;
  }

  // Everything is where plain chains have it, and found there.
  void expectTable() {
    expectChains();
    std::vector<std::uint64_t> expected;
    for (const std::vector<std::uint64_t> &chain : chains) {
      expected.insert(expected.end(), chain.begin(), chain.end());
    }
    static std::vector<std::uint64_t> scanned;
    scanned.clear();
    const auto see = [](void *record, void *) -> std::int16_t {
      scanned.push_back(static_cast<Record *>(record)->key);
      return 0;
    };
    EXPECT_EQ(mem.MEM_HashScan(table, see, nullptr), 0);
    EXPECT_EQ(scanned, expected);
    for (const std::uint64_t key : expected) look(key);
  }

  // The last key of one of the chains, and keys for the same bucket that the table does not have.
  static std::uint64_t lastOf(std::uint64_t chain) { return keyAt(kCount - 3 + chain); }
  static std::uint64_t fresh(std::uint64_t like, std::uint64_t n) {
    return like + 0x100000 * (n + 1);
  }

  void *indexes() { return env().pMemThreadBlk->pHashIndexes; }
  void *otherIndexes() const { return otherBlock_->pHashIndexes; }

  MEMThreadBlock *firstBlock_;
  MEMThreadBlock *otherBlock_;
  std::map<std::uint64_t, void *> records_;
  std::vector<void *> deleted_;  // the last is used first
};

TEST_F(PastTheIndexTest, AnInsertIsFound) {
  for (const By who : kAll) {
    openIndexed();
    const std::uint64_t key = fresh(kFirst, 0);
    put(key, who);
    look(key);
    put(key);
    const std::uint64_t ofEmptyBucket = kFirst + 3;
    put(ofEmptyBucket, who);
    put(ofEmptyBucket);
    look(ofEmptyBucket);
    expectTable();
    close();
  }
}

TEST_F(PastTheIndexTest, AnInsertIsNotLostByTheNextOne) {
  for (const By who : kAll) {
    openIndexed();
    put(fresh(kFirst, 0), who);
    put(fresh(kFirst, 1));
    put(kFirst + 3, who);
    put(fresh(kFirst + 3, 1));
    expectTable();
    close();
  }
}

TEST_F(PastTheIndexTest, ADeletedKeyIsAbsent) {
  for (const By who : kAll) {
    for (const std::uint64_t key : {kFirst, lastOf(0)}) {
      openIndexed();
      take(key, who);
      look(key);
      put(fresh(key, 0));
      put(key);
      expectTable();
      close();
    }
  }
}

// The deleted node is in use again when the library comes next, and the list of deleted nodes is
// what it was.
TEST_F(PastTheIndexTest, ANodeInUseAgainHasItsNewKey) {
  for (const By who : kAll) {
    for (const std::uint64_t key : {kFirst, lastOf(0)}) {
      for (const std::uint64_t next : {fresh(key, 0), fresh(key + 8, 0), key + 3, key}) {
        for (const std::uint64_t then : {next, key, fresh(key, 1), fresh(next, 2)}) {
          openIndexed();
          take(key, who);
          put(next, who);
          look(key);
          look(next);
          put(then);
          expectTable();
          close();
        }
      }
    }
  }
}

// A host's own insert need not look for the key.
TEST_F(PastTheIndexTest, OfTwoRecordsWithOneKeyTheFirstIsFound) {
  open();
  const auto insertAnyway = [&](std::uint64_t key) {
    void *first = *OwnServices::linkTo(table, &key);
    store<std::uint64_t>(first, 8 + kKeyOff, ~key);
    const Record record{0, key};
    void *stored = nullptr;
    EXPECT_EQ(OwnServices::insert(table, sizeof record, &record, &stored), 0);
    store<std::uint64_t>(first, 8 + kKeyOff, key);
  };
  put(kFirst);
  insertAnyway(kFirst);
  for (std::uint64_t i = 1; i < kCount; ++i) put(keyAt(i));
  ASSERT_NE(indexes(), nullptr);
  look(kFirst);
  put(kFirst);
}

// What the library does past its index without a thread block costs the index, and no storage.
TEST_F(PastTheIndexTest, AnIndexThatIsGivenUpIsReturned) {
  const Areas areas(host, kSubPool);
  for (const By who : {By::host, By::noEnvironment, By::noThreadBlock, By::otherThread}) {
    openIndexed();
    const std::uint64_t live = areas.live();
    put(fresh(kFirst, 0), who);
    put(fresh(kFirst, 1));
    EXPECT_EQ(indexes(), nullptr);
    EXPECT_EQ(areas.live(), live - 1);
    // It takes as many nodes again for the next one.
    for (std::uint64_t i = 0; i < 3000; ++i) put(fresh(kFirst, 2) + 8 * i);
    EXPECT_NE(indexes(), nullptr);
    expectTable();
    close();
    EXPECT_EQ(areas.live(), 0U);
  }
}

// The index of another thread that has the table for a while is no help to the first one.
TEST_F(PastTheIndexTest, ATableThatComesBackFromAnotherThreadIsWhole) {
  openIndexed();
  for (std::uint64_t i = 0; i < 4000; ++i) put(fresh(kFirst, 0) + 8 * i, By::otherThread);
  EXPECT_NE(otherIndexes(), nullptr);
  put(fresh(kFirst, 0));
  put(fresh(lastOf(0), 9));
  expectTable();
  for (std::uint64_t i = 0; i < 4000; ++i) put(fresh(kFirst, 1) + 8 * i);
  take(kFirst, By::otherThread);
  EXPECT_EQ(otherIndexes(), nullptr);
  put(fresh(kFirst, 7));
  expectTable();
  close();
  EXPECT_EQ(indexes(), nullptr);
}

// Without a thread block the library does not come to the index of a table that it closes. The
// thread that made it returns it, when a table is opened in the same place or when the thread ends.
TEST_F(PastTheIndexTest, AnIndexOfAClosedTableGoesWithItsThread) {
  for (const By who : {By::noEnvironment, By::noThreadBlock, By::otherThread}) {
    openIndexed();
    by(who, [&] { close(); });
    EXPECT_NE(indexes(), nullptr);
    EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
    EXPECT_EQ(host.account(kSubPool).liveCount, 0U);
    EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  }
}

TEST_F(PastTheIndexTest, ATableAtTheAddressOfAClosedOneHasNothingOfIt) {
  static void *block;
  static MEM_AllocFn *ownAlloc;
  static MEM_FreeFn *ownFree;
  constexpr std::uint32_t kBlockLen = 127 * 8 + 56;
  ownAlloc = mem.MEM_Alloc;
  ownFree = mem.MEM_Free;
  block = ownAlloc(kBlockLen, kSubPool);
  mem.MEM_Alloc = [](std::uint32_t size, std::int16_t subPool) {
    return size == kBlockLen ? block : ownAlloc(size, subPool);
  };
  mem.MEM_Free = [](void *area, std::uint32_t size, std::int16_t subPool) {
    if (area != block) ownFree(area, size, subPool);
  };
  // Opened on the thread of the index, and on another one.
  for (const By opener : {By::library, By::otherThread, By::noThreadBlock}) {
    openIndexed();
    by(By::noEnvironment, [&] { close(); });
    ASSERT_NE(indexes(), nullptr);
    for (std::vector<std::uint64_t> &chain : chains) chain.clear();
    records_.clear();
    by(opener, [&] { open(); });
    if (opener == By::library) {
      EXPECT_EQ(indexes(), nullptr);
    }
    for (std::uint64_t i = 0; i < kCount; ++i) put(fresh(keyAt(i), 0), opener);
    look(kFirst);
    put(kFirst);
    put(lastOf(1));
    expectTable();
    close();
    EXPECT_EQ(indexes(), nullptr);
    EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
    EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  }
  mem.MEM_Free = ownFree;
  mem.MEM_Alloc = ownAlloc;
  mem.MEM_Free(block, kBlockLen, kSubPool);
}

// A host's own table where the library had one that another thread has closed: nothing of it may
// change when the packer opens it.
TEST_F(PastTheIndexTest, AHostsTableAtTheAddressOfAClosedOneIsLeftAlone) {
  static std::uint8_t block[127 * 8 + 56];
  static MEMFunctionVector own;
  static HMEMHASH closed;
  static std::uint8_t storedRecord[64];
  own = mem;
  for (const By closer : {By::otherThread, By::noEnvironment, By::noThreadBlock}) {
    mem.MEM_Alloc = [](std::uint32_t size, std::int16_t subPool) -> void * {
      return size == sizeof block ? block : own.MEM_Alloc(size, subPool);
    };
    mem.MEM_Free = [](void *area, std::uint32_t size, std::int16_t subPool) {
      if (area != block) own.MEM_Free(area, size, subPool);
    };
    ASSERT_EQ(mem.MEM_HashOpen(&closed, 0, 8, 127, oneBucket, 64, kSubPool), 0);
    by(closer, [&] { EXPECT_EQ(mem.MEM_HashClose(closed), 0); });
    mem = own;

    std::memset(block, 0x5A, sizeof block);
    mem.MEM_HashOpen = [](HMEMHASH *phHash, std::int16_t, std::int16_t, std::int16_t,
                          MEMHashFunc pFunc, std::int16_t, std::uint16_t) {
      store<std::int16_t>(block, 10, 8);  // as in a table of the packer's, but for the eye-catcher
      store(block, 16, pFunc);
      *phHash = closed;
      return std::int16_t{0};
    };
    mem.MEM_HashInsEntry = [](HMEMHASH, std::int16_t len, const void *record, void **ppNew) {
      std::memcpy(storedRecord, record, static_cast<std::size_t>(len));
      *ppNew = storedRecord;
      return std::int16_t{0};
    };
    mem.MEM_HashClose = [](HMEMHASH) { return std::int16_t{0}; };
    packOne();
    mem = own;
    store<std::int16_t>(block, 10, 0x5A5A);
    store<std::uint64_t>(block, 16, 0x5A5A5A5A5A5A5A5A);
    EXPECT_TRUE(allBytesAre(block, sizeof block, 0x5A));
  }
}

TEST_F(PastTheIndexTest, AThreadThatEndsReturnsTheIndexAndLeavesTheTable) {
  const Areas areas(host, kSubPool);
  openIndexed();
  const std::uint64_t live = areas.live();
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  EXPECT_EQ(areas.live(), live - 1);
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  look(kFirst);
  put(kFirst);
  put(fresh(kFirst, 0));
  put(fresh(lastOf(0), 0));
  take(kFirst);
  expectTable();
}

// Random work by all of them on the ends of a few chains, on a table that has an index each time.
class PastTheIndexRandomTest : public PastTheIndexTest,
                               public ::testing::WithParamInterface<std::uint64_t> {
 protected:
  std::uint64_t someKey() {
    const std::uint64_t bucket = 8 * random_.below(3);
    switch (random_.below(4)) {
      case 0:
        return kFirst + 256 * random_.below(3) + bucket;
      case 1:
        return lastOf(bucket / 8) - 256 * random_.below(2);
      case 2:
        return fresh(kFirst + bucket, random_.below(3));
      default:
        return kFirst + random_.below(24);
    }
  }

  // Of two deletions between two inserts of the library all may go unseen.
  void step() {
    const By who = kAll[random_.below(std::size(kAll))];
    const std::uint64_t key = someKey();
    const std::size_t kind = random_.below(8);
    if (kind < 4) {
      put(key, who);
      if (who != By::host) isDeletedByHost_ = false;
    } else if (kind < 6) {
      look(key, who);
    } else if (who != By::host || !isDeletedByHost_) {
      take(key, who);
      isDeletedByHost_ = who == By::host;
    }
  }

  Random random_{GetParam()};
  bool isDeletedByHost_ = false;
};

INSTANTIATE_TEST_SUITE_P(Seeds, PastTheIndexRandomTest,
                         ::testing::Range(firstSeed(1), firstSeed(1) + 6));

TEST_P(PastTheIndexRandomTest, TheTableIsThatOfPlainChains) {
  SCOPED_TRACE(seedNote(GetParam()));
  const Areas areas(host, kSubPool);
  for (int run = 0; run < 25; ++run) {
    openIndexed();
    isDeletedByHost_ = false;
    for (int i = 0; i < 40; ++i) {
      step();
      ASSERT_FALSE(HasFailure()) << "run " << run << ", step " << i;
    }
    expectTable();
    by(kAll[random_.below(std::size(kAll))], [&] { close(); });
    if (random_.oneIn(3)) {
      EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
      EXPECT_EQ(mem.MEM_ThreadAct(), 0);
    }
  }
  EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  by(By::otherThread, [&] { EXPECT_EQ(mem.MEM_ThreadTerm(), 0); });
  EXPECT_EQ(areas.live(), 0U);
  EXPECT_EQ(mem.MEM_ThreadAct(), 0);
  otherBlock_ = nullptr;
}

// A list whose links each refer to some other link, too: long enough for the packer to ask for what
// it looks up ahead.
class LongListTest : public HashIndexTest {
 protected:
  struct Link {
    Link *next;
    Link *other;
    std::uint64_t number;
  };
  static constexpr std::uint64_t kLinks = 60000;
  static constexpr std::int32_t kBlockLen = 30000;

  LongListTest() : links_(kLinks) {
    std::mt19937_64 random(41);
    for (std::uint64_t i = 0; i < kLinks; ++i) {
      links_[i] = {i + 1 < kLinks ? &links_[i + 1] : nullptr, &links_[random() % kLinks], i};
    }
    cb_.Count = 1;
    cb_.Descriptors[0].Type = MEM_PACK_FIXED;
    cb_.Descriptors[0].FixedLen = sizeof(Link);
    cb_.Descriptors[0].SiblingOff = offsetof(Link, next);
    cb_.Descriptors[0].ReferenceCount = 1;
    cb_.Descriptors[0].References[0] = offsetof(Link, other);
  }

  ~LongListTest() override {
    while (first_ != nullptr) {
      MemPackBlock *next = first_->pNext;
      mem.MEM_Free(first_, kBlockLen, 0);
      first_ = next;
    }
  }

  void pack() { ASSERT_EQ(mem.MEM_Pack(&cb_, links_.data(), kBlockLen, &first_), 0); }

  void expectTheList() {
    MemPackBlock *unpacked = first_;
    void *root = nullptr;
    ASSERT_EQ(mem.MEM_Unpack(&unpacked, &root, &cb_), 0);
    const char *at = static_cast<char *>(root);
    for (const Link &link : links_) {
      ASSERT_NE(at, nullptr);
      ASSERT_EQ(load<std::uint64_t>(at, offsetof(Link, number)), link.number);
      const char *other = load<const char *>(at, offsetof(Link, other));
      ASSERT_EQ(load<std::uint64_t>(other, offsetof(Link, number)), link.other->number);
      at = load<const char *>(at, offsetof(Link, next));
    }
    EXPECT_EQ(at, nullptr);
  }

 private:
  std::vector<Link> links_;
  MemPackCB cb_{};
  MemPackBlock *first_ = nullptr;
};

TEST_F(LongListTest, IsPackedInOrder) {
  pack();
  expectTheList();
  EXPECT_EQ(env().pMemThreadBlk->pHashIndexes, nullptr);
}

// A host whose hash service has handles of its own: the packer must not dereference them.
TEST_F(LongListTest, IsPackedWithAHostsOwnHandles) {
  static MEMFunctionVector own;
  static HMEMHASH real;
  static const auto kDisguise = reinterpret_cast<HMEMHASH>(std::uintptr_t{8});
  own = mem;
  mem.MEM_HashOpen = [](HMEMHASH *phHash, std::int16_t keyOff, std::int16_t keyLen,
                        std::int16_t max, MEMHashFunc pFunc, std::int16_t areaLen,
                        std::uint16_t subPool) {
    *phHash = kDisguise;
    return own.MEM_HashOpen(&real, keyOff, keyLen, max, pFunc, areaLen, subPool);
  };
  mem.MEM_HashInsEntry = [](HMEMHASH hash, std::int16_t len, const void *record, void **ppNew) {
    EXPECT_EQ(hash, kDisguise);
    return own.MEM_HashInsEntry(real, len, record, ppNew);
  };
  mem.MEM_HashGetEntry = [](HMEMHASH hash, const void *key, void **ppEntry) {
    EXPECT_EQ(hash, kDisguise);
    return own.MEM_HashGetEntry(real, key, ppEntry);
  };
  mem.MEM_HashClose = [](HMEMHASH hash) {
    EXPECT_EQ(hash, kDisguise);
    return own.MEM_HashClose(real);
  };
  pack();
  mem = own;
  expectTheList();
}

}  // namespace
}  // namespace memtest
