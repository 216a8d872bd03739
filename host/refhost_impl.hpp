// The host's implementation: its state, the active host, the services and what they share.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "refhost.hpp"
#include "refhost_calls.hpp"
#include "refhost_gates.hpp"
#include "refhost_misuse.hpp"
#include "refhost_origin.hpp"
#include "refhost_storage.hpp"
#include "refhost_threads.hpp"
#include "refhost_timeline.hpp"
#include "refhost_trace.hpp"

namespace refhost {

struct Host::Impl {
  explicit Impl(Options theOptions);
  ~Impl();
  Impl(const Impl &) = delete;
  Impl &operator=(const Impl &) = delete;

  void fillTables();

  // What the calling thread is doing; `thread` is its state.
  Origin originOn(ThreadState &thread);

  // A stack as text, one line for each function.
  std::vector<std::string> describe(const std::vector<void *> &stack) const;
  Leak leakOf(const FoundArea &area) const;

  Misuse misuseOf(Service service, std::string what, const Origin &origin,
                  const FoundArea *area = nullptr) const;

  // Keeps a misuse and passes it to Options::onMisuse.
  // REQUIRES: no lock of the host's is held except threadEndMutex().
  void reportMisuse(Service service, std::string what, const Origin &origin,
                    const FoundArea *area = nullptr);

  // Leaks and misuses that have not been reported yet.
  Findings takeFindings();
  void addGatesLeft(Findings &findings);
  void addThreadsLeftActive(Findings &findings);

  void attachCheck();
  void detachCheck();

  // Reports what the calling thread, which ends, has not undone, and forgets the thread. A number
  // that is not that of a thread of this host is ignored.
  void endThread(std::uint64_t number);
  std::vector<Misuse> leftBy(ThreadState &ended);

  const Options options;
  ChainTable chains;
  MisuseLog misuses;
  StorageAccount storage;
  GateTable gates;
  ThreadTable threads;
  CallLog calls;
  HostClock clock;
  TraceOutput trace{options.traceLines};
  Timeline timeline{clock};

  // Read on every call, changed at any time.
  std::atomic<std::uint32_t> traceFlags;
  std::atomic<bool> threadEnvMissing{false};
  std::atomic<std::int32_t> filterAnswer{1};
  std::atomic<std::uint16_t> filterResult{0};
  std::atomic<void *> anchor{nullptr};
  std::atomic<const MEMMessageRow *> messageTable{nullptr};

  std::mutex reportMutex;  // guards the two texts
  std::string reportedText;
  std::string reportedDetail;

  // What the library is bound to. The lists hold the addresses of the cells.
  MEMRuntimeServices runtimeServices{};
  MEMTraceServices traceServices{};
  MEMTextServices textServices{};
  MEMFunctionVector vector{};
  MEMFunctionVector boundVector{};  // `vector` after binding
  bool isBound = false;
  const void *libraryModule = nullptr;  // of the library bound last
  const bool checked;
  MEMCheck *check = nullptr;  // attached to `vector` while bound, when checked or counting
  std::atomic<std::uint64_t> checkReports{0};
  MEMSysEnv sysEnv{};
  std::array<void *, MEM_HOST_VECTORS> hostCells{};
  std::array<void *, MEM_SERVICE_VECTORS> serviceCells{};
  std::array<void **, MEM_HOST_VECTORS> hostList{};
  std::array<void **, MEM_SERVICE_VECTORS> serviceList{};
};

// The host of all services; null while there is none. Set by construction and destruction only,
// which overlap no service call.
extern Host::Impl *activeHost;

// Held while activeHost is set and while it handles the end of a thread, because these may overlap.
// Made by the first host, so it exists longer than any.
std::mutex &threadEndMutex();

// One call of a service: counts it, records it and decides whether it fails. Costs two relaxed
// loads and a count while nothing is recorded, no fault is armed and no time line is written.
class Call {
 public:
  template <class... Args>
  explicit Call(Service service, Args... args)
      : host_(*activeHost), thread_(host_.threads.current()), service_(service) {
    thread_.count(service);
    if (host_.timeline.isOn()) beginSpan();
    if (host_.calls.isWatching()) begin({detail::widen(args)...});
  }
  ~Call() {
    if (hasSpan_) endSpan();
  }
  Call(const Call &) = delete;
  Call &operator=(const Call &) = delete;

