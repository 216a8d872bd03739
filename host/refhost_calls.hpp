// Recording of service calls and injection of failures. Both are off by default and then cost a
// service one relaxed load. Any thread may call any member.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "refhost.hpp"

namespace refhost {

class CallLog {
 public:
  // Whether calls must be passed to begin().
  bool isWatching() const { return watching_.load(std::memory_order_relaxed); }

  struct Begun {
    std::uint64_t number = 0;    // for finish; 0: not recorded
    std::optional<Fault> fault;  // set if this call must fail
  };
  Begun begin(HostCall call);
  void finish(std::uint64_t number, std::uint64_t result);

  void record(bool on);
  std::vector<HostCall> take();

  void arm(Fault fault);
  void disarm();
  std::uint64_t fired() const;

 private:
  std::optional<Fault> fire(Service service);
  void updateWatching();

  std::atomic<bool> watching_{false};  // recording, or a fault is armed

  mutable std::mutex mutex_;
  bool recording_ = false;
  std::vector<HostCall> calls_;
  std::uint64_t firstNumber_ = 1;                           // number of calls_[0]
  std::array<std::optional<Fault>, kServiceCount> faults_;  // nth counts down to 1
  std::uint64_t fired_ = 0;
};

}  // namespace refhost
