// A heap for one call of the port string services, the entries that it allocates, and its messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "tool_library.hpp"

namespace memtool {

// The heap of a call. Closed at destruction, on the thread of construction.
class PortHeap {
 public:
  explicit PortHeap(RunningLibrary &library);
  ~PortHeap();
  PortHeap(const PortHeap &) = delete;
  PortHeap &operator=(const PortHeap &) = delete;

  HMEMHEAP handle() const { return handle_; }

 private:
  RunningLibrary &library_;
  HMEMHEAP handle_ = nullptr;
};

// An entry of a heap. There may be millions of them.
struct PortEntry {
  const void *address = nullptr;
  std::int32_t length = 0;   // in bytes
  std::uint32_t number = 0;  // of the structure in it; 0 for none yet
};
using PortEntries = std::deque<PortEntry>;

// Records all entries of a heap while it exists: the library calls the heap through the vector of
// its host, and the host may replace a slot. So the address and length of every structure and
// string that a reading call makes are known, whatever addresses the text puts into pointers.
// Refuses an entry when all together exceed a limit, because a text of a few characters can ask for
// any length. One at a time.
class PortHeapWatch {
 public:
  PortHeapWatch(RunningLibrary &library, const PortHeap &heap);
  ~PortHeapWatch();
  PortHeapWatch(const PortHeapWatch &) = delete;
  PortHeapWatch &operator=(const PortHeapWatch &) = delete;

  PortEntries takeEntries() { return std::move(entries_); }

 private:
  static MEM_HeapAllocEntryLongFn allocate;
  std::int16_t allocateNoting(HMEMHEAP heap, std::int32_t length, void **entry);

  MEM_HeapAllocEntryLongFn **slot_;
  MEM_HeapAllocEntryLongFn *before_;
  HMEMHEAP heap_;
  PortEntries entries_;
  std::int64_t total_ = 0;
};

// Keeps the records of a call to report why it failed.
class PortMessages {
 public:
  explicit PortMessages(RunningLibrary &library);
  ~PortMessages();
  PortMessages(const PortMessages &) = delete;
  PortMessages &operator=(const PortMessages &) = delete;

  // The first message with its place in the text; without one, that `service` failed.
  std::string reason(std::string_view service);

 private:
  RunningLibrary &library_;
};

}  // namespace memtool
