// Fixtures for contract tests: the real library, loaded at run time and driven through the vector
// by the reference host, as any host does; and the helpers that tests of several services share.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "hostcalls.hpp"
#include "refhost.hpp"

namespace memtest {

// What is tested: the library next to the program, or what MEM_TEST_MODULE in the environment
// names.
inline std::filesystem::path testedModule() {
  const char *override = std::getenv("MEM_TEST_MODULE");
  return override == nullptr ? refhost::Library::besideProgram() : override;
}

// The library is loaded once per test program and stays loaded.
inline refhost::Library &library() {
  static refhost::Library loaded(testedModule());
  return loaded;
}

inline constexpr std::int16_t kFailed = -1;
inline constexpr std::uint16_t kFailedCode = 0xFFFF;  // the same in the error area

// Comparison of storage byte by byte.
using Bytes = std::vector<std::uint8_t>;

inline Bytes bytesOf(const void *from, std::size_t length) {
  const auto *const bytes = static_cast<const std::uint8_t *>(from);
  return Bytes(bytes, bytes + length);
}

// "" when equal, else the ranges of offsets that differ: "76..77 80..83".
inline std::string changedRanges(const Bytes &before, const Bytes &after) {
  if (before.size() != after.size()) return "different lengths";
  std::string ranges;
  for (std::size_t from = 0; from < before.size(); ++from) {
    if (before[from] == after[from]) continue;
    std::size_t to = from;
    while (to + 1 < before.size() && before[to + 1] != after[to + 1]) ++to;
    if (!ranges.empty()) ranges += ' ';
    ranges += std::to_string(from) + ".." + std::to_string(to);
    from = to;
  }
  return ranges;
}

inline Bytes envBytes(const MEMThreadEnv &env) {
  return bytesOf(&env, sizeof env);
}
inline Bytes errorBytes(const MEMThreadEnv &env) {
  return bytesOf(&env.Error, sizeof env.Error);
}

// A host whose fresh storage is dirty: whatever is zero has been made so by the library.
inline refhost::Options withDirtyStorage() {
  refhost::Options options;
  options.dirtyStorage = true;
  return options;
}

// "Invalid Heap Handle=" and the like show addresses as 16 upper-case hexadecimal digits.
inline std::string hex16(const void *address) {
  return refhost::formatText("%p", address);
}

inline std::uint64_t asNumber(const void *address) {
  return reinterpret_cast<std::uintptr_t>(address);
}

using Lines = std::vector<std::string>;

// Trace records as lines, "STDX MEM_Free(..\SrcRes\MEMCSERV:182) 2:Return=VOID".
inline Lines recordLines(const std::vector<refhost::TraceRecord> &records) {
  Lines lines;
  for (const refhost::TraceRecord &record : records) lines.push_back(refhost::traceLine(record));
  return lines;
}

// Names that callLines shows for addresses.
using AddressNames = std::map<std::uint64_t, std::string>;

inline std::string argumentText(char kind, std::uint64_t value, const AddressNames &names) {
  if (kind == 'n') return std::to_string(value);
  if (kind == 'c') return "cell";
  if (kind == 'f') return "frame";
  if (value == 0) return "null";
  const auto named = names.find(value);
  return named == names.end() ? "?" : named->second;
}

// Recorded host calls as lines, "MEM_SinkInit: GetStorage(cell, 278528, 230, 0)". The name at
// the start is the innermost trace frame's.
inline Lines callLines(const std::vector<refhost::HostCall> &calls,
                       const AddressNames &names = {}) {
  Lines lines;
  for (const refhost::HostCall &call : calls) {
    std::string line = call.frame + ": " + std::string(refhost::serviceName(call.service)) + "(";
    const std::string_view kinds = argumentKinds(call.service);
    for (std::size_t i = 0; i < kinds.size(); ++i) {
      if (i > 0) line += ", ";
      line += argumentText(kinds[i], call.args[i], names);
    }
    lines.push_back(line + ")");
  }
  return lines;
}

// The lines of a service: `inner` in its trace frame. A line without a frame's name is its own.
inline Lines framed(const std::string &name, const Lines &inner = {}) {
  Lines lines = {name + ": EnterFrame(frame, 3)"};
  for (const std::string &line : inner) {
    lines.push_back(line.find(": ") == std::string::npos ? name + ": " + line : line);
  }
  lines.push_back(name + ": LeaveFrame(frame, 3)");
  return lines;
}

inline Lines joined(std::initializer_list<Lines> parts) {
  Lines lines;
  for (const Lines &part : parts) lines.insert(lines.end(), part.begin(), part.end());
  return lines;
}

// The lines of MEM_Alloc and MEM_Free, with the subpool and the kind as the host gets them.
inline Lines allocLines(std::int64_t size, std::uint16_t subPool, std::uint16_t kind = 1) {
  return framed("MemAlloc", {"GetAnchor(0, 3, cell)", "GetStorage(cell, " + std::to_string(size) +
                                                          ", " + std::to_string(subPool) + ", " +
                                                          std::to_string(kind) + ")"});
}

inline Lines freeLines(const std::string &area, std::int64_t size, std::uint16_t subPool) {
  return framed("MEM_Free",
                {"GetAnchor(0, 3, cell)", "FreeStorage(" + area + ", " + std::to_string(size) +
                                              ", " + std::to_string(subPool) + ")"});
}

// The host must have everything back: no storage, no gate, no misuse of a service. The checking
// layer, where there is one, must have found nothing.
inline void expectNothingLeft(refhost::Host &host) {
  EXPECT_EQ(host.checkReports(), 0U);
  EXPECT_EQ(host.leakReport(), "");
  EXPECT_EQ(host.gateCount(), 0U);
  EXPECT_EQ(host.heldGateCount(), 0U);
  for (const refhost::Misuse &misuse : host.takeMisuses()) {
    ADD_FAILURE() << refhost::serviceName(misuse.service) << ": " << misuse.what;
  }
}

// A bound library without process and thread blocks. At the end of each test nothing may be left.
class BoundTest : public ::testing::Test {
 protected:
  explicit BoundTest(refhost::Options options = {}) : host(options), mem(host.vector()) {
    host.bind(library().bindEntry());
  }

