// MEM_Pack reaches storage and its hash table through the function vector: what replaced slots see,
// and what their answers lead to.

#include "packtest.hpp"
#include "packwatch.hpp"

namespace memtest {
namespace {

// A root with a text and a child that refers to it.
class PackRoutingTest : public PackTest {
 protected:
  PackRoutingTest() {
    putPointer(root, 0, child);
    putPointer(root, 8, items.text(std::string(600, 'x')));
    putPointer(child, 16, root);
  }

  std::int16_t run() { return pack(controlBlock, root, kBlockLen); }

  // Answers the n-th call of a slot with a result; a failure leaves a record of its own.
  void answerOnce(int slot, std::int16_t result, int nth = 1) {
    watch.answer = [=, this, left = nth](int called) mutable -> std::optional<std::int16_t> {
      if (called != slot || --left != 0) return std::nullopt;
      if (result != kFailed) return result;
      error().Code = 4711;
      error().ReturnCode = kFailedCode;
      error().InnerCode = 4712;
      std::strcpy(error().NameText, "foreign record");
      recorded = errorBytes(env());
      return result;
    };
  }

  Lines exitLines() {
    host.setTraceFlags(MEM_TRACE_EXIT);
    host.keepRecords(true);
    run();
    host.keepRecords(false);
    host.setTraceFlags(0);
    Lines lines;
    for (const refhost::TraceRecord &record : host.takeRecords()) {
      if (record.function == "MEM_Pack") lines.push_back(record.type + ' ' + record.text);
    }
    return lines;
  }

  int callsOf(const char *slot) const {
    return static_cast<int>(std::count(watch.calls.begin(), watch.calls.end(), slot));
  }

