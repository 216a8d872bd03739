// How a fuzz target reports what it found.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace memtest {

[[noreturn]] inline void stop(const std::string &finding) {
  std::fprintf(stderr, "finding: %s\n", finding.c_str());
  std::abort();
}

inline void require(bool holds, const char *what) {
  if (!holds) stop(what);
}

}  // namespace memtest
