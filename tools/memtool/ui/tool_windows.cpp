#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>  // needs what windows.h declares
#include <stdio.h>

#include "tool_platform.hpp"
#include "tool_text.hpp"

namespace memtool::platform {
namespace {

HANDLE handleOf(Stream stream) {
  return GetStdHandle(stream == Stream::Out ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
}

}  // namespace

// Only consoles have a mode.
bool isTerminal(Stream stream) {
  DWORD mode = 0;
  return GetConsoleMode(handleOf(stream), &mode) != 0;
}

int terminalWidth() {
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (GetConsoleScreenBufferInfo(handleOf(Stream::Err), &info) == 0) return 80;
  return info.srWindow.Right - info.srWindow.Left + 1;
}

void prepareTerminal() {
  // Line ends are not translated: they may be part of an encoded text.
  _setmode(_fileno(stdout), _O_BINARY);
  for (const Stream stream : {Stream::Out, Stream::Err}) {
    DWORD mode = 0;
    if (GetConsoleMode(handleOf(stream), &mode) == 0) continue;
    SetConsoleOutputCP(CP_UTF8);
    SetConsoleMode(handleOf(stream), mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
  }
}

void makeInputBinary() {
  _setmode(_fileno(stdin), _O_BINARY);
}

std::uintmax_t nameCount(const std::filesystem::path &file) {
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  HANDLE handle = CreateFileW(file.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return 0;
  BY_HANDLE_FILE_INFORMATION found{};
  const bool isKnown = GetFileInformationByHandle(handle, &found) != 0;
  CloseHandle(handle);
  return isKnown ? found.nNumberOfLinks : 0;
}

// `main` gets its arguments in the process's code page, which cannot express every path.
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

}  // namespace memtool::platform
