// The ways in which the program fails. All of them end in one line on stderr and an exit code.
#pragma once

#include <stdexcept>
#include <string>

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
  using std::runtime_error::runtime_error;
};

}  // namespace catalog
