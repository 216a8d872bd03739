// Chains of foreign writers for benchmarks: a catalogue of records with texts, and the blocks in
// one area, which one copy restores.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "chainwriter.hpp"
#include "qj7mem00/qj7mem00.h"

namespace bench {

inline constexpr std::size_t kForeignBlockLen = 2048;

// Records, each with a narrow and a wide text of its own, for about `blocks` blocks.
inline chainwriter::Tree recordsFor(std::size_t blocks, const chainwriter::Writer &writer) {
  using chainwriter::child;
  using chainwriter::data;
  using chainwriter::Form;
  using chainwriter::kNone;
  using chainwriter::sibling;
  const std::size_t record = 3 * writer.pointerWidth + 16 + 15 + 4 * 9;
  const std::size_t room =
      blocks * (kForeignBlockLen - 40) - chainwriter::smallestBlockLen({}, writer);
  chainwriter::Tree tree;
  tree.kinds = {
      {Form::Fixed, {sibling(), child(1), child(2), data(16)}}, {Form::Narrow}, {Form::Wide}};
  const std::size_t count = std::max<std::size_t>(room / record, 1);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t node = tree.nodes.size();
    const std::size_t next = i + 1 < count ? node + 3 : kNone;
    tree.nodes.push_back({0, chainwriter::Bytes(16, 7), {next, node + 1, node + 2}});
    tree.nodes.push_back({1, {}, {}, "a-package-name"});
    tree.nodes.push_back({2, {}, {}, {}, U"describe"});
  }
  return tree;
}

// The blocks of a chain in one area.
class LoadedChain {
 public:
  explicit LoadedChain(const chainwriter::Chain &chain) {
    std::vector<std::size_t> starts;
    std::size_t end = 0;
    for (const chainwriter::Bytes &block : chain.blocks) {
      starts.push_back(end);
      end += (8 + block.size() + 7) / 8 * 8;
    }
    area_.resize(end);
    fresh_.resize(end);
    for (std::size_t i = 0; i < starts.size(); ++i) {
      const std::uint8_t *const next =
          i + 1 < starts.size() ? area_.data() + starts[i + 1] : nullptr;
      std::memcpy(fresh_.data() + starts[i], &next, sizeof next);
      std::memcpy(fresh_.data() + starts[i] + 8, chain.blocks[i].data(), chain.blocks[i].size());
    }
  }

  void restore() { std::memcpy(area_.data(), fresh_.data(), fresh_.size()); }
  MemPackBlock *first() { return reinterpret_cast<MemPackBlock *>(area_.data()); }
  std::size_t size() const { return area_.size(); }

 private:
  std::vector<std::uint8_t> area_;
  std::vector<std::uint8_t> fresh_;
};

}  // namespace bench
