// Whether a packed chain under construction is as its invariants say. Nothing is changed.
#pragma once

#include <cstdint>

namespace memlib {

class ChainBuilder;
struct PlacedItem;

class ChainCheck {
 public:
  // The whole chain: its blocks in order, their used lengths, and zero behind these. True of one
  // that has not been started.
  static bool isValid(const ChainBuilder &chain) noexcept;

  // That an item of `length` bytes is the last one of the current block, which ends with it.
  static bool isLast(const ChainBuilder &chain, const PlacedItem &item,
                     std::int64_t length) noexcept;
};

}  // namespace memlib
