// Damaged chains: copies of a valid one with a few changes that a reader must survive.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <utility>

#include "chainwriter.hpp"
#include "randomrun.hpp"

namespace memtest {

// Numbers around which something changes.
inline constexpr std::uint16_t kEdgeNumbers[] = {
    0,    1,    2,    3,     4,     7,   8,   9,      21,     24,     25,     63,     64,
    0x7F, 0x80, 0xFF, 0x100, 0x1FF, 984, 985, 0x7FFE, 0x7FFF, 0x8000, 0x8001, 0xFFFE, 0xFFFF};

// Damages copies of one valid chain.
class ChainMutator {
 public:
  ChainMutator(Random &random, const chainwriter::Tree &tree, const chainwriter::Chain &chain)
      : random_(random), tree_(tree), original_(chain), chain_(chain) {}

  // A few changes; more than one of them makes defects that only show together.
  const chainwriter::Chain &next() {
    chain_ = original_;
    for (std::size_t changes = random_.between(1, 4); changes > 0; --changes) change();
    return chain_;
  }

 private:
  struct Where {
    std::size_t block;
    std::size_t offset;
  };

  void change() {
    switch (random_.below(10)) {
      case 0:
        return flipBit();
      case 1:
        return setAnywhere();
      case 2:
        return swapRanges();
      case 3:
        return shorten();
      case 4:
        return setControlBlock();
      default:
        return redirect();
    }
  }

  std::size_t anyBlock() { return random_.below(chain_.blocks.size()); }
  Where anyPlace(std::size_t width) {
    const std::size_t block = anyBlock();
    const std::size_t room = chain_.blocks[block].size();
    return {block, room <= width ? 0 : random_.below(room - width + 1)};
  }
  std::uint16_t anyNumber() {
    if (random_.oneIn(4)) return static_cast<std::uint16_t>(random_.bits());
    return kEdgeNumbers[random_.below(std::size(kEdgeNumbers))];
  }

  void flipBit() {
    const Where where = anyPlace(1);
    std::uint8_t &byte = chain_.blocks[where.block][where.offset];
    byte = static_cast<std::uint8_t>(byte ^ (1U << random_.below(8)));
  }

  void setAnywhere() {
    const Where where = anyPlace(2);
    chain_.setNumber({where.block, where.offset}, anyNumber());
  }

  void swapRanges() {
    const std::size_t length = random_.between(1, 16);
    const Where one = anyPlace(length);
    const Where other = anyPlace(length);
    for (std::size_t i = 0; i < length; ++i) {
      chainwriter::Bytes &oneBlock = chain_.blocks[one.block];
      chainwriter::Bytes &otherBlock = chain_.blocks[other.block];
      if (one.offset + i >= oneBlock.size() || other.offset + i >= otherBlock.size()) return;
      std::swap(oneBlock[one.offset + i], otherBlock[other.offset + i]);
    }
  }

  void shorten() {
    const std::size_t block = anyBlock();
    const std::size_t used = chain_.blocks[block].size();
    const std::size_t shorter = random_.oneIn(4) ? random_.below(9) : random_.below(used + 1);
    chain_.setUsedLen(block, static_cast<std::uint16_t>(std::min(shorter, used)));
  }

  // Counts, types, offsets and kinds of the descriptors.
  void setControlBlock() {
    const std::size_t kind = random_.below(tree_.kinds.size());
    const std::size_t header = 2 * random_.below(5);
    const std::size_t entry = random_.below(8);
    switch (random_.below(4)) {
      case 0:
        return chain_.setNumber(chainwriter::Chain::countPlace(), anyNumber());
      case 1:
        return chain_.setNumber({0, chain_.descriptorPlace(kind).offset + header}, anyNumber());
      case 2:
        return chain_.setNumber(chain_.referenceEntryPlace(kind, entry), smallOffset());
      default: {
        const std::size_t at = chain_.childEntryPlace(kind, entry).offset;
        if (random_.oneIn(2)) {
          return chain_.setNumber({0, at}, static_cast<std::uint16_t>(random_.below(10)));
        }
        return chain_.setNumber({0, at + 2}, smallOffset());
      }
    }
  }
  std::uint16_t smallOffset() {
    if (random_.oneIn(4)) return anyNumber();
    return static_cast<std::uint16_t>(random_.below(80) - 16);
  }

  // Lets a pointer lead to some item, or near to it, so that items overlap.
  void redirect() {
    const std::size_t node = random_.below(tree_.nodes.size());
    const auto &parts = tree_.kinds[tree_.nodes[node].kind].parts;
    if (parts.empty()) return;
    const std::size_t part = random_.below(parts.size());
    chainwriter::Place target = chain_.places[random_.below(chain_.places.size())];
    if (random_.oneIn(2)) target.offset += random_.below(40) - 20;
    if (random_.oneIn(30)) target = {anyNumber(), anyNumber()};
    const chainwriter::Place field = chain_.partPlace(tree_, node, part);
    if (field.offset + 4 <= chain_.blocks[field.block].size()) chain_.setPointer(field, target);
  }

  Random &random_;
  const chainwriter::Tree &tree_;
  const chainwriter::Chain &original_;
  chainwriter::Chain chain_;
};

// One mutant in five comes with a damaged control block of the caller's.
inline chainwriter::Bytes callersControlBlock(Random &random, const chainwriter::Tree &tree) {
  chainwriter::Bytes bytes = chainwriter::readersControlBlock(tree);
  if (!random.oneIn(5)) return bytes;
  const std::size_t used = 2 + 122 * tree.kinds.size();
  for (std::size_t changes = random.between(1, 3); changes > 0; --changes) {
    const std::size_t at = 2 + 2 * random.below((used - 2) / 2);
    const auto small = static_cast<std::uint16_t>(random.below(90));
    const std::uint16_t number =
        random.oneIn(2) ? small : kEdgeNumbers[random.below(std::size(kEdgeNumbers))];
    std::memcpy(bytes.data() + at, &number, sizeof number);
  }
  return bytes;
}

}  // namespace memtest
