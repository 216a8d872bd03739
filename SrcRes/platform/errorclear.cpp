#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/platform.h"

#if defined(MEM_AVX_CODE)
#include <immintrin.h>
#if defined(_MSC_VER) && !defined(__clang__)
#include <intrin.h>
#else
#include <cpuid.h>
#endif
#endif

namespace memlib {

namespace {

void clearByCall(MEMErrorArea &area) noexcept {
  std::memset(&area, 0, sizeof area);
}

#if defined(MEM_AVX_CODE)

constexpr std::size_t kWideLen = sizeof(__m256);

MEM_AVX_CODE inline void storeZeros(std::byte *pTo) noexcept {
  _mm256_storeu_ps(reinterpret_cast<float *>(pTo), _mm256_setzero_ps());
}

// One statement for each store, because compilers replace a loop by a call of memset.
template <std::size_t... kIndex>
MEM_AVX_CODE inline void storeZeros(std::byte *pTo, std::index_sequence<kIndex...>) noexcept {
  (storeZeros(pTo + kIndex * kWideLen), ...);
}

// The bits of adjacent blocks combined by OR, as a tree, so that the steps do not form one long
// dependency chain.
template <std::size_t kCount>
MEM_AVX_CODE inline __m256 joinedBlocks(const std::byte *pFrom) noexcept {
  if constexpr (kCount == 1) {
    return _mm256_loadu_ps(reinterpret_cast<const float *>(pFrom));
  } else {
    constexpr std::size_t kHalf = kCount / 2;
    return _mm256_or_ps(joinedBlocks<kHalf>(pFrom),
                        joinedBlocks<kCount - kHalf>(pFrom + kHalf * kWideLen));
  }
}

// Stores zeros into one part and checks the rest, which is clean unless a call has failed. A
// processor loads and stores at the same time, and does more loads than stores: this is faster than
// either alone. An access across a cache line takes twice as long, so the blocks in the middle are
// aligned for any address of the area, and the blocks at its ends overlap them.
MEM_AVX_CODE void clearByWideStores(MEMErrorArea &area) noexcept {
  constexpr std::size_t kBetween = sizeof area / kWideLen - 1;
  constexpr std::size_t kStored = 6;
  constexpr std::size_t kSeen = kBetween - kStored;
  auto *const pArea = reinterpret_cast<std::byte *>(&area);
  std::byte *const pBetween = pArea + (0 - reinterpret_cast<std::uintptr_t>(pArea)) % kWideLen;
  std::byte *const pSeen = pBetween + kStored * kWideLen;
  std::byte *const pLastButOne = pArea + kBetween * kWideLen;
  std::byte *const pLast = pArea + sizeof area - kWideLen;
  storeZeros(pArea);
  storeZeros(pBetween, std::make_index_sequence<kStored>());
  const __m256 ends = _mm256_or_ps(joinedBlocks<1>(pLastButOne), joinedBlocks<1>(pLast));
  const __m256i seen = _mm256_castps_si256(_mm256_or_ps(joinedBlocks<kSeen>(pSeen), ends));
  if (_mm256_testz_si256(seen, seen) == 0) [[unlikely]] {
    storeZeros(pSeen, std::make_index_sequence<kSeen>());
    storeZeros(pLastButOne);
    storeZeros(pLast);
  }
}

// The processor's features in register ECX of leaf 1.
constexpr std::uint32_t kSystemSavesMore = 1U << 27;  // OSXSAVE: XCR0 exists
constexpr std::uint32_t kHasAvx = 1U << 28;

// Bits of XCR0: registers that the system saves for a thread.
constexpr std::uint32_t kKeepsVectors = 0b110;

#if defined(_MSC_VER) && !defined(__clang__)

std::uint32_t features() noexcept {
  int registers[4];
  __cpuid(registers, 1);
  return static_cast<std::uint32_t>(registers[2]);
}

std::uint32_t keptRegisters() noexcept {
  return static_cast<std::uint32_t>(_xgetbv(0));
}

#else

std::uint32_t features() noexcept {
  std::uint32_t a = 0, b = 0, c = 0, d = 0;
  return __get_cpuid(1, &a, &b, &c, &d) != 0 ? c : 0;
}

std::uint32_t keptRegisters() noexcept {
  std::uint32_t low = 0, high = 0;
  __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return low;
}

#endif

// True when the processor has AVX, and the system saves its registers.
bool processorHasAvx() noexcept {
  constexpr std::uint32_t kNeeded = kSystemSavesMore | kHasAvx;
  return (features() & kNeeded) == kNeeded && (keptRegisters() & kKeepsVectors) == kKeepsVectors;
}

#endif

}  // namespace

ErrorAreaClear fastestErrorAreaClear() noexcept {
#if defined(MEM_AVX_CODE)
  if (processorHasAvx()) return clearByWideStores;
#endif
  return clearByCall;
}

}  // namespace memlib
