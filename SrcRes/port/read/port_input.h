// The port string being read: a chain of chunks or one block of characters. Reading continues from
// chunk to chunk; a character can be pushed back only within the current chunk.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/check.h"
#include "qj7mem00/memport.h"

namespace memlib {

// A reader's position, the text that it read last and the text that comes next.
struct Excerpts {
  static constexpr std::size_t kLen = 80;
  std::int32_t position = 0;  // in the current chunk
  char read[kLen + 1] = {};
  char next[kLen + 1] = {};
};

class PortInput {
 public:
  // Reads nothing, so construction is safe outside the fault guard.
  explicit PortInput(const MEMPortChunk *pFirst) noexcept : pFirst_(pFirst) {}
  PortInput(const char *pText, std::uint32_t length) noexcept
      : pStart_(pText), pNext_(pText), pEnd_(pText + length) {}

  // The next character; false at the end.
  bool next(char &c) noexcept {
    if (pNext_ == pEnd_ && !step()) return false;
    c = *pNext_++;
    return true;
  }

  // The unread rest of the current chunk, or of the next chunk that is not empty; empty at the end.
  std::string_view rest() noexcept {
    if (pNext_ == pEnd_) step();
    return unread();
  }
  // REQUIRES: count <= rest().size().
  void skip(std::size_t count) noexcept {
    MEM_ASSERT(count <= unread().size());
    pNext_ += count;
  }

  // The unread rest of the current chunk, which may be empty.
  std::string_view unread() const noexcept {
    return {pNext_, static_cast<std::size_t>(pEnd_ - pNext_)};
  }
  // The begin and the end of the same.
  const char *at() const noexcept { return pNext_; }
  const char *end() const noexcept { return pEnd_; }
  // Continues reading at `pNext`. REQUIRES: a place from at() to end().
  void moveTo(const char *pNext) noexcept {
    MEM_ASSERT(pNext >= pNext_ && pNext <= pEnd_);
    pNext_ = pNext;
  }

  // False at the start of the current chunk.
  bool pushBack() noexcept {
    if (pNext_ == pStart_) return false;
    --pNext_;
    return true;
  }

  // Number of characters of the whole input.
  std::uint64_t length() const noexcept;

  // Position and surrounding text, for messages.
  Excerpts excerpts() const noexcept;

 private:
  bool step() noexcept;
  std::string_view consumed() const noexcept {
    return {pStart_, static_cast<std::size_t>(pNext_ - pStart_)};
  }

  const MEMPortChunk *pFirst_ = nullptr;    // null for one block of characters
  const MEMPortChunk *pCurrent_ = nullptr;  // null before the first chunk, too
  const MEMPortChunk *pBefore_ = nullptr;   // the one before it; may be empty

  // The current chunk's characters and the next one to read.
  const char *pStart_ = nullptr;
  const char *pNext_ = nullptr;
  const char *pEnd_ = nullptr;
};

}  // namespace memlib
