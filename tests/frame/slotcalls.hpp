// One call of every service of the library, slot by slot: what the rules that all services share
// are tested with. The slot numbers are written here a second time, on purpose.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <vector>

#include "memtest.hpp"

namespace memtest {

// What a call needs and leaves.
struct Scene {
  explicit Scene(refhost::Host &theHost) : host(theHost), mem(theHost.vector()) {}

  refhost::Host &host;
  MEMFunctionVector &mem;
  void *area = nullptr;
  MEMProcOptions options{};
  std::uint32_t totalLen = 0;
  MEMPortChunk *chunk = nullptr;
  std::array<char, offsetof(MEMPortChunk, Text) + MEM_PORT_HEADER_LEN> chunkBytes{};
  const char *sunk = nullptr;
  const char16_t *wideSunk = nullptr;
};

using Result = std::optional<std::int16_t>;  // nothing for services without a 16-bit result

struct SlotCall {
  int slot;
  std::size_t offset;  // of the slot's field in MEMFunctionVector
  const char *name;
  const char *traceName;  // name in the frame
  bool clearsErrorArea;
  Result (*call)(Scene &);
  void (*prepare)(Scene &) = nullptr;
  void (*cleanUp)(Scene &) = nullptr;
};

inline void PrintTo(const SlotCall &row, std::ostream *out) {
  *out << "slot " << row.slot << " " << row.name;
}

inline std::string slotCallName(const ::testing::TestParamInfo<SlotCall> &info) {
  return info.param.name;
}

inline constexpr std::uint32_t kSceneSize = 24;
inline constexpr std::int16_t kSceneSubPool = 7;

inline void startProcess(Scene &scene) {
  EXPECT_EQ(scene.mem.MEM_ProcessInit(), 0);
}
inline void endProcess(Scene &scene) {
  EXPECT_EQ(scene.mem.MEM_ProcessTerm(), 0);
}

inline void startThread(Scene &scene) {
  startProcess(scene);
  EXPECT_EQ(scene.mem.MEM_ThreadAct(), 0);
}

inline void endThread(Scene &scene) {
  EXPECT_EQ(scene.mem.MEM_ThreadTerm(), 0);
  endProcess(scene);
}

inline void stopSink(Scene &scene) {
  startProcess(scene);
  EXPECT_EQ(scene.mem.MEM_SinkTerm(), 0);
}

inline void obtainArea(Scene &scene) {
  EXPECT_EQ(scene.host.runtime().GetStorage(&scene.area, kSceneSize, kSceneSubPool, 1), 0);
}

inline void returnArea(Scene &scene) {
  scene.host.runtime().FreeStorage(scene.area, kSceneSize, kSceneSubPool);
}

inline Result allocArea(Scene &scene) {
  scene.area = scene.mem.MEM_Alloc(kSceneSize, kSceneSubPool);
  return std::nullopt;
}

inline Result freeArea(Scene &scene) {
  scene.mem.MEM_Free(scene.area, kSceneSize, kSceneSubPool);
  return std::nullopt;
}

inline Result setOptions(Scene &scene) {
  scene.options.Set = 1;
  return scene.mem.MEMSetProcOptions(&scene.options);
}

// A port string that is refused before anything is allocated, and without a record of its own.
inline constexpr char kNoStructures[] = "(0000000023,0000000000)";

inline const MEMPortChunk *chunkWithoutStructures(Scene &scene) {
  auto *chunk = reinterpret_cast<MEMPortChunk *>(scene.chunkBytes.data());
  chunk->Used = MEM_PORT_HEADER_LEN;
  std::memcpy(scene.chunkBytes.data() + offsetof(MEMPortChunk, Text), kNoStructures,
              MEM_PORT_HEADER_LEN);
  return chunk;
}

#define MEMTEST_CALL(entry, ...) [](Scene &scene) -> Result { return scene.mem.entry(__VA_ARGS__); }
#define MEMTEST_SLOT(number, entry) number, offsetof(MEMFunctionVector, entry), #entry

// Services that need a handle are called with none and refuse it; those of the sink, whose refusals
// write exception records under any flags, get the empty text. Calls need no process block but
// where a row makes one; they never need a thread block.
inline const std::vector<SlotCall> &slotCalls() {
  static const std::vector<SlotCall> rows = {
      {MEMTEST_SLOT(4, MEM_ProcessInit), "MEM_ProcessInit", true, MEMTEST_CALL(MEM_ProcessInit),
       nullptr, endProcess},
      {MEMTEST_SLOT(5, MEM_ProcessTerm), "MEM_ProcessTerm", false, MEMTEST_CALL(MEM_ProcessTerm),
       startProcess},
      {MEMTEST_SLOT(6, MEM_ThreadAct), "MEM_ThreadAct", false, MEMTEST_CALL(MEM_ThreadAct),
       startProcess, endThread},
      {MEMTEST_SLOT(7, MEM_ThreadTerm), "MEM_ThreadTerm", false, MEMTEST_CALL(MEM_ThreadTerm),
       startThread, endThread},
      {MEMTEST_SLOT(8, MEM_Alloc), "MemAlloc", true, allocArea, nullptr, returnArea},
      {MEMTEST_SLOT(9, MEM_Free), "MEM_Free", false, freeArea, obtainArea},
      {MEMTEST_SLOT(10, MEM_HeapOpen), "MEM_HeapOpen", true,
       MEMTEST_CALL(MEM_HeapOpen, nullptr, 0, 0)},
      {MEMTEST_SLOT(11, MEM_HeapClose), "MEM_HeapClose", true,
       MEMTEST_CALL(MEM_HeapClose, nullptr)},
      {MEMTEST_SLOT(12, MEM_HeapAllocEntry), "MEM_HeapAllocEntry", true,
       MEMTEST_CALL(MEM_HeapAllocEntry, nullptr, 1, nullptr)},
      {MEMTEST_SLOT(13, MEM_HeapAllocMultEntries), "MEM_HeapAllocMultEntries", true,
       MEMTEST_CALL(MEM_HeapAllocMultEntries, nullptr, 8, 1, 0, nullptr)},
      {MEMTEST_SLOT(14, MEM_HeapAllocEntryLong), "Mem_HeapAllocEntryLong", true,
       MEMTEST_CALL(MEM_HeapAllocEntryLong, nullptr, 1, nullptr)},
      {MEMTEST_SLOT(15, MEM_CellOpen), "MEM_CellOpen", true,
       MEMTEST_CALL(MEM_CellOpen, nullptr, 0, 0, 0)},
      {MEMTEST_SLOT(16, MEM_CellClose), "MemCellClose", true, MEMTEST_CALL(MEM_CellClose, nullptr)},
      {MEMTEST_SLOT(17, MEM_CellClear), "MEM_CellClear", true,
       MEMTEST_CALL(MEM_CellClear, nullptr)},
      {MEMTEST_SLOT(18, MEM_CellAllocEntry), "MemCellAllocEntry", true,
       MEMTEST_CALL(MEM_CellAllocEntry, nullptr, nullptr)},
      {MEMTEST_SLOT(19, MEM_CellFreeEntry), "MEM_CellFreeEntry", true,
       MEMTEST_CALL(MEM_CellFreeEntry, nullptr, nullptr)},
      {MEMTEST_SLOT(20, MEM_HashOpen), "MEM_HashOpen", true,
       MEMTEST_CALL(MEM_HashOpen, nullptr, 0, 4, -2, nullptr, 1, 0)},
      {MEMTEST_SLOT(21, MEM_HashClose), "MEM_HashClose", true,
       MEMTEST_CALL(MEM_HashClose, nullptr)},
      {MEMTEST_SLOT(22, MEM_HashInsEntry), "MEM_HashInsEntry", true,
       MEMTEST_CALL(MEM_HashInsEntry, nullptr, 8, nullptr, nullptr)},
      {MEMTEST_SLOT(23, MEM_HashGetEntry), "MEM_HashGetEntry", true,
       MEMTEST_CALL(MEM_HashGetEntry, nullptr, nullptr, nullptr)},
      {MEMTEST_SLOT(24, MEM_Pack), "MEM_Pack", true,
       MEMTEST_CALL(MEM_Pack, nullptr, nullptr, 0, nullptr)},
      {MEMTEST_SLOT(25, MEM_Unpack), "MEM_Unpack", true,
       MEMTEST_CALL(MEM_Unpack, nullptr, nullptr, nullptr)},
      {MEMTEST_SLOT(26, MEM_CatOpen), "MEM_CatOpen", true, MEMTEST_CALL(MEM_CatOpen, nullptr)},
      {MEMTEST_SLOT(27, MEM_CatClose), "MEM_CatClose", true, MEMTEST_CALL(MEM_CatClose, nullptr)},
      {MEMTEST_SLOT(28, MEM_Cat), "MEM_Cat", true, MEMTEST_CALL(MEM_Cat, nullptr, nullptr)},
      {MEMTEST_SLOT(29, MEM_MemCat), "MEM_MemCat", true,
       MEMTEST_CALL(MEM_MemCat, nullptr, nullptr, 0)},
      {MEMTEST_SLOT(30, MEM_InitQTRFTbls), "MEM_InitQTRFTbls", true,
       MEMTEST_CALL(MEM_InitQTRFTbls)},
      {MEMTEST_SLOT(31, MEM_SinkInit), "MEM_SinkInit", true, MEMTEST_CALL(MEM_SinkInit), stopSink,
       endProcess},
      {MEMTEST_SLOT(32, MEM_SinkTerm), "MEM_SinkTerm", false, MEMTEST_CALL(MEM_SinkTerm),
       startProcess, endProcess},
      {MEMTEST_SLOT(33, MEM_SinkString), "MEM_SinkString", true,
       MEMTEST_CALL(MEM_SinkString, "", &scene.sunk), startProcess, endProcess},
      {MEMTEST_SLOT(34, MEM_SinkDelete), "MEM_SinkDelete", true, MEMTEST_CALL(MEM_SinkDelete, ""),
       startProcess, endProcess},
      {MEMTEST_SLOT(35, MEM_SinkVerify), "MEM_SinkVerify", true,
       MEMTEST_CALL(MEM_SinkVerify, "", &scene.sunk, nullptr), startProcess, endProcess},
      {MEMTEST_SLOT(36, MEM_EHeapOpen), "MEM_EHeapOpen", true,
       MEMTEST_CALL(MEM_EHeapOpen, nullptr, 0, 0)},
      {MEMTEST_SLOT(37, MEM_EHeapClose), "MEM_EHeapClose", true,
       MEMTEST_CALL(MEM_EHeapClose, nullptr)},
      {MEMTEST_SLOT(38, MEM_EHeapAllocEntry), "MEM_EHeapAllocEntry", true,
       MEMTEST_CALL(MEM_EHeapAllocEntry, nullptr, 0, nullptr)},
      {MEMTEST_SLOT(39, MEM_EHeapFreeEntry), "MEM_EHeapFreeEntry", true,
       MEMTEST_CALL(MEM_EHeapFreeEntry, nullptr, 0, nullptr)},
      {MEMTEST_SLOT(40, MEM_EHeapAllocMultEntries), "MEM_EHeapAllocMultEntries", true,
       MEMTEST_CALL(MEM_EHeapAllocMultEntries, nullptr, 0, 0, 0, nullptr)},
      {MEMTEST_SLOT(41, MEM_StructToPortStr), "MEM_StructToPortStr", true,
       MEMTEST_CALL(MEM_StructToPortStr, nullptr, 0, nullptr, 0, nullptr, &scene.totalLen,
                    &scene.chunk)},
      {MEMTEST_SLOT(42, MEM_PortStrToStruct), "MEM_StructToPortStr", true,
       [](Scene &scene) -> Result {
         return scene.mem.MEM_PortStrToStruct(nullptr, chunkWithoutStructures(scene), nullptr,
                                              nullptr);
       }},
      {MEMTEST_SLOT(43, MEMSetProcOptions), "MEMSetProcOptions", false, setOptions, startProcess,
       endProcess},
      {MEMTEST_SLOT(44, MEM_Port1StrToStruct), "MEM_StructToPortStr", true,
       MEMTEST_CALL(MEM_Port1StrToStruct, nullptr, kNoStructures, MEM_PORT_HEADER_LEN, nullptr,
                    nullptr)},
      {MEMTEST_SLOT(45, MEM_WSinkString), "MEM_WSinkString", true,
       MEMTEST_CALL(MEM_WSinkString, u"", &scene.wideSunk), startProcess, endProcess},
      {MEMTEST_SLOT(46, MEM_WSinkDelete), "MEM_WSinkDelete", true,
       MEMTEST_CALL(MEM_WSinkDelete, u""), startProcess, endProcess},
      {MEMTEST_SLOT(47, MEM_WSinkVerify), "MEM_WSinkVerify", true,
       MEMTEST_CALL(MEM_WSinkVerify, u"", &scene.wideSunk, nullptr), startProcess, endProcess},
      {MEMTEST_SLOT(48, MEM_HashDelEntry), "MEM_HashGetEntry", true,
       MEMTEST_CALL(MEM_HashDelEntry, nullptr, nullptr)},
      {MEMTEST_SLOT(49, MEM_HashScan), "MEM_HashGetEntry", true,
       MEMTEST_CALL(MEM_HashScan, nullptr, nullptr, nullptr)},
      {MEMTEST_SLOT(50, MEM_HeapAllocLongMultEntries), "MEM_HeapAllocLongMultEntries", true,
       MEMTEST_CALL(MEM_HeapAllocLongMultEntries, nullptr, 8, 1, 0, nullptr)},
      {MEMTEST_SLOT(51, MEM_EHeapAllocLongMultEntries), "MEM_EHeapAllocLongMultEntries", true,
       MEMTEST_CALL(MEM_EHeapAllocLongMultEntries, nullptr, 0, 0, 0, nullptr)},
  };
  return rows;
}

#undef MEMTEST_SLOT
#undef MEMTEST_CALL

}  // namespace memtest
