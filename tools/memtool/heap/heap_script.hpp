// The line language of memtool heapmap, and a run of it through the library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tool_library.hpp"

namespace memtool {

enum class StoreType { Heap, EnhancedHeap, Pool };
// "standard heap", "enhanced heap", "cell pool".
const char *nameOf(StoreType type);

// An entry or a cell.
struct StoreEntry {
  std::string label;
  std::uint32_t offset = 0;  // in its area
  std::uint32_t asked = 0;   // bytes asked for
  std::uint32_t taken = 0;   // bytes that it occupies
  bool isFreed = false;
};

// An area or a large block, as obtained from the host.
struct StoreArea {
  const char *address = nullptr;
  std::uint32_t length = 0;
  bool isLarge = false;
  std::uint32_t headLen = 0;  // what the library keeps at the start
  std::vector<StoreEntry> entries;
};

// A heap or a pool.
struct Store {
  std::string name;
  StoreType type = StoreType::Heap;
  void *handle = nullptr;
  std::uint32_t areaLen = 0;  // bytes
  std::uint32_t cellLen = 0;  // of a pool
  std::uint16_t subPool = 0;
  std::vector<StoreArea> areas;
};

// The state after a line.
struct Snapshot {
  std::string caption;
  std::vector<Store> stores;
};

// A part of an area.
struct AreaPart {
  enum class What { Head, Entry, Freed, Free, Rest };
  What what;
  std::uint32_t offset;
  std::uint32_t length;
  std::string label;
  std::string text;  // the label with what else there is to say
};
std::vector<AreaPart> partsOf(const Store &store, const StoreArea &area);

// The script that is run when none is given.
extern const std::string_view kExampleScript;

// Runs a script and returns the states that it wants shown. `name` stands in messages. Throws
// ToolError with the line that is wrong, or whose service failed.
std::vector<Snapshot> runHeapScript(RunningLibrary &library, const std::string &name,
                                    std::string_view script);

}  // namespace memtool
