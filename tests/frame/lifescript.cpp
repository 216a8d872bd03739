#include "lifescript.hpp"

#include <algorithm>
#include <cstring>

#include "chainwriter.hpp"
#include "packstruct.hpp"
#include "portdefs.hpp"
#include "portmodel.hpp"
#include "unpacktest.hpp"

namespace memtest {

namespace {

constexpr std::uint16_t kSubPool = 7;
constexpr std::int16_t kSecondKind = -9;  // subpool 9, storage kind 2
constexpr std::uint32_t kAreaSize = 5000;

constexpr std::int32_t kCellAreaLen = 1024;
constexpr std::int32_t kCellLen = 100;
constexpr int kCells = 20;  // three areas

constexpr std::size_t kKeyLen = 4;
constexpr std::size_t kRecordLen = 200;  // an area of the table's heap takes four of them
constexpr std::int16_t kBuckets = 4;
constexpr std::uint32_t kKeys = 12;

constexpr std::int32_t kPackBlockLen = 1300;
constexpr std::size_t kSegments = 100;  // two areas of the packer's table
constexpr std::size_t kSegmentLen = 32;

constexpr std::uint32_t kStructID = 1;
constexpr std::size_t kPortRecords = 20;

constexpr std::size_t kLongText = 0x30000;  // two of them need two blocks of the sink

std::int16_t bucketOf(const void *pKey) {
  return static_cast<std::int16_t>(*static_cast<const std::uint8_t *>(pKey) % kBuckets);
}

Bytes recordOf(std::uint32_t key) {
  Bytes record(kRecordLen, static_cast<std::uint8_t>(key + 1));
  std::memcpy(record.data(), &key, kKeyLen);
  return record;
}

}  // namespace

// What is packed, ported and unpacked. Made once, never changed.
struct LifeMaterials {
  LifeMaterials() {
    for (std::size_t i = 0; i < kSegments; ++i) segments.push_back(items.make(kSegmentLen));
    for (std::size_t i = 0; i < kSegments; ++i) {
      if (i + 1 < kSegments) putPointer(segments[i], 0, segments[i + 1]);
      putPointer(segments[i], 8, items.text("narrow " + std::to_string(i)));
      if (i % 20 == 0) putPointer(segments[i], 16, items.wide(std::u16string(i + 1, u'w')));
      putPointer(segments[i], 24, segments[i * 7 % kSegments]);
    }
    defs.add(kStructID, 44,
             {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_PNT, 8, 4).of(kStructID),
              Field(3, MEM_PORT_PNT, 8, 12).of(kStructID), Field(4, MEM_PORT_PSTR, 8, 20),
              Field(5, MEM_PORT_WPSTR, 8, 28), Field(6, MEM_PORT_CHAR, 8, 36)});
    for (std::size_t i = 0; i < kPortRecords; ++i) {
      records.emplace_back(44U, static_cast<std::uint8_t>('a'));
    }
    for (std::size_t i = 0; i < kPortRecords; ++i) {
      const void *next = i + 1 < kPortRecords ? records[i + 1].data() : nullptr;
      const void *back = records[i / 2].data();
      records[i].set(0, static_cast<std::int32_t>(i)).set(4, next).set(12, back);
      records[i].set(20, portNarrow.c_str()).set(28, portWide.c_str());
    }
    portText = portmodel::write(defs.table(), kStructID, records[0].data());
  }

  const ControlBlock controlBlock{
      {.fixedLen = kSegmentLen, .siblingOff = 0, .children = {{1, 8}, {2, 16}}, .references = {24}},
      stringKind(),
      wideKind()};
  Items items;
  std::vector<std::uint8_t *> segments;

  // A chain of a 32-bit writer of the other byte order with wide characters of 4 bytes: everything
  // has to be converted and repacked.
  const chainwriter::Tree tree = chainwriter::sampleTree();
  const chainwriter::Writer writer = chainwriter::writerOf("0241", 4);
  const chainwriter::Chain chain = chainwriter::write(tree, writer, 2000);
  const Bytes treeControlBlock = chainwriter::readersControlBlock(tree);

