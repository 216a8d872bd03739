// What the layer knows of one heap: its entries with their red zones, and its areas.
//
//   the heap's entry   | red zone | the component's entry | rounding | red zone |
//                                 ^ the address that the component gets
//
// A component frees that address with its own length, and the layer passes both to the heap: the
// heap only uses bytes of the component's entry. Before a large entry of an enhanced heap it looks
// for the header of a large block, so the red zone contains one there.
//
// Call members only while the layer's lock is held, or for a record that is taken out of its table.
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

// Bytes of an entry that the component may use. An enhanced heap allocates its shortest entry for a
// length of 0 or less.
std::int64_t usableLen(HeapKind kind, std::int32_t asked) noexcept;
// The same, rounded up as the heap does.
std::int64_t alignedLen(HeapKind kind, std::int32_t asked) noexcept;

// The kind of heap, from the first bytes at the handle, which is not null; false if they are no
// heap's.
bool readKind(HMEMHEAP hMemHeap, HeapKind &kind) noexcept;

// How a heap makes its entries.
struct HeapShape {
  HeapKind kind;
  std::uint32_t areaSize;  // 0 if the handle is not the library's

  // Whether an entry gets a block of its own.
  bool isLarge(std::int64_t aligned) const noexcept;
  // The length of an entry's red zones, at most `wanted`. An entry that fits into an area still
  // fits with them, because large blocks fail in other ways.
  std::uint32_t zoneOf(std::int32_t asked, std::uint32_t wanted) const noexcept;
  // Whether the red zone before an entry contains a block header.
  bool hasBlockHeader(std::int32_t asked, std::uint32_t zone) const noexcept;
  // Fill the red zones of an entry; the rounding is part of the one after it.
  void fillZoneBefore(void *pEntry, std::int32_t asked, std::uint32_t zone) const noexcept;
  void fillZones(void *pEntry, std::int32_t asked, std::uint32_t zone) const noexcept;
};

struct Entry {
  enum class State : std::uint16_t {
    live,
    freeing,  // a call that frees it is running and uses its bytes
    freed
  };

  void *pEntry;  // the component's address
  Place made;
  std::int32_t asked;   // the requested length
  std::uint32_t zone;   // bytes of each red zone; with 0 only the rounding is checked
  std::uint32_t block;  // name for valgrind
  State state;
};

class HeapRecord {
 public:
  // A heap that has just been opened (`isNew`) or that existed before the layer; of the latter only
  // the header is read.
  HeapRecord(HMEMHEAP hMemHeap, HeapKind kind, const Place &opened, bool isNew, bool checks);

  // The heap has made an entry: count() only counts it, add() also keeps it. countFree() is for a
  // free without checks, which may be of an entry that was not kept.
  void count(std::int32_t asked, std::uint32_t zone);
  void add(void *pEntry, std::int32_t asked, std::uint32_t zone, const Place &made);
  void countFree(const void *pEntry, std::int32_t length, const Place &freed);

  // The entry that begins at an address; null if none does.
  Entry *find(const void *pEntry);
  // The entry with the address in its bytes or red zones; null if there is none.
  Entry *findAround(const void *pAddress) noexcept;
  bool isInAreas(const void *pAddress) const noexcept;

  void beginFree(Entry &entry);                        // the heap may use its bytes
  void endFree(Entry &entry, const Place &freed);      // it has been freed
  void cancelFree(Entry &entry, Entry::State before);  // the heap has refused it

  const Place &freedAt(const Entry &entry) const;

  // An area or a large block, and the entries in it.
  struct AreaMap {
    const std::byte *pArea;
    std::uint64_t length;
    bool isLarge;
    std::uint32_t headLen;
    std::uint32_t freeOffset;  // of the bytes that no entry has used yet
    std::vector<const Entry *> entries;
  };
  // Valid until the record changes. The areas of a heap that existed before the layer are unknown.
  std::vector<AreaMap> map() const;

  // Report and repair writes outside live entries.
  void check(Entry &entry, Findings &findings);
  void checkAll(Findings &findings);
  // Fills the red zones near an address again, after the heap has written there.
  void repairAround(const void *pAddress, std::int64_t length);

  // Before the heap's storage is freed, and if that fails.
  void allowAll();
  void denyAll();

  Finding finding(MEMCheckKind kind, const Entry &entry) const;
  // An access to an entry or its red zones, which a memory checker has reported.
  Finding accessAt(const Entry &entry, const void *pAddress) const;
  // "3 bytes after", "8 bytes before", "0 bytes into".
  std::string distanceText(const Entry &entry, const void *pAddress) const;
  std::string name() const;  // "standard heap 0x…"

  const HMEMHEAP handle;
  const HeapShape shape;
  const Place opened;
  const std::uint16_t subPool;
  bool isSeenWhole;  // the layer has seen every entry
  const bool checks;
  Usage usage;
  std::uint64_t wasted = 0;       // unused ends of areas before the current one
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

  std::vector<Entry> entries_;                           // in the order of allocation
  std::unordered_map<const void *, std::size_t> index_;  // made at the first search
  bool isIndexed_ = false;
  std::unordered_map<const void *, Place> freed_;
};

}  // namespace memchk
