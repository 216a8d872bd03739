// The report of a process to the coordinator, and the times of its work.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "transport.hpp"

namespace exchange {

enum class Work { build, pack, unpack, check, merge, transport };
inline constexpr int kWorkCount = 6;
inline constexpr const char *kWorkNames[kWorkCount] = {"build", "pack",  "unpack",
                                                       "check", "merge", "transport"};

// Nanoseconds of processor time that the calling thread has used.
std::uint64_t processorTime();

// Processor time by kind of work, in nanoseconds. Waiting is not included.
class WorkTimes {
 public:
  std::uint64_t &of(Work work) { return times_[static_cast<std::size_t>(work)]; }
  std::uint64_t of(Work work) const { return times_[static_cast<std::size_t>(work)]; }

  // Calls `doIt` and adds the time that it took.
  template <class Do>
  auto measure(Work work, Do doIt) {
    struct Adder {
      ~Adder() { time += processorTime() - start; }
      std::uint64_t &time;
      std::uint64_t start;
    };
    const Adder adder{of(work), processorTime()};
    return doIt();
  }

 private:
  std::array<std::uint64_t, kWorkCount> times_{};
};

enum class Role { worker, collector };

struct ProcessReport {
  Role role = Role::worker;
  bool isFinal = false;          // else a report of progress
  std::string name;              // "worker 1 (process 4711)"
  std::string problem;           // why the work is not finished; empty: it is
  std::uint64_t jobs = 0;        // of a worker: done; of the collector: merged
  std::uint64_t repeated = 0;    // jobs that had been delivered before
  std::uint64_t doubled = 0;     // results that came twice
  std::uint64_t setAside = 0;    // unusable messages
  std::uint64_t again = 0;       // jobs published again because they had no result
  std::uint64_t jobBytes = 0;    // texts taken
  std::uint64_t chainBytes = 0;  // chains published, or taken
  std::uint64_t packages = 0;    // of the merged catalogue
  std::uint64_t references = 0;
  std::uint64_t storageBytes = 0;  // allocated from the host
  std::uint64_t liveBytes = 0;     // of these, not returned
  std::uint64_t liveCount = 0;
  WorkTimes times;
};

Message messageOf(const ProcessReport &report);
ProcessReport reportFrom(const Message &message);

}  // namespace exchange
