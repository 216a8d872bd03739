// Counts of what an object holds: entries, cells, records, texts.
#pragma once

#include <array>
#include <cstdint>

namespace memchk {

struct Usage {
  std::uint64_t made = 0;
  std::uint64_t freed = 0;
  std::uint64_t bytesAsked = 0;  // requested lengths of all that were made
  std::uint64_t liveBytes = 0;
  std::uint64_t peakBytes = 0;
  std::array<std::uint64_t, 33> histogram{};  // [n]: lengths of n binary digits, from 2^(n-1) on

  void add(std::uint64_t bytes) noexcept;
  void remove(std::uint64_t bytes) noexcept;
  void removeAll() noexcept;
  std::uint64_t live() const noexcept { return made - freed; }
};

}  // namespace memchk
