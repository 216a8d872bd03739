#include "catalog_support.hpp"

#include <utf8cpp/utf8.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <system_error>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>

#include <shellapi.h>  // needs what windows.h declares
#endif

namespace catalog {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

// No file of the program is longer. The limit keeps a device or an endless pipe from filling the
// memory, and every length within 32 bits.
constexpr std::size_t kLongestFile = std::size_t{1} << 30;

bool isSurrogate(char16_t unit) {
  return unit >= 0xD800 && unit <= 0xDFFF;
}

bool isPair(char16_t first, char16_t second) {
  return isSurrogate(first) && first < 0xDC00 && isSurrogate(second) && second >= 0xDC00;
}

std::string systemReason() {
  return std::generic_category().message(errno != 0 ? errno : EIO);
}

}  // namespace

std::u16string utf16FromUtf8(std::string_view text) {
  std::u16string wide;
  for (;;) {
    const std::size_t valid = utf8::find_invalid(text);
    wide += utf8::utf8to16(text.substr(0, valid));
    if (valid == std::string_view::npos) return wide;
    wide += kReplacement;
    text.remove_prefix(valid + 1);
  }
}

std::string utf8FromUtf16(std::u16string_view text) {
  std::u16string whole(text);
  for (std::size_t i = 0; i < whole.size(); ++i) {
    if (!isSurrogate(whole[i])) continue;
    if (i + 1 < whole.size() && isPair(whole[i], whole[i + 1])) {
      ++i;
    } else {
      whole[i] = kReplacement;
    }
  }
  return utf8::utf16to8(whole);
}

std::filesystem::path pathFromUtf8(std::string_view text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string utf8FromPath(const std::filesystem::path &path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

#ifdef _WIN32

std::vector<std::string> programArguments(int, const char *const *) {
  static_assert(sizeof(wchar_t) == sizeof(char16_t), "Windows passes UTF-16");
  int count = 0;
  LPWSTR *values = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; values != nullptr && i < count; ++i) {
    const std::wstring_view value(values[i]);
    arguments.push_back(utf8FromUtf16(std::u16string(value.begin(), value.end())));
  }
  LocalFree(values);
  return arguments;
}

#else

std::vector<std::string> programArguments(int count, const char *const *values) {
  if (count < 2) return {};
  return std::vector<std::string>(values + 1, values + count);
}

#endif

std::string readBytes(const std::filesystem::path &path) {
  const std::string name = utf8FromPath(path);
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) {
    throw InputError("cannot read " + name + ": it is a directory");
  }
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  if (!file) throw InputError("cannot read " + name + ": " + systemReason());
  std::string bytes;
  std::array<char, 65536> buffer;
  do {
    file.read(buffer.data(), buffer.size());
    bytes.append(buffer.data(), static_cast<std::size_t>(file.gcount()));
    if (bytes.size() > kLongestFile) throw InputError("cannot read " + name + ": more than 1 GiB");
  } while (file);
  if (file.bad()) throw InputError("cannot read " + name + ": " + systemReason());
  return bytes;
}

namespace {

// Opens a new file for writing; never an existing one, and never the target of a link.
std::FILE *openNew(const std::filesystem::path &path) {
#ifdef _WIN32
  const int descriptor =
      _wopen(path.c_str(), _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
  return descriptor < 0 ? nullptr : _fdopen(descriptor, "wb");
#else
  return std::fopen(path.c_str(), "wbx");
#endif
}

bool writeAndClose(std::FILE *file, std::string_view bytes) {
  const bool isWritten = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  return std::fclose(file) == 0 && isWritten;
}

void requirePlainFile(const std::filesystem::path &path, const std::string &refusal) {
  std::error_code ignored;
  switch (std::filesystem::symlink_status(path, ignored).type()) {
    case std::filesystem::file_type::symlink:
      throw InputError(refusal + "it is a link, and links are not followed");
    case std::filesystem::file_type::directory:
      throw InputError(refusal + "it is a directory");
    case std::filesystem::file_type::none:
    case std::filesystem::file_type::not_found:
    case std::filesystem::file_type::regular:
      return;
    default:
      throw InputError(refusal + "it is not a regular file");
  }
}

}  // namespace

void writeBytes(const std::filesystem::path &path, std::string_view bytes) {
  const std::string refusal = "cannot write " + utf8FromPath(path) + ": ";
  requirePlainFile(path, refusal);
  // An existing file is kept until its successor is completely written. If the path has become a
  // link meanwhile, the rename replaces the link and does not follow it.
  std::filesystem::path successor = path;
  successor += ".new";
  std::error_code error;
  std::filesystem::remove(successor, error);
  errno = 0;
  std::FILE *const file = openNew(successor);
  if (file == nullptr) throw InputError(refusal + systemReason());
  if (writeAndClose(file, bytes)) {
    std::filesystem::rename(successor, path, error);
    if (!error) return;
    errno = error.default_error_condition().value();
  }
  const std::string why = systemReason();
  std::filesystem::remove(successor, error);
  throw InputError(refusal + why);
}

}  // namespace catalog
