// The sink's index: copies in the order of the sink comparison. The active slots are contiguous at
// the high end of the index area:
//
//   0 ... Free | First ... End | garbage | top
//
// Used = Act + Garbage; Free is First - 1. All functions run with the sink gate held.
#pragma once

#include <cstdint>

#include "frame/callframe.h"
#include "qj7mem00/memproc.h"
#include "sink/sink_compare.h"
#include "sink/sink_space.h"

namespace memlib {

struct SinkSlot {
  std::uint8_t *pCopy;
  std::uint64_t uses;
};
MEM_CHECK_SIZE(SinkSlot, 16);
MEM_CHECK_OFFSET(SinkSlot, uses, 8);

inline constexpr std::uint32_t kSinkIndexLen = 16384;
inline constexpr std::uint32_t kSinkIndexGrowth = 8192;

inline SinkSlot *sinkSlots(MEMProcessBlock &process) noexcept {
  return static_cast<SinkSlot *>(process.pIndex);
}

// Result of a search: the slot of an equal copy, or the slot before which a new copy is inserted.
struct SinkPlace {
  bool isFound;
  std::uint32_t slot;
};

// Allocates the sink's first, empty index area. False when there is no storage.
bool openIndex(MEMProcessBlock &process) noexcept;

// Binary search, with detail records under `frame`.
SinkPlace findText(CallFrame &frame, MEMProcessBlock &process, const SinkText &text) noexcept;

// Makes room for one more slot if all are used: reclaims garbage if there is enough of it, else
// enlarges the area. Updates `place`. False when there is no storage.
bool makeRoom(MEMProcessBlock &process, SinkPlace &place) noexcept;

// Inserts a copy with one use. REQUIRES: Used < SlotCount.
void insertSlot(CallFrame &frame, MEMProcessBlock &process, const SinkPlace &place,
                std::uint8_t *pCopy) noexcept;

// The room that a copy of the index reserved in its segment when it was written.
SinkRoom reservedRoom(MEMProcessBlock &process, MEMSinkSegment &segment,
                      const std::uint8_t *pCopy) noexcept;

void removeSlot(MEMProcessBlock &process, std::uint32_t slot) noexcept;

// For checks (sink_check.cpp): true when the index has the right counts and its copies in order,
// each copy is in a string space, and each segment's map and lengths match the copies. Changes
// nothing. REQUIRES: the sink runs, its gate is held.
bool isValidSink(MEMProcessBlock &process) noexcept;

}  // namespace memlib
