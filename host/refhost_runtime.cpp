// Trace frames, anchors and the message table.
#include <cstring>

#include "refhost_impl.hpp"

namespace refhost {

namespace {

// The host's own bytes 16 to 31 of a frame: its thread while it is entered, else zero.
struct FrameStamp {
  std::uint64_t thread;  // number of the thread
  std::uint64_t reserved;
};
static_assert(sizeof(FrameStamp) == sizeof(MEMTraceFrame::Reserved16));

void stamp(MEMTraceFrame *frame, std::uint64_t thread) {
  const FrameStamp value{thread, 0};
  std::memcpy(frame->Reserved16, &value, sizeof(value));
}

bool isEntered(const MEMTraceFrame *frame, const ThreadState &thread) {
  FrameStamp value;
  std::memcpy(&value, frame->Reserved16, sizeof(value));
  return value.thread == thread.number;
}

const char *nameOf(const MEMTraceFrame *frame) {
  return frame == nullptr || frame->pName == nullptr ? "" : frame->pName;
}

}  // namespace

void Call::begin(const std::array<std::uint64_t, 4> &args) {
  const bool isFrameCall = service_ == Service::EnterFrame || service_ == Service::LeaveFrame;
  const MEMTraceFrame *frame =
      isFrameCall ? reinterpret_cast<const MEMTraceFrame *>(args[0]) : thread_.innermost;
  const CallLog::Begun begun = host_.calls.begin({service_, nameOf(frame), args, 0});
  number_ = begun.number;
  if (!begun.fault) return;
  faulted_ = true;
  faultCode_ = begun.fault->code;
  if (begun.fault->errorCode != 0) {
    leaveError(begun.fault->errorCode, begun.fault->errorText.c_str());
  }
}

namespace {

// Frames are spans themselves, and records are marks.
bool isSpan(Service service) {
  return service != Service::EnterFrame && service != Service::LeaveFrame &&
         service != Service::WriteRecord && service != Service::Format &&
         service != Service::WriteException && service != Service::WriteWideRecord;
}

}  // namespace

// The span is inside that of the innermost frame.
void Call::beginSpan() {
  if (!isSpan(service_)) return;
  hasSpan_ = true;
  host_.timeline.begin(thread_.number, thread_.frames.depth() + 1,
                       std::string(serviceName(service_)).c_str());
}

void Call::endSpan() {
  host_.timeline.endTo(thread_.number, thread_.frames.depth());
}

void Call::leaveError(std::uint32_t code, const char *text) {
  if (host_.threadEnvMissing.load(std::memory_order_relaxed)) return;
  MEMErrorArea &area = thread_.env.Error;
  area.Code = code;
  std::size_t length = 0;
  while (length < sizeof(area.NameText) - 1 && text[length] != '\0') ++length;
  std::memcpy(area.NameText, text, length);
  std::memset(area.NameText + length, 0, sizeof(area.NameText) - length);
}

std::uint16_t Call::refuse(std::uint16_t code, const char *text) {
  leaveError(code, text);
  return code;
}

void Call::checkComponent(std::int32_t component) {
  if (component == MEM_COMPONENT) return;
  misuse(formatText("component %d is not known: it must be %d", component, MEM_COMPONENT));
}

namespace services {

void enterFrame(MEMTraceFrame *pFrame, std::int32_t component) {
  Call call(Service::EnterFrame, pFrame, component);
  call.checkComponent(component);
  ThreadState &thread = call.thread();
  pFrame->pHostLink = thread.innermost;
  pFrame->pThreadEnv =
      call.host().threadEnvMissing.load(std::memory_order_relaxed) ? nullptr : &thread.env;
  pFrame->TraceFlags = call.host().traceFlags.load(std::memory_order_relaxed);
  stamp(pFrame, thread.number);
  thread.innermost = pFrame;
  thread.frames.enter(pFrame);
  if (call.host().timeline.isOn()) {
    call.host().timeline.begin(thread.number, thread.frames.depth(), nameOf(pFrame));
  }
}

bool unwindTo(ThreadState &thread, MEMTraceFrame *frame) {
  // Frames in between may no longer exist, because their functions have ended: do not read them.
  if (!isEntered(frame, thread)) return false;
  thread.innermost = frame;
  thread.frames.unwindTo(frame);
  if (activeHost->timeline.isOn()) {
    activeHost->timeline.endTo(thread.number, thread.frames.depth());
  }
  return true;
}

void leaveFrame(MEMTraceFrame *pFrame, std::int32_t component) {
  Call call(Service::LeaveFrame, pFrame, component);
  call.checkComponent(component);
  ThreadState &thread = call.thread();
  if (pFrame != thread.innermost) {
    const Origin origin = call.origin();
    if (!unwindTo(thread, pFrame)) {
      return call.misuse(formatText("frame \"%s\" was not entered on this thread", nameOf(pFrame)));
    }
    call.host().reportMisuse(
        Service::LeaveFrame,
        formatText("frame \"%s\" was left before frames inside it", nameOf(pFrame)), origin);
  }
  thread.frames.leave();
  if (call.host().timeline.isOn()) {
    call.host().timeline.endTo(thread.number, thread.frames.depth(), pFrame->Result & 0xFFFF);
  }
  thread.innermost = static_cast<MEMTraceFrame *>(pFrame->pHostLink);
  stamp(pFrame, 0);
}

std::uint16_t getAnchor(std::int32_t zero, std::int32_t component, void **ppAnchor) {
  Call call(Service::GetAnchor, zero, component, ppAnchor);
  if (call.faulted()) return call.faultCode();
  call.checkComponent(component);
  *ppAnchor = call.finish(call.host().anchor.load(std::memory_order_acquire));
  return 0;
}

void setAnchor(std::int32_t zero, std::int32_t component, void *pAnchor) {
  Call call(Service::SetAnchor, zero, component, pAnchor);
  if (call.faulted()) return;
  call.checkComponent(component);
  call.host().anchor.store(pAnchor, std::memory_order_release);
}

void registerMessages(std::int32_t component, const MEMMessageRow *pTable) {
  Call call(Service::RegisterMessages, component, pTable);
  if (call.faulted()) return;
  call.checkComponent(component);
  call.host().messageTable.store(pTable, std::memory_order_release);
}

}  // namespace services

}  // namespace refhost