  Defs defs;
  std::vector<Record> records;
  const std::string portNarrow = "a text of some length, so that areas are used up";
  const std::u16string portWide = u"another one \xE9\xD83D\xDE00";
  std::string portText;
};

namespace {

const LifeMaterials &lifeMaterials() {
  static const LifeMaterials materials;
  return materials;
}

void *const kUntouched = const_cast<char *>("untouched");

// Runs a call up to its first failure.
template <class Call>
std::int16_t repeat(int times, Call call) {
  for (int i = 0; i < times; ++i) {
    if (const std::int16_t result = call(); result != 0) return result;
  }
  return 0;
}

// An allocation that stores an entry or, failing, leaves the cell alone.
template <class Call>
std::int16_t entryInto(Patterns &patterns, std::size_t length, Call call) {
  void *entry = kUntouched;
  const std::int16_t result = call(&entry);
  if (result == 0) {
    patterns.add(entry, length);
  } else {
    EXPECT_EQ(entry, kUntouched);
  }
  return result;
}

// The same for a chain of entries, linked through their first 8 bytes.
template <class Call>
std::int16_t chainInto(Patterns &patterns, std::size_t length, std::size_t entries, Call call) {
  void *entry = kUntouched;
  const std::int16_t result = call(&entry);
  if (result != 0) {
    EXPECT_EQ(entry, kUntouched);
    return result;
  }
  std::size_t found = 0;
  while (entry != nullptr && found <= entries) {
    void *next = nullptr;
    std::memcpy(&next, entry, sizeof next);
    patterns.add(entry, length);
    entry = next;
    ++found;
  }
  EXPECT_EQ(found, entries);
  return result;
}

// Process and thread.

StepResult startProcess(Life &life) {
  const std::int16_t result = life.mem.MEM_ProcessInit();
  life.isProcessStarted = life.isSinkStarted = result == 0;
  return result;
}

StepResult startThread(Life &life) {
  if (!life.isProcessStarted) return {};
  const std::int16_t result = life.mem.MEM_ThreadAct();
  life.isThreadStarted = result == 0;
  EXPECT_EQ(life.host.thread().pMemThreadBlk != nullptr, life.isThreadStarted);
  return result;
}

StepResult setOptions(Life &life) {
  MEMProcOptions options{};
  options.Set = 1;
  return life.mem.MEMSetProcOptions(&options);
}

StepResult endThread(Life &life) {
  life.isThreadStarted = false;
  return life.mem.MEM_ThreadTerm();
}

StepResult endProcess(Life &life) {
  life.isProcessStarted = life.isSinkStarted = false;
  life.sunk.clear();
  life.wideSunk.clear();
  return life.mem.MEM_ProcessTerm();
}

// Storage.

StepResult obtainArea(Life &life) {
  life.area = life.mem.MEM_Alloc(kAreaSize, kSecondKind);
  return life.area == nullptr ? kFailed : std::int16_t{0};
}

StepResult returnArea(Life &life) {
  if (life.area == nullptr) return {};
  life.mem.MEM_Free(std::exchange(life.area, nullptr), kAreaSize, kSecondKind);
  return std::int16_t{0};
}

StepResult initTables(Life &life) {
  return life.mem.MEM_InitQTRFTbls();
}

// Standard heap: areas, large blocks and chains.

StepResult openHeap(Life &life) {
  return life.mem.MEM_HeapOpen(&life.heap, 1, kSubPool);
}

StepResult allocShort(Life &life) {
  if (life.heap == nullptr) return {};
  return repeat(5, [&life] {
    return entryInto(life.heapEntries, 400, [&life](void **ppEntry) {
      return life.mem.MEM_HeapAllocEntry(life.heap, 400, ppEntry);
    });
  });
}

StepResult allocLong(Life &life) {
  if (life.heap == nullptr) return {};
  return repeat(2, [&life] {
    return entryInto(life.heapEntries, 5000, [&life](void **ppEntry) {
      return life.mem.MEM_HeapAllocEntryLong(life.heap, 5000, ppEntry);
    });
  });
}

StepResult allocMultiple(Life &life) {
  if (life.heap == nullptr) return {};
  return chainInto(life.heapEntries, 300, 7, [&life](void **ppEntry) {
    return life.mem.MEM_HeapAllocMultEntries(life.heap, 300, 7, 0, ppEntry);
  });
}

StepResult allocLongMultiple(Life &life) {
  if (life.heap == nullptr) return {};
  return chainInto(life.heapEntries, 2000, 3, [&life](void **ppEntry) {
    return life.mem.MEM_HeapAllocLongMultEntries(life.heap, 2000, 3, 0, ppEntry);
  });
}

StepResult closeHeap(Life &life) {
  if (life.heap == nullptr) return {};
  EXPECT_EQ(life.heapEntries.damage(), "");
  life.heapEntries.clear();
  life.portChunk = nullptr;
  return life.mem.MEM_HeapClose(std::exchange(life.heap, nullptr));
}

// Enhanced heap, through its own slots and through the standard heap's.

StepResult openSharedHeap(Life &life) {
  return life.mem.MEM_EHeapOpen(&life.sharedHeap, 1, kSubPool);
}

StepResult allocShared(Life &life) {
  if (life.sharedHeap == nullptr) return {};
  return repeat(4, [&life] {
    void *entry = kUntouched;
    const std::int16_t result = life.mem.MEM_EHeapAllocEntry(life.sharedHeap, 600, &entry);
    if (result != 0) {
      EXPECT_EQ(entry, kUntouched);
      return result;
    }
    life.sharedEntries.add(entry, 600);
    life.sharedEntry = entry;
    return result;
  });
}

StepResult allocSharedLarge(Life &life) {
  if (life.sharedHeap == nullptr) return {};
  return entryInto(life.sharedEntries, 3000, [&life](void **ppEntry) {
    const std::int16_t result = life.mem.MEM_EHeapAllocEntry(life.sharedHeap, 3000, ppEntry);
    if (result == 0) life.largeEntry = *ppEntry;
    return result;
  });
}

StepResult allocSharedShort(Life &life) {
  if (life.sharedHeap == nullptr) return {};
  return repeat(2, [&life] {
    return entryInto(life.sharedEntries, 500, [&life](void **ppEntry) {
      return life.mem.MEM_HeapAllocEntry(life.sharedHeap, 500, ppEntry);
    });
  });
}

StepResult allocSharedMultiple(Life &life) {
  if (life.sharedHeap == nullptr) return {};
  return chainInto(life.sharedEntries, 300, 5, [&life](void **ppEntry) {
    return life.mem.MEM_EHeapAllocMultEntries(life.sharedHeap, 300, 5, 0, ppEntry);
  });
}

StepResult allocSharedLongMultiple(Life &life) {
  if (life.sharedHeap == nullptr) return {};
  return chainInto(life.sharedEntries, 1500, 3, [&life](void **ppEntry) {
    return life.mem.MEM_EHeapAllocLongMultEntries(life.sharedHeap, 1500, 3, 0, ppEntry);
  });
}

StepResult freeShared(Life &life) {
  if (life.sharedEntry == nullptr) return {};
  const std::int16_t result = life.mem.MEM_EHeapFreeEntry(life.sharedHeap, 600, life.sharedEntry);
  // A refused entry is as it was.
  if (result == 0) life.sharedEntries.forget(life.sharedEntry);
  if (result == 0) life.sharedEntry = nullptr;
  return result;
}

StepResult freeSharedLarge(Life &life) {
  if (life.largeEntry == nullptr) return {};
  return life.mem.MEM_EHeapFreeEntry(life.sharedHeap, 3000, life.largeEntry);
}

StepResult closeSharedHeap(Life &life) {
  if (life.sharedHeap == nullptr) return {};
  EXPECT_EQ(life.sharedEntries.damage(), "");
  const std::int16_t result = life.mem.MEM_EHeapClose(life.sharedHeap);
  if (result != 0) {
    EXPECT_EQ(life.sharedEntries.damage(), "") << "a heap that was not closed is as it was";
    return result;
  }
  life.sharedEntries.clear();
  life.sharedEntry = life.largeEntry = nullptr;
  life.sharedHeap = nullptr;
  return result;
}

// Cell pool.

StepResult openPool(Life &life) {
  return life.mem.MEM_CellOpen(&life.pool, kCellAreaLen, kCellLen, kSubPool);
}

StepResult allocCells(Life &life) {
  if (life.pool == nullptr) return {};
  return repeat(kCells, [&life] {
    void *cell = kUntouched;
    const std::int16_t result = life.mem.MEM_CellAllocEntry(life.pool, &cell);
    if (result != 0) {
      EXPECT_EQ(cell, kUntouched);
      return result;
    }
    life.cells.push_back(cell);
    life.cellContents.add(cell, kCellLen);
    return result;
  });
}

StepResult freeCells(Life &life) {
  if (life.pool == nullptr) return {};
  EXPECT_EQ(life.cellContents.damage(), "");
  std::int16_t result = 0;
  for (std::size_t i = 0; i < life.cells.size() / 2 && result == 0; ++i) {
    life.cellContents.forget(life.cells.back());
    result = life.mem.MEM_CellFreeEntry(life.pool, life.cells.back());
    life.cells.pop_back();
  }
  EXPECT_EQ(life.cellContents.damage(), "");
  return result;
}

StepResult clearPool(Life &life) {
  if (life.pool == nullptr) return {};
  life.cells.clear();
  life.cellContents.clear();
  return life.mem.MEM_CellClear(life.pool);
}

StepResult closePool(Life &life) {
  if (life.pool == nullptr) return {};
  EXPECT_EQ(life.cellContents.damage(), "");
  life.cells.clear();
  life.cellContents.clear();
  return life.mem.MEM_CellClose(std::exchange(life.pool, nullptr));
}

// Hash table.

StepResult openTable(Life &life) {
  return life.mem.MEM_HashOpen(&life.table, 0, kKeyLen, kBuckets - 1, bucketOf, 1, kSubPool);
}

bool holds(Life &life, std::uint32_t key) {
  void *record = nullptr;
  return life.mem.MEM_HashGetEntry(life.table, &key, &record) == 0 &&
         bytesOf(record, kRecordLen) == recordOf(key);
}

StepResult insertRecords(Life &life) {
  if (life.table == nullptr) return {};
  for (std::uint32_t key = 0; key < kKeys; ++key) {
    const Bytes record = recordOf(key);
    void *copy = kUntouched;
    const std::int16_t result =
        life.mem.MEM_HashInsEntry(life.table, kRecordLen, record.data(), &copy);
    if (result != 0) {
      EXPECT_EQ(copy, kUntouched);
      return result;
    }
    life.keys.push_back(key);
  }
  return std::int16_t{0};
}

StepResult getRecords(Life &life) {
  if (life.table == nullptr) return {};
  for (std::uint32_t key = 0; key < kKeys; ++key) {
    const bool isThere = std::count(life.keys.begin(), life.keys.end(), key) == 1;
    EXPECT_EQ(holds(life, key), isThere) << "key " << key;
  }
  return std::int16_t{0};
}

StepResult deleteRecord(Life &life) {
  if (life.table == nullptr || life.keys.empty()) return {};
  const std::uint32_t key = life.keys.back();
  life.keys.pop_back();
  const std::int16_t result = life.mem.MEM_HashDelEntry(life.table, &key);
  EXPECT_FALSE(holds(life, key));
  return result;
}

StepResult scanRecords(Life &life) {
  if (life.table == nullptr) return {};
  std::vector<std::uint32_t> seen;
  const auto note = [](void *pRecord, void *pSeen) -> std::int16_t {
    std::uint32_t key = 0;
    std::memcpy(&key, pRecord, sizeof key);
    static_cast<std::vector<std::uint32_t> *>(pSeen)->push_back(key);
    return 0;
  };
  const std::int16_t result = life.mem.MEM_HashScan(life.table, note, &seen);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, life.keys);
  return result;
}

