// The frame of every entry point: enter the host's trace frame, find the thread environment, clear
// the error area, trace, report a failure, store the result, leave. With clear trace flags it costs
// only the host's enter and leave calls and the clearing of the error area.
#pragma once

#include <cstdint>
#include <optional>
#include <type_traits>

#include "frame/errortext.h"
#include "frame/hostaccess.h"
#include "platform/platform.h"

namespace memlib {

// Names of an entry point in frames and trace records. Line numbers are fixed markers of the trace
// statements; hosts filter by them.
struct EntryPoint {
  const char *traceName;
  const char *source;
  std::int32_t entryLine;
  std::int32_t exitLine;
};

// Source paths of the trace records, by unit.
inline constexpr char kSourceCat[] = "..\\SrcRes\\MEMCSCAT";
inline constexpr char kSourceCell[] = "..\\SrcRes\\MEMCCELL";
inline constexpr char kSourceDynm[] = "..\\SrcRes\\MEMCDYNM";
inline constexpr char kSourceHash[] = "..\\SrcRes\\MEMCHASH";
inline constexpr char kSourceHeap[] = "..\\SrcRes\\MEMCHEAP";
inline constexpr char kSourcePack[] = "..\\SrcRes\\MEMCPACK";
inline constexpr char kSourcePort[] = "..\\SrcRes\\MEMCPORT";
inline constexpr char kSourceProc[] = "..\\SrcRes\\MEMCPROC";
inline constexpr char kSourceServ[] = "..\\SrcRes\\MEMCSERV";
inline constexpr char kSourceStrg[] = "..\\SrcRes\\MEMCSTRG";

// Whether an entry point clears the thread's error area when it is entered.
enum class ErrorArea { clear, keep };

// How the text of a failure reaches the thread environment.
enum class Wording {
  composed,  // into the free message text and from there into the name field
  named,     // into the name field only
  standing   // the name field gets the current free message text
};

// Which text is passed to the host's reporting service.
enum class Reported { nameText, messageText };

struct Failure {
  std::uint32_t code;
  const char *text = "";  // unused for Wording::standing
  Wording wording = Wording::named;
  bool marksComponent = false;                  // sets the component number, too
  std::optional<std::uint32_t> innerCode = {};  // the nested service's code, if one failed
  Reported reported = Reported::nameText;
  const char *detail = "";  // for the report only
  std::int16_t result = -1;
};

// A kind of trace record and the flag that asks for it.
struct RecordKind {
  std::uint32_t flag;
  const char *type;
};
inline constexpr RecordKind kEntryRecord{MEM_TRACE_ENTRY, "STDE"};
inline constexpr RecordKind kExitRecord{MEM_TRACE_EXIT, "STDX"};
inline constexpr RecordKind kStorageRecord{MEM_TRACE_STORAGE, "SL05"};

// Every argument of the host's formatting service is 8 bytes wide.
template <class T>
auto widened(T value) noexcept {
  if constexpr (std::is_pointer_v<T> && std::is_function_v<std::remove_pointer_t<T>>) {
    return reinterpret_cast<std::uintptr_t>(value);
  } else if constexpr (std::is_pointer_v<T>) {
    return static_cast<const void *>(value);
  } else if constexpr (std::is_signed_v<T>) {
    return static_cast<std::int64_t>(value);
  } else {
    return static_cast<std::uint64_t>(value);
  }
}

class CallFrame {
 public:
  // Here, so that it is inlined into each entry point.
  CallFrame(const EntryPoint &entryPoint, ErrorArea errorArea) noexcept : entryPoint_(entryPoint) {
    frame_.pName = entryPoint.traceName;
    runtimeServices().EnterFrame(&frame_, MEM_COMPONENT);
    if (errorArea == ErrorArea::clear) clearErrorArea();
  }
  ~CallFrame() noexcept { runtimeServices().LeaveFrame(&frame_, MEM_COMPONENT); }
  CallFrame(const CallFrame &) = delete;
  CallFrame &operator=(const CallFrame &) = delete;

  // For a call that is unwound without running its destructors.
  void abandon() noexcept { runtimeServices().LeaveFrame(&frame_, MEM_COMPONENT); }

  // The host's record of this call, for its exception filter.
  MEMTraceFrame &record() noexcept { return frame_; }

  bool isTraced(std::uint32_t flag) const noexcept { return (frame_.TraceFlags & flag) != 0; }

  // Null when the host has no environment for the thread.
  MEMThreadEnv *thread() const noexcept { return frame_.pThreadEnv; }

  // For entry points that get the anchor before they clear the error area.
  void clearErrorArea() noexcept {
    if (frame_.pThreadEnv != nullptr) binding.clearErrorArea(frame_.pThreadEnv->Error);
  }

