#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "memchk_platform.hpp"

namespace memchk::platform {

namespace {

std::string withOffset(const std::string &name, const void *pCode, const void *pStart) {
  char offset[32];
  std::snprintf(offset, sizeof offset, "+0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pCode) -
                                                reinterpret_cast<std::uintptr_t>(pStart)));
  return name + offset;
}

// The name as the source has it, for a C++ name.
std::string readableName(const char *pSymbol) {
  int status = 0;
  char *const pReadable = abi::__cxa_demangle(pSymbol, nullptr, nullptr, &status);
  std::string name = status == 0 ? pReadable : pSymbol;
  std::free(pReadable);
  return name;
}

}  // namespace

void *findFunction(const char *pName) noexcept {
  return dlsym(RTLD_DEFAULT, pName);
}

std::string codeName(const void *pCode) {
  Dl_info info{};
  if (dladdr(pCode, &info) == 0 || info.dli_fname == nullptr) return {};
  const char *pSlash = std::strrchr(info.dli_fname, '/');
  std::string name =
      withOffset(pSlash == nullptr ? info.dli_fname : pSlash + 1, pCode, info.dli_fbase);
  if (info.dli_sname != nullptr) {
    name += " (" + withOffset(readableName(info.dli_sname), pCode, info.dli_saddr) + ")";
  }
  return name;
}

}  // namespace memchk::platform
