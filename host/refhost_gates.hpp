// Gates: locks that are named by number and owned by a thread.
//
// One mutex guards all gates and is held for a few instructions only; a thread waits for a gate on
// the gate's own condition variable. So a gate that is never released can still be deleted with the
// host, and misuse is detected before it blocks. A gate whose owner has ended keeps that owner:
// what it guards may be half changed. No thread can acquire it any more, none waits for it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "refhost.hpp"
#include "refhost_origin.hpp"
#include "refhost_threads.hpp"

namespace refhost {

class GateTable {
 public:
  // Handles count from 1 and are never used again.
  std::uint32_t create(Origin origin);

  // These return what is wrong with the call; empty if nothing is.
  std::string destroy(std::uint32_t handle);
  std::string release(std::uint32_t handle, const ThreadState &thread);

  // Waits until the gate is free, and makes the thread its owner; refuses it when the owner ends.
  struct Acquired {
    std::uint16_t code = 0;  // the service's
    std::string wrong = {};
  };
  Acquired acquire(std::uint32_t handle, const ThreadState &thread);

  // The gates that the thread holds, by handle.
  std::vector<std::uint32_t> heldBy(const ThreadState &thread) const;

  // The thread ends: threads that wait for its gates are woken and refused.
  void endThread(const ThreadState &thread);

  // Gates created and not deleted that no earlier call has returned, by handle.
  struct Left {
    std::uint32_t handle;
    std::uint64_t owner;  // number of a thread that has not ended, or 0
    Origin origin;
  };
  std::vector<Left> takeLeft();

  std::size_t count() const;
  std::size_t heldCount() const;

 private:
  struct Gate {
    Origin origin;
    std::uint64_t owner = 0;  // number of a thread, 0: free
    bool ownerHasEnded = false;
    bool isReported = false;
    std::uint32_t waiters = 0;  // threads inside acquire
    std::condition_variable freed{};

    // A thread may still use it; one that has ended does not.
    bool isInUse() const { return (owner != 0 && !ownerHasEnded) || waiters != 0; }
  };

  mutable std::mutex mutex_;
  std::unordered_map<std::uint32_t, Gate> gates_;  // a gate does not move
  std::uint32_t lastHandle_ = 0;
};

}  // namespace refhost
