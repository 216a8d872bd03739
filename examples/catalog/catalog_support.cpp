#include "catalog_support.hpp"

#include <utf8cpp/utf8.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <system_error>

#ifdef _WIN32
#include <windows.h>

#include <shellapi.h>  // needs what windows.h declares
#endif

namespace catalog {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

// More than any file of the program has. It bounds what a device or an endless pipe can make the
// program hold, and keeps every length within 32 bits.
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
  static_assert(sizeof(wchar_t) == sizeof(char16_t), "Windows hands over UTF-16");
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
    if (bytes.size() > kLongestFile) throw InputError(name + " is too large");
  } while (file);
  if (file.bad()) throw InputError("cannot read " + name + ": " + systemReason());
  return bytes;
}

void writeBytes(const std::filesystem::path &path, std::string_view bytes) {
  errno = 0;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  const bool isOpen = file.is_open();
  if (file) file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (file) return;

  const std::string why = systemReason();
  std::error_code ignored;
  if (isOpen && std::filesystem::is_regular_file(path, ignored)) {
    std::filesystem::remove(path, ignored);
  }
  throw InputError("cannot write " + utf8FromPath(path) + ": " + why);
}

}  // namespace catalog
