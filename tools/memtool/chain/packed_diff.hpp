// Two packed chains compared as structures, wherever their segments are and whatever platform wrote
// them.
#pragma once

#include <cstdint>

#include "graph_walk.hpp"
#include "packed_chain.hpp"

namespace memtool {

struct ChainComparison {
  std::uint64_t compared = 0;  // pairs of segments
  std::uint64_t differences = 0;
  std::uint64_t turned = 0;  // runs of bytes that are equal with their numbers turned
};

// Segments are paired along their pointers. Texts are compared as characters, lengths that segments
// tell by the bytes that follow. Other bytes are compared as they are; between writers of different
// byte orders also turned, in groups of 2, 4 and 8. Between pointers of different widths zeros may
// follow the bytes before a pointer, and the ends of segments. REQUIRES: both chains are sound.
ChainComparison compareChains(const PackedChain &a, const PackedChain &b,
                              const DifferenceSink &sink);

}  // namespace memtool
