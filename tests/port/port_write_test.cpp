// MEM_StructToPortStr: the grammar, chunks, the registry, what it asks of other services, and how
// it fails.

#include <functional>
#include <string>

#include "heaptest.hpp"
#include "porttest.hpp"

namespace memtest {
namespace {

constexpr char kNoRoom[] = "Allocaton failed in MEM_CHAR2PORT!";

class PortWriteTest : public PortTest {
 protected:
  static Defs list() {
    Defs defs;
    defs.add(1, 20,
             {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_PNT, 8, 4).of(1),
              Field(3, MEM_PORT_PNT, 8, 12).of(1)});
    return defs;
  }
  static Record item(std::int32_t value, const void *one = nullptr, const void *other = nullptr) {
    Record record(20);
    record.set(0, value).set(4, one).set(12, other);
    return record;
  }

  // A failed call: no length, the first chunk named, its header blank.
  void expectFailed(std::int16_t result, const Lines &expected, std::int16_t status = -1) {
    EXPECT_EQ(messages(), expected);
    EXPECT_EQ(result, status);
    EXPECT_EQ(totalLen, 0U);
    ASSERT_NE(firstChunk, nullptr);
    EXPECT_EQ(std::string(chunkText(firstChunk), 23), std::string(23, ' '));
  }
  void expectNothingBegun(std::int16_t result, const Lines &expected) {
    EXPECT_EQ(messages(), expected);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(totalLen, 0U);
    EXPECT_EQ(firstChunk, nullptr);
  }
};

// Grammar.

TEST_F(PortWriteTest, WorkedExample) {
  Defs defs;
  defs.add(12, 24,
           {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_CHARSZ, 8, 4),
            Field(3, MEM_PORT_PNT, 8, 16).of(7)});
  defs.add(7, 4, {Field(1, MEM_PORT_USHORT, 2, 0), Field(2, MEM_PORT_BIN, 2, 2)});
  Record inner(4);
  inner.set(0, std::uint16_t{40}).setBytes(2, "\x1F\xA0", 2);
  Record top(24);
  top.set(0, std::int32_t{-305}).setBytes(4, "ab/c\0xyz", 8);
  top.set(16, static_cast<const void *>(inner.data()));
  const std::string expected = "(0000000064,0000000002)(21<1N-503/2\"ab//c\"/3S2>)(7<1N04/2H1FA0>)";
  EXPECT_EQ(written(defs, 12, top.data()), expected);
  EXPECT_EQ(totalLen, 64U);
  EXPECT_EQ(written(defs, 12, top.data(), 23), expected);
}

TEST_F(PortWriteTest, StructureWithoutFields) {
  Defs defs;
  defs.add(305, 4, {});
  defs.add(306, 4, {Field(1, MEM_PORT_LONG, 4, 0).notPorted()});
  const Record record(4);
  EXPECT_EQ(written(defs, 305, record.data()), portString("(503<>)"));
  EXPECT_EQ(written(defs, 306, record.data()), portString("(603<>)"));
}

TEST_F(PortWriteTest, ZerosOfReversedNumbersAreKept) {
  Defs defs;
  defs.add(10, 4, {Field(100, MEM_PORT_LONG, 4, 0)});
  Record record(4);
  record.set(0, std::int32_t{1000});
  EXPECT_EQ(written(defs, 10, record.data()), portString("(01<001N0001>)"));
}

TEST_F(PortWriteTest, FieldsThatAreNotPortedLeaveNoSeparator) {
  Defs defs;
  defs.add(
      1, 16,
      {Field(1, MEM_PORT_LONG, 4, 0).notPorted(), Field(2, MEM_PORT_LONG, 4, 4),
       Field(3, MEM_PORT_LONG, 4, 8).notPorted(0x80).required(), Field(4, MEM_PORT_LONG, 4, 12)});
  const Record record(16, 1);
  EXPECT_EQ(written(defs, 1, record.data()), portString("(1<2N90034861/4N90034861>)"));
}

TEST_F(PortWriteTest, PointerToTheTopLevelStructure) {
  Record record = item(5);
  record.set(4, static_cast<const void *>(record.data()));
  EXPECT_EQ(written(list(), 1, record.data()), portString("(1<1N5/2S1/3S>)"));
}

TEST_F(PortWriteTest, StructuresAreWrittenOnceBreadthFirst) {
  Record last = item(4);
  const Record left = item(2, last.data());
  const Record right = item(3, left.data(), last.data());
  const Record top = item(1, left.data(), right.data());
  last.set(4, static_cast<const void *>(top.data()));
  EXPECT_EQ(written(list(), 1, top.data()),
            portString("(1<1N1/2S2/3S3>)(1<1N2/2S4/3S>)(1<1N3/2S2/3S4>)(1<1N4/2S1/3S>)", 4));
}

