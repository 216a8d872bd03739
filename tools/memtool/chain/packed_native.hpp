// Rewrites any writer's chain for this platform: the library unpacks it and packs it again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "packed_chain.hpp"
#include "tool_console.hpp"
#include "tool_library.hpp"

namespace memtool {

struct NativeRequest {
  std::int32_t blockLength = 0;     // 0: 32,768, or more if an item needs it
  std::optional<PackedChain> like;  // a valid chain whose control block defines the layout
};

struct NativeChain {
  std::string bytes;  // of the file
  std::uint64_t blocks = 0;
  std::int32_t blockLength = 0;
  std::string version;
  std::string remark;  // what is still in the writer's form; may be empty
};

// Throws ToolError. REQUIRES: the chain has no fault.
NativeChain toNative(RunningLibrary &library, const PackedChain &chain,
                     const NativeRequest &request, Console &console);

inline constexpr std::int32_t kUsualBlockLen = 32768;

// The least length of blocks for a control block, as callers pass it, and the longest segment or
// text. For wide text that is the length that the packer reserves, twice its bytes.
std::int32_t leastBlockLength(std::size_t controlBlockLength, std::size_t longestItem);

// Throws ToolError if a --block-length is less: the message of the library's code is about too many
// blocks.
void refuseShortBlocks(std::int32_t blockLength, std::size_t controlBlockLength,
                       std::size_t longestItem);

// Packs a structure that is in this program's storage and frees the blocks. Throws ToolError.
NativeChain packNative(RunningLibrary &library, const MemPackCB *controlBlock, const void *root,
                       std::int32_t blockLength);

}  // namespace memtool
