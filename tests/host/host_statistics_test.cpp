// Statistics of the reference host: what control blocks show without the checking layer, what the
// layer counts, and the difference of two snapshots.
#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "memtest.hpp"

namespace memtest {
namespace {

using nlohmann::json;
using refhost::Change;
using refhost::ObjectStatistics;
using refhost::Options;
using refhost::Statistics;
using Kind = ObjectStatistics::Kind;

constexpr std::uint16_t kSubPool = 7;

Options with(bool checked, bool statistics, bool places) {
  Options options;
  options.dirtyStorage = true;
  options.checked = checked;
  options.statistics = statistics;
  options.places = places;
  return options;
}

std::int16_t firstBucket(const void *) {
  return 0;
}

// A session with calls that must succeed.
struct Scene {
  explicit Scene(const Options &options) : session(library().bindEntry(), options) {}

  HMEMHEAP openHeap(bool isEnhanced = false) {
    HMEMHEAP heap = nullptr;
    EXPECT_EQ((isEnhanced ? mem.MEM_EHeapOpen : mem.MEM_HeapOpen)(&heap, 1, kSubPool), 0);
    return heap;
  }
  void closeHeap(HMEMHEAP heap) { EXPECT_EQ(mem.MEM_HeapClose(heap), 0); }
  void *take(HMEMHEAP heap, std::int32_t length) {
    void *entry = nullptr;
    EXPECT_EQ(mem.MEM_HeapAllocEntryLong(heap, length, &entry), 0);
    return entry;
  }
  HMEMCELL openPool(std::int32_t areaLen = 1024, std::int32_t cellLen = 100) {
    HMEMCELL pool = nullptr;
    EXPECT_EQ(mem.MEM_CellOpen(&pool, areaLen, cellLen, kSubPool), 0);
    return pool;
  }
  void *takeCell(HMEMCELL pool) {
    void *cell = nullptr;
    EXPECT_EQ(mem.MEM_CellAllocEntry(pool, &cell), 0);
    return cell;
  }
  HMEMHASH openTable() {
    HMEMHASH table = nullptr;
    EXPECT_EQ(mem.MEM_HashOpen(&table, 0, 8, 7, firstBucket, 4, kSubPool), 0);
    return table;
  }
  void insert(HMEMHASH table, std::uint64_t key) {
    const std::uint64_t record[3] = {key};
    void *stored = nullptr;
    EXPECT_EQ(mem.MEM_HashInsEntry(table, sizeof record, record, &stored), 0);
  }

