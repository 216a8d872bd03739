#include "binary_file.hpp"

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "catalog_errors.hpp"
#include "utf_text.hpp"

namespace catalog {
namespace {

std::string reason(int code) {
  return std::generic_category().message(code != 0 ? code : EIO);
}

}  // namespace

std::string readBytes(const std::filesystem::path &path) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  if (file) bytes << file.rdbuf();
  std::error_code ignored;
  if (file && std::filesystem::is_regular_file(path, ignored)) return std::move(bytes).str();
  throw InputError("cannot read " + utf8FromPath(path) + ": " + reason(errno));
}

void writeBytes(const std::filesystem::path &path, std::string_view bytes) {
  errno = 0;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  const bool isOpen = file.is_open();
  if (file) file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (file) return;

  const std::string why = reason(errno);
  std::error_code ignored;
  if (isOpen && std::filesystem::is_regular_file(path, ignored)) {
    std::filesystem::remove(path, ignored);
  }
  throw InputError("cannot write " + utf8FromPath(path) + ": " + why);
}

}  // namespace catalog
