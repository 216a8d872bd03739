// Compares two packed chains as structures, independent of where their segments are and which
// platform wrote them.
#pragma once

#include <cstdint>

#include "graph_walk.hpp"
#include "packed_chain.hpp"

namespace memtool {

struct ChainComparison {
  std::uint64_t compared = 0;  // pairs of segments
  std::uint64_t differences = 0;
  std::uint64_t turned = 0;  // runs of bytes that are equal after their numbers' bytes are reversed
};

// Pairs segments along their pointers. Compares texts as characters. The lengths that counted and
// self-describing segments begin with are not compared, but the bytes that follow are. Other bytes
// are compared as they are; between writers of different byte orders also reversed in groups of 2,
// 4 or 8. Between pointers of different widths, one side may have additional zeros before a pointer
// and at the end of a segment. REQUIRES: both chains are valid.
ChainComparison compareChains(const PackedChain &a, const PackedChain &b,
                              const DifferenceSink &sink);

}  // namespace memtool