StepResult closeTable(Life &life) {
  if (life.table == nullptr) return {};
  life.keys.clear();
  return life.mem.MEM_HashClose(std::exchange(life.table, nullptr));
}

// Concatenation buffer.

StepResult openCat(Life &life) {
  return life.mem.MEM_CatOpen(&life.cat);
}

void expectCatText(const Life &life) {
  EXPECT_EQ(life.cat.Len, life.catText.size());
  if (life.catText.empty()) return;
  EXPECT_EQ(std::u16string(life.cat.pText), life.catText);
}

StepResult appendText(Life &life) {
  if (life.cat.pText == nullptr) return {};
  const std::u16string piece(400, u't');
  return repeat(5, [&life, &piece] {
    const std::int16_t result = life.mem.MEM_Cat(&life.cat, piece.c_str());
    if (result == 0) life.catText += piece;
    expectCatText(life);
    return result;
  });
}

StepResult appendMemory(Life &life) {
  if (life.cat.pText == nullptr) return {};
  const std::u16string piece(1500, u'm');
  const std::int16_t result = life.mem.MEM_MemCat(&life.cat, piece.c_str(), 1500);
  if (result == 0) life.catText += piece;
  expectCatText(life);
  return result;
}

StepResult closeCat(Life &life) {
  if (life.cat.pText == nullptr) return {};
  life.catText.clear();
  return life.mem.MEM_CatClose(&life.cat);
}

