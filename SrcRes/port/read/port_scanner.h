// Shared by the structure reader and the field readers: the input, the primitives to read it, each
// with its message, and the caller's heap.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "frame/callframe.h"
#include "platform/check.h"
#include "port/port_defs.h"
#include "port/words.h"
#include "qj7mem00/memport.h"
#include "qj7mem00/memvect.h"

namespace memlib {

// A reader's position, the text that it read last and the text that comes next.
struct Excerpts {
  static constexpr std::size_t kLen = 80;
  std::int32_t position = 0;  // in the current chunk
  char read[kLen + 1] = {};
  char next[kLen + 1] = {};
};

// The port string being read: a chain of chunks or one block of characters. Reading continues from
// chunk to chunk; a character can be pushed back only within the current chunk.
class PortInput {
 public:
  // Reads nothing, so construction is safe outside the fault guard.
  explicit PortInput(const MEMPortChunk *pFirst) noexcept : pFirst_(pFirst), pUncounted_(pFirst) {}
  PortInput(const char *pText, std::uint32_t length) noexcept
      : counted_(length), pStart_(pText), pNext_(pText), pEnd_(pText + length) {}

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

  // True when the whole input has at least `count` characters. Looks at no more chunks than that
  // needs: a text may end before a chunk that cannot be read.
  bool hasAtLeast(std::uint64_t count) noexcept;

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

  const MEMPortChunk *pUncounted_ = nullptr;  // the chunks from here on are not in counted_
  std::uint64_t counted_ = 0;                 // characters

  // The current chunk's characters and the next one to read.
  const char *pStart_ = nullptr;
  const char *pNext_ = nullptr;
  const char *pEnd_ = nullptr;
};

// True for the characters that end a field's text: the separator or the end of the fields.
constexpr bool isFieldEnd(char c) noexcept {
  return c == '/' || c == '>';
}

class PortScanner {
 public:
  PortScanner(CallFrame &frame, const PortInput &input, HMEMHEAP hMemHeap) noexcept
      : frame_(frame), input_(input), hMemHeap_(hMemHeap) {}

  // The next character. False, reported, at the end of the input.
  bool get(char &c) noexcept { return input_.next(c) || failAtEnd(); }
  // Steps back one character. False, reported, at the start of the current chunk.
  bool unget() noexcept;
  // Reads a character that must be `expected`. Reports `pMessage` for any other character.
  bool expect(char expected, const MessagePoint &point, const char *pMessage) noexcept {
    char c = 0;
    if (!get(c)) return false;
    return c == expected || fail(point, pMessage);
  }

  // Reads any number of reversed digits; none give 0. Excess digits wrap in the type. Optimised for
  // few digits with more text after them.
  template <class Number>
  bool number(Number &value) noexcept {
    if (end() - at() >= static_cast<std::ptrdiff_t>(kTextWordLen)) {
      const ShortNumber digits = shorterNumber(at());
      if (digits.pBehind != nullptr) {
        value = digits.value;
        moveTo(digits.pBehind);
        return true;
      }
    }
    const std::optional<std::uint64_t> wide = longNumber();
    if (wide) value = static_cast<Number>(*wide);
    return wide.has_value();
  }

  // The next contiguous unread characters; empty, reported, at the end of the input.
  std::string_view run() noexcept {
    const std::string_view text = input_.rest();
    if (text.empty()) failAtEnd();
    return text;
  }
  void skip(std::size_t count) noexcept { input_.skip(count); }

  // Begin and end of the unread characters of the current chunk, which may be none. To read many of
  // them, keep the position in a local variable and call moveTo() before any other function reads.
  const char *at() const noexcept { return input_.at(); }
  const char *end() const noexcept { return input_.end(); }
  void moveTo(const char *pNext) noexcept { input_.moveTo(pNext); }

  // True when the whole input has at least `count` characters.
  bool inputHasAtLeast(std::uint64_t count) noexcept { return input_.hasAtLeast(count); }

  // The caller's heap.
  HMEMHEAP heap() const noexcept { return hMemHeap_; }

  // An entry of the caller's heap, or null with the heap's error recorded.
  void *allocate(std::int64_t length) noexcept { return heapEntry(hMemHeap_, length); }

  // Writes an error record with the position and the text around it; always false.
  MEM_NOINLINE bool fail(const MessagePoint &point, const char *pMessage) noexcept;

  bool tracesSkipped() const noexcept { return frame_.isTraced(MEM_TRACE_SKIPPED); }

 private:
  MEM_NOINLINE bool failAtEnd() noexcept;
  MEM_NOINLINE std::optional<std::uint64_t> longNumber() noexcept;

  CallFrame &frame_;
  PortInput input_;
  const HMEMHEAP hMemHeap_;
};

}  // namespace memlib