TEST_F(PortWriteTest, UnionsAreWrittenInEveryForm) {
  Defs defs;
  defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_BIN, 4, 0)});
  Record record(4);
  record.set(0, std::int32_t{-1});
  EXPECT_EQ(written(defs, 1, record.data()), portString("(1<1N-1/2HFFFFFFFF>)"));
}

TEST_F(PortWriteTest, EmbeddedStructuresAreWrittenInPlace) {
  Defs defs;
  defs.add(1, 12, {Field(1, MEM_PORT_SUBSTRUCTURE, 8, 1).of(20), Field(2, MEM_PORT_BIT, 1, 9)});
  defs.add(20, 8, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_LONG, 4, 4)});
  Record record(12);
  record.set(1, std::int32_t{5}).set(5, std::int32_t{-6}).set(9, std::uint8_t{3});
  EXPECT_EQ(written(defs, 1, record.data()), portString("(1<1E(02<1N5/2N-6>)/2B11000000>)"));
}

// Fields that are written again and again.

// Two structures of every definition. The first field of the first points to the second.
class PortPlanTest : public PortWriteTest {
 protected:
  static constexpr std::int32_t kLength = 64;

  Record &addPair(Defs &defs, std::uint32_t structID, const std::vector<Field> &fields,
                  std::int32_t countField = kNoRepeat) {
    defs.add(structID, kLength, fields, countField);
    Record &second = records_.emplace_back(static_cast<std::size_t>(kLength), 0x21);
    Record &first = records_.emplace_back(static_cast<std::size_t>(kLength), 0x22);
    second.set(0, static_cast<const void *>(nullptr)).set(8, static_cast<const char *>(nullptr));
    first.set(0, static_cast<const void *>(second.data())).set(8, "text");
    return first;
  }
  void expectAsModel(const Defs &defs, std::uint32_t structID, const Record &root) {
    const std::string expected = portmodel::write(defs.table(), structID, root.data());
    for (const std::int32_t capacity : {0, 23, 60}) {
      EXPECT_EQ(written(defs, structID, root.data(), capacity), expected);
    }
  }

 private:
  std::deque<Record> records_;
};

TEST_F(PortPlanTest, IdentifiersOfEveryLength) {
  for (std::uint32_t id = 1; id < 0x7FFFFFFFU / 10; id *= 10) {
    for (const std::uint32_t structID : {id, 9 * id, 0x7FFFFFFFU}) {
      SCOPED_TRACE(structID);
      Defs defs;
      const Record &root = addPair(
          defs, structID,
          {Field(id, MEM_PORT_PNT, 8, 0).of(structID), Field(id + 1, MEM_PORT_PSTR, 8, 8),
           Field(9 * id + 2, MEM_PORT_LONG, 4, 16), Field(0xFFFFFFFFU, MEM_PORT_BIT, 1, 20)});
      expectAsModel(defs, structID, root);
    }
  }
}

TEST_F(PortPlanTest, EveryTypeAsFirstFieldAndAsLaterOne) {
  for (std::uint8_t type = 1; type <= 16; ++type) {
    if (type == MEM_PORT_SUBSTRUCTURE || type == MEM_PORT_WPSTR) continue;  // the model test's
    SCOPED_TRACE(static_cast<int>(type));
    const auto length = static_cast<std::int32_t>(type == MEM_PORT_BIT ? 1 : 8);
    const std::int32_t offset = type == MEM_PORT_PSTR ? 8 : type == MEM_PORT_PNT ? 0 : 16;
    Defs defs;
    const Record &root = addPair(defs, 5,
                                 {Field(3, MEM_PORT_LONG, 4, 16).notPorted(),
                                  Field(4, MEM_PORT_LONG, length, offset).typeCode(type).of(5),
                                  Field(5, MEM_PORT_PNT, 8, 0).of(5),
                                  Field(6, MEM_PORT_LONG, length, offset).typeCode(type).of(5)});
    expectAsModel(defs, 5, root);
  }
}

// Every length around those that are stored at once, the characters to escape in every place, and
// more of them after the text.
TEST_F(PortPlanTest, TextsOfEveryLength) {
  Defs defs;
  defs.add(5, 16, {Field(1, MEM_PORT_PSTR, 8, 0), Field(2, MEM_PORT_PNT, 8, 8).of(5)});
  for (std::size_t length = 0; length <= 140; ++length) {
    SCOPED_TRACE(length);
    std::deque<std::string> texts;
    for (std::size_t place = 0; place <= length; ++place) {
      for (const char special : {'"', '/'}) {
        std::string &text = texts.emplace_back(length, 'x');
        if (place < length) text[place] = special;
        text.append(1, '\0').append(80, special);
      }
    }
    std::deque<Record> records;
    const void *next = nullptr;
    for (const std::string &text : texts) {
      next = records.emplace_back(16U).set(0, text.c_str()).set(8, next).data();
    }
    expectAsModel(defs, 5, records.back());
    if (HasFailure()) return;
  }
}

