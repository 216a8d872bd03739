// The memory checkers under which a program may run, and the requests to them. They are found at
// run time, so one build works with and without. Without a checker the functions do nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace memchk::checkers {

// Looks for AddressSanitizer and valgrind. Without `areUsed` only codeLine() uses one. Call it
// before the other functions here, and while none of them runs.
void find(bool areUsed) noexcept;

// Whether a checker was found and is used.
bool isPresent() noexcept;

// Forbid every access to these bytes; allow it again, with the bytes initialised.
void deny(const void *pBytes, std::size_t length) noexcept;
void allow(const void *pBytes, std::size_t length) noexcept;

// Whether the checker shows the names of blocks: only valgrind does.
bool showsNames() noexcept;

// Gives a block a name, which valgrind shows with the stack of this call. Returns the number for
// unname(); 0 if there is no name.
std::uint32_t name(const void *pBytes, std::size_t length, const char *pName) noexcept;
void unname(std::uint32_t block) noexcept;

// Function, file and line of code at an address, from AddressSanitizer; else empty.
std::string codeLine(const void *pCode);

// Makes AddressSanitizer call `describe` with the address of each error that it has reported; null
// ends that.
void describeErrors(void (*describe)(const void *pAddress)) noexcept;

// Makes valgrind show the calling thread's stack, with `pTitle` as the first line.
void showStack(const char *pTitle) noexcept;

// While an object of this class exists, valgrind does not report accesses of its thread.
class Leave {
 public:
  Leave() noexcept;
  ~Leave();
  Leave(const Leave &) = delete;
  Leave &operator=(const Leave &) = delete;
};

}  // namespace memchk::checkers
