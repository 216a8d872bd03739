// Copies of storage that is mostly short.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bytes.h"

namespace mem {

// Two loads and two stores of a kind, which may overlap.
// REQUIRES: sizeof(Piece) <= length <= 2 * sizeof(Piece).
template <class Piece>
inline void copyEnds(void *pTo, const void *pFrom, std::size_t length) noexcept {
  const auto first = loadAs<Piece>(pFrom);
  const auto last = loadAs<Piece>(bytesAt(pFrom, length - sizeof(Piece)));
  storeAs(pTo, first);
  storeAs(bytesAt(pTo, length - sizeof(Piece)), last);
}

// Copies what takes less time than a call of memcpy. The two do not overlap.
inline void copyBytes(void *pTo, const void *pFrom, std::size_t length) noexcept {
  struct Half {
    std::uint64_t words[2];
  };
  if (length > 4 * sizeof(Half)) {
    std::memcpy(pTo, pFrom, length);
  } else if (length > 2 * sizeof(Half)) {
    copyEnds<Half>(pTo, pFrom, 2 * sizeof(Half));
    copyEnds<Half>(bytesAt(pTo, length - 2 * sizeof(Half)),
                   bytesAt(pFrom, length - 2 * sizeof(Half)), 2 * sizeof(Half));
  } else if (length >= sizeof(Half)) {
    copyEnds<Half>(pTo, pFrom, length);
  } else if (length >= sizeof(std::uint64_t)) {
    copyEnds<std::uint64_t>(pTo, pFrom, length);
  } else if (length >= sizeof(std::uint32_t)) {
    copyEnds<std::uint32_t>(pTo, pFrom, length);
  } else {
    for (std::size_t i = 0; i < length; ++i) *bytesAt(pTo, i) = *bytesAt(pFrom, i);
  }
}

}  // namespace mem
