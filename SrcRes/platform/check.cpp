#include "platform/check.h"

#include <cstdio>
#include <cstdlib>

namespace memlib {

void checkThat(bool holds, const char *pCondition, const char *pFile, int line) noexcept {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: %s does not hold\n", pFile, line, pCondition);
  std::abort();
}

}  // namespace memlib
