#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>
#if __has_include(<execinfo.h>)  // not in every C library
#include <execinfo.h>
#endif
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include "refhost.hpp"
#include "refhost_platform.hpp"

namespace refhost::platform {

std::size_t pageSize() {
  static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

void *mapPages(std::size_t bytes) {
  void *pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

void unmapPages(void *pages, std::size_t bytes) {
  munmap(pages, bytes);
}

bool protectPages(void *pages, std::size_t bytes, bool readOnly) {
  return mprotect(pages, bytes, readOnly ? PROT_READ : PROT_READ | PROT_WRITE) == 0;
}

namespace {

std::string loaderReason() {
  const char *reason = dlerror();
  return reason == nullptr ? "unknown reason" : reason;
}

}  // namespace

void *loadLibrary(const std::filesystem::path &path, std::string &reason) {
  void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) reason = loaderReason();
  return library;
}

std::vector<std::filesystem::path> libraryFolders() {
  std::vector<std::filesystem::path> folders;
#if defined(__GLIBC__)  // others do not report them
  void *const program = dlopen(nullptr, RTLD_NOW);
  if (program == nullptr) return folders;
  Dl_serinfo size{};
  if (dlinfo(program, RTLD_DI_SERINFOSIZE, &size) == 0) {
    const auto storage = std::make_unique<std::byte[]>(std::max(size.dls_size, sizeof size));
    auto *const info = new (storage.get()) Dl_serinfo(size);
    if (dlinfo(program, RTLD_DI_SERINFO, info) == 0) {
      for (unsigned i = 0; i < info->dls_cnt; i++) {
        const Dl_serpath &folder = info->dls_serpath[i];
        if ((folder.dls_flags & LA_SER_DEFAULT) == 0) folders.emplace_back(folder.dls_name);
      }
    }
  }
  dlclose(program);
#endif
  return folders;
}

void *findExport(void *library, const char *name, std::string &reason) {
  void *address = dlsym(library, name);
  if (address == nullptr) reason = loaderReason();
  return address;
}

void unloadLibrary(void *library) {
  dlclose(library);
}

const char *libraryFileName() {
  return "QJ7MEM00.so";
}

namespace {

// Enough to reach a component's own functions; the rest of a deeper stack is cut off.
constexpr int kMostFrames = 48;

// The name as the source has it, for a C++ name.
std::string readableName(const char *symbol) {
  int status = 0;
  char *const readable = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
  std::string name = status == 0 ? readable : symbol;
  std::free(readable);
  return name;
}

}  // namespace

std::vector<void *> callStack() {
#if __has_include(<execinfo.h>)
  std::array<void *, kMostFrames> addresses;
  const int count = backtrace(addresses.data(), kMostFrames);
  return std::vector<void *>(addresses.begin(), addresses.begin() + count);
#else
  return {};
#endif
}

const void *moduleAt(const void *address) {
  Dl_info info{};
  return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

std::string placeOf(void *returnAddress) {
  const auto call = reinterpret_cast<std::uintptr_t>(returnAddress) - 1;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void *>(call), &info) == 0) return formatText("%p", returnAddress);
  const auto offsetTo = [call](const void *start) {
    return call - reinterpret_cast<std::uintptr_t>(start);
  };
  const std::string file = std::filesystem::path(info.dli_fname).filename().string();
  std::string place = formatText("%s+0x%llX", file.c_str(), offsetTo(info.dli_fbase));
  if (info.dli_sname == nullptr) return place;
  return formatText("%s+0x%llX (%s)", readableName(info.dli_sname).c_str(),
                    offsetTo(info.dli_saddr), place.c_str());
}

void stopInDebugger() {
  std::raise(SIGTRAP);
}

std::filesystem::path programPath() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

}  // namespace refhost::platform
