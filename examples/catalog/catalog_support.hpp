// What all parts of the program share: its failures, conversion of text between the program's
// UTF-8, the library's UTF-16 and the file system's paths, and reading and writing whole files.
//
// Threading: the functions have no state.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qj7mem00/mem.hpp"

namespace catalog {

// How the program ends. A failure is one line on stderr and one of these codes.
enum ExitCode {
  kExitSuccess = 0,
  kExitFailure = 1,  // a service failed, the library is missing, storage was not returned, or the
                     // chain differs from the catalogue
  kExitBadInput = 2  // an invalid argument, or a file of the user that cannot be used
};

// The user's input cannot be used: an option, the catalogue, the file for the chain.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The records that were read differ from the catalogue.
class DifferenceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A service of the library failed. The text has the service, the code and its explanation.
class ServiceError : public std::runtime_error {
 public:
  explicit ServiceError(const mem::Error &error) : std::runtime_error(error.line().text) {}
};

// The value of a call that must succeed. Throws ServiceError if it failed.
template <class Value>
Value need(mem::Result<Value> result) {
  if (!result.isOk()) throw ServiceError(result.error());
  if constexpr (!std::is_void_v<Value>) return std::move(result).value();
}

// UTF-16 of UTF-8 text. A byte that is not part of a valid character becomes U+FFFD, so that a
// catalogue with an invalid byte can still be used.
std::u16string utf16FromUtf8(std::string_view text);

// UTF-8 of UTF-16 text. A surrogate without its partner becomes U+FFFD.
std::string utf8FromUtf16(std::u16string_view text);

std::filesystem::path pathFromUtf8(std::string_view text);
std::string utf8FromPath(const std::filesystem::path &path);

// The program's arguments without its name, in UTF-8. On Windows they are taken from the wide
// command line, because `main` gets them in a code page, which does not have every character of a
// path.
std::vector<std::string> programArguments(int count, const char *const *values);

// A whole file as bytes, in binary form on every platform. Throws InputError with the reason if it
// cannot be read.
std::string readBytes(const std::filesystem::path &path);

// Replaces a regular file or makes a new one; follows no link. If that fails, throws InputError
// with the reason; an existing file is then unchanged.
void writeBytes(const std::filesystem::path &path, std::string_view bytes);

}  // namespace catalog
