// A picture of the graph in a port string.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "port_model.hpp"

namespace memtool {

// Structures and rows of a structure beyond these are counted instead of drawn.
inline constexpr std::size_t kMostDrawnStructures = 40;
inline constexpr std::size_t kMostDrawnFields = 24;

// SVG with a box for each of the first structures and an arrow for each pointer between them. A
// column has the structures that are the same number of pointers away from the first one. With
// `root` the structures are those that can be reached from that one, the nearest first. Throws
// UnknownValue for a root that the document does not have.
std::string portPicture(const std::string &name, const PortDocument &document,
                        std::optional<std::uint32_t> root);

}  // namespace memtool
