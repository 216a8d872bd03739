// Fuzzes the readers of port strings over a rich definition table. The first byte of an input is a
// chunk length, 0 for one block; the rest is the text. A call ends with success or with a message
// of the reader's; a fault that its guard would catch is an error, too.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "envcgref.h"
#include "portmutants.hpp"

namespace {

[[noreturn]] void fail(const std::string &fault) {
  std::fprintf(stderr, "port_fuzz: %s\n", fault.c_str());
  std::abort();
}

struct Target {
  Target() : session(ENV_FWV_V00M00_GFunc), reader(session.host()) {
    session.host().keepRecords(true);
    session.host().text().FilterException = [](void *, MEMTraceFrame *) -> std::int32_t {
      fail("the reader faults");
    };
  }
  refhost::Session session;
  memtest::HostileReader reader;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static Target target;
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
  const memtest::ReadOutcome outcome =
      data[0] == 0 ? target.reader.readBlock(text) : target.reader.readChain(text, data[0]);
  const std::string fault = memtest::HostileReader::fault(outcome);
  if (!fault.empty()) fail(fault);
  return 0;
}
