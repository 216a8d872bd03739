#include "binding/entrypoints.h"
#include "frame/hostaccess.h"
#include "platform/platform.h"

namespace memlib {

constinit Binding binding{};

namespace {

// The lists hold addresses of cells; the cells hold the addresses of the vectors.
void keepVectors(void **kept, void **const *ppCells, int count) noexcept {
  for (int i = 0; i < count; ++i) kept[i] = *ppCells[i];
}

void bind(void **const *ppHostVectors, void **const *ppServiceVectors, const MEMSysEnv *pSysEnv,
          std::uint32_t SysFlags) noexcept {
  binding.SysFlags = SysFlags;
  binding.pSysEnv = pSysEnv;
  binding.clearErrorArea = fastestErrorAreaClear();
  keepVectors(binding.HostVector, ppHostVectors, MEM_HOST_VECTORS);
  keepVectors(binding.ServiceVector, ppServiceVectors, MEM_SERVICE_VECTORS);
  PSdynamn(kFillVector);
}

void unbind() noexcept {
  if (!isBound()) return;
  PSdynamn(kClearVector);  // still needs the host's vectors
  binding = {};
  releaseGuards();  // the library may be unloaded next
}

}  // namespace
}  // namespace memlib

extern "C" void ENV_FWV_V00M00_GFunc(void **const *ppHostVectors, void **const *ppServiceVectors,
                                     const MEMSysEnv *pSysEnv, std::uint32_t SysFlags,
                                     std::int16_t Mode) noexcept {
  if (Mode == MEM_MODE_BIND) {
    memlib::bind(ppHostVectors, ppServiceVectors, pSysEnv, SysFlags);
  } else {
    memlib::unbind();
  }
}
