// Hash tables: layout, chains and reuse, results and exit texts, and the slots they use.

#include <algorithm>
#include <limits>
#include <memory>
#include <ostream>

#include "heaptest.hpp"

namespace memtest {
namespace {

using refhost::Service;

constexpr char kSource[] = "(..\\SrcRes\\MEMCHASH) ";
constexpr std::int16_t kDuplicate = 4033;
constexpr std::int16_t kNotFound = 4034;

struct Record {
  std::uint32_t tag;
  std::uint32_t key;
  std::uint64_t value;
};
constexpr std::int16_t kKeyOff = 4;
constexpr std::int16_t kKeyLen = 4;
constexpr std::int16_t kLen = 16;
constexpr std::uint32_t kNodeLen = 32;  // 16 + 15, rounded up to 8
static_assert(sizeof(Record) == kLen && offsetof(Record, key) == kKeyOff);

// Hash functions. Keys spread over four buckets.
std::int16_t keyModulo4(const void *pKey) {
  return static_cast<std::int16_t>(load<std::uint32_t>(pKey, 0) % 4);
}

std::int16_t alwaysFirst(const void *) {
  return 0;
}

// Answers what a test has set and notes what it was given.
struct Probe {
  inline static std::int32_t answer = 0;
  inline static const void *pKey = nullptr;
  inline static int calls = 0;

  static void reset(std::int32_t theAnswer) {
    answer = theAnswer;
    pKey = nullptr;
    calls = 0;
  }
  static std::int32_t hash(const void *key) {
    pKey = key;
    ++calls;
    return answer;
  }
  // The function returns 32 bits where tables take 16.
  static MEMHashFunc function() {
    MEMHashFunc slot;
    putAs(slot, &hash);
    return slot;
  }
};

class HashTest : public HeapHashTest {
 protected:
  explicit HashTest(refhost::Options options = withDirtyStorage()) : HeapHashTest(options) {}

  HMEMHASH open(std::int16_t max = 3, MEMHashFunc function = keyModulo4, std::int16_t areaLen = 1,
                std::uint16_t subPool = kSubPool) {
    HMEMHASH table = nullptr;
    EXPECT_EQ(mem.MEM_HashOpen(&table, kKeyOff, kKeyLen, max, function, areaLen, subPool), 0);
    return table;
  }

  void close(HMEMHASH table) { EXPECT_EQ(mem.MEM_HashClose(table), 0); }

  static std::uint8_t *heapOf(const void *table) { return load<std::uint8_t *>(table, 32); }
  static std::uint8_t *freeNodes(const void *table) { return load<std::uint8_t *>(table, 40); }
  static std::uint8_t *bucket(const void *table, std::size_t index) {
    return load<std::uint8_t *>(table, 48 + 8 * index);
  }
  static std::uint8_t *next(const void *node) { return load<std::uint8_t *>(node, 0); }

  // Records of a chain of nodes, which may be a bucket or the list of free nodes.
  static std::vector<std::uint8_t *> chain(std::uint8_t *node) {
    std::vector<std::uint8_t *> records;
    for (; node != nullptr; node = next(node)) records.push_back(node + 8);
    return records;
  }

  static Record record(std::uint32_t key, std::uint64_t value = 0) {
    return {0x11111111U, key, value != 0 ? value : 0x7700000000000000U + key};
  }

  std::uint8_t *insert(HMEMHASH table, std::uint32_t key, std::uint64_t value = 0) {
    const Record input = record(key, value);
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HashInsEntry(table, kLen, &input, &entry), 0) << "key " << key;
    return static_cast<std::uint8_t *>(entry);
  }

  std::uint8_t *find(HMEMHASH table, std::uint32_t key) {
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HashGetEntry(table, &key, &entry), 0) << "key " << key;
    return static_cast<std::uint8_t *>(entry);
  }

  void remove(HMEMHASH table, std::uint32_t key) {
    EXPECT_EQ(mem.MEM_HashDelEntry(table, &key), 0) << "key " << key;
  }

  // Control block and first area of the heap of a table with four buckets.
  static Bytes tableBytes(const void *table) {
    Bytes bytes(80 + 1024);
    std::memcpy(bytes.data(), table, 80);
    std::memcpy(bytes.data() + 80, heapOf(table), 1024);
    return bytes;
  }

  // What a table that could not be opened leaves to the host.
  void returnControlBlock(std::uint32_t length, std::uint16_t subPool = kSubPool) {
    int found = 0;
    for (const refhost::Leak &leak : host.leaks()) {
      if (leak.subPool != subPool) continue;
      ++found;
      EXPECT_EQ(leak.length, length);
      EXPECT_EQ(eyecatcher(leak.area), "QQQQHASH");
      mem.MEM_Free(leak.area, length, static_cast<std::int16_t>(subPool));
    }
    EXPECT_EQ(found, 1) << "the control block, and nothing else, is left";
  }
};

// Opening.

struct OpenCase {
  std::int16_t keyOff;
  std::int16_t keyLen;
  std::int16_t max;
  std::int16_t areaLen;
  std::uint16_t subPool;
  std::uint16_t hostSubPool;
  std::uint16_t hostKind;
};

void PrintTo(const OpenCase &row, std::ostream *out) {
  *out << "KeyOff " << row.keyOff << ", KeyLen " << row.keyLen << ", Max " << row.max
       << ", AreaLen " << row.areaLen << ", SubPool " << row.subPool;
}

class HashOpenTest : public HashTest, public ::testing::WithParamInterface<OpenCase> {
 protected:
  std::uint32_t ctlBlkLen() const { return static_cast<std::uint32_t>(GetParam().max * 8 + 56); }
  std::int16_t openTable(HMEMHASH *phHash) {
    return mem.MEM_HashOpen(phHash, GetParam().keyOff, GetParam().keyLen, GetParam().max,
                            keyModulo4, GetParam().areaLen, GetParam().subPool);
  }
};

INSTANTIATE_TEST_SUITE_P(
    Arguments, HashOpenTest,
    ::testing::Values(OpenCase{4, 4, 3, 1, 7, 7, 1}, OpenCase{0, 8, 0, 1, 0, 0, 1},
                      OpenCase{32767, 32767, 1, 256, 230, 230, 1}, OpenCase{0, 0, 100, 1, 7, 7, 1},
                      OpenCase{-1, -1, 2, 2, 0xFFFB, 5, 2}, OpenCase{0, -32768, 2, 2, 0xFF00, 0, 2},
                      OpenCase{-32768, 1, 2, 1, 0x8000, 32768, 2},
                      OpenCase{0, 4, -1, 1, 7, 7, 1},  // no bucket at all
                      OpenCase{0, 4, 32767, 1, 7, 7, 1}));

TEST_P(HashOpenTest, ControlBlockIsWrittenWhole) {
  HMEMHASH table = nullptr;
  expectEnds(0, [&] { return openTable(&table); });
  ASSERT_NE(table, nullptr);
  const Layout first = Layout()
                           .text("QQQQHASH")
                           .field(GetParam().keyOff)
                           .field(GetParam().keyLen)
                           .field(GetParam().max);
  EXPECT_EQ(changedRanges(first.bytes(), bytesOf(table, 14)), "");
  EXPECT_EQ(load<MEMHashFunc>(table, 16), &keyModulo4);
  EXPECT_EQ(load<std::uint16_t>(table, 24), GetParam().subPool);
  EXPECT_EQ(load<std::uint32_t>(table, 28), ctlBlkLen());
  EXPECT_EQ(eyecatcher(heapOf(table)), "QQQHEAP1");
  EXPECT_EQ(freeNodes(table), nullptr);
  EXPECT_TRUE(allBytesAre(at(table, 48), ctlBlkLen() - 48, 0)) << "buckets are empty";
  close(table);
}

TEST_P(HashOpenTest, OwnsItsControlBlockAndOneHeap) {
  HMEMHASH table = nullptr;
  ASSERT_EQ(openTable(&table), 0);
  const std::uint8_t *heap = heapOf(table);
  EXPECT_EQ(load<std::uint32_t>(heap, 40), static_cast<std::uint32_t>(GetParam().areaLen) * 1024);
  EXPECT_EQ(load<std::uint16_t>(heap, 44), GetParam().subPool);
  EXPECT_EQ(load<std::uint32_t>(heap, 16), 56U) << "no entry yet";
  const refhost::Account account = host.account(GetParam().hostSubPool, GetParam().hostKind);
  EXPECT_EQ(account.liveBytes, ctlBlkLen() + static_cast<std::uint64_t>(GetParam().areaLen) * 1024);
  EXPECT_EQ(account.liveCount, 2U);
  close(table);
  EXPECT_EQ(host.account(GetParam().hostSubPool, GetParam().hostKind).liveCount, 0U);
}

