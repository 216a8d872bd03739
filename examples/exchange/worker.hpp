// A process that turns jobs into packed chains.
#pragma once

#include <string>

#include "process_report.hpp"
#include "refhost.hpp"
#include "transport.hpp"
#include "trouble.hpp"

namespace exchange {

// Works until the run has ended, and publishes a report. A job that cannot be done is set aside.
// Throws TransportError when the streams are gone, ServiceError when the library fails.
ProcessReport work(Transport &transport, const refhost::Library &library, const std::string &name,
                   Trouble trouble);

}  // namespace exchange