// Pack and unpack.

StepResult pack(Life &life) {
  const LifeMaterials &materials = life.materials;
  const std::int16_t result = life.mem.MEM_Pack(materials.controlBlock.get(), materials.segments[0],
                                                kPackBlockLen, &life.packed);
  life.isPackedWhole = result == 0;
  return result;
}

void returnPacked(Life &life) {
  while (life.packed != nullptr) {
    MemPackBlock *const next = life.packed->pNext;
    life.mem.MEM_Free(life.packed, kPackBlockLen, 0);
    life.packed = next;
  }
}

void expectSegments(const Life &life, const std::uint8_t *segment) {
  for (const std::uint8_t *original : life.materials.segments) {
    if (segment == nullptr) {
      ADD_FAILURE() << "a segment is missing";
      return;
    }
    EXPECT_STREQ(reinterpret_cast<const char *>(getPointer(segment, 8)),
                 reinterpret_cast<const char *>(getPointer(original, 8)));
    segment = getPointer(segment, 0);
  }
  EXPECT_EQ(segment, nullptr);
}

StepResult unpack(Life &life) {
  if (!life.isPackedWhole) return {};
  void *root = kUntouched;
  MemPackBlock *first = life.packed;
  const std::int16_t result = life.mem.MEM_Unpack(&first, &root, life.materials.controlBlock.get());
  EXPECT_EQ(first, life.packed);
  if (result == 0) {
    expectSegments(life, static_cast<const std::uint8_t *>(root));
  } else {
    EXPECT_EQ(root, kUntouched);
  }
  returnPacked(life);
  return result;
}

