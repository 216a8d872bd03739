// Makes a packed chain of structures that are described as JSON, through the library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "chain_defs.hpp"
#include "packed_native.hpp"
#include "tool_library.hpp"

namespace memtool {

// `name` stands in messages about the JSON; docs/memtool-chain-names.md describes it. With a block
// length of 0 the blocks have 32,768 bytes, or more where an item needs it. Throws ToolError.
NativeChain encodeChain(RunningLibrary &library, const ChainDefinitions &definitions,
                        const std::string &name, std::string_view json, std::int32_t blockLength);

}  // namespace memtool
