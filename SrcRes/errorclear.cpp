#include "errorclear.h"

#include <cstddef>
#include <cstring>
#include <utility>

#include "platform.h"

#if defined(MEM_AVX_CODE)
#include <immintrin.h>
#endif

namespace mem {

namespace {

void clearByCall(MEMErrorArea &area) noexcept {
  std::memset(&area, 0, sizeof area);
}

#if defined(MEM_AVX_CODE)

constexpr std::size_t kStoreLen = sizeof(__m256i);

MEM_AVX_CODE inline void storeZeros(std::byte *pTo) noexcept {
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(pTo), _mm256_setzero_si256());
}

// A statement for each store, since a compiler makes a call of memset of a loop.
template <std::size_t... kIndex>
MEM_AVX_CODE inline void storeZeros(std::byte *pTo, std::index_sequence<kIndex...>) noexcept {
  (storeZeros(pTo + kIndex * kStoreLen), ...);
}

MEM_AVX_CODE void clearByWideStores(MEMErrorArea &area) noexcept {
  auto *const pArea = reinterpret_cast<std::byte *>(&area);
  storeZeros(pArea, std::make_index_sequence<sizeof area / kStoreLen>());
  storeZeros(pArea + sizeof area - kStoreLen);  // overlaps the one before
}

#endif

}  // namespace

ErrorAreaClear fastestErrorAreaClear() noexcept {
#if defined(MEM_AVX_CODE)
  if (processorHasAvx()) return clearByWideStores;
#endif
  return clearByCall;
}

}  // namespace mem