StepResult unpackForeign(Life &life) {
  const LifeMaterials &materials = life.materials;
  const bool isBigEndian = (life.host.sysEnv().PlatformFlags & MEM_PLATFORM_BIG_ENDIAN) != 0;
  const chainrun::BlockAreas areas(materials.chain.blocks,
                                   materials.writer.isBigEndian != isBigEndian);
  MemPackBlock *first = areas.first();
  void *root = kUntouched;
  const std::int16_t result =
      life.mem.MEM_Unpack(&first, &root, asControlBlock(materials.treeControlBlock));
  EXPECT_EQ(areas.damage(), "");
  if (result != 0) {
    EXPECT_EQ(first, areas.first());
    EXPECT_EQ(root, kUntouched);
    return result;
  }
  EXPECT_EQ(chainwriter::difference(materials.tree, materials.writer, chainwriter::Became::NewChain,
                                    root),
            "");
  chainrun::returnChain(life.mem, first, MEM_UNPACK_BLOCK_LEN);
  return result;
}

// Port strings, in the caller's heap.

StepResult writePort(Life &life) {
  if (life.heap == nullptr) return {};
  const LifeMaterials &materials = life.materials;
  std::uint32_t totalLen = 0xDEADBEEF;
  MEMPortChunk *first = nullptr;
  const std::int16_t result =
      life.mem.MEM_StructToPortStr(materials.defs.table(), kStructID, materials.records[0].data(),
                                   300, life.heap, &totalLen, &first);
  if (result != 0) {
    EXPECT_EQ(totalLen, 0U);
    return result;
  }
  EXPECT_EQ(totalLen, materials.portText.size());
  life.portChunk = first;
  return result;
}

