// A packed chain with the names and types of its definitions: a list for people, a graph as JSON
// for programs and for --encode.
#pragma once

#include <optional>
#include <string>

#include "chain_defs.hpp"
#include "packed_chain.hpp"
#include "packed_selection.hpp"
#include "tool_console.hpp"

namespace memtool {

// All three: REQUIRES definitions that were checked against the chain.

// References that lead to another kind than their definition says; none where all are right.
std::optional<std::string> wrongReference(const ChainDefinitions &definitions,
                                          const PackedChain &chain);

void printNamedChain(Console &console, const std::string &name, const ChainDefinitions &definitions,
                     const PackedChain &chain, const ChainSelection &selection);

// Piece by piece. Texts stand with every pointer to them: throws ToolError when all together would
// pass 1 GB.
void writeNamedChainJson(Console &console, const ChainDefinitions &definitions,
                         const PackedChain &chain, const ChainSelection &selection);

}  // namespace memtool
