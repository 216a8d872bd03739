#include "peers_host.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <mutex>

namespace bench {

namespace {

using refhost::Service;

// The thread's environment and the frame that it entered last.
constinit thread_local MEMThreadEnv *ownEnv = nullptr;
constinit thread_local MEMTraceFrame *innermost = nullptr;

void *anchor = nullptr;

void enterFrame(MEMTraceFrame *pFrame, std::int32_t) {
  pFrame->pHostLink = innermost;
  pFrame->pThreadEnv = ownEnv;
  pFrame->TraceFlags = 0;
  innermost = pFrame;
}

void leaveFrame(MEMTraceFrame *pFrame, std::int32_t) {
  innermost = static_cast<MEMTraceFrame *>(pFrame->pHostLink);
}

std::uint16_t getAnchor(std::int32_t, std::int32_t, void **ppAnchor) {
  *ppAnchor = anchor;
  return 0;
}

void setAnchor(std::int32_t, std::int32_t, void *pAnchor) {
  anchor = pAnchor;
}

// Gates are created in order; a handle is the index in the table plus one.
struct Gate {
  std::mutex mutex;
  bool isMade = false;
};
std::array<Gate, 64> gates;
std::mutex gatesMutex;

std::uint16_t createGate(std::uint32_t *phGate) {
  const std::lock_guard lock(gatesMutex);
  for (std::uint32_t i = 0; i < gates.size(); ++i) {
    if (gates[i].isMade) continue;
    gates[i].isMade = true;
    *phGate = i + 1;
    return 0;
  }
  return refhost::kNoGate;
}

void deleteGate(std::uint32_t hGate) {
  const std::lock_guard lock(gatesMutex);
  gates[hGate - 1].isMade = false;
}

std::uint16_t acquireGate(std::uint32_t hGate) {
  gates[hGate - 1].mutex.lock();
  return 0;
}

void releaseGate(std::uint32_t hGate) {
  gates[hGate - 1].mutex.unlock();
}

std::uintptr_t pageSize() {
  static const auto size = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  return size;
}

std::uintptr_t pagesUp(std::uintptr_t bytes) {
  return (bytes + pageSize() - 1) / pageSize() * pageSize();
}

// Only the sink's storage needs pages of its own.
std::uint16_t getStorage(void **ppArea, std::uint32_t length, std::uint16_t subPool,
                         std::uint16_t) {
  *ppArea = subPool == MEM_SINK_SUBPOOL ? std::aligned_alloc(pageSize(), pagesUp(length))
                                        : std::malloc(length);
  return *ppArea == nullptr ? refhost::kNoStorage : std::uint16_t{0};
}

void freeStorage(void *pArea, std::uint32_t, std::uint16_t) {
  std::free(pArea);
}

std::uint16_t getPoolStorage(std::uint16_t subPool, std::uint32_t length, void **ppArea) {
  return getStorage(ppArea, length, subPool, 0);
}

void freePoolStorage(std::uint16_t, void *pArea) {
  std::free(pArea);
}

std::uint16_t protectStorage(void *pArea, std::uint32_t length, std::uint16_t, std::uint16_t mode) {
  const auto first = reinterpret_cast<std::uintptr_t>(pArea);
  const std::uintptr_t start = first / pageSize() * pageSize();
  const int access = mode == MEM_PROTECT_READ_ONLY ? PROT_READ : PROT_READ | PROT_WRITE;
  const int result =
      mprotect(reinterpret_cast<void *>(start), pagesUp(first + length) - start, access);
  return result == 0 ? std::uint16_t{0} : refhost::kNotProtectable;
}

std::uint16_t checkStorage(const void *, std::uint32_t) {
  return 0;
}

// The slots are replaced before the library is bound, so that the same services free what they
// allocate.
void putBenchServices(MEMRuntimeServices &runtime) {
  runtime.GetAnchor = getAnchor;
  runtime.SetAnchor = setAnchor;
  runtime.CreateGate = createGate;
  runtime.DeleteGate = deleteGate;
  runtime.AcquireGate = acquireGate;
  runtime.ReleaseGate = releaseGate;
  runtime.GetPoolStorage = getPoolStorage;
  runtime.FreePoolStorage = freePoolStorage;
  runtime.GetStorage = getStorage;
  runtime.FreeStorage = freeStorage;
  runtime.ProtectStorage = protectStorage;
  runtime.EnterFrame = enterFrame;
  runtime.LeaveFrame = leaveFrame;
  runtime.CheckStorage = checkStorage;
}

}  // namespace

BenchSession::BenchSession(HostKind kind) {
  if (kind == HostKind::bench) putBenchServices(host_.runtime());
  ownEnv = &host_.thread();
  host_.bind(library().bindEntry());
  require(mem().MEM_ProcessInit(), "MEM_ProcessInit");
  require(mem().MEM_ThreadAct(), "MEM_ThreadAct");
}

BenchSession::~BenchSession() {
  mem().MEM_ThreadTerm();
  mem().MEM_ProcessTerm();
  host_.unbind(library().bindEntry());
}

BenchThread::BenchThread(BenchSession &session) : session_(session) {
  ownEnv = &session_.host().thread();
  require(session_.mem().MEM_ThreadAct(), "MEM_ThreadAct");
}

BenchThread::~BenchThread() {
  session_.mem().MEM_ThreadTerm();
}

HostCalls callsSoFar(refhost::Host &host) {
  const auto count = [&host](Service service) { return static_cast<double>(host.calls(service)); };
  return {.frames = count(Service::EnterFrame),
          .anchors = count(Service::GetAnchor),
          .gates = count(Service::AcquireGate),
          .protects = count(Service::ProtectStorage) / 2,
          .storage = count(Service::GetStorage)};
}

HostCalls callsPerOperation(const HostCalls &before, const HostCalls &after, double operations) {
  return {.frames = (after.frames - before.frames) / operations,
          .anchors = (after.anchors - before.anchors) / operations,
          .gates = (after.gates - before.gates) / operations,
          .protects = (after.protects - before.protects) / operations,
          .storage = (after.storage - before.storage) / operations};
}

}  // namespace bench