void expectRecords(const Life &life, std::int16_t result, const void *root) {
  if (result != 0) return;
  const LifeMaterials &materials = life.materials;
  EXPECT_EQ(
      portmodel::difference(materials.defs.table(), kStructID, materials.records[0].data(), root),
      "");
}

StepResult readPort(Life &life) {
  if (life.heap == nullptr || life.portChunk == nullptr) return {};
  void *root = nullptr;
  const std::int16_t result =
      life.mem.MEM_PortStrToStruct(life.materials.defs.table(), life.portChunk, life.heap, &root);
  expectRecords(life, result, root);
  return result;
}

StepResult readPortBlock(Life &life) {
  if (life.heap == nullptr) return {};
  const std::string &text = life.materials.portText;
  void *root = nullptr;
  const std::int16_t result =
      life.mem.MEM_Port1StrToStruct(life.materials.defs.table(), text.data(),
                                    static_cast<std::uint32_t>(text.size()), life.heap, &root);
  expectRecords(life, result, root);
  return result;
}

// The sink.

StepResult stopSink(Life &life) {
  if (!life.isProcessStarted) return {};
  life.isSinkStarted = false;
  return life.mem.MEM_SinkTerm();
}

StepResult startSink(Life &life) {
  if (!life.isProcessStarted) return {};
  const std::int16_t result = life.mem.MEM_SinkInit();
  life.isSinkStarted = result == 0;
  return result;
}

template <class Char, class Entry>
std::int16_t sinkInto(std::vector<std::pair<const Char *, std::basic_string<Char>>> &sunk,
                      Entry entry, const std::basic_string<Char> &text) {
  const Char *const untouched = reinterpret_cast<const Char *>(kUntouched);
  const Char *copy = untouched;
  const std::int16_t result = entry(text.c_str(), &copy);
  if (result == 0) {
    EXPECT_EQ(std::basic_string<Char>(copy), text);
    sunk.emplace_back(copy, text);
  } else {
    EXPECT_EQ(copy, untouched);
  }
  return result;
}

StepResult sinkTexts(Life &life) {
  if (!life.isSinkStarted) return {};
  for (const std::string &text : {std::string("one"), std::string("two"), std::string("one"),
                                  std::string(), std::string(kLongText, 'l')}) {
    const std::int16_t result = sinkInto(life.sunk, life.mem.MEM_SinkString, text);
    if (result != 0) return result;
  }
  return std::int16_t{0};
}

StepResult sinkWideTexts(Life &life) {
  if (!life.isSinkStarted) return {};
  for (const std::u16string &text :
       {std::u16string(u"one"), std::u16string(u"\u4E00"), std::u16string(kLongText / 2, u'w')}) {
    const std::int16_t result = sinkInto(life.wideSunk, life.mem.MEM_WSinkString, text);
    if (result != 0) return result;
  }
  return std::int16_t{0};
}

template <class Sunk, class Entry>
std::int16_t verifyAll(const Sunk &sunk, Entry entry) {
  for (const auto &[copy, text] : sunk) {
    auto found = copy;
    const std::int16_t result = entry(text.c_str(), &found, nullptr);
    if (result != 0) return result;
    EXPECT_EQ(found, copy);
  }
  return 0;
}

StepResult verifyTexts(Life &life) {
  if (!life.isSinkStarted) return {};
  return verifyAll(life.sunk, life.mem.MEM_SinkVerify);
}