TEST_F(PortPlanTest, MoreDefinitionsThanThereArePlacesFor) {
  Defs defs;
  constexpr std::uint32_t kLast = 70;
  Record *root = nullptr;
  for (std::uint32_t id = 1; id <= kLast; ++id) {
    Record &first =
        addPair(defs, id,
                {Field(1, MEM_PORT_PNT, 8, 0).of(id), Field(2, MEM_PORT_PSTR, 8, 8),
                 Field(3, MEM_PORT_PNT, 8, 16).of(id - 1), Field(id + 3, MEM_PORT_LONG, 4, 24)});
    first.set(16, static_cast<const void *>(root == nullptr ? nullptr : root->data()));
    const_cast<std::uint8_t *>(load<std::uint8_t *>(first.data(), 0))[16] = 0;
    std::memset(load<std::uint8_t *>(first.data(), 0) + 16, 0, 8);
    root = &first;
  }
  expectAsModel(defs, kLast, *root);
}

TEST_F(PortPlanTest, DefinitionsWithMoreFieldsThanThereIsRoomFor) {
  for (const std::uint32_t count : {255U, 256U, 257U, 2000U}) {
    SCOPED_TRACE(count);
    Defs defs;
    std::vector<Field> fields = {Field(1, MEM_PORT_PNT, 8, 0).of(1)};
    for (std::uint32_t id = 2; id <= count; ++id) {
      fields.push_back(Field(id, MEM_PORT_USHORT, 2, static_cast<std::int32_t>(8 + id % 40)));
    }
    expectAsModel(defs, 1, addPair(defs, 1, fields));
  }
}

TEST_F(PortPlanTest, RepeatFields) {
  const auto count = [](std::int32_t value) { return value; };
  for (const std::int32_t elements : {-1, 0, 1, 2, 6}) {
    for (const bool isAlone : {false, true}) {
      SCOPED_TRACE(std::to_string(elements) + (isAlone ? " alone" : ""));
      Defs defs;
      Record &first = addPair(defs, 1,
                              {Field(1, MEM_PORT_LONG, 4, 16).notPorted(isAlone ? 1 : 0),
                               Field(2, MEM_PORT_PNT, 8, 0).of(1).notPorted(0),
                               Field(3, MEM_PORT_PSTR, 8, 8).notPorted(isAlone ? 1 : 0),
                               Field(4, MEM_PORT_SHORT, 2, 20)},
                              0);
      first.set(16, count(elements));
      store(load<std::uint8_t *>(first.data(), 0), 16, std::int32_t{3});
      expectAsModel(defs, 1, first);
    }
  }
  // Nothing but elements: the first is not separated.
  Defs defs;
  defs.add(2, 12, {Field(1, MEM_PORT_LONG, 4, 0).notPorted(), Field(2, MEM_PORT_PNT, 8, 4).of(2)},
           0);
  Record last(20);
  last.set(0, std::int32_t{2}).set(4, static_cast<const void *>(last.data()));
  Record top(28);
  top.set(0, std::int32_t{3}).set(4, static_cast<const void *>(last.data()));
  top.set(12, static_cast<const void *>(top.data()));
  EXPECT_EQ(written(defs, 2, top.data()), portString("(2,3<2S2/2S1/2S>)(2,2<2S2/2S>)", 2));
}

// Repeat fields.

struct CountCase {
  MEMFieldType type;
  std::int64_t value;
  bool isLength;
  const char *count;
  std::size_t elements;
};

TEST_F(PortWriteTest, CountsOfEveryType) {
  // The structure has 12 bytes with one element of 2.
  constexpr CountCase kCases[] = {
      {MEM_PORT_SHORT, 3, false, "3", 3},    {MEM_PORT_SHORT, 0, false, "", 0},
      {MEM_PORT_SHORT, -1, false, "", 0},    {MEM_PORT_USHORT, 10, false, "01", 10},
      {MEM_PORT_LONG, 1, false, "1", 1},     {MEM_PORT_LONG, INT32_MIN, false, "", 0},
      {MEM_PORT_ULONG, 12, false, "21", 12}, {MEM_PORT_SHORT, 12, true, "1", 1},
      {MEM_PORT_USHORT, 14, true, "2", 2},   {MEM_PORT_LONG, 30, true, "01", 10},
      {MEM_PORT_ULONG, 10, true, "", 0},     {MEM_PORT_LONG, -5, true, "", 0},
      {MEM_PORT_LONG, 13, true, "1", 1},     {MEM_PORT_SHORT, 15, true, "2", 2},
      {MEM_PORT_SHORT, 4, true, "", 0},      {MEM_PORT_ULONG, -16, true, "", 0},
  };
  for (const CountCase &row : kCases) {
    SCOPED_TRACE(std::to_string(row.type) + " value " + std::to_string(row.value));
    Defs defs;
    defs.add(1, 12,
             {Field(1, MEM_PORT_BIT, 1, 0), Field(2, row.type, 4, 2).notPorted(),
              Field(3, MEM_PORT_BIN, 2, 10)},
             1, row.isLength);
    Record record(10 + 2 * 12, 0xFF);
    record.set(0, std::uint8_t{0});
    if (row.type == MEM_PORT_SHORT || row.type == MEM_PORT_USHORT) {
      record.set(2, static_cast<std::int16_t>(row.value));
    } else {
      record.set(2, static_cast<std::int32_t>(row.value));
    }
    std::string elements;
    for (std::size_t i = 0; i < row.elements; ++i) elements += "/3HFFFF";
    EXPECT_EQ(written(defs, 1, record.data()),
              portString("(1," + std::string(row.count) + "<1B00000000" + elements + ">)"));
  }
}

