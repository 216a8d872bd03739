#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

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

std::filesystem::path programPath() {
  return std::filesystem::read_symlink("/proc/self/exe");
}

}  // namespace refhost::platform