  // Trace lines. A text without arguments is copied, never formatted.
  template <class... Args>
  void traceEntry(const char *format, Args... args) noexcept {
    trace(kEntryRecord, entryPoint_.entryLine, format, args...);
  }
  template <class... Args>
  void traceExit(const char *format, Args... args) noexcept {
    trace(kExitRecord, entryPoint_.exitLine, format, args...);
  }
  template <class... Args>
  void trace(const RecordKind &kind, std::int32_t line, const char *format, Args... args) noexcept {
    if ((frame_.TraceFlags & kind.flag) == 0) return;
    if constexpr (sizeof...(Args) == 0) {
      writeFixed(kind, line, format);
    } else {
      writeFormatted(kind, line, format, widened(args)...);
    }
  }

  // A record with a wide text that is too long for the trace buffer.
  void traceWide(const RecordKind &kind, std::int32_t line, const char16_t *text) noexcept;

  // An exception record of an internal routine, written regardless of the flags. `format` has
  // arguments.
  template <class... Args>
  void traceException(const char *routine, std::int32_t line, const char *format,
                      Args... args) noexcept {
    static_assert(sizeof...(Args) > 0);
    MEMTraceBuf *pBuf = traceBuffer();
    if (pBuf == nullptr) return;
    setLength(*pBuf, traceServices().Format(pBuf->Text, format, widened(args)...));
    traceServices().WriteException(MEM_COMPONENT, 0, "EXCP", entryPoint_.source, routine, line);
  }

  // The same with a fixed text, under the call's own name.
  void traceException(std::int32_t line, const char *text) noexcept;

  // Ways to end. Each stores the result in the frame and returns it.
  std::int16_t succeed() noexcept;                    // 0, traced as "Return=SUCCESS"
  std::int16_t finish(std::int16_t result) noexcept;  // untraced
  std::int16_t finishAsHostSet() const noexcept;      // the result in the host's frame

  // Sets the free message text, for entry points that put more into it than a failure's text.
  void setMessage(const char *text) noexcept;

  // Moves the error of a failed host call from the error area's main fields to its inner fields.
  void keepHostError() noexcept;

  // The one place that composes a failure: fills the error area, calls the host's reporting
  // service, stores and returns the failure's result.
  MEM_COLD std::int16_t fail(const Failure &failure) noexcept;

  // A failure that the calling service reports as its own: code and text become the inner ones, and
  // the former inner code becomes the previous one.
  std::int16_t failForCaller(std::uint32_t innerCode, const char *innerText) noexcept;

  // A failure of process start: code and text go to the inner fields. The host's reporting service
  // is not called because the message table may not be registered yet.
  std::int16_t failInside(std::uint32_t innerCode, const char *innerText) noexcept;
  // The same, and keeps the former error code as the previous inner code.
  std::int16_t failInsideKeepingCode(std::uint32_t innerCode, const char *innerText) noexcept;
  // Marks the error area as a failure of this component. Keeps its codes and texts.
  std::int16_t failAsRecorded() noexcept;

 private:
  MEMTraceBuf *traceBuffer() const noexcept;
  template <class... Args>
  MEM_COLD void writeFormatted(const RecordKind &kind, std::int32_t line, const char *format,
                               Args... args) noexcept {
    MEMTraceBuf *pBuf = traceBuffer();
    if (pBuf == nullptr) return;
    setLength(*pBuf, traceServices().Format(pBuf->Text, format, args...));
    writeRecord(kind, line);
  }
  MEM_COLD void writeFixed(const RecordKind &kind, std::int32_t line, const char *text) noexcept;
  void writeRecord(const RecordKind &kind, std::int32_t line) noexcept;
  void setText(MEMTraceBuf &buf, const char *text) noexcept;
  // A negative length means that the host refused to format.
  static void setLength(MEMTraceBuf &buf, std::int32_t formatted) noexcept {
    buf.TextLen = formatted < 0 ? 0 : static_cast<std::uint32_t>(formatted);
  }

  MEMTraceFrame frame_{};
  const EntryPoint &entryPoint_;
};

// Saves the recorded failure during cleanup, because nested calls clear the error area.
class ErrorAreaKeeper {
 public:
  explicit ErrorAreaKeeper(const CallFrame &frame) noexcept : pThread_(frame.thread()) {
    if (pThread_ != nullptr) kept_ = pThread_->Error;
  }
  ~ErrorAreaKeeper() noexcept {
    if (pThread_ != nullptr) pThread_->Error = kept_;
  }
  ErrorAreaKeeper(const ErrorAreaKeeper &) = delete;
  ErrorAreaKeeper &operator=(const ErrorAreaKeeper &) = delete;

 private:
  MEMThreadEnv *const pThread_;
  MEMErrorArea kept_;  // set when there is a thread environment
};

// Copies at most `room - 1` characters and terminates them.
void copyText(char *pTo, std::size_t room, const char *pFrom) noexcept;

}  // namespace memlib
