#include "refhost_gates.hpp"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "refhost_impl.hpp"

namespace refhost {

namespace {

std::string unknownGate(std::uint32_t handle) {
  return formatText("gate %u does not exist", handle);
}

}  // namespace

std::uint32_t GateTable::create(Origin origin) {
  const std::lock_guard lock(mutex_);
  gates_[++lastHandle_].origin = std::move(origin);
  return lastHandle_;
}

std::string GateTable::destroy(std::uint32_t handle) {
  const std::lock_guard lock(mutex_);
  const auto found = gates_.find(handle);
  if (found == gates_.end()) return unknownGate(handle);
  // The gate is kept: its threads would otherwise wait on freed memory.
  if (found->second.isInUse()) return formatText("gate %u is in use", handle);
  gates_.erase(found);
  return {};
}

GateTable::Acquired GateTable::acquire(std::uint32_t handle, const ThreadState &thread) {
  std::unique_lock lock(mutex_);
  const auto found = gates_.find(handle);
  if (found == gates_.end()) return {kNoGate, unknownGate(handle)};
  Gate &gate = found->second;
  if (gate.owner == thread.number) {
    return {kGateOwned, formatText("gate %u is already held by the calling thread", handle)};
  }
  ++gate.waiters;
  gate.freed.wait(lock, [&gate] { return gate.owner == 0 || gate.ownerHasEnded; });
  --gate.waiters;
  if (gate.ownerHasEnded) {
    return {kGateOwned, formatText("gate %u is held by a thread that has ended", handle)};
  }
  gate.owner = thread.number;
  return {};
}

std::string GateTable::release(std::uint32_t handle, const ThreadState &thread) {
  const std::lock_guard lock(mutex_);
  const auto found = gates_.find(handle);
  if (found == gates_.end()) return unknownGate(handle);
  Gate &gate = found->second;
  if (gate.owner != thread.number) {
    return formatText("gate %u is not held by the calling thread", handle);
  }
  gate.owner = 0;
  if (gate.waiters != 0) gate.freed.notify_one();
  return {};
}

std::vector<std::uint32_t> GateTable::heldBy(const ThreadState &thread) const {
  const std::lock_guard lock(mutex_);
  std::vector<std::uint32_t> held;
  for (const auto &[handle, gate] : gates_) {
    if (gate.owner == thread.number) held.push_back(handle);
  }
  std::sort(held.begin(), held.end());
  return held;
}

void GateTable::endThread(const ThreadState &thread) {
  const std::lock_guard lock(mutex_);
  for (auto &[handle, gate] : gates_) {
    if (gate.owner != thread.number) continue;
    gate.ownerHasEnded = true;
    gate.freed.notify_all();
  }
}

std::vector<GateTable::Left> GateTable::takeLeft() {
  const std::lock_guard lock(mutex_);
  std::vector<Left> left;
  for (auto &[handle, gate] : gates_) {
    if (gate.isReported) continue;
    gate.isReported = true;
    left.push_back({handle, gate.ownerHasEnded ? 0 : gate.owner, gate.origin});
  }
  std::sort(left.begin(), left.end(),
            [](const Left &a, const Left &b) { return a.handle < b.handle; });
  return left;
}

std::size_t GateTable::count() const {
  const std::lock_guard lock(mutex_);
  return gates_.size();
}

std::size_t GateTable::heldCount() const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      gates_.begin(), gates_.end(), [](const auto &gate) { return gate.second.owner != 0; }));
}

namespace services {

std::uint16_t createGate(std::uint32_t *phGate) {
  Call call(Service::CreateGate, phGate);
  if (call.faulted()) return call.faultCode();
  *phGate = call.host().gates.create(call.origin());
  return 0;
}

void deleteGate(std::uint32_t hGate) {
  Call call(Service::DeleteGate, hGate);
  if (call.faulted()) return;
  std::string wrong = call.host().gates.destroy(hGate);
  if (!wrong.empty()) call.misuse(std::move(wrong));
}

std::uint16_t acquireGate(std::uint32_t hGate) {
  Call call(Service::AcquireGate, hGate);
  if (call.faulted()) return call.faultCode();
  GateTable::Acquired acquired = call.host().gates.acquire(hGate, call.thread());
  if (acquired.code == 0) return 0;
  call.misuse(std::move(acquired.wrong));
  return call.finish(call.refuse(acquired.code, "AcquireGate"));
}

void releaseGate(std::uint32_t hGate) {
  Call call(Service::ReleaseGate, hGate);
  if (call.faulted()) return;
  std::string wrong = call.host().gates.release(hGate, call.thread());
  if (!wrong.empty()) call.misuse(std::move(wrong));
}

}  // namespace services

}  // namespace refhost
