// Failures on demand: for tests, and for readers who want to see them.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "transport.hpp"

namespace exchange {

enum class Trouble {
  none,
  killed,      // the first worker is killed in the middle of a job
  killedLate,  // the same, between publishing a result and acknowledging the job
  doubled,     // the first worker publishes each result twice
  broken,      // the first worker damages chains
  restart      // the server is killed, and started again
};

// The failures of one worker.
class WorkerTrouble {
 public:
  explicit WorkerTrouble(Trouble trouble) : trouble_(trouble) {}

  void beforePublishing(std::uint32_t job, Message &result);
  void afterPublishing(Transport &transport, const Message &result);

 private:
  bool isFatalJob();

  Trouble trouble_;
  std::uint32_t jobs_ = 0;
  std::set<std::uint32_t> damaged_;  // each job once: its next result is right
};

}  // namespace exchange
