// Processes of this program's own.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "transport.hpp"

namespace exchange {

// A forked process. It does not outlive its parent, and is killed when the object goes.
class ChildProcess {
 public:
  // Runs `work` in a new process, which ends with what it returns. `work` must not throw.
  static ChildProcess fork(const std::function<int()> &work);
  // Runs a program in a folder; what it prints goes to the file `log` there.
  static ChildProcess run(const std::vector<std::string> &command, const std::string &folder,
                          const std::string &log);

  ChildProcess(ChildProcess &&other) noexcept;
  ChildProcess &operator=(ChildProcess &&other) noexcept;
  ~ChildProcess();

  pid_t id() const { return id_; }
  void signal(int number) const;

  // How it has ended, as waitpid tells it; null while it runs.
  std::optional<int> status();
  // Waits for its end for so long at most. False if it still runs.
  bool waitFor(Milliseconds time);

 private:
  explicit ChildProcess(pid_t id) : id_(id) {}

  pid_t id_;
  std::optional<int> status_;
};

// "was killed by signal 9", "ended with code 1"
std::string howItEnded(int status);

}  // namespace exchange
