// Failures that several steps of packing and unpacking have in common.
#pragma once

#include <cstdint>

#include "frame/outcome.h"

namespace memlib {

// A failure whose result is its code.
inline StepFailure failure(std::uint32_t code, const ErrorText &text) noexcept {
  return {.result = static_cast<std::int16_t>(code), .code = code, .text = text};
}

inline StepFailure badDescriptor(const void *pDescriptor) noexcept {
  return failure(MEMERR_PACKCBID, ErrorText("MemPackCBstructIDInvalid=").pointer(pDescriptor));
}

inline StepFailure badBlockCount(std::int32_t count) noexcept {
  const auto shown = static_cast<std::int16_t>(count);
  return failure(MEMERR_PACKBMAX, ErrorText("MaxBlocksValueBad=").decimal(shown));
}

}  // namespace memlib
