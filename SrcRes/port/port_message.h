// Error records of port string calls. They are written regardless of the trace flags.
#pragma once

#include <cstdint>

#include "frame/callframe.h"

namespace memlib {

// The place that an error record names: internal routine and fixed line, as in all trace records.
struct MessagePoint {
  const char *routine;
  std::int32_t line;
};

// Short form, for writers: "(source:line)ERROR:message".
void reportWriting(CallFrame &frame, const MessagePoint &point, const char *pMessage) noexcept;

// A reader's position, the text that it read last and the text that comes next.
struct Excerpts {
  static constexpr std::size_t kLen = 80;
  std::int32_t position = 0;  // in the current chunk
  char read[kLen + 1] = {};
  char next[kLen + 1] = {};
};

// Long form, for readers: the short one with position and excerpts.
void reportReading(CallFrame &frame, const MessagePoint &point, const char *pMessage,
                   const Excerpts &excerpts) noexcept;

}  // namespace memlib
