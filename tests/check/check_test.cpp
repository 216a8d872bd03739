// The checking layer on a host without it: what it reports, what it leaves as it is, what it
// counts.
#include "qj7mem00/memchk.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "heaptest.hpp"
#include "memtest.hpp"

namespace memtest {
namespace {

// A report with its texts copied.
struct Found {
  MEMCheckReport report;
  std::string text;
  std::string foundBy;
  std::string madeBy;
  std::string endedBy;
};

std::string nameOf(const MEMCheckPlace &place) {
  return place.pService == nullptr ? "" : place.pService;
}

struct Settings {
  std::uint32_t flags = 0;
  std::uint32_t verifyEvery = 0;
  std::uint32_t redZone = 0;
  std::uint32_t quarantine = 0;
  bool toldCheckers = false;  // for components without a fault: others would not survive it
};

class CheckTest : public StartedTest {
 protected:
  CheckTest() : StartedTest(withDirtyStorage()) {}
  ~CheckTest() override { detach(); }

  void attach(const Settings &settings = {}) {
    MEMCheckOptions options{};
    options.Size = sizeof options;
    options.Flags = settings.flags | (settings.toldCheckers ? 0 : MEMCHK_NO_CHECKERS);
    options.VerifyEvery = settings.verifyEvery;
    options.RedZone = settings.redZone;
    options.Quarantine = settings.quarantine;
    options.pReport = [](void *pContext, const MEMCheckReport *pReport) {
      static_cast<CheckTest *>(pContext)->found.push_back(
          {*pReport, pReport->pText, nameOf(pReport->Found), nameOf(pReport->Made),
           nameOf(pReport->Ended)});
    };
    options.pContext = this;
    ASSERT_EQ(MEMCheckAttach(&mem, &options, &check), 0);
  }

  void detach() {
    MEMCheckDetach(check);
    check = nullptr;
  }

  void openHeaps(std::int16_t areaKB = 4) {
    ASSERT_EQ(mem.MEM_HeapOpen(&standard, areaKB, 7), 0);
    ASSERT_EQ(mem.MEM_EHeapOpen(&enhanced, areaKB, 7), 0);
  }

  void closeHeaps() {
    EXPECT_EQ(mem.MEM_HeapClose(standard), 0);
    EXPECT_EQ(mem.MEM_EHeapClose(enhanced), 0);
  }

  HMEMCELL openPool(std::int32_t areaLen = 4096, std::int32_t cellLen = 40) {
    HMEMCELL pool = nullptr;
    EXPECT_EQ(mem.MEM_CellOpen(&pool, areaLen, cellLen, 7), 0);
    return pool;
  }

  std::uint8_t *take(HMEMHEAP heap, std::int32_t length) {
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(heap, length, &entry), 0);
    return static_cast<std::uint8_t *>(entry);
  }

  std::uint8_t *takeCell(HMEMCELL pool) {
    void *cell = nullptr;
    EXPECT_EQ(mem.MEM_CellAllocEntry(pool, &cell), 0);
    return static_cast<std::uint8_t *>(cell);
  }

  // The one report since the last look.
  Found takeOne(MEMCheckKind kind) {
    EXPECT_EQ(found.size(), 1U);
    if (found.empty()) return {};
    Found one = found.front();
    found.clear();
    EXPECT_EQ(one.report.Kind, static_cast<std::uint32_t>(kind)) << one.text;
    return one;
  }

