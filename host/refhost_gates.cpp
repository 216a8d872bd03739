#include "refhost_gates.hpp"

#include <algorithm>
#include <vector>

#include "refhost_impl.hpp"

namespace refhost {

void GateTable::reportUnknown(Service service, std::uint32_t handle) {
  misuses_.report(service, formatText("gate %u does not exist", handle));
}

std::uint32_t GateTable::create() {
  const std::lock_guard lock(mutex_);
  gates_.try_emplace(++lastHandle_);
  return lastHandle_;
}

void GateTable::destroy(std::uint32_t handle) {
  constexpr Service kService = Service::DeleteGate;
  const std::lock_guard lock(mutex_);
  const auto found = gates_.find(handle);
  if (found == gates_.end()) {
    reportUnknown(kService, handle);
  } else if (found->second.isInUse()) {
    // The gate stays: its threads would otherwise wait on freed memory.
    misuses_.report(kService, formatText("gate %u is in use", handle));
  } else {
    gates_.erase(found);
  }
}

std::uint16_t GateTable::acquire(std::uint32_t handle, const ThreadState &thread) {
  constexpr Service kService = Service::AcquireGate;
  std::unique_lock lock(mutex_);
  const auto found = gates_.find(handle);
  if (found == gates_.end()) {
    reportUnknown(kService, handle);
    return kNoGate;
  }
  Gate &gate = found->second;
  if (gate.owner == thread.number) {
    misuses_.report(kService, formatText("gate %u is held by the same thread", handle));
    return kGateOwned;
  }
  ++gate.waiters;
  gate.freed.wait(lock, [&gate] { return gate.owner == 0 || gate.ownerHasEnded; });
  --gate.waiters;
  if (gate.ownerHasEnded) {
    misuses_.report(kService, formatText("gate %u is held by a thread that has ended", handle));
    return kGateOwned;
  }
  gate.owner = thread.number;
  return 0;
}

void GateTable::release(std::uint32_t handle, const ThreadState &thread) {
  constexpr Service kService = Service::ReleaseGate;
  const std::lock_guard lock(mutex_);
  const auto found = gates_.find(handle);
  if (found == gates_.end()) return reportUnknown(kService, handle);
  Gate &gate = found->second;
  if (gate.owner != thread.number) {
    misuses_.report(kService, formatText("gate %u is not held by the calling thread", handle));
    return;
  }
  gate.owner = 0;
  if (gate.waiters != 0) gate.freed.notify_one();
}

void GateTable::endThread(const ThreadState &thread) {
  const std::lock_guard lock(mutex_);
  std::vector<std::uint32_t> held;
  for (auto &[handle, gate] : gates_) {
    if (gate.owner != thread.number) continue;
    gate.ownerHasEnded = true;
    gate.freed.notify_all();
    held.push_back(handle);
  }
  std::sort(held.begin(), held.end());
  for (const std::uint32_t handle : held) {
    misuses_.report(
        Service::ReleaseGate,
        formatText("a thread ended while it held gate %u: ReleaseGate was not called", handle));
  }
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
  *phGate = call.host().gates.create();
  return 0;
}

void deleteGate(std::uint32_t hGate) {
  Call call(Service::DeleteGate, hGate);
  if (call.faulted()) return;
  call.host().gates.destroy(hGate);
}

std::uint16_t acquireGate(std::uint32_t hGate) {
  Call call(Service::AcquireGate, hGate);
  if (call.faulted()) return call.faultCode();
  const std::uint16_t code = call.host().gates.acquire(hGate, call.thread());
  return code == 0 ? code : call.finish(call.refuse(code, "AcquireGate"));
}

void releaseGate(std::uint32_t hGate) {
  Call call(Service::ReleaseGate, hGate);
  if (call.faulted()) return;
  call.host().gates.release(hGate, call.thread());
}

}  // namespace services

}  // namespace refhost