TEST_F(HashTest, OpenTakesTheControlBlockBeforeTheHeap) {
  HMEMHASH table = nullptr;
  EXPECT_EQ(hostCalls([&] { table = open(); }),
            (Lines{"MEM_HashOpen: EnterFrame(frame, 3)", "MemAlloc: EnterFrame(frame, 3)",
                   "MemAlloc: GetAnchor(0, 3, cell)", "MemAlloc: GetStorage(cell, 80, 7, 1)",
                   "MemAlloc: LeaveFrame(frame, 3)", "MEM_HeapOpen: EnterFrame(frame, 3)",
                   "MemAlloc: EnterFrame(frame, 3)", "MemAlloc: GetAnchor(0, 3, cell)",
                   "MemAlloc: GetStorage(cell, 1024, 7, 1)", "MemAlloc: LeaveFrame(frame, 3)",
                   "MEM_HeapOpen: LeaveFrame(frame, 3)", "MEM_HashOpen: LeaveFrame(frame, 3)"}));
  close(table);
}

TEST_F(HashTest, OpenRefusesMaxBelowMinus1BeforeTakingStorage) {
  for (const std::int16_t max : Shorts{-2, -3, -7, -8, -32768}) {
    SCOPED_TRACE(max);
    auto *table = static_cast<HMEMHASH>(untouched());
    expectFails(4030, "HashCBAllocFail", NameBy::kItself, [&] {
      return mem.MEM_HashOpen(&table, kKeyOff, kKeyLen, max, keyModulo4, 1, kSubPool);
    });
    EXPECT_EQ(table, untouched());
    EXPECT_EQ(host.calls(Service::GetStorage), 0U);
  }
}

TEST_F(HashTest, OpenWithoutStorageForTheControlBlockFails) {
  auto *table = static_cast<HMEMHASH>(untouched());
  host.arm(faultOf(Service::GetStorage, 777));
  expectFails(4030, "HashCBAllocFail", NameBy::kItself, [&] {
    return mem.MEM_HashOpen(&table, kKeyOff, kKeyLen, 3, keyModulo4, 1, kSubPool);
  });
  EXPECT_EQ(table, untouched());
  EXPECT_EQ(host.calls(Service::GetStorage), 1U) << "no heap is opened";
}

TEST_F(HashTest, OpenWithoutStorageForTheHeapLeavesTheControlBlock) {
  auto *table = static_cast<HMEMHASH>(untouched());
  refhost::Fault second = faultOf(Service::GetStorage, 777);
  second.nth = 2;
  host.arm(second);
  expectFails(4055, "MemAllocFail", NameBy::kMessage, [&] {
    return mem.MEM_HashOpen(&table, kKeyOff, kKeyLen, 3, keyModulo4, 1, kSubPool);
  });
  EXPECT_EQ(table, untouched());
  returnControlBlock(80);
}

TEST_F(HashTest, OpenRefusesTheHeapsAreaLengths) {
  for (const std::int16_t areaLen : Shorts{0, -1, 257, -32768, 32767}) {
    auto *table = static_cast<HMEMHASH>(untouched());
    expectFails(4050, "Invalid Area Length=" + std::to_string(areaLen), NameBy::kMessage, [&] {
      return mem.MEM_HashOpen(&table, kKeyOff, kKeyLen, 10, keyModulo4, areaLen, kSubPool);
    });
    EXPECT_EQ(table, untouched());
    returnControlBlock(136);
  }
}

// Handles.

std::int16_t untouchedScan(void *, void *) {
  ADD_FAILURE() << "no record is to be scanned";
  return 0;
}

struct HandleCase {
  const char *name;
  NameBy nameBy;
  std::int16_t (*call)(MEMFunctionVector &, HMEMHASH, void **);
};

void PrintTo(const HandleCase &row, std::ostream *out) {
  *out << row.name;
}

const HandleCase kHandleCases[] = {
    {"HashClose", NameBy::kItself,
     [](MEMFunctionVector &mem, HMEMHASH table, void **) { return mem.MEM_HashClose(table); }},
    {"HashInsEntry", NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHASH table, void **ppEntry) {
       const Record input{};
       return mem.MEM_HashInsEntry(table, kLen, &input, ppEntry);
     }},
    {"HashGetEntry", NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHASH table, void **ppEntry) {
       const std::uint32_t key = 0;
       return mem.MEM_HashGetEntry(table, &key, ppEntry);
     }},
    {"HashDelEntry", NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHASH table, void **) {
       const std::uint32_t key = 0;
       return mem.MEM_HashDelEntry(table, &key);
     }},
    {"HashScan", NameBy::kMessage,
     [](MEMFunctionVector &mem, HMEMHASH table, void **) {
       return mem.MEM_HashScan(table, untouchedScan, nullptr);
     }},
};

class HashHandleTest : public HashTest, public ::testing::WithParamInterface<HandleCase> {
 protected:
  void expectRefused(const void *handle) {
    void *entry = untouched();
    auto *table = const_cast<HMEMHASH>(static_cast<const MEMHashObject *>(handle));
    Probe::reset(0);
    expectFails(4031, "Invalid Hash Handle=" + hex16(handle), GetParam().nameBy,
                [&] { return GetParam().call(mem, table, &entry); });
    EXPECT_EQ(entry, untouched());
    EXPECT_EQ(Probe::calls, 0);
  }
};

INSTANTIATE_TEST_SUITE_P(Operations, HashHandleTest, ::testing::ValuesIn(kHandleCases),
                         caseName<HandleCase>);

TEST_P(HashHandleTest, NullIsRefused) {
  expectRefused(nullptr);
}

TEST_P(HashHandleTest, OtherBlocksAreRefused) {
  HMEMHASH table = open(3, Probe::function());
  const Bytes own = bytesOf(table, 80);
  for (const char *start : {" QQQHASH", "QQQQHASI", "qqqqhash", "QQQHEAP1", "QQQQHAS\0"}) {
    SCOPED_TRACE(start);
    std::memcpy(static_cast<void *>(table), start, 8);
    expectRefused(table);
  }
  std::memcpy(static_cast<void *>(table), own.data(), 8);
  EXPECT_EQ(changedRanges(own, bytesOf(table, 80)), "");
  close(table);
}

TEST_P(HashHandleTest, ClosedTableIsRefusedWhileItsStorageIsNotReused) {
  VectorWatch watch(mem);
  HMEMHASH table = open(3, Probe::function());
  watch.keepFreed = true;
  close(table);
  EXPECT_EQ(eyecatcher(table), " QQQHASH");
  expectRefused(table);
}

// The hash function.

TEST_F(HashTest, HashFunctionGetsTheKeyOnce) {
  Probe::reset(0);
  HMEMHASH table = open(0, Probe::function());
  EXPECT_EQ(Probe::calls, 0);
  const Record input = record(5);
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_HashInsEntry(table, kLen, &input, &entry), 0);
  EXPECT_EQ(Probe::pKey, &input.key);
  EXPECT_EQ(mem.MEM_HashInsEntry(table, kLen, &input, &entry), kDuplicate);
  EXPECT_EQ(Probe::calls, 2);
  const std::uint32_t key = 5;
  EXPECT_EQ(mem.MEM_HashGetEntry(table, &key, &entry), 0);
  EXPECT_EQ(Probe::pKey, &key);
  EXPECT_EQ(mem.MEM_HashDelEntry(table, &key), 0);
  EXPECT_EQ(Probe::pKey, &key);
  EXPECT_EQ(Probe::calls, 4);
  close(table);
  EXPECT_EQ(Probe::calls, 4);
}

TEST_F(HashTest, OnlyTheLow16BitsOfAHashValueCount) {
  HMEMHASH table = open(3, Probe::function());
  for (const std::uint32_t answer : {0x7FFF0000U, 0xFFFF0001U, 0x12340002U, 0x80000003U}) {
    Probe::reset(static_cast<std::int32_t>(answer));
    std::uint8_t *entry = insert(table, answer);
    EXPECT_EQ(bucket(table, answer & 0xFFFF), entry - 8);
    EXPECT_EQ(find(table, answer), entry);
  }
  close(table);
}

