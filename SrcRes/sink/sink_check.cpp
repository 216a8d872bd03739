#include <bit>

#include "sink/sink_compare.h"
#include "sink/sink_index.h"
#include "sink/sink_space.h"

namespace memlib {

namespace {

// Totals of the copies in a segment.
struct Taken {
  std::uint64_t text = 0;
  std::uint64_t reserved = 0;
};

std::uint64_t usedGranules(const MEMSinkSegment &segment) noexcept {
  std::uint64_t used = 0;
  for (std::uint32_t i = 0; i < kSinkMapLen; ++i) {
    used += static_cast<std::uint64_t>(std::popcount(segment.pMap[i]));
  }
  return used;
}

// The counter is the first map byte that can have a free granule.
bool isFullBelowCounter(const MEMSinkSegment &segment) noexcept {
  for (std::uint32_t i = 0; i < segment.Counter && i < kSinkMapLen; ++i) {
    if (segment.pMap[i] != 0xFF) return false;
  }
  return segment.Counter <= kSinkMapLen;
}

bool isValidSegment(const MEMSinkSegment &segment, const Taken &taken) noexcept {
  if (segment.pBase == nullptr || segment.pMap != segment.pBase ||
      segment.pSpace != segment.pBase + kSinkMapLen ||
      segment.pLast != segment.pBase + kSinkBlockLen - 1) {
    return false;
  }
  return segment.TextLen == taken.text && segment.UsedLen == taken.reserved &&
         segment.FreeLen == static_cast<std::int64_t>(kSinkSpaceLen) - segment.UsedLen &&
         usedGranules(segment) * kSinkGranule == taken.reserved && isFullBelowCounter(segment);
}

bool isWholeRunUsed(SinkRun run, const SinkRoom &room) noexcept {
  for (std::uint64_t i = 0; i < room.granules(); ++i, ++run.firstGranule) {
    if (!isUsed(run)) return false;
  }
  return true;
}

bool isCounted(const MEMProcessBlock &process) noexcept {
  if (process.SlotCount != process.IndexLen / sizeof(SinkSlot) ||
      process.Used != process.Act + process.Garbage || process.Used > process.SlotCount) {
    return false;
  }
  if (process.Act == 0) {
    return process.Garbage == 0 && process.Free == static_cast<std::int32_t>(process.SlotCount) - 1;
  }
  return process.Free == static_cast<std::int32_t>(process.First) - 1 &&
         process.End + 1 - process.First == process.Act &&
         process.End + process.Garbage + 1 == process.SlotCount;
}

// A copy as an input. Narrow text of odd length has one more zero byte before the two. Wide text
// that ends in this way sorts as the narrow text of its other bytes.
SinkText textOf(const std::uint8_t *pCopy) noexcept {
  const std::size_t end = copyEnd(pCopy);
  const bool isEven = end == 0 || pCopy[end - 1] != 0;
  return {pCopy, isEven ? end : end - 1, false};
}

bool isInOrder(MEMProcessBlock &process, const SinkSlot &slot, const SinkSlot &next) noexcept {
  return PSTssecmp(textOf(slot.pCopy), next.pCopy, roomBehind(process, next.pCopy)) < 0;
}

// Adds the room of the slot's copy to its segment's totals.
bool addTaken(MEMProcessBlock &process, const SinkSlot &slot, Taken *pTaken) noexcept {
  MEMSinkSegment *pSegment = segmentOf(process, slot.pCopy);
  if (pSegment == nullptr || slot.uses == 0) return false;
  const SinkRoom room = reservedRoom(process, *pSegment, slot.pCopy);
  const SinkRun run = runAt(*pSegment, slot.pCopy);
  if (run.address() != slot.pCopy || !isWholeRunUsed(run, room)) return false;
  Taken &taken = pTaken[pSegment - process.Segments];
  taken.text += room.closedLen;
  taken.reserved += room.reservedLen;
  return true;
}

}  // namespace

bool isValidSink(MEMProcessBlock &process) noexcept {
  MEM_ASSERT(process.pIndex != nullptr);
  if (process.SegmentCount < 1 || process.SegmentCount > MEM_SINK_SEGMENTS) return false;
  if (!isCounted(process)) return false;
  Taken taken[MEM_SINK_SEGMENTS] = {};
  const SinkSlot *pSlots = sinkSlots(process) + process.First;
  for (std::uint32_t i = 0; i < process.Act; ++i) {
    if (!addTaken(process, pSlots[i], taken)) return false;
    if (i > 0 && !isInOrder(process, pSlots[i - 1], pSlots[i])) return false;
  }
  for (std::int32_t i = 0; i < process.SegmentCount; ++i) {
    if (!isValidSegment(process.Segments[i], taken[i])) return false;
  }
  return true;
}

}  // namespace memlib
