// The part of a chain file that can be read without following pointers: blocks, version and control
// block.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "packed_chain.hpp"

namespace memtool {

// The form of a type code. Big-endian writers may use EBCDIC letters, also when their version is in
// ASCII.
Form formOf(std::uint16_t typeCode, bool isBigEndian);

// Adds a fault. The file offset is computed from the place.
void noteFault(PackedChain &chain, Place place, std::string what);

// Bytes before the control block in block 0's content: used length and version.
inline constexpr std::uint32_t kHeadLen = 6;
// The first content byte of a block after its used length.
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

// Where the root is; none when the chain ends before it. REQUIRES: the head is read.
std::optional<Place> rootPlace(const PackedChain &chain);

// True when a known version is where a chain has it.
bool hasVersion(std::string_view bytes);

// Reads the head of `chain`, whose bytes are set, and adds its faults. False when too little of it
// is valid to follow pointers.
bool readHead(PackedChain &chain);

}  // namespace memtool