TEST_F(HashTest, HashValuesOutsideTheBucketsAreRefused) {
  const struct {
    std::int16_t max;
    std::uint32_t answer;
    const char *shown;
  } cases[] = {
      {3, 4, "00000004"},           {3, 0xFFFFFFFFU, "FFFFFFFF"}, {3, 0x0000FFFFU, "FFFFFFFF"},
      {3, 0x00018000U, "FFFF8000"}, {3, 0xFFFF7FFFU, "00007FFF"}, {3, 0xABCD0004U, "00000004"},
      {0, 1, "00000001"},           {-1, 0, "00000000"},          {-1, 0xFFFFU, "FFFFFFFF"}};
  for (const auto &row : cases) {
    SCOPED_TRACE(row.answer);
    HMEMHASH table = open(row.max, Probe::function());
    const Bytes before = bytesOf(heapOf(table), 1024);
    Probe::reset(static_cast<std::int32_t>(row.answer));
    const std::string name = std::string("Hash Func returned invalid value=") + row.shown;
    const Record input = record(1);
    void *entry = untouched();
    expectFails(4032, name, NameBy::kMessage,
                [&] { return mem.MEM_HashInsEntry(table, kLen, &input, &entry); });
    expectFails(4032, name, NameBy::kMessage,
                [&] { return mem.MEM_HashGetEntry(table, &input.key, &entry); });
    expectFails(4032, name, NameBy::kMessage,
                [&] { return mem.MEM_HashDelEntry(table, &input.key); });
    EXPECT_EQ(entry, untouched());
    EXPECT_EQ(Probe::calls, 3);
    EXPECT_EQ(changedRanges(before, bytesOf(heapOf(table), 1024)), "");
    close(table);
  }
}

TEST_F(HashTest, HighestBucketOfTheLargestTableIsUsable) {
  HMEMHASH table = open(32767, Probe::function());
  Probe::reset(32767);
  std::uint8_t *entry = insert(table, 1);
  EXPECT_EQ(bucket(table, 32767), entry - 8);
  EXPECT_EQ(find(table, 1), entry);
  close(table);
}

// Insert and get.

TEST_F(HashTest, FirstRecordOfABucket) {
  HMEMHASH table = open();
  const Record input = record(6);
  void *entry = nullptr;
  expectEnds(0, [&] { return mem.MEM_HashInsEntry(table, kLen, &input, &entry); });
  std::uint8_t *node = at(heapOf(table), 56);
  EXPECT_EQ(entry, node + 8);
  EXPECT_EQ(bucket(table, 2), node);
  EXPECT_EQ(next(node), nullptr);
  EXPECT_EQ(changedRanges(bytesOf(&input, kLen), bytesOf(entry, kLen)), "");
  EXPECT_TRUE(allBytesAre(node + 24, 1024 - 56 - 24, kDirty)) << "nothing after the record";
  EXPECT_EQ(load<std::uint32_t>(heapOf(table), 16), 56U + kNodeLen);
  for (const std::size_t other : {0U, 1U, 3U}) EXPECT_EQ(bucket(table, other), nullptr);
  EXPECT_EQ(freeNodes(table), nullptr);
  close(table);
}

TEST_F(HashTest, OnlyTheRecordsBytesAreRead) {
  HMEMHASH table = open(0, alwaysFirst);
  for (const std::int16_t len : Shorts{8, 9, 13, 100}) {
    const auto length = static_cast<std::size_t>(len);
    const auto input = std::make_unique<std::uint8_t[]>(length);  // a reader beyond it is caught
    std::memset(input.get(), len, length);
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HashInsEntry(table, len, input.get(), &entry), 0);
    EXPECT_TRUE(allBytesAre(entry, length, static_cast<std::uint8_t>(len)));
    EXPECT_EQ(at(entry, 0)[length], kDirty) << "nothing after the record is written";
  }
  close(table);
}

TEST_F(HashTest, RecordsKeepTheirOrderWithinABucket) {
  HMEMHASH table = open();
  std::vector<std::uint8_t *> even;
  std::vector<std::uint8_t *> odd;
  for (std::uint32_t i = 0; i < 10; ++i) {
    even.push_back(insert(table, 100 - 4 * i));
    odd.push_back(insert(table, 1 + 4 * i));
  }
  EXPECT_EQ(chain(bucket(table, 0)), even);
  EXPECT_EQ(chain(bucket(table, 1)), odd);
  EXPECT_EQ(bucket(table, 2), nullptr);
  for (std::uint32_t i = 0; i < 10; ++i) {
    EXPECT_EQ(find(table, 100 - 4 * i), even[i]);
    EXPECT_EQ(find(table, 1 + 4 * i), odd[i]);
  }
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_EQ(even[i], at(heapOf(table), 56 + 8 + 2 * i * kNodeLen));
  }
  close(table);
}

TEST_F(HashTest, EqualKeyYieldsTheStoredRecord) {
  HMEMHASH table = open();
  insert(table, 0);
  std::uint8_t *middle = insert(table, 4, 1234);
  insert(table, 8);
  const Bytes before = tableBytes(table);
  const Record other = record(4, 9999);
  for (const std::int16_t len : Shorts{kLen, 1, 0, 32767}) {
    void *entry = nullptr;
    expectEnds(kDuplicate, [&] { return mem.MEM_HashInsEntry(table, len, &other, &entry); });
    EXPECT_EQ(entry, middle);
  }
  EXPECT_EQ(changedRanges(before, tableBytes(table)), "");
  EXPECT_EQ(load<std::uint64_t>(middle, 8), 1234U);
  close(table);
}

TEST_F(HashTest, GetYieldsTheRecordAndChangesNothing) {
  HMEMHASH table = open();
  std::uint8_t *entries[] = {insert(table, 0), insert(table, 4), insert(table, 8)};
  const Bytes before = tableBytes(table);
  for (std::uint32_t i = 0; i < 3; ++i) {
    const std::uint32_t key = 4 * i;
    void *entry = nullptr;
    expectEnds(0, [&] { return mem.MEM_HashGetEntry(table, &key, &entry); });
    EXPECT_EQ(entry, entries[i]);
  }
  EXPECT_EQ(changedRanges(before, tableBytes(table)), "");
  close(table);
}

TEST_F(HashTest, AbsentKeysAreNoErrors) {
  HMEMHASH table = open();
  insert(table, 0);
  insert(table, 4);
  const Bytes before = tableBytes(table);
  for (const std::uint32_t key : {1U, 8U, 12U}) {  // an empty bucket, the end of a chain
    void *entry = untouched();
    expectEnds(kNotFound, [&] { return mem.MEM_HashGetEntry(table, &key, &entry); });
    EXPECT_EQ(entry, untouched());
    expectEnds(kNotFound, [&] { return mem.MEM_HashDelEntry(table, &key); });
  }
  EXPECT_EQ(changedRanges(before, tableBytes(table)), "");
  close(table);
}

TEST_F(HashTest, KeysAreComparedByteForByte) {
  HMEMHASH table = nullptr;
  ASSERT_EQ(mem.MEM_HashOpen(&table, 3, 5, 0, alwaysFirst, 1, kSubPool), 0);
  // Keys with zeros inside, and records that differ around equal keys.
  const char *const records[] = {"abc\0\0\0\0\0.", "abc\0\0\0\0\1.", "abc\0\0\1\0\0.",
                                 "abc\1\0\0\0\0.", "abc\xFF\0\0\0\0."};
  std::vector<std::uint8_t *> entries;
  for (const char *input : records) {
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HashInsEntry(table, 9, input, &entry), 0);
    entries.push_back(at(entry, 0));
  }
  const char *const others[] = {"xyz\0\0\0\0\0!", "xyz\0\0\0\0\1!", "xyz\0\0\1\0\0!",
                                "xyz\1\0\0\0\0!", "xyz\xFF\0\0\0\0!"};
  for (std::size_t i = 0; i < entries.size(); ++i) {
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HashInsEntry(table, 9, others[i], &entry), kDuplicate);
    EXPECT_EQ(entry, entries[i]);
    EXPECT_EQ(mem.MEM_HashGetEntry(table, others[i] + 3, &entry), 0);
    EXPECT_EQ(entry, entries[i]);
  }
  close(table);
}

