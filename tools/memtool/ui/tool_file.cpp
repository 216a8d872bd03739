#include "tool_file.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <system_error>
#include <utility>
#include <vector>

#include "tool_errors.hpp"
#include "tool_platform.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

std::string reason(int code) {
  return std::generic_category().message(code != 0 ? code : EIO);
}

std::string readInput() {
  if (std::cin.eof()) throw FileError("standard input can be read only once");
  platform::makeInputBinary();
  std::string bytes(std::istreambuf_iterator<char>(std::cin), {});
  if (std::cin.bad()) throw FileError("cannot read standard input");
  std::cin.setstate(std::ios::eofbit);  // iterators leave it unset
  return bytes;
}

[[noreturn]] void throwUnwritten(const std::string &name, int code) {
  throw FileError("cannot write " + name + ": " + reason(code));
}

// True when all bytes are in the file; else errno is the reason.
bool tryWrite(const std::filesystem::path &path, std::string_view bytes) {
  errno = 0;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (file) file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  return !file.fail();
}

// An unused name in the file's folder.
std::filesystem::path unusedNameNextTo(const std::filesystem::path &path) {
  std::random_device random;
  std::filesystem::path free;
  std::error_code ignored;
  do {
    free = path;
    free += fmt::format(".{:08x}.new", random());
  } while (std::filesystem::exists(std::filesystem::symlink_status(free, ignored)));
  return free;
}

// The path of the file if a rename may replace it: a regular file with one name that the user may
// write to. Links are followed. Else an empty path.
std::filesystem::path replaceable(const std::filesystem::path &path) {
  std::error_code failed;
  const std::filesystem::path real = std::filesystem::canonical(path, failed);
  if (failed || !std::filesystem::is_regular_file(real, failed)) return {};
  if (platform::nameCount(real) != 1) return {};
  if (!std::ofstream(real, std::ios::binary | std::ios::in)) return {};
  return real;
}

// Replaces the old file by a new one, which gets the old one's mode before its bytes. False when no
// file can be made in that folder. Throws FileError when the bytes cannot be written; the old file
// is unchanged then.
bool replace(const std::string &name, const std::filesystem::path &real, std::string_view bytes) {
  const std::filesystem::path fresh = unusedNameNextTo(real);
  std::error_code failed;
  if (!tryWrite(fresh, {})) return false;
  std::filesystem::permissions(fresh, std::filesystem::status(real, failed).permissions(), failed);
  int code = failed.value();
  if (!failed && !tryWrite(fresh, bytes)) code = errno != 0 ? errno : EIO;
  if (code == 0) {
    std::filesystem::rename(fresh, real, failed);
    code = failed.value();
  }
  if (code == 0) return true;
  std::filesystem::remove(fresh, failed);
  throwUnwritten(name, code);
}

}  // namespace

std::string readFile(const std::string &name) {
  if (name == "-") return readInput();
  const std::filesystem::path path = pathFromUtf8(name);
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    throw FileError("cannot read " + name + ": it is a folder");
  }
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::string bytes;
  const std::uintmax_t size = std::filesystem::file_size(path, ignored);
  if (!ignored && size < bytes.max_size()) bytes.reserve(static_cast<std::size_t>(size));
  constexpr std::size_t kPart = 1 << 16;
  std::vector<char> part(kPart);
  while (file.read(part.data(), kPart) || file.gcount() > 0) {
    bytes.append(part.data(), static_cast<std::size_t>(file.gcount()));
  }
  if (!file.eof() || file.bad()) throw FileError("cannot read " + name + ": " + reason(errno));
  return bytes;
}

void requireOutput(const std::string &output, const std::vector<std::string> &inputs) {
  if (output == "-") {
    throw UsageError("- names input only; name a file to write (./- for one of this name)");
  }
  for (const std::string &input : inputs) {
    std::error_code failed;
    const bool isSame = input != "-" && std::filesystem::equivalent(pathFromUtf8(output),
                                                                    pathFromUtf8(input), failed);
    if (isSame && !failed) throw UsageError(output + " is also read; name another file to write");
  }
}

void writeFile(const std::string &name, std::string_view bytes) {
  const std::filesystem::path path = pathFromUtf8(name);
  std::error_code ignored;
  const std::filesystem::path real = replaceable(path);
  if (!real.empty() && replace(name, real, bytes)) return;

  const bool isNew = !std::filesystem::exists(path, ignored);
  if (tryWrite(path, bytes)) return;
  const int code = errno;
  if (isNew && std::filesystem::is_regular_file(path, ignored)) {
    std::filesystem::remove(path, ignored);
  }
  throwUnwritten(name, code);
}

}  // namespace memtool
