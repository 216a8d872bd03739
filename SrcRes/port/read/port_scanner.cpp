#include "port/read/port_scanner.h"

namespace memlib {

namespace {

constexpr MessagePoint kPointEnd{"MEM_PORT2CHAR", 1188};
constexpr MessagePoint kPointPushBack{"MEM_PUSHBACK", 1227};

}  // namespace

bool PortScanner::failAtEnd() noexcept {
  return fail(kPointEnd, "End of port string reached!");
}

bool PortScanner::unget() noexcept {
  return input_.pushBack() || fail(kPointPushBack, "Cannot push back more than one char!");
}

std::optional<std::uint64_t> PortScanner::longNumber() noexcept {
  ReversedDigits<std::uint64_t> digits;
  for (;;) {
    const std::string_view text = run();
    if (text.empty()) return std::nullopt;
    const char *const pEnd = text.data() + text.size();
    const char *const pBehind = digits.take(text.data(), pEnd);
    moveTo(pBehind);
    if (pBehind != pEnd) return digits.value();
  }
}

std::uint64_t PortScanner::inputLength() noexcept {
  if (inputLength_ == 0) inputLength_ = input_.length();
  return inputLength_;
}

void *PortScanner::allocate(std::int64_t length) noexcept {
  if (length > INT32_MAX || length < INT32_MIN) return nullptr;
  void *pEntry = nullptr;
  const std::int16_t status = functionVector().MEM_HeapAllocEntryLong(
      hMemHeap_, static_cast<std::int32_t>(length), &pEntry);
  return status == 0 ? pEntry : nullptr;
}

bool PortScanner::fail(const MessagePoint &point, const char *pMessage) noexcept {
  const Excerpts excerpts = input_.excerpts();
  frame_.traceException(point.routine, point.line,
                        "(%s:%d)ERROR:%s\nPosition: %ld\nRead:%s\nNext:%s", kSourcePort, point.line,
                        pMessage, excerpts.position, excerpts.read, excerpts.next);
  return false;
}

}  // namespace memlib
