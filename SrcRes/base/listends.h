// Detects cycles in lists, for checks that must end.
#pragma once

#include <cstddef>

#include "base/bytes.h"

namespace memlib {

// True when a list whose members hold the address of the next one at `linkOffset` ends with a null
// link. Two walks, one twice as fast as the other, meet if the list has a cycle.
inline bool listEnds(const void *pFirst, std::size_t linkOffset) noexcept {
  const auto next = [linkOffset](const void *pMember) noexcept {
    return loadAs<const void *>(bytesAt(pMember, linkOffset));
  };
  const void *pSlow = pFirst;
  for (const void *pFast = pFirst; pFast != nullptr; pFast = next(pFast)) {
    pFast = next(pFast);
    if (pFast == nullptr) return true;
    if (pFast == pSlow) return false;
    pSlow = next(pSlow);
  }
  return true;
}

}  // namespace memlib