  ~BoundTest() override {
    host.disarm();
    host.restoreSlots();
    stop();
    host.unbind(library().bindEntry());
    expectNothingLeft(host);
  }

  void start() {
    ASSERT_EQ(mem.MEM_ProcessInit(), 0);
    ASSERT_EQ(mem.MEM_ThreadAct(), 0);
    started_ = true;
  }

  void stop() {
    if (!started_) return;
    started_ = false;
    EXPECT_EQ(mem.MEM_ThreadTerm(), 0);
    EXPECT_EQ(mem.MEM_ProcessTerm(), 0);
  }

  // Host calls that `call` makes.
  template <class Call>
  Lines hostCalls(Call call, const AddressNames &names = {}) {
    host.recordCalls(true);
    call();
    host.recordCalls(false);
    return callLines(host.takeCalls(), names);
  }

  MEMThreadEnv &env() { return host.thread(); }
  MEMErrorArea &error() { return env().Error; }
  std::string nameText() { return error().NameText; }
  std::string messageText() { return env().MessageText; }

  // A failure that a service records itself with its own marks: all of the error area, and the
  // report to the host.
  void expectRecorded(std::uint32_t code, const std::string &name) {
    MEMErrorArea expected{};
    expected.Component = 3;
    expected.ReturnCode = kFailedCode;
    expected.Code = code;
    std::memcpy(expected.NameText, name.c_str(), name.size());
    EXPECT_EQ(error().Code, code);
    EXPECT_EQ(nameText(), name);
    EXPECT_EQ(changedRanges(errorBytes(env()), bytesOf(&expected, sizeof expected)), "");
    EXPECT_EQ(host.calls(refhost::Service::ReportError), 1U);
    EXPECT_EQ(host.lastReportedText(), name);
    EXPECT_EQ(host.lastReportedDetail(), "");
  }

