// The list of wrong uses of services that a host has seen. Any thread may report and take.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "refhost.hpp"

namespace refhost {

class MisuseLog {
 public:
  void report(Service service, std::string what) {
    const std::lock_guard lock(mutex_);
    misuses_.push_back({service, std::move(what)});
  }

  std::vector<Misuse> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(misuses_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<Misuse> misuses_;
};

}  // namespace refhost
