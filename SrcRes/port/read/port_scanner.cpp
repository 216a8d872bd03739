#include "port/read/port_scanner.h"

#include <algorithm>

namespace memlib {

namespace {

constexpr MessagePoint kPointEnd{"MEM_PORT2CHAR", 1188};
constexpr MessagePoint kPointPushBack{"MEM_PUSHBACK", 1227};

std::string_view textOf(const MEMPortChunk &chunk) noexcept {
  return {static_cast<const char *>(chunk.Text),
          chunk.Used > 0 ? static_cast<std::size_t>(chunk.Used) : std::size_t{0}};
}

// The last `room` characters; head() returns the first ones.
std::string_view tail(std::string_view text, std::size_t room) noexcept {
  return behind(text, text.size() - std::min(room, text.size()));
}
std::string_view head(std::string_view text, std::size_t room) noexcept {
  return firstOf(text, std::min(room, text.size()));
}

void join(char *pTo, std::string_view first, std::string_view second) noexcept {
  pTo = std::copy(first.begin(), first.end(), pTo);
  pTo = std::copy(second.begin(), second.end(), pTo);
  *pTo = '\0';
}

}  // namespace

// Moves to the next chunk that is not empty. Changes nothing at the end.
bool PortInput::step() noexcept {
  const MEMPortChunk *pBefore = pCurrent_;
  const MEMPortChunk *pChunk = pCurrent_ == nullptr ? pFirst_ : pCurrent_->pNext;
  for (; pChunk != nullptr; pBefore = pChunk, pChunk = pChunk->pNext) {
    if (pChunk->Used <= 0) continue;
    pBefore_ = pBefore;
    pCurrent_ = pChunk;
    pStart_ = pChunk->Text;
    pNext_ = pStart_;
    pEnd_ = pStart_ + pChunk->Used;
    return true;
  }
  return false;
}

bool PortInput::hasAtLeast(std::uint64_t count) noexcept {
  for (; counted_ < count && pUncounted_ != nullptr; pUncounted_ = pUncounted_->pNext) {
    counted_ += textOf(*pUncounted_).size();
  }
  return counted_ >= count;
}

Excerpts PortInput::excerpts() const noexcept {
  Excerpts made;
  made.position = static_cast<std::int32_t>(consumed().size());
  const std::string_view read = tail(consumed(), Excerpts::kLen);
  const std::string_view next = head(unread(), Excerpts::kLen);
  std::string_view before;
  std::string_view after;
  if (pBefore_ != nullptr) before = tail(textOf(*pBefore_), Excerpts::kLen - read.size());
  if (pCurrent_ != nullptr && pCurrent_->pNext != nullptr) {
    after = head(textOf(*pCurrent_->pNext), Excerpts::kLen - next.size());
  }
  join(made.read, before, read);
  join(made.next, next, after);
  return made;
}

bool PortScanner::failAtEnd() noexcept {
  return fail(kPointEnd, "End of port string reached!");
}

bool PortScanner::unget() noexcept {
  return input_.pushBack() || fail(kPointPushBack, "Cannot push back more than one char!");
}

std::optional<std::uint64_t> PortScanner::longNumber() noexcept {
  ReversedDigits digits;
  for (;;) {
    const std::string_view text = run();
    if (text.empty()) return std::nullopt;
    const char *const pEnd = text.data() + text.size();
    const char *const pBehind = digits.take(text.data(), pEnd);
    moveTo(pBehind);
    if (pBehind != pEnd) return digits.value();
  }
}

bool PortScanner::fail(const MessagePoint &point, const char *pMessage) noexcept {
  const Excerpts excerpts = input_.excerpts();
  frame_.traceException(point.routine, point.line,
                        "(%s:%d)ERROR:%s\nPosition: %ld\nRead:%s\nNext:%s", kSourcePort, point.line,
                        pMessage, excerpts.position, excerpts.read, excerpts.next);
  return false;
}

}  // namespace memlib
