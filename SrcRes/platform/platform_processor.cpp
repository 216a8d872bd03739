#include "platform/platform.h"

#if defined(_M_X64) && defined(_MSC_VER) && !defined(__clang__)
#include <immintrin.h>
#include <intrin.h>
#elif defined(__x86_64__)
#include <cpuid.h>
#endif

namespace memlib {

namespace {

#if defined(MEM_AVX_CODE)

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
#endif

}  // namespace

bool processorHasAvx() noexcept {
#if defined(MEM_AVX_CODE)
  constexpr std::uint32_t kNeeded = kSystemSavesMore | kHasAvx;
  return (features() & kNeeded) == kNeeded && (keptRegisters() & kKeepsVectors) == kKeepsVectors;
#else
  return false;
#endif
}

}  // namespace memlib
