// What the threads of a soak run share: prepared structures with what must come of them, pinned
// texts of the sink, the enhanced heap of the current phase and a place to exchange its entries.
// Made before the threads start; but for the exchange, nothing of it changes while they run.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "chainwriter.hpp"
#include "packgraph.hpp"
#include "portgraph.hpp"
#include "refhost.hpp"

namespace soak {

using Bytes = std::vector<std::uint8_t>;

// Wrong results of all threads. The first few are kept as text.
class Violations {
 public:
  void add(const std::string &what);
  std::uint64_t count() const { return count_.load(std::memory_order_relaxed); }
  std::vector<std::string> texts() const;

 private:
  static constexpr std::size_t kKept = 10;
  std::atomic<std::uint64_t> count_ = 0;
  mutable std::mutex mutex_;
  std::vector<std::string> texts_;
};

// An entry of the shared heap, filled with its pattern.
struct SharedEntry {
  void *address;
  std::int32_t length;
  std::uint8_t pattern;
};

// A text of the sink; every third one is wide.
struct SinkText {
  bool isWide;
  std::string narrow;
  std::u16string wide;
};

class Stock {
 public:
  static constexpr std::size_t kStructures = 24;  // of each sort
  static constexpr std::size_t kTexts = 400;
  static constexpr std::size_t kPinned = 100;  // the first ones: main holds them throughout
  static constexpr std::size_t kExchangeSlots = 32;

  explicit Stock(std::uint64_t seed);

  struct Packed {
    std::unique_ptr<memtest::RandomStructure> structure;
    packmodel::Outcome outcome;
  };
  struct Foreign {
    chainwriter::Tree tree;
    chainwriter::Chain chain;
    Bytes controlBlock;
  };
  struct Ported {
    std::unique_ptr<memtest::PortGraph> graph;
    std::string text;
  };

  std::vector<Packed> packed;
  std::vector<Foreign> foreign;
  std::vector<Ported> ported;
  std::vector<SinkText> texts;
  std::array<const void *, kPinned> pinned{};  // where the sink keeps them

  HMEMHEAP sharedHeap = nullptr;
  std::array<std::atomic<SharedEntry *>, kExchangeSlots> exchange{};
};

}  // namespace soak
