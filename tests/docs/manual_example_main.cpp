// Runs the example of a page of the manual, which is compiled as it stands there. It must succeed,
// give back all that it takes and use the host's services properly.
#include <cstddef>
#include <cstdint>
#include <iostream>

#include "refhost.hpp"

extern "C" int example(const MEMFunctionVector *mem);

int main() {
  const refhost::Library library(refhost::Library::besideProgram());
  refhost::Session session(library.bindEntry());
  refhost::Host &host = session.host();
  const std::uint64_t areas = host.account().liveCount;  // what the started library holds itself
  const std::size_t gates = host.gateCount();

  const int result = example(&session.vector());
  if (result != 0) {
    const MEMErrorArea &error = host.thread().Error;
    std::cerr << "result " << result << ", code " << error.Code << " (" << error.NameText << ")\n";
  }
  const bool isAtRest = host.account().liveCount == areas && host.gateCount() == gates;
  if (!isAtRest) std::cerr << "not everything was given back\n" << host.leakReport();
  const auto misuses = host.takeMisuses();
  for (const refhost::Misuse &misuse : misuses) {
    std::cerr << refhost::serviceName(misuse.service) << ": " << misuse.what << '\n';
  }
  return result == 0 && isAtRest && misuses.empty() ? 0 : 1;
}
