#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <array>
#include <cstdint>
#include <system_error>
#include <vector>

#include "refhost.hpp"
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

std::vector<std::filesystem::path> libraryFolders() {
  return {};
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

namespace {

// Enough to reach a component's own functions; the rest of a deeper stack is cut off.
constexpr DWORD kMostFrames = 48;

HMODULE moduleHandleAt(const void *address) {
  constexpr DWORD kByAddress =
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  HMODULE module = nullptr;
  GetModuleHandleExW(kByAddress, static_cast<LPCWSTR>(address), &module);
  return module;
}

std::filesystem::path pathOf(HMODULE module) {
  // The length of the path is not known beforehand; a full buffer means that it was cut.
  std::vector<wchar_t> buffer(MAX_PATH);
  for (;;) {
    const auto room = static_cast<DWORD>(buffer.size());
    const DWORD length = GetModuleFileNameW(module, buffer.data(), room);
    if (length < room) return std::filesystem::path(buffer.data(), buffer.data() + length);
    buffer.resize(buffer.size() * 2);
  }
}

}  // namespace

std::vector<void *> callStack() {
  std::array<void *, kMostFrames> addresses;
  const USHORT count = CaptureStackBackTrace(0, kMostFrames, addresses.data(), nullptr);
  return std::vector<void *>(addresses.begin(), addresses.begin() + count);
}

const void *moduleAt(const void *address) {
  return moduleHandleAt(address);
}

// Names are only in the debug information, which is not part of programs here.
std::string placeOf(void *returnAddress) {
  const auto call = reinterpret_cast<std::uintptr_t>(returnAddress) - 1;
  const HMODULE module = moduleHandleAt(reinterpret_cast<const void *>(call));
  if (module == nullptr) return formatText("%p", returnAddress);
  return formatText("%s+0x%llX", pathOf(module).filename().string().c_str(),
                    call - reinterpret_cast<std::uintptr_t>(module));
}

void stopInDebugger() {
  DebugBreak();
}

std::filesystem::path programPath() {
  return pathOf(nullptr);
}

}  // namespace refhost::platform
