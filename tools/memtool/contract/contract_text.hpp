// The contract as JSON, made by the build from the public headers (make_contract.py).
#pragma once

#include <string_view>
#include <vector>

namespace memtool {

// The text in pieces, because compilers limit the length of literals.
const std::vector<std::string_view> &contractPieces();

}  // namespace memtool