  refhost::Session session;
  refhost::Host &host = session.host();
  MEMFunctionVector &mem = session.vector();
};

std::uint64_t storageCallOf(const refhost::Host &host, const void *area) {
  for (const refhost::Leak &leak : host.leaks()) {
    if (leak.area == area) return leak.callNumber;
  }
  return 0;
}

// --- without the layer

TEST(HostStatisticsTest, ControlBlocksOfHeapsTellWithoutTheLayer) {
  Scene scene(with(false, false, false));
  HMEMHEAP standard = scene.openHeap();
  HMEMHEAP enhanced = scene.openHeap(true);
  scene.take(enhanced, 100);
  scene.take(enhanced, 5);
  scene.take(enhanced, 900);  // a second area; 64 + 104 + 16 of the first are used
  scene.take(enhanced, 2000);
  scene.take(enhanced, 3000);

  const Statistics taken = scene.host.statistics(true);
  EXPECT_FALSE(taken.isCounted);
  ASSERT_EQ(taken.heaps.open.size(), 2U);
  const ObjectStatistics &heap = taken.heaps.open[1];
  EXPECT_EQ(taken.heaps.open[0].handle, standard);
  EXPECT_EQ(taken.heaps.open[0].kind, Kind::standardHeap);
  EXPECT_EQ(taken.heaps.open[0].bytesUsed, 56);
  EXPECT_EQ(heap.handle, enhanced);
  EXPECT_EQ(heap.kind, Kind::enhancedHeap);
  EXPECT_EQ(heap.subPool, kSubPool);
  EXPECT_EQ(heap.areaSize, 1024U);
  EXPECT_EQ(heap.areas, 2);
  EXPECT_EQ(heap.largeBlocks, 2);
  EXPECT_EQ(heap.bytesObtained, 2048 + 2024 + 3024);
  EXPECT_EQ(heap.bytesWasted, 1024 - 184);
  EXPECT_EQ(heap.bytesUsed, 184 + 24 + 904 + 2024 + 3024);
  EXPECT_EQ(heap.opened.service, "MEM_EHeapOpen");
  EXPECT_EQ(heap.opened.thread, taken.heaps.open[0].opened.thread);
  EXPECT_EQ(heap.opened.storageCall, storageCallOf(scene.host, enhanced));
  EXPECT_FALSE(heap.usage.has_value());
  EXPECT_TRUE(heap.map.empty());
  scene.closeHeap(standard);
  EXPECT_EQ(scene.mem.MEM_EHeapClose(enhanced), 0);
  EXPECT_TRUE(scene.host.statistics().heaps.open.empty());
}

TEST(HostStatisticsTest, ControlBlocksOfPoolsAndTablesTellWithoutTheLayer) {
  Scene scene(with(false, false, false));
  HMEMCELL pool = scene.openPool();
  EXPECT_EQ(scene.host.statistics().pools.open.at(0).bytesUsed, 0);
  void *cell = scene.takeCell(pool);
  for (int i = 0; i < 10; ++i) scene.takeCell(pool);  // 8 in the first area, 10 in the second
  EXPECT_EQ(scene.mem.MEM_CellFreeEntry(pool, cell), 0);
  HMEMHASH table = scene.openTable();
  scene.insert(table, 1);

  const Statistics taken = scene.host.statistics();
  const ObjectStatistics &shown = taken.pools.open.at(0);
  EXPECT_EQ(shown.handle, pool);
  EXPECT_EQ(shown.areaSize, 1024U);
  EXPECT_EQ(shown.cellLen, 100U);
  EXPECT_EQ(shown.areas, 2);
  EXPECT_EQ(shown.bytesObtained, 2048);
  EXPECT_EQ(shown.bytesUsed, 1000);
  EXPECT_EQ(shown.bytesWasted, 8 + 24);
  ASSERT_TRUE(taken.tables.has_value());
  ASSERT_EQ(taken.tables->open.size(), 1U);
  EXPECT_EQ(taken.tables->open[0].handle, table);
  EXPECT_EQ(taken.tables->open[0].heap, taken.heaps.open.at(0).handle);
  EXPECT_EQ(taken.heaps.open[0].opened.service, "MEM_HashOpen");
  EXPECT_FALSE(taken.buffers.has_value());
  EXPECT_GT(taken.sink.bytesObtained, 0);

  const json all = json::parse(taken.json());
  EXPECT_EQ(all.count("services"), 0U);
  EXPECT_EQ(all.count("buffers"), 0U);
  EXPECT_EQ(all["pools"].count("opened"), 0U) << "nobody has counted";
  EXPECT_EQ(all["pools"]["open"][0]["bytesUsed"], 1000);
  EXPECT_EQ(all["pools"]["open"][0].count("made"), 0U);
  EXPECT_EQ(all["tables"]["open"][0].count("found"), 0U);
  EXPECT_EQ(scene.mem.MEM_HashClose(table), 0);
  EXPECT_EQ(scene.mem.MEM_CellClose(pool), 0);
}

// A component may have written anything into a control block: nothing outside of live areas is
// read, and no list is followed for ever.
TEST(HostStatisticsTest, DamagedControlBlocksAreReadAsFarAsTheyAreWhole) {
  Scene scene(with(false, false, false));
  const std::uint64_t wild[] = {0x1234, ~std::uint64_t{0}};
  void *const tiny = scene.mem.MEM_Alloc(12, kSubPool);  // too short for such a control block
  std::memcpy(tiny, "QQQHBLKN", 8);
  HMEMHEAP heap = scene.openHeap();
  scene.take(heap, 900);
  scene.take(heap, 900);
  scene.take(heap, 5000);
  HMEMCELL pool = scene.openPool();
  for (int i = 0; i < 20; ++i) scene.takeCell(pool);
  const Statistics whole = scene.host.statistics();
  for (const std::size_t offset : {8U, 32U}) {  // areas, large blocks
    auto *const field = reinterpret_cast<char *>(heap) + offset;
    const Bytes before = bytesOf(field, sizeof(void *));
    for (const std::uint64_t value : {wild[0], wild[1], asNumber(heap), asNumber(tiny)}) {
      std::memcpy(field, &value, sizeof value);
      const ObjectStatistics read = scene.host.statistics().heaps.open.at(0);
      EXPECT_EQ(read.areas, offset == 8 ? 1 : 2);
      EXPECT_EQ(read.largeBlocks, offset == 8 ? 1 : 0);
    }
    std::memcpy(field, before.data(), before.size());
  }
  for (const std::size_t offset : {8U, 16U}) {  // nodes, free cells
    auto *const field = reinterpret_cast<char *>(pool) + offset;
    const Bytes before = bytesOf(field, sizeof(void *));
    for (const std::uint64_t value :
         {wild[0], wild[1], asNumber(pool), asNumber(pool) + 1020, asNumber(tiny)}) {
      std::memcpy(field, &value, sizeof value);
      EXPECT_LE(scene.host.statistics().pools.open.at(0).areas, 3);
    }
    std::memcpy(field, before.data(), before.size());
  }
  EXPECT_EQ(scene.host.statistics().json(), whole.json());
  scene.mem.MEM_Free(tiny, 12, kSubPool);
  for (const std::uint32_t length : {8U, 40U}) {
    void *const likeAHeap = scene.mem.MEM_Alloc(length, kSubPool);
    std::memcpy(likeAHeap, "QQQHEAP1", 8);
    EXPECT_EQ(scene.host.statistics().heaps.open.size(), 1U);
    scene.mem.MEM_Free(likeAHeap, length, kSubPool);
  }
  scene.closeHeap(heap);
  EXPECT_EQ(scene.mem.MEM_CellClose(pool), 0);
}

// Random work with heaps and pools; the figures of storage of each open object, in order.
std::string storageAfterWork(const Options &options, std::uint32_t seed) {
  Scene scene(options);
  std::mt19937 random(seed);
  std::vector<HMEMHEAP> heaps = {scene.openHeap(), scene.openHeap(true)};
  struct Cells {
    HMEMCELL pool;
    std::vector<void *> taken;
  };
  std::vector<Cells> pools;
  for (const std::int32_t cellLen : {8, 24, 100, 333}) {
    pools.push_back({scene.openPool(1024, cellLen), {}});
  }
  for (int step = 0; step < 2000; ++step) {
    scene.take(heaps[random() % 2], static_cast<std::int32_t>(1 + random() % 1200));
    Cells &cells = pools[random() % pools.size()];
    if (random() % 3 != 0 || cells.taken.empty()) {
      cells.taken.push_back(scene.takeCell(cells.pool));
    } else {
      EXPECT_EQ(scene.mem.MEM_CellFreeEntry(cells.pool, cells.taken.back()), 0);
      cells.taken.pop_back();
    }
  }
  std::string text;
  const Statistics taken = scene.host.statistics();
  for (const auto *family : {&taken.heaps, &taken.pools}) {
    for (const ObjectStatistics &object : family->open) {
      text += object.opened.service + ' ' + std::to_string(object.areas) + ' ' +
              std::to_string(object.largeBlocks) + ' ' + std::to_string(object.bytesObtained) +
              ' ' + std::to_string(object.bytesUsed) + ' ' + std::to_string(object.bytesWasted) +
              '\n';
    }
  }
  scene.closeHeap(heaps[0]);
  EXPECT_EQ(scene.mem.MEM_EHeapClose(heaps[1]), 0);
  for (const Cells &cells : pools) EXPECT_EQ(scene.mem.MEM_CellClose(cells.pool), 0);
  return text;
}

TEST(HostStatisticsTest, ControlBlocksTellWhatTheLayerCounts) {
  for (std::uint32_t seed = 1; seed <= 5; ++seed) {
    EXPECT_EQ(storageAfterWork(with(false, false, false), seed),
              storageAfterWork(with(false, true, false), seed))
        << "seed " << seed;
  }
}

TEST(HostStatisticsTest, TablesHaveDashesForWhatIsNotKnown) {
  Scene scene(with(false, false, false));
  HMEMHEAP heap = scene.openHeap();
  scene.take(heap, 100);
  const Statistics taken = scene.host.statistics();
  const std::string number = std::to_string(storageCallOf(scene.host, heap));
  const std::string thread = std::to_string(taken.heaps.open.at(0).opened.thread);
  const std::string text = taken.table();
  const std::string wanted =
      "heaps: 1 open\n"
      "  handle              opened by     kind      call  storage call  thread  areas  obtained"
      "  used  wasted  live  live bytes  peak bytes\n"
      "  0x" +
      hex16(heap) + "  MEM_HeapOpen  standard     -" + std::string(14 - number.size(), ' ') +
      number + std::string(8 - thread.size(), ' ') + thread +
      "      1      1024   160       0     -           -           -\n"
      "sink: ";
  EXPECT_EQ(text.find(wanted), 0U) << text << wanted;
  scene.closeHeap(heap);
}

// --- with the layer

std::string layerText(MEMCheck *check, decltype(&MEMCheckStatistics) ask) {
  std::string text;
  ask(
      check,
      [](void *pContext, const char *pText, std::size_t len) {
        static_cast<std::string *>(pContext)->append(pText, len);
      },
      &text);
  return text;
}

// That each member of the layer's is in the host's with the same value. Threads have the host's
// numbers, but those of buffers.
void expectSame(const json &layers, const json &hosts, const std::string &place) {
  if (layers.is_object()) {
    for (const auto &[name, value] : layers.items()) {
      if (name == "thread") continue;
      ASSERT_EQ(hosts.count(name), 1U) << place << '.' << name;
      expectSame(value, hosts[name], place + '.' + name);
    }
  } else if (layers.is_array()) {
    ASSERT_EQ(layers.size(), hosts.size()) << place;
    for (std::size_t i = 0; i < layers.size(); ++i) {
      expectSame(layers[i], hosts[i], place + '[' + std::to_string(i) + ']');
    }
  } else {
    EXPECT_EQ(layers, hosts) << place;
  }
}

TEST(HostStatisticsTest, JsonHasTheMembersOfTheLayers) {
  for (const Options &options : {with(false, true, false), with(false, false, true),
                                 with(true, false, false), with(true, true, true)}) {
    Scene scene(options);
    HMEMHEAP heap = scene.openHeap(true);
    void *entry = scene.take(heap, 100);
    scene.take(heap, 7);
    scene.take(heap, 5000);
    EXPECT_EQ(scene.mem.MEM_EHeapFreeEntry(heap, 100, entry), 0);
    HMEMHEAP empty = scene.openHeap();
    HMEMCELL pool = scene.openPool();
    scene.takeCell(pool);
    HMEMHASH table = scene.openTable();
    scene.insert(table, 1);
    MEMCatCB buffer{};
    EXPECT_EQ(scene.mem.MEM_CatOpen(&buffer), 0);
    EXPECT_EQ(scene.mem.MEM_Cat(&buffer, u"text"), 0);
    const char *sunk = nullptr;
    EXPECT_EQ(scene.mem.MEM_SinkString("text", &sunk), 0);

    MEMCheck *const check = scene.host.check();
    ASSERT_NE(check, nullptr);
    expectSame(json::parse(layerText(check, MEMCheckStatistics)),
               json::parse(scene.host.statistics().json()), "");
    const json withMaps = json::parse(layerText(check, MEMCheckMap));
    expectSame(withMaps, json::parse(scene.host.statistics(true).json()), "");
    EXPECT_EQ(withMaps["heaps"]["open"][0].count("map"),
              options.checked || options.places ? 1U : 0U);
    EXPECT_EQ(withMaps.count("tables"), options.statistics || options.places ? 1U : 0U);

    EXPECT_EQ(scene.mem.MEM_SinkDelete(sunk), 0);
    EXPECT_EQ(scene.mem.MEM_CatClose(&buffer), 0);
    EXPECT_EQ(scene.mem.MEM_HashClose(table), 0);
    EXPECT_EQ(scene.mem.MEM_CellClose(pool), 0);
    scene.closeHeap(empty);
    EXPECT_EQ(scene.mem.MEM_EHeapClose(heap), 0);
  }
}

TEST(HostStatisticsTest, ObjectsHaveTheHostsThreadsAndStorageCalls) {
  Scene scene(with(false, true, false));
  HMEMHEAP heap = scene.openHeap();
  const Statistics taken = scene.host.statistics();
  const refhost::StatisticsPlace &opened = taken.heaps.open.at(0).opened;
  EXPECT_EQ(opened.service, "MEM_HeapOpen");
  EXPECT_EQ(opened.call, 2U) << "after MEM_SinkInit, which the process's start calls";
  EXPECT_NE(opened.caller, nullptr);
  EXPECT_EQ(opened.storageCall, storageCallOf(scene.host, heap));
  const json shown = json::parse(taken.json())["heaps"]["open"][0]["opened"];
  EXPECT_EQ(shown["storageCall"], opened.storageCall);
  EXPECT_EQ(shown["thread"], opened.thread);
  scene.closeHeap(heap);
}

// The layer counts without checks: entries are where they would be without it.
TEST(HostStatisticsTest, CountingLeavesEntriesWhereTheyAre) {
  Scene scene(with(false, true, true));
  HMEMHEAP heap = scene.openHeap();
  const void *first = scene.take(heap, 100);
  EXPECT_EQ(asNumber(first), asNumber(heap) + 56);
  EXPECT_EQ(scene.host.statistics().heaps.open.at(0).bytesUsed, 56 + 104);
  scene.closeHeap(heap);
}

// --- differences

const ObjectStatistics *objectIn(const refhost::FamilyStatistics &family, Change change) {
  for (const ObjectStatistics &object : family.open) {
    if (object.change == change) return &object;
  }
  return nullptr;
}

TEST(HostStatisticsTest, DifferencesShowWhatHasChanged) {
  Scene scene(with(false, true, false));
  HMEMHEAP closed = scene.openHeap();
  HMEMHEAP grown = scene.openHeap();
  HMEMHEAP same = scene.openHeap();
  scene.take(closed, 40);
  scene.take(grown, 40);
  scene.take(same, 40);
  const Statistics before = scene.host.statistics();
  scene.take(grown, 50);
  scene.take(grown, 300);
  HMEMCELL pool = scene.openPool();
  scene.takeCell(pool);
  scene.closeHeap(closed);
  const Statistics made = scene.host.statistics(true).since(before);

  EXPECT_TRUE(made.isDifference);
  EXPECT_EQ(made.componentCalls, 5);
  EXPECT_EQ(made.heaps.opened, 0);
  EXPECT_EQ(made.heaps.closed, 1);
  ASSERT_EQ(made.heaps.open.size(), 2U) << "one has not changed";
  const ObjectStatistics *const gone = objectIn(made.heaps, Change::closed);
  const ObjectStatistics *const changed = objectIn(made.heaps, Change::changed);
  ASSERT_NE(gone, nullptr);
  EXPECT_EQ(gone->handle, closed);
  EXPECT_EQ(gone->areas, -1);
  EXPECT_EQ(gone->bytesObtained, -1024);
  EXPECT_EQ(gone->usage->live, -1);
  ASSERT_NE(changed, nullptr);
  EXPECT_EQ(changed->handle, grown);
  EXPECT_EQ(changed->areaSize, 1024U);
  EXPECT_EQ(changed->areas, 0);
  EXPECT_EQ(changed->bytesUsed, 56 + 304);
  EXPECT_EQ(changed->usage->made, 2);
  EXPECT_EQ(changed->usage->bytesAsked, 350);
  EXPECT_EQ(changed->usage->histogram.at(6), 1) << "32 to 63";
  EXPECT_EQ(changed->usage->histogram.at(9), 1) << "256 to 511";
  const ObjectStatistics *const opened = objectIn(made.pools, Change::opened);
  ASSERT_NE(opened, nullptr);
  EXPECT_EQ(opened->areas, 1);
  EXPECT_EQ(opened->usage->live, 1);
  ASSERT_EQ(made.services.size(), 6U) << "with those below: MEM_Alloc, MEM_Free";
  EXPECT_EQ(made.services[0].service, "MEM_Alloc");
  EXPECT_EQ(made.services[0].calls, 1);

  const json all = json::parse(made.json());
  EXPECT_EQ(all["isDifference"], true);
  EXPECT_EQ(all["heaps"]["open"][0]["change"], "closed");
  EXPECT_EQ(all["heaps"]["open"][1]["bytesAsked"], 350);
  const Statistics none = scene.host.statistics().since(scene.host.statistics());
  EXPECT_TRUE(none.services.empty());
  EXPECT_TRUE(none.heaps.open.empty());
  scene.closeHeap(grown);
  scene.closeHeap(same);
  EXPECT_EQ(scene.mem.MEM_CellClose(pool), 0);
}

TEST(HostStatisticsTest, WhatIsOpenedAtTheSameAddressIsAnotherObject) {
  for (const bool isCounted : {false, true}) {
    Scene scene(with(false, isCounted, false));
    HMEMHEAP heap = scene.openHeap();
    Statistics before = scene.host.statistics();
    scene.closeHeap(heap);
    heap = scene.openHeap();
    before.heaps.open.at(0).handle = heap;  // whether or not the storage has come again
    const Statistics made = scene.host.statistics().since(before);
    EXPECT_EQ(made.heaps.open.size(), 2U);
    EXPECT_NE(objectIn(made.heaps, Change::closed), nullptr);
    EXPECT_NE(objectIn(made.heaps, Change::opened), nullptr);
    scene.closeHeap(heap);
  }
}

TEST(HostStatisticsTest, DifferencesOfWhatNobodyCountedHaveNoCounts) {
  Scene scene(with(false, false, false));
  const Statistics before = scene.host.statistics();
  HMEMHEAP heap = scene.openHeap();
  const Statistics made = scene.host.statistics().since(before);
  EXPECT_FALSE(made.isCounted);
  EXPECT_FALSE(made.heaps.opened.has_value());
  ASSERT_EQ(made.heaps.open.size(), 1U);
  EXPECT_EQ(made.heaps.open[0].bytesObtained, 1024);
  EXPECT_FALSE(made.heaps.open[0].usage.has_value());
  scene.closeHeap(heap);
}

}  // namespace
}  // namespace memtest
