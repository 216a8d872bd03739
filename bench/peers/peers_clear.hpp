// Clearing the error area with explicit stores of one width.
#pragma once

#include <cstddef>
#include <utility>

#include "qj7mem00/qj7mem00.h"

namespace bench {

// One statement for each store, because a compiler would replace a loop by memset. The last store
// overlaps the one before it, because the area's length is not a multiple of the width.
template <class Vector, class Store>
void storeZeros(void *pArea, Store store) {
  constexpr std::size_t kStores = sizeof(MEMErrorArea) / sizeof(Vector);
  auto *const bytes = static_cast<char *>(pArea);
  [&]<std::size_t... kIndex>(std::index_sequence<kIndex...>) {
    (store(bytes + kIndex * sizeof(Vector)), ...);
  }
  (std::make_index_sequence<kStores>());
  store(bytes + sizeof(MEMErrorArea) - sizeof(Vector));
}

// Stores of 32 bytes, which not every processor of the platform has.
bool hasWideStores();
void clearByWideStores(void *pArea);

}  // namespace bench
