// The kinds of cases. Each makes its materials from a seed and shows the library's work on them to
// a watch. A case leaves nothing that the next one could see.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "caselog.hpp"
#include "casestorage.hpp"
#include "randomrun.hpp"

namespace replay {

using memtest::Random;

// What makes a run differ on purpose, to check that a comparison reports it.
struct Settings {
  bool oldControlBlock = false;  // every packer writes the old control block
};

// One case of a kind.
using CaseFunction = void (*)(Watch &watch, Random &random, const Settings &settings);

void graphsCase(Watch &watch, Random &random, const Settings &settings);
void textsCase(Watch &watch, Random &random, const Settings &settings);
void mutantsCase(Watch &watch, Random &random, const Settings &settings);
void callsCase(Watch &watch, Random &random, const Settings &settings);

// Material that all mutants share, made before the first one.
void prepareMutants();

// Trace flags of a case: often none, sometimes all.
inline std::uint32_t anyTraceFlags(Random &random) {
  constexpr std::uint32_t kFlags[] = {0, 0, 0, 1, 2, 3, 0x13, 0x103, 0x80000003, 0xFFFFFFFF};
  return kFlags[random.below(std::size(kFlags))];
}

// A heap of the library's in a subpool of its own.
class CaseHeap {
 public:
  CaseHeap(Watch &watch, std::int16_t areaKb, std::uint16_t subPool);
  ~CaseHeap();
  CaseHeap(const CaseHeap &) = delete;
  CaseHeap &operator=(const CaseHeap &) = delete;

  bool isOpen() const { return heap_ != nullptr; }
  HMEMHEAP get() const { return heap_; }
  void show() { watch_.storage(subPool_); }

 private:
  Watch &watch_;
  const std::uint16_t subPool_;
  HMEMHEAP heap_ = nullptr;
};

// Makes something at fixed addresses.
template <class Made, class... Args>
void makeFixed(std::optional<Made> &place, Args &&...args) {
  const FixedPlace fixed;
  place.emplace(std::forward<Args>(args)...);
}

// A copy of something at fixed addresses.
template <class Made>
void copyFixed(std::optional<Made> &place, const Made &from) {
  makeFixed(place, from);
}

// Leaves of one byte at addresses some bytes apart, below a list of branches. So many that the
// library looks them up by an index.
class Leaves {
 public:
  static constexpr std::size_t kOfBranch = 24;
  struct Branch {
    Branch *next;
    const std::uint8_t *leaves[kOfBranch];
    const std::uint8_t *seen;  // some leaf, or none
  };

  explicit Leaves(Random &random);
  const Branch *root() const { return branches_.data(); }

 private:
  std::vector<std::uint8_t> storage_;
  std::vector<Branch> branches_;
};

// The blocks of a chain, each of `blockLen` bytes; 0: each as long as its used length says.
void showChain(Watch &watch, std::string_view what, const MemPackBlock *first, std::size_t blockLen,
               bool isSwapped = false);
void returnChain(Watch &watch, MemPackBlock *first, std::uint32_t blockLen);

void setOldControlBlock(Watch &watch, bool isOld);

// Reads a text in one piece (`chunkLen` 0) or in chunks, and shows what was made.
std::int16_t readText(Watch &watch, const MEMStructDef *defs, std::string_view text,
                      std::size_t chunkLen, const CaseHeap &heap, void **ppRoot);

}  // namespace replay
