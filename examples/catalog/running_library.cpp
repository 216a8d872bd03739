#include "running_library.hpp"

namespace catalog {
namespace {

std::string withDetail(const std::string &text, const std::string &detail) {
  return detail.empty() ? text : text + " (" + detail + ")";
}

// "4055 MEMERR_HEAPAMEM, Acquire Memory failed (MemAllocFail)"
std::string describe(const refhost::Host &host, std::uint32_t code, const std::string &detail) {
  std::string text = std::to_string(code);
  if (const auto message = host.message(code)) text += " " + message->name + ", " + message->text;
  return withDetail(text, detail);
}

// Most services leave their code in `Code`; the start of the process leaves it in `InnerCode`, and
// a host service's own result may stand there beside `Code`.
std::string describeFailure(refhost::Host &host, const std::string &service, std::int16_t result) {
  const MEMErrorArea &error = host.thread().Error;
  const std::string start = service + " failed: ";
  if (error.Code != 0) return start + describe(host, error.Code, error.NameText);
  if (error.InnerCode != 0) return start + describe(host, error.InnerCode, error.InnerText);
  return withDetail(start + "result " + std::to_string(result) + " without a code", error.NameText);
}

}  // namespace

void check(refhost::Host &host, const std::string &service, std::int16_t result) {
  if (result != 0) throw ServiceError(describeFailure(host, service, result));
}

RunningLibrary::Process::Process(refhost::Host &host) : host_(host) {
  const std::int16_t result = host_.vector().MEM_ProcessInit();
  if (result == 0) return;
  // What was made stays until the process is ended, the message table too: describe first.
  const std::string failure = describeFailure(host_, "MEM_ProcessInit", result);
  host_.vector().MEM_ProcessTerm();
  throw ServiceError(failure);
}

RunningLibrary::Thread::Thread(refhost::Host &host) : host_(host) {
  check(host_, "MEM_ThreadAct", host_.vector().MEM_ThreadAct());
}

}  // namespace catalog