StepResult verifyWideTexts(Life &life) {
  if (!life.isSinkStarted) return {};
  return verifyAll(life.wideSunk, life.mem.MEM_WSinkVerify);
}

// Gives up all uses but the first. A refused delete leaves the copy as it was, but for one whose
// page could not be protected again: that is gone.
template <class Sunk, class Entry>
std::int16_t deleteAll(Life &life, Sunk &sunk, Entry entry) {
  while (sunk.size() > 1) {
    const auto [copy, text] = sunk.back();
    const std::int16_t result = entry(copy);
    const std::string name = life.host.thread().Error.NameText;
    if (result == 0 || name == "ProtPageErrReadOnly") {
      sunk.pop_back();
    } else {
      EXPECT_EQ(text, copy);
    }
    if (result != 0) return result;
  }
  return 0;
}

StepResult deleteTexts(Life &life) {
  if (!life.isSinkStarted) return {};
  return deleteAll(life, life.sunk, life.mem.MEM_SinkDelete);
}

StepResult deleteWideTexts(Life &life) {
  if (!life.isSinkStarted) return {};
  return deleteAll(life, life.wideSunk, life.mem.MEM_WSinkDelete);
}

using Names = std::vector<std::string>;

Names operator+(Names names, const Names &more) {
  names.insert(names.end(), more.begin(), more.end());
  return names;
}

const Names kSinkStart = {"4081 CreateFailed", "4080 GetVSTGErr", "4080 ProtPageErr"};
const Names kHeapEntry = {"4055 MemAllocAreaFail", "4055 MemAllocBlkFail"};
const Names kSharedEntry = {"4057 AcquireGate", "4055 MemAllocFail", "4055 MemAllocBlkFail"};
const Names kTableOpen = {"4030 HashCBAllocFail", "4055 MemAllocFail"};
const Names kTableUse = kTableOpen + Names{"4055 MemAllocAreaFail"};
const Names kCellArea = {"4013 Memory Alloc failed"};
const Names kSinkLookUp = {"4081 ListGateAcq"};
const Names kSinkErase =
    kSinkLookUp + Names{"4080 ProtPageErrReadWrite", "4080 ProtPageErrReadOnly"};
const Names kSinkWrite = kSinkErase + Names{"4080 GetVSTGErr", "4080 ProtPageErr"};
const Names kReading = {"4055 MemAllocFail", "4055 MemAllocAreaFail", "4055 MemAllocBlkFail"};
const Names kUnpacking = {"4065 BlockPtrTblCallocFail", "4065 UnpackBlkMemAllocFail"};

