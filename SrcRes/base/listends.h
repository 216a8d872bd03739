// Lists that a check must not follow in circles.
#pragma once

#include <cstddef>

#include "base/bytes.h"

namespace memlib {

// Whether a list whose members have the address of the next one at `linkOffset` comes to a null
// link. One walk goes twice as fast as the other and meets it where the list runs in circles.
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