TEST_F(HashTest, KeyMayLieAnywhereInTheRecord) {
  HMEMHASH table = nullptr;
  std::vector<std::uint8_t> input(5000, 0x22);
  ASSERT_EQ(mem.MEM_HashOpen(&table, 4990, 10, 0, alwaysFirst, 1, kSubPool), 0);
  void *first = nullptr;
  ASSERT_EQ(mem.MEM_HashInsEntry(table, 5000, input.data(), &first), 0);
  EXPECT_EQ(changedRanges(input, bytesOf(first, 5000)), "");
  input[4999] = 0x33;
  void *second = nullptr;
  ASSERT_EQ(mem.MEM_HashInsEntry(table, 5000, input.data(), &second), 0);
  EXPECT_NE(first, second);
  void *found = nullptr;
  ASSERT_EQ(mem.MEM_HashGetEntry(table, input.data() + 4990, &found), 0);
  EXPECT_EQ(found, second);
  close(table);
}

TEST_F(HashTest, WithoutKeyLengthAllKeysOfABucketAreEqual) {
  for (const std::int16_t keyLen : Shorts{0, -1, -4, -32768}) {
    SCOPED_TRACE(keyLen);
    HMEMHASH table = nullptr;
    ASSERT_EQ(mem.MEM_HashOpen(&table, kKeyOff, keyLen, 3, keyModulo4, 1, kSubPool), 0);
    std::uint8_t *first = insert(table, 0);
    const Record other = record(4);
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HashInsEntry(table, kLen, &other, &entry), kDuplicate);
    EXPECT_EQ(entry, first);
    EXPECT_EQ(find(table, 8), first);
    std::uint8_t *elsewhere = insert(table, 1);
    EXPECT_NE(elsewhere, first);
    EXPECT_EQ(find(table, 5), elsewhere);
    remove(table, 12);
    EXPECT_EQ(bucket(table, 0), nullptr);
    close(table);
  }
}

// Record lengths.

TEST_F(HashTest, NodesTakeTheLengthAnd15RoundedUpTo8) {
  VectorWatch watch(mem);
  HMEMHASH table = open(0, Probe::function());
  Probe::reset(0);
  std::uint32_t used = 56;
  std::vector<std::uint8_t> input(200);
  for (const std::int16_t len : Shorts{8, 9, 10, 15, 16, 17, 100, 101}) {
    input[kKeyOff] = static_cast<std::uint8_t>(len);
    watch.uses.clear();
    void *entry = nullptr;
    ASSERT_EQ(mem.MEM_HashInsEntry(table, len, input.data(), &entry), 0);
    EXPECT_EQ(watch.takeLines({{asNumber(heapOf(table)), "heap"}})[0],
              "12(heap, " + std::to_string(len + 15) + ")");
    EXPECT_EQ(entry, at(heapOf(table), used + 8)) << "length " << len;
    used += static_cast<std::uint32_t>((len + 15 + 7) / 8 * 8);
    EXPECT_EQ(load<std::uint32_t>(heapOf(table), 16), used);
  }
  close(table);
}

TEST_F(HashTest, RecordWithoutBytesIsALinkOnly) {
  HMEMHASH table = open(0, alwaysFirst);
  const Record input = record(1);
  void *entry = nullptr;
  expectEnds(0, [&] { return mem.MEM_HashInsEntry(table, 0, &input, &entry); });
  EXPECT_EQ(entry, at(heapOf(table), 64));
  EXPECT_EQ(next(at(entry, 0) - 8), nullptr);
  EXPECT_TRUE(allBytesAre(entry, 8, kDirty)) << "no byte is copied";
  EXPECT_EQ(load<std::uint32_t>(heapOf(table), 16), 56U + 16U);
  EXPECT_EQ(find(table, 0xA5A5A5A5U), entry) << "its key is what the host's storage held";
  close(table);
}

TEST_F(HashTest, LongRecords) {
  VectorWatch watch(mem);
  HMEMHASH table = open(0, alwaysFirst);
  std::vector<std::uint8_t> input(32767, 0x44);
  // With link and rounding 968 bytes are still an area entry; 32767 is the most that can be asked.
  const struct {
    std::int16_t len;
    const char *storage;
  } cases[] = {{953, nullptr}, {954, "8(1000, 7)"}, {20000, "8(20040, 7)"}, {32752, "8(32792, 7)"}};
  std::uint8_t number = 0;
  for (const auto &row : cases) {
    SCOPED_TRACE(row.len);
    input[kKeyOff] = ++number;
    watch.uses.clear();
    void *entry = nullptr;
    ASSERT_EQ(mem.MEM_HashInsEntry(table, row.len, input.data(), &entry), 0);
    const Lines lines = watch.takeLines({{asNumber(heapOf(table)), "heap"}});
    const std::string asked = "(heap, " + std::to_string(row.len + 15) + ")";
    Lines expected = {"12" + asked, "14" + asked};
    if (row.storage != nullptr) expected.push_back(row.storage);
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(std::memcmp(entry, input.data(), static_cast<std::size_t>(row.len)), 0);
  }
  EXPECT_EQ(chain(bucket(table, 0)).size(), 4U);
  close(table);
}

TEST_F(HashTest, LengthsThatNoShortCanHoldWithTheLinkAreRefused) {
  VectorWatch watch(mem);
  HMEMHASH table = open(0, alwaysFirst);
  std::vector<std::uint8_t> input(32767, 0x44);
  for (const std::int16_t len : Shorts{32753, 32760, 32767}) {
    const std::string asked = std::to_string(len + 15 - 65536);
    void *entry = untouched();
    watch.uses.clear();
    expectFails(4051, "Entry Length=" + asked + " too small", NameBy::kMessage,
                [&] { return mem.MEM_HashInsEntry(table, len, input.data(), &entry); });
    EXPECT_EQ(watch.takeLines({{asNumber(heapOf(table)), "heap"}}),
              (Lines{"12(heap, " + asked + ")", "14(heap, " + asked + ")"}));
    EXPECT_EQ(entry, untouched());
  }
  EXPECT_EQ(bucket(table, 0), nullptr);
  close(table);
}

class NegativeLengthTest : public HashTest, public ::testing::WithParamInterface<std::int16_t> {
 protected:
  // The text names whatever length the heap was asked for.
  void expectRefused(HMEMHASH table, std::uint32_t key) {
    const Bytes before = tableBytes(table);
    const Record input = record(key);
    void *entry = untouched();
    std::memset(&error(), 0xEE, sizeof error());
    reports.clear();
    EXPECT_EQ(mem.MEM_HashInsEntry(table, GetParam(), &input, &entry), kFailed);
    const std::string name = nameText();
    EXPECT_EQ(name.rfind("Entry Length=", 0), 0U) << name;
    EXPECT_NE(name.find(" too small"), std::string::npos) << name;
    expectError(4051, name);
    EXPECT_EQ(messageText(), name);
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].errorText, name);
    EXPECT_EQ(entry, untouched());
    EXPECT_EQ(changedRanges(before, tableBytes(table)), "");
    EXPECT_EQ(
        traced(MEM_TRACE_EXIT, [&] { mem.MEM_HashInsEntry(table, GetParam(), &input, &entry); }),
        (Lines{std::string("STDX MEM_HashInsEntry") + kSource +
               "MemHashAllocEntry Return=FAILED"}));
  }
};

INSTANTIATE_TEST_SUITE_P(Lengths, NegativeLengthTest,
                         ::testing::Values(-1, -7, -8, -14, -15, -16, -100, -32767, -32768));

TEST_P(NegativeLengthTest, IsRefusedInAnEmptyBucketAndBehindAChain) {
  HMEMHASH table = open();
  expectRefused(table, 0);
  insert(table, 4);
  expectRefused(table, 0);
  close(table);
}

TEST_P(NegativeLengthTest, IsRefusedAlsoWhenANodeCouldBeReused) {
  HMEMHASH table = open();
  insert(table, 4);
  std::uint8_t *deleted = insert(table, 1);
  remove(table, 1);
  expectRefused(table, 0);
  expectRefused(table, 1);
  EXPECT_EQ(insert(table, 5), deleted);
  close(table);
}