  MEMCheck *check = nullptr;
  std::vector<Found> found;
  HMEMHEAP standard = nullptr;
  HMEMHEAP enhanced = nullptr;
};

std::vector<int> changedSlots(const MEMFunctionVector &before, const MEMFunctionVector &after) {
  std::vector<int> slots;
  for (int slot = 0; slot < MEM_VECTOR_LEN; ++slot) {
    const std::size_t offset = static_cast<std::size_t>(slot) * sizeof(void *);
    if (load<void *>(&before, offset) != load<void *>(&after, offset)) slots.push_back(slot);
  }
  return slots;
}

TEST_F(CheckTest, AttachReplacesTheSlotsOfHeapsAndPoolsAndDetachPutsThemBack) {
  const MEMFunctionVector before = mem;
  attach();
  EXPECT_EQ(changedSlots(before, mem), (std::vector<int>{10, 11, 12, 13, 14, 15, 16, 17, 18, 19,
                                                         36, 37, 38, 39, 40, 41, 42, 44, 50, 51}));
  detach();
  EXPECT_TRUE(changedSlots(before, mem).empty());
}

TEST_F(CheckTest, StatisticsReplaceAllSlotsFrom8On) {
  const MEMFunctionVector before = mem;
  attach({.flags = MEMCHK_STATISTICS});
  std::vector<int> all;
  for (int slot = 8; slot < MEM_VECTOR_LEN; ++slot) all.push_back(slot);
  EXPECT_EQ(changedSlots(before, mem), all);
  detach();
  EXPECT_TRUE(changedSlots(before, mem).empty());
}

TEST_F(CheckTest, OneLayerAtATimeOnABoundVector) {
  MEMCheck *other = nullptr;
  MEMFunctionVector empty{};
  EXPECT_EQ(MEMCheckAttach(&empty, nullptr, &other), MEMCHK_NOT_BOUND);
  EXPECT_EQ(MEMCheckAttach(nullptr, nullptr, &other), MEMCHK_NOT_BOUND);
  EXPECT_EQ(MEMCheckAttach(&mem, nullptr, nullptr), MEMCHK_NOT_BOUND);
  attach();
  EXPECT_EQ(MEMCheckAttach(&mem, nullptr, &other), MEMCHK_ATTACHED_ALREADY);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(MEMCheckDetach(nullptr), 0);
}

// What was in a slot before attach stays in use, and what is put there later is left there.
TEST_F(CheckTest, ServicesOfTheHostStayInUse) {
  static int own;
  static MEM_CellOpenFn *below;
  own = 0;
  below = mem.MEM_CellOpen;
  const auto counting = [](HMEMCELL *pool, std::int32_t area, std::int32_t cell,
                           std::int16_t subPool) {
    ++own;
    return below(pool, area, cell, subPool);
  };
  mem.MEM_CellOpen = counting;
  attach();
  HMEMCELL pool = openPool();
  EXPECT_EQ(own, 1);
  mem.MEM_CellClose(pool);

  static MEM_HeapOpenFn *layers;
  layers = mem.MEM_HeapOpen;
  const auto later = [](HMEMHEAP *heap, std::int16_t area, std::uint16_t subPool) {
    return layers(heap, area, subPool);
  };
  mem.MEM_HeapOpen = later;
  detach();
  EXPECT_EQ(mem.MEM_HeapOpen, static_cast<MEM_HeapOpenFn *>(later));
  EXPECT_EQ(mem.MEM_CellOpen, static_cast<MEM_CellOpenFn *>(counting));
  openHeaps();  // through the wrapper that is still called, without a layer
  take(standard, 8);
  closeHeaps();
  EXPECT_TRUE(found.empty());
}

// --- heaps

struct WriteCase {
  std::int32_t length;
  std::int64_t offset;  // from the entry, or from its end when it is not below 0
  MEMCheckKind kind;
};

const WriteCase kWrites[] = {
    {40, 0, MEMCHK_OVERRUN},      {40, 47, MEMCHK_OVERRUN},     {40, 63, MEMCHK_OVERRUN},
    {13, 0, MEMCHK_OVERRUN},      {13, 2, MEMCHK_OVERRUN},      {1, 0, MEMCHK_OVERRUN},
    {5000, 0, MEMCHK_OVERRUN},    {5000, 63, MEMCHK_OVERRUN},   {40, -1, MEMCHK_UNDERRUN},
    {40, -48, MEMCHK_UNDERRUN},   {40, -64, MEMCHK_UNDERRUN},   {5000, -1, MEMCHK_UNDERRUN},
    {5000, -24, MEMCHK_UNDERRUN}, {5000, -64, MEMCHK_UNDERRUN},
};

TEST_F(CheckTest, WritesAroundEntriesAreFoundByVerify) {
  attach();
  openHeaps();
  for (const HMEMHEAP heap : {standard, enhanced}) {
    for (const WriteCase &write : kWrites) {
      SCOPED_TRACE(std::to_string(write.length) + " bytes, at " + std::to_string(write.offset));
      std::uint8_t *entry = take(heap, write.length);
      std::uint8_t *byte = entry + write.offset + (write.offset < 0 ? 0 : write.length);
      const std::uint8_t before = *byte;
      *byte = static_cast<std::uint8_t>(before + 1);
      EXPECT_EQ(MEMCheckVerify(check), 1U);
      const Found one = takeOne(write.kind);
      // A large entry's red zone has a mark of eight bytes, which is damaged as a whole.
      if (write.offset != -24) {
        EXPECT_EQ(one.report.pAddress, byte);
      }
      EXPECT_EQ(one.report.pObject, entry);
      EXPECT_EQ(one.report.pOwner, heap);
      EXPECT_EQ(one.report.Length, write.length);
      EXPECT_EQ(one.madeBy, "MEM_HeapAllocEntryLong");
      EXPECT_EQ(one.foundBy, "");
      EXPECT_EQ(one.endedBy, "");
      EXPECT_EQ(*byte, before) << "repaired";
      EXPECT_EQ(MEMCheckVerify(check), 0U) << "reported once";
    }
  }
  closeHeaps();
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(MEMCheckReports(check), 2 * std::size(kWrites));
}

TEST_F(CheckTest, WritesOnBothSidesAreTwoReports) {
  attach();
  openHeaps();
  std::uint8_t *entry = take(enhanced, 5000);
  std::memset(entry - 30, 0, 30);
  std::memset(entry + 5000, 0, 9);
  EXPECT_EQ(MEMCheckVerify(check), 2U);
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].report.Given, 30);
  EXPECT_EQ(found[1].report.Given, 9);
  closeHeaps();
}

TEST_F(CheckTest, OverrunsAreFoundAtFreeAndClose) {
  attach();
  openHeaps();
  std::uint8_t *entry = take(enhanced, 40);
  entry[40] = 0;
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, entry), 0);
  EXPECT_EQ(takeOne(MEMCHK_OVERRUN).foundBy, "MEM_EHeapFreeEntry");
  entry = take(standard, 40);
  entry[40] = 0;
  closeHeaps();
  EXPECT_EQ(takeOne(MEMCHK_OVERRUN).foundBy, "MEM_HeapClose");
}

TEST_F(CheckTest, VerifyEveryLooksByItself) {
  attach({.verifyEvery = 5});
  openHeaps();                              // calls 1 and 2
  std::uint8_t *entry = take(standard, 8);  // 3
  entry[8] = 0;
  take(standard, 8);  // 4
  EXPECT_TRUE(found.empty());
  take(enhanced, 8);  // 5
  const Found one = takeOne(MEMCHK_OVERRUN);
  EXPECT_EQ(one.report.Found.Call, 5U);
  EXPECT_EQ(one.report.Made.Call, 3U);
  closeHeaps();
}

TEST_F(CheckTest, DetachLooksForTheLastTime) {
  attach();
  openHeaps();
  take(standard, 8)[8] = 0;
  detach();
  takeOne(MEMCHK_OVERRUN);
  closeHeaps();
}

// Entries from before detach can be freed after it, large ones too.
TEST_F(CheckTest, HeapsMayStayOpenWhenTheLayerGoes) {
  attach();
  openHeaps();
  void *small = take(enhanced, 40);
  void *large = take(enhanced, 5000);
  detach();
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, small), 0);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 5000, large), 0);
  closeHeaps();
  EXPECT_TRUE(found.empty());
}

