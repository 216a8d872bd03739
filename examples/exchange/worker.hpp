// A process that makes packed chains from jobs.
#pragma once

#include <string>

#include "process_report.hpp"
#include "refhost.hpp"
#include "transport.hpp"
#include "trouble.hpp"

namespace exchange {

// Works until the run has ended, and publishes a report. A job that cannot be done is set aside.
// Throws TransportError if the streams are gone, ServiceError if the library fails.
ProcessReport work(Transport &transport, const refhost::Library &library, const std::string &name,
                   Trouble trouble);

}  // namespace exchange