TEST_F(HashTest, InsertWithoutStorageChangesNothing) {
  HMEMHASH table = open();
  for (std::uint32_t i = 0; i < 30; ++i) insert(table, 4 * i);  // 8 bytes are left in the area
  const Bytes before = tableBytes(table);
  for (const std::uint32_t key : {1U, 400U}) {  // an empty bucket, the end of a chain
    const Record input = record(key);
    void *entry = untouched();
    host.arm(faultOf(Service::GetStorage, 777));
    expectFails(4055, "MemAllocAreaFail", NameBy::kMessage,
                [&] { return mem.MEM_HashInsEntry(table, kLen, &input, &entry); });
    EXPECT_EQ(entry, untouched());
    EXPECT_EQ(changedRanges(before, tableBytes(table)), "");
  }
  insert(table, 120);
  EXPECT_EQ(chain(bucket(table, 0)).size(), 31U);
  close(table);
}

// Delete and reuse.

class HashDeleteTest : public HashTest {
 protected:
  HashDeleteTest() : table(open()) {
    for (std::uint32_t i = 0; i < 5; ++i) records.push_back(insert(table, 4 * i));
  }
  ~HashDeleteTest() override { close(table); }

  std::vector<std::uint8_t *> without(std::initializer_list<std::size_t> gone) const {
    std::vector<std::uint8_t *> left;
    for (std::size_t i = 0; i < records.size(); ++i) {
      if (std::find(gone.begin(), gone.end(), i) == gone.end()) left.push_back(records[i]);
    }
    return left;
  }

  HMEMHASH table;
  std::vector<std::uint8_t *> records;  // of bucket 0: keys 0, 4, 8, 12 and 16
};

TEST_F(HashDeleteTest, AnyPlaceOfAChain) {
  for (const std::uint32_t i : {0U, 2U, 4U}) {  // head, middle, tail
    SCOPED_TRACE(i);
    const std::uint32_t key = 4 * i;
    const Bytes before = bytesOf(records[i], kNodeLen - 8);
    expectEnds(0, [&] { return mem.MEM_HashDelEntry(table, &key); });
    EXPECT_EQ(changedRanges(before, bytesOf(records[i], kNodeLen - 8)), "")
        << "the record's bytes stay";
    EXPECT_EQ(chain(bucket(table, 0)), without({i}));
    EXPECT_EQ(chain(freeNodes(table)), (std::vector<std::uint8_t *>{records[i]}));
    expectEnds(kNotFound, [&] { return mem.MEM_HashDelEntry(table, &key); });
    void *entry = untouched();
    expectEnds(kNotFound, [&] { return mem.MEM_HashGetEntry(table, &key, &entry); });
    EXPECT_EQ(entry, untouched());

    // The next record takes the node, whatever its bucket, and goes to the end.
    EXPECT_EQ(insert(table, key), records[i]);
    EXPECT_EQ(next(records[i] - 8), nullptr);
    EXPECT_EQ(freeNodes(table), nullptr);
    std::vector<std::uint8_t *> order = without({i});
    order.push_back(records[i]);
    EXPECT_EQ(chain(bucket(table, 0)), order);
    records = order;
    for (std::uint32_t place = 0; place < 5; ++place) {
      store<std::uint32_t>(records[place], kKeyOff, 4 * place);  // back to keys in order
    }
  }
}

TEST_F(HashDeleteTest, OnlyRecordOfABucket) {
  std::uint8_t *only = insert(table, 3);
  remove(table, 3);
  EXPECT_EQ(bucket(table, 3), nullptr);
  EXPECT_EQ(chain(freeNodes(table)), (std::vector<std::uint8_t *>{only}));
  EXPECT_EQ(chain(bucket(table, 0)), records);
}

TEST_F(HashDeleteTest, NodesAreReusedLastDeletedFirst) {
  const std::uint32_t used = load<std::uint32_t>(heapOf(table), 16);
  for (const std::uint32_t key : {4U, 0U, 16U, 12U, 8U}) remove(table, key);
  EXPECT_EQ(bucket(table, 0), nullptr);
  EXPECT_EQ(
      chain(freeNodes(table)),
      (std::vector<std::uint8_t *>{records[2], records[3], records[4], records[0], records[1]}));
  EXPECT_EQ(insert(table, 1), records[2]);
  EXPECT_EQ(insert(table, 2), records[3]);
  EXPECT_EQ(insert(table, 5), records[4]);
  EXPECT_EQ(chain(freeNodes(table)), (std::vector<std::uint8_t *>{records[0], records[1]}));
  EXPECT_EQ(insert(table, 9), records[0]);
  EXPECT_EQ(insert(table, 6), records[1]);
  EXPECT_EQ(freeNodes(table), nullptr);
  EXPECT_EQ(load<std::uint32_t>(heapOf(table), 16), used) << "the heap has given nothing";
  EXPECT_EQ(chain(bucket(table, 1)),
            (std::vector<std::uint8_t *>{records[2], records[4], records[0]}));
  EXPECT_EQ(chain(bucket(table, 2)), (std::vector<std::uint8_t *>{records[3], records[1]}));
  EXPECT_EQ(insert(table, 10), at(heapOf(table), used + 8)) << "then the heap again";
}

TEST_F(HashDeleteTest, ReusedNodeHoldsTheNewRecord) {
  remove(table, 8);
  const Record input = record(8, 42);
  void *entry = nullptr;
  expectEnds(0, [&] { return mem.MEM_HashInsEntry(table, kLen, &input, &entry); });
  EXPECT_EQ(entry, records[2]);
  EXPECT_EQ(changedRanges(bytesOf(&input, kLen), bytesOf(entry, kLen)), "");
}

TEST_F(HashDeleteTest, ShorterRecordInAReusedNodeLeavesTheRest) {
  remove(table, 8);
  const Record input = record(3, 42);
  void *entry = nullptr;
  ASSERT_EQ(mem.MEM_HashInsEntry(table, 8, &input, &entry), 0);
  EXPECT_EQ(entry, records[2]);
  EXPECT_EQ(load<std::uint32_t>(entry, 4), 3U);
  EXPECT_EQ(load<std::uint64_t>(entry, 8), 0x7700000000000008U) << "the old record's";
}

TEST_F(HashDeleteTest, EqualKeyTakesNoNode) {
  remove(table, 8);
  const Record input = record(4);
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_HashInsEntry(table, kLen, &input, &entry), kDuplicate);
  EXPECT_EQ(chain(freeNodes(table)), (std::vector<std::uint8_t *>{records[2]}));
}

TEST_F(HashDeleteTest, ReuseAsksNoService) {
  remove(table, 8);
  const Lines lines = hostCalls([&] { insert(table, 8); });
  EXPECT_EQ(lines, (Lines{"MEM_HashInsEntry: EnterFrame(frame, 3)",
                          "MEM_HashInsEntry: LeaveFrame(frame, 3)"}));
}

// Scan.

struct Scanned {
  inline static std::vector<std::uint8_t *> records;
  inline static std::vector<void *> parms;
  inline static std::vector<std::int16_t> results;  // by call; 0 when there are no more

  static void reset(std::vector<std::int16_t> theResults = {}) {
    records.clear();
    parms.clear();
    results = std::move(theResults);
  }
  static std::int16_t note(void *pRecord, void *pParm) {
    records.push_back(static_cast<std::uint8_t *>(pRecord));
    parms.push_back(pParm);
    return records.size() <= results.size() ? results[records.size() - 1] : std::int16_t{0};
  }
};

class HashScanTest : public HashTest {
 protected:
  HashScanTest() : table(open()) {}
  ~HashScanTest() override { close(table); }

  HMEMHASH table;
};

TEST_F(HashScanTest, VisitsBucketsInOrderAndRecordsInOrderOfInsertion) {
  std::uint8_t *b3 = insert(table, 3);
  std::uint8_t *b0 = insert(table, 8);
  std::uint8_t *b1 = insert(table, 5);
  std::uint8_t *b0second = insert(table, 0);
  std::uint8_t *b3second = insert(table, 7);
  const Bytes before = tableBytes(table);
  Scanned::reset();
  int parm = 0;
  expectEnds(0, [&] { return mem.MEM_HashScan(table, Scanned::note, &parm); });
  EXPECT_EQ(Scanned::records, (std::vector<std::uint8_t *>{b0, b0second, b1, b3, b3second}));
  EXPECT_EQ(Scanned::parms, std::vector<void *>(5, &parm));
  EXPECT_EQ(changedRanges(before, tableBytes(table)), "");
}

TEST_F(HashScanTest, EmptyTablesHaveNoRecords) {
  Scanned::reset();
  expectEnds(0, [&] { return mem.MEM_HashScan(table, Scanned::note, nullptr); });
  insert(table, 1);
  remove(table, 1);
  expectEnds(0, [&] { return mem.MEM_HashScan(table, Scanned::note, nullptr); });
  HMEMHASH bare = open(-1);
  expectEnds(0, [&] { return mem.MEM_HashScan(bare, Scanned::note, nullptr); });
  close(bare);
  EXPECT_TRUE(Scanned::records.empty());
}

