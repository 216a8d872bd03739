// Damaged copies of inputs, for the replay of fuzz targets where there is no libFuzzer. A mutant is
// determined by its number and the inputs.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "randomrun.hpp"

namespace memtest {

using FuzzInput = std::vector<std::uint8_t>;

class Mutator {
 public:
  // REQUIRES: at least one input.
  explicit Mutator(const std::vector<FuzzInput> &inputs) : inputs_(inputs) {}

  FuzzInput mutant(std::uint64_t number) const {
    Random random(number);
    FuzzInput made = any(random);
    // Three in four mutants have few changes: an input that differs everywhere is refused at once.
    for (std::size_t i = random.oneIn(4) ? random.between(4, 16) : random.between(1, 3); i > 0;
         --i) {
      change(made, random);
    }
    if (made.size() > kMostLength) made.resize(kMostLength);
    return made;
  }

 private:
  static constexpr std::size_t kMostLength = 8192;

  const FuzzInput &any(Random &random) const { return inputs_[random.below(inputs_.size())]; }

  // Bytes that mean something: ends, limits, digits, and what port strings are made of.
  static std::uint8_t telling(Random &random) {
    constexpr std::string_view kTelling(
        "\0\0\xFF\xFF\x01\x7F\x80\x20"
        "0123456789()<>/,;\"'XxHNSEB-",
        35);
    return random.oneIn(4) ? static_cast<std::uint8_t>(random.below(256))
                           : static_cast<std::uint8_t>(kTelling[random.below(kTelling.size())]);
  }
  static std::size_t anyLength(Random &random) {
    return random.between(1, random.oneIn(4) ? 64 : 8);
  }

  void change(FuzzInput &made, Random &random) const {
    const std::size_t at = random.below(made.size() + 1);
    const auto place = made.begin() + static_cast<std::ptrdiff_t>(at);
    const std::size_t left = made.size() - at;
    switch (random.below(9)) {
      case 0:
        if (left > 0) *place ^= static_cast<std::uint8_t>(1U << random.below(8));
        break;
      case 1:
      case 2:
        if (left > 0) *place = telling(random);
        break;
      case 3:
        made.insert(place, telling(random));
        break;
      case 4: {  // digits, or the same byte again and again
        const bool isNumber = random.oneIn(2);
        FuzzInput run(anyLength(random), telling(random));
        for (std::uint8_t &byte : run) {
          if (isNumber) byte = static_cast<std::uint8_t>(random.between('0', '9'));
        }
        made.insert(place, run.begin(), run.end());
        break;
      }
      case 5:
        made.erase(place, place + static_cast<std::ptrdiff_t>(std::min(left, anyLength(random))));
        break;
      case 6:  // a part of another input, or of this one
        insertPart(made, at, random.oneIn(2) ? any(random) : FuzzInput(made), random);
        break;
      case 7: {  // another input from here on
        const FuzzInput &other = any(random);
        const std::size_t from = random.below(other.size() + 1);
        made.resize(at);
        made.insert(made.end(), other.begin() + static_cast<std::ptrdiff_t>(from), other.end());
        break;
      }
      default:
        overwrite(made, at, random);
    }
  }

  static void insertPart(FuzzInput &made, std::size_t at, const FuzzInput &other, Random &random) {
    const std::size_t from = random.below(other.size() + 1);
    const std::size_t length = std::min(other.size() - from, anyLength(random));
    const auto first = other.begin() + static_cast<std::ptrdiff_t>(from);
    made.insert(made.begin() + static_cast<std::ptrdiff_t>(at), first,
                first + static_cast<std::ptrdiff_t>(length));
  }

  // A number of 1 to 8 bytes, at a limit or near it.
  static void overwrite(FuzzInput &made, std::size_t at, Random &random) {
    constexpr std::uint64_t kLimits[] = {0,          1,          0x7F,      0xFF,
                                         0x7FFF,     0x8000,     0xFFFF,    0x7FFFFFFF,
                                         0x80000000, 0xFFFFFFFF, INT64_MAX, UINT64_MAX};
    std::uint64_t number = kLimits[random.below(std::size(kLimits))] + random.below(5) - 2;
    const std::size_t length = std::size_t{1} << random.below(4);
    for (std::size_t i = at; i < std::min(made.size(), at + length); ++i, number >>= 8) {
      made[i] = static_cast<std::uint8_t>(number);
    }
  }

  const std::vector<FuzzInput> &inputs_;
};

}  // namespace memtest
