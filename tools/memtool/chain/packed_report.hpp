// Writes a packed chain as tables and a tree for people, or as JSON for programs.
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

// "F", "C", …: a type code as its letter, or "0xE5" for one without a letter.
std::string typeName(const Kind &kind);

// The form of a kind: "fixed", "counted", "own length", "text", "wide text", "unknown".
const char *formName(Form form);

// "little-endian, pointers of 8 bytes, wide characters of 2 bytes, ASCII".
std::string writerText(const PackedChain &chain);

// The number of items in each block.
struct BlockCount {
  std::uint64_t segments = 0;
  std::uint64_t texts = 0;
};
std::vector<BlockCount> countItems(const PackedChain &chain);

// Prints all that was read, or only the chosen segments. `withData`: with the bytes between the
// pointer fields.
void printChain(Console &console, const std::string &name, const PackedChain &chain,
                const ChainSelection &selection, bool withData);

// Writes all that was read as JSON, piece by piece. The first pointer to a text has the text; other
// pointers to it, or to its end, have "textAt", the target of that first pointer. `verdict`: the
// library's, for a chain with a fault.
void writeChainJson(Console &console, const std::string &name, const PackedChain &chain,
                    const ChainSelection &selection, const std::optional<Verdict> &verdict,
                    bool withData);

// The output of --check: the counts and the faults. `unlikeDefinitions`: where a valid chain is not
// as its definitions say.
nlohmann::ordered_json chainCheckJson(const std::string &name, const PackedChain &chain,
                                      const std::optional<Verdict> &verdict,
                                      const std::optional<Fault> &unlikeDefinitions);

}  // namespace memtool