TEST_F(CheckTest, HeapsMayBeOpenWhenTheLayerComes) {
  openHeaps();
  void *early = take(enhanced, 40);
  void *earlyLarge = take(enhanced, 5000);
  HMEMCELL pool = openPool();
  void *cell = takeCell(pool);
  attach();
  std::uint8_t *late = take(enhanced, 40);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, early), 0);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 5000, earlyLarge), 0);
  EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
  EXPECT_EQ(takeCell(pool), cell);
  EXPECT_TRUE(found.empty());
  late[40] = 0;
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, late), 0);
  takeOne(MEMCHK_OVERRUN);
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
  closeHeaps();
}

TEST_F(CheckTest, FreedEntriesAreWatchedUntilTheirHeapIsClosed) {
  attach();
  openHeaps();
  std::vector<std::uint8_t *> freed;
  for (const std::int32_t length : {13, 5000}) {
    std::uint8_t *entry = take(enhanced, length);
    std::memset(entry, 1, static_cast<std::size_t>(length));
    EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, length, entry), 0);
    EXPECT_EQ(MEMCheckVerify(check), 0U);
    entry[12] = 7;
    EXPECT_EQ(MEMCheckVerify(check), 1U);
    const Found one = takeOne(MEMCHK_FREED_WRITE);
    EXPECT_EQ(one.report.pAddress, entry + 12);
    EXPECT_EQ(one.report.Given, 1);
    EXPECT_EQ(one.endedBy, "MEM_EHeapFreeEntry");
    freed.push_back(entry);
  }
  for (std::uint8_t *entry : freed) entry[0] = 7;
  closeHeaps();
  EXPECT_EQ(found.size(), 2U);
}

TEST_F(CheckTest, WrongLengthsAreReportedAndDamageNothing) {
  attach();
  openHeaps();
  for (const auto &[length, given] : {std::pair{40, 41},
                                      {40, 39},
                                      {40, 400},
                                      {40, 0},
                                      {40, -1},
                                      {5000, 5001},
                                      {5000, 40},
                                      {5000, 4999}}) {
    SCOPED_TRACE(std::to_string(length) + " freed with " + std::to_string(given));
    std::uint8_t *entry = take(enhanced, length);
    std::uint8_t *next = take(enhanced, 16);
    std::memset(next, 9, 16);
    EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, given, entry), 0);
    const Found one = takeOne(MEMCHK_WRONG_LENGTH);
    EXPECT_EQ(one.report.Given, given);
    EXPECT_EQ(one.report.Length, length);
    EXPECT_EQ(one.report.Code, static_cast<std::uint32_t>(MEMERR_HEAPENTRY));
    EXPECT_TRUE(allBytesAre(next, 16, 9));
    EXPECT_EQ(MEMCheckVerify(check), 0U);
  }
  // What the heap refuses by itself stays refused, and the entry allocated.
  std::uint8_t *entry = take(enhanced, 40);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 5000, entry), kFailed);
  EXPECT_EQ(nameText(), "BuffPtr=" + hex16(entry));
  takeOne(MEMCHK_WRONG_LENGTH);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, entry), 0);
  EXPECT_TRUE(found.empty());
  closeHeaps();
}

TEST_F(CheckTest, EntriesFreedTwiceToAnotherHeapOrFromNowhere) {
  attach();
  openHeaps();
  HMEMHEAP other = nullptr;
  ASSERT_EQ(mem.MEM_EHeapOpen(&other, 4, 7), 0);
  std::uint8_t *entry = take(enhanced, 40);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, entry), 0);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, entry), 0);
  const Found twice = takeOne(MEMCHK_DOUBLE_FREE);
  EXPECT_EQ(twice.endedBy, "MEM_EHeapFreeEntry");
  EXPECT_EQ(twice.report.Found.Call, twice.report.Ended.Call + 1);
  entry = take(enhanced, 40);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(other, 40, entry), 0);
  EXPECT_EQ(takeOne(MEMCHK_OTHER_OWNER).report.pOwner, enhanced);
  entry = take(standard, 40);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(other, 40, entry), 0);
  EXPECT_EQ(takeOne(MEMCHK_OTHER_OWNER).report.pOwner, standard);
  entry = take(enhanced, 400);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, entry + 40), 0);
  const Found inside = takeOne(MEMCHK_FOREIGN);
  EXPECT_EQ(inside.report.pObject, entry);
  EXPECT_EQ(inside.report.pAddress, entry + 40);
  // The heap clears 40 bytes there; the layer writes what is its own of them anew.
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, entry + 392), 0);
  takeOne(MEMCHK_FOREIGN);
  EXPECT_EQ(MEMCheckVerify(check), 0U);
  std::uint64_t own[8]{};
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, own), kFailed);
  EXPECT_EQ(error().Code, static_cast<std::uint32_t>(MEMERR_HEAPENTRY));
  EXPECT_EQ(takeOne(MEMCHK_FOREIGN).report.pOwner, enhanced);
  EXPECT_EQ(MEMCheckVerify(check), 0U);
  EXPECT_EQ(mem.MEM_EHeapClose(other), 0);
  closeHeaps();
}

TEST_F(CheckTest, ClosedHandlesAreReportedWithBothPlaces) {
  static std::vector<void *> kept;  // the services look at the handles, too
  MEM_FreeFn *const free = mem.MEM_Free;
  mem.MEM_Free = [](void *area, std::uint32_t, std::int16_t) { kept.push_back(area); };
  attach();
  openHeaps();
  HMEMCELL pool = openPool();
  closeHeaps();
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
  void *entry = untouched();
  for (const HMEMHEAP heap : {standard, enhanced}) {
    mem.MEM_HeapAllocEntry(heap, 8, &entry);
    const Found one = takeOne(MEMCHK_CLOSED_HANDLE);
    EXPECT_EQ(one.report.pAddress, heap);
    EXPECT_EQ(one.foundBy, "MEM_HeapAllocEntry");
    EXPECT_EQ(one.madeBy, heap == standard ? "MEM_HeapOpen" : "MEM_EHeapOpen");
    EXPECT_EQ(one.endedBy, heap == standard ? "MEM_HeapClose" : "MEM_EHeapClose");
    EXPECT_EQ(one.report.Code, static_cast<std::uint32_t>(MEMERR_HEAPBHDL));
  }
  mem.MEM_CellAllocEntry(pool, &entry);
  EXPECT_EQ(takeOne(MEMCHK_CLOSED_HANDLE).report.Code, static_cast<std::uint32_t>(MEMERR_CELLBHDL));
  EXPECT_EQ(entry, untouched());
  mem.MEM_Free = free;
  for (void *area : kept) mem.MEM_Free(area, 4096, 7);
  kept.clear();
}

