// String sink: one shared, sorted, write-protected copy of each string of the process. Entry
// points, start and stop, the common workers.
#include <cstring>

#include "base/bytes.h"
#include "frame/callframe.h"
#include "frame/outcome.h"
#include "platform/check.h"
#include "platform/platform.h"
#include "sink/sink_compare.h"
#include "sink/sink_index.h"
#include "sink/sink_space.h"
#include "sink/sink_trace.h"

namespace memlib {

namespace {

// Start, stop and look-ups write no entry records.
constexpr EntryPoint kSinkInit{"MEM_SinkInit", kSourceStrg, 0, 231};
constexpr EntryPoint kSinkTerm{"MEM_SinkTerm", kSourceStrg, 0, 302};
constexpr EntryPoint kSinkString{"MEM_SinkString", kSourceStrg, 344, 352};
constexpr EntryPoint kSinkDelete{"MEM_SinkDelete", kSourceStrg, 380, 388};
constexpr EntryPoint kSinkVerify{"MEM_SinkVerify", kSourceStrg, 0, 424};
constexpr EntryPoint kWSinkString{"MEM_WSinkString", kSourceStrg, 452, 464};
constexpr EntryPoint kWSinkDelete{"MEM_WSinkDelete", kSourceStrg, 492, 504};
constexpr EntryPoint kWSinkVerify{"MEM_WSinkVerify", kSourceStrg, 0, 544};

// Names of failures that several steps have in common.
constexpr char kStorageName[] = "GetVSTGErr";
constexpr char kWritableName[] = "ProtPageErrReadWrite";
constexpr char kReadOnlyName[] = "ProtPageErrReadOnly";

MEM_NOINLINE StepFailure failure(std::uint32_t code, const char *pName) noexcept {
  return {.code = code, .text = ErrorText(pName)};
}

// Name of the failure. REQUIRES: a block was not allocated, or not protected.
const char *nameOf(SpaceResult result) noexcept {
  MEM_ASSERT(result == SpaceResult::noStorage || result == SpaceResult::noProtection);
  return result == SpaceResult::noProtection ? "ProtPageErr" : kStorageName;
}

// The process block of a running sink, or null. Called without the gate, so it tests the first
// block, which does not move while the sink runs; the index may.
MEMProcessBlock *sinkProcess() noexcept {
  MEMProcessBlock *pProcess = processBlock();
  return pProcess != nullptr && pProcess->Segments[0].pBase != nullptr ? pProcess : nullptr;
}

// The sink gate, held from a successful acquire() to the end of the scope.
class GateHold {
 public:
  explicit GateHold(MEMProcessBlock &process) noexcept : process_(process), hGate_(process.Gate) {}
  ~GateHold() noexcept {
    if (!isHeld_) return;
    MEM_ASSERT_VALID(isValidSink(process_));
    runtimeServices().ReleaseGate(hGate_);
  }
  GateHold(const GateHold &) = delete;
  GateHold &operator=(const GateHold &) = delete;

  bool acquire() noexcept {
    isHeld_ = runtimeServices().AcquireGate(hGate_) == 0;
    return isHeld_;
  }

 private:
  MEMProcessBlock &process_;
  const std::uint32_t hGate_;
  bool isHeld_ = false;
};

// One call of a string service, inside its frame.
class SinkCall {
 public:
  SinkCall(CallFrame &frame, const void *pText, bool isWide) noexcept
      : frame_(frame), pProcess_(sinkProcess()), text_{nullptr, 0, isWide}, pText_(pText) {}

  // The common workers: MEM_SinkStringCommon and similar. Each returns the result of the call.
  std::int16_t stringCommon(const void **ppSunk) noexcept {
    return end(sink(ppSunk), Echo::ofSinking);
  }
  std::int16_t verifyCommon(const void **ppSunk) noexcept {
    return end(verify(ppSunk), Echo::ofLookUp);
  }
  std::int16_t deleteCommon() noexcept { return end(deleteUse(), Echo::ofLookUp); }

 private:
  Outcome sink(const void **ppSunk) noexcept;
  Outcome verify(const void **ppSunk) noexcept;
  Outcome deleteUse() noexcept;
  std::int16_t end(const Outcome &failed, Echo echo) noexcept;

  Outcome addCopy(SinkPlace place, const void **ppSunk) noexcept;
  Outcome reserve(const SinkRoom &room, SinkRun &run) noexcept;
  Outcome writeCopy(const SinkRun &run, const SinkRoom &room) noexcept;
  Outcome erase(std::uint32_t slot) noexcept;
  void keepForEcho() noexcept;
  SinkPlace find() noexcept;

