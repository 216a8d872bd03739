// Gates: locks that are named by number and owned by a thread.
//
// One mutex guards all gates and is held for a few instructions only; a thread waits for a gate on
// the gate's own condition. So a gate that somebody holds for ever can still be deleted with the
// host, and wrong uses are seen before they block. A gate whose owner has ended stays that owner's:
// what it guards may be half changed. Nobody gets it any more, nobody waits for it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "refhost.hpp"
#include "refhost_misuse.hpp"
#include "refhost_threads.hpp"

namespace refhost {

class GateTable {
 public:
  explicit GateTable(MisuseLog &misuses) : misuses_(misuses) {}

  // Handles count from 1 and are never used again.
  std::uint32_t create();
  void destroy(std::uint32_t handle);

  // Waits until the gate is free and makes the thread its owner, or until its owner ends. 0 or the
  // service's code.
  std::uint16_t acquire(std::uint32_t handle, const ThreadState &thread);
  void release(std::uint32_t handle, const ThreadState &thread);

  // Reports the gates that the thread still holds and wakes who waits for them.
  void endThread(const ThreadState &thread);

  std::size_t count() const;
  std::size_t heldCount() const;

 private:
  struct Gate {
    std::uint64_t owner = 0;  // number of a thread, 0: free
    bool ownerHasEnded = false;
    std::uint32_t waiters = 0;  // threads inside acquire
    std::condition_variable freed;

    // A thread may still look at it. One that has ended does not.
    bool isInUse() const { return (owner != 0 && !ownerHasEnded) || waiters != 0; }
  };

  void reportUnknown(Service service, std::uint32_t handle);

  MisuseLog &misuses_;
  mutable std::mutex mutex_;
  std::unordered_map<std::uint32_t, Gate> gates_;  // a gate's place does not move
  std::uint32_t lastHandle_ = 0;
};

}  // namespace refhost