// An address that a new heap has got is no closed one.
TEST_F(CheckTest, HandlesMayComeAgain) {
  attach({.toldCheckers = true});
  for (int i = 0; i < 100; ++i) {
    openHeaps();
    take(standard, 100);
    take(enhanced, 100);
    closeHeaps();
  }
  EXPECT_TRUE(found.empty());
}

// --- what stays as it is

TEST_F(CheckTest, ArgumentsOfFailuresAreTheComponents) {
  attach();
  openHeaps();
  void *entry = untouched();
  for (const std::int32_t length : {0, -5}) {
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(standard, length, &entry), kFailed);
    EXPECT_EQ(nameText(), "Entry Length=" + std::to_string(length) + " too small");
    EXPECT_EQ(entry, untouched());
  }
  EXPECT_EQ(mem.MEM_HeapAllocEntry(nullptr, 8, &entry), kFailed);
  EXPECT_EQ(nameText(), "Invalid Heap Handle=" + hex16(nullptr));
  EXPECT_EQ(mem.MEM_HeapClose(enhanced), kFailed);
  EXPECT_EQ(nameText(), "Invalid Heap Handle=" + hex16(enhanced));
  EXPECT_EQ(mem.MEM_EHeapClose(standard), kFailed);
  closeHeaps();
  EXPECT_TRUE(found.empty());
}

// Which block the storage failed for depends on the length that the component asks for.
TEST_F(CheckTest, StorageFailuresNameTheSameBlocks) {
  attach();
  openHeaps(1);
  for (std::int32_t length = 800; length <= 1200; ++length) {
    take(standard, 968);  // the current area is full
    void *entry = untouched();
    host.arm(faultOf(refhost::Service::GetStorage));
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(standard, length, &entry), kFailed);
    EXPECT_EQ(nameText(), length <= 968 ? "MemAllocAreaFail" : "MemAllocBlkFail") << length;
    EXPECT_EQ(entry, untouched());
  }
  host.disarm();
  closeHeaps();
}

// The host serves single requests up to a limit.
TEST_F(CheckTest, LongestRequestIsTheSameAsWithoutTheLayer) {
  attach();
  static MEM_AllocFn *below;
  below = mem.MEM_Alloc;
  mem.MEM_Alloc = [](std::uint32_t size, std::int16_t subPool) -> void * {
    return size > 0x200000 ? nullptr : below(size, subPool);
  };
  openHeaps();
  void *entry = nullptr;
  for (const HMEMHEAP heap : {standard, enhanced}) {
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(heap, 0x200000 - 24, &entry), 0);
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(heap, 0x200000 - 23, &entry), kFailed);
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(heap, 0x7FFFFFFF, &entry), kFailed);
    EXPECT_EQ(nameText(), "MemAllocBlkFail");
  }
  EXPECT_EQ(MEMCheckVerify(check), 0U);
  closeHeaps();
}

TEST_F(CheckTest, EntriesKeepTheirAlignmentAndContents) {
  openHeaps();
  const std::uintptr_t plain = asNumber(take(standard, 24)) % 16;
  closeHeaps();
  for (const std::uint32_t zone : {0U, 1U, 40U, 100U}) {
    attach({.redZone = zone});
    openHeaps();
    const std::uint8_t *entry = take(standard, 24);
    EXPECT_EQ(asNumber(entry) % 16, plain);
    EXPECT_TRUE(allBytesAre(entry, 24, 0xA5)) << "as the host's storage came";
    closeHeaps();
    detach();
  }
}

TEST_F(CheckTest, ZonesAreAsLongAsAskedFor) {
  attach({.redZone = 256});
  openHeaps();
  std::uint8_t *entry = take(standard, 24);
  entry[24 + 255] = 0;
  entry[-256] = 0;
  EXPECT_EQ(MEMCheckVerify(check), 2U);
  closeHeaps();
}

TEST_F(CheckTest, OptionsOfAnOlderCallerAreRead) {
  MEMCheckOptions options{};
  options.Size = 8;
  options.Flags = MEMCHK_NO_CHECKS;
  options.RedZone = 4096;
  options.pReport = [](void *, const MEMCheckReport *) { ADD_FAILURE(); };
  ASSERT_EQ(MEMCheckAttach(&mem, &options, &check), 0);
  openHeaps();
  take(standard, 8)[8] = 1;
  closeHeaps();
}

// --- chains and the services that the library builds on heaps

TEST_F(CheckTest, ChainsAreTheirCallers) {
  attach();
  openHeaps();
  void *first = nullptr;
  ASSERT_EQ(mem.MEM_HeapAllocMultEntries(standard, 24, 3, 8, &first), 0);
  auto *second = load<std::uint8_t *>(first, 8);
  second[24] = 0;
  EXPECT_EQ(MEMCheckVerify(check), 1U);
  EXPECT_EQ(takeOne(MEMCHK_OVERRUN).madeBy, "MEM_HeapAllocMultEntries");
  ASSERT_EQ(mem.MEM_EHeapAllocLongMultEntries(enhanced, 24, 3, 8, &first), 0);
  for (auto *entry = static_cast<std::uint8_t *>(first); entry != nullptr;) {
    auto *next = load<std::uint8_t *>(entry, 8);
    EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 24, entry), 0);
    entry = next;
  }
  EXPECT_TRUE(found.empty());
  // A link beyond the entry is written by the service, and is the caller's fault.
  ASSERT_EQ(mem.MEM_HeapAllocMultEntries(standard, 8, 2, 8, &first), 0);
  EXPECT_EQ(MEMCheckVerify(check), 2U);
  EXPECT_EQ(found.front().madeBy, "MEM_HeapAllocMultEntries");
  closeHeaps();
}

