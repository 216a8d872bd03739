#include "sink/sink_index.h"

#include <cstring>

#include "platform/check.h"
#include "platform/platform.h"
#include "sink/sink_trace.h"

namespace memlib {

namespace {

constexpr std::uint32_t kEnoughGarbage = 10;

std::uint32_t slotsIn(std::uint32_t indexLen) noexcept {
  return indexLen / static_cast<std::uint32_t>(sizeof(SinkSlot));
}

// Moves `count` slots; source and target may overlap.
void moveSlots(SinkSlot *pSlots, std::uint32_t to, std::uint32_t from,
               std::uint32_t count) noexcept {
  std::memmove(pSlots + to, pSlots + from, std::size_t{count} * sizeof(SinkSlot));
}

// Sets the counts for active slots that end at the last slot, with no garbage.
void settleAtTop(MEMProcessBlock &process) noexcept {
  process.First = process.SlotCount - process.Act;
  process.End = process.SlotCount - 1;
  process.Free = static_cast<std::int32_t>(process.First) - 1;
  process.Used = process.Act;
  process.Garbage = 0;
}

void compact(MEMProcessBlock &process) noexcept {
  moveSlots(sinkSlots(process), process.First + process.Garbage, process.First, process.Act);
  settleAtTop(process);
}

bool grow(MEMProcessBlock &process) noexcept {
  const std::uint32_t newLen = process.IndexLen + kSinkIndexGrowth;
  std::uint8_t *pArea = getSinkStorage(newLen);
  if (pArea == nullptr) return false;
  const std::size_t activeLen = std::size_t{process.Act} * sizeof(SinkSlot);
  std::memset(pArea, 0, newLen - activeLen);
  std::memcpy(pArea + newLen - activeLen, sinkSlots(process) + process.First, activeLen);
  freeSinkStorage(process.pIndex, process.IndexLen);
  process.pIndex = pArea;
  process.IndexLen = newLen;
  process.SlotCount = slotsIn(newLen);
  settleAtTop(process);
  return true;
}

int compareWith(MEMProcessBlock &process, const SinkText &text,
                const std::uint8_t *pCopy) noexcept {
  return PSTssecmp(text, pCopy, roomBehind(process, pCopy));
}

// A move that opens a slot for a new entry.
struct SlotMove {
  std::uint32_t slot;  // the new slot
  std::uint32_t to;
  std::uint32_t from;
  std::uint32_t count;
};

// The move of the slots before the place down into the free slot, with the counts updated for it.
SlotMove openBelow(MEMProcessBlock &process, std::uint32_t place) noexcept {
  const std::uint32_t first = process.First--;
  --process.Free;
  ++process.Used;
  return {place - 1, first - 1, first, place - first};
}

// The move of the slots from the place on up into the garbage, with the counts updated for it.
SlotMove openAbove(MEMProcessBlock &process, std::uint32_t place) noexcept {
  const std::uint32_t count = ++process.End - place;
  --process.Garbage;
  return {place, place + 1, place, count};
}

// Opens a slot at the place by moving the shorter side that can move.
SlotMove openSlot(MEMProcessBlock &process, std::uint32_t place) noexcept {
  const std::uint32_t below = place - process.First;
  const std::uint32_t above = process.End + 1 - place;
  const bool movesAbove = process.Garbage > 0 && above <= below;
  const SlotMove move = movesAbove ? openAbove(process, place) : openBelow(process, place);
  moveSlots(sinkSlots(process), move.to, move.from, move.count);
  return move;
}

}  // namespace

bool openIndex(MEMProcessBlock &process) noexcept {
  std::uint8_t *pArea = getSinkStorage(kSinkIndexLen);
  if (pArea == nullptr) return false;
  std::memset(pArea, 0, kSinkIndexLen);
  process.pIndex = pArea;
  process.IndexLen = kSinkIndexLen;
  process.SlotCount = slotsIn(kSinkIndexLen);
  process.Free = static_cast<std::int32_t>(process.SlotCount) - 1;
  return true;
}

SinkPlace findText(CallFrame &frame, MEMProcessBlock &process, const SinkText &text) noexcept {
  if (process.Act == 0) {
    traceEmptyList(frame);
    return {false, process.SlotCount};
  }
  if (process.Act == 1) {
    const std::uint8_t *pCopy = sinkSlots(process)[process.First].pCopy;
    traceSingleEntry(frame, pCopy);
    const int order = compareWith(process, text, pCopy);
    return {order == 0, process.First + (order > 0 ? 1U : 0U)};
  }
  std::int64_t low = process.First;
  std::int64_t high = process.End;
  while (low <= high) {
    traceSearchStep(frame, low, high);
    const std::int64_t middle = (low + high) / 2;
    // One of these two comes next; both are in the active range.
    MEM_PREFETCH(sinkSlots(process)[(low + middle) / 2].pCopy);
    MEM_PREFETCH(sinkSlots(process)[(middle + high + 1) / 2].pCopy);
    const std::uint8_t *pCopy = sinkSlots(process)[middle].pCopy;
    const int order = compareWith(process, text, pCopy);
    traceComparison(frame, text, pCopy, order);
    if (order == 0) return {true, static_cast<std::uint32_t>(middle)};
    if (order > 0) {
      low = middle + 1;
    } else {
      high = middle - 1;
    }
  }
  return {false, static_cast<std::uint32_t>(low)};
}

bool makeRoom(MEMProcessBlock &process, SinkPlace &place) noexcept {
  if (process.Used < process.SlotCount) return true;
  const std::uint32_t behindFirst = place.slot - process.First;
  if (process.Garbage >= kEnoughGarbage) {
    compact(process);
  } else if (!grow(process)) {
    return false;
  }
  place.slot = process.First + behindFirst;
  return true;
}

// For an empty index the range is moved back to the top first. Its first copy is then inserted like
// any copy that sorts before all others.
void insertSlot(CallFrame &frame, MEMProcessBlock &process, const SinkPlace &place,
                std::uint8_t *pCopy) noexcept {
  MEM_ASSERT(process.Used < process.SlotCount);
  traceInsertState(frame, process, place, pCopy);
  const bool isOnly = process.Act == 0;
  if (isOnly) settleAtTop(process);
  const bool isFirst = place.slot == process.First;
  const bool isLast = place.slot == process.End + 1;
  const SlotMove move = openSlot(process, place.slot);
  SinkSlot *pSlots = sinkSlots(process);
  SinkSlot *pSlot = pSlots + move.slot;
  if (isOnly) {
    traceInsertEmpty(frame, move.slot, pSlot);
  } else if (isFirst) {
    traceInsertFirst(frame, move.slot, pSlot);
  } else if (isLast) {
    traceInsertLast(frame, move.slot, process.Garbage, pSlot);
  } else {
    traceInsertInside(frame, move.count, pSlots + move.to, pSlots + move.from, pSlot);
  }
  *pSlot = {pCopy, 1};
  ++process.Act;
}

// Narrow text of odd length and wide text that ends in a unit below 256 look the same, but the wide
// one reserved one more granule. That granule belongs to the copy if it is in use, zero, and not
// the copy of the empty text, which sorts first.
SinkRoom reservedRoom(MEMProcessBlock &process, MEMSinkSegment &segment,
                      const std::uint8_t *pCopy) noexcept {
  const std::size_t end = copyEnd(pCopy);
  const bool isEvenText = end == 0 || pCopy[end - 1] != 0;
  const SinkRoom evenRoom{end, end + 2, end + 4};
  if (isEvenText) return evenRoom;
  const SinkRoom oddRoom{end - 1, end + 1, end + 2};
  const std::uint8_t *pExtra = pCopy + end + 2;
  if (pExtra > segment.pLast || !isUsed(runAt(segment, pExtra))) return oddRoom;
  if (pExtra[0] != 0 || pExtra[1] != 0) return oddRoom;
  return sinkSlots(process)[process.First].pCopy == pExtra ? oddRoom : evenRoom;
}

void removeSlot(MEMProcessBlock &process, std::uint32_t slot) noexcept {
  if (process.Act == 1) {
    process.Act = process.Used = process.Garbage = 0;
    process.Free = static_cast<std::int32_t>(process.SlotCount) - 1;
    return;
  }
  if (slot == process.First) {
    process.Free = static_cast<std::int32_t>(process.First);
    ++process.First;
    --process.Used;
  } else {
    moveSlots(sinkSlots(process), slot, slot + 1, process.End - slot);
    ++process.Garbage;
    --process.End;
  }
  --process.Act;
}

}  // namespace memlib
