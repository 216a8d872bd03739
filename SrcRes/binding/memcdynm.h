// Filling and clearing of the MEM function vector.
#pragma once

#include <cstdint>

namespace mem {

inline constexpr std::int16_t kFillVector = 1;
inline constexpr std::int16_t kClearVector = 2;

// Fills slots 4 to 51 of the host's MEM function vector with the library's entry points, or clears
// them, inside a trace frame of its own. The host's slots 0 to 3 are never touched.
void PSdynamn(std::int16_t Action) noexcept;

}  // namespace mem
