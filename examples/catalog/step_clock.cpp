#include "step_clock.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <thread>

namespace catalog {
namespace {

using Clock = std::chrono::steady_clock;

// Writes the progress lines of one step for as long as the object lives.
class ProgressLines {
 public:
  ProgressLines(std::ostream &stream, const std::string &step)
      : thread_([this, &stream, &step] { write(stream, step); }) {}

  ~ProgressLines() {
    {
      const std::lock_guard lock(mutex_);
      isOver_ = true;
    }
    over_.notify_one();
    thread_.join();
  }

  ProgressLines(const ProgressLines &) = delete;
  ProgressLines &operator=(const ProgressLines &) = delete;

 private:
  void write(std::ostream &stream, const std::string &step) {
    const Clock::time_point start = Clock::now();
    std::unique_lock lock(mutex_);
    for (int seconds = 1;; ++seconds) {
      const auto isOver = [this] { return isOver_; };
      if (over_.wait_until(lock, start + std::chrono::seconds(seconds), isOver)) return;
      stream << "catalog: " << step << " has run for " << seconds << " s" << std::endl;
    }
  }

  std::mutex mutex_;
  std::condition_variable over_;
  bool isOver_ = false;
  std::thread thread_;  // last: it uses the members above
};

}  // namespace

void StepClock::run(const std::string &name, const std::function<void()> &work) {
  const ProgressLines progress(progress_, name);
  const Clock::time_point start = Clock::now();
  work();
  const std::chrono::duration<double, std::milli> elapsed = Clock::now() - start;
  steps_.push_back({name, elapsed.count()});
}

}  // namespace catalog
