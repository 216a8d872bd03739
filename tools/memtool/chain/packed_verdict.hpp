// What the library says of a chain: MEM_Unpack is asked, with a copy of it.
#pragma once

#include <cstdint>
#include <string>

#include "packed_chain.hpp"
#include "tool_library.hpp"

namespace memtool {

struct Verdict {
  bool wasAsked = false;
  std::string whyNot = {};  // why it was not asked
  std::uint32_t code = 0;   // MEMERR code with which it refuses the chain, 0: it takes it
  std::string text = {};    // what it says in its error area, without addresses
};

// "MEMERR_PACKRBLK"; "" for a code that there is not.
const char *nameOfCode(std::uint32_t code);

// " (the library's code is 4070 MEMERR_PACKRBLK: Invalid Relative Blk=7)", " (the library takes
// it)" or why it was not asked.
std::string remarkOf(const Verdict &verdict);

// Unpacks a copy of the chain for a caller that has the writer's structures: in place with 8-byte
// pointers (and where a fault hides their width), into a new chain with 4-byte ones. The copy lies
// between guard bytes. Throws ToolError when the library wrote on them.
Verdict askLibrary(RunningLibrary &library, const PackedChain &chain);

}  // namespace memtool
