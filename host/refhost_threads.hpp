// What the host keeps for each running thread, and how a thread finds its own.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "refhost.hpp"

namespace refhost {

// The frames that are open on a thread, in the order of entering. Their names are kept here because
// a frame no longer exists after a fault or an exception has ended its function.
class OpenFrames {
 public:
  void enter(const MEMTraceFrame *frame) {
    if (depth_ < kMostKept) kept_[depth_] = {frame, frame->pName == nullptr ? "" : frame->pName};
    ++depth_;
  }

  // The innermost frame is left.
  void leave() {
    if (depth_ != 0) --depth_;
  }

  // Makes `frame` the innermost again.
  void unwindTo(const MEMTraceFrame *frame) {
    while (depth_ > kMostKept || (depth_ != 0 && kept_[depth_ - 1].frame != frame)) --depth_;
  }

  std::size_t depth() const { return depth_; }

  // The outermost first. Frames nested deeper than kMostKept have no names.
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < keptCount(); ++i) names.emplace_back(kept_[i].name);
    return names;
  }
  bool areNamed(const std::vector<std::string> &names) const {
    if (names.size() != keptCount()) return false;
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (names[i] != kept_[i].name) return false;
    }
    return true;
  }

 private:
  static constexpr std::size_t kMostKept = 64;

  struct Kept {
    const MEMTraceFrame *frame;
    const char *name;
  };

  std::size_t keptCount() const { return depth_ < kMostKept ? depth_ : kMostKept; }

  std::array<Kept, kMostKept> kept_{};
  std::size_t depth_ = 0;
};

// State of one thread. Only that thread uses it; any thread may read the call counts.
class ThreadState {
 public:
  ThreadState();  // with a number that no thread of the process had before
  ThreadState(const ThreadState &) = delete;
  ThreadState &operator=(const ThreadState &) = delete;

  // There is one writer, so an add without a locked instruction is enough.
  void count(Service service) {
    std::atomic<std::uint64_t> &calls = calls_[static_cast<std::size_t>(service)];
    calls.store(calls.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  std::uint64_t calls(Service service) const {
    return calls_[static_cast<std::size_t>(service)].load(std::memory_order_relaxed);
  }

  // Text of the thread's own trace buffer, kTraceTextRoom bytes. A test may put another buffer into
  // the environment.
  char *traceText() { return reinterpret_cast<char *>(traceBytes_) + offsetof(MEMTraceBuf, Text); }

  const std::uint64_t number;  // from 1; that of its frames and gates, also after its end
  MEMThreadEnv env{};
  MEMTraceFrame *innermost = nullptr;  // frame entered last, linked by pHostLink to the one before
  OpenFrames frames;
  const std::vector<std::string> *lastChain = nullptr;  // result of its last ChainTable::current

 private:
  std::array<std::atomic<std::uint64_t>, kServiceCount> calls_{};
  // A MEMTraceBuf, then its text.
  alignas(MEMTraceBuf) std::byte traceBytes_[offsetof(MEMTraceBuf, Text) + kTraceTextRoom] = {};
};

// All threads that have called a host and have not ended.
class ThreadTable {
 public:
  ThreadTable();

  // The calling thread's state, made at first use. Costs two loads of thread-local memory.
  ThreadState &current() {
    return ownState_.generation == generation_ ? *ownState_.state : addThread();
  }

  // Takes the calling thread, which ends, out of the table. Null if no thread of the table has the
  // number.
  std::unique_ptr<ThreadState> remove(std::uint64_t number);

  std::uint64_t calls(Service service) const;
  void resetCalls();

 private:
  // The calling thread's state. The generation shows whether its table still exists.
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
