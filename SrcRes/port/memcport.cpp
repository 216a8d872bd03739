// Port strings: graphs of structures as portable text, and back. The entry points run inside the
// fault guard.
//
// The guard may end the work of a call at any instruction. So nothing in the work has a destructor;
// what a call opens is recorded in its state and closed outside.
#include "frame/callframe.h"
#include "port/read/port_reader.h"
#include "port/write/port_writer.h"

namespace memlib {

namespace {

// All three calls trace under the writer's name; hosts recognise the readers by their lines.
constexpr EntryPoint kStructToPortStr{"MEM_StructToPortStr", kSourcePort, 301, 389};
constexpr EntryPoint kPortStrToStruct{"MEM_StructToPortStr", kSourcePort, 2103, 2188};
constexpr EntryPoint kPort1StrToStruct{"MEM_StructToPortStr", kSourcePort, 2251, 2297};

constexpr std::int32_t kLineNullChunk = 2117;
constexpr std::int32_t kLineNullText = 2265;

// Runs the work of a call under the fault guard. A fault is passed to the host's filter with the
// call's frame, unless the work declares that looking ahead caused it. False when a fault ended the
// work.
template <class Work>
bool runUnderGuard(CallFrame &frame, Work &work) noexcept {
  struct Context {
    CallFrame &frame;
    Work &work;
  } context{frame, work};
  const GuardedWork guarded{
      [](void *pContext) noexcept { static_cast<Context *>(pContext)->work.run(); },
      [](void *pException, void *pContext) noexcept -> std::int32_t {
        if (!static_cast<Context *>(pContext)->work.prepareFilter()) return kFaultEndsWork;
        const auto filter = textServices().FilterException;
        if (filter == nullptr) return kFaultEndsWork;
        return filter(pException, &static_cast<Context *>(pContext)->frame.record());
      },
      [](void *pContext) noexcept {
        static_cast<Context *>(pContext)->work.close(static_cast<Context *>(pContext)->frame);
        static_cast<Context *>(pContext)->frame.abandon();
      },
      &context};
  return runGuarded(guarded);
}

// Ends a call after a fault, with the result that the host's filter stored, if any.
std::int16_t finishFaulted(CallFrame &frame) noexcept {
  const std::int16_t stored = frame.finishAsHostSet();
  return stored != 0 ? stored : frame.finish(-1);
}

struct Writing {
  PortWriter &writer;
  std::int16_t status = 0;

  void run() noexcept { status = writer.run(); }
  // Before the host's filter, which may read the chunks or leave by a jump. False: no filter.
  bool prepareFilter() const noexcept {
    writer.noteUsed();
    return !writer.isAhead();
  }
  void close(const CallFrame &frame) const noexcept {
    writer.noteUsed();
    const ErrorAreaKeeper keeper(frame);
    if (writer.registry() != nullptr) functionVector().MEM_HashClose(writer.registry());
  }
};

struct Reading {
  PortReader &reader;
  bool isRead = false;

  void run() noexcept { isRead = reader.run(); }
  static bool prepareFilter() noexcept { return true; }
  void close(const CallFrame &frame) const noexcept {
    const ErrorAreaKeeper keeper(frame);
    if (reader.indexHeap() != nullptr) functionVector().MEM_HeapClose(reader.indexHeap());
  }
};

std::int16_t readInto(CallFrame &frame, PortReader &reader) noexcept {
  Reading work{reader};
  const bool isDone = runUnderGuard(frame, work);
  work.close(frame);
  if (!isDone) return finishFaulted(frame);
  return work.isRead ? frame.succeed() : frame.finish(-1);
}

}  // namespace

std::int16_t MEM_StructToPortStr(const MEMStructDef *pDefs, std::uint32_t StructID,
                                 const void *pStruct, std::int32_t ChunkLen, HMEMHEAP hMemHeap,
                                 std::uint32_t *pTotalLen, MEMPortChunk **ppFirstChunk) noexcept {
  CallFrame frame(kStructToPortStr, ErrorArea::clear);
  frame.traceEntry("Parms: pDefs=%lX, StructID=%ld, pStruct=%lX, ChunkLen=%ld, hMemHeap=%lX", pDefs,
                   StructID, pStruct, ChunkLen, hMemHeap);
  PortWriter writer(frame, pDefs, StructID, pStruct, ChunkLen, hMemHeap, pTotalLen, ppFirstChunk);
  Writing work{writer};
  bool isDone = runUnderGuard(frame, work);
  if (!isDone && writer.isAhead()) isDone = runUnderGuard(frame, work);
  work.close(frame);
  if (!isDone) return finishFaulted(frame);
  return work.status == 0 ? frame.succeed() : frame.finish(work.status);
}

std::int16_t MEM_PortStrToStruct(const MEMStructDef *pDefs, const MEMPortChunk *pFirstChunk,
                                 HMEMHEAP hMemHeap, void **ppStruct) noexcept {
  CallFrame frame(kPortStrToStruct, ErrorArea::clear);
  frame.traceEntry("Parms: pDefs=%lX, pFirstChunk=%lX, hMemHeap=%lX, ppStruct=%lX", pDefs,
                   pFirstChunk, hMemHeap, ppStruct);
  if (pFirstChunk == nullptr) {
    frame.traceException(kLineNullChunk, "null pFirstChunk");
    return frame.finish(-1);
  }
  PortReader reader(frame, pDefs, PortInput(pFirstChunk), hMemHeap, ppStruct);
  return readInto(frame, reader);
}

std::int16_t MEM_Port1StrToStruct(const MEMStructDef *pDefs, const char *pText, std::uint32_t Len,
                                  HMEMHEAP hMemHeap, void **ppStruct) noexcept {
  CallFrame frame(kPort1StrToStruct, ErrorArea::clear);
  frame.traceEntry("Parms: pDefs=%lX, pMemStr=%lX, Len=%ld, hMemHeap=%lX, ppStruct=%lX", pDefs,
                   pText, Len, hMemHeap, ppStruct);
  if (pText == nullptr) {
    frame.traceException(kLineNullText, "null pMemStr");
    return frame.finish(-1);
  }
  PortReader reader(frame, pDefs, PortInput(pText, Len), hMemHeap, ppStruct);
  return readInto(frame, reader);
}

}  // namespace memlib
