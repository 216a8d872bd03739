// The misuses of services that a host has detected, a list of bounded length. Any thread may call
// any member.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "refhost.hpp"

namespace refhost {

class MisuseLog {
 public:
  void report(Misuse misuse) {
    const std::lock_guard lock(mutex_);
    if (misuses_.size() < kKeptMisuses) {
      misuses_.push_back(std::move(misuse));
    } else {
      ++notKept_;
      lastNotKept_ = misuse.service;
    }
  }

  std::vector<Misuse> take() {
    const std::lock_guard lock(mutex_);
    if (notKept_ != 0) {
      misuses_.push_back({lastNotKept_, formatText("%llu more misuses were not kept", notKept_)});
      notKept_ = 0;
    }
    return std::exchange(misuses_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<Misuse> misuses_;
  std::uint64_t notKept_ = 0;
  Service lastNotKept_{};
};

}  // namespace refhost
