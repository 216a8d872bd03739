// Whether the library accepts a chain: calls MEM_Unpack with a copy of it.
#pragma once

#include <cstdint>
#include <string>

#include "packed_chain.hpp"
#include "tool_library.hpp"

namespace memtool {

struct Verdict {
  bool wasAsked = false;
  std::string whyNot = {};  // why MEM_Unpack was not called
  std::uint32_t code = 0;   // MEMERR code with which it refuses the chain; 0: it accepts it
  std::string text = {};    // the text in its error area, without addresses
};

// "MEMERR_PACKRBLK"; "" for an unknown code.
const char *nameOfCode(std::uint32_t code);

// " (the library's code is 4070 MEMERR_PACKRBLK: Invalid Relative Blk=7)", " (the library accepts
// it)" or why MEM_Unpack was not called.
std::string remarkOf(const Verdict &verdict);

// Unpacks a copy of the chain for a caller with the writer's structures: in place for 8-byte
// pointers, or when the head has a fault, and into a new chain for 4-byte pointers. Guard bytes
// surround each block. Throws ToolError when the library has changed them.
Verdict askLibrary(RunningLibrary &library, const PackedChain &chain);

}  // namespace memtool
