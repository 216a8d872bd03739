#include "memchk_usage.hpp"

#include <algorithm>
#include <bit>

namespace memchk {

void Usage::add(std::uint64_t bytes) noexcept {
  ++made;
  bytesAsked += bytes;
  liveBytes += bytes;
  peakBytes = std::max(peakBytes, liveBytes);
  const auto digits = static_cast<std::size_t>(std::bit_width(bytes));
  ++histogram[std::min(digits, histogram.size() - 1)];
}

void Usage::remove(std::uint64_t bytes) noexcept {
  ++freed;
  liveBytes -= bytes;
}

void Usage::removeAll() noexcept {
  freed = made;
  liveBytes = 0;
}

}  // namespace memchk
