// Makes a packed chain of structures in JSON. The library packs it.
#pragma once

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

}  // namespace memtool
