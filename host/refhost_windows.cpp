#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <system_error>
#include <vector>

#include "refhost_platform.hpp"

namespace refhost::platform {

std::size_t pageSize() {
  static const std::size_t size = [] {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return static_cast<std::size_t>(info.dwPageSize);
  }();
  return size;
}

void *mapPages(std::size_t bytes) {
  return VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void unmapPages(void *pages, std::size_t) {
  VirtualFree(pages, 0, MEM_RELEASE);
}

bool protectPages(void *pages, std::size_t bytes, bool readOnly) {
  DWORD previous = 0;
  return VirtualProtect(pages, bytes, readOnly ? PAGE_READONLY : PAGE_READWRITE, &previous) != 0;
}

namespace {

std::string lastErrorText() {
  const auto error = static_cast<int>(GetLastError());
  return std::system_category().message(error) + " (" + std::to_string(error) + ")";
}

}  // namespace

void *loadLibrary(const std::filesystem::path &path, std::string &reason) {
  HMODULE library = LoadLibraryW(path.c_str());
  if (library == nullptr) reason = lastErrorText();
  return library;
}

void *findExport(void *library, const char *name, std::string &reason) {
  FARPROC address = GetProcAddress(static_cast<HMODULE>(library), name);
  if (address == nullptr) reason = lastErrorText();
  return reinterpret_cast<void *>(address);
}

void unloadLibrary(void *library) {
  FreeLibrary(static_cast<HMODULE>(library));
}

const char *libraryFileName() {
  return "QJ7MEM00.dll";
}

std::filesystem::path programPath() {
  // The length of the path is not known beforehand; a full buffer means that it was cut.
  std::vector<wchar_t> buffer(MAX_PATH);
  for (;;) {
    const auto room = static_cast<DWORD>(buffer.size());
    const DWORD length = GetModuleFileNameW(nullptr, buffer.data(), room);
    if (length < room) return std::filesystem::path(buffer.data(), buffer.data() + length);
    buffer.resize(buffer.size() * 2);
  }
}

}  // namespace refhost::platform