  // Moves the host's error to the inner fields and returns the sink's failure.
  MEM_NOINLINE StepFailure hostFailure(std::uint32_t code, const char *pName) noexcept;
  StepFailure badAddress() const noexcept;

  CallFrame &frame_;
  MEMProcessBlock *const pProcess_;
  SinkText text_;  // set after the pointer is checked
  const void *const pText_;
  bool isAbsent_ = false;            // the text is not in the sink: a result, not a failure
  std::uint8_t kept_[kEchoedBytes];  // start of a text that is being erased
};

StepFailure SinkCall::hostFailure(std::uint32_t code, const char *pName) noexcept {
  frame_.keepHostError();
  return failure(code, pName);
}

// The failure for a sunk text at an address that is not its copy's.
StepFailure SinkCall::badAddress() const noexcept {
  return {.code = MEMERR_SINKIERR,
          .text = ErrorText("Bad SinkPtr=").pointer(pText_),
          .pDetail = "Bad Sink Block Pointer"};
}

std::int16_t SinkCall::end(const Outcome &failed, Echo echo) noexcept {
  if (failed) {
    echoInput(frame_, text_, echo);
    return finishWith(frame_, *failed);
  }
  return isAbsent_ ? frame_.finish(MEMERR_SINKNFND) : frame_.succeed();
}

SinkPlace SinkCall::find() noexcept {
  const SinkPlace place = findText(frame_, *pProcess_, text_);
  if (place.isFound) {
    traceFound(frame_, place.slot, sinkSlots(*pProcess_) + place.slot);
  } else {
    traceNotFound(frame_, text_);
  }
  return place;
}

Outcome SinkCall::sink(const void **ppSunk) noexcept {
  if (pText_ == nullptr) return failure(MEMERR_SINKITEXT, "InputTextPtrNull");
  text_ = measureText(pText_, text_.isWide);
  traceSinking(frame_, text_);
  if (pProcess_ == nullptr) return failure(MEMERR_SINKIERR, "");
  if (ppSunk == nullptr) return failure(MEMERR_SINKIERR, "SinkVerifyErr");
  GateHold gate(*pProcess_);
  if (!gate.acquire()) return hostFailure(MEMERR_SINKLGATE, "ListGateAcq");
  const SinkPlace place = find();
  if (!place.isFound) return addCopy(place, ppSunk);
  SinkSlot &slot = sinkSlots(*pProcess_)[place.slot];
  ++slot.uses;
  *ppSunk = slot.pCopy;
  return {};
}

Outcome SinkCall::verify(const void **ppSunk) noexcept {
  if (pText_ == nullptr) return failure(MEMERR_SINKITEXT, "InputTextPtrNull");
  text_ = measureText(pText_, text_.isWide);
  if (ppSunk == nullptr) return failure(MEMERR_SINKSTEXT, "SinkTextPtrNull");
  if (pProcess_ == nullptr) return failure(MEMERR_SINKIERR, "");
  GateHold gate(*pProcess_);
  if (!gate.acquire()) return hostFailure(MEMERR_SINKLGATE, "ListGateAcq");
  const SinkPlace place = find();
  isAbsent_ = !place.isFound;
  if (place.isFound) *ppSunk = sinkSlots(*pProcess_)[place.slot].pCopy;
  return {};
}

Outcome SinkCall::deleteUse() noexcept {
  traceDeleting(frame_, pText_);
  if (pText_ == nullptr) return failure(MEMERR_SINKIERR, "SinkVerifyErr");
  text_ = measureText(pText_, text_.isWide);
  if (pProcess_ == nullptr) return failure(MEMERR_SINKIERR, "");
  GateHold gate(*pProcess_);
  if (!gate.acquire()) return hostFailure(MEMERR_SINKLGATE, "ListGateAcq");
  const SinkPlace place = find();
  isAbsent_ = !place.isFound;
  if (!place.isFound) return {};
  SinkSlot &slot = sinkSlots(*pProcess_)[place.slot];
  if (slot.pCopy != pText_) return badAddress();
  if (slot.uses == 1) return erase(place.slot);
  --slot.uses;
  return {};
}

// Reserves, writes and indexes a copy. Changes nothing on failure.
Outcome SinkCall::addCopy(SinkPlace place, const void **ppSunk) noexcept {
  const SinkRoom room = roomFor(text_);
  traceRoom(frame_, text_, room);
  SinkRun run;
  if (Outcome failed = reserve(room, run)) return failed;
  traceRun(frame_, run, room);
  if (Outcome failed = writeCopy(run, room)) return failed;
  if (!makeRoom(*pProcess_, place)) {
    const StepFailure failed = hostFailure(MEMERR_SINKVSTG, kStorageName);
    takeBack(run, room);
    uncountCopy(*run.pSegment, room);
    return failed;
  }
  insertSlot(frame_, *pProcess_, place, run.address());
  *ppSunk = run.address();
  return {};
}

// The host's error is saved first, because freeing a block that is not protected may fail, too.
Outcome SinkCall::reserve(const SinkRoom &room, SinkRun &run) noexcept {
  const SpaceResult reserved = reserveRun(*pProcess_, room, run);
  if (reserved == SpaceResult::done) return {};
  if (reserved == SpaceResult::full) {
    traceOutOfSpace(frame_, text_, room);
    return failure(MEMERR_SINKNOSPACE, "AllSinkBlksFull");
  }
  const StepFailure failed = hostFailure(MEMERR_SINKVSTG, nameOf(reserved));
  if (reserved == SpaceResult::noProtection) releaseLastBlock(*pProcess_);
  return failed;
}

// Only the copy's bytes, which the host widens to whole pages, are made writable, and only while it
// is written or erased.
Outcome SinkCall::writeCopy(const SinkRun &run, const SinkRoom &room) noexcept {
  std::uint8_t *pCopy = run.address();
  if (!protectRun(pCopy, room.reservedLen, MEM_PROTECT_WRITABLE)) {
    const StepFailure failed = hostFailure(MEMERR_SINKVSTG, kWritableName);
    releaseRun(run, room);
    return failed;
  }
  std::memset(pCopy, 0, static_cast<std::size_t>(room.reservedLen));
  std::memcpy(pCopy, text_.pBytes, text_.length);
  if (!protectRun(pCopy, room.reservedLen, MEM_PROTECT_READ_ONLY)) {
    const StepFailure failed = hostFailure(MEMERR_SINKVSTG, kReadOnlyName);
    takeBack(run, room);
    return failed;
  }
  countCopy(*run.pSegment, room);
  return {};
}

// Called after the last use: removes bytes, map bits, lengths and slot. If the host refuses to make
// the copy writable, nothing is removed. If it refuses to protect the bytes again, everything is
// removed, and protection is requested once more.
Outcome SinkCall::erase(std::uint32_t slot) noexcept {
  std::uint8_t *pCopy = sinkSlots(*pProcess_)[slot].pCopy;
  MEMSinkSegment *pSegment = segmentOf(*pProcess_, pCopy);
  if (pSegment == nullptr) return badAddress();
  const SinkRoom room = reservedRoom(*pProcess_, *pSegment, pCopy);
  if (!protectRun(pCopy, room.reservedLen, MEM_PROTECT_WRITABLE)) {
    return hostFailure(MEMERR_SINKVSTG, kWritableName);
  }
  keepForEcho();
  std::memset(pCopy, 0, static_cast<std::size_t>(room.reservedLen));
  Outcome failed;
  if (!protectRun(pCopy, room.reservedLen, MEM_PROTECT_READ_ONLY)) {
    failed = hostFailure(MEMERR_SINKVSTG, kReadOnlyName);
    protectRun(pCopy, room.reservedLen, MEM_PROTECT_READ_ONLY);
  }
  releaseRun(runAt(*pSegment, pCopy), room);
  uncountCopy(*pSegment, room);
  removeSlot(*pProcess_, slot);
  return failed;
}

// The text of a delete is the copy itself, and a failure may echo it after the copy is erased.
void SinkCall::keepForEcho() noexcept {
  if (text_.length > sizeof kept_) text_.length = sizeof kept_;
  std::memcpy(kept_, text_.pBytes, text_.length);
  text_.pBytes = kept_;
}

// Frees what the sink has, in the order of allocation except for the gate, and clears its part of
// the process block. REQUIRES: there is a gate.
void releaseSink(MEMProcessBlock &process) noexcept {
  for (std::int32_t i = 0; i < process.SegmentCount; ++i) {
    MEMSinkSegment &segment = process.Segments[i];
    if (segment.pBase != nullptr) releaseBlock(segment);
    segment = {};
  }
  process.SegmentCount = 0;
  if (process.pIndex != nullptr) freeSinkStorage(process.pIndex, process.IndexLen);
  runtimeServices().DeleteGate(process.Gate);
  process.Gate = 0;
  process.pIndex = nullptr;
  process.IndexLen = process.SlotCount = 0;
  process.Used = process.Act = process.Garbage = 0;
  process.Free = 0;
  process.First = process.End = 0;
}

// The index is allocated last at start, so its pointer shows that the sink runs. The gate's handle
// may be any number, even 0.
bool isRunning(const MEMProcessBlock &process) noexcept {
  return process.pIndex != nullptr;
}

// Ends a start that failed after creating the gate.
std::int16_t failStart(CallFrame &frame, MEMProcessBlock &process, const char *pName) noexcept {
  const std::int16_t result = frame.failInsideKeepingCode(MEMERR_SINKVSTG, pName);
  const ErrorAreaKeeper keeper(frame);
  releaseSink(process);
  return result;
}

// A worker that stores the address of a copy: sinking or verifying.
using StoringWorker = std::int16_t (SinkCall::*)(const void **) noexcept;

// Only the wide entry points need a thread environment.
template <class Char, class Work>
std::int16_t runCall(const EntryPoint &entryPoint, const Char *pText, Work work) noexcept {
  constexpr bool isWide = sizeof(Char) == sizeof(char16_t);
  CallFrame frame(entryPoint, ErrorArea::clear);
  if (isWide && frame.thread() == nullptr) return frame.finish(-1);
  SinkCall call(frame, pText, isWide);
  return work(call);
}

template <class Char>
std::int16_t storeSunk(const EntryPoint &entryPoint, const Char *pText, const Char **ppSunk,
                       StoringWorker worker) noexcept {
  return runCall(entryPoint, pText, [ppSunk, worker](SinkCall &call) noexcept {
    const void *pSunk = nullptr;
    const std::int16_t result = (call.*worker)(ppSunk == nullptr ? nullptr : &pSunk);
    if (result == 0) *ppSunk = static_cast<const Char *>(pSunk);
    return result;
  });
}

template <class Char>
std::int16_t sinkDelete(const EntryPoint &entryPoint, const Char *pSunk) noexcept {
  return runCall(entryPoint, pSunk, [](SinkCall &call) noexcept { return call.deleteCommon(); });
}

}  // namespace

std::int16_t MEM_SinkInit() noexcept {
  CallFrame frame(kSinkInit, ErrorArea::keep);
  MEMProcessBlock *pProcessBlk = processBlock();
  frame.clearErrorArea();
  if (pProcessBlk == nullptr) return frame.failInsideKeepingCode(MEMERR_SINKIERR, "");

  if (isRunning(*pProcessBlk)) return frame.succeed();

  pProcessBlk->Gate = 0;
  if (runtimeServices().CreateGate(&pProcessBlk->Gate) != 0) {
    pProcessBlk->Gate = 0;
    return frame.failInsideKeepingCode(MEMERR_SINKLGATE, "CreateFailed");
  }
  pProcessBlk->SegmentCount = 0;
  const SpaceResult obtained = obtainBlock(*pProcessBlk);
  if (obtained != SpaceResult::done) return failStart(frame, *pProcessBlk, nameOf(obtained));
  if (!openIndex(*pProcessBlk)) return failStart(frame, *pProcessBlk, kStorageName);
  return frame.succeed();
}

std::int16_t MEM_SinkTerm() noexcept {
  CallFrame frame(kSinkTerm, ErrorArea::keep);
  MEMProcessBlock *pProcessBlk = processBlock();
  if (pProcessBlk != nullptr && isRunning(*pProcessBlk)) releaseSink(*pProcessBlk);
  return frame.succeed();
}

std::int16_t MEM_SinkString(const char *pText, const char **ppSunk) noexcept {
  return storeSunk(kSinkString, pText, ppSunk, &SinkCall::stringCommon);
}
std::int16_t MEM_WSinkString(const char16_t *pText, const char16_t **ppSunk) noexcept {
  return storeSunk(kWSinkString, pText, ppSunk, &SinkCall::stringCommon);
}

std::int16_t MEM_SinkVerify(const char *pText, const char **ppSunk, void *) noexcept {
  return storeSunk(kSinkVerify, pText, ppSunk, &SinkCall::verifyCommon);
}
std::int16_t MEM_WSinkVerify(const char16_t *pText, const char16_t **ppSunk, void *) noexcept {
  return storeSunk(kWSinkVerify, pText, ppSunk, &SinkCall::verifyCommon);
}

std::int16_t MEM_SinkDelete(const char *pSunk) noexcept {
  return sinkDelete(kSinkDelete, pSunk);
}
std::int16_t MEM_WSinkDelete(const char16_t *pSunk) noexcept {
  return sinkDelete(kWSinkDelete, pSunk);
}

}  // namespace memlib