std::vector<Step> makeScript() {
  return {
      {4, "start the process", startProcess, Names{"3073 MEMProcessBlock"} + kSinkStart},
      {6, "start the thread", startThread, {"3074 MEMThreadBlock"}},
      {43, "set the options", setOptions},
      {32, "stop the sink", stopSink},
      {31, "start the sink", startSink, kSinkStart},
      {8, "allocate an area", obtainArea},
      {9, "return the area", returnArea},
      {30, "dialog tables", initTables, {}, kFailed},
      {10, "open a heap", openHeap, {"4055 MemAllocFail"}},
      {12, "entries", allocShort, kHeapEntry},
      {14, "large entries", allocLong, kHeapEntry},
      {13, "a chain of entries", allocMultiple, kHeapEntry},
      {50, "a chain of large entries", allocLongMultiple, kHeapEntry},
      {36, "open an enhanced heap", openSharedHeap, {"4057 CreateGate", "4055 MemAllocFail"}},
      {38, "shared entries", allocShared, kSharedEntry},
      {38, "a large shared entry", allocSharedLarge, kSharedEntry},
      {12, "shared entries through the standard slot", allocSharedShort, kSharedEntry},
      {40, "a chain of shared entries", allocSharedMultiple, kSharedEntry},
      {51, "a chain of large shared entries", allocSharedLongMultiple, kSharedEntry},
      {39, "free a shared entry", freeShared, {"4058 BuffPtr=", "4057 AcquireGate"}},
      {39, "free a large shared entry", freeSharedLarge, {"4058 BuffPtr="}},
      {15, "open a pool", openPool, kCellArea},
      {18, "cells", allocCells, kCellArea},
      {19, "free cells", freeCells},
      {18, "cells again", allocCells, kCellArea},
      {17, "clear the pool", clearPool},
      {18, "cells after clearing", allocCells, kCellArea},
      {20, "open a table", openTable, kTableOpen},
      {22, "records", insertRecords, {"4055 MemAllocAreaFail"}},
      {23, "look records up", getRecords},
      {48, "delete a record", deleteRecord},
      {49, "scan the table", scanRecords},
      {26, "open a buffer", openCat, {"4026 AcqMemCatExtString"}},
      {28, "append text", appendText, {"4027 MemCatStdStringFail"}},
      {29, "append memory", appendMemory, {"4026 Memory Alloc failed"}},
      {24, "pack", pack, kTableUse + Names{"4065 1stBlkMemAllocFail", "4065 NthBlkMemAllocFail"}},
      {25, "unpack in place", unpack, kUnpacking},
      {25, "unpack a foreign chain", unpackForeign,
       kUnpacking + Names{"4065 PrevBlkOffsetTblCallocFail", "4065 NewBlockTblCallocFail",
                          "4065 NthBlkMemAllocFail", "4076 UTF32 to UTF16 Conversion err="}},
      {41, "write a port string", writePort, kTableUse + kReading},
      {42, "read the port string", readPort, kReading},
      {44, "read a port string in one piece", readPortBlock, kReading},
      {33, "sink texts", sinkTexts, kSinkWrite},
      {45, "sink wide texts", sinkWideTexts, kSinkWrite},
      {35, "look texts up", verifyTexts, kSinkLookUp},
      {47, "look wide texts up", verifyWideTexts, kSinkLookUp},
      {34, "give texts up", deleteTexts, kSinkErase},
      {46, "give wide texts up", deleteWideTexts, kSinkErase},
      {27, "close the buffer", closeCat},
      {21, "close the table", closeTable},
      {16, "close the pool", closePool},
      {37, "close the enhanced heap", closeSharedHeap, {"4057 AcquireGate"}},
      {11, "close the heap", closeHeap},
      {7, "end the thread", endThread},
      {5, "end the process", endProcess},
  };
}

}  // namespace

void Patterns::add(void *area, std::size_t length) {
  std::memset(area, next_, length);
  areas_.push_back({static_cast<std::uint8_t *>(area), length, next_});
  next_ = next_ == 0xFF ? 1 : static_cast<std::uint8_t>(next_ + 1);
}

void Patterns::forget(const void *area) {
  std::erase_if(areas_, [area](const Area &known) { return known.start == area; });
}

std::string Patterns::damage() const {
  for (const Area &area : areas_) {
    for (std::size_t i = 0; i < area.length; ++i) {
      if (area.start[i] == area.pattern) continue;
      return "byte " + std::to_string(i) + " of an entry of " + std::to_string(area.length);
    }
  }
  return "";
}

Life::Life(refhost::Host &theHost)
    : host(theHost), mem(theHost.vector()), materials(lifeMaterials()) {}

Telling tellingOf(int slot) {
  if (slot == 4 || slot == 31) return Telling::inner;
  return slot == 8 ? Telling::byNullOnly : Telling::reported;
}

const std::vector<Step> &lifeScript() {
  static const std::vector<Step> script = makeScript();
  return script;
}

void endLife(Life &life) {
  returnPacked(life);
  EXPECT_EQ(returnArea(life).value_or(0), 0);
  EXPECT_EQ(closeCat(life).value_or(0), 0);
  EXPECT_EQ(closeTable(life).value_or(0), 0);
  EXPECT_EQ(closePool(life).value_or(0), 0);
  EXPECT_EQ(closeSharedHeap(life).value_or(0), 0);
  EXPECT_EQ(closeHeap(life).value_or(0), 0);
  EXPECT_EQ(endThread(life), 0);
  EXPECT_EQ(endProcess(life), 0);
  returnHashTables(life.host);
}

}  // namespace memtest
