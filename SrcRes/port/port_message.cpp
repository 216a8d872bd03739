#include "port/port_message.h"

namespace memlib {

void reportWriting(CallFrame &frame, const MessagePoint &point, const char *pMessage) noexcept {
  frame.traceException(point.routine, point.line, "(%s:%d)ERROR:%s", kSourcePort, point.line,
                       pMessage);
}

void reportReading(CallFrame &frame, const MessagePoint &point, const char *pMessage,
                   const Excerpts &excerpts) noexcept {
  frame.traceException(point.routine, point.line,
                       "(%s:%d)ERROR:%s\nPosition: %ld\nRead:%s\nNext:%s", kSourcePort, point.line,
                       pMessage, excerpts.position, excerpts.read, excerpts.next);
}

}  // namespace memlib
