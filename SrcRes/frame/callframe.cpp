#include "frame/callframe.h"

#include <cstring>

namespace memlib {

namespace {

constexpr std::uint16_t kFailed = 0xFFFF;

}  // namespace

void copyText(char *pTo, std::size_t room, const char *pFrom) noexcept {
  std::size_t length = 0;
  while (length + 1 < room && pFrom[length] != '\0') ++length;
  std::memcpy(pTo, pFrom, length);
  pTo[length] = '\0';
}

MEMTraceBuf *CallFrame::traceBuffer() const noexcept {
  return frame_.pThreadEnv == nullptr ? nullptr : frame_.pThreadEnv->pTraceBuf;
}

void CallFrame::setText(MEMTraceBuf &buf, const char *text) noexcept {
  const std::size_t length = std::strlen(text);
  std::memcpy(buf.Text, text, length + 1);
  buf.TextLen = static_cast<std::uint32_t>(length);
}

void CallFrame::writeFixed(const RecordKind &kind, std::int32_t line, const char *text) noexcept {
  MEMTraceBuf *pBuf = traceBuffer();
  if (pBuf == nullptr) return;
  setText(*pBuf, text);
  writeRecord(kind, line);
}

void CallFrame::traceException(std::int32_t line, const char *text) noexcept {
  MEMTraceBuf *pBuf = traceBuffer();
  if (pBuf == nullptr) return;
  setText(*pBuf, text);
  traceServices().WriteException(MEM_COMPONENT, 0, "EXCP", entryPoint_.source,
                                 entryPoint_.traceName, line);
}

void CallFrame::traceWide(const RecordKind &kind, std::int32_t line,
                          const char16_t *text) noexcept {
  if (!isTraced(kind.flag) || traceBuffer() == nullptr) return;
  traceServices().WriteWideRecord(MEM_COMPONENT, 0, kind.type, entryPoint_.source,
                                  entryPoint_.traceName, line, text);
}

void CallFrame::writeRecord(const RecordKind &kind, std::int32_t line) noexcept {
  traceServices().WriteRecord(MEM_COMPONENT, 0, kind.type, entryPoint_.source,
                              entryPoint_.traceName, line);
}

std::int16_t CallFrame::succeed() noexcept {
  traceExit("Return=SUCCESS");
  return finish(0);
}

std::int16_t CallFrame::finish(std::int16_t result) noexcept {
  // The upper half of the field belongs to the host.
  frame_.Result = (frame_.Result & 0xFFFF0000U) | static_cast<std::uint16_t>(result);
  return result;
}

std::int16_t CallFrame::finishAsHostSet() const noexcept {
  return static_cast<std::int16_t>(frame_.Result);
}

void CallFrame::setMessage(const char *text) noexcept {
  if (MEMThreadEnv *pThread = thread()) {
    copyText(pThread->MessageText, sizeof pThread->MessageText, text);
  }
}

void CallFrame::keepHostError() noexcept {
  if (MEMThreadEnv *pThread = thread()) {
    pThread->Error.InnerCode = pThread->Error.Code;
    copyText(pThread->Error.InnerText, sizeof pThread->Error.InnerText, pThread->Error.NameText);
  }
}

std::int16_t CallFrame::fail(const Failure &failure) noexcept {
  MEMThreadEnv *pThread = thread();
  if (pThread == nullptr) return finish(failure.result);
  MEMErrorArea &error = pThread->Error;
  error.Code = failure.code;
  error.ReturnCode = kFailed;
  if (failure.marksComponent) error.Component = MEM_COMPONENT;
  if (failure.innerCode) error.InnerCode = *failure.innerCode;
  if (failure.wording == Wording::composed) {
    copyText(pThread->MessageText, sizeof pThread->MessageText, failure.text);
  }
  copyText(error.NameText, sizeof error.NameText,
           failure.wording == Wording::named ? failure.text : pThread->MessageText);
  textServices().ReportError(
      failure.reported == Reported::nameText ? error.NameText : pThread->MessageText,
      failure.detail);
  return finish(failure.result);
}

std::int16_t CallFrame::failForCaller(std::uint32_t innerCode, const char *innerText) noexcept {
  MEMThreadEnv *pThread = thread();
  if (pThread == nullptr) return finish(-1);
  MEMErrorArea &error = pThread->Error;
  error.ReturnCode = kFailed;
  error.PrevInnerCode = error.InnerCode;
  error.InnerCode = innerCode;
  setMessage(innerText);
  copyText(error.InnerText, sizeof error.InnerText, pThread->MessageText);
  textServices().ReportError(pThread->MessageText, "");
  return finish(-1);
}

std::int16_t CallFrame::failInside(std::uint32_t innerCode, const char *innerText) noexcept {
  if (MEMThreadEnv *pThread = thread()) {
    pThread->Error.InnerCode = innerCode;
    copyText(pThread->Error.InnerText, sizeof pThread->Error.InnerText, innerText);
  }
  return failAsRecorded();
}

std::int16_t CallFrame::failInsideKeepingCode(std::uint32_t innerCode,
                                              const char *innerText) noexcept {
  if (MEMThreadEnv *pThread = thread()) pThread->Error.PrevInnerCode = pThread->Error.Code;
  return failInside(innerCode, innerText);
}

std::int16_t CallFrame::failAsRecorded() noexcept {
  if (MEMThreadEnv *pThread = thread()) {
    pThread->Error.Component = MEM_COMPONENT;
    pThread->Error.ReturnCode = kFailed;
  }
  return finish(-1);
}

}  // namespace memlib
