// One thread of a soak run: mixed calls over objects of its own and over what all threads share,
// each result checked. At the end of a phase it has freed everything.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "randomrun.hpp"
#include "soakstock.hpp"

namespace soak {

class Worker {
 public:
  Worker(refhost::Host &host, Stock &stock, Violations &violations, std::uint64_t seed);

  // REQUIRES: runs on a thread of its own, which is not active yet.
  void run(std::chrono::steady_clock::time_point end);

 private:
  struct Area {
    std::uint8_t *start;
    std::size_t length;
    std::uint8_t pattern;
  };
  struct Heap {
    HMEMHEAP handle;
    std::vector<Area> entries;
  };
  struct Pool {
    HMEMCELL handle = nullptr;
    std::int32_t cellLen = 0;
    std::vector<Area> cells;
  };
  struct Table {
    HMEMHASH handle = nullptr;
    std::map<std::uint32_t, std::uint8_t> records;  // key to filler
  };
  struct Buffer {
    MEMCatCB block{};
    bool isOpen = false;
    std::u16string text;
  };
  struct Held {
    const void *copy = nullptr;
    std::uint64_t uses = 0;
  };

  void step();
  void useArea();
  void useHeap();
  void growHeap(Heap &heap);
  void growHeapByChain(Heap &heap);
  void closeHeap(std::size_t index);
  void useSharedHeap();
  void putShared(std::size_t slot);
  void takeShared(SharedEntry *taken);
  void usePool();
  void openPool();
  void closePool();
  void useTable();
  void insertRecord();
  void deleteRecord();
  void scanTable();
  void closeTable();
  void useBuffer();
  void closeBuffer();
  void usePack();
  void useUnpack();
  void usePort();
  void useSink();
  void sink(std::size_t number);
  void verify(std::size_t number);
  void giveUp(std::size_t number);
  void useWrongly();
  void restartThread();
  void giveAllBack();

  Area filled(void *address, std::size_t length);
  void check(bool isRight, const char *what);
  void checkArea(const Area &area, const char *what);
  void checkDone(std::int16_t result, const char *what);
  void checkRefused(std::int16_t result, std::uint32_t code, const char *what);

  refhost::Host &host_;
  MEMFunctionVector &mem_;
  Stock &stock_;
  Violations &violations_;
  memtest::Random random_;

  std::vector<Heap> heaps_;
  Pool pool_;
  Table table_;
  Buffer buffer_;
  std::vector<Held> held_;
};

}  // namespace soak
