#include "tool_library.hpp"

#include <fmt/format.h>

#include <optional>

#include "tool_text.hpp"

namespace memtool {
namespace {

std::filesystem::path checkedPath(const std::filesystem::path &named) {
  const std::filesystem::path path = named.empty() ? refhost::Library::besideProgram() : named;
  std::error_code ignored;
  if (std::filesystem::is_regular_file(path, ignored)) return std::filesystem::absolute(path);
  throw FileError(
      fmt::format("there is no library {}; name it with --library PATH", utf8FromPath(path)));
}

}  // namespace

RunningLibrary::RunningLibrary(const std::filesystem::path &path) try
    : library_(checkedPath(path)), session_(library_.bindEntry()) {
} catch (const ToolError &) {
  throw;
} catch (const std::runtime_error &error) {
  throw FileError(error.what());
}

void RunningLibrary::check(std::string_view service, std::int16_t result) {
  if (result == 0) return;
  const MEMErrorArea &error = host().thread().Error;
  const std::optional<refhost::Message> message = host().message(error.Code);
  std::string text = fmt::format("{} failed: {}", service, error.Code);
  if (message) text += fmt::format(" {}, {}", message->name, message->text);
  if (error.NameText[0] != 0) text += fmt::format(" ({})", error.NameText);
  throw ServiceError(text, error.Code);
}

}  // namespace memtool
