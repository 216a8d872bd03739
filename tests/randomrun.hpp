// Random tests that repeat: a generator with the same numbers on every platform, and the seed of a
// run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

namespace memtest {

// The distributions of the standard library differ between platforms, so none is used.
class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  std::uint64_t bits() { return engine_(); }
  // 0 .. limit - 1. REQUIRES: limit > 0.
  std::size_t below(std::size_t limit) { return static_cast<std::size_t>(engine_() % limit); }
  // from .. to, both included. REQUIRES: from <= to.
  std::size_t between(std::size_t from, std::size_t to) { return from + below(to - from + 1); }
  bool oneIn(std::size_t times) { return below(times) == 0; }

 private:
  std::mt19937_64 engine_;
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
