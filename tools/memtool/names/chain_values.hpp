// Values of named fields between the bytes of a segment and JSON.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "chain_defs.hpp"
#include "packed_chain.hpp"
#include "port_values.hpp"

namespace memtool {

// A value of a field that is no pointer: a number, text, bytes, or an array of numbers. None when
// the bytes cannot be what the type says (text without an end, a number that JSON does not have).
std::optional<PortJson> chainValue(const Version &writer, const ChainFieldDefinition &field,
                                   std::string_view bytes);

// A text that a pointer leads to, without its terminator. Loses nothing: what is no valid Unicode
// becomes {"hex": …} or {"units": […]}.
PortJson chainTextValue(const PackedChain &chain, const Text &text);

// On one line, at most `most` characters of text and bytes.
PortShown showChainValue(const ChainFieldDefinition &field, const PortJson &value,
                         std::size_t most);

// The bytes of a value in this machine's order, as many as the field has; of a field to the end of
// its segment as many as the value has. Throws ToolError with line and column.
std::string chainValueBytes(const ChainFieldDefinition &field, const PortJsonNode &node);

}  // namespace memtool
