// The ways in which the program fails. All of them end in one line on stderr and an exit code.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "qj7mem00/mem.hpp"

namespace catalog {

// How the program ends.
enum ExitCode {
  kExitSuccess = 0,
  kExitFailure = 1,  // a service failed, the library is missing, storage was not returned, or the
                     // chain differs from the catalogue
  kExitBadInput = 2  // an argument or a file that the user named is of no use
};

// What the user gave cannot be used: an option, the catalogue, the place for the chain.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What was read is not what the catalogue holds.
class DifferenceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A service of the library failed. The text names the service, the code and what is known of it.
class ServiceError : public std::runtime_error {
 public:
  explicit ServiceError(const mem::Error &error) : std::runtime_error(error.line().text) {}
};

// The value of a call that must succeed, else a ServiceError.
template <class Value>
Value need(mem::Result<Value> result) {
  if (!result.isOk()) throw ServiceError(result.error());
  if constexpr (!std::is_void_v<Value>) return std::move(result).value();
}

}  // namespace catalog
