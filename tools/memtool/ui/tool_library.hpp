// The running library: loaded, bound to a reference host, with process and thread started.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "refhost.hpp"
#include "tool_errors.hpp"

namespace memtool {

// A service failed. The text has the service, the code with its name and message, and the text that
// the library recorded.
class ServiceError : public ToolError {
 public:
  ServiceError(const std::string &what, std::uint32_t errorCode)
      : ToolError(what), code(errorCode) {}

  std::uint32_t code;
};

// One object at a time, on one thread.
class RunningLibrary {
 public:
  // With an empty path, the library in the program's folder. Throws ToolError when it cannot be
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
