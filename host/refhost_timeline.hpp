// The calls of a run as trace events in JSON, which browsers show on a time line: one object a
// line, a begin and an end for each call, an instant for each trace record. Any thread may call any
// member.
//
// Begins and ends nest on each thread, even after a fault: a call that was cut off ends with the
// call around it, and calls that are open when the time line ends are ended there.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "refhost.hpp"

namespace refhost {

// Nanoseconds since the host was made.
class HostClock {
 public:
  std::uint64_t now() const;

 private:
  const std::uint64_t start_ = ticks();

  static std::uint64_t ticks();
};

class Timeline {
 public:
  explicit Timeline(const HostClock &clock) : clock_(clock) {}
  ~Timeline();
  Timeline(const Timeline &) = delete;
  Timeline &operator=(const Timeline &) = delete;

  // Whether a time line is being written.
  bool isOn() const { return isOn_.load(std::memory_order_relaxed); }

  // Ends the current time line and begins one in a file; with an empty path it begins none. Throws
  // std::runtime_error if the file cannot be written.
  void toFile(const std::filesystem::path &path);

  // A call begins on a thread. `depth` is the number of calls that are then open there.
  void begin(std::uint64_t thread, std::size_t depth, const char *name);

  // Calls end on a thread until `depth` are open: one call with its result, or several that a fault
  // has cut off.
  void endTo(std::uint64_t thread, std::size_t depth, std::optional<std::uint32_t> result = {});

  // A thread has ended, with all its calls.
  void endThread(std::uint64_t thread);

  // A trace record has been written.
  void mark(const TraceRecord &record);

 private:
  // Depths of the calls that are open on a thread, the outermost first.
  using OpenCalls = std::vector<std::size_t>;

  OpenCalls &callsOf(std::uint64_t thread);
  void writeEnd(std::uint64_t thread, std::optional<std::uint32_t> result);
  void write(char phase, std::uint64_t thread, const std::string &more);
  void finish();

  const HostClock &clock_;
  std::atomic<bool> isOn_{false};

  std::mutex mutex_;
  std::ofstream file_;
  bool isFirst_ = true;  // no event has been written
  std::map<std::uint64_t, OpenCalls> open_;
};

}  // namespace refhost
