#include "memchk_report.hpp"

#include <array>
#include <cstdio>

#include "memchk_checkers.hpp"
#include "memchk_platform.hpp"

namespace memchk {

namespace {

struct ServiceNames {
  std::array<const char *, MEM_VECTOR_LEN> names{};
};

constexpr ServiceNames listNames() {
  ServiceNames list;
  for (const char *&pName : list.names) pName = "";
#define MEMCHK_NAME(slot, name) list.names[slot] = #name;
  MEM_VECTOR_SLOTS(MEMCHK_NAME)
#undef MEMCHK_NAME
  return list;
}

constexpr ServiceNames kServices = listNames();

MEMCheckPlace shown(const Place &place) noexcept {
  if (!place.isKnown()) return {};
  return {serviceName(place.slot), place.pCaller, place.call, place.slot, place.thread};
}

void addPlace(std::string &text, const char *pWhat, const Place &place) {
  if (!place.isKnown()) return;
  text += "\n  ";
  text += pWhat;
  text += " by " + placeText(place);
}

}  // namespace

const char *serviceName(std::uint32_t slot) noexcept {
  return slot < kServices.names.size() ? kServices.names[slot] : "";
}

std::string placeText(const Place &place) {
  std::string text = serviceName(place.slot);
  text += ", call " + std::to_string(place.call) + ", thread " + std::to_string(place.thread);
  const std::string name = platform::codeName(place.pCaller);
  text += ", from " + (name.empty() ? addressText(place.pCaller) : name);
  const std::string line = checkers::codeLine(place.pCaller);
  if (!line.empty()) text += " in " + line;
  return text;
}

std::string addressText(const void *pAddress) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%016llX",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pAddress)));
  return text;
}

std::string countText(std::uint64_t count, const char *pWhat) {
  return std::to_string(count) + ' ' + pWhat + (count == 1 ? "" : "s");
}

void deliver(const Finding &finding, const Place &found, MEMCheckReportFn *pReport,
             void *pContext) {
  std::string text = "memchk: " + finding.what + "\n  " + finding.where;
  addPlace(text, "found", found);
  addPlace(text, finding.pMade, finding.made);
  addPlace(text, finding.pEnded, finding.ended);
  MEMCheckReport report{};
  report.Kind = static_cast<std::uint32_t>(finding.kind);
  report.Code = finding.code;
  report.pText = text.c_str();
  report.pAddress = finding.pAddress;
  report.pObject = finding.pObject;
  report.pOwner = finding.pOwner;
  report.Length = finding.length;
  report.Given = finding.given;
  report.Found = shown(found);
  report.Made = shown(finding.made);
  report.Ended = shown(finding.ended);
  if (pReport != nullptr) {
    pReport(pContext, &report);
  } else {
    std::fprintf(stderr, "%s\n", text.c_str());
    std::fflush(stderr);
  }
  checkers::showStack("memchk: the call that found it:");
}

}  // namespace memchk
