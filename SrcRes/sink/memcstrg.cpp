// String sink: one shared, sorted, write-protected copy of each string of the process. Entry
// points, start and stop, the common workers.
#include <cstring>
#include <optional>

#include "base/bytes.h"
#include "frame/callframe.h"
#include "sink/sink_compare.h"
#include "sink/sink_index.h"
#include "sink/sink_space.h"
#include "sink/sink_trace.h"

namespace mem {

namespace {

// Start and stop write no entry records, look-ups none either.
constexpr EntryPoint kSinkInit{"MEM_SinkInit", kSourceStrg, 0, 231};
constexpr EntryPoint kSinkTerm{"MEM_SinkTerm", kSourceStrg, 0, 302};
constexpr EntryPoint kSinkString{"MEM_SinkString", kSourceStrg, 344, 352};
constexpr EntryPoint kSinkDelete{"MEM_SinkDelete", kSourceStrg, 380, 388};
constexpr EntryPoint kSinkVerify{"MEM_SinkVerify", kSourceStrg, 0, 424};
constexpr EntryPoint kWSinkString{"MEM_WSinkString", kSourceStrg, 452, 464};
constexpr EntryPoint kWSinkDelete{"MEM_WSinkDelete", kSourceStrg, 492, 504};
constexpr EntryPoint kWSinkVerify{"MEM_WSinkVerify", kSourceStrg, 0, 544};

// How a call ended that did not succeed. A failed host call's own error has been kept as the inner
// one by then.
struct SinkFailure {
  std::uint32_t code;
  ErrorText name;
  const char *detail = "";
};
using SinkOutcome = std::optional<SinkFailure>;

SinkFailure failure(std::uint32_t code, const char *pName) noexcept {
  return {code, ErrorText(pName)};
}

// The process block of a running sink, or null. Asked without the gate: the first block stays where
// it is while the sink runs, the index may move.
MEMProcessBlock *sinkProcess() noexcept {
  MEMProcessBlock *pProcess = processBlock();
  return pProcess != nullptr && pProcess->Segments[0].pBase != nullptr ? pProcess : nullptr;
}

// The sink gate, held from a successful acquire() to the end of the scope.
class GateHold {
 public:
  explicit GateHold(std::uint32_t hGate) noexcept : hGate_(hGate) {}
  ~GateHold() noexcept {
    if (isHeld_) runtimeServices().ReleaseGate(hGate_);
  }
  GateHold(const GateHold &) = delete;
  GateHold &operator=(const GateHold &) = delete;

  bool acquire() noexcept {
    isHeld_ = runtimeServices().AcquireGate(hGate_) == 0;
    return isHeld_;
  }

 private:
  const std::uint32_t hGate_;
  bool isHeld_ = false;
};

// One call of a string service, after its frame was entered.
class SinkCall {
 public:
  SinkCall(CallFrame &frame, const void *pText, bool isWide) noexcept
      : frame_(frame), pProcess_(sinkProcess()), text_{nullptr, 0, isWide}, pText_(pText) {}

  // The common workers. Each returns the result of the call.
  std::int16_t MEM_SinkStringCommon(const void **ppSunk) noexcept;
  std::int16_t MEM_SinkVerifyCommon(const void **ppSunk) noexcept;
  std::int16_t MEM_SinkDeleteCommon() noexcept;

 private:
  SinkOutcome sink(const void **ppSunk) noexcept;
  SinkOutcome addCopy(SinkPlace place, const void **ppSunk) noexcept;
  SinkOutcome writeCopy(const SinkRun &run, const SinkRoom &room) noexcept;
  void takeBack(const SinkRun &run, const SinkRoom &room, bool isCounted) noexcept;
  SinkOutcome verify(const void **ppSunk, bool &isFound) noexcept;
  SinkOutcome giveUp(bool &isFound) noexcept;
  SinkOutcome erase(std::uint32_t slot) noexcept;
  SinkRoom reservedRoom(std::uint8_t *pCopy, const MEMSinkSegment &segment) const noexcept;
  void keepForEcho() noexcept;
  SinkPlace find() noexcept;

  // Keeps the host's own error and names the sink's.
  SinkFailure hostFailure(std::uint32_t code, const char *pName) noexcept;
  SinkFailure spaceFailure(SpaceResult result) noexcept;
  SinkFailure badAddress() const noexcept;
  std::int16_t fail(const SinkFailure &failed, Echo echo) noexcept;
  std::int16_t finishNotFound() noexcept { return frame_.finish(MEMERR_SINKNFND); }

