// Random tests that repeat: a generator with the same numbers on every platform, and the seed of a
// run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <span>
#include <string>

namespace memtest {

// The distributions of the standard library differ between platforms, so none is used.
class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  // A fuzzer's choices: decisions follow the bytes while there are any, then a fixed sequence. The
  // bytes are not copied.
  explicit Random(std::span<const std::uint8_t> choices) : engine_(1), choices_(choices) {}

  std::uint64_t bits() { return choices_.empty() ? engine_() : taken(8); }
  // 0 .. limit - 1. REQUIRES: limit > 0.
  std::size_t below(std::size_t limit) {
    if (choices_.empty()) return static_cast<std::size_t>(engine_() % limit);
    return static_cast<std::size_t>(taken(limit <= 256 ? 1 : 4) % limit);
  }
  // from .. to, both included. REQUIRES: from <= to.
  std::size_t between(std::size_t from, std::size_t to) { return from + below(to - from + 1); }
  bool oneIn(std::size_t times) { return below(times) == 0; }
  bool hasChoices() const { return !choices_.empty(); }

 private:
  std::uint64_t taken(std::size_t bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes && !choices_.empty(); ++i, choices_ = choices_.subspan(1)) {
      value = value << 8 | choices_[0];
    }
    return value;
  }

  std::mt19937_64 engine_;
  std::span<const std::uint8_t> choices_;
};

// The first seed of a random test: its own fixed one, or what MEM_TEST_SEED in the environment
// says, so that a failing run starts with the case that failed.
inline std::uint64_t firstSeed(std::uint64_t fixedSeed) {
  const char *override = std::getenv("MEM_TEST_SEED");
  return override == nullptr ? fixedSeed : std::strtoull(override, nullptr, 0);
}

// For SCOPED_TRACE.
inline std::string seedNote(std::uint64_t seed) {
  return "to begin with this case set MEM_TEST_SEED=" + std::to_string(seed);
}

}  // namespace memtest
