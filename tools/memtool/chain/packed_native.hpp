// Any writer's chain as one of this platform, through the library: unpacked and packed again.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "packed_chain.hpp"
#include "tool_console.hpp"
#include "tool_library.hpp"

namespace memtool {

struct NativeRequest {
  std::int32_t blockLength = 0;     // 0: the usual one, or more where an item needs it
  std::optional<PackedChain> like;  // a sound chain whose control block lays the segments out
};

struct NativeChain {
  std::string bytes;  // of the file
  std::uint64_t blocks = 0;
  std::int32_t blockLength = 0;
  std::string version;
  std::string remark;  // what was left as the writer had it; may be empty
};

// Throws ToolError. REQUIRES: the chain has no fault.
NativeChain toNative(RunningLibrary &library, const PackedChain &chain,
                     const NativeRequest &request, Console &console);

// Packs a structure in storage of this program; the blocks go back to the host. Throws ToolError.
NativeChain packNative(RunningLibrary &library, const MemPackCB *controlBlock, const void *root,
                       std::int32_t blockLength);

}  // namespace memtool