  Host::Impl &host() const { return host_; }
  ThreadState &thread() const { return thread_; }

  // A faulted call does nothing and returns the fault's code.
  bool faulted() const { return faulted_; }
  std::uint16_t faultCode() const { return faultCode_; }

  // Completes the record with the service's result and returns the result.
  template <class T>
  T finish(T result) {
    if (number_ != 0) host_.calls.finish(number_, detail::widen(result));
    return result;
  }

  // Stores a refusal in the thread's error area and returns the code.
  std::uint16_t refuse(std::uint16_t code, const char *text);

  void misuse(std::string what, const FoundArea *area = nullptr) {
    host_.reportMisuse(service_, std::move(what), host_.originOn(thread_), area);
  }

  Origin origin() { return host_.originOn(thread_); }

  // Reports what the storage account refuses as misuses.
  StorageAccount::Complain complaints() {
    return [this](std::string what, const FoundArea *area) { misuse(std::move(what), area); };
  }

  // Reports a component other than the library's own.
  void checkComponent(std::int32_t component);

 private:
  void begin(const std::array<std::uint64_t, 4> &args);
  void beginSpan();
  void endSpan();
  void leaveError(std::uint32_t code, const char *text);

  Host::Impl &host_;
  ThreadState &thread_;
  const Service service_;
  bool hasSpan_ = false;  // on the time line
  bool faulted_ = false;
  std::uint16_t faultCode_ = 0;
  std::uint64_t number_ = 0;  // of the record, 0 if there is none
};

// The functions in the service vectors.
namespace services {

std::uint16_t getAnchor(std::int32_t zero, std::int32_t component, void **ppAnchor);
void setAnchor(std::int32_t zero, std::int32_t component, void *pAnchor);
std::uint16_t createGate(std::uint32_t *phGate);
void deleteGate(std::uint32_t hGate);
std::uint16_t acquireGate(std::uint32_t hGate);
void releaseGate(std::uint32_t hGate);
std::uint16_t getPoolStorage(std::uint16_t subPool, std::uint32_t length, void **ppArea);
void freePoolStorage(std::uint16_t subPool, void *pArea);
std::uint16_t getStorage(void **ppArea, std::uint32_t length, std::uint16_t subPool,
                         std::uint16_t kind);
void freeStorage(void *pArea, std::uint32_t length, std::uint16_t subPool);
void registerMessages(std::int32_t component, const MEMMessageRow *pTable);
std::uint16_t protectStorage(void *pArea, std::uint32_t length, std::uint16_t subPool,
                             std::uint16_t mode);
void enterFrame(MEMTraceFrame *pFrame, std::int32_t component);
void leaveFrame(MEMTraceFrame *pFrame, std::int32_t component);
std::uint16_t convertText(std::uint16_t fromPage, std::uint16_t toPage, const void *pIn,
                          std::int32_t inLen, void *pOut, std::int32_t outLen);
std::uint16_t checkStorage(const void *pArea, std::uint32_t length);

void writeRecord(std::int32_t component, std::int32_t zero, const char *pType, const char *pSource,
                 const char *pFunction, std::int32_t line);
std::int32_t format(char *pDest, const char *pFormat, ...);
void writeException(std::int32_t component, std::int32_t zero, const char *pType,
                    const char *pSource, const char *pFunction, std::int32_t line);
void writeWideRecord(std::int32_t component, std::int32_t zero, const char *pType,
                     const char *pSource, const char *pFunction, std::int32_t line,
                     const char16_t *pText);

void reportError(char *pErrorText, const char *pDetail);
std::int32_t filterException(void *pException, MEMTraceFrame *pFrame);

// Undoes the frames that were entered after `frame` on the thread. False if the thread has not
// entered `frame`.
bool unwindTo(ThreadState &thread, MEMTraceFrame *frame);

}  // namespace services

}  // namespace refhost
