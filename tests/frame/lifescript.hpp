// One life of a process, as a script of calls through every entry point of the vector: started,
// used, ended. A script can be run while host services fail: a step whose objects an earlier
// failure has taken away is passed over, and what a failing step must leave is written next to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "memtest.hpp"

namespace memtest {

struct LifeMaterials;

// Storage that was allocated, filled with a pattern of its own, so that overlapping entries and
// stray writes show when all patterns are looked at again.
class Patterns {
 public:
  void add(void *area, std::size_t length);
  void forget(const void *area);
  void clear() { areas_.clear(); }
  // "" while every byte is as it was filled.
  std::string damage() const;

 private:
  struct Area {
    std::uint8_t *start;
    std::size_t length;
    std::uint8_t pattern;
  };
  std::vector<Area> areas_;
  std::uint8_t next_ = 1;
};

// What the script holds between its steps. Members are null or empty while there is none.
struct Life {
  explicit Life(refhost::Host &theHost);
  Life(const Life &) = delete;
  Life &operator=(const Life &) = delete;

  refhost::Host &host;
  MEMFunctionVector &mem;
  const LifeMaterials &materials;

  bool isProcessStarted = false;
  bool isThreadStarted = false;
  bool isSinkStarted = false;
  void *area = nullptr;
  HMEMHEAP heap = nullptr;
  HMEMHEAP sharedHeap = nullptr;
  void *sharedEntry = nullptr;
  void *largeEntry = nullptr;
  HMEMCELL pool = nullptr;
  std::vector<void *> cells;
  HMEMHASH table = nullptr;
  std::vector<std::uint32_t> keys;
  MEMCatCB cat{};
  std::u16string catText;
  MemPackBlock *packed = nullptr;
  bool isPackedWhole = false;
  std::string portText;
  MEMPortChunk *portChunk = nullptr;
  std::vector<std::pair<const char *, std::string>> sunk;
  std::vector<std::pair<const char16_t *, std::u16string>> wideSunk;
  Patterns heapEntries;
  Patterns sharedEntries;
  Patterns cellContents;
};

// A step calls its slot once or several times, up to the first failure. Nothing as its result means
// that it could not be tried.
using StepResult = std::optional<std::int16_t>;

struct Step {
  int slot;
  const char *what;
  StepResult (*run)(Life &);
  // "4055 MemAllocFail": code and name that the error area may show after a failure by the host. A
  // name that ends in '=' goes on with a value.
  std::vector<std::string> failures = {};
  std::int16_t expected = 0;  // the result while the host does its work
};

// How a slot shows its failures.
enum class Telling {
  reported,   // code and name, and the host was asked to report
  inner,      // process start: in the inner fields, not reported
  byNullOnly  // MEM_Alloc records nothing
};
Telling tellingOf(int slot);

const std::vector<Step> &lifeScript();

// With the host doing its work again: closes and returns what failing steps have left open, and
// ends thread and process. Nothing is left then.
void endLife(Life &life);

}  // namespace memtest
