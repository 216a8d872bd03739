// How recorded calls of host services are shown. Uses no test framework.
#pragma once

#include <string_view>

#include "refhost.hpp"

namespace memtest {

// What the arguments of a service are: n number, a address, c a cell that the service stores into,
// f a trace frame. Arguments without a letter are not shown.
inline std::string_view argumentKinds(refhost::Service service) {
  using refhost::Service;
  switch (service) {
    case Service::GetAnchor:
    case Service::GetPoolStorage:
      return "nnc";
    case Service::SetAnchor:
      return "nna";
    case Service::CreateGate:
      return "c";
    case Service::DeleteGate:
    case Service::AcquireGate:
    case Service::ReleaseGate:
      return "n";
    case Service::FreePoolStorage:
    case Service::RegisterMessages:
      return "na";
    case Service::GetStorage:
      return "cnnn";
    case Service::FreeStorage:
      return "ann";
    case Service::ProtectStorage:
      return "annn";
    case Service::EnterFrame:
    case Service::LeaveFrame:
      return "fn";
    case Service::ConvertText:
      return "nn";
    case Service::CheckStorage:
      return "an";
    case Service::ReportError:
      return "aa";
    default:
      return "";
  }
}

}  // namespace memtest
