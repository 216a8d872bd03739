#include "sink/sink_space.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>

#include "base/bytes.h"
#include "frame/hostaccess.h"

namespace memlib {

namespace {

constexpr std::uint16_t kSinkKind = 0;
constexpr std::uint32_t kWordBits = 64;
constexpr std::uint32_t kMapWords = kSinkMapLen / 8;

// 64 granules, the first one in the most significant bit. A set bit is a granule in use.
std::uint64_t loadMapWord(const std::uint8_t *pMap, std::uint32_t word) noexcept {
  std::uint64_t bits = 0;
  for (std::uint32_t i = 0; i < 8; ++i) bits = bits << 8 | pMap[word * 8 + i];
  return bits;
}

// First place in `free` (64 bits, most significant first) where `count` set bits begin, or 64.
std::uint32_t runWithin(std::uint64_t free, std::uint64_t count) noexcept {
  std::uint64_t starts = free;
  // After each step a set bit starts a run of `length` free granules.
  std::uint64_t length = 1;
  while (length < count && starts != 0) {
    const std::uint64_t step = std::min(length, count - length);
    starts &= starts << step;
    length += step;
  }
  return static_cast<std::uint32_t>(std::countl_zero(starts));
}

// The first run of `count` free granules. The segment's counter is the first map byte that can have
// a free granule, so full parts are not searched again.
std::optional<std::uint32_t> findRun(MEMSinkSegment &segment, std::uint64_t count) noexcept {
  bool isFirstFree = true;
  std::uint64_t open = 0;  // free granules at the end of the words so far
  for (std::uint32_t word = segment.Counter / 8; word < kMapWords; ++word) {
    const std::uint64_t free = ~loadMapWord(segment.pMap, word);
    if (free == 0) {
      open = 0;
      continue;
    }
    if (isFirstFree) {
      segment.Counter = word * 8 + static_cast<std::uint32_t>(std::countl_zero(free)) / 8;
      isFirstFree = false;
    }
    const auto leading = static_cast<std::uint32_t>(std::countl_one(free));
    if (open + leading >= count) {
      return static_cast<std::uint32_t>(word * kWordBits - open);
    }
    if (leading == kWordBits) {
      open += kWordBits;
      continue;
    }
    if (count <= kWordBits) {
      const std::uint32_t within = runWithin(free, count);
      if (within < kWordBits) return word * kWordBits + within;
    }
    open = static_cast<std::uint64_t>(std::countr_one(free));
  }
  return {};
}

// Sets or clears the bits of a run, whole map bytes where possible.
void markRun(MEMSinkSegment &segment, std::uint32_t first, std::uint64_t count,
             bool isUsed) noexcept {
  std::uint64_t granule = first;
  const std::uint64_t end = first + count;
  while (granule < end) {
    const std::uint64_t bit = granule % 8;
    const std::uint64_t bits = std::min<std::uint64_t>(8 - bit, end - granule);
    const auto mask = static_cast<std::uint8_t>(0xFFU >> (8 - bits) << (8 - bits) >> bit);
    std::uint8_t &mapByte = segment.pMap[granule / 8];
    mapByte = static_cast<std::uint8_t>(isUsed ? mapByte | mask : mapByte & ~mask);
    granule += bits;
  }
}

bool canTry(const MEMSinkSegment &segment, const SinkRoom &room) noexcept {
  return segment.FreeLen >= 0 && static_cast<std::uint64_t>(segment.FreeLen) >= room.reservedLen;
}

}  // namespace

SinkRoom roomFor(const SinkText &text) noexcept {
  const std::uint64_t closed = std::uint64_t{text.length} + 2;
  return {text.length, closed, (closed + 2) & ~std::uint64_t{1}};
}

std::uint8_t *getSinkStorage(std::uint32_t length) noexcept {
  void *pArea = nullptr;
  const std::uint16_t code =
      runtimeServices().GetStorage(&pArea, length, MEM_SINK_SUBPOOL, kSinkKind);
  return code == 0 ? static_cast<std::uint8_t *>(pArea) : nullptr;
}

void freeSinkStorage(void *pArea, std::uint32_t length) noexcept {
  runtimeServices().FreeStorage(pArea, length, MEM_SINK_SUBPOOL);
}

bool protectRun(std::uint8_t *pRun, std::uint64_t length, std::uint16_t mode) noexcept {
  return runtimeServices().ProtectStorage(pRun, static_cast<std::uint32_t>(length),
                                          MEM_SINK_SUBPOOL, mode) == 0;
}

SpaceResult obtainBlock(MEMProcessBlock &process) noexcept {
  MEM_ASSERT(process.SegmentCount >= 0 && process.SegmentCount < MEM_SINK_SEGMENTS);
  std::uint8_t *pBase = getSinkStorage(kSinkBlockLen);
  if (pBase == nullptr) return SpaceResult::noStorage;
  std::memset(pBase, 0, kSinkMapLen);
  MEMSinkSegment &segment = process.Segments[process.SegmentCount++];
  segment = {.pBase = pBase,
             .pSpace = pBase + kSinkMapLen,
             .pLast = pBase + kSinkBlockLen - 1,
             .pMap = pBase,
             .Counter = 0,
             .UsedLen = 0,
             .FreeLen = kSinkSpaceLen,
             .TextLen = 0};
  const bool isProtected = protectRun(segment.pSpace, kSinkSpaceLen, MEM_PROTECT_READ_ONLY);
  return isProtected ? SpaceResult::done : SpaceResult::noProtection;
}

void releaseBlock(MEMSinkSegment &segment) noexcept {
  protectRun(segment.pSpace, kSinkSpaceLen, MEM_PROTECT_WRITABLE);
  freeSinkStorage(segment.pBase, kSinkBlockLen);
  segment = {};
}

void releaseLastBlock(MEMProcessBlock &process) noexcept {
  MEM_ASSERT(process.SegmentCount > 0);
  releaseBlock(process.Segments[--process.SegmentCount]);
}

SpaceResult reserveRun(MEMProcessBlock &process, const SinkRoom &room, SinkRun &run) noexcept {
  if (room.reservedLen > kSinkSpaceLen) return SpaceResult::full;  // too long for any block
  for (std::int32_t i = 0; i < MEM_SINK_SEGMENTS; ++i) {
    if (i == process.SegmentCount) {
      const SpaceResult obtained = obtainBlock(process);
      if (obtained != SpaceResult::done) return obtained;
    }
    MEMSinkSegment &segment = process.Segments[i];
    if (!canTry(segment, room)) continue;
    const std::optional<std::uint32_t> first = findRun(segment, room.granules());
    if (!first) continue;
    markRun(segment, *first, room.granules(), true);
    run = {&segment, *first};
    return SpaceResult::done;
  }
  return SpaceResult::full;
}

bool isUsed(const SinkRun &run) noexcept {
  return (run.pSegment->pMap[run.firstGranule / 8] & (0x80U >> run.firstGranule % 8)) != 0;
}

void releaseRun(const SinkRun &run, const SinkRoom &room) noexcept {
  MEMSinkSegment &segment = *run.pSegment;
  markRun(segment, run.firstGranule, room.granules(), false);
  segment.Counter = std::min(segment.Counter, run.firstGranule / 8);
}

void takeBack(const SinkRun &run, const SinkRoom &room) noexcept {
  std::uint8_t *pCopy = run.address();
  if (protectRun(pCopy, room.reservedLen, MEM_PROTECT_WRITABLE)) {
    std::memset(pCopy, 0, static_cast<std::size_t>(room.reservedLen));
    protectRun(pCopy, room.reservedLen, MEM_PROTECT_READ_ONLY);
  }
  releaseRun(run, room);
}

void countCopy(MEMSinkSegment &segment, const SinkRoom &room) noexcept {
  segment.TextLen += static_cast<std::uint32_t>(room.closedLen);
  segment.UsedLen += static_cast<std::uint32_t>(room.reservedLen);
  segment.FreeLen = std::max(segment.FreeLen - static_cast<std::int32_t>(room.reservedLen), 0);
}

void uncountCopy(MEMSinkSegment &segment, const SinkRoom &room) noexcept {
  segment.TextLen -= static_cast<std::uint32_t>(room.closedLen);
  segment.UsedLen -= static_cast<std::uint32_t>(room.reservedLen);
  segment.FreeLen += static_cast<std::int32_t>(room.reservedLen);
}

MEMSinkSegment *segmentOf(MEMProcessBlock &process, const std::uint8_t *pAddress) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(pAddress);
  for (std::int32_t i = 0; i < process.SegmentCount; ++i) {
    MEMSinkSegment &segment = process.Segments[i];
    if (address >= reinterpret_cast<std::uintptr_t>(segment.pSpace) &&
        address <= reinterpret_cast<std::uintptr_t>(segment.pLast)) {
      return &segment;
    }
  }
  return nullptr;
}

std::size_t roomBehind(MEMProcessBlock &process, const std::uint8_t *pAddress) noexcept {
  const MEMSinkSegment *pSegment = segmentOf(process, pAddress);
  return pSegment == nullptr ? 0 : static_cast<std::size_t>(pSegment->pLast - pAddress) + 1;
}

}  // namespace memlib
