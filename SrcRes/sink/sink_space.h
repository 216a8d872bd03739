// The sink's string spaces: blocks of host storage with an allocation map, first fit,
// write-protected except during changes. All functions run with the sink gate held.
#pragma once

#include <cstdint>

#include "platform/check.h"
#include "qj7mem00/memproc.h"
#include "sink/sink_compare.h"

namespace memlib {

// A sink block: the allocation map, then the string space.
//
//   base            base + 16384                    base + 0x43FFF
//   | map, 1 bit a 2-byte granule | string space, 0x40000 bytes   |
inline constexpr std::uint32_t kSinkMapLen = 16384;
inline constexpr std::uint32_t kSinkSpaceLen = 0x40000;
inline constexpr std::uint32_t kSinkBlockLen = kSinkMapLen + kSinkSpaceLen;
inline constexpr std::uint32_t kSinkGranule = 2;
static_assert(kSinkMapLen * 8 * kSinkGranule == kSinkSpaceLen);

// Room that a text takes: its bytes, two zero bytes and the rounding to granules.
struct SinkRoom {
  std::uint64_t textLen;      // TLenOrig: bytes of the text
  std::uint64_t closedLen;    // TLen: with the two zero bytes
  std::uint64_t reservedLen;  // GLen: reserved bytes
  std::uint64_t granules() const noexcept { return reservedLen / kSinkGranule; }  // GBlk
};
SinkRoom roomFor(const SinkText &text) noexcept;

// Where a run of granules was found.
struct SinkRun {
  MEMSinkSegment *pSegment = nullptr;
  std::uint32_t firstGranule = 0;
  std::uint8_t *address() const noexcept {
    return pSegment->pSpace + std::size_t{firstGranule} * kSinkGranule;
  }
};

// The run that begins at an address. REQUIRES: the address is in the segment's string space.
inline SinkRun runAt(MEMSinkSegment &segment, const std::uint8_t *pAddress) noexcept {
  MEM_ASSERT(pAddress >= segment.pSpace && pAddress <= segment.pLast);
  return {&segment, static_cast<std::uint32_t>((pAddress - segment.pSpace) / kSinkGranule)};
}

enum class SpaceResult { done, noStorage, noProtection, full };

// Allocates storage for the sink directly from the host. Null on failure.
std::uint8_t *getSinkStorage(std::uint32_t length) noexcept;
void freeSinkStorage(void *pArea, std::uint32_t length) noexcept;

// Allocates the block of the next table entry, clears its map and protects its string space. If the
// protection fails, the block stays in the table and the caller decides what to do. REQUIRES: not
// all entries have blocks.
SpaceResult obtainBlock(MEMProcessBlock &process) noexcept;

// Makes an entry's string space writable, frees the block and clears the entry.
void releaseBlock(MEMSinkSegment &segment) noexcept;

// The same for the last entry that has a block. REQUIRES: there is one.
void releaseLastBlock(MEMProcessBlock &process) noexcept;

// Finds the first run of free granules in table order and sets its bits. Allocates further blocks
// as needed. A block whose protection failed stays in the table as the last entry, for the caller.
SpaceResult reserveRun(MEMProcessBlock &process, const SinkRoom &room, SinkRun &run) noexcept;

// True when the first granule of a run is in use.
bool isUsed(const SinkRun &run) noexcept;

// Clears the bits of a run.
void releaseRun(const SinkRun &run, const SinkRoom &room) noexcept;

// Undoes a written copy that is not counted: clears its bytes, if the host makes them writable, and
// its map bits.
void takeBack(const SinkRun &run, const SinkRoom &room) noexcept;

// Changes the protection of a run of bytes. False when the host refuses.
bool protectRun(std::uint8_t *pRun, std::uint64_t length, std::uint16_t mode) noexcept;

// Adds a copy to its segment's lengths, or subtracts it.
void countCopy(MEMSinkSegment &segment, const SinkRoom &room) noexcept;
void uncountCopy(MEMSinkSegment &segment, const SinkRoom &room) noexcept;

// The segment whose string space contains the address, or null.
MEMSinkSegment *segmentOf(MEMProcessBlock &process, const std::uint8_t *pAddress) noexcept;

// Bytes from an address to the end of the string space around it.
std::size_t roomBehind(MEMProcessBlock &process, const std::uint8_t *pAddress) noexcept;

}  // namespace memlib
