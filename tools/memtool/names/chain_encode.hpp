// Makes a packed chain of structures in JSON. The library packs it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "chain_defs.hpp"
#include "packed_native.hpp"
#include "tool_library.hpp"

namespace memtool {

// docs/memtool-chain-names.md describes the JSON; messages about it contain `name`. With a block
// length of 0 the blocks have 32,768 bytes, or more if an item needs it. Throws ToolError.
NativeChain encodeChain(RunningLibrary &library, const ChainDefinitions &definitions,
                        const std::string &name, std::string_view json, std::int32_t blockLength);

// The least length of blocks for a control block, as callers pass it, and the longest segment or
// text. For wide text that is the length that the packer reserves, twice its bytes.
std::int32_t leastBlockLength(std::size_t controlBlockLength, std::size_t longestItem);

// Throws ToolError if a --block-length is less: the message of the library's code is about too many
// blocks.
void refuseShortBlocks(std::int32_t blockLength, std::size_t controlBlockLength,
                       std::size_t longestItem);

}  // namespace memtool
