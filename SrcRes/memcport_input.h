// The port string being read: a chain of chunks or one block of characters. Reading goes on from
// chunk to chunk; only within the current chunk can a character be pushed back.
#pragma once

#include <cstdint>
#include <string_view>

#include "memcport_message.h"
#include "qj7mem00/memport.h"
#include "textparts.h"

namespace mem {

class PortInput {
 public:
  // Nothing is read here: construction is safe outside the fault guard.
  explicit PortInput(const MEMPortChunk *pFirst) noexcept : pFirst_(pFirst) {}
  PortInput(const char *pText, std::uint32_t length) noexcept : current_(pText, length) {}

  // The next character; false at the end.
  bool next(char &c) noexcept {
    if (position_ == current_.size() && !step()) return false;
    c = current_[position_++];
    return true;
  }

  // What is left of the current chunk, or of the next one that holds anything; empty at the end.
  std::string_view rest() noexcept {
    if (position_ == current_.size() && !step()) return {};
    return behind(current_, position_);
  }
  // REQUIRES: count <= rest().size().
  void skip(std::size_t count) noexcept { position_ += count; }

  // False at the start of the current chunk.
  bool pushBack() noexcept {
    if (position_ == 0) return false;
    --position_;
    return true;
  }

  // Characters of the whole input.
  std::uint64_t length() const noexcept;

  // Position and surroundings, for messages.
  Excerpts excerpts() const noexcept;

 private:
  bool step() noexcept;
  const MEMPortChunk *previous() const noexcept;

  const MEMPortChunk *pFirst_ = nullptr;    // null for one block of characters
  const MEMPortChunk *pCurrent_ = nullptr;  // null before the first chunk, too
  std::string_view current_;
  std::size_t position_ = 0;  // in current_
};

}  // namespace mem
