// Checks the invariants of a packed chain under construction. Changes nothing.
#pragma once

#include <cstdint>

namespace memlib {

class ChainBuilder;
struct PlacedItem;

class ChainCheck {
 public:
  // Checks the whole chain: the order of its blocks, their used lengths, and zeros after these.
  // True for a chain that has not been started.
  static bool isValid(const ChainBuilder &chain) noexcept;

  // True when an item of `length` bytes is the last one of the current block and ends it.
  static bool isLast(const ChainBuilder &chain, const PlacedItem &item,
                     std::int64_t length) noexcept;
};

}  // namespace memlib