TEST_F(HashScanTest, HighestBucketIsScanned) {
  Probe::reset(300);
  HMEMHASH large = open(300, Probe::function());
  std::uint8_t *last = insert(large, 1);
  Scanned::reset();
  EXPECT_EQ(mem.MEM_HashScan(large, Scanned::note, nullptr), 0);
  EXPECT_EQ(Scanned::records, (std::vector<std::uint8_t *>{last}));
  close(large);
}

TEST_F(HashScanTest, LastNonZeroResultIsReturned) {
  for (const std::uint32_t key : {0U, 4U, 1U, 3U}) insert(table, key);
  const struct {
    std::vector<std::int16_t> results;
    std::int16_t expected;
  } cases[] = {{{7, 0, 0, 0}, 7},         {{7, 9, 0, 0}, 9},          {{0, 0, 0, 5}, 5},
               {{9, 0, 7, 0}, 7},         {{0, -1, 0, 0}, -1},        {{-1, 0, 0, 1}, 1},
               {{1, 2, 3, 4}, 4},         {{0, 0, 0, 0}, 0},          {{4033, 0, 4034, 0}, 4034},
               {{32767, 0, 0, 0}, 32767}, {{1, 0, 0, -32768}, -32768}};
  for (const auto &row : cases) {
    Scanned::reset(row.results);
    expectEnds(row.expected, [&] { return mem.MEM_HashScan(table, Scanned::note, nullptr); });
    EXPECT_EQ(Scanned::records.size(), 4U) << "the walk goes on in every case";
  }
}

TEST_F(HashScanTest, OnlyTheLow16BitsOfAResultCount) {
  insert(table, 0);
  insert(table, 1);
  static std::vector<std::uint32_t> answers;
  static std::size_t calls;
  MEMScanFunc function;
  putAs(function, static_cast<std::uint32_t (*)(void *, void *)>(
                      [](void *, void *) { return answers[calls++]; }));
  calls = 0;
  answers = {0x12340005U, 0xABCD0000U};
  expectEnds(5, [&] { return mem.MEM_HashScan(table, function, nullptr); });
  calls = 0;
  answers = {0x10000U, 0x7FFF0000U};
  expectEnds(0, [&] { return mem.MEM_HashScan(table, function, nullptr); });
}

// A callback that uses the table that is scanned.
struct Insider {
  inline static MEMFunctionVector *mem = nullptr;
  inline static HMEMHASH table = nullptr;
  inline static int calls = 0;
};

TEST_F(HashScanTest, SuccessorIsReadAfterTheCallback) {
  insert(table, 0);
  insert(table, 1);
  Insider::mem = &mem;
  Insider::table = table;
  Insider::calls = 0;
  // Each of the first three calls appends a record to bucket 0: the scan reaches all of them.
  const auto append = [](void *, void *) -> std::int16_t {
    if (++Insider::calls <= 3) {
      const Record input = record(static_cast<std::uint32_t>(100 * Insider::calls));
      void *entry = nullptr;
      EXPECT_EQ(Insider::mem->MEM_HashInsEntry(Insider::table, kLen, &input, &entry), 0);
    }
    return 0;
  };
  EXPECT_EQ(mem.MEM_HashScan(table, append, nullptr), 0);
  EXPECT_EQ(Insider::calls, 5);
  EXPECT_EQ(chain(bucket(table, 0)).size(), 4U);
}

TEST_F(HashScanTest, CallbackMayCallTheLibrary) {
  for (std::uint32_t key = 0; key < 8; ++key) insert(table, key);
  Insider::mem = &mem;
  Insider::table = table;
  Insider::calls = 0;
  const auto look = [](void *pRecord, void *) -> std::int16_t {
    void *entry = nullptr;
    EXPECT_EQ(Insider::mem->MEM_HashGetEntry(Insider::table, at(pRecord, kKeyOff), &entry), 0);
    EXPECT_EQ(entry, pRecord);
    EXPECT_EQ(Insider::mem->MEM_HashInsEntry(Insider::table, kLen, pRecord, &entry), kDuplicate);
    ++Insider::calls;
    return 0;
  };
  const Lines frames = hostCalls([&] { EXPECT_EQ(mem.MEM_HashScan(table, look, nullptr), 0); });
  EXPECT_EQ(Insider::calls, 8);
  EXPECT_EQ(frames.size(), 2U + 8U * 4U);
  EXPECT_EQ(frames.front(), "MEM_HashGetEntry: EnterFrame(frame, 3)");
  EXPECT_EQ(frames[3], "MEM_HashInsEntry: EnterFrame(frame, 3)");
  EXPECT_EQ(frames.back(), "MEM_HashGetEntry: LeaveFrame(frame, 3)");
}

// Closing.

TEST_F(HashTest, CloseFreesTheHeapThenTheBlankedControlBlock) {
  static HMEMHASH table;
  static Lines seen;
  static MEMFunctionVector own;
  table = open();
  seen.clear();
  own = mem;
  insert(table, 1);
  mem.MEM_Free = [](void *area, std::uint32_t size, std::int16_t subPool) {
    seen.push_back(std::to_string(size) + ": " + eyecatcher(table));
    own.MEM_Free(area, size, subPool);
  };
  expectEnds(0, [&] { return mem.MEM_HashClose(table); });
  EXPECT_EQ(seen, (Lines{"1024: QQQQHASH", "80:  QQQHASH"}));
}

TEST_F(HashTest, CloseReturnsAllOfTheHeap) {
  HMEMHASH table = open(3, keyModulo4, 1, 0xFFFB);
  for (std::uint32_t key = 0; key < 100; ++key) insert(table, key);
  const std::vector<std::uint8_t> large(3000, 0x66);
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_HashInsEntry(table, 3000, large.data(), &entry), 0);
  EXPECT_GT(host.account(5, 2).liveCount, 5U);
  close(table);
  EXPECT_EQ(host.account(5, 2).liveCount, 0U);
}

TEST_F(HashTest, CloseWithAHeapThatCannotBeClosedLeavesTheTable) {
  HMEMHASH table = open();
  std::uint8_t *entry = insert(table, 1);
  auto *heap = heapOf(table);
  heap[0] = '?';
  const Bytes before = tableBytes(table);
  expectFails(4056, "Invalid Heap Handle=" + hex16(heap), NameBy::kItself,
              [&] { return mem.MEM_HashClose(table); });
  EXPECT_EQ(changedRanges(before, tableBytes(table)), "");
  EXPECT_EQ(find(table, 1), entry);
  EXPECT_EQ(traced(MEM_TRACE_EXIT, [&] { mem.MEM_HashClose(table); }),
            (Lines{std::string("STDX MEM_HashClose") + kSource + "HeapClose Return=FAILED"}));
  heap[0] = 'Q';
  close(table);
}

// Slots.

class HashRoutingTest : public HashTest {
 protected:
  HashRoutingTest() : watch(mem) {}

  VectorWatch watch;
};

TEST_F(HashRoutingTest, StorageAndHeapComeThroughSlots8To12) {
  HMEMHASH table = open(3, keyModulo4, 2, 0xFFFB);
  const AddressNames names = {{asNumber(heapOf(table)), "heap"}, {asNumber(table), "table"}};
  EXPECT_EQ(watch.takeLines(names), (Lines{"8(80, -5)", "10(2, 65531)", "8(2048, -5)"}));
  insert(table, 1);
  EXPECT_EQ(watch.takeLines(names), (Lines{"12(heap, 31)", "14(heap, 31)"}));
  insert(table, 5);
  EXPECT_EQ(watch.takeLines(names), (Lines{"12(heap, 31)", "14(heap, 31)"}));

  const Record again = record(5);
  void *entry = nullptr;
  mem.MEM_HashInsEntry(table, kLen, &again, &entry);
  find(table, 1);
  remove(table, 1);
  insert(table, 1);
  Scanned::reset();
  mem.MEM_HashScan(table, Scanned::note, nullptr);
  EXPECT_EQ(watch.takeLines(names), (Lines{})) << "none of these needs storage";

  close(table);
  EXPECT_EQ(watch.takeLines(names), (Lines{"11(heap)", "9(heap, 2048, -5)", "9(table, 80, -5)"}));
}

