// Binding entry of the library.
#pragma once

#include <cstdint>

#include "platform/platform.h"
#include "qj7mem00/memvect.h"

// See MEMBindFn. The only exported name.
extern "C" MEM_EXPORT void ENV_FWV_V00M00_GFunc(void **const *ppHostVectors,
                                                void **const *ppServiceVectors,
                                                const MEMSysEnv *pSysEnv, std::uint32_t SysFlags,
                                                std::int16_t Mode) noexcept;
