// Shows a progress bar on the terminal for work that takes longer than half a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tool_console.hpp"

namespace memtool {

// Draws the bar on one line of stderr from half a second after construction on; the destructor
// clears the line. Writes nothing when stderr is not a terminal. For one thread at a time.
class Progress {
 public:
  Progress(Console &console, std::string label, std::uint64_t total);
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  // Sets the progress to `done` of `total`. Cheap enough for every step of a loop.
  void update(std::uint64_t done) {
    if (isShown_ && (++calls_ & 0xFFU) == 0) redraw(done);
  }
  // The same for work with few, long steps.
  void redraw(std::uint64_t done);

 private:
  using Clock = std::chrono::steady_clock;

  Console &console_;
  std::string label_;
  std::uint64_t total_;
  bool isShown_;
  std::uint32_t calls_ = 0;
  bool isDrawn_ = false;
  Clock::time_point next_;  // earliest time of the next drawing
};

}  // namespace memtool
