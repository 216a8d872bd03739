#include "soakworker.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

#include "chainrun.hpp"
#include "portmodel.hpp"

namespace soak {

namespace {

constexpr std::size_t kMostHeaps = 4;
constexpr std::size_t kMostEntries = 150;
constexpr std::size_t kMostCells = 200;
constexpr std::size_t kMostText = 20000;
constexpr std::uint16_t kSubPool = 7;

constexpr std::size_t kKeyLen = sizeof(std::uint32_t);
constexpr std::int16_t kRecordLen = 40;
constexpr std::size_t kKeys = 300;
constexpr std::int16_t kBuckets = 16;

std::int16_t bucketOf(const void *pKey) {
  return static_cast<std::int16_t>(*static_cast<const std::uint8_t *>(pKey) % kBuckets);
}

Bytes recordOf(std::uint32_t key, std::uint8_t filler) {
  Bytes record(kRecordLen, filler);
  std::memcpy(record.data(), &key, kKeyLen);
  return record;
}

bool isAll(const std::uint8_t *from, std::size_t length, std::uint8_t pattern) {
  return std::all_of(from, from + length, [pattern](std::uint8_t b) { return b == pattern; });
}

template <class Char>
bool isText(const void *copy, const std::basic_string<Char> &text) {
  return text == static_cast<const Char *>(copy);
}

}  // namespace

Worker::Worker(refhost::Host &host, Stock &stock, Violations &violations, std::uint64_t seed)
    : host_(host),
      mem_(host.vector()),
      stock_(stock),
      violations_(violations),
      random_(seed),
      held_(Stock::kTexts) {}

void Worker::run(std::chrono::steady_clock::time_point end) {
  checkDone(mem_.MEM_ThreadAct(), "ThreadAct");
  while (std::chrono::steady_clock::now() < end && violations_.count() == 0) step();
  giveAllBack();
  checkDone(mem_.MEM_ThreadTerm(), "ThreadTerm");
}

void Worker::step() {
  switch (random_.below(24)) {
    case 0:
      return useArea();
    case 1:
      return usePack();
    case 2:
      return useUnpack();
    case 3:
      return usePort();
    case 4:
      return useWrongly();
    case 5:
      return random_.oneIn(20) ? restartThread() : useArea();
    case 6:
    case 7:
    case 8:
      return useSharedHeap();
    case 9:
    case 10:
    case 11:
      return usePool();
    case 12:
    case 13:
    case 14:
      return useTable();
    case 15:
    case 16:
      return useBuffer();
    case 17:
    case 18:
    case 19:
      return useHeap();
    default:
      return useSink();
  }
}

void Worker::check(bool isRight, const char *what) {
  if (!isRight) violations_.add(what);
}

void Worker::checkArea(const Area &area, const char *what) {
  check(isAll(area.start, area.length, area.pattern), what);
}

void Worker::checkDone(std::int16_t result, const char *what) {
  if (result == 0) return;
  const MEMErrorArea &error = host_.thread().Error;
  violations_.add(std::string(what) + ": " + std::to_string(result) + ", code " +
                  std::to_string(error.Code) + " " + error.NameText);
}

void Worker::checkRefused(std::int16_t result, std::uint32_t code, const char *what) {
  check(result == -1 && host_.thread().Error.Code == code, what);
}

Worker::Area Worker::filled(void *address, std::size_t length) {
  const Area area{static_cast<std::uint8_t *>(address), length,
                  static_cast<std::uint8_t>(random_.bits())};
  std::memset(area.start, area.pattern, area.length);
  return area;
}

// Storage.

void Worker::useArea() {
  const auto size = static_cast<std::uint32_t>(random_.between(1, random_.oneIn(8) ? 70000 : 900));
  const auto subPool = static_cast<std::int16_t>(random_.oneIn(2) ? 5 : -5);
  void *address = mem_.MEM_Alloc(size, subPool);
  check(address != nullptr, "Alloc");
  if (address == nullptr) return;
  checkArea(filled(address, size), "contents of an area");
  mem_.MEM_Free(address, size, subPool);
}

// Standard heaps.

void Worker::useHeap() {
  if (heaps_.size() < kMostHeaps && random_.oneIn(10)) {
    HMEMHEAP handle = nullptr;
    const auto areaKB = static_cast<std::int16_t>(random_.between(1, 4));
    const std::int16_t result = mem_.MEM_HeapOpen(&handle, areaKB, kSubPool);
    checkDone(result, "HeapOpen");
    if (result == 0) heaps_.push_back({handle, {}});
  }
  if (heaps_.empty()) return;
  const std::size_t index = random_.below(heaps_.size());
  Heap &heap = heaps_[index];
  if (heap.entries.size() >= kMostEntries) return closeHeap(index);
  if (random_.oneIn(4)) return growHeapByChain(heap);
  growHeap(heap);
}

void Worker::growHeap(Heap &heap) {
  const std::size_t length = random_.between(1, random_.oneIn(10) ? 6000 : 200);
  void *address = nullptr;
  const std::int16_t result =
      random_.oneIn(2)
          ? mem_.MEM_HeapAllocEntry(heap.handle, static_cast<std::int16_t>(length), &address)
          : mem_.MEM_HeapAllocEntryLong(heap.handle, static_cast<std::int32_t>(length), &address);
  checkDone(result, "HeapAllocEntry");
  if (result == 0) heap.entries.push_back(filled(address, length));
  if (!heap.entries.empty()) {
    checkArea(heap.entries[random_.below(heap.entries.size())], "contents of a heap entry");
  }
}

void Worker::growHeapByChain(Heap &heap) {
  const std::size_t length = random_.between(8, 300);
  const std::size_t count = random_.between(1, 6);
  void *address = nullptr;
  const std::int16_t result =
      random_.oneIn(2)
          ? mem_.MEM_HeapAllocMultEntries(heap.handle, static_cast<std::int16_t>(length),
                                          static_cast<std::int16_t>(count), 0, &address)
          : mem_.MEM_HeapAllocLongMultEntries(heap.handle, static_cast<std::int32_t>(length),
                                              static_cast<std::int32_t>(count), 0, &address);
  checkDone(result, "HeapAllocMultEntries");
  std::size_t found = 0;
  while (result == 0 && address != nullptr && found <= count) {
    void *next = nullptr;
    std::memcpy(&next, address, sizeof next);
    heap.entries.push_back(filled(address, length));
    address = next;
    ++found;
  }
  check(result != 0 || found == count, "links of a chain of entries");
}

void Worker::closeHeap(std::size_t index) {
  Heap heap = std::move(heaps_[index]);
  heaps_.erase(heaps_.begin() + static_cast<std::ptrdiff_t>(index));
  for (const Area &area : heap.entries) checkArea(area, "contents of a heap entry at close");
  checkDone(mem_.MEM_HeapClose(heap.handle), "HeapClose");
}

// The shared enhanced heap: entries are allocated here and freed by whichever thread takes them.

void Worker::useSharedHeap() {
  const std::size_t slot = random_.below(Stock::kExchangeSlots);
  SharedEntry *const taken = stock_.exchange[slot].exchange(nullptr, std::memory_order_acq_rel);
  if (taken != nullptr) return takeShared(taken);
  putShared(slot);
}

void Worker::putShared(std::size_t slot) {
  const std::size_t length = random_.between(16, random_.oneIn(30) ? 5000 : 100);
  const auto entryLen = static_cast<std::int32_t>(length);
  void *address = nullptr;
  std::int16_t result = 0;
  switch (random_.below(4)) {
    case 0:
      result =
          mem_.MEM_HeapAllocEntry(stock_.sharedHeap, static_cast<std::int16_t>(length), &address);
      break;
    case 1:
      result = mem_.MEM_EHeapAllocMultEntries(stock_.sharedHeap, entryLen, 1, 0, &address);
      break;
    case 2:
      result = mem_.MEM_EHeapAllocLongMultEntries(stock_.sharedHeap, entryLen, 1, 0, &address);
      break;
    default:
      result = mem_.MEM_EHeapAllocEntry(stock_.sharedHeap, entryLen, &address);
  }
  checkDone(result, "EHeapAllocEntry");
  if (result != 0) return;
  auto entry = std::make_unique<SharedEntry>();
  const Area area = filled(address, length);
  *entry = {area.start, entryLen, area.pattern};
  SharedEntry *expected = nullptr;
  if (stock_.exchange[slot].compare_exchange_strong(expected, entry.get(),
                                                    std::memory_order_acq_rel)) {
    entry.release();
  } else {
    takeShared(entry.release());
  }
}

void Worker::takeShared(SharedEntry *taken) {
  const std::unique_ptr<SharedEntry> entry(taken);
  checkArea({static_cast<std::uint8_t *>(entry->address), static_cast<std::size_t>(entry->length),
             entry->pattern},
            "contents of a shared entry");
  checkDone(mem_.MEM_EHeapFreeEntry(stock_.sharedHeap, entry->length, entry->address),
            "EHeapFreeEntry");
}

// Cell pool.

void Worker::usePool() {
  if (pool_.handle == nullptr) return openPool();
  if (random_.oneIn(400)) return closePool();
  if (random_.oneIn(400)) {
    pool_.cells.clear();
    return checkDone(mem_.MEM_CellClear(pool_.handle), "CellClear");
  }
  if (pool_.cells.size() < kMostCells && random_.below(5) < 3) {
    void *cell = nullptr;
    const std::int16_t result = mem_.MEM_CellAllocEntry(pool_.handle, &cell);
    checkDone(result, "CellAllocEntry");
    if (result != 0) return;
    check(isAll(static_cast<const std::uint8_t *>(cell), 8, 0), "link word of a cell");
    pool_.cells.push_back(filled(cell, static_cast<std::size_t>(pool_.cellLen)));
    return;
  }
  if (pool_.cells.empty()) return;
  std::swap(pool_.cells[random_.below(pool_.cells.size())], pool_.cells.back());
  const Area cell = pool_.cells.back();
  pool_.cells.pop_back();
  checkArea(cell, "contents of a cell");
  checkDone(mem_.MEM_CellFreeEntry(pool_.handle, cell.start), "CellFreeEntry");
}

void Worker::openPool() {
  pool_.cellLen = static_cast<std::int32_t>(random_.between(8, 120));
  const auto areaLen = static_cast<std::int32_t>(random_.between(300, 3000));
  checkDone(mem_.MEM_CellOpen(&pool_.handle, areaLen, pool_.cellLen, kSubPool), "CellOpen");
}

void Worker::closePool() {
  for (const Area &cell : pool_.cells) checkArea(cell, "contents of a cell at close");
  pool_.cells.clear();
  checkDone(mem_.MEM_CellClose(std::exchange(pool_.handle, nullptr)), "CellClose");
}

// Hash table.

void Worker::useTable() {
  if (table_.handle == nullptr) {
    return checkDone(mem_.MEM_HashOpen(&table_.handle, 0, static_cast<std::int16_t>(kKeyLen),
                                       kBuckets - 1, bucketOf, 1, kSubPool),
                     "HashOpen");
  }
  if (random_.oneIn(500)) return closeTable();
  if (random_.oneIn(100)) return scanTable();
  if (random_.oneIn(3)) return deleteRecord();
  if (random_.oneIn(2)) return insertRecord();
  const auto key = static_cast<std::uint32_t>(random_.below(kKeys));
  const auto known = table_.records.find(key);
  void *record = nullptr;
  const std::int16_t result = mem_.MEM_HashGetEntry(table_.handle, &key, &record);
  if (known == table_.records.end()) return check(result == MEMERR_HASHNFND, "HashGetEntry");
  const Bytes expected = recordOf(key, known->second);
  check(result == 0 && std::memcmp(record, expected.data(), expected.size()) == 0,
        "contents of a record");
}

void Worker::insertRecord() {
  const auto key = static_cast<std::uint32_t>(random_.below(kKeys));
  const auto filler = static_cast<std::uint8_t>(random_.bits());
  const Bytes record = recordOf(key, filler);
  void *copy = nullptr;
  const std::int16_t result =
      mem_.MEM_HashInsEntry(table_.handle, kRecordLen, record.data(), &copy);
  const bool isNew = table_.records.emplace(key, filler).second;
  check(result == (isNew ? 0 : MEMERR_HASHDKEY) && copy != nullptr, "HashInsEntry");
}

void Worker::deleteRecord() {
  const auto key = static_cast<std::uint32_t>(random_.below(kKeys));
  const std::int16_t result = mem_.MEM_HashDelEntry(table_.handle, &key);
  const bool wasThere = table_.records.erase(key) == 1;
  check(result == (wasThere ? 0 : MEMERR_HASHNFND), "HashDelEntry");
}

void Worker::scanTable() {
  std::map<std::uint32_t, std::uint8_t> seen;
  const auto note = [](void *pRecord, void *pSeen) -> std::int16_t {
    const auto *record = static_cast<const std::uint8_t *>(pRecord);
    std::uint32_t key = 0;
    std::memcpy(&key, record, kKeyLen);
    (*static_cast<std::map<std::uint32_t, std::uint8_t> *>(pSeen))[key] = record[kRecordLen - 1];
    return 0;
  };
  checkDone(mem_.MEM_HashScan(table_.handle, note, &seen), "HashScan");
  check(seen == table_.records, "records of a scan");
}

void Worker::closeTable() {
  table_.records.clear();
  checkDone(mem_.MEM_HashClose(std::exchange(table_.handle, nullptr)), "HashClose");
}

// Concatenation buffer.

void Worker::useBuffer() {
  if (!buffer_.isOpen) {
    const std::int16_t result = mem_.MEM_CatOpen(&buffer_.block);
    checkDone(result, "CatOpen");
    buffer_.isOpen = result == 0;
    return;
  }
  if (buffer_.text.size() > kMostText) return closeBuffer();
  const std::u16string piece(random_.below(random_.oneIn(10) ? 1500 : 60),
                             static_cast<char16_t>(random_.between(1, 0xFFFF)));
  checkDone(random_.oneIn(2) ? mem_.MEM_Cat(&buffer_.block, piece.c_str())
                             : mem_.MEM_MemCat(&buffer_.block, piece.c_str(),
                                               static_cast<std::int32_t>(piece.size())),
            "Cat");
  buffer_.text += piece;
  check(buffer_.block.Len == buffer_.text.size() && isText(buffer_.block.pText, buffer_.text),
        "text of a buffer");
}

void Worker::closeBuffer() {
  buffer_.text.clear();
  buffer_.isOpen = false;
  checkDone(mem_.MEM_CatClose(&buffer_.block), "CatClose");
}

// Pack: every block is the model's, byte for byte.
void Worker::usePack() {
  const Stock::Packed &packed = stock_.packed[random_.below(stock_.packed.size())];
  const std::int32_t blockLen = packed.structure->blockLen();
  MemPackBlock *first = nullptr;
  const std::int16_t result =
      mem_.MEM_Pack(packed.structure->controlBlock(), packed.structure->root(), blockLen, &first);
  check(result == packed.outcome.result, "result of Pack");
  std::size_t blocks = 0;
  while (first != nullptr) {
    MemPackBlock *const next = first->pNext;
    if (result == 0) {
      const bool isKnown = blocks < packed.outcome.blocks.size();
      check(isKnown && std::memcmp(&first->UsedLen, packed.outcome.blocks[blocks].data(),
                                   packed.outcome.blocks[blocks].size()) == 0,
            "contents of a packed block");
    }
    mem_.MEM_Free(first, static_cast<std::uint32_t>(blockLen), 0);
    first = next;
    ++blocks;
  }
  check(result != 0 || blocks == packed.outcome.blocks.size(), "length of a packed chain");
}

// Unpack: chains of all writers.
void Worker::useUnpack() {
  const Stock::Foreign &foreign = stock_.foreign[random_.below(stock_.foreign.size())];
  const chainwriter::Writer &writer = foreign.chain.writer();
  const bool isBigEndian = (host_.sysEnv().PlatformFlags & MEM_PLATFORM_BIG_ENDIAN) != 0;
  const chainrun::BlockAreas areas(foreign.chain.blocks, writer.isBigEndian != isBigEndian);
  MemPackBlock *first = areas.first();
  void *root = nullptr;
  const std::int16_t result = mem_.MEM_Unpack(
      &first, &root, reinterpret_cast<const MemPackCB *>(foreign.controlBlock.data()));
  checkDone(result, "Unpack");
  if (result != 0) return;
  const bool isNew = first != areas.first();
  const auto became = isNew ? chainwriter::Became::NewChain : chainwriter::Became::Structure;
  const std::string difference = chainwriter::difference(foreign.tree, writer, became, root);
  if (!difference.empty()) violations_.add("unpacked structure: " + difference);
  check(areas.damage().empty(), "bytes around a chain");
  while (isNew && first != nullptr) {
    MemPackBlock *const next = first->pNext;
    mem_.MEM_Free(first, MEM_UNPACK_BLOCK_LEN, 0);
    first = next;
  }
}

// Port strings, in a heap that lives as long as this.
void Worker::usePort() {
  const Stock::Ported &ported = stock_.ported[random_.below(stock_.ported.size())];
  const memtest::PortGraph &graph = *ported.graph;
  HMEMHEAP heap = nullptr;
  if (mem_.MEM_HeapOpen(&heap, 16, kSubPool) != 0)
    return check(false, "HeapOpen for a port string");
  std::uint32_t totalLen = 0;
  MEMPortChunk *first = nullptr;
  checkDone(mem_.MEM_StructToPortStr(graph.defs(), graph.rootID(), graph.root(), 500, heap,
                                     &totalLen, &first),
            "StructToPortStr");
  check(totalLen == ported.text.size(), "length of a port string");
  void *root = nullptr;
  const std::int16_t result =
      random_.oneIn(2)
          ? mem_.MEM_PortStrToStruct(graph.defs(), first, heap, &root)
          : mem_.MEM_Port1StrToStruct(graph.defs(), ported.text.data(),
                                      static_cast<std::uint32_t>(ported.text.size()), heap, &root);
  checkDone(result, "PortStrToStruct");
  if (result == 0) {
    const std::string difference =
        portmodel::difference(graph.defs(), graph.rootID(), graph.root(), root);
    if (!difference.empty()) violations_.add("structure of a port string: " + difference);
  }
  checkDone(mem_.MEM_HeapClose(heap), "HeapClose");
}

// The sink. A pinned text has one address for all threads; any other keeps its address as long as
// this thread holds a use.

void Worker::useSink() {
  const std::size_t number = random_.below(Stock::kTexts);
  switch (random_.below(5)) {
    case 0:
      return verify(number);
    case 1:
    case 2:
      return sink(number);
    default:
      return giveUp(number);
  }
}

void Worker::sink(std::size_t number) {
  const SinkText &text = stock_.texts[number];
  Held &held = held_[number];
  const void *copy = nullptr;
  if (text.isWide) {
    const char16_t *pSunk = nullptr;
    checkDone(mem_.MEM_WSinkString(text.wide.c_str(), &pSunk), "WSinkString");
    copy = pSunk;
  } else {
    const char *pSunk = nullptr;
    checkDone(mem_.MEM_SinkString(text.narrow.c_str(), &pSunk), "SinkString");
    copy = pSunk;
  }
  if (copy == nullptr) return;
  check(text.isWide ? isText(copy, text.wide) : isText(copy, text.narrow), "text of a copy");
  check(held.uses == 0 || held.copy == copy, "two copies of one text");
  check(number >= Stock::kPinned || stock_.pinned[number] == copy, "second copy of a pinned text");
  held.copy = copy;
  ++held.uses;
}

void Worker::verify(std::size_t number) {
  const SinkText &text = stock_.texts[number];
  const Held &held = held_[number];
  const void *copy = nullptr;
  std::int16_t result = 0;
  if (text.isWide) {
    const char16_t *pSunk = nullptr;
    result = mem_.MEM_WSinkVerify(text.wide.c_str(), &pSunk, nullptr);
    copy = pSunk;
  } else {
    const char *pSunk = nullptr;
    result = mem_.MEM_SinkVerify(text.narrow.c_str(), &pSunk, nullptr);
    copy = pSunk;
  }
  check(result == 0 || result == MEMERR_SINKNFND, "SinkVerify");
  if (held.uses > 0) check(result == 0 && copy == held.copy, "look-up of a held text");
  if (number < Stock::kPinned) {
    check(result == 0 && copy == stock_.pinned[number], "look-up of a pinned text");
  }
}

void Worker::giveUp(std::size_t number) {
  Held &held = held_[number];
  if (held.uses == 0) return;
  const SinkText &text = stock_.texts[number];
  check(text.isWide ? isText(held.copy, text.wide) : isText(held.copy, text.narrow),
        "text of a held copy");
  --held.uses;
  checkDone(text.isWide ? mem_.MEM_WSinkDelete(static_cast<const char16_t *>(held.copy))
                        : mem_.MEM_SinkDelete(static_cast<const char *>(held.copy)),
            "SinkDelete");
}

// Misuse is refused with the right code in this thread's error area, whatever others do.
void Worker::useWrongly() {
  void *entry = nullptr;
  switch (random_.below(7)) {
    case 0:
      return checkRefused(mem_.MEM_HeapAllocEntry(nullptr, 8, &entry), MEMERR_HEAPBHDL,
                          "null heap");
    case 1:
      return checkRefused(mem_.MEM_HeapClose(stock_.sharedHeap), MEMERR_HEAPBHDL,
                          "enhanced heap closed as a standard one");
    case 2:
      return checkRefused(mem_.MEM_EHeapFreeEntry(stock_.sharedHeap, 100000, held_.data()),
                          MEMERR_HEAPENTRY, "foreign address freed");
    case 3:
      return checkRefused(mem_.MEM_CellAllocEntry(nullptr, &entry), MEMERR_CELLBHDL, "null pool");
    case 4:
      return checkRefused(mem_.MEM_HashClose(nullptr), MEMERR_HASHBHDL, "null table");
    case 5:
      return checkRefused(mem_.MEM_SinkDelete(nullptr), MEMERR_SINKIERR, "null text deleted");
    default:
      checkRefused(mem_.MEM_InitQTRFTbls(), MEMERR_NOT_SUPPORTED, "InitQTRFTbls");
  }
}

void Worker::restartThread() {
  checkDone(mem_.MEM_ThreadTerm(), "ThreadTerm");
  checkDone(mem_.MEM_ThreadAct(), "ThreadAct");
}

void Worker::giveAllBack() {
  while (!heaps_.empty()) closeHeap(heaps_.size() - 1);
  if (pool_.handle != nullptr) closePool();
  if (table_.handle != nullptr) closeTable();
  if (buffer_.isOpen) closeBuffer();
  for (std::size_t number = 0; number < held_.size(); ++number) {
    while (held_[number].uses > 0) giveUp(number);
  }
  for (std::atomic<SharedEntry *> &slot : stock_.exchange) {
    SharedEntry *const taken = slot.exchange(nullptr, std::memory_order_acq_rel);
    if (taken != nullptr) takeShared(taken);
  }
}

}  // namespace soak
