#include "refhost.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "refhost_impl.hpp"
#include "refhost_platform.hpp"

namespace refhost {

constinit Host::Impl *activeHost = nullptr;

std::mutex &threadEndMutex() {
  static std::mutex mutex;
  return mutex;
}

namespace {

constexpr std::string_view kServiceNames[] = {
    "GetAnchor",        "SetAnchor",      "CreateGate",      "DeleteGate",     "AcquireGate",
    "ReleaseGate",      "GetPoolStorage", "FreePoolStorage", "GetStorage",     "FreeStorage",
    "RegisterMessages", "ProtectStorage", "EnterFrame",      "LeaveFrame",     "ConvertText",
    "CheckStorage",     "WriteRecord",    "Format",          "WriteException", "WriteWideRecord",
    "ReportError",      "FilterException"};
static_assert(std::size(kServiceNames) == kServiceCount);
static_assert(static_cast<std::size_t>(Service::FilterException) + 1 == kServiceCount);

// Functions in slots that the library must not call.
enum class Unused { kRuntimeSlot, kTraceSlot, kTextSlot, kVector };

template <Unused where>
void unusedSlot() {
  constexpr const char *kPlaces[] = {
      "a reserved slot of the runtime services", "a reserved slot of the trace services",
      "a reserved slot of the text services", "a service vector that is not for this library"};
  std::fprintf(stderr, "refhost: call through %s\n", kPlaces[static_cast<std::size_t>(where)]);
  std::abort();
}

// Puts `slot` into every slot of a service vector; the caller then sets those of the services.
template <class Vector>
void fillReserved(Vector &vector, MEMReservedSlot slot) {
  static_assert(sizeof(Vector) % sizeof(slot) == 0);
  for (std::size_t offset = 0; offset < sizeof(Vector); offset += sizeof(slot)) {
    std::memcpy(reinterpret_cast<char *>(&vector) + offset, &slot, sizeof(slot));
  }
}

// The vector of all cells that the library keeps but never uses.
struct UnusedVector {
  MEMReservedSlot slots[512];
};

UnusedVector *unusedVector() {
  static UnusedVector vector = [] {
    UnusedVector made;
    fillReserved(made, &unusedSlot<Unused::kVector>);
    return made;
  }();
  return &vector;
}

// The host's own slots of the MEM function vector hold addresses that are easy to recognise.
char hostSlotMarks[MEM_VECTOR_HOST_SLOTS];

template <std::size_t count>
void listCells(std::array<void *, count> &cells, std::array<void **, count> &list) {
  for (std::size_t i = 0; i < count; ++i) {
    cells[i] = unusedVector();
    list[i] = &cells[i];
  }
}

bool isCheckedByEnvironment() {
  const char *value = std::getenv("MEM_CHECKED");
  return value != nullptr && std::string_view(value) == "1";
}

}  // namespace

std::string_view serviceName(Service service) {
  return kServiceNames[static_cast<std::size_t>(service)];
}

Host::Impl::Impl(Options theOptions)
    : options(std::move(theOptions)),
      storage(options),
      traceFlags(options.traceFlags),
      checked(options.checked || isCheckedByEnvironment()) {
  if (activeHost != nullptr) {
    throw std::logic_error("a process has one Host at a time: destroy the other one first");
  }
  for (int i = 0; i < MEM_VECTOR_HOST_SLOTS; ++i) vector.HostSlots[i] = &hostSlotMarks[i];
  std::memset(&sysEnv, 0xEE, sizeof(sysEnv));
  sysEnv.PlatformFlags = options.bigEndian ? MEM_PLATFORM_BIG_ENDIAN : 0;
  listCells(hostCells, hostList);
  listCells(serviceCells, serviceList);
  hostCells[MEM_HOST_RUNTIME] = &runtimeServices;
  hostCells[MEM_HOST_TRACE] = &traceServices;
  hostCells[MEM_HOST_TEXT] = &textServices;
  hostCells[MEM_HOST_VECTOR] = &vector;
  fillTables();
  const std::lock_guard lock(threadEndMutex());
  activeHost = this;
}

Host::Impl::~Impl() {
  detachCheck();
  const std::lock_guard lock(threadEndMutex());
  activeHost = nullptr;
}

void Host::Impl::fillTables() {
  fillReserved(runtimeServices, &unusedSlot<Unused::kRuntimeSlot>);
  runtimeServices.GetAnchor = services::getAnchor;
  runtimeServices.SetAnchor = services::setAnchor;
  runtimeServices.CreateGate = services::createGate;
  runtimeServices.DeleteGate = services::deleteGate;
  runtimeServices.AcquireGate = services::acquireGate;
  runtimeServices.ReleaseGate = services::releaseGate;
  runtimeServices.GetPoolStorage = services::getPoolStorage;
  runtimeServices.FreePoolStorage = services::freePoolStorage;
  runtimeServices.GetStorage = services::getStorage;
  runtimeServices.FreeStorage = services::freeStorage;
  runtimeServices.RegisterMessages = services::registerMessages;
  runtimeServices.ProtectStorage = services::protectStorage;
  runtimeServices.EnterFrame = services::enterFrame;
  runtimeServices.LeaveFrame = services::leaveFrame;
  runtimeServices.ConvertText = services::convertText;
  runtimeServices.CheckStorage = services::checkStorage;

  fillReserved(traceServices, &unusedSlot<Unused::kTraceSlot>);
  traceServices.WriteRecord = services::writeRecord;
  traceServices.Format = services::format;
  traceServices.WriteException = services::writeException;
  traceServices.WriteWideRecord = services::writeWideRecord;

  fillReserved(textServices, &unusedSlot<Unused::kTextSlot>);
  textServices.ReportError = services::reportError;
  textServices.FilterException = services::filterException;
}

Host::Host(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}
Host::~Host() {
  report();
}

// A vector that binding has not filled gets no layer.
void Host::Impl::attachCheck() {
  const bool counts = options.statistics || options.places;
  if (!checked && !counts) return;
  MEMCheckOptions layer{};
  layer.Size = sizeof layer;
  layer.Flags = (checked ? 0 : MEMCHK_NO_CHECKS) | (counts ? MEMCHK_STATISTICS : 0) |
                (options.places ? MEMCHK_PLACES : 0);
  layer.pContext = this;
  layer.pReport = [](void *pContext, const MEMCheckReport *pReport) {
    static_cast<Impl *>(pContext)->checkReports.fetch_add(1);
    std::fprintf(stderr, "%s\n", pReport->pText);
  };
  MEMCheckAttach(&vector, &layer, &check);
}

void Host::Impl::detachCheck() {
  MEMCheckDetach(std::exchange(check, nullptr));
}

void Host::bind(MEMBindFn *entry) {
  impl_->detachCheck();
  const MEMSysEnv *sysEnv = impl_->options.nullSysEnv ? nullptr : &impl_->sysEnv;
  entry(impl_->hostList.data(), impl_->serviceList.data(), sysEnv, 0, MEM_MODE_BIND);
  impl_->attachCheck();
  impl_->boundVector = impl_->vector;
  impl_->isBound = true;
  impl_->libraryModule = platform::moduleAt(reinterpret_cast<const void *>(entry));
}

// Unbinding reads neither lists nor environment: it gets null pointers.
void Host::unbind(MEMBindFn *entry, std::int16_t mode) {
  impl_->detachCheck();
  entry(nullptr, nullptr, nullptr, 0, mode);
  impl_->isBound = false;
}

MEMFunctionVector &Host::vector() {
  return impl_->vector;
}
MEMRuntimeServices &Host::runtime() {
  return impl_->runtimeServices;
}
MEMTraceServices &Host::trace() {
  return impl_->traceServices;
}
MEMTextServices &Host::text() {
  return impl_->textServices;
}
MEMSysEnv &Host::sysEnv() {
  return impl_->sysEnv;
}

void Host::restoreSlots() {
  impl_->fillTables();
  if (impl_->isBound) impl_->vector = impl_->boundVector;
}

MEMThreadEnv &Host::thread() {
  return impl_->threads.current().env;
}
void Host::withoutThreadEnv(bool missing) {
  impl_->threadEnvMissing = missing;
}

MEMProcessBlock *Host::anchor() const {
  return static_cast<MEMProcessBlock *>(impl_->anchor.load());
}
const MEMMessageRow *Host::messageTable() const {
  return impl_->messageTable;
}

std::optional<Message> Host::message(std::uint32_t code) const {
  const MEMMessageRow *row = impl_->messageTable;
  if (row == nullptr) return std::nullopt;
  for (; row->Code != 0; ++row) {
    if (row->Code == code) return Message{row->Name, row->Message};
  }
  return std::nullopt;
}

Account Host::account(std::uint16_t subPool, std::uint16_t kind) const {
  return impl_->storage.account(subPool, kind);
}
Account Host::account(std::uint16_t subPool) const {
  return impl_->storage.account(subPool);
}
Account Host::account() const {
  return impl_->storage.account();
}
std::vector<Leak> Host::leaks() const {
  std::vector<Leak> leaks;
  for (const FoundArea &area : impl_->storage.areas()) leaks.push_back(impl_->leakOf(area));
  return leaks;
}
std::string Host::accountReport() const {
  return impl_->storage.report();
}
std::string Host::leakReport() const {
  return impl_->storage.leakReport();
}
bool Host::isReadOnly(const void *address) const {
  return impl_->storage.isReadOnly(address);
}
void Host::setDirtyStorage(bool dirty) {
  impl_->storage.setDirty(dirty);
}

std::size_t Host::gateCount() const {
  return impl_->gates.count();
}
std::size_t Host::heldGateCount() const {
  return impl_->gates.heldCount();
}

std::vector<Misuse> Host::takeMisuses() {
  return impl_->misuses.take();
}

MEMCheck *Host::check() const {
  return impl_->check;
}
std::uint64_t Host::checkReports() const {
  return impl_->checkReports.load();
}

void Host::arm(Fault fault) {
  impl_->calls.arm(std::move(fault));
}
void Host::disarm() {
  impl_->calls.disarm();
}
std::uint64_t Host::faultsFired() const {
  return impl_->calls.fired();
}

std::uint64_t Host::calls(Service service) const {
  return impl_->threads.calls(service);
}
void Host::resetCalls() {
  impl_->threads.resetCalls();
}
void Host::recordCalls(bool on) {
  impl_->calls.record(on);
}
std::vector<HostCall> Host::takeCalls() {
  return impl_->calls.take();
}

void Host::setTraceFlags(std::uint32_t flags) {
  impl_->traceFlags = flags;
}
void Host::keepRecords(bool on) {
  impl_->trace.keep(on);
}
std::vector<TraceRecord> Host::takeRecords() {
  return impl_->trace.take();
}
void Host::traceToStream(std::ostream *stream) {
  impl_->trace.toStream(stream);
}
void Host::traceToFile(const std::filesystem::path &path) {
  impl_->trace.toFile(path);
}
void Host::onTrace(std::function<void(const TraceRecord &)> callback) {
  impl_->trace.toCallback(std::move(callback));
}

void Host::setTraceLines(TraceLineStyle style) {
  impl_->trace.setStyle(style);
}
void Host::timelineToFile(const std::filesystem::path &path) {
  impl_->timeline.toFile(path);
}

void Host::setFilterAnswer(std::int32_t answer, std::uint16_t result) {
  impl_->filterAnswer = answer;
  impl_->filterResult = result;
}

std::string Host::lastReportedText() const {
  const std::lock_guard lock(impl_->reportMutex);
  return impl_->reportedText;
}

std::string Host::lastReportedDetail() const {
  const std::lock_guard lock(impl_->reportMutex);
  return impl_->reportedDetail;
}

}  // namespace refhost
