// The part of a chain file that can be read without following pointers: blocks, version and control
// block.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "packed_chain.hpp"

namespace memtool {

// Thrown by the readers of a chain and kept in PackedChain::fault.
struct FaultFound {
  Fault fault;
};

// Throws FaultFound. `fileOffset` is found from the place.
[[noreturn]] void refuse(const PackedChain &chain, Place place, std::string what);

// Bytes in front of the control block in block 0's content: used length and version.
inline constexpr std::uint32_t kHeadLen = 6;
// The first content byte of a block behind its used length.
inline constexpr std::uint32_t kFirstContent = 2;

// Offsets in a descriptor of either layout.
struct DescriptorLayout {
  std::uint32_t length;
  std::uint32_t childrenOff;
  std::uint32_t referencesOff;
  std::int16_t maxChildren;
};
const DescriptorLayout &descriptorLayout(bool isOldLayout);
std::uint32_t controlBlockLength(std::int32_t kindCount, bool isOldLayout);

// Where the root lies; none when the chain ends before it. REQUIRES: the head is read.
std::optional<Place> rootPlace(const PackedChain &chain);

// Fills in `chain`, whose bytes are set, as far as they go. Throws FaultFound.
void readHead(PackedChain &chain);

}  // namespace memtool
