// Damaged port strings: a rich definition table, valid texts over it, and the reading of hostile
// texts with a fence around every heap entry and every chunk.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fencedstorage.hpp"
#include "portdefs.hpp"
#include "randomrun.hpp"
#include "refhost.hpp"

namespace memtest {

// Structures 1, 2 and 30 over all field types: repeat fields of both kinds, embedded structures,
// unions, required, defaulted and truncated fields.
const Defs &richDefs();
inline constexpr std::uint32_t kRichID = 1;

// Valid texts over that table.
std::vector<std::string> soundTexts(std::uint64_t seed, std::size_t count);

// One damaged copy: bytes changed, dropped, doubled, moved, or exchanged with another text's.
std::string mutant(const std::string &text, const std::string &other, Random &random);

// Serves slot 14 with fenced entries of exactly the length asked for, up to a limit for all of
// them, at the same addresses in every run. One at a time; the slot keeps the forwarder until the
// host restores it.
class ExactHeap {
 public:
  explicit ExactHeap(MEMFunctionVector &mem);
  ExactHeap(const ExactHeap &) = delete;
  ExactHeap &operator=(const ExactHeap &) = delete;

  static constexpr std::int64_t kLimit = 1 << 20;  // bytes
  void release();
  const FencedStorage &entries() const { return entries_; }

 private:
  static std::int16_t allocate(HMEMHEAP heap, std::int32_t length, void **entry);

  inline static ExactHeap *exact_ = nullptr;
  FencedStorage entries_{2 * kLimit};
  std::int64_t taken_ = 0;
};

// How the reading of a hostile text ended.
struct ReadOutcome {
  std::int16_t status = 0;
  std::string message;  // the first one's head; empty for none
  std::vector<refhost::TraceRecord> records;
  // Of the heaps, in the order in which the reader asked for them: its two tables, then structures,
  // strings and what its tables need.
  std::vector<std::string> entries;
  bool isWhole = true;  // nothing was written around the entries
};

// Reads a text as one block of exactly its length, or in chunks of `chunkLen`. Reports "" or what
// went against the contract.
class HostileReader {
 public:
  explicit HostileReader(refhost::Host &host, const Defs &defs = richDefs());
  ReadOutcome readBlock(std::string_view text);
  ReadOutcome readChain(std::string_view text, std::size_t chunkLen);
  // What is wrong with an outcome, writes beyond an entry too; empty when nothing is.
  static std::string fault(const ReadOutcome &outcome);
  // "" or how two readings of a text differ that must not: the status, what is stored, and the
  // records. Those of a chunk report the same place, with shorter excerpts.
  static std::string difference(const ReadOutcome &block, const ReadOutcome &chain,
                                std::string_view text, std::size_t chunkLen);

 private:
  ReadOutcome finish(std::int16_t status);

  refhost::Host &host_;
  MEMFunctionVector &mem_;
  const Defs &defs_;
  ExactHeap exact_;
  std::unique_ptr<FencedStorage> texts_;  // the chunks
  std::size_t textsFor_ = 0;              // characters that there is room for, however cut
  HMEMHEAP heap_ = nullptr;               // stands for the caller's; slot 14 serves it
};

}  // namespace memtest
