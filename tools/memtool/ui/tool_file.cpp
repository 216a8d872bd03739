#include "tool_file.hpp"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

std::string reason(int code) {
  return std::generic_category().message(code != 0 ? code : EIO);
}

}  // namespace

std::string readFile(const std::string &name) {
  const std::filesystem::path path = pathFromUtf8(name);
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    throw ToolError("cannot read " + name + ": it is a folder");
  }
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::ostringstream bytes;
  const bool isEmpty = file && file.peek() == std::ifstream::traits_type::eof();
  if (file && !isEmpty) bytes << file.rdbuf();
  if (!isEmpty && (!file || !bytes)) throw ToolError("cannot read " + name + ": " + reason(errno));
  return std::move(bytes).str();
}

void writeFile(const std::string &name, std::string_view bytes) {
  const std::filesystem::path path = pathFromUtf8(name);
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
  throw ToolError("cannot write " + name + ": " + why);
}

}  // namespace memtool
