// The ways in which the program ends. A failure is one line on stderr and an exit code.
#pragma once

#include <stdexcept>

namespace memtool {

enum ExitCode {
  kExitFine = 0,
  kExitFault = 1,  // what was read is damaged or not what it should be, or the operation failed
  kExitUsage = 2,  // the arguments make no sense
  kExitFile = 3    // something cannot be read or written
};

// What the user named cannot be read, written or used, or a service of the library failed. The text
// is one line without the program's name; it tells what to do where that is not plain.
class ToolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A file, a stream or the library itself cannot be read or written, or storage is missing for it.
class FileError : public ToolError {
 public:
  using ToolError::ToolError;
};

// An argument names something that the file does not have. Other files may have it.
class UnknownValue : public ToolError {
 public:
  using ToolError::ToolError;
};

// Arguments that each have the right form but do not go together.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace memtool
