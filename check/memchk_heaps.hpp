// What the layer knows of one heap: its entries with their red zones, and its areas.
//
//   an entry as the heap made it   | red zone | the component's entry | rounding | red zone |
//                                             ^ the address that the component gets
//
// A component frees that address with its own length, and the call goes on to the heap as it is:
// the heap only looks at bytes of the entry itself. It looks for a large block's header before
// a large entry of an enhanced heap; the red zone has one there.
//
// A record is locked by the layer, but for the functions that say so.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "memchk_report.hpp"
#include "memchk_usage.hpp"
#include "memchk_zones.hpp"
#include "qj7mem00/memvect.h"

namespace memchk {

enum class HeapKind { standard, enhanced };

// The bytes of an entry. An enhanced heap serves any length; nothing or less gets its shortest one.
std::int64_t usableLen(HeapKind kind, std::int32_t asked) noexcept;
// The same, as the heap rounds it up.
std::int64_t alignedLen(HeapKind kind, std::int32_t asked) noexcept;

// The kind of heap that a handle's first bytes say; false when they say none. Not null.
bool readKind(HMEMHEAP hMemHeap, HeapKind &kind) noexcept;

// How a heap makes its entries.
struct HeapShape {
  HeapKind kind;
  std::uint32_t areaSize;  // 0 when the handle is not the library's

  // Whether an entry gets a block of its own.
  bool isLarge(std::int64_t aligned) const noexcept;
  // The red zones that an entry gets of those wanted: an entry of an area stays one, for that
  // decides about the failures of its allocation.
  std::uint32_t zoneOf(std::int32_t asked, std::uint32_t wanted) const noexcept;
  // Whether the red zone before an entry has a block's header.
  bool hasBlockHeader(std::int32_t asked, std::uint32_t zone) const noexcept;
  // Fills the red zones of an entry; the rounding is part of the one after it.
  void fillZoneBefore(void *pEntry, std::int32_t asked, std::uint32_t zone) const noexcept;
  void fillZones(void *pEntry, std::int32_t asked, std::uint32_t zone) const noexcept;
};

struct Entry {
  enum class State : std::uint16_t {
    live,
    freeing,  // a call that frees it is running: its bytes are that call's
    freed
  };

  void *pEntry;  // the component's address
  Place made;
  std::int32_t asked;  // the length that was asked for
  std::uint32_t
      zone;  // bytes of each red zone; 0 for an entry without, whose rounding is all there is
  std::uint32_t block;  // name for valgrind
  State state;
};

class HeapRecord {
 public:
  // Of a heap that has just been opened, or one that was there before the layer: of that nothing is
  // read but its header.
  HeapRecord(HMEMHEAP hMemHeap, HeapKind kind, const Place &opened, bool isNew, bool checks);

  // The heap has made an entry. With `count` alone nothing is kept of it but the numbers; so it is
  // with its free without checks, where the entry is not kept.
  void count(std::int32_t asked, std::uint32_t zone);
  void add(void *pEntry, std::int32_t asked, std::uint32_t zone, const Place &made);
  void countFree(const void *pEntry, std::int32_t length, const Place &freed);

  // The entry that begins at an address; null when none does.
  Entry *find(const void *pEntry);
  // The entry whose bytes or red zones an address is in.
  Entry *findAround(const void *pAddress) noexcept;
  bool isInAreas(const void *pAddress) const noexcept;

  void beginFree(Entry &entry);                        // its bytes are open to the heap
  void endFree(Entry &entry, const Place &freed);      // it has been freed
  void cancelFree(Entry &entry, Entry::State before);  // the heap has refused it

  const Place &freedAt(const Entry &entry) const;

  // An area or a large block, and the entries that lie in it.
  struct AreaMap {
    const std::byte *pArea;
    std::uint64_t length;
    bool isLarge;
    std::uint32_t headLen;
    std::uint32_t freeOffset;  // of what no entry has got
    std::vector<const Entry *> entries;
  };
  // Valid as long as the record is not changed. Of a heap from before the layer no area is known.
  std::vector<AreaMap> map() const;

  // Reports and repairs what has been written to outside of live entries.
  void check(Entry &entry, Findings &findings);
  void checkAll(Findings &findings);
  // Writes the red zones of entries near an address anew, after the heap has written there.
  void repairAround(const void *pAddress, std::int64_t length);

  // Before storage goes back to the host, and when it did not go after all.
  void allowAll();
  void denyAll();

  Finding finding(MEMCheckKind kind, const Entry &entry) const;
  // An access to an address around an entry that a memory checker has reported.
  Finding accessAt(const Entry &entry, const void *pAddress) const;
  // "3 bytes after", "8 bytes before", "0 bytes into".
  std::string distanceText(const Entry &entry, const void *pAddress) const;
  std::string name() const;  // "standard heap 0x…"

  const HMEMHEAP handle;
  const HeapShape shape;
  const Place opened;
  const std::uint16_t subPool;
  bool isSeenWhole;  // every entry has come through the layer
  const bool checks;
  Usage usage;
  std::uint64_t wasted = 0;       // at the ends of areas that are no longer current
  std::uint64_t currentFree = 0;  // in the current area
  std::uint64_t largeBlocks = 0;
  std::uint64_t largeBytes = 0;
  std::vector<std::byte *> areas;

 private:
  std::byte *zoneStart(const Entry &entry) const noexcept;
  std::byte *end(const Entry &entry) const noexcept;      // of the entry
  std::byte *zoneEnd(const Entry &entry) const noexcept;  // of the red zone after it
  zones::Damage lookBefore(const Entry &entry) const noexcept;
  void deny(const Entry &entry) const noexcept;
  void rename(Entry &entry) const;  // for valgrind's reports
  void noteAreas();
  void denyTail(const std::byte *pArea) const noexcept;
  void reportWrite(Findings &findings, MEMCheckKind found, const Entry &entry,
                   const std::byte *pFirst, std::size_t length) const;

  std::vector<Entry> entries_;                           // in the order in which they were made
  std::unordered_map<const void *, std::size_t> index_;  // made at the first search
  bool isIndexed_ = false;
  std::unordered_map<const void *, Place> freed_;
};

}  // namespace memchk
