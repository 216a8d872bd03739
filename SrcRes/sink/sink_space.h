// The sink's string spaces: blocks of host storage with an allocation map, first fit, and the
// write-protection around every change. All of it runs with the sink gate held.
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
  std::uint64_t reservedLen;  // GLen: what is reserved
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

// Obtains storage of the sink from the host itself; null on failure.
std::uint8_t *getSinkStorage(std::uint32_t length) noexcept;
void freeSinkStorage(void *pArea, std::uint32_t length) noexcept;

// Gives the next table entry its block: obtained, map cleared, string space protected. A block
// whose protection failed stays in the table; the caller decides. REQUIRES: not all entries have
// blocks.
SpaceResult obtainBlock(MEMProcessBlock &process) noexcept;

// Makes an entry's string space writable, returns the block and clears the entry.
void releaseBlock(MEMSinkSegment &segment) noexcept;

// The same with the last entry that has a block, which becomes one without. REQUIRES: there is one.
void releaseLastBlock(MEMProcessBlock &process) noexcept;

// The first run of free granules in table order, its bits set. Obtains further blocks as needed;
// one whose protection failed is left to the caller, as the last entry.
SpaceResult reserveRun(MEMProcessBlock &process, const SinkRoom &room, SinkRun &run) noexcept;

// True when the first granule of a run is in use.
bool isUsed(const SinkRun &run) noexcept;

// Clears the bits of a run.
void releaseRun(const SinkRun &run, const SinkRoom &room) noexcept;

// Undoes a written copy that is not counted: its bytes, where the host lets them be cleared, and
// its map bits.
void takeBack(const SinkRun &run, const SinkRoom &room) noexcept;

// Changes the protection of a run of bytes. False when the host refuses.
bool protectRun(std::uint8_t *pRun, std::uint64_t length, std::uint16_t mode) noexcept;

// Counts a copy in, or out of, its segment's lengths.
void countCopy(MEMSinkSegment &segment, const SinkRoom &room) noexcept;
void uncountCopy(MEMSinkSegment &segment, const SinkRoom &room) noexcept;

// The segment whose string space holds the address, or null.
MEMSinkSegment *segmentOf(MEMProcessBlock &process, const std::uint8_t *pAddress) noexcept;

// Bytes from an address to the end of the string space around it.
std::size_t roomBehind(MEMProcessBlock &process, const std::uint8_t *pAddress) noexcept;

}  // namespace memlib