std::int16_t firstByte(const void *key) {
  return load<std::uint8_t>(key, 0) % 8;
}

TEST_F(CheckTest, RecordsOfHashTablesAreEntriesToo) {
  attach();
  HMEMHASH table = nullptr;
  ASSERT_EQ(mem.MEM_HashOpen(&table, 0, 8, 7, firstByte, 4, 7), 0);
  std::uint64_t record = 1;
  void *stored = nullptr;
  ASSERT_EQ(mem.MEM_HashInsEntry(table, 8, &record, &stored), 0);
  EXPECT_EQ(MEMCheckVerify(check), 0U);
  static_cast<std::uint8_t *>(stored)[15] = 0;  // its rounding is the table's
  EXPECT_EQ(MEMCheckVerify(check), 1U);
  EXPECT_EQ(mem.MEM_HashClose(table), 0);
}

// --- cells

TEST_F(CheckTest, FreedCellsAreKeptAndWatched) {
  attach();
  HMEMCELL pool = openPool();
  std::uint8_t *cell = takeCell(pool);
  std::memset(cell, 1, 40);
  EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
  EXPECT_NE(takeCell(pool), cell);
  EXPECT_EQ(MEMCheckVerify(check), 0U);
  cell[39] = 1;
  EXPECT_EQ(MEMCheckVerify(check), 1U);
  const Found one = takeOne(MEMCHK_FREED_WRITE);
  EXPECT_EQ(one.report.pAddress, cell + 39);
  EXPECT_EQ(one.report.pObject, cell);
  EXPECT_EQ(one.report.pOwner, pool);
  EXPECT_EQ(one.madeBy, "MEM_CellAllocEntry");
  EXPECT_EQ(one.endedBy, "MEM_CellFreeEntry");
  cell[0] = 1;
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
  EXPECT_EQ(takeOne(MEMCHK_FREED_WRITE).foundBy, "MEM_CellClose");
}

// A pool has as many areas as without the layer: what is kept goes back first.
TEST_F(CheckTest, KeptCellsGoBackBeforeThePoolGrows) {
  attach({.toldCheckers = true});
  HMEMCELL pool = openPool(1024, 100);  // 8 cells in the first area
  std::vector<std::uint8_t *> cells;
  for (int i = 0; i < 8; ++i) cells.push_back(takeCell(pool));
  const std::uint64_t areas = host.account(7).liveCount;
  for (std::uint8_t *cell : cells) EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
  for (std::uint8_t *cell : cells) {
    std::uint8_t *again = takeCell(pool);
    EXPECT_EQ(again, cell) << "the one kept longest";
    EXPECT_TRUE(allBytesAre(again, 100, 0));
  }
  EXPECT_EQ(host.account(7).liveCount, areas);
  takeCell(pool);
  EXPECT_EQ(host.account(7).liveCount, areas + 1);
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
}

TEST_F(CheckTest, FreeCellsOfAPoolAreWatchedToo) {
  attach({.quarantine = 1});
  HMEMCELL pool = openPool(1024, 100);
  std::uint8_t *first = takeCell(pool);
  std::uint8_t *second = takeCell(pool);
  EXPECT_EQ(mem.MEM_CellFreeEntry(pool, first), 0);
  EXPECT_EQ(mem.MEM_CellFreeEntry(pool, second), 0);  // the first goes back to the pool
  first[0] = 1;                                       // its link
  first[99] = 1;
  EXPECT_EQ(takeCell(pool), first);
  const Found one = takeOne(MEMCHK_FREED_WRITE);
  EXPECT_EQ(one.foundBy, "MEM_CellAllocEntry");
  EXPECT_EQ(one.report.Given, 100);
  // A cell that was never allocated: the link of the next fresh one.
  second[100] = 1;
  EXPECT_EQ(takeCell(pool), second + 100);
  EXPECT_EQ(takeOne(MEMCHK_FREED_WRITE).report.pObject, second + 100);
  for (int i = 0; i < 30; ++i) takeCell(pool);  // the list is whole
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
}

TEST_F(CheckTest, MisusedCellsAreReportedAndDamageNothing) {
  attach();
  HMEMCELL pool = openPool();
  HMEMCELL other = openPool();
  std::uint8_t *cell = takeCell(pool);
  std::memset(cell, 1, 40);
  EXPECT_EQ(mem.MEM_CellFreeEntry(other, cell), 0);
  EXPECT_EQ(takeOne(MEMCHK_OTHER_OWNER).report.pOwner, pool);
  EXPECT_TRUE(allBytesAre(cell, 40, 1)) << "still the component's";
  EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
  EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
  EXPECT_EQ(takeOne(MEMCHK_DOUBLE_FREE).endedBy, "MEM_CellFreeEntry");
  std::uint64_t own[8] = {1};
  EXPECT_EQ(mem.MEM_CellFreeEntry(pool, own), 0);
  EXPECT_EQ(takeOne(MEMCHK_FOREIGN).report.pAddress, own);
  EXPECT_EQ(own[0], 1U);
  EXPECT_EQ(mem.MEM_CellFreeEntry(pool, nullptr), 0);
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
  EXPECT_EQ(mem.MEM_CellClose(other), 0);
}

TEST_F(CheckTest, ClearedPoolsBeginAnew) {
  attach({.toldCheckers = true});
  HMEMCELL pool = openPool(1024, 100);
  std::uint8_t *cell = takeCell(pool);
  for (int i = 0; i < 20; ++i) takeCell(pool);
  EXPECT_EQ(mem.MEM_CellClear(pool), 0);
  EXPECT_EQ(takeCell(pool), cell);
  EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
  for (int i = 0; i < 20; ++i) takeCell(pool);
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
}

