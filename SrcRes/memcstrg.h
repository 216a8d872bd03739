// String sink: start and stop of the process's sink.
#pragma once

#include <cstdint>

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_SinkInit() noexcept;
std::int16_t MEM_SinkTerm() noexcept;

}  // namespace mem