TEST_F(PortWriteTest, CountFieldOfAnotherTypeIsRefused) {
  for (int type = 0; type <= 17; ++type) {
    if (type >= MEM_PORT_SHORT && type <= MEM_PORT_ULONG) continue;
    SCOPED_TRACE(type);
    Defs defs;
    defs.add(1, 16,
             {Field(1, MEM_PORT_LONG, 8, 0).typeCode(static_cast<std::uint8_t>(type)),
              Field(2, MEM_PORT_LONG, 4, 8)},
             0);
    const Record record(16);
    expectFailed(write(defs.table(), 1, record.data(), 0), {"Unsupported repeat field type!"});
  }
}

// Failures.

TEST_F(PortWriteTest, UnknownStructures) {
  Record other(4);
  Record top(16);
  top.set(0, static_cast<const void *>(other.data()));
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_PNT, 8, 0).of(9)});
  defs.add(2, 8, {Field(1, MEM_PORT_SUBSTRUCTURE, 8, 0).of(0xFFFFFFFFU)});
  expectFailed(write(defs.table(), 305, top.data(), 0), {"No such StructID:305!"});
  expectFailed(write(defs.table(), 0, top.data(), 0), {"No such StructID:0!"});
  expectFailed(write(defs.table(), 0x80000000U, top.data(), 0), {"No such StructID:-2147483648!"});
  expectFailed(write(defs.table(), 1, top.data(), 0), {"No such StructID:9!"});
  expectFailed(write(defs.table(), 2, top.data(), 0), {"No such StructID:-1!"});
  const Defs none;
  expectFailed(write(none.table(), 1, top.data(), 0), {"No such StructID:1!"});
}

TEST_F(PortWriteTest, UnknownTypesAreRefused) {
  for (const int code : {0, 17, 255}) {
    Defs defs;
    defs.add(1, 4, {Field(1, MEM_PORT_LONG, 4, 0).typeCode(static_cast<std::uint8_t>(code))});
    const Record record(4);
    expectFailed(write(defs.table(), 1, record.data(), 0), {"Unknown field type!"});
  }
}

TEST_F(PortWriteTest, BitOfAnotherLengthIsRefused) {
  for (const std::int32_t length : {0, 2, -1}) {
    Defs defs;
    defs.add(305, 4, {Field(21, MEM_PORT_BIT, length, 0)});
    const Record record(4);
    expectFailed(write(defs.table(), 305, record.data(), 0),
                 {"Failed port of FieldID 21, StructureID 305!"});
  }
}

TEST_F(PortWriteTest, NestingUpTo64) {
  constexpr std::uint32_t kDeepest = 66;
  Defs nested;
  for (std::uint32_t id = 1; id < kDeepest; ++id) {
    nested.add(id, 4, {Field(1, MEM_PORT_SUBSTRUCTURE, 4, 0).of(id + 1)});
  }
  nested.add(kDeepest, 4, {Field(1, MEM_PORT_LONG, 4, 0)});
  const Record record(4);
  EXPECT_EQ(write(nested.table(), 2, record.data(), 0), 0);
  expectFailed(write(nested.table(), 1, record.data(), 0), {});
  Defs itself;
  itself.add(1, 4, {Field(1, MEM_PORT_SUBSTRUCTURE, 4, 0).of(1)});
  expectFailed(write(itself.table(), 1, record.data(), 0), {});
}

// Chunks.

TEST_F(PortWriteTest, CapacitiesBelowTheHeaderAreRefused) {
  const Record record = item(5);
  for (const std::int32_t capacity : {-1, 1, 22, INT32_MIN}) {
    SCOPED_TRACE(capacity);
    expectNothingBegun(write(list().table(), 1, record.data(), capacity),
                       {"Chunk capacity too small!"});
    EXPECT_EQ(changedRanges(errorBytes(env()), Bytes(sizeof(MEMErrorArea))), "");
  }
  EXPECT_EQ(write(list().table(), 1, record.data(), 23), 0);
}

