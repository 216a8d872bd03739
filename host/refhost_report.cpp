// Findings at a host's end: collecting them and writing the report.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <tuple>
#include <utility>

#include "refhost_impl.hpp"
#include "refhost_platform.hpp"

namespace refhost {

namespace {

// Groups of leaks that are written; the others are counted. The same for misuses.
constexpr std::size_t kMostWritten = 100;

std::string joined(const ServiceChain &services) {
  if (services.empty()) return "the host directly, outside of any service";
  std::string text;
  for (const std::string &service : services) {
    if (!text.empty()) text += " > ";
    text += service;
  }
  return text;
}

// The lines after the one with a leak or misuse: the entry points, the stack.
void appendCaller(std::string &text, const std::string &indent, const std::string &called,
                  const std::vector<std::string> &stack) {
  text += indent + "called: " + called + '\n';
  const char *label = "stack:  ";
  for (const std::string &place : stack) {
    text.append(indent).append(label).append(place) += '\n';
    label = "        ";
  }
}

// "subpool 7, kind 1, call 5, thread 1"
std::string circumstances(const Leak &leak) {
  return formatText("subpool %u, kind %s, call %llu, thread %llu", leak.subPool,
                    kindName(leak.kind).c_str(), leak.callNumber, leak.thread);
}

// Equal leaks, in the order of their call numbers.
using Group = std::vector<const Leak *>;

std::uint64_t bytesOf(const Group &group) {
  return group.size() * group.front()->length;
}

// The largest first.
std::vector<Group> groupsOf(const std::vector<Leak> &leaks) {
  const auto key = [](const Leak &leak) {
    return std::tie(leak.length, leak.subPool, leak.kind, leak.services, leak.stack);
  };
  std::map<decltype(key(leaks.front())), Group> byKey;
  for (const Leak &leak : leaks) byKey[key(leak)].push_back(&leak);
  std::vector<Group> groups;
  groups.reserve(byKey.size());
  for (auto &[equal, group] : byKey) groups.push_back(std::move(group));
  std::sort(groups.begin(), groups.end(), [](const Group &a, const Group &b) {
    return bytesOf(a) != bytesOf(b) ? bytesOf(a) > bytesOf(b)
                                    : a.front()->callNumber < b.front()->callNumber;
  });
  return groups;
}

void appendGroup(std::string &text, const Group &group) {
  const Leak &first = *group.front();
  if (group.size() == 1) {
    text += formatText("leak: %llu bytes at %p, ", first.length, first.area);
  } else {
    text += formatText("leak: %llu times %llu bytes, %llu in all, the first at %p, ",
                       std::uint64_t{group.size()}, first.length, bytesOf(group), first.area);
  }
  text += circumstances(first) + '\n';
  appendCaller(text, "  ", joined(first.services), first.stack);
}

void appendMisuse(std::string &text, const Misuse &misuse) {
  text += formatText("misuse: %s: %s\n", std::string(serviceName(misuse.service)).c_str(),
                     misuse.what.c_str());
  if (misuse.thread != 0) {  // it is a misuse, not a count of misuses
    const std::string called =
        formatText("%s, thread %llu", joined(misuse.services).c_str(), misuse.thread);
    appendCaller(text, "  ", called, misuse.stack);
  }
  if (!misuse.area) return;
  const Leak &area = *misuse.area;
  text += formatText("  area:   %llu bytes at %p, ", area.length, area.area) + circumstances(area) +
          '\n';
  appendCaller(text, "    ", joined(area.services), area.stack);
}

// "3 leaks (4296 bytes), 1 misuse"
std::string summary(const Findings &findings) {
  std::uint64_t bytes = 0;
  for (const Leak &leak : findings.leaks) bytes += leak.length;
  const auto counted = [](std::uint64_t count, const char *one, const char *many) {
    return formatText("%llu %s", count, count == 1 ? one : many);
  };
  std::string text;
  if (!findings.leaks.empty()) {
    text = counted(findings.leaks.size(), "leak", "leaks") + formatText(" (%llu bytes)", bytes);
  }
  if (!findings.misuses.empty()) {
    if (!text.empty()) text += ", ";
    text += counted(findings.misuses.size(), "misuse", "misuses");
  }
  return text;
}

void writeToStderr(const std::string &text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

void writeMisuse(const Misuse &misuse) {
  std::string text = "refhost: ";
  appendMisuse(text, misuse);
  writeToStderr(text);
}

}  // namespace

std::string Findings::text() const {
  if (empty()) return {};
  std::string text = "refhost: " + summary(*this) + '\n';
  const std::vector<Group> groups = groupsOf(leaks);
  for (std::size_t i = 0; i < std::min(groups.size(), kMostWritten); ++i) {
    appendGroup(text, groups[i]);
  }
  if (groups.size() > kMostWritten) {
    text += formatText("and %llu more kinds of leaks\n", groups.size() - kMostWritten);
  }
  for (std::size_t i = 0; i < std::min(misuses.size(), kMostWritten); ++i) {
    appendMisuse(text, misuses[i]);
  }
  if (misuses.size() > kMostWritten) {
    text += formatText("and %llu more misuses\n", misuses.size() - kMostWritten);
  }
  return text;
}

void stopOnMisuse(const Misuse &misuse) {
  writeMisuse(misuse);
  platform::stopInDebugger();
}

void abortOnMisuse(const Misuse &misuse) {
  writeMisuse(misuse);
  std::abort();
}

Leak Host::Impl::leakOf(const FoundArea &area) const {
  return {area.address,    area.length,        area.subPool,          area.kind,
          area.callNumber, area.origin.thread, *area.origin.services, describe(area.origin.stack)};
}

void Host::Impl::reportMisuse(Service service, std::string what, const Origin &origin,
                              const FoundArea *area) {
  const Misuse misuse = misuseOf(service, std::move(what), origin, area);
  misuses.report(misuse);
  if (options.onMisuse) options.onMisuse(misuse);
}

Misuse Host::Impl::misuseOf(Service service, std::string what, const Origin &origin,
                            const FoundArea *area) const {
  Misuse misuse{service,          std::move(what),        origin.thread,
                *origin.services, describe(origin.stack), {}};
  if (area != nullptr) misuse.area = leakOf(*area);
  return misuse;
}

void Host::Impl::addGatesLeft(Findings &findings) {
  for (const GateTable::Left &left : gates.takeLeft()) {
    const ServiceChain &services = *left.origin.services;
    if (left.owner != 0) {
      findings.misuses.push_back(
          {Service::ReleaseGate,
           formatText("gate %u is held by thread %llu at the end: ReleaseGate was not called",
                      left.handle, left.owner),
           left.origin.thread,
           services,
           describe(left.origin.stack),
           {}});
    } else if (services.empty() || services.back() != "MEM_SinkInit") {  // that is the library's
      findings.misuses.push_back({Service::DeleteGate,
                                  formatText("gate %u was not deleted", left.handle),
                                  left.origin.thread,
                                  services,
                                  describe(left.origin.stack),
                                  {}});
    }
  }
}

void Host::Impl::addThreadsLeftActive(Findings &findings) {
  if (anchor.load() != nullptr) return;  // the library is still in use
  for (const FoundArea &block : storage.takeThreadBlocks()) {
    findings.misuses.push_back(
        {Service::FreePoolStorage,
         formatText("thread %llu is active at the end: MEM_ThreadTerm was not called",
                    block.origin.thread),
         block.origin.thread, *block.origin.services, describe(block.origin.stack), leakOf(block)});
  }
}

Findings Host::Impl::takeFindings() {
  Findings findings;
  for (const FoundArea &area : storage.takeLeaks()) findings.leaks.push_back(leakOf(area));
  findings.misuses = misuses.take();
  addGatesLeft(findings);
  addThreadsLeftActive(findings);
  return findings;
}

Findings Host::report() {
  Findings findings = impl_->takeFindings();
  const Options &options = impl_->options;
  if (options.report && !findings.empty()) {
    options.onReport ? options.onReport(findings) : writeToStderr(findings.text());
  }
  return findings;
}

}  // namespace refhost
