// memtool contract: the contract as data is the headers'. That every number of it is the compiler's
// is asserted while memtool is compiled (contract_checks.cpp); here it is read as programs read it.
#include <cstddef>
#include <type_traits>

#include "memtooltest.hpp"
#include "qj7mem00/memport.h"
#include "qj7mem00/qj7mem00.h"

namespace memtest {
namespace {

struct FieldRow {
  const char *record;
  const char *field;
  std::size_t offset;
  std::size_t bytes;
};
#define FIELD(record, field) \
  { #record, #field, offsetof(record, field), sizeof(record::field) }
const FieldRow kFields[] = {
    FIELD(MEMCatCB, BlkLen),
    FIELD(MEMCatCB, Len),
    FIELD(MEMCatCB, Mark),
    FIELD(MEMMessageRow, Code),
    FIELD(MEMMessageRow, Name),
    FIELD(MEMMessageRow, Message),
    FIELD(MEMMessageRow, Explanation),
    FIELD(MEMBlockHeader, Mark),
    FIELD(MEMBlockHeader, Eyecatcher),
    FIELD(MEMBlockHeader, Name),
    FIELD(MEMBlockHeader, Reserved28),
    FIELD(MEMBlockHeader, Type),
    FIELD(MEMSinkSegment, pSpace),
    FIELD(MEMSinkSegment, pLast),
    FIELD(MEMSinkSegment, pMap),
    FIELD(MEMSinkSegment, Counter),
    FIELD(MEMSinkSegment, UsedLen),
    FIELD(MEMSinkSegment, FreeLen),
    FIELD(MEMSinkSegment, TextLen),
    FIELD(MEMProcessBlock, Flags),
    FIELD(MEMProcessBlock, Pointers),
    FIELD(MEMProcessBlock, SegmentCount),
    FIELD(MEMProcessBlock, Segments),
    FIELD(MEMProcessBlock, Gate),
    FIELD(MEMProcessBlock, pIndex),
    FIELD(MEMProcessBlock, IndexLen),
    FIELD(MEMProcessBlock, SlotCount),
    FIELD(MEMProcessBlock, Used),
    FIELD(MEMProcessBlock, Act),
    FIELD(MEMProcessBlock, Garbage),
    FIELD(MEMProcessBlock, Free),
    FIELD(MEMProcessBlock, First),
    FIELD(MEMProcessBlock, End),
    FIELD(MEMProcessBlock, OldPackCB),
    FIELD(MEMThreadBlock, Pointers),
    FIELD(MEMThreadBlock, Flags),
    FIELD(MEMThreadBlock, pProcessBlk),
    FIELD(MEMProcOptions, OldPackCB),
    FIELD(MEMErrorArea, Component),
    FIELD(MEMErrorArea, ReturnCode),
    FIELD(MEMErrorArea, Code),
    FIELD(MEMErrorArea, InnerCode),
    FIELD(MEMErrorArea, PrevInnerCode),
    FIELD(MEMErrorArea, NameText),
    FIELD(MEMErrorArea, InnerText),
    FIELD(MEMTraceBuf, TextLen),
    FIELD(MEMTraceBuf, Text),
    FIELD(MEMThreadEnv, Error),
    FIELD(MEMThreadEnv, MessageText),
    FIELD(MEMThreadEnv, pTraceBuf),
    FIELD(MEMThreadEnv, pMemThreadBlk),
    FIELD(MEMTraceFrame, pThreadEnv),
    FIELD(MEMTraceFrame, TraceFlags),
    FIELD(MEMTraceFrame, Result),
    FIELD(MEMTraceFrame, pName),
    FIELD(MEMSysEnv, PlatformFlags),
    FIELD(MemPackDescriptor, FixedLen),
    FIELD(MemPackDescriptor, SiblingOff),
    FIELD(MemPackDescriptor, ChildCount),
    FIELD(MemPackDescriptor, ReferenceCount),
    FIELD(MemPackDescriptor, Children),
    FIELD(MemPackDescriptor, References),
    FIELD(MemPackCB, Descriptors),
    FIELD(MemPackBlock, UsedLen),
    FIELD(MemPackRelPtr, Offset),
    FIELD(MEMFieldDef, Type),
    FIELD(MEMFieldDef, Required),
    FIELD(MEMFieldDef, Length),
    FIELD(MEMFieldDef, SubStructID),
    FIELD(MEMFieldDef, Offset),
    FIELD(MEMFieldDef, Default),
    FIELD(MEMFieldDef, NoTruncate),
    FIELD(MEMFieldDef, NotPorted),
    FIELD(MEMStructDef, Length),
    FIELD(MEMStructDef, CountField),
    FIELD(MEMStructDef, FieldCount),
    FIELD(MEMStructDef, Fields),
    FIELD(MEMStructDef, CountIsLength),
    FIELD(MEMPortChunk, Used),
    FIELD(MEMPortChunk, Text),
};
#undef FIELD

struct RecordRow {
  const char *record;
  std::size_t bytes;
};
#define RECORD(record) \
  { #record, sizeof(record) }
const RecordRow kRecords[] = {
    RECORD(MEMCatCB),        RECORD(MEMMessageRow),      RECORD(MEMBlockHeader),
    RECORD(MEMSinkSegment),  RECORD(MEMProcessBlock),    RECORD(MEMThreadBlock),
    RECORD(MEMProcOptions),  RECORD(MEMErrorArea),       RECORD(MEMThreadEnv),
    RECORD(MEMTraceFrame),   RECORD(MEMRuntimeServices), RECORD(MEMTraceServices),
    RECORD(MEMTextServices), RECORD(MemPackChild),       RECORD(MemPackDescriptor),
    RECORD(MemPackCB),       RECORD(MemPackRelPtr),      RECORD(MEMFieldDef),
    RECORD(MEMStructDef),    RECORD(MEMFunctionVector),  RECORD(MEMTraceBuf),
    RECORD(MEMSysEnv),       RECORD(MemPackBlock),       RECORD(MEMPortChunk),
};
#undef RECORD

struct SlotRow {
  int number;
  const char *name;
  std::size_t parameters;
  std::size_t resultBytes;
};

template <class Signature>
struct Shape;
template <class Result, class... Parameters>
struct Shape<Result(Parameters...)> {
  static constexpr std::size_t kParameters = sizeof...(Parameters);
  static constexpr std::size_t resultBytes() {
    if constexpr (std::is_void_v<Result>) {
      return 0;
    } else {
      return sizeof(Result);
    }
  }
};
#define SLOT(number, name) \
  {number, #name, Shape<name##Fn>::kParameters, Shape<name##Fn>::resultBytes()},
const SlotRow kSlots[] = {MEM_VECTOR_SLOTS(SLOT)};
#undef SLOT

Json contract() {
  return Json::parse(outputOf({"contract", "--json"}));
}

const Json *find(const Json &list, const std::string &name) {
  for (const Json &entry : list) {
    if (entry["name"] == name) return &entry;
  }
  ADD_FAILURE() << name << " is missing";
  return nullptr;
}

TEST(MemtoolContractTest, SizesAndOffsetsAreTheCompilers) {
  const Json all = contract();
  for (const RecordRow &row : kRecords) {
    const Json *const record = find(all["records"], row.record);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ((*record)["size"], row.bytes) << row.record;
  }
  EXPECT_EQ(all["records"].size(), std::size(kRecords));
  for (const FieldRow &row : kFields) {
    const Json *const field = find((*find(all["records"], row.record))["fields"], row.field);
    ASSERT_NE(field, nullptr);
    EXPECT_EQ((*field)["offset"], row.offset) << row.record << "." << row.field;
    EXPECT_EQ((*field)["size"], row.bytes) << row.record << "." << row.field;
  }
}

// Fields and the padding before them cover their record: none is left out.
TEST(MemtoolContractTest, FieldsCoverTheirRecords) {
  const Json all = contract();
  for (const Json &record : all["records"]) {
    std::size_t end = 0;
    const std::size_t alignment = record["alignment"];
    for (const Json &field : record["fields"]) {
      EXPECT_GE(field["offset"], end) << record["name"] << field["name"];
      EXPECT_LT(field["offset"], end + alignment) << record["name"] << field["name"];
      end = field["offset"].get<std::size_t>() + field["size"].get<std::size_t>();
    }
    EXPECT_LT(record["size"], end + alignment) << record["name"];
  }
}

TEST(MemtoolContractTest, SlotsAreTheVectors) {
  const Json all = contract();
  ASSERT_EQ(all["slots"].size(), std::size(kSlots));
  for (std::size_t i = 0; i < std::size(kSlots); ++i) {
    const Json &slot = all["slots"][i];
    EXPECT_EQ(slot["number"], kSlots[i].number);
    EXPECT_EQ(slot["name"], kSlots[i].name);
    EXPECT_EQ(slot["parameters"].size(), kSlots[i].parameters) << slot["name"];
    EXPECT_EQ(all["types"][slot["result"].get<std::string>()]["bytes"], kSlots[i].resultBytes);
    EXPECT_TRUE(slot.contains("doc")) << slot["name"];
  }
}

TEST(MemtoolContractTest, CodesAreTheMessageTables) {
  Json wanted = Json::array();
#define ROW(name, code, message) \
  wanted.push_back({{"code", code}, {"name", #name}, {"message", message}});
  MEMERR_LIST(ROW)
#undef ROW
  EXPECT_EQ(contract()["codes"], wanted);
}

TEST(MemtoolContractTest, EveryTypeIsInTheTable) {
  const Json all = contract();
  const auto known = [&all](const Json &call) {
    EXPECT_TRUE(all["types"].contains(call["result"].get<std::string>())) << call;
    for (const Json &parameter : call["parameters"]) {
      EXPECT_TRUE(all["types"].contains(parameter["type"].get<std::string>())) << parameter;
    }
  };
  for (const Json &slot : all["slots"]) known(slot);
  for (const Json &service : all["services"]) known(service);
  for (const auto &[name, type] : all["types"].items()) {
    if (type["kind"] == "pointer") {
      EXPECT_TRUE(all["types"].contains(type["to"].get<std::string>())) << name;
    } else if (type["kind"] == "record") {
      find(all["records"], name);
    } else if (type["kind"] == "callback") {
      known(type);
    }
  }
}

TEST(MemtoolContractTest, ServicesAndFieldTypes) {
  const Json all = contract();
  EXPECT_EQ(all["services"].size(), 22U);
  EXPECT_EQ((*find(all["services"], "CheckStorage"))["slot"], 285);
  EXPECT_EQ((*find(all["services"], "Format"))["variadic"], true);
  EXPECT_EQ((*find(all["services"], "FilterException"))["hostVector"], 2);
  EXPECT_EQ(all["fieldTypes"].size(), 16U);
  EXPECT_EQ(all["fieldTypes"][14]["name"], "WCharSZ");
  EXPECT_EQ(all["fieldTypes"][14]["code"], 15);
  EXPECT_EQ(all["segmentTypes"].size(), 4U);
  EXPECT_EQ(all["segmentTypes"][3]["letter"], "W");
  EXPECT_EQ(all["bind"]["name"], MEM_BIND_ENTRY_NAME);
  EXPECT_EQ(all["constants"]["MEM_TRACE_SINK"], MEM_TRACE_SINK);
}

TEST(MemtoolContractTest, TheManualShowsWhatIsPrinted) {
  const std::string page = readBytes(std::filesystem::path(MEM_DOCS) / "memtool.md");
  const std::string block =
      "```\n$ memtool contract MEM_HeapOpen\n" + outputOf({"contract", "MEM_HeapOpen"}) + "```\n";
  EXPECT_NE(page.find(block), std::string::npos);
}

TEST(MemtoolContractTest, ShowsOneEntryOrAll) {
  const std::string list = outputOf({"contract"});
  for (const char *text : {"MEM_EHeapAllocLongMultEntries", "MEMTextServices", "MEMPortChunk"}) {
    EXPECT_NE(list.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(outputOf({"contract", "MEM_HeapClose"}),
            "Slot 11\nint16_t MEM_HeapClose(HMEMHEAP hMemHeap)\n\nFrees all areas and large "
            "blocks. MEMERR_HEAPBHDL, also for an enhanced heap.\n");
  EXPECT_NE(outputOf({"contract", "GetStorage"}).find("Slot 112 of MEMRuntimeServices\n"),
            std::string::npos);
  EXPECT_NE(outputOf({"contract", "MEMTraceFrame"}).find("    56      8  pName "),
            std::string::npos);
  expectRefused(1, "has no slot, host service or record with the name \"MEM_Heap\"",
                {"contract", "MEM_Heap"});
  expectRefused(2, "without NAME", {"contract", "MEM_HeapOpen", "--json"});
}

}  // namespace
}  // namespace memtest