TEST_F(CheckTest, FailedCallsLeaveTheRecordsAsTheyWere) {
  attach();
  openHeaps();
  std::uint8_t *entry = take(enhanced, 40);
  host.arm(faultOf(refhost::Service::AcquireGate));
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, entry), kFailed);
  std::memset(entry, 3, 40);
  host.arm(faultOf(refhost::Service::AcquireGate));
  EXPECT_EQ(mem.MEM_EHeapClose(enhanced), kFailed);
  entry[40] = 0;
  EXPECT_EQ(MEMCheckVerify(check), 1U);
  takeOne(MEMCHK_OVERRUN);
  host.disarm();
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 40, entry), 0);
  HMEMCELL pool = openPool(1024, 100);
  for (int i = 0; i < 8; ++i) takeCell(pool);
  void *cell = untouched();
  host.arm(faultOf(refhost::Service::GetStorage));
  EXPECT_EQ(mem.MEM_CellAllocEntry(pool, &cell), kFailed);
  EXPECT_EQ(cell, untouched());
  host.disarm();
  takeCell(pool);
  EXPECT_TRUE(found.empty());
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
  closeHeaps();
}

// --- places and texts

TEST_F(CheckTest, PlacesAreInTheComponentThatCalled) {
  attach();
  openHeaps();
  std::uint8_t *entry = nullptr;
  std::thread([&] {
    EXPECT_EQ(mem.MEM_ThreadAct(), 0);
    entry = take(enhanced, 8);
    EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
  }).join();
  entry[8] = 0;
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 8, entry), 0);
  const Found one = takeOne(MEMCHK_OVERRUN);
  EXPECT_NE(one.report.Made.Thread, one.report.Found.Thread);
  EXPECT_EQ(one.report.Made.Slot, 14U);
  EXPECT_EQ(one.report.Found.Slot, 39U);
  EXPECT_NE(one.text.find("overrun: 1 byte written after an entry\n"), std::string::npos);
  EXPECT_NE(one.text.find("allocated by MEM_HeapAllocEntryLong, call 3, "), std::string::npos);
  EXPECT_NE(one.text.find("from check_test"), std::string::npos) << one.text;
  closeHeaps();
}

// --- threads

TEST_F(CheckTest, ThreadsShareAnEnhancedHeapUnderTheLayer) {
  attach({.verifyEvery = 97, .toldCheckers = true});
  openHeaps();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      EXPECT_EQ(mem.MEM_ThreadAct(), 0);
      HMEMCELL pool = openPool(1024, 48);
      std::vector<std::pair<std::uint8_t *, std::int32_t>> entries;
      for (int i = 0; i < 500; ++i) {
        const std::int32_t length = (i * 37 + t * 11) % 300 + (i % 50 == 0 ? 5000 : 0);
        void *entry = nullptr;
        EXPECT_EQ(mem.MEM_EHeapAllocEntry(enhanced, length, &entry), 0);
        std::memset(entry, t, static_cast<std::size_t>(length));
        entries.emplace_back(static_cast<std::uint8_t *>(entry), length);
        std::uint8_t *cell = takeCell(pool);
        std::memset(cell, t, 48);
        if (i % 3 != 0) {
          EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
        }
        if (i % 2 == 0) continue;
        const auto [freed, freedLen] = entries[entries.size() / 2];
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(entries.size() / 2));
        EXPECT_TRUE(
            allBytesAre(freed, static_cast<std::size_t>(freedLen), static_cast<std::uint8_t>(t)));
        EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, freedLen, freed), 0);
      }
      EXPECT_EQ(mem.MEM_CellClose(pool), 0);
      EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(MEMCheckVerify(check), 0U);
  for (const Found &one : found) ADD_FAILURE() << one.text;
  closeHeaps();
}

// --- statistics

nlohmann::json statisticsOf(MEMCheck *check,
                            decltype(&MEMCheckStatistics) ask = MEMCheckStatistics) {
  std::string text;
  ask(
      check,
      [](void *pContext, const char *pText, std::size_t len) {
        static_cast<std::string *>(pContext)->append(pText, len);
      },
      &text);
  return nlohmann::json::parse(text);
}

const nlohmann::json *serviceOf(const nlohmann::json &all, const std::string &name) {
  for (const nlohmann::json &service : all["services"]) {
    if (service["service"] == name) return &service;
  }
  return nullptr;
}

TEST_F(CheckTest, StatisticsOfHeapsAreThoseOfTheComponent) {
  attach({.flags = MEMCHK_NO_CHECKS});
  openHeaps(1);
  void *entry = take(enhanced, 100);
  take(enhanced, 5);
  take(enhanced, 900);  // a second area; 64 + 104 + 16 of the first are used
  take(enhanced, 2000);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 100, entry), 0);
  EXPECT_EQ(mem.MEM_HeapAllocEntryLong(standard, 0, &entry), kFailed);

  const nlohmann::json all = statisticsOf(check);
  EXPECT_EQ(all["heaps"]["opened"], 2);
  ASSERT_EQ(all["heaps"]["open"].size(), 2U);
  const nlohmann::json &heap = all["heaps"]["open"][1];
  EXPECT_EQ(heap["kind"], "enhanced");
  EXPECT_EQ(heap["handle"], "0x" + hex16(enhanced));
  EXPECT_EQ(heap["opened"]["service"], "MEM_EHeapOpen");
  EXPECT_EQ(heap["opened"]["from"].get<std::string>().find("check_test"), 0U) << heap["opened"];
  EXPECT_EQ(heap["subPool"], 7);
  EXPECT_EQ(heap["areaSize"], 1024);
  EXPECT_EQ(heap["areas"], 2);
  EXPECT_EQ(heap["largeBlocks"], 1);
  EXPECT_EQ(heap["bytesObtained"], 2048 + 2024);
  EXPECT_EQ(heap["bytesWasted"], 1024 - 184);
  EXPECT_EQ(heap["bytesUsed"], 184 + 24 + 904 + 2024);
  EXPECT_EQ(heap["made"], 4);
  EXPECT_EQ(heap["freed"], 1);
  EXPECT_EQ(heap["live"], 3);
  EXPECT_EQ(heap["bytesAsked"], 3005);
  EXPECT_EQ(heap["bytesLive"], 2905);
  EXPECT_EQ(heap["bytesPeak"], 3005);
  EXPECT_EQ(heap["histogram"], nlohmann::json::parse(R"([{"from":4,"count":1},
      {"from":64,"count":1},{"from":512,"count":1},{"from":1024,"count":1}])"));

  const nlohmann::json *calls = serviceOf(all, "MEM_HeapAllocEntryLong");
  ASSERT_NE(calls, nullptr);
  EXPECT_EQ((*calls)["calls"], 5);
  EXPECT_EQ((*calls)["failures"], 1);
  EXPECT_EQ((*calls)["slot"], 14);
  EXPECT_EQ(all.count("tables"), 0U) << "without MEMCHK_STATISTICS";
  closeHeaps();
  EXPECT_EQ(statisticsOf(check)["heaps"]["closed"], 2);
}

