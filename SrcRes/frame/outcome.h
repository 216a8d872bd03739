// How the steps of a call report failures to each other before the call's frame records one.
#pragma once

#include <cstdint>
#include <optional>

#include "frame/callframe.h"

namespace memlib {

struct StepFailure {
  std::int16_t result = -1;
  std::uint32_t code = 0;
  ErrorText text{};
  const char *pExitText = nullptr;  // exit record, if the failure has one
  bool isRecorded = false;          // another service has recorded the failure; nothing is added
  const char *pDetail = "";         // for the host's report only
};

// No value: success.
using Outcome = std::optional<StepFailure>;

// Traces and records a failure, stores its result in the frame and returns it. REQUIRES: all nested
// calls are done, because they clear the error area.
inline std::int16_t finishWith(CallFrame &frame, const StepFailure &failed) noexcept {
  if (failed.pExitText != nullptr) frame.traceExit(failed.pExitText);
  if (failed.isRecorded) return frame.finish(failed.result);
  return frame.fail({.code = failed.code,
                     .text = failed.text.c_str(),
                     .marksComponent = true,
                     .detail = failed.pDetail,
                     .result = failed.result});
}

}  // namespace memlib
