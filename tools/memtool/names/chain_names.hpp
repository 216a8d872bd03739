// Writes a packed chain with the names and types of its definitions: a list for people, or a graph
// as JSON for programs and for --encode.
#pragma once

#include <optional>
#include <string>

#include "chain_defs.hpp"
#include "packed_chain.hpp"
#include "packed_selection.hpp"
#include "tool_console.hpp"

namespace memtool {

// All three REQUIRE definitions that were checked against the chain.

// The first reference that leads to another kind than its definition says, with the place of its
// field; none when all are right.
std::optional<Fault> wrongReference(const ChainDefinitions &definitions, const PackedChain &chain);

void printNamedChain(Console &console, const std::string &name, const ChainDefinitions &definitions,
                     const PackedChain &chain, const ChainSelection &selection);

// Writes piece by piece. A text is repeated for every pointer to it; throws ToolError when the
// texts would exceed 1 GB.
void writeNamedChainJson(Console &console, const ChainDefinitions &definitions,
                         const PackedChain &chain, const ChainSelection &selection);

}  // namespace memtool
