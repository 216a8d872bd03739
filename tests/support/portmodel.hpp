// Port strings a second time: what the writer must write, and when two graphs are the same. Plain
// and slow on purpose, without a line of the library.
#pragma once

#include <cstdint>
#include <string>

#include "qj7mem00/qj7mem00.h"

namespace portmodel {

// The whole text for a structure and all that it reaches. The table must be right and every
// identifier known; throws std::logic_error otherwise.
std::string write(const MEMStructDef *defs, std::uint32_t structID, const void *root);

// "" when the second graph is what a reader makes of the first one's text: every structure has one
// counterpart and every ported field carries the same value; else the place of the first
// difference.
std::string difference(const MEMStructDef *defs, std::uint32_t structID, const void *first,
                       const void *second);

}  // namespace portmodel
