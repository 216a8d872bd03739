// The table of threads, and what happens at the end of a thread.
#include "refhost_threads.hpp"

#include <new>
#include <utility>

#include "refhost_impl.hpp"
#include "refhost_platform.hpp"

namespace refhost {

namespace {

std::atomic<std::uint64_t> lastThread{0};
std::atomic<std::uint64_t> lastGeneration{0};

// The thread's host may have been destroyed, and another host may exist: only the thread's own host
// knows its number. The lock keeps the host from being destroyed meanwhile.
void threadEnded(void *number) {
  const std::lock_guard lock(threadEndMutex());
  if (activeHost != nullptr) activeHost->endThread(reinterpret_cast<std::uintptr_t>(number));
}

}  // namespace

ThreadState::ThreadState() : number(++lastThread) {
  env.pTraceBuf = new (traceBytes_) MEMTraceBuf{};
}

constinit thread_local ThreadTable::OwnState ThreadTable::ownState_{0, nullptr};

ThreadTable::ThreadTable() : generation_(++lastGeneration) {}

ThreadState &ThreadTable::addThread() {
  auto made = std::make_unique<ThreadState>();
  ThreadState &state = *made;
  {
    const std::lock_guard lock(mutex_);
    threads_.emplace(state.number, std::move(made));
  }
  ownState_ = {generation_, &state};
  platform::atThreadEnd(threadEnded, reinterpret_cast<void *>(std::uintptr_t{state.number}));
  return state;
}

std::unique_ptr<ThreadState> ThreadTable::remove(std::uint64_t number) {
  const std::lock_guard lock(mutex_);
  const auto found = threads_.find(number);
  if (found == threads_.end()) return nullptr;
  std::unique_ptr<ThreadState> removed = std::move(found->second);
  threads_.erase(found);
  for (std::size_t i = 0; i < kServiceCount; ++i) {
    callsOfEnded_[i] += removed->calls(static_cast<Service>(i));
  }
  ownState_ = {0, nullptr};  // a service that this thread calls later makes a new state
  return removed;
}

// REQUIRES: mutex_ held.
std::uint64_t ThreadTable::totalCalls(std::size_t service) const {
  std::uint64_t sum = callsOfEnded_[service];
  for (const auto &[number, thread] : threads_) sum += thread->calls(static_cast<Service>(service));
  return sum;
}

std::uint64_t ThreadTable::calls(Service service) const {
  const auto index = static_cast<std::size_t>(service);
  const std::lock_guard lock(mutex_);
  return totalCalls(index) - callsBeforeReset_[index];
}

// Counters belong to their threads and are not changed; what they hold now is subtracted later.
void ThreadTable::resetCalls() {
  const std::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < kServiceCount; ++i) callsBeforeReset_[i] = totalCalls(i);
}

void Host::Impl::endThread(std::uint64_t number) {
  const std::unique_ptr<ThreadState> ended = threads.remove(number);
  if (ended == nullptr) return;
  timeline.endThread(number);
  const std::vector<Misuse> left = leftBy(*ended);
  for (const Misuse &misuse : left) misuses.report(misuse);
  gates.endThread(*ended);  // after the reports: the threads that it wakes report misuses, too
  if (!options.onMisuse) return;
  for (const Misuse &misuse : left) options.onMisuse(misuse);  // may acquire the thread's gates
}

std::vector<Misuse> Host::Impl::leftBy(ThreadState &ended) {
  const std::vector<std::uint32_t> held = gates.heldBy(ended);
  const bool isInFrame = ended.innermost != nullptr;
  const bool isActive = ended.env.pMemThreadBlk != nullptr;
  std::vector<Misuse> left;
  if (held.empty() && !isInFrame && !isActive) return left;

  const Origin origin = originOn(ended);
  for (const std::uint32_t gate : held) {
    left.push_back(misuseOf(
        Service::ReleaseGate,
        formatText("a thread ended while it held gate %u: ReleaseGate was not called", gate),
        origin));
  }
  // The frames may no longer exist, like the thread's stack: do not read them.
  if (isInFrame) {
    left.push_back(misuseOf(Service::LeaveFrame,
                            "a thread ended inside a frame: LeaveFrame was not called "
                            "(takeCalls shows for which frame)",
                            origin));
  }
  if (isActive) {
    const std::optional<FoundArea> block = storage.takeThreadBlock(ended.env.pMemThreadBlk);
    left.push_back(misuseOf(Service::FreePoolStorage,
                            "a thread ended while it was active: MEM_ThreadTerm was not called",
                            origin, block ? &*block : nullptr));
  }
  return left;
}

}  // namespace refhost