TEST_F(HashRoutingTest, RefusalBySlot8IsTheControlBlocks) {
  auto *table = static_cast<HMEMHASH>(untouched());
  watch.refuseStorage = 1;
  expectFails(4030, "HashCBAllocFail", NameBy::kItself, [&] {
    return mem.MEM_HashOpen(&table, kKeyOff, kKeyLen, 3, keyModulo4, 1, kSubPool);
  });
  EXPECT_EQ(table, untouched());
  EXPECT_EQ(watch.takeLines(), (Lines{"8(80, 7)"}));
}

TEST_F(HashRoutingTest, FailureOfSlot10EndsOpen) {
  for (const std::int16_t result : Shorts{-1, 5, -32768}) {
    auto *table = static_cast<HMEMHASH>(untouched());
    watch.openResult = result;
    expectEnds(
        -1, [&] { return mem.MEM_HashOpen(&table, kKeyOff, kKeyLen, 3, keyModulo4, 1, kSubPool); });
    EXPECT_EQ(table, untouched());
    EXPECT_EQ(watch.takeLines(), (Lines{"8(80, 7)", "10(1, 7)"}));
    returnControlBlock(80);
    watch.uses.clear();
  }
}

TEST_F(HashRoutingTest, FailureOfSlot11EndsCloseAndLeavesTheTable) {
  HMEMHASH table = open();
  std::uint8_t *entry = insert(table, 1);
  const Bytes before = tableBytes(table);
  watch.uses.clear();
  for (const std::int16_t result : Shorts{-1, 5, -32768}) {
    watch.closeResult = result;
    expectEnds(-1, [&] { return mem.MEM_HashClose(table); });
    EXPECT_EQ(watch.takeLines({{asNumber(heapOf(table)), "heap"}}), (Lines{"11(heap)"}));
  }
  watch.closeResult.reset();
  EXPECT_EQ(changedRanges(before, tableBytes(table)), "");
  EXPECT_EQ(find(table, 1), entry);
  insert(table, 2);
  close(table);
}

TEST_F(HashRoutingTest, FailureOfSlot12EndsInsertAndChangesNothing) {
  HMEMHASH table = open();
  insert(table, 4);
  const Bytes before = tableBytes(table);
  for (const std::int16_t result : Shorts{-1, 5, -32768}) {
    for (const std::uint32_t key : {0U, 1U}) {
      watch.uses.clear();
      watch.entryResult = result;
      const Record input = record(key);
      void *entry = untouched();
      expectEnds(-1, [&] { return mem.MEM_HashInsEntry(table, kLen, &input, &entry); });
      EXPECT_EQ(entry, untouched());
      EXPECT_EQ(watch.takeLines({{asNumber(heapOf(table)), "heap"}}), (Lines{"12(heap, 31)"}));
    }
  }
  watch.entryResult.reset();
  EXPECT_EQ(changedRanges(before, tableBytes(table)), "");
  insert(table, 0);
  close(table);
}

TEST_F(HashRoutingTest, TableUsesTheHeapThatSlot10Gives) {
  static HMEMHEAP given;
  ASSERT_EQ(mem.MEM_HeapOpen(&given, 4, 9), 0);
  mem.MEM_HeapOpen = [](HMEMHEAP *phMemHeap, std::int16_t, std::uint16_t) {
    *phMemHeap = given;
    return std::int16_t{0};
  };
  HMEMHASH table = open();
  EXPECT_EQ(heapOf(table), static_cast<void *>(given));
  EXPECT_EQ(insert(table, 1), at(given, 64));
  close(table);
  EXPECT_EQ(host.account(9).liveCount, 0U);
}

// Trace records.

class HashTraceTest : public HashTest {
 protected:
  static constexpr std::uint32_t kBoth = MEM_TRACE_ENTRY | MEM_TRACE_EXIT;

  static std::string entryLine(const std::string &name, const std::string &text) {
    return "STDE " + name + kSource + text;
  }
  static std::string exitLine(const std::string &name, const std::string &text) {
    return "STDX " + name + kSource + text;
  }

  // The lines of hash tables only.
  template <class Call>
  Lines hashTraced(Call call) {
    Lines lines;
    for (const std::string &line : traced(kBoth, call)) {
      if (line.find(kSource) != std::string::npos) lines.push_back(line);
    }
    return lines;
  }

  static std::string openParms(const HMEMHASH *phHash, const std::string &numbers) {
    const MEMHashFunc function = keyModulo4;
    return "Parms: phHash=" + lowHex(phHash) + ", " + numbers +
           ", pFunc=" + lowHex(reinterpret_cast<const void *>(function));
  }
};

constexpr char kGetName[] = "MEM_HashGetEntry";  // of get, delete and scan

TEST_F(HashTraceTest, OpenAndClose) {
  HMEMHASH table = nullptr;
  EXPECT_EQ(hashTraced([&] { mem.MEM_HashOpen(&table, -3, 5, 17, keyModulo4, 1, kSubPool); }),
            (Lines{entryLine("MEM_HashOpen", openParms(&table, "KeyOff=-3, KeyLen=5, Max=17")),
                   exitLine("MEM_HashOpen", "Return=SUCCESS")}));
  EXPECT_EQ(hashTraced([&] { mem.MEM_HashClose(table); }),
            (Lines{entryLine("MEM_HashClose", "Parms: hMemHash=" + lowHex(table)),
                   exitLine("MEM_HashClose", "Return=SUCCESS")}));
}

TEST_F(HashTraceTest, OpenThatFails) {
  HMEMHASH table = nullptr;
  const auto openWith = [&](std::int16_t max, std::int16_t areaLen) {
    mem.MEM_HashOpen(&table, 0, -32768, max, keyModulo4, areaLen, kSubPool);
  };
  EXPECT_EQ(
      hashTraced([&] { openWith(-2, 1); }),
      (Lines{entryLine("MEM_HashOpen", openParms(&table, "KeyOff=0, KeyLen=-32768, Max=-2"))}));
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(
      hashTraced([&] { openWith(3, 1); }),
      (Lines{entryLine("MEM_HashOpen", openParms(&table, "KeyOff=0, KeyLen=-32768, Max=3"))}));
  EXPECT_EQ(hashTraced([&] { openWith(3, 0); }),
            (Lines{entryLine("MEM_HashOpen", openParms(&table, "KeyOff=0, KeyLen=-32768, Max=3")),
                   exitLine("MEM_HashOpen", "HeapOpen Return=FAILED")}));
  returnControlBlock(80);
}

TEST_F(HashTraceTest, Insert) {
  HMEMHASH table = open();
  const Record input = record(4);
  void *entry = nullptr;
  const auto parms = [&](int len) {
    return "Parms: hMemHash=" + lowHex(table) + ", Len=" + std::to_string(len) +
           ", pInputEntry=" + lowHex(&input) + ", ppNewEntry=" + lowHex(&entry);
  };
  const auto insertion = [&] { mem.MEM_HashInsEntry(table, kLen, &input, &entry); };
  const std::string name = "MEM_HashInsEntry";
  EXPECT_EQ(hashTraced(insertion),
            (Lines{entryLine(name, parms(16)), exitLine(name, "Return=SUCCESS")}));
  EXPECT_EQ(hashTraced(insertion),
            (Lines{entryLine(name, parms(16)), exitLine(name, "Return=MEMERR_HASHDKEY")}));
  const std::uint32_t key = 4;
  mem.MEM_HashDelEntry(table, &key);
  EXPECT_EQ(hashTraced(insertion),
            (Lines{entryLine(name, parms(16)), exitLine(name, "Return=SUCCESS")}))
      << "reuse";
  mem.MEM_HashDelEntry(table, &key);
  EXPECT_EQ(
      hashTraced([&] { mem.MEM_HashInsEntry(table, -32768, &input, &entry); }),
      (Lines{entryLine(name, parms(-32768)), exitLine(name, "MemHashAllocEntry Return=FAILED")}));
  insert(table, 0);
  host.arm(faultOf(Service::GetStorage));
  EXPECT_EQ(
      hashTraced([&] { mem.MEM_HashInsEntry(table, 2000, &input, &entry); }),
      (Lines{entryLine(name, parms(2000)), exitLine(name, "MemHashAllocEntry Return=FAILED")}));
  close(table);
}

