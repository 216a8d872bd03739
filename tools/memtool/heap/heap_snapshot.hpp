// Reads the contents of a running program's heaps and pools from its statistics, which are JSON.
#pragma once

#include <string>
#include <string_view>

#include "heap_store.hpp"

namespace memtool {

// True for a text that begins like JSON, as no script does.
bool isHeapSnapshot(std::string_view text);

// Reads what MEMCheckMap and the reference host's Statistics::json write. Messages and the caption
// contain `name`. Throws ToolError with the place that is wrong, or when there are no maps.
Snapshot readHeapSnapshot(const std::string &name, std::string_view text);

}  // namespace memtool
