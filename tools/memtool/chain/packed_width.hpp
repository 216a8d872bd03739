// How wide the writer's pointers are. The file does not say it; the control block shows it where
// its layouts are those of one kind of compiler only.
#pragma once

#include <cstdint>

#include "packed_chain.hpp"

namespace memtool {

struct PointerWidth {
  std::uint32_t bytes = 8;
  bool isGuess = true;  // the control block fits the other width as well, or neither
};

// The layouts that count are those of the kinds of which there are segments. REQUIRES: the head of
// the chain is read without a fault.
PointerWidth findPointerWidth(const PackedChain &chain);

}  // namespace memtool