TEST_F(HashTraceTest, GetAndDelete) {
  HMEMHASH table = open();
  insert(table, 4);
  std::uint32_t key = 0;
  void *entry = nullptr;
  const std::string parms = "Parms: hMemHash=" + lowHex(table) + ", pKey=" + lowHex(&key);
  const auto get = [&] { mem.MEM_HashGetEntry(table, &key, &entry); };
  const auto del = [&] { mem.MEM_HashDelEntry(table, &key); };
  const Lines found = {entryLine(kGetName, parms), exitLine(kGetName, "Return=SUCCESS")};
  const Lines absent = {entryLine(kGetName, parms), exitLine(kGetName, "Return=MEMERR_HASHNFND")};
  EXPECT_EQ(hashTraced(get), absent) << "end of a chain";
  EXPECT_EQ(hashTraced(del), absent) << "end of a chain";
  key = 1;
  EXPECT_EQ(hashTraced(get), absent) << "empty bucket";
  EXPECT_EQ(hashTraced(del), absent) << "empty bucket";
  key = 4;
  EXPECT_EQ(hashTraced(get), found);
  EXPECT_EQ(hashTraced(del), found);
  close(table);
}

TEST_F(HashTraceTest, Scan) {
  HMEMHASH table = open();
  insert(table, 4);
  const auto scan = [&] { mem.MEM_HashScan(table, Scanned::note, nullptr); };
  Scanned::reset();
  EXPECT_EQ(hashTraced(scan),
            (Lines{entryLine(kGetName, "MEM_HashScan"), exitLine(kGetName, "Return=SUCCESS")}));
  Scanned::reset({-1});
  EXPECT_EQ(hashTraced(scan),
            (Lines{entryLine(kGetName, "MEM_HashScan"), exitLine(kGetName, "pFct Return error")}));
  close(table);
}

TEST_F(HashTraceTest, FramesCarryTheTraceNames) {
  HMEMHASH table = open();
  const std::uint32_t key = 1;
  const Lines frames = {std::string(kGetName) + ": EnterFrame(frame, 3)",
                        std::string(kGetName) + ": LeaveFrame(frame, 3)"};
  void *entry = nullptr;
  EXPECT_EQ(hostCalls([&] { mem.MEM_HashGetEntry(table, &key, &entry); }), frames);
  EXPECT_EQ(hostCalls([&] { mem.MEM_HashDelEntry(table, &key); }), frames);
  EXPECT_EQ(hostCalls([&] { mem.MEM_HashScan(table, Scanned::note, nullptr); }), frames);
  close(table);
}

TEST_F(HashTraceTest, FailuresHaveNoExitRecord) {
  HMEMHASH table = open(3, Probe::function());
  Probe::reset(-1);
  const Record input = record(4);
  void *entry = nullptr;
  const auto exits = [&](HMEMHASH handle) {
    return traced(MEM_TRACE_EXIT, [&] {
      mem.MEM_HashInsEntry(handle, kLen, &input, &entry);
      mem.MEM_HashGetEntry(handle, &input.key, &entry);
      mem.MEM_HashDelEntry(handle, &input.key);
    });
  };
  EXPECT_EQ(exits(table), (Lines{})) << "wrong hash value";
  EXPECT_EQ(exits(nullptr), (Lines{})) << "wrong handle";
  EXPECT_EQ(traced(MEM_TRACE_EXIT,
                   [&] {
                     mem.MEM_HashScan(nullptr, untouchedScan, nullptr);
                     mem.MEM_HashClose(nullptr);
                   }),
            (Lines{}));
  close(table);
}

TEST_F(HashTraceTest, FixedTextsAreNotFormatted) {
  HMEMHASH table = open();
  insert(table, 4);
  const Record input = record(4);
  std::uint32_t key = 1;
  void *entry = nullptr;
  Scanned::reset({5});
  host.setTraceFlags(MEM_TRACE_EXIT);
  host.resetCalls();
  mem.MEM_HashInsEntry(table, kLen, &input, &entry);
  mem.MEM_HashGetEntry(table, &key, &entry);
  mem.MEM_HashDelEntry(table, &key);
  host.setTraceFlags(kBoth);
  mem.MEM_HashScan(table, Scanned::note, nullptr);
  EXPECT_EQ(host.calls(Service::Format), 0U);
  EXPECT_EQ(host.calls(Service::WriteRecord), 5U);
  host.setTraceFlags(0);
  close(table);
}

TEST_F(HashTraceTest, StorageLinesAreTheHeapsOnly) {
  HMEMHASH table = nullptr;
  const Lines lines = traced(MEM_TRACE_STORAGE, [&] {
    table = open();
    insert(table, 1);
    find(table, 1);
    remove(table, 1);
    close(table);
  });
  ASSERT_EQ(lines.size(), 3U);  // header block, regular heap, freed area
  for (const std::string &line : lines) EXPECT_EQ(line.find(kSource), std::string::npos) << line;
}

TEST_F(HashTraceTest, TracePointsHaveTheirOwnLineNumbers) {
  TracePoints points("..\\SrcRes\\MEMCHASH", kGetName);
  HMEMHASH table = nullptr;
  const Record input = record(4);
  std::uint32_t key = 4;
  void *entry = nullptr;
  const auto add = [&](const char *operation, auto call) {
    points.add(operation, recordsOf(0xFFFFFFFFU, call));
  };
  for (int round = 0; round < 2; ++round) {
    key = 4;
    add("open", [&] { table = open(); });
    for (int i = 0; i < 2; ++i) {
      add("insert", [&] { mem.MEM_HashInsEntry(table, kLen, &input, &entry); });
    }
    add("get", [&] { mem.MEM_HashGetEntry(table, &key, &entry); });
    add("scan", [&] { mem.MEM_HashScan(table, Scanned::note, nullptr); });
    add("delete", [&] { mem.MEM_HashDelEntry(table, &key); });
    for (const std::uint32_t absent : {4U, 1U}) {
      key = absent;
      add("get", [&] { mem.MEM_HashGetEntry(table, &key, &entry); });
      add("delete", [&] { mem.MEM_HashDelEntry(table, &key); });
    }
    add("close", [&] { mem.MEM_HashClose(table); });
  }
  EXPECT_GE(points.count(), 12U) << "entry and exit of each";
}

// Hosts without a thread environment or trace buffer.

void liveOneLife(MEMFunctionVector &mem) {
  HMEMHASH table = nullptr;
  ASSERT_EQ(mem.MEM_HashOpen(&table, kKeyOff, kKeyLen, 3, keyModulo4, 1, 7), 0);
  const Record input{1, 4, 2};
  const std::uint32_t absent = 1;
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_HashInsEntry(table, kLen, &input, &entry), 0);
  EXPECT_EQ(mem.MEM_HashInsEntry(table, kLen, &input, &entry), kDuplicate);
  EXPECT_EQ(mem.MEM_HashInsEntry(nullptr, kLen, &input, &entry), kFailed);
  EXPECT_EQ(mem.MEM_HashGetEntry(table, &absent, &entry), kNotFound);
  EXPECT_EQ(mem.MEM_HashGetEntry(table, &input.key, &entry), 0);
  Scanned::reset({3});
  EXPECT_EQ(mem.MEM_HashScan(table, Scanned::note, nullptr), 3);
  EXPECT_EQ(mem.MEM_HashDelEntry(table, &input.key), 0);
  EXPECT_EQ(mem.MEM_HashDelEntry(table, &input.key), kNotFound);
  EXPECT_EQ(mem.MEM_HashOpen(&table, 0, 4, -2, keyModulo4, 1, 7), kFailed);
  EXPECT_EQ(mem.MEM_HashClose(nullptr), kFailed);
  EXPECT_EQ(mem.MEM_HashClose(table), 0);
}

TEST_F(HashTest, MissingThreadEnvironmentIsTolerated) {
  host.setTraceFlags(0xFFFFFFFFU);
  host.withoutThreadEnv(true);
  const Bytes before = envBytes(env());
  liveOneLife(mem);
  EXPECT_EQ(changedRanges(before, envBytes(env())), "");
  host.withoutThreadEnv(false);
  host.setTraceFlags(0);
}

TEST_F(HashTest, MissingTraceBufferIsTolerated) {
  MEMTraceBuf *const buffer = env().pTraceBuf;
  env().pTraceBuf = nullptr;
  host.setTraceFlags(0xFFFFFFFFU);
  liveOneLife(mem);
  host.setTraceFlags(0);
  env().pTraceBuf = buffer;
}

}  // namespace
}  // namespace memtest