TEST_F(PortWriteTest, CapacityOf23BeginsTheBodyInTheSecondChunk) {
  const Record record = item(5);
  EXPECT_EQ(write(list().table(), 1, record.data(), 23), 0);
  EXPECT_EQ(piecesOf(firstChunk),
            (std::vector<std::string>{"(0000000037,0000000001)", "(1<1N5/2S/3S>)"}));
}

TEST_F(PortWriteTest, LargestCapacitiesAreTheHeapsAffair) {
  const Record record = item(5);
  for (const std::int32_t capacity : {INT32_MAX, INT32_MAX - 15, INT32_MAX - 16}) {
    SCOPED_TRACE(capacity);
    host.setTraceFlags(MEM_TRACE_EXIT);
    const std::int16_t result = write(list().table(), 1, record.data(), capacity);
    host.setTraceFlags(0);
    const Lines lines = pointLines(host.takeRecords());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(),
              "STDX MEM_StructToPortStr(..\\SrcRes\\MEMCPORT) HeapAllocEntry Return=FAILED");
    expectNothingBegun(result, {});
  }
  EXPECT_EQ(error().Code, static_cast<std::uint32_t>(MEMERR_HEAPAMEM)) << "the heap's own error";
}

TEST_F(PortWriteTest, ChunksAreExactlyAsLongAsTheCapacityAsks) {
  const Record record = item(5);
  const AddressNames names{{asNumber(heap), "callers"}};
  VectorWatch watch(mem);
  EXPECT_EQ(write(list().table(), 1, record.data(), 30), 0);
  Lines calls = watch.takeLines(names);
  std::erase_if(calls, [](const std::string &line) { return line.find("callers") == line.npos; });
  EXPECT_EQ(calls, (Lines{"14(callers, 46)", "14(callers, 46)"}));
}

TEST_F(PortWriteTest, CapacityOf0FillsAnArea) {
  const Record record = item(5);
  for (const std::int16_t areaKB : {std::int16_t{1}, std::int16_t{4}, std::int16_t{256}}) {
    closeHeap();
    openHeap(areaKB);
    const AddressNames names{{asNumber(heap), "callers"}};
    VectorWatch watch(mem);
    EXPECT_EQ(write(list().table(), 1, record.data(), 0), 0);
    EXPECT_EQ(watch.takeLines(names).front(),
              "14(callers, " + std::to_string(areaKB * 1024 - 72 + 16) + ")");
    host.restoreSlots();
    EXPECT_EQ(load<std::int32_t>(heap, 20), 0) << "the header's area is full";
  }
}

// An enhanced heap keeps its area size at another place.
TEST_F(PortWriteTest, CapacityOf0AsksAnEnhancedHeapForItsOwnAreaSize) {
  Record enhanced(64, 0x7E);
  enhanced.setBytes(0, "ENHHEAP1", 8).set(56, std::int32_t{2048});
  static std::vector<std::int32_t> asked;
  static std::vector<std::unique_ptr<Record>> entries;
  asked.clear();
  mem.MEM_EHeapAllocEntry = [](HMEMHEAP, std::int32_t length, void **entry) {
    asked.push_back(length);
    entries.push_back(std::make_unique<Record>(static_cast<std::size_t>(length), 0xA5));
    *entry = entries.back()->data();
    return std::int16_t{0};
  };
  const Record record = item(5);
  const HMEMHEAP own = heap;
  heap = reinterpret_cast<HMEMHEAP>(enhanced.data());
  EXPECT_EQ(write(list().table(), 1, record.data(), 0), 0);
  EXPECT_EQ(textOf(firstChunk), portString("(1<1N5/2S/3S>)"));
  heap = own;
  EXPECT_EQ(asked, std::vector<std::int32_t>{2048 - 72 + 16});
  entries.clear();
}

TEST_F(PortWriteTest, HandlesThatAreNoHeapFailAsTheHeapFails) {
  const Record record = item(5);
  Record notAHeap(64, 0x11);
  const HMEMHEAP own = heap;
  for (HMEMHEAP handle : {HMEMHEAP{}, reinterpret_cast<HMEMHEAP>(notAHeap.data())}) {
    for (const std::int32_t capacity : {0, 23, 1000}) {
      heap = handle;
      const std::int16_t result = write(list().table(), 1, record.data(), capacity);
      heap = own;
      expectNothingBegun(result, {});
      EXPECT_EQ(error().Code, static_cast<std::uint32_t>(MEMERR_HEAPBHDL));
      EXPECT_EQ(error().ReturnCode, kFailedCode);
    }
    heap = handle;
    const std::int16_t result = write(list().table(), 1, record.data(), 22);
    heap = own;
    expectNothingBegun(result, {"Chunk capacity too small!"});
  }
}