TEST_F(CheckTest, StatisticsOfPools) {
  for (const std::uint32_t flags : {0U, MEMCHK_NO_CHECKS}) {
    attach({.flags = flags, .toldCheckers = true});
    HMEMCELL pool = openPool(1024, 100);
    void *cell = takeCell(pool);
    for (int i = 0; i < 10; ++i) takeCell(pool);  // 8 in the first area, 10 in the second
    EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cell), 0);
    const nlohmann::json all = statisticsOf(check);
    const nlohmann::json &shown = all["pools"]["open"][0];
    EXPECT_EQ(shown["areas"], 2);
    EXPECT_EQ(shown["cellLen"], 100);
    EXPECT_EQ(shown["bytesObtained"], 2048);
    EXPECT_EQ(shown["bytesUsed"], 1000);
    EXPECT_EQ(shown["bytesWasted"], 8 + 24);
    EXPECT_EQ(shown["made"], 11);
    EXPECT_EQ(shown["live"], 10);
    EXPECT_EQ(shown["bytesPeak"], 1100);
    EXPECT_EQ(mem.MEM_CellClose(pool), 0);
    detach();
  }
}

// The parts of an area of a map as "64+100/104 MEM_EHeapAllocEntry": offset, bytes asked and taken.
std::string mapText(const nlohmann::json &area) {
  std::string text;
  for (const nlohmann::json &entry : area["entries"]) {
    text += (text.empty() ? "" : ", ") + std::to_string(entry["offset"].get<int>()) + "+" +
            std::to_string(entry["asked"].get<int>()) + "/" +
            std::to_string(entry["taken"].get<int>()) + " " +
            entry["made"]["service"].get<std::string>();
    if (entry.count("freed") != 0)
      text += ", freed by " + entry["freed"]["service"].get<std::string>();
  }
  return text;
}

TEST_F(CheckTest, MapsShowWhereEntriesOfHeapsLie) {
  attach({.flags = MEMCHK_NO_CHECKS | MEMCHK_PLACES});
  openHeaps(1);
  void *entry = take(enhanced, 100);
  take(enhanced, 5);
  take(enhanced, 900);  // a second area
  take(enhanced, 2000);
  take(standard, 30);
  EXPECT_EQ(mem.MEM_EHeapFreeEntry(enhanced, 100, entry), 0);

  const nlohmann::json all = statisticsOf(check, MEMCheckMap);
  const nlohmann::json &heap = all["heaps"]["open"][1];
  EXPECT_EQ(heap["bytesLive"], 2905) << "as without places";
  const nlohmann::json &map = heap["map"];
  ASSERT_EQ(map.size(), 3U);
  EXPECT_EQ(map[0]["area"], heap["handle"]);
  EXPECT_EQ(map[0]["length"], 1024);
  EXPECT_EQ(map[0]["head"], 64);
  EXPECT_EQ(map[0]["free"], 184);
  EXPECT_EQ(map[0]["isLarge"], false);
  EXPECT_EQ(mapText(map[0]),
            "64+100/104 MEM_HeapAllocEntryLong, freed by MEM_EHeapFreeEntry, "
            "168+5/16 MEM_HeapAllocEntryLong");
  EXPECT_EQ(map[1]["head"], 24);
  EXPECT_EQ(map[1]["free"], 24 + 904);
  EXPECT_EQ(mapText(map[1]), "24+900/904 MEM_HeapAllocEntryLong");
  EXPECT_EQ(map[2]["isLarge"], true);
  EXPECT_EQ(map[2]["length"], 2024);
  EXPECT_EQ(mapText(map[2]), "24+2000/2000 MEM_HeapAllocEntryLong");
  EXPECT_EQ(all["heaps"]["open"][0]["map"][0]["head"], 56);
  EXPECT_EQ(mapText(all["heaps"]["open"][0]["map"][0]), "56+30/32 MEM_HeapAllocEntryLong");
  EXPECT_EQ(statisticsOf(check)["heaps"]["open"][0].count("map"), 0U) << "where none is wanted";
  closeHeaps();
}

TEST_F(CheckTest, MapsOfCheckedHeapsHaveRedZones) {
  attach({.toldCheckers = true});
  openHeaps();
  take(standard, 30);
  take(standard, 10000);
  const nlohmann::json map = statisticsOf(check, MEMCheckMap)["heaps"]["open"][0]["map"];
  ASSERT_EQ(map.size(), 2U);
  EXPECT_EQ(mapText(map[0]), "120+30/32 MEM_HeapAllocEntryLong");
  EXPECT_EQ(map[0]["entries"][0]["zone"], 64);
  EXPECT_EQ(map[0]["free"], 120 + 32 + 64);
  EXPECT_EQ(mapText(map[1]), "88+10000/10000 MEM_HeapAllocEntryLong");
  EXPECT_EQ(map[1]["length"], 24 + 64 + 10000 + 64);
  closeHeaps();
}

