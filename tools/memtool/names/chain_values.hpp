// Converts values of named fields between the bytes of a segment and JSON.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "chain_defs.hpp"
#include "packed_chain.hpp"
#include "port_values.hpp"

namespace memtool {

// The value of a field that is not a pointer: a number, text, bytes, or an array of numbers. None
// when the bytes are invalid for the type (text without a terminator, a number that JSON does not
// have).
std::optional<PortJson> chainValue(const Version &writer, const ChainFieldDefinition &field,
                                   std::string_view bytes);

// A text that a pointer leads to, without its terminator. Nothing is lost: invalid Unicode becomes
// {"hex": …} or {"units": […]}.
PortJson chainTextValue(const PackedChain &chain, const Text &text);

// The value on one line, with at most `most` characters of text and bytes.
PortShown showChainValue(const ChainFieldDefinition &field, const PortJson &value,
                         std::size_t most);

// The bytes of a value in this machine's byte order: as many as the field has, or as the value has
// for a field to the end of its segment. Throws ToolError with line and column.
std::string chainValueBytes(const ChainFieldDefinition &field, const PortJsonNode &node);

}  // namespace memtool
