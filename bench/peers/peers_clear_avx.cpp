#include <immintrin.h>

#include "peers_clear.hpp"

namespace bench {

bool hasWideStores() {
  return __builtin_cpu_supports("avx") != 0;
}

void clearByWideStores(void *pArea) {
  storeZeros<__m256i>(pArea, [](char *at) {
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(at), _mm256_setzero_si256());
  });
}

}  // namespace bench