TEST_F(CheckTest, MapsShowWhichCellsAreInUse) {
  for (const std::uint32_t flags : {0U, MEMCHK_NO_CHECKS | MEMCHK_PLACES}) {
    attach({.flags = flags, .toldCheckers = true});
    HMEMCELL pool = openPool(1024, 100);
    std::vector<std::uint8_t *> cells;
    for (int i = 0; i < 10; ++i) cells.push_back(takeCell(pool));  // 8 in the first area
    for (const int i : {0, 1, 2, 3, 5, 7, 9}) {
      EXPECT_EQ(mem.MEM_CellFreeEntry(pool, cells[static_cast<std::size_t>(i)]), 0);
    }
    const nlohmann::json map = statisticsOf(check, MEMCheckMap)["pools"]["open"][0]["map"];
    ASSERT_EQ(map.size(), 2U);
    const bool isInOrder = map[0]["area"] == "0x" + hex16(pool);  // they are by address
    const nlohmann::json &first = map[isInOrder ? 0 : 1];
    const nlohmann::json &second = map[isInOrder ? 1 : 0];
    EXPECT_EQ(first["head"], 216);
    EXPECT_EQ(first["length"], 1024);
    EXPECT_EQ(mapText(first), "616+100/100 MEM_CellAllocEntry, 816+100/100 MEM_CellAllocEntry");
    EXPECT_EQ(second["head"], 0);
    EXPECT_EQ(mapText(second), "0+100/100 MEM_CellAllocEntry");
    EXPECT_EQ(mem.MEM_CellClear(pool), 0);
    const nlohmann::json cleared = statisticsOf(check, MEMCheckMap)["pools"]["open"][0]["map"];
    ASSERT_EQ(cleared.size(), 1U);
    EXPECT_EQ(mapText(cleared[0]), "");
    EXPECT_EQ(mem.MEM_CellClose(pool), 0);
    detach();
  }
}

TEST_F(CheckTest, WithoutPlacesThereIsNoMap) {
  attach({.flags = MEMCHK_NO_CHECKS});
  openHeaps();
  take(standard, 30);
  EXPECT_EQ(statisticsOf(check, MEMCheckMap)["heaps"]["open"][0].count("map"), 0U);
  closeHeaps();
}

TEST_F(CheckTest, StatisticsOfTablesBuffersAndTheSink) {
  attach({.flags = MEMCHK_STATISTICS});
  HMEMHASH table = nullptr;
  ASSERT_EQ(mem.MEM_HashOpen(&table, 0, 8, 7, firstByte, 4, 7), 0);
  void *stored = nullptr;
  for (const std::uint64_t key : std::initializer_list<std::uint64_t>{1, 2, 3, 3}) {
    std::uint64_t record[3] = {key};
    mem.MEM_HashInsEntry(table, 24, record, &stored);
  }
  for (const std::uint64_t key : std::initializer_list<std::uint64_t>{1, 9})
    mem.MEM_HashGetEntry(table, &key, &stored);
  const std::uint64_t deleted = 2;
  EXPECT_EQ(mem.MEM_HashDelEntry(table, &deleted), 0);

  MEMCatCB buffer{};
  ASSERT_EQ(mem.MEM_CatOpen(&buffer), 0);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(mem.MEM_Cat(&buffer, u"ten units."), 0);

  const char *copy = nullptr;
  EXPECT_EQ(mem.MEM_SinkString("four", &copy), 0);
  EXPECT_EQ(mem.MEM_SinkString("four", &copy), 0);
  const char16_t *wide = nullptr;
  EXPECT_EQ(mem.MEM_WSinkString(u"wide", &wide), 0);
  EXPECT_EQ(mem.MEM_SinkVerify("none", &copy, nullptr), MEMERR_SINKNFND);
  EXPECT_EQ(mem.MEM_SinkVerify("four", &copy, nullptr), 0);
  EXPECT_EQ(mem.MEM_WSinkDelete(wide), 0);

  const nlohmann::json all = statisticsOf(check);
  const nlohmann::json &tables = all["tables"]["open"][0];
  EXPECT_EQ(tables["made"], 3);
  EXPECT_EQ(tables["live"], 2);
  EXPECT_EQ(tables["bytesLive"], 48);
  EXPECT_EQ(tables["duplicates"], 1);
  EXPECT_EQ(tables["found"], 1);
  EXPECT_EQ(tables["notFound"], 1);
  EXPECT_EQ(tables["heap"], all["heaps"]["open"][0]["handle"]);
  EXPECT_EQ(all["heaps"]["open"][0]["opened"]["service"], "MEM_HashOpen");
  const nlohmann::json &buffers = all["buffers"]["open"][0];
  EXPECT_EQ(buffers["made"], 100);
  EXPECT_EQ(buffers["bytesAsked"], 2000);
  EXPECT_EQ(buffers["bytesObtained"], 2048);
  EXPECT_EQ(buffers["moves"], 1);
  const nlohmann::json &sink = all["sink"];
  EXPECT_EQ(sink["texts"]["made"], 3);
  EXPECT_EQ(sink["texts"]["live"], 2);
  EXPECT_EQ(sink["copies"]["made"], 2);
  EXPECT_EQ(sink["copies"]["bytesPeak"], 15);
  EXPECT_EQ(sink["copies"]["bytesLive"], 5);
  EXPECT_EQ(sink["found"], 1);
  EXPECT_EQ(sink["notFound"], 1);
  EXPECT_EQ((*serviceOf(all, "MEM_MemCat"))["calls"], 100);
  EXPECT_EQ((*serviceOf(all, "MEM_Alloc"))["failures"], 0);
  EXPECT_EQ((*serviceOf(all, "MEM_SinkVerify"))["failures"], 0);

  EXPECT_EQ(mem.MEM_SinkDelete(copy), 0);
  EXPECT_EQ(mem.MEM_SinkDelete(copy), 0);
  EXPECT_EQ(mem.MEM_CatClose(&buffer), 0);
  EXPECT_EQ(mem.MEM_HashClose(table), 0);
  EXPECT_TRUE(found.empty());
}

}  // namespace
}  // namespace memtest