// A host may serve handles of its own: the length asked for is the caller's.
TEST_F(PortWriteTest, HandleOfTheHostsOwnKeepsTheCapacity) {
  static std::int32_t asked;
  mem.MEM_HeapAllocEntryLong = [](HMEMHEAP, std::int32_t length, void **) {
    asked = length;
    return std::int16_t{-1};
  };
  Record hosts(64, 0x11);
  const HMEMHEAP own = heap;
  heap = reinterpret_cast<HMEMHEAP>(hosts.data());
  EXPECT_EQ(write(list().table(), 1, item(5).data(), 100), -1);
  heap = own;
  EXPECT_EQ(asked, 116);
}

TEST_F(PortWriteTest, ChunkThatCannotBeObtainedEndsTheWriting) {
  Defs defs;
  defs.add(305, 8, {Field(1, MEM_PORT_LONG, 4, 0), Field(21, MEM_PORT_CHAR, 4, 4)});
  Record record(8, 0x61);
  static std::int32_t left;
  static MEM_HeapAllocEntryLongFn *own;
  static HMEMHEAP callers;
  own = mem.MEM_HeapAllocEntryLong;
  callers = heap;
  mem.MEM_HeapAllocEntryLong = [](HMEMHEAP handle, std::int32_t length, void **entry) {
    if (handle != callers || left-- > 0) return own(handle, length, entry);
    return std::int16_t{-1};
  };
  const std::string whole = portString("(503<1N7353771361/12\"aaaa\">)");
  // Capacity 23 is full at once; 41 within the number; 43 before the string's end.
  struct Row {
    std::int32_t capacity;
    Lines expected;
  };
  const Row rows[] = {
      {23, {kNoRoom}},
      {30, {kNoRoom}},
      {static_cast<std::int32_t>(whole.find('"')),
       {kNoRoom, "Failed port of FieldID 21, StructureID 305!"}},
      {static_cast<std::int32_t>(whole.find("a\"")),
       {kNoRoom, "Failed port of FieldID 21, StructureID 305!"}},
      {static_cast<std::int32_t>(whole.size() - 1), {kNoRoom}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.capacity);
    left = 1;
    expectFailed(write(defs.table(), 305, record.data(), row.capacity), row.expected);
    EXPECT_EQ(firstChunk->Used, row.capacity) << "what was written stays";
    EXPECT_EQ(firstChunk->pNext, nullptr);
  }
}

// Entries of exactly their length, each with a mark after it that nothing may change.
class PortRoomTest : public PortWriteTest {
 protected:
  PortRoomTest() {
    callers_ = heap;
    own_ = mem.MEM_HeapAllocEntryLong;
    entries_.clear();
    mem.MEM_HeapAllocEntryLong = [](HMEMHEAP handle, std::int32_t length, void **entry) {
      if (handle != callers_) return own_(handle, length, entry);
      entries_.push_back(std::make_unique<Record>(static_cast<std::size_t>(length) + kMark, 0xA5));
      std::memset(entries_.back()->data(), 0, static_cast<std::size_t>(length));
      *entry = entries_.back()->data();
      return std::int16_t{0};
    };
  }

  // A chunk's text ends 4 bytes before its entry's end.
  void expectNothingBehindTheText(std::int32_t capacity) {
    for (const auto &entry : entries_) {
      const auto used = static_cast<std::size_t>(load<std::int32_t>(entry->data(), 8));
      const std::size_t behind = 12 + static_cast<std::size_t>(capacity) + 4;
      ASSERT_EQ(bytesOf(entry->data() + 12 + used, behind - 12 - used), Bytes(behind - 12 - used));
      ASSERT_EQ(bytesOf(entry->data() + behind, kMark), Bytes(kMark, 0xA5));
    }
    entries_.clear();
  }

 private:
  static constexpr std::size_t kMark = 32;
  inline static HMEMHEAP callers_;
  inline static MEM_HeapAllocEntryLongFn *own_;
  inline static std::vector<std::unique_ptr<Record>> entries_;
};