  // A success that leaves the error area clear and reports nothing.
  void expectNothingRecorded() {
    EXPECT_EQ(changedRanges(errorBytes(env()), Bytes(sizeof(MEMErrorArea))), "");
    EXPECT_EQ(host.calls(refhost::Service::ReportError), 0U);
  }

  refhost::Host host;
  MEMFunctionVector &mem;

 private:
  bool started_ = false;
};

// The usual state of a host: bound, process initialised, this thread active.
class StartedTest : public BoundTest {
 protected:
  explicit StartedTest(refhost::Options options = {}) : BoundTest(options) { start(); }
};

// How often the host's trace and format services have been called.
inline std::uint64_t traceCalls(const refhost::Host &host) {
  using refhost::Service;
  return host.calls(Service::WriteRecord) + host.calls(Service::Format) +
         host.calls(Service::WriteException) + host.calls(Service::WriteWideRecord);
}

// Fills a thread environment but for its two addresses, so that every byte written shows.
inline void fillEnv(MEMThreadEnv &env, std::uint8_t pattern) {
  MEMTraceBuf *const pTraceBuf = env.pTraceBuf;
  MEMThreadBlock *const pMemThreadBlk = env.pMemThreadBlk;
  std::memset(static_cast<void *>(&env), pattern, sizeof env);
  env.pTraceBuf = pTraceBuf;
  env.pMemThreadBlk = pMemThreadBlk;
}

// A hash table whose heap could not be opened leaves its control block to the host, which knows it
// by its mark.
inline void returnHashTables(refhost::Host &host) {
  for (const refhost::Leak &leak : host.leaks()) {
    if (leak.length < 8 || std::memcmp(leak.area, "QQQQHASH", 8) != 0) continue;
    host.runtime().FreeStorage(leak.area, static_cast<std::uint32_t>(leak.length), leak.subPool);
  }
}

// Puts a function of another type into a slot: one that returns 32 bits where the slot promises 16
// of them, as hosts in other languages do.
template <class Slot, class Function>
void putAs(Slot &slot, Function *function) {
  static_assert(sizeof slot == sizeof function);
  std::memcpy(&slot, &function, sizeof function);
}

// The next call of a service fails with its own code 8. With an error code the host leaves that and
// kHostErrorText in the error area.
inline constexpr std::uint16_t kHostCode = 8;
inline constexpr char kHostErrorText[] = "HostErrorText";

inline refhost::Fault faultOf(refhost::Service service, std::uint32_t errorCode = 0) {
  refhost::Fault fault;
  fault.service = service;
  fault.code = kHostCode;
  fault.errorCode = errorCode;
  if (errorCode != 0) fault.errorText = kHostErrorText;
  return fault;
}

// Runs `attempt` with the first call of the fault's service failing, then the second, and so on
// until a run reaches no failing call; first with single failures, then with all later calls
// failing too. Each attempt must bring everything back to where it began; it may disarm the fault
// for its own cleaning up. Returns how many calls of the service were made to fail in turn.
template <class Attempt>
std::uint64_t sweepFaults(refhost::Host &host, refhost::Fault fault, Attempt attempt) {
  constexpr std::uint64_t kMostCalls = 100000;
  std::uint64_t failingCalls = 0;
  for (const bool andAllLater : {false, true}) {
    fault.andAllLater = andAllLater;
    for (fault.nth = 1; fault.nth <= kMostCalls; ++fault.nth) {
      SCOPED_TRACE(std::string(refhost::serviceName(fault.service)) + " call " +
                   std::to_string(fault.nth) + (andAllLater ? " and all later fail" : " fails"));
      const std::uint64_t firedBefore = host.faultsFired();
      host.arm(fault);
      attempt(fault.nth);
      host.disarm();
      if (host.faultsFired() == firedBefore) break;
      failingCalls = fault.nth;
      if (::testing::Test::HasFatalFailure()) return failingCalls;
    }
  }
  return failingCalls;
}

}  // namespace memtest
