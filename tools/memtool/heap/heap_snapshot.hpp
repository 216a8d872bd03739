// Statistics of a running program, as JSON: where its heaps and pools have what.
#pragma once

#include <string>
#include <string_view>

#include "heap_store.hpp"

namespace memtool {

// Whether a text is such statistics; no line of a script looks so.
bool isHeapSnapshot(std::string_view text);

// Reads what MEMCheckMap and the reference host's Statistics::json write. `name` stands in messages
// and in the caption. Throws ToolError with the place that is wrong, or when there are no maps.
Snapshot readHeapSnapshot(const std::string &name, std::string_view text);

}  // namespace memtool
