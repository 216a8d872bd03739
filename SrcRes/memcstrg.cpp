#include "memcstrg.h"

#include <cstring>

#include "bytes.h"
#include "callframe.h"

namespace mem {

namespace {

constexpr EntryPoint kSinkInit{"MEM_SinkInit", kSourceStrg, 0, 231};  // no entry record
constexpr EntryPoint kSinkTerm{"MEM_SinkTerm", kSourceStrg, 0, 302};  // no entry record

// A sink block: the allocation map, then the string space.
//
//   base            base + 16384                    base + 0x43FFF
//   | map, 1 bit a 2-byte granule | string space, 0x40000 bytes   |
constexpr std::uint32_t kMapLen = 16384;
constexpr std::uint32_t kSpaceLen = 0x40000;
constexpr std::uint32_t kBlockLen = kMapLen + kSpaceLen;
static_assert(kMapLen * 8 * 2 == kSpaceLen);

constexpr std::uint32_t kIndexLen = 16384;
constexpr std::uint32_t kIndexSlotLen = 16;
constexpr std::uint16_t kSinkKind = 0;

// Storage of the sink comes from the host itself, not through the MEM function vector. Null on
// failure.
std::uint8_t *getSinkStorage(std::uint32_t length) noexcept {
  void *pArea = nullptr;
  const std::uint16_t code =
      runtimeServices().GetStorage(&pArea, length, MEM_SINK_SUBPOOL, kSinkKind);
  return code == 0 ? static_cast<std::uint8_t *>(pArea) : nullptr;
}

bool protectSpace(const MEMSinkSegment &segment, std::uint16_t mode) noexcept {
  return runtimeServices().ProtectStorage(segment.pSpace, kSpaceLen, MEM_SINK_SUBPOOL, mode) == 0;
}

// Enters a fresh block with an empty map. Its string space is still writable.
void adoptBlock(MEMSinkSegment &segment, std::uint8_t *pBase) noexcept {
  std::memset(pBase, 0, kMapLen);
  segment = {};
  segment.pBase = pBase;
  segment.pSpace = pBase + kMapLen;
  segment.pLast = pBase + kBlockLen - 1;
  segment.pMap = pBase;
  segment.FreeLen = kSpaceLen;
}

void adoptIndex(MEMProcessBlock &process, std::uint8_t *pIndex) noexcept {
  std::memset(pIndex, 0, kIndexLen);
  process.pIndex = pIndex;
  process.IndexLen = kIndexLen;
  process.SlotCount = kIndexLen / kIndexSlotLen;
  process.Free = static_cast<std::int32_t>(process.SlotCount - 1);
}

void releaseBlocks(MEMProcessBlock &process) noexcept {
  for (std::int32_t i = 0; i < process.SegmentCount; ++i) {
    MEMSinkSegment &segment = process.Segments[i];
    if (segment.pBase != nullptr) {
      protectSpace(segment, MEM_PROTECT_WRITABLE);
      runtimeServices().FreeStorage(segment.pBase, kBlockLen, MEM_SINK_SUBPOOL);
    }
    segment = {};
  }
  process.SegmentCount = 0;
}

void releaseIndex(MEMProcessBlock &process) noexcept {
  if (process.pIndex != nullptr) {
    runtimeServices().FreeStorage(process.pIndex, process.IndexLen, MEM_SINK_SUBPOOL);
  }
}

void deleteGate(MEMProcessBlock &process) noexcept {
  if (process.Gate != 0) runtimeServices().DeleteGate(process.Gate);
}

void clearGateAndIndex(MEMProcessBlock &process) noexcept {
  process.Gate = 0;
  process.pIndex = nullptr;
  process.IndexLen = process.SlotCount = 0;
  process.Used = process.Act = process.Garbage = 0;
  process.Free = 0;
  process.First = process.End = 0;
}

}  // namespace

std::int16_t MEM_SinkInit() noexcept {
  CallFrame frame(kSinkInit, ErrorArea::keep);
  MEMProcessBlock *pProcessBlk = processBlock();
  frame.clearErrorArea();
  if (pProcessBlk == nullptr) return frame.failInsideKeepingCode(MEMERR_SINKIERR, "");

  pProcessBlk->Gate = 0;
  if (runtimeServices().CreateGate(&pProcessBlk->Gate) != 0) {
    pProcessBlk->Gate = 0;
    return frame.failInsideKeepingCode(MEMERR_SINKLGATE, "CreateFailed");
  }
  std::uint8_t *pBase = getSinkStorage(kBlockLen);
  if (pBase == nullptr) return frame.failInsideKeepingCode(MEMERR_SINKVSTG, "GetVSTGErr");
  MEMSinkSegment &segment = pProcessBlk->Segments[0];
  adoptBlock(segment, pBase);
  pProcessBlk->SegmentCount = 1;
  if (!protectSpace(segment, MEM_PROTECT_READ_ONLY)) {
    return frame.failInsideKeepingCode(MEMERR_SINKVSTG, "ProtPageErr");
  }
  std::uint8_t *pIndex = getSinkStorage(kIndexLen);
  if (pIndex == nullptr) return frame.failInsideKeepingCode(MEMERR_SINKVSTG, "GetVSTGErr");
  adoptIndex(*pProcessBlk, pIndex);
  return frame.succeed();
}

std::int16_t MEM_SinkTerm() noexcept {
  CallFrame frame(kSinkTerm, ErrorArea::keep);
  MEMProcessBlock *pProcessBlk = processBlock();
  if (pProcessBlk == nullptr) return frame.succeed();

  releaseBlocks(*pProcessBlk);
  releaseIndex(*pProcessBlk);
  deleteGate(*pProcessBlk);
  clearGateAndIndex(*pProcessBlk);
  return frame.succeed();
}

}  // namespace mem
