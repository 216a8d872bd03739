#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "memchk_platform.hpp"

namespace memchk::platform {

void *findFunction(const char *) noexcept {
  return nullptr;
}

std::string codeName(const void *pCode) {
  constexpr DWORD kFlags =
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  HMODULE module = nullptr;
  char path[MAX_PATH] = "";
  if (GetModuleHandleExA(kFlags, static_cast<LPCSTR>(pCode), &module) == 0 ||
      GetModuleFileNameA(module, path, sizeof path) == 0) {
    return {};
  }
  path[sizeof path - 1] = '\0';
  const char *pSlash = std::strrchr(path, '\\');
  char offset[32];
  std::snprintf(offset, sizeof offset, "+0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pCode) -
                                                reinterpret_cast<std::uintptr_t>(module)));
  return std::string(pSlash == nullptr ? path : pSlash + 1) + offset;
}

}  // namespace memchk::platform
