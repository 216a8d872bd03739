#include <sys/ioctl.h>
#include <unistd.h>

#include <system_error>

#include "tool_platform.hpp"

namespace memtool::platform {

bool isTerminal(Stream stream) {
  return isatty(stream == Stream::Out ? STDOUT_FILENO : STDERR_FILENO) == 1;
}

int terminalWidth() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

void prepareTerminal() {}

void makeInputBinary() {}

std::uintmax_t nameCount(const std::filesystem::path &file) {
  std::error_code failed;
  const std::uintmax_t count = std::filesystem::hard_link_count(file, failed);
  return failed ? 0 : count;
}

std::vector<std::string> programArguments(int count, const char *const *values) {
  if (count < 2) return {};
  return std::vector<std::string>(values + 1, values + count);
}

}  // namespace memtool::platform
