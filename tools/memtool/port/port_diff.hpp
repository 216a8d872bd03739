// Two port strings compared as graphs of structures.
#pragma once

#include <cstdint>

#include "graph_walk.hpp"
#include "port_model.hpp"

namespace memtool {

struct PortComparison {
  std::uint64_t compared = 0;  // pairs of structures
  std::uint64_t differences = 0;
};

// Structures are paired along their pointers, from the first one on; their numbers do not matter.
// Fields are compared by their FieldIDs. Structures to which no pointer leads are left out.
// REQUIRES: neither has a fault.
PortComparison comparePorts(const PortDocument &a, const PortDocument &b,
                            const DifferenceSink &sink);

}  // namespace memtool
