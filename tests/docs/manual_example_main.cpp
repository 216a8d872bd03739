// Runs the example of a page of the manual, which is compiled as the page shows it. It must
// succeed, free all that it allocates and use the host's services properly; the host reports what
// it does not.
#include <iostream>

#include "refhost.hpp"

extern "C" int example(const MEMFunctionVector *mem);

int main() {
  const refhost::Library library(refhost::Library::besideProgram());
  refhost::Session session(library.bindEntry());

  const int result = example(&session.vector());
  if (result != 0) {
    const MEMErrorArea &error = session.host().thread().Error;
    std::cerr << "result " << result << ", code " << error.Code << " (" << error.NameText << ")\n";
  }
  return session.close().empty() && result == 0 ? 0 : 1;
}
