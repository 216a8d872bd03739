#include "child_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <system_error>
#include <thread>
#include <utility>

namespace exchange {
namespace {

// The new process is killed when its parent ends. The parent may have ended already.
void followParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
}

[[noreturn]] void replaceBy(const std::vector<std::string> &command, const std::string &folder,
                            const std::string &log) {
  std::vector<char *> words;
  for (const std::string &word : command) words.push_back(const_cast<char *>(word.c_str()));
  words.push_back(nullptr);
  const int output = chdir(folder.c_str()) == 0
                         ? open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)
                         : -1;
  const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (output < 0 || input < 0) _exit(127);
  dup2(input, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  execvp(words[0], words.data());
  _exit(127);
}

pid_t forked() {
  std::cout.flush();
  const pid_t id = ::fork();
  if (id < 0) throw std::system_error(errno, std::generic_category(), "cannot start a process");
  return id;
}

}  // namespace

ChildProcess ChildProcess::fork(const std::function<int()> &work) {
  const pid_t parent = getpid();
  const pid_t id = forked();
  if (id != 0) return ChildProcess(id);
  followParent(parent);
  _exit(work());
}

ChildProcess ChildProcess::run(const std::vector<std::string> &command, const std::string &folder,
                               const std::string &log) {
  const pid_t parent = getpid();
  const pid_t id = forked();
  if (id != 0) return ChildProcess(id);
  followParent(parent);
  replaceBy(command, folder, log);
}

ChildProcess::ChildProcess(ChildProcess &&other) noexcept
    : id_(std::exchange(other.id_, -1)), status_(other.status_) {}

ChildProcess &ChildProcess::operator=(ChildProcess &&other) noexcept {
  std::swap(id_, other.id_);
  std::swap(status_, other.status_);
  return *this;
}

ChildProcess::~ChildProcess() {
  if (id_ < 0 || status()) return;
  signal(SIGKILL);
  waitpid(id_, nullptr, 0);
}

void ChildProcess::signal(int number) const {
  if (id_ > 0 && !status_) kill(id_, number);
}

std::optional<int> ChildProcess::status() {
  int status = 0;
  if (!status_ && waitpid(id_, &status, WNOHANG) == id_) status_ = status;
  return status_;
}

bool ChildProcess::waitFor(Milliseconds time) {
  const Clock::time_point deadline = Clock::now() + time;
  while (!status()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(Milliseconds(5));
  }
  return true;
}

std::string howItEnded(int status) {
  if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
  return "ended with code " + std::to_string(WEXITSTATUS(status));
}

}  // namespace exchange
