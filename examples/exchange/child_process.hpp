// Child processes of this program.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "transport.hpp"

namespace exchange {

// A forked process. It is killed when its parent ends or the object is destroyed.
class ChildProcess {
 public:
  // Runs `work` in a new process; its return value is the exit code. `work` must not throw.
  static ChildProcess fork(const std::function<int()> &work);
  // Runs a program in a folder; its output is written to the file `log` there.
  static ChildProcess run(const std::vector<std::string> &command, const std::string &folder,
                          const std::string &log);

  ChildProcess(ChildProcess &&other) noexcept;
  ChildProcess &operator=(ChildProcess &&other) noexcept;
  ~ChildProcess();

  pid_t id() const { return id_; }
  void signal(int number) const;

  // The status of waitpid; null while the process runs.
  std::optional<int> status();
  // Waits at most `time` for its end. False if it still runs.
  bool waitFor(Milliseconds time);

 private:
  explicit ChildProcess(pid_t id) : id_(id) {}

  pid_t id_;
  std::optional<int> status_;
};

// "was killed by signal 9", "ended with code 1"
std::string howItEnded(int status);

}  // namespace exchange
