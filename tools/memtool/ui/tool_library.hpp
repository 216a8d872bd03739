// The library in use: loaded, bound to a reference host, with the process and this thread started.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "refhost.hpp"
#include "tool_errors.hpp"

namespace memtool {

// A service failed. The text names it, the code with its name and message, and what the library
// said.
class ServiceError : public ToolError {
 public:
  ServiceError(const std::string &what, std::uint32_t errorCode)
      : ToolError(what), code(errorCode) {}

  std::uint32_t code;
};

// One at a time, on one thread.
class RunningLibrary {
 public:
  // The library beside the program when the path is empty. Throws ToolError when it cannot be
  // loaded or started.
  explicit RunningLibrary(const std::filesystem::path &path);

  refhost::Session &session() { return session_; }
  refhost::Host &host() { return session_.host(); }
  MEMFunctionVector &vector() { return session_.vector(); }

  // Throws ServiceError when `result` is not 0.
  void check(std::string_view service, std::int16_t result);

 private:
  refhost::Library library_;
  refhost::Session session_;
};

}  // namespace memtool
