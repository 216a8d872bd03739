// Fuzzes MEM_Unpack: the chain, the caller's control block and settings of the host. chainrun.hpp
// describes the form of an input and what is checked after each call.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "binding/entrypoints.h"
#include "chainrun.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static refhost::Session session(ENV_FWV_V00M00_GFunc);
  const std::string fault = chainrun::runFuzzCase(session, data, size);
  if (!fault.empty()) {
    std::fprintf(stderr, "unpack_fuzz: %s\n", fault.c_str());
    std::abort();
  }
  return 0;
}