  static constexpr std::int32_t kBlockLen = 1200;
  const ControlBlock controlBlock{
      {.fixedLen = 24, .children = {{0, 0}, {1, 8}}, .references = {16}}, stringKind()};
  std::uint8_t *root = items.make(24);
  std::uint8_t *child = items.make(24);
  PackWatch watch{mem};
  Bytes recorded;
};

TEST_F(PackRoutingTest, CallsComeInTheOrderOfTheSteps) {
  packed(controlBlock, root, kBlockLen);
  EXPECT_EQ(watch.calls, (Lines{"20", "8(1200, 0)", "8(1200, 0)", "22", "22", "23", "23", "21"}));
}

TEST_F(PackRoutingTest, HashTableIsOpenedForAddresses) {
  run();
  ASSERT_EQ(watch.opened.size(), 1U);
  const PackWatch::Opened &opened = watch.opened[0];
  EXPECT_EQ(opened.keyOff, 0);
  EXPECT_EQ(opened.keyLen, 8);
  EXPECT_EQ(opened.max, 127);
  EXPECT_EQ(opened.areaLen, 4);
  EXPECT_EQ(opened.subPool, 0);
}

TEST_F(PackRoutingTest, HashFunctionTakesTheLowByteOfTheAddress) {
  run();
  ASSERT_EQ(watch.opened.size(), 1U);
  const MEMHashFunc hash = watch.opened[0].pFunc;
  for (int byte = 0; byte < 256; ++byte) {
    const Bytes key{static_cast<std::uint8_t>(byte), 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(hash(key.data()), byte >> 1);
    const Bytes others{static_cast<std::uint8_t>(byte), 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(hash(others.data()), byte >> 1);
  }
}

TEST_F(PackRoutingTest, HashFunctionTakesTheFourthByteUnderThePlatformFlag) {
  host.sysEnv().PlatformFlags = MEM_PLATFORM_BIG_ENDIAN;
  run();
  ASSERT_EQ(watch.opened.size(), 1U);
  const MEMHashFunc hash = watch.opened[0].pFunc;
  for (int byte = 0; byte < 256; ++byte) {
    const Bytes key{0xFF, 0xFF, 0xFF, static_cast<std::uint8_t>(byte), 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(hash(key.data()), byte >> 1);
  }
  host.sysEnv().PlatformFlags = 0xFFFFFFFEU;
  const Bytes key{0x10, 0, 0, 0x20, 0, 0, 0, 0};
  EXPECT_EQ(hash(key.data()), 0x08) << "other bits mean nothing";
}

TEST_F(PackRoutingTest, EverySegmentIsInsertedOnceWithItsAddressAsKey) {
  packed(controlBlock, root, kBlockLen);
  ASSERT_EQ(watch.inserted.size(), 2U) << "texts are not inserted";
  const std::uint8_t *const segments[] = {root, child};
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(watch.inserted[i].length, 40);
    EXPECT_EQ(getPointer(watch.inserted[i].record.data(), 0), segments[i]);
  }
}

TEST_F(PackRoutingTest, StoredRecordsFormAListFromTheLastToTheFirst) {
  struct Stored {
    Bytes bytes;
    const void *address;
  };
  std::vector<Stored> stored;
  watch.onCall = [&](int slot) {  // by the first lookup all records are stored
    if (slot != 23 || !stored.empty()) return;
    for (const PackWatch::Inserted &record : watch.inserted) {
      stored.push_back({bytesOf(record.stored, 40), record.stored});
    }
  };
  packed(controlBlock, root, kBlockLen);
  ASSERT_EQ(stored.size(), 2U);
  const auto *const block0 = reinterpret_cast<const std::uint8_t *>(first);
  const auto *const block1 = reinterpret_cast<const std::uint8_t *>(first->pNext);
  const std::uint8_t *const copies[] = {block0 + 8 + 984, block1 + 8 + 605};
  const Bytes places[] = {relBytes(0, 984), relBytes(1, 605)};
  for (std::size_t i = 0; i < 2; ++i) {
    const std::uint8_t *const record = stored[i].bytes.data();
    EXPECT_EQ(getPointer(record, 8), copies[i]);
    EXPECT_EQ(cut(stored[i].bytes, 16, 8), places[i]);
    EXPECT_EQ(getPointer(record, 24), i == 0 ? nullptr : stored[i - 1].address);
    EXPECT_EQ(numberAt<std::uint16_t>(record + 32), 0) << "descriptor index";
  }
}

TEST_F(PackRoutingTest, FirstBlockIsHandedOverAsSoonAsItExists) {
  int blocksAsked = 0;
  watch.onCall = [&](int slot) {
    if (slot == 8) ++blocksAsked;
    const bool exists = slot == 8 ? blocksAsked > 1 : blocksAsked > 0;
    if (slot != 21) {
      EXPECT_EQ(first != nullptr, exists) << "at slot " << slot;
    }
  };
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(blocksAsked, 2);
}

TEST_F(PackRoutingTest, BlocksFromAReplacedSlotMayHoldAnything) {
  packed(controlBlock, root, kBlockLen);
  const Blocks expected = blocks();
  static MEM_AllocFn *own;
  own = mem.MEM_Alloc;
  mem.MEM_Alloc = [](std::uint32_t size, std::int16_t subPool) {
    void *const area = own(size, subPool);
    std::memset(area, 0xFF, size);
    return area;
  };
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(blockDifference(blocks(), expected), "");
}

// Failures of the hash table: its own record remains, the packer adds none, the table is closed.

class PackHashFailureTest : public PackRoutingTest {
 protected:
  void expectForeignRecord() {
    EXPECT_FALSE(recorded.empty()) << "the slot was not called";
    EXPECT_EQ(changedRanges(errorBytes(env()), recorded), "");
    EXPECT_EQ(host.calls(refhost::Service::ReportError), 0U);
  }
};

TEST_F(PackHashFailureTest, Open) {
  MemPackBlock mark{};
  MemPackBlock *cell = &mark;
  answerOnce(20, kFailed);
  std::memset(&error(), 0x5A, sizeof error());
  host.resetCalls();
  EXPECT_EQ(mem.MEM_Pack(controlBlock.get(), root, kBlockLen, &cell), kFailed);
  expectForeignRecord();
  EXPECT_EQ(watch.calls, Lines{"20"});
  EXPECT_EQ(cell, &mark);

  answerOnce(20, kFailed);
  EXPECT_EQ(exitLines(), Lines{"STDX HashOpen Return=FAILED"});
}

TEST_F(PackHashFailureTest, InsertOfTheFirstSegment) {
  answerOnce(22, kFailed);
  EXPECT_EQ(run(), kFailed);
  expectForeignRecord();
  EXPECT_EQ(watch.calls, (Lines{"20", "8(1200, 0)", "8(1200, 0)", "22", "21"}));
  EXPECT_EQ(blocks().size(), 2U);

  answerOnce(22, kFailed);
  EXPECT_EQ(exitLines(), Lines{"STDX HashInsEntry Return=FAILED"});
}

TEST_F(PackHashFailureTest, InsertOfALaterSegment) {
  answerOnce(22, kFailed, 2);
  EXPECT_EQ(run(), kFailed);
  expectForeignRecord();
  EXPECT_EQ(callsOf("21"), 1);
}

TEST_F(PackHashFailureTest, Lookup) {
  for (const int nth : {1, 2}) {
    answerOnce(23, kFailed, nth);
    watch.calls.clear();
    EXPECT_EQ(run(), kFailed);
    expectForeignRecord();
    EXPECT_EQ(callsOf("23"), nth);
    EXPECT_EQ(callsOf("21"), 1);
    EXPECT_EQ(blocks().size(), 2U);
  }
  answerOnce(23, kFailed);
  EXPECT_EQ(exitLines(), Lines{"STDX HashGetEntry Return=FAILED"});
}

TEST_F(PackHashFailureTest, CloseAfterEverythingIsPackedDoesNotFailTheCall) {
  answerOnce(21, kFailed);
  EXPECT_EQ(run(), 0);
  EXPECT_FALSE(recorded.empty());
  const Blocks made = blocks();
  answerOnce(21, kFailed);
  EXPECT_EQ(exitLines(), Lines{"STDX HashClose Return=FAILED"});
  EXPECT_EQ(blockDifference(made, packed(controlBlock, root, kBlockLen)), "");
}

TEST_F(PackHashFailureTest, CloseAfterAFailureLeavesTheFailureRecorded) {
  putPointer(child, 16, root + 1);
  answerOnce(21, kFailed);
  const std::int16_t result = run();
  EXPECT_FALSE(recorded.empty());
  expectRefused(result, MEMERR_PACKSPTR, "Invalid Segment Ptr=" + hex16(root + 1));
}

TEST_F(PackHashFailureTest, CloseAfterAHashFailureLeavesThatRecorded) {
  Bytes ofInsert;
  watch.answer = [&](int slot) -> std::optional<std::int16_t> {
    if (slot != 21 && slot != 22) return std::nullopt;
    error().Code = static_cast<std::uint32_t>(slot);
    std::strcpy(error().NameText, slot == 22 ? "insert" : "close");
    if (slot == 22) ofInsert = errorBytes(env());
    return kFailed;
  };
  EXPECT_EQ(run(), kFailed);
  EXPECT_EQ(nameText(), "insert");
  EXPECT_EQ(changedRanges(errorBytes(env()), ofInsert), "");
}

TEST_F(PackHashFailureTest, TableIsClosedOnceOnEveryPath) {
  const auto expectClosed = [&](const ControlBlock &kinds, const void *segment,
                                std::int32_t blockLen, std::int16_t expected) {
    watch.calls.clear();
    EXPECT_EQ(pack(kinds, segment, blockLen), expected);
    EXPECT_EQ(callsOf("20"), callsOf("21")) << expected;
  };
  expectClosed(controlBlock, root, kBlockLen, 0);
  expectClosed(controlBlock, root, 996, MEMERR_PACKBMIN);
  expectClosed(controlBlock, root, 0, MEMERR_PACKBMIN);
  expectClosed(controlBlock, root, INT32_MAX, MEMERR_PACKAMEM);
  expectClosed(controlBlock, root, 997, 0);
  expectClosed(ControlBlock{fixedKind(1000)}, root, 1000, MEMERR_PACKBMIN);
  expectClosed(ControlBlock{wideKind()}, items.wide(u""), kBlockLen, kFailed);
  expectClosed(ControlBlock{{.fixedLen = 8, .siblingOff = 1}}, root, kBlockLen, MEMERR_PACKCBID);
  putPointer(child, 0, root);
  expectClosed(controlBlock, root, kBlockLen, MEMERR_PACKCYCL);
  putPointer(child, 0, nullptr);
  putPointer(child, 16, child + 1);
  expectClosed(controlBlock, root, kBlockLen, MEMERR_PACKSPTR);
}

// Answers of a replaced table that are no failures of its own.

TEST_F(PackRoutingTest, DuplicateKeyFromAReplacedTableIsARecursion) {
  answerOnce(22, MEMERR_HASHDKEY);
  expectRefused(run(), MEMERR_PACKCYCL, "RecursiveStructure");
}

TEST_F(PackRoutingTest, AbsentKeyFromAReplacedTableIsALostPointer) {
  putPointer(child, 16, nullptr);  // the root's child pointer is the only one to look up
  answerOnce(23, MEMERR_HASHNFND);
  expectRefused(run(), MEMERR_PACKSPTR, "Invalid Segment Ptr=" + hex16(child));
}

TEST_F(PackRoutingTest, OnlySixteenBitsOfAHashResultCount) {
  static MEMFunctionVector own;
  own = mem;
  putAs(
      mem.MEM_HashOpen,
      +[](HMEMHASH *phHash, std::int16_t keyOff, std::int16_t keyLen, std::int16_t max,
          MEMHashFunc pFunc, std::int16_t areaLen, std::uint16_t subPool) -> std::uint32_t {
        own.MEM_HashOpen(phHash, keyOff, keyLen, max, pFunc, areaLen, subPool);
        return 0xABCD0000U;
      });
  putAs(
      mem.MEM_HashInsEntry,
      +[](HMEMHASH hMemHash, std::int16_t len, const void *pInputEntry,
          void **ppNewEntry) -> std::uint32_t {
        own.MEM_HashInsEntry(hMemHash, len, pInputEntry, ppNewEntry);
        return 0xABCD0000U;
      });
  putAs(
      mem.MEM_HashGetEntry,
      +[](HMEMHASH hMemHash, const void *pKey, void **ppEntry) -> std::uint32_t {
        own.MEM_HashGetEntry(hMemHash, pKey, ppEntry);
        return 0xABCD0000U;
      });
  packed(controlBlock, root, kBlockLen);
  putAs(
      mem.MEM_HashGetEntry,
      +[](HMEMHASH, const void *, void **) -> std::uint32_t { return 0xABCD0000U | 4034U; });
  EXPECT_EQ(run(), MEMERR_PACKSPTR);
}

}  // namespace
}  // namespace memtest
