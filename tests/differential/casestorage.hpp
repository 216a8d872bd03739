// Storage at the same addresses in every run. What the library is given, from the caller and from
// the host, is at addresses that are fixed here, so two builds that do the same give the same log
// to the byte, addresses and what depends on their order included.
#pragma once

#include <cstddef>
#include <cstdint>

namespace replay {

// While one lives, everything that the program makes with `new` is at fixed addresses, until
// restart(). Only one at a time.
class FixedPlace {
 public:
  FixedPlace();
  ~FixedPlace();
  FixedPlace(const FixedPlace &) = delete;
  FixedPlace &operator=(const FixedPlace &) = delete;
};

// Reserves the address ranges; throws std::runtime_error when they are taken.
void reserveRanges();

// What is at fixed addresses now stays there.
void keepWhatIsThere();

// Begins again after what stays. REQUIRES: nothing else there is used any more.
void restart();

// A page of zeros that child processes share.
void *sharedPage();

// Runs a function on a stack in its own range, so that addresses of locals can be recognized, also
// where only their low 32 bits are shown.
void runOnOwnStack(void (*function)());

bool isOnOwnStack(std::uint64_t address);
bool isOnOwnStackByLowHalf(std::uint32_t lowHalf);
bool isFixed(std::uint64_t address);  // of caller or host

}  // namespace replay
