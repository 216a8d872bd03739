// A packed chain in words: tables and a tree for people, JSON for programs.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "packed_chain.hpp"
#include "packed_selection.hpp"
#include "packed_verdict.hpp"
#include "tool_console.hpp"

namespace memtool {

// "F", "C", …: a type code as its letter, where it has one; else "0xE5".
std::string typeName(const Kind &kind);

// What a kind is made of: "fixed", "counted", "own length", "text", "wide text", "unknown".
const char *formName(Form form);

// "little-endian, pointers of 8 bytes, wide characters of 2 bytes, ASCII".
std::string writerText(const PackedChain &chain);

// Items of each block.
struct BlockCount {
  std::uint64_t segments = 0;
  std::uint64_t texts = 0;
};
std::vector<BlockCount> countItems(const PackedChain &chain);

// Prints all that was read, or the segments that were chosen of it. `withData`: the bytes between
// the pointer fields as well.
void printChain(Console &console, const std::string &name, const PackedChain &chain,
                const ChainSelection &selection, bool withData);

// `verdict`: what the library says of a chain with a fault.
// Writes all that was read as JSON, piece by piece. A text stands with the first pointer to it; for
// others, and for those to its end, "textAt" names where it stands.
void writeChainJson(Console &console, const std::string &name, const PackedChain &chain,
                    const ChainSelection &selection, const std::optional<Verdict> &verdict,
                    bool withData);

// What --check shows: the counts and the faults.
nlohmann::ordered_json chainCheckJson(const std::string &name, const PackedChain &chain,
                                      const std::optional<Verdict> &verdict);

}  // namespace memtool
