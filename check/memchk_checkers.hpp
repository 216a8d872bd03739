// The memory checkers that a program may run under, and what they are told. Found at run time: one
// build serves all. Without a checker all of this does nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace memchk::checkers {

// Looks for AddressSanitizer and valgrind, which are only asked for lines of code unless they are
// to be told. Before anything else here, with no other call running.
void find(bool areTold) noexcept;

// Whether there is one.
bool isPresent() noexcept;

// Nobody may touch these bytes; everybody may, and what they hold counts as written.
void deny(const void *pBytes, std::size_t length) noexcept;
void allow(const void *pBytes, std::size_t length) noexcept;

// Whether there is a checker that shows the names of blocks: valgrind.
bool showsNames() noexcept;

// Gives a block a name, with the place of this call. Returns what ends that, 0 where there is no
// need.
std::uint32_t name(const void *pBytes, std::size_t length, const char *pName) noexcept;
void unname(std::uint32_t block) noexcept;

// Function, file and line of code at an address, as AddressSanitizer knows them; else empty.
std::string codeLine(const void *pCode);

// AddressSanitizer calls `describe` with the address of each error that it has reported, null ends
// that.
void describeErrors(void (*describe)(const void *pAddress)) noexcept;

// valgrind shows the calling thread's stack, with `pTitle` as its first line.
void showStack(const char *pTitle) noexcept;

// As long as it lives, valgrind lets its thread touch everything.
class Leave {
 public:
  Leave() noexcept;
  ~Leave();
  Leave(const Leave &) = delete;
  Leave &operator=(const Leave &) = delete;
};

}  // namespace memchk::checkers
