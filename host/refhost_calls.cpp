#include "refhost_calls.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace refhost {

CallLog::Begun CallLog::begin(HostCall call) {
  const std::lock_guard lock(mutex_);
  Begun begun;
  begun.fault = fire(call.service);
  if (recording_) {
    begun.number = firstNumber_ + calls_.size();
    if (begun.fault) call.result = begun.fault->code;
    calls_.push_back(std::move(call));
  }
  return begun;
}

// The record may have been taken while the call ran; its result is then dropped.
void CallLog::finish(std::uint64_t number, std::uint64_t result) {
  const std::lock_guard lock(mutex_);
  if (number >= firstNumber_) calls_[number - firstNumber_].result = result;
}

void CallLog::record(bool on) {
  const std::lock_guard lock(mutex_);
  recording_ = on;
  updateWatching();
}

std::vector<HostCall> CallLog::take() {
  const std::lock_guard lock(mutex_);
  firstNumber_ += calls_.size();
  return std::exchange(calls_, {});
}

void CallLog::arm(Fault fault) {
  if (fault.nth == 0) throw std::logic_error("Fault::nth is 0: calls are counted from 1");
  if (fault.service == Service::EnterFrame || fault.service == Service::LeaveFrame) {
    throw std::logic_error(std::string(serviceName(fault.service)) +
                           " cannot fail: arm another service");
  }
  const std::lock_guard lock(mutex_);
  faults_[static_cast<std::size_t>(fault.service)] = std::move(fault);
  updateWatching();
}

void CallLog::disarm() {
  const std::lock_guard lock(mutex_);
  for (std::optional<Fault> &fault : faults_) fault.reset();
  updateWatching();
}

std::uint64_t CallLog::fired() const {
  const std::lock_guard lock(mutex_);
  return fired_;
}

// REQUIRES: mutex_ held.
std::optional<Fault> CallLog::fire(Service service) {
  std::optional<Fault> &armed = faults_[static_cast<std::size_t>(service)];
  if (!armed) return std::nullopt;
  if (armed->nth > 1) {
    --armed->nth;
    return std::nullopt;
  }
  ++fired_;
  std::optional<Fault> fired = armed;
  if (!armed->andAllLater) {
    armed.reset();
    updateWatching();
  }
  return fired;
}

// REQUIRES: mutex_ held.
void CallLog::updateWatching() {
  const bool armed = std::any_of(faults_.begin(), faults_.end(),
                                 [](const auto &fault) { return fault.has_value(); });
  watching_.store(recording_ || armed, std::memory_order_relaxed);
}

}  // namespace refhost
