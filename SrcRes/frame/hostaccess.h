// Access to the host: the vectors that binding keeps. A slot is read at every call, since the host
// may patch its tables and replace vector slots at any time.
#pragma once

#include <cstdint>

#include "platform/platform.h"
#include "qj7mem00/qj7mem00.h"

namespace memlib {

// What binding keeps; the fault guard of Linux keeps its own state (platform_posix.cpp). All zero
// while unbound. Only binding and unbinding write it, and they never overlap a call.
struct Binding {
  std::uint32_t SysFlags;
  const MEMSysEnv *pSysEnv;
  void *HostVector[MEM_HOST_VECTORS];
  void *ServiceVector[MEM_SERVICE_VECTORS];
  ErrorAreaClear clearErrorArea;
};

extern Binding binding;

inline const MEMRuntimeServices &runtimeServices() noexcept {
  return *static_cast<const MEMRuntimeServices *>(binding.HostVector[MEM_HOST_RUNTIME]);
}

inline const MEMTraceServices &traceServices() noexcept {
  return *static_cast<const MEMTraceServices *>(binding.HostVector[MEM_HOST_TRACE]);
}

inline const MEMTextServices &textServices() noexcept {
  return *static_cast<const MEMTextServices *>(binding.HostVector[MEM_HOST_TEXT]);
}

inline MEMFunctionVector &functionVector() noexcept {
  return *static_cast<MEMFunctionVector *>(binding.HostVector[MEM_HOST_VECTOR]);
}

inline bool isBound() noexcept {
  return binding.HostVector[MEM_HOST_RUNTIME] != nullptr;
}

// The host's platform flag. It marks packed chains and selects the packer's hash byte; it does not
// describe this machine's byte order.
inline bool platformIsBigEndian() noexcept {
  return binding.pSysEnv != nullptr &&
         (binding.pSysEnv->PlatformFlags & MEM_PLATFORM_BIG_ENDIAN) != 0;
}

// The process block, or null before MEM_ProcessInit.
inline MEMProcessBlock *processBlock() noexcept {
  void *pAnchor = nullptr;
  runtimeServices().GetAnchor(0, MEM_COMPONENT, &pAnchor);
  return static_cast<MEMProcessBlock *>(pAnchor);
}

}  // namespace memlib
