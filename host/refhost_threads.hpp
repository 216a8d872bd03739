// What the host keeps for each thread that runs, and how a thread finds its own.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "refhost.hpp"

namespace refhost {

// State of one thread. Only that thread touches it, but for the call counts, which any thread may
// read.
class ThreadState {
 public:
  ThreadState();  // with a number that no thread of the process had before
  ThreadState(const ThreadState &) = delete;
  ThreadState &operator=(const ThreadState &) = delete;

  // One writer, so a plain add without a locked instruction does.
  void count(Service service) {
    std::atomic<std::uint64_t> &calls = calls_[static_cast<std::size_t>(service)];
    calls.store(calls.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  std::uint64_t calls(Service service) const {
    return calls_[static_cast<std::size_t>(service)].load(std::memory_order_relaxed);
  }

  // Text of the thread's own trace buffer, kTraceTextRoom bytes. The environment may name another
  // buffer: it is the tests' to change.
  char *traceText() { return reinterpret_cast<char *>(traceBytes_) + offsetof(MEMTraceBuf, Text); }

  const std::uint64_t number;  // from 1; names the thread in frames and gates, also after its end
  MEMThreadEnv env{};
  MEMTraceFrame *innermost = nullptr;  // frame entered last, linked by pHostLink to the one before

 private:
  std::array<std::atomic<std::uint64_t>, kServiceCount> calls_{};
  // A MEMTraceBuf with its text behind it.
  alignas(MEMTraceBuf) std::byte traceBytes_[offsetof(MEMTraceBuf, Text) + kTraceTextRoom] = {};
};

// All threads that a host has seen and that have not ended.
class ThreadTable {
 public:
  ThreadTable();

  // The calling thread's state, made at first use. Costs two loads of thread-local memory.
  ThreadState &current() {
    return ownState_.generation == generation_ ? *ownState_.state : addThread();
  }

  // Takes the calling thread, which ends, out of the table. Null when the number is not a thread of
  // this table's.
  std::unique_ptr<ThreadState> remove(std::uint64_t number);

  std::uint64_t calls(Service service) const;
  void resetCalls();

 private:
  // A thread's way to its state. A table that no longer exists is recognised by its generation.
  struct OwnState {
    std::uint64_t generation;
    ThreadState *state;
  };

  ThreadState &addThread();
  std::uint64_t totalCalls(std::size_t service) const;

  static constinit thread_local OwnState ownState_;

  const std::uint64_t generation_;  // never used before in this process, from 1
  mutable std::mutex mutex_;
  std::unordered_map<std::uint64_t, std::unique_ptr<ThreadState>> threads_;  // by number
  std::array<std::uint64_t, kServiceCount> callsOfEnded_{};
  std::array<std::uint64_t, kServiceCount> callsBeforeReset_{};
};

}  // namespace refhost
