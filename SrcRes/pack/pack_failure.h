// How packing and unpacking report failures inside the room, before the frame records them.
#pragma once

#include <cstdint>
#include <optional>

#include "frame/callframe.h"

namespace memlib {

struct PackFailure {
  std::int16_t result;
  std::uint32_t code;
  ErrorText text;
  const char *pExitText = nullptr;  // exit record, where the failure has one
  bool isRecorded = false;          // another service's record stands and is not added to
};

// No value: success.
using Outcome = std::optional<PackFailure>;

// A failure whose result is its code.
inline PackFailure failure(std::uint32_t code, const ErrorText &text) noexcept {
  return {.result = static_cast<std::int16_t>(code), .code = code, .text = text};
}

inline PackFailure badDescriptor(const void *pDescriptor) noexcept {
  return failure(MEMERR_PACKCBID, ErrorText("MemPackCBstructIDInvalid=").pointer(pDescriptor));
}

inline PackFailure badBlockCount(std::int32_t count) noexcept {
  const auto shown = static_cast<std::int16_t>(count);
  return failure(MEMERR_PACKBMAX, ErrorText("MaxBlocksValueBad=").decimal(shown));
}

}  // namespace memlib
