// Exit codes and exceptions. A failure is one line on stderr and an exit code.
#pragma once

#include <stdexcept>

namespace memtool {

enum ExitCode {
  kExitFine = 0,
  kExitFault = 1,  // the input is damaged or different, or the operation failed
  kExitUsage = 2,  // the arguments are wrong
  kExitFile = 3    // something cannot be read or written
};

// An input is invalid, an operation is impossible, or a service of the library failed. The text is
// one line without the program's name. It says what to do if that is not evident.
class ToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A file, a stream or the library itself cannot be read or written.
class FileError : public ToolError {
 public:
  using ToolError::ToolError;
};

// An argument names something that the file does not have. Other files may have it.
class UnknownValue : public ToolError {
 public:
  using ToolError::ToolError;
};

// Arguments that are valid, but not together.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace memtool
