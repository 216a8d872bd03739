// Damaged port strings: a rich definition table, sound texts over it, and the reading of hostile
// texts with every heap entry in storage of its own, so that a sanitizer sees each byte that is
// touched beyond its end.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "portdefs.hpp"
#include "randomrun.hpp"
#include "refhost.hpp"

namespace memtest {

// Structures 1, 2 and 30 over all field types: repeat fields of both kinds, embedded structures,
// unions, required, defaulted and truncated fields.
const Defs &richDefs();
inline constexpr std::uint32_t kRichID = 1;

// Sound texts over that table.
std::vector<std::string> soundTexts(std::uint64_t seed, std::size_t count);

// One damaged copy: bytes changed, dropped, doubled, moved, or exchanged with another text's.
std::string mutant(const std::string &text, const std::string &other, Random &random);

// Serves slot 14 with entries of exactly the length asked for, up to a limit for all of them. One
// at a time; the slot keeps the forwarder until the host restores it.
class ExactHeap {
 public:
  explicit ExactHeap(MEMFunctionVector &mem);
  ~ExactHeap() { release(); }
  ExactHeap(const ExactHeap &) = delete;
  ExactHeap &operator=(const ExactHeap &) = delete;

  static constexpr std::int64_t kLimit = 1 << 20;  // bytes
  void release();
  std::int64_t taken() const { return taken_; }

 private:
  static std::int16_t allocate(HMEMHEAP heap, std::int32_t length, void **entry);

  inline static ExactHeap *exact_ = nullptr;
  std::vector<Record> entries_;
  std::int64_t taken_ = 0;
};

// How the reading of a hostile text ended.
struct ReadOutcome {
  std::int16_t status = 0;
  std::string message;  // the first one's head; empty for none
};

// Reads a text as one block of exactly its length, or in chunks of `chunkLen`. Reports "" or what
// went against the contract.
class HostileReader {
 public:
  explicit HostileReader(refhost::Host &host);
  ReadOutcome readBlock(std::string_view text);
  ReadOutcome readChain(std::string_view text, std::size_t chunkLen);
  // What is wrong with an outcome; empty when nothing is.
  static std::string fault(const ReadOutcome &outcome);

 private:
  ReadOutcome finish(std::int16_t status);

  refhost::Host &host_;
  MEMFunctionVector &mem_;
  ExactHeap exact_;
  HMEMHEAP heap_ = nullptr;  // stands for the caller's; slot 14 serves it
};

}  // namespace memtest
