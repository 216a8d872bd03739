// Reads a chain file. Whatever the bytes are, nothing outside of them is looked at, every part of
// a block is claimed by one item only, and the time is proportional to the file's length.
#pragma once

#include <cstdint>
#include <string>

#include "packed_chain.hpp"
#include "tool_console.hpp"

namespace memtool {

// The file does not tell the width of the writer's pointers. With 0 it is that of
// findPointerWidth(); a fault that would be none with the other width has a remark on it.
PackedChain readChain(std::string bytes, std::uint32_t pointerWidth, Console &console);

}  // namespace memtool