  CallFrame &frame_;
  MEMProcessBlock *const pProcess_;
  SinkText text_;  // measured once the pointer is known to be there
  const void *const pText_;
  std::uint8_t kept_[kEchoedBytes];  // start of a text that is being erased
};

SinkFailure SinkCall::hostFailure(std::uint32_t code, const char *pName) noexcept {
  frame_.keepHostError();
  return failure(code, pName);
}

SinkFailure SinkCall::spaceFailure(SpaceResult result) noexcept {
  switch (result) {
    case SpaceResult::noStorage:
      return hostFailure(MEMERR_SINKVSTG, "GetVSTGErr");
    case SpaceResult::noProtection: {
      // Kept first: giving the block back may fail, too.
      const SinkFailure failed = hostFailure(MEMERR_SINKVSTG, "ProtPageErr");
      releaseBlock(pProcess_->Segments[--pProcess_->SegmentCount]);
      return failed;
    }
    default:
      return failure(MEMERR_SINKNOSPACE, "AllSinkBlksFull");
  }
}

// The text of a copy stands at an address that is not its own, or in no block.
SinkFailure SinkCall::badAddress() const noexcept {
  return {MEMERR_SINKIERR, ErrorText("Bad SinkPtr=").pointer(pText_), "Bad Sink Block Pointer"};
}

std::int16_t SinkCall::fail(const SinkFailure &failed, Echo echo) noexcept {
  echoInput(frame_, text_, echo);
  return frame_.fail({.code = failed.code,
                      .text = failed.name.c_str(),
                      .marksComponent = true,
                      .detail = failed.detail});
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

std::int16_t SinkCall::MEM_SinkStringCommon(const void **ppSunk) noexcept {
  if (pText_ == nullptr) {
    return fail(failure(MEMERR_SINKITEXT, "InputTextPtrNull"), Echo::ofSinking);
  }
  text_ = measureText(pText_, text_.isWide);
  traceSinking(frame_, text_);
  if (pProcess_ == nullptr) return fail(failure(MEMERR_SINKIERR, ""), Echo::ofSinking);
  if (ppSunk == nullptr) return fail(failure(MEMERR_SINKIERR, "SinkVerifyErr"), Echo::ofSinking);
  if (const SinkOutcome failed = sink(ppSunk)) return fail(*failed, Echo::ofSinking);
  return frame_.succeed();
}

SinkOutcome SinkCall::sink(const void **ppSunk) noexcept {
  GateHold gate(pProcess_->Gate);
  if (!gate.acquire()) return hostFailure(MEMERR_SINKLGATE, "ListGateAcq");
  const SinkPlace place = find();
  if (!place.isFound) return addCopy(place, ppSunk);
  SinkSlot &slot = sinkSlots(*pProcess_)[place.slot];
  ++slot.uses;
  *ppSunk = slot.pCopy;
  return {};
}

// Reserves, writes and indexes a copy, or leaves everything as it was.
SinkOutcome SinkCall::addCopy(SinkPlace place, const void **ppSunk) noexcept {
  const SinkRoom room = roomFor(text_);
  traceRoom(frame_, text_, room);
  SinkRun run;
  const SpaceResult reserved = reserveRun(*pProcess_, room, run);
  if (reserved == SpaceResult::full) traceOutOfSpace(frame_, text_, room);
  if (reserved != SpaceResult::done) return spaceFailure(reserved);
  traceRun(frame_, run, room);
  if (SinkOutcome failed = writeCopy(run, room)) return failed;
  if (!makeRoom(*pProcess_, place)) {
    const SinkFailure failed = hostFailure(MEMERR_SINKVSTG, "GetVSTGErr");
    takeBack(run, room, true);
    return failed;
  }
  insertSlot(frame_, *pProcess_, place, run.address());
  *ppSunk = run.address();
  return {};
}

// Only the copy's own bytes are writable, and only here and while it is erased.
SinkOutcome SinkCall::writeCopy(const SinkRun &run, const SinkRoom &room) noexcept {
  std::uint8_t *pCopy = run.address();
  if (!protectRun(pCopy, room.reservedLen, MEM_PROTECT_WRITABLE)) {
    const SinkFailure failed = hostFailure(MEMERR_SINKVSTG, "ProtPageErrReadWrite");
    releaseRun(run, room);
    return failed;
  }
  std::memset(pCopy, 0, static_cast<std::size_t>(room.reservedLen));
  std::memcpy(pCopy, text_.pBytes, text_.length);
  if (!protectRun(pCopy, room.reservedLen, MEM_PROTECT_READ_ONLY)) {
    const SinkFailure failed = hostFailure(MEMERR_SINKVSTG, "ProtPageErrReadOnly");
    takeBack(run, room, false);
    return failed;
  }
  countCopy(*run.pSegment, room);
  return {};
}

// Undoes a written copy after a failure: bytes, lengths and map bits. The bytes are cleared where
// the host lets them be.
void SinkCall::takeBack(const SinkRun &run, const SinkRoom &room, bool isCounted) noexcept {
  std::uint8_t *pCopy = run.address();
  if (protectRun(pCopy, room.reservedLen, MEM_PROTECT_WRITABLE)) {
    std::memset(pCopy, 0, static_cast<std::size_t>(room.reservedLen));
    protectRun(pCopy, room.reservedLen, MEM_PROTECT_READ_ONLY);
  }
  if (isCounted) uncountCopy(*run.pSegment, room);
  releaseRun(run, room);
}

std::int16_t SinkCall::MEM_SinkVerifyCommon(const void **ppSunk) noexcept {
  if (pText_ == nullptr) {
    return fail(failure(MEMERR_SINKITEXT, "InputTextPtrNull"), Echo::ofLookUp);
  }
  text_ = measureText(pText_, text_.isWide);
  if (ppSunk == nullptr) {
    return fail(failure(MEMERR_SINKSTEXT, "SinkTextPtrNull"), Echo::ofLookUp);
  }
  if (pProcess_ == nullptr) return fail(failure(MEMERR_SINKIERR, ""), Echo::ofLookUp);
  bool isFound = false;
  if (const SinkOutcome failed = verify(ppSunk, isFound)) return fail(*failed, Echo::ofLookUp);
  return isFound ? frame_.succeed() : finishNotFound();
}

SinkOutcome SinkCall::verify(const void **ppSunk, bool &isFound) noexcept {
  GateHold gate(pProcess_->Gate);
  if (!gate.acquire()) return hostFailure(MEMERR_SINKLGATE, "ListGateAcq");
  const SinkPlace place = find();
  isFound = place.isFound;
  if (isFound) *ppSunk = sinkSlots(*pProcess_)[place.slot].pCopy;
  return {};
}

std::int16_t SinkCall::MEM_SinkDeleteCommon() noexcept {
  traceDeleting(frame_, pText_);
  if (pText_ == nullptr) {
    return fail(failure(MEMERR_SINKIERR, "SinkVerifyErr"), Echo::ofLookUp);
  }
  text_ = measureText(pText_, text_.isWide);
  if (pProcess_ == nullptr) return fail(failure(MEMERR_SINKIERR, ""), Echo::ofLookUp);
  bool isFound = false;
  if (const SinkOutcome failed = giveUp(isFound)) return fail(*failed, Echo::ofLookUp);
  return isFound ? frame_.succeed() : finishNotFound();
}

SinkOutcome SinkCall::giveUp(bool &isFound) noexcept {
  GateHold gate(pProcess_->Gate);
  if (!gate.acquire()) return hostFailure(MEMERR_SINKLGATE, "ListGateAcq");
  const SinkPlace place = find();
  isFound = place.isFound;
  if (!isFound) return {};
  SinkSlot &slot = sinkSlots(*pProcess_)[place.slot];
  if (slot.pCopy != pText_) return badAddress();
  if (slot.uses == 1) return erase(place.slot);
  --slot.uses;
  return {};
}

// The last use is gone: bytes, map bits, lengths and slot. A refusal to make the copy writable
// leaves all of it; one to protect it again leaves nothing of it, and the host is asked once more.
SinkOutcome SinkCall::erase(std::uint32_t slot) noexcept {
  std::uint8_t *pCopy = sinkSlots(*pProcess_)[slot].pCopy;
  MEMSinkSegment *pSegment = segmentOf(*pProcess_, pCopy);
  if (pSegment == nullptr) return badAddress();
  const SinkRoom room = reservedRoom(pCopy, *pSegment);
  if (!protectRun(pCopy, room.reservedLen, MEM_PROTECT_WRITABLE)) {
    return hostFailure(MEMERR_SINKVSTG, "ProtPageErrReadWrite");
  }
  keepForEcho();
  std::memset(pCopy, 0, static_cast<std::size_t>(room.reservedLen));
  SinkOutcome failed;
  if (!protectRun(pCopy, room.reservedLen, MEM_PROTECT_READ_ONLY)) {
    failed = hostFailure(MEMERR_SINKVSTG, "ProtPageErrReadOnly");
    protectRun(pCopy, room.reservedLen, MEM_PROTECT_READ_ONLY);
  }
  const auto granule = static_cast<std::uint32_t>((pCopy - pSegment->pSpace) / kSinkGranule);
  releaseRun({pSegment, granule}, room);
  uncountCopy(*pSegment, room);
  removeSlot(*pProcess_, slot);
  return failed;
}

// What a copy reserved when it was written. Narrow text of odd length and wide text that ends in a
// unit below 256 look alike, but the wide one reserved a granule more. That granule is the copy's
// if it is in use, zero, and not the copy of the empty text, which sorts first.
SinkRoom SinkCall::reservedRoom(std::uint8_t *pCopy, const MEMSinkSegment &segment) const noexcept {
  const std::size_t end = copyEnd(pCopy);
  const bool isEvenText = end == 0 || pCopy[end - 1] != 0;
  const SinkRoom evenRoom{end, end + 2, end + 4};
  if (isEvenText) return evenRoom;
  const SinkRoom oddRoom{end - 1, end + 1, end + 2};
  const std::uint8_t *pExtra = pCopy + end + 2;
  if (pExtra > segment.pLast || !isGranuleUsed(segment, pExtra)) return oddRoom;
  if (pExtra[0] != 0 || pExtra[1] != 0) return oddRoom;
  return sinkSlots(*pProcess_)[pProcess_->First].pCopy == pExtra ? oddRoom : evenRoom;
}

// The text of a delete is the copy itself, and a failure echoes it when the copy is gone.
void SinkCall::keepForEcho() noexcept {
  if (text_.length > sizeof kept_) text_.length = sizeof kept_;
  std::memcpy(kept_, text_.pBytes, text_.length);
  text_.pBytes = kept_;
}

// Returns what the sink has, in the order in which it got it but for the gate, and clears its part
// of the process block. REQUIRES: there is a gate.
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

// The index comes last in the start. Its pointer tells whether the sink runs, and not the gate's
// handle, which may be any number.
bool isRunning(const MEMProcessBlock &process) noexcept {
  return process.pIndex != nullptr;
}

// A start that has failed behind its gate.
std::int16_t failStart(CallFrame &frame, MEMProcessBlock &process, const char *pName) noexcept {
  const std::int16_t result = frame.failInsideKeepingCode(MEMERR_SINKVSTG, pName);
  const ErrorAreaKeeper keeper(frame);
  releaseSink(process);
  return result;
}

// A call that stores the address of a copy: sinking or verifying.
using StoringWorker = std::int16_t (SinkCall::*)(const void **) noexcept;

template <class Char>
std::int16_t storeSunk(const EntryPoint &entryPoint, const Char *pText, const Char **ppSunk,
                       StoringWorker worker) noexcept {
  constexpr bool isWide = sizeof(Char) == sizeof(char16_t);
  CallFrame frame(entryPoint, ErrorArea::clear);
  if (isWide && frame.thread() == nullptr) return frame.finish(-1);
  const void *pSunk = nullptr;
  SinkCall call(frame, pText, isWide);
  const std::int16_t result = (call.*worker)(ppSunk == nullptr ? nullptr : &pSunk);
  if (result == 0) *ppSunk = static_cast<const Char *>(pSunk);
  return result;
}

template <class Char>
std::int16_t sinkDelete(const EntryPoint &entryPoint, const Char *pSunk) noexcept {
  constexpr bool isWide = sizeof(Char) == sizeof(char16_t);
  CallFrame frame(entryPoint, ErrorArea::clear);
  if (isWide && frame.thread() == nullptr) return frame.finish(-1);
  return SinkCall(frame, pSunk, isWide).MEM_SinkDeleteCommon();
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
  if (obtained != SpaceResult::done) {
    const bool isProtection = obtained == SpaceResult::noProtection;
    return failStart(frame, *pProcessBlk, isProtection ? "ProtPageErr" : "GetVSTGErr");
  }
  if (!openIndex(*pProcessBlk)) return failStart(frame, *pProcessBlk, "GetVSTGErr");
  return frame.succeed();
}

std::int16_t MEM_SinkTerm() noexcept {
  CallFrame frame(kSinkTerm, ErrorArea::keep);
  MEMProcessBlock *pProcessBlk = processBlock();
  if (pProcessBlk != nullptr && isRunning(*pProcessBlk)) releaseSink(*pProcessBlk);
  return frame.succeed();
}

std::int16_t MEM_SinkString(const char *pText, const char **ppSunk) noexcept {
  return storeSunk(kSinkString, pText, ppSunk, &SinkCall::MEM_SinkStringCommon);
}
std::int16_t MEM_WSinkString(const char16_t *pText, const char16_t **ppSunk) noexcept {
  return storeSunk(kWSinkString, pText, ppSunk, &SinkCall::MEM_SinkStringCommon);
}

std::int16_t MEM_SinkVerify(const char *pText, const char **ppSunk, void *) noexcept {
  return storeSunk(kSinkVerify, pText, ppSunk, &SinkCall::MEM_SinkVerifyCommon);
}
std::int16_t MEM_WSinkVerify(const char16_t *pText, const char16_t **ppSunk, void *) noexcept {
  return storeSunk(kWSinkVerify, pText, ppSunk, &SinkCall::MEM_SinkVerifyCommon);
}

std::int16_t MEM_SinkDelete(const char *pSunk) noexcept {
  return sinkDelete(kSinkDelete, pSunk);
}
std::int16_t MEM_WSinkDelete(const char16_t *pSunk) noexcept {
  return sinkDelete(kWSinkDelete, pSunk);
}

}  // namespace mem
