// Texts as the sink compares them: an input is a byte string of known length, a copy ends with two
// zero bytes at an even position. Narrow and wide texts of equal bytes are equal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace memlib {

// A caller's text with its length.
struct SinkText {
  const std::uint8_t *pBytes;
  std::size_t length;  // bytes without terminator; even for wide text
  bool isWide;
};

SinkText measureText(const void *pText, bool isWide) noexcept;

// The sink comparison: below zero, zero or above zero if the input sorts before the copy, equals it
// or sorts after it. Compares unsigned bytes. `room` is the number of bytes from the copy's start
// to the end of its string space.
int PSTssecmp(const SinkText &input, const std::uint8_t *pCopy, std::size_t room) noexcept;

// Position of the two zero bytes that end a copy.
std::size_t copyEnd(const std::uint8_t *pCopy) noexcept;

}  // namespace memlib
