// Fuzzes the readers of port strings over a rich definition table. The first byte of an input is a
// chunk length; the rest is the text. It is read as one block, character by character and in chunks
// of that length. Each call ends with success or with a message of the reader's; a fault that its
// guard would catch is an error, too. All readings end alike, store the same bytes and write the
// same records, as far as a chunk's can be a block's.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "binding/entrypoints.h"
#include "portmutants.hpp"

namespace {

[[noreturn]] void fail(const std::string &fault) {
  std::fprintf(stderr, "port_fuzz: %s\n", fault.c_str());
  std::abort();
}

struct Target {
  Target() : session(ENV_FWV_V00M00_GFunc), reader(session.host()) {
    session.host().keepRecords(true);
    session.host().setTraceFlags(MEM_TRACE_SKIPPED);
    session.host().text().FilterException = [](void *, MEMTraceFrame *) -> std::int32_t {
      fail("the reader faults");
    };
  }
  void check(const memtest::ReadOutcome &outcome) {
    const std::string fault = memtest::HostileReader::fault(outcome);
    if (!fault.empty()) fail(fault);
  }
  void checkChain(const memtest::ReadOutcome &block, std::string_view text, std::size_t chunkLen) {
    const memtest::ReadOutcome chain = reader.readChain(text, chunkLen);
    check(chain);
    const std::string difference = memtest::HostileReader::difference(block, chain, text, chunkLen);
    if (!difference.empty()) {
      fail("in chunks of " + std::to_string(chunkLen) + " not as in one block: " + difference);
    }
  }
  refhost::Session session;
  memtest::HostileReader reader;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static Target target;
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
  const memtest::ReadOutcome block = target.reader.readBlock(text);
  target.check(block);
  target.checkChain(block, text, 1);
  if (data[0] > 1) target.checkChain(block, text, data[0]);
  return 0;
}
