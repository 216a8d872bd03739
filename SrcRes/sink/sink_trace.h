// Trace records of the sink: entry lines, detail records ("SL32", trace flag bit 31) and the echo
// of a failing input. No text passed to the host's formatting service is longer than 511
// characters.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/callframe.h"
#include "sink/sink_compare.h"
#include "sink/sink_index.h"
#include "sink/sink_space.h"

namespace memlib {

// Entry records.
void traceSinking(CallFrame &frame, const SinkText &text) noexcept;
void traceDeleting(CallFrame &frame, const void *pSunk) noexcept;

// Search.
void traceEmptyList(CallFrame &frame) noexcept;
void traceSingleEntry(CallFrame &frame, const std::uint8_t *pCopy) noexcept;
void traceSearchStep(CallFrame &frame, std::int64_t low, std::int64_t high) noexcept;
void traceComparison(CallFrame &frame, const SinkText &text, const std::uint8_t *pCopy,
                     int order) noexcept;
void traceFound(CallFrame &frame, std::uint32_t slot, const SinkSlot *pSlot) noexcept;
void traceNotFound(CallFrame &frame, const SinkText &text) noexcept;

// Placement.
void traceRoom(CallFrame &frame, const SinkText &text, const SinkRoom &room) noexcept;
void traceRun(CallFrame &frame, const SinkRun &run, const SinkRoom &room) noexcept;
void traceOutOfSpace(CallFrame &frame, const SinkText &text, const SinkRoom &room) noexcept;

// Insertion.
void traceInsertState(CallFrame &frame, const MEMProcessBlock &process, const SinkPlace &place,
                      const void *pCopy) noexcept;
void traceInsertEmpty(CallFrame &frame, std::uint32_t slot, const SinkSlot *pSlot) noexcept;
void traceInsertFirst(CallFrame &frame, std::uint32_t slot, const SinkSlot *pSlot) noexcept;
void traceInsertLast(CallFrame &frame, std::uint32_t slot, std::uint32_t garbage,
                     const SinkSlot *pSlot) noexcept;
void traceInsertInside(CallFrame &frame, std::uint32_t movedSlots, const SinkSlot *pTo,
                       const SinkSlot *pFrom, const SinkSlot *pSlot) noexcept;

// Number of characters of a failing input that are echoed, and their bytes in narrow and wide text.
inline constexpr std::size_t kEchoed = 62;
inline constexpr std::size_t kEchoedBytes = kEchoed * sizeof(char16_t);

// Which call echoes its failing input.
enum class Echo { ofLookUp, ofSinking };

// Writes the input to the free message text and as an exception record. `text` may be empty.
void echoInput(CallFrame &frame, const SinkText &text, Echo echo) noexcept;

}  // namespace memlib
