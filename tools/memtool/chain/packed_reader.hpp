// Reads a chain file. Whatever the bytes are, nothing outside of them is read, each byte of a block
// belongs to one item only (narrow texts may share), and the time is proportional to the file's
// length.
#pragma once

#include <cstdint>
#include <string>

#include "packed_chain.hpp"
#include "tool_console.hpp"

namespace memtool {

// The file does not contain the width of the writer's pointers: 4, 8, or 0 for that of
// findPointerWidth(). If the file would be valid with the other width, the first fault has a remark
// on that.
PackedChain readChain(std::string bytes, std::uint32_t pointerWidth, Console &console);

}  // namespace memtool
