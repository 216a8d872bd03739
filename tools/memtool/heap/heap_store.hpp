// Heaps and pools with their contents, from a script or from the statistics of a program.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace memtool {

enum class StoreType { Heap, EnhancedHeap, Pool };
// "standard heap", "enhanced heap", "cell pool".
const char *nameOf(StoreType type);

// An entry or a cell.
struct StoreEntry {
  std::string label;
  std::uint32_t offset = 0;  // in its area
  std::uint32_t asked = 0;   // requested bytes
  std::uint32_t taken = 0;   // bytes that it occupies, without red zones
  std::uint32_t zone = 0;    // bytes of the red zone on each side
  std::uint64_t made = 0;    // number of the script's line or of the program's call; 0: unknown
  std::string owner = {};    // who made it: a label of the script, or a place in the program
  bool isFreed = false;
};

// An area or a large block, as the library allocated it from the host.
struct StoreArea {
  const char *address = nullptr;
  std::uint32_t length = 0;
  bool isLarge = false;
  std::uint32_t headLen = 0;  // the library's bytes at the start
  std::uint32_t free = 0;     // where unused storage begins; 0: after the last entry
  std::vector<StoreEntry> entries = {};
};

// A heap or a pool.
struct Store {
  std::string name;
  StoreType type = StoreType::Heap;
  void *handle = nullptr;
  std::uint32_t areaLen = 0;  // bytes
  std::uint32_t cellLen = 0;  // of a pool
  std::int32_t subPool = 0;   // 0..65535 of a heap, -32768..32767 of a pool, as their slots take it
  std::vector<StoreArea> areas;
  std::string note = {};  // of a program: who opened it, and its use
};

// The state after a line of a script, or of a program.
struct Snapshot {
  std::string caption;
  std::vector<Store> stores;
  bool isOfProgram = false;
};

// A part of an area.
struct AreaPart {
  enum class What { Head, Entry, Freed, Zone, Unknown, Free, Rest };
  What what;
  std::uint32_t offset;
  std::uint32_t length;
  std::string label;
  std::string text;  // the label with details
  // Of an entry that was not freed. Valid as long as the area.
  const StoreEntry *entry = nullptr;
};
std::vector<AreaPart> partsOf(const Store &store, const StoreArea &area);

}  // namespace memtool