TEST_F(PortRoomTest, EveryFieldMayMeetTheEndOfAChunk) {
  Defs defs;
  defs.add(1, 44,
           {Field(1, MEM_PORT_PNT, 8, 0).of(1), Field(2, MEM_PORT_PSTR, 8, 8),
            Field(3, MEM_PORT_BIGINT, 8, 16), Field(4, MEM_PORT_CHAR, 16, 28),
            Field(5, MEM_PORT_LONG, 4, 24)});
  std::vector<Record> records;
  for (std::size_t i = 0; i < 4; ++i) records.emplace_back(44U, 0x2F);
  for (std::size_t i = 0; i < 4; ++i) {
    const void *next = i < 3 ? records[i + 1].data() : nullptr;
    records[i].set(0, next).set(8, i == 2 ? "" : "a \"text\" of more than a word/");
    records[i].set(16, INT64_MIN).set(24, static_cast<std::int32_t>(i) - 1);
  }
  const std::string expected = portmodel::write(defs.table(), 1, records[0].data());
  for (std::int32_t capacity = 23; capacity < 400; ++capacity) {
    SCOPED_TRACE(capacity);
    ASSERT_EQ(written(defs, 1, records[0].data(), capacity), expected);
    expectNothingBehindTheText(capacity);
    if (HasFatalFailure()) return;
  }
}

TEST_F(PortRoomTest, NothingBehindATextIsLeftInTheChunk) {
  Defs defs;
  defs.add(1, 16, {Field(1, MEM_PORT_PNT, 8, 0).of(1), Field(2, MEM_PORT_PSTR, 8, 8)});
  for (std::size_t length = 0; length <= 70; ++length) {
    SCOPED_TRACE(length);
    const std::string text = std::string(length, 'x') + '\0' + std::string(80, '!');
    Record second(16);
    second.set(8, text.c_str());
    Record first(16);
    first.set(0, static_cast<const void *>(second.data()));
    const std::string expected = portmodel::write(defs.table(), 1, first.data());
    ASSERT_EQ(written(defs, 1, first.data(), 500), expected);
    expectNothingBehindTheText(500);
    if (HasFatalFailure()) return;
  }
}

// The registry.

class PortRegistryTest : public PortWriteTest {
 protected:
  struct Opened {
    std::int16_t keyOff, keyLen, max, areaLen;
    std::uint16_t subPool;
    MEMHashFunc function;
  };
  struct Inserted {
    std::int16_t length;
    Bytes bytes;
  };

  PortRegistryTest() {
    own_ = mem;
    test_ = this;
    mem.MEM_HashOpen = [](HMEMHASH *hash, std::int16_t keyOff, std::int16_t keyLen,
                          std::int16_t max, MEMHashFunc function, std::int16_t areaLen,
                          std::uint16_t subPool) {
      test_->opened.push_back({keyOff, keyLen, max, areaLen, subPool, function});
      if (test_->openResult != 0) return test_->openResult;
      return own_.MEM_HashOpen(hash, keyOff, keyLen, max, function, areaLen, subPool);
    };
    mem.MEM_HashInsEntry = [](HMEMHASH hash, std::int16_t length, const void *entry,
                              void **stored) {
      test_->inserted.push_back({length, bytesOf(entry, static_cast<std::size_t>(length))});
      if (test_->inserted.size() == test_->failingInsert) return test_->insertResult;
      return own_.MEM_HashInsEntry(hash, length, entry, stored);
    };
    mem.MEM_HashClose = [](HMEMHASH hash) {
      ++test_->closed;
      return own_.MEM_HashClose(hash);
    };
  }

  static Bytes entryOf(const void *structure, std::uint32_t structID, std::uint32_t sequence) {
    return Layout().address(structure).field(structID).field(sequence).address(nullptr).bytes();
  }

  std::vector<Opened> opened;
  std::vector<Inserted> inserted;
  int closed = 0;
  std::int16_t openResult = 0;
  std::size_t failingInsert = 0;
  std::int16_t insertResult = 0;

 private:
  inline static PortRegistryTest *test_ = nullptr;
  inline static MEMFunctionVector own_;
};

TEST_F(PortRegistryTest, IsAHashTableKeyedByAddress) {
  const Record last = item(3);
  const Record top = item(1, last.data(), last.data());
  EXPECT_EQ(write(list().table(), 1, top.data(), 0), 0);
  ASSERT_EQ(opened.size(), 1U);
  EXPECT_EQ(opened[0].keyOff, 0);
  EXPECT_EQ(opened[0].keyLen, 8);
  EXPECT_EQ(opened[0].max, 1998);
  EXPECT_EQ(opened[0].areaLen, 10);
  EXPECT_EQ(opened[0].subPool, 0);
  ASSERT_EQ(inserted.size(), 3U);
  EXPECT_EQ(inserted[0].bytes, entryOf(top.data(), 1, 1));
  EXPECT_EQ(inserted[1].bytes, entryOf(last.data(), 1, 2));
  EXPECT_EQ(inserted[2].length, 24);
  EXPECT_EQ(closed, 1);
}

TEST_F(PortRegistryTest, HashesAddresses) {
  EXPECT_EQ(write(list().table(), 1, item(1).data(), 0), 0);
  ASSERT_EQ(opened.size(), 1U);
  const auto hash = [&](std::uint64_t address) {
    Record key(9);  // at any alignment
    key.set(1, address);
    return opened[0].function(key.data() + 1);
  };
  EXPECT_EQ(hash(0), 0);
  EXPECT_EQ(hash(8), 1);
  EXPECT_EQ(hash(8 * 1998), 1998);
  EXPECT_EQ(hash(8 * 1999), 0);
  EXPECT_EQ(hash(7), 7);
  EXPECT_EQ(hash(1999), 0);
  EXPECT_EQ(hash(12), 12);
  EXPECT_EQ(hash(UINT64_MAX), static_cast<std::int16_t>(UINT64_MAX % 1999));
  EXPECT_EQ(hash(UINT64_MAX - 7), static_cast<std::int16_t>((UINT64_MAX - 7) / 8 % 1999));
}

TEST_F(PortRegistryTest, ThatCannotBeOpenedFailsTheCall) {
  openResult = -1;
  host.setTraceFlags(MEM_TRACE_EXIT);
  const std::int16_t result = write(list().table(), 1, item(1).data(), 0);
  host.setTraceFlags(0);
  const auto records = host.takeRecords();
  EXPECT_EQ(pointLines(records).back(),
            "STDX MEM_StructToPortStr(..\\SrcRes\\MEMCPORT) MEM_HashOpen Return=FAILED");
  expectFailed(result, {});
  EXPECT_EQ(closed, 0);
}

TEST_F(PortRegistryTest, StatusOfAnInsertionIsPassedOn) {
  const Record last = item(3);
  const Record top = item(1, last.data());
  for (const std::size_t nth : {1U, 2U}) {
    for (const std::int16_t status : {std::int16_t{-1}, std::int16_t{4031}, std::int16_t{7}}) {
      inserted.clear();
      closed = 0;
      failingInsert = nth;
      insertResult = status;
      expectFailed(write(list().table(), 1, top.data(), 0), {}, status);
      EXPECT_EQ(closed, 1);
    }
  }
}

TEST_F(PortRegistryTest, IsClosedAfterFailures) {
  expectFailed(write(list().table(), 9, item(1).data(), 0), {"No such StructID:9!"});
  EXPECT_EQ(closed, 1);
}

// Traces and the error area.

TEST_F(PortWriteTest, RecordsUnderFlags) {
  const Record record = item(5);
  const auto ownRecords = [&](std::uint32_t flags, std::uint32_t structID) {
    host.setTraceFlags(flags);
    write(list().table(), structID, record.data(), 0);
    host.setTraceFlags(0);
    Lines lines;
    for (const std::string &line : pointLines(host.takeRecords())) {
      if (line.find("MEMCPORT") != line.npos) lines.push_back(line);
    }
    return lines;
  };
  EXPECT_EQ(ownRecords(0, 1), Lines());
  const Lines entry = ownRecords(MEM_TRACE_ENTRY, 1);
  ASSERT_EQ(entry.size(), 1U);
  EXPECT_EQ(entry[0].rfind("STDE MEM_StructToPortStr(..\\SrcRes\\MEMCPORT) Parms: ", 0), 0U);
  EXPECT_EQ(ownRecords(MEM_TRACE_EXIT, 1),
            Lines{"STDX MEM_StructToPortStr(..\\SrcRes\\MEMCPORT) Return=SUCCESS"});
  for (const std::uint32_t flags : {0U, +MEM_TRACE_EXIT}) {
    const Lines failing = ownRecords(flags, 9);
    ASSERT_EQ(failing.size(), 1U) << "an exception record whatever the flags, and no exit record";
    EXPECT_EQ(failing[0].rfind("EXCP ", 0), 0U);
  }
}

TEST_F(PortWriteTest, MessageIsShort) {
  EXPECT_EQ(write(list().table(), 9, item(5).data(), 0), -1);
  const Lines messages = messageTexts(host.takeRecords());
  EXPECT_EQ(messages, Lines{"No such StructID:9!"}) << "without position and excerpts";
}

TEST_F(PortWriteTest, ErrorAreaIsClearedAndGetsNoCode) {
  for (const std::uint32_t structID : {1U, 9U}) {
    std::memset(&error(), 0x5A, sizeof error());
    write(list().table(), structID, item(5).data(), 0);
    EXPECT_EQ(changedRanges(errorBytes(env()), Bytes(sizeof(MEMErrorArea))), "");
  }
  EXPECT_EQ(host.calls(refhost::Service::ReportError), 0U);
}

TEST_F(PortWriteTest, CallersStructuresAreNotChanged) {
  const Record last = item(3);
  const Record top = item(1, last.data(), last.data());
  const Bytes before = bytesOf(top.data(), top.size());
  EXPECT_EQ(write(list().table(), 1, top.data(), 0), 0);
  EXPECT_EQ(bytesOf(top.data(), top.size()), before);
}

}  // namespace
}  // namespace memtest
