#include "sink/sink_trace.h"

#include <cstring>

#include "base/bytes.h"

namespace memlib {

namespace {

constexpr std::int32_t kLineRoom = 611;
constexpr std::int32_t kLineSpace = 664;
constexpr std::int32_t kLineAligned = 671;
constexpr std::int32_t kLineScan = 678;
constexpr std::int32_t kLineNoSpace = 702;
constexpr std::int32_t kLineInsert = 760;
constexpr std::int32_t kLineInsertEmpty = 774;
constexpr std::int32_t kLineInsertFirst = 786;
constexpr std::int32_t kLineInsertLast = 799;
constexpr std::int32_t kLineMoveSlots = 815;
constexpr std::int32_t kLineInsertInside = 822;
constexpr std::int32_t kLineEmpty = 903;
constexpr std::int32_t kLineSingle = 914;
constexpr std::int32_t kLineStep = 928;
constexpr std::int32_t kLineCompare = 941;
constexpr std::int32_t kLineFound = 966;
constexpr std::int32_t kLineNotFound = 980;
constexpr std::int32_t kLineEcho = 1044;

constexpr RecordKind kDetail{MEM_TRACE_SINK, "SL32"};
constexpr std::size_t kShown = 511;  // characters passed to the host's formatting

// The start of a byte string as narrow and as wide text, each up to its terminator.
struct ShownText {
  char narrow[kShown + 1];
  char16_t wide[kShown + 1];

  ShownText(const std::uint8_t *pBytes, std::size_t length) noexcept {
    std::size_t i = 0;
    for (; i < kShown && i < length && pBytes[i] != 0; ++i)
      narrow[i] = static_cast<char>(pBytes[i]);
    narrow[i] = '\0';
    for (i = 0; i < kShown && 2 * i + 1 < length; ++i) wide[i] = loadAs<char16_t>(pBytes + 2 * i);
    wide[i] = u'\0';
  }
};

ShownText shown(const SinkText &text) noexcept {
  return {text.pBytes, text.length};
}
ShownText shown(const std::uint8_t *pCopy) noexcept {
  return {pCopy, copyEnd(pCopy)};
}

bool isOff(const CallFrame &frame, const RecordKind &kind) noexcept {
  return !frame.isTraced(kind.flag);
}

// A character of a failing input as UTF-8: the lead byte, then six bits a byte.
void appendUtf8(ErrorText &to, char32_t character) noexcept {
  constexpr std::uint32_t kLeads[] = {0, 0xC0, 0xE0, 0xF0};
  constexpr char32_t kFirstOfLength[] = {0, 0x80, 0x800, 0x10000};
  int more = 3;  // bytes after the lead
  while (character < kFirstOfLength[more]) --more;
  char bytes[5] = {};
  bytes[0] = static_cast<char>(kLeads[more] | character >> (6 * more));
  for (int i = 1; i <= more; ++i) {
    bytes[i] = static_cast<char>(0x80 | (character >> (6 * (more - i)) & 0x3F));
  }
  to.text(bytes);
}

char32_t unitAt(const SinkText &text, std::size_t i) noexcept {
  return loadAs<char16_t>(text.pBytes + 2 * i);
}

void appendWideEcho(ErrorText &to, const SinkText &text) noexcept {
  const std::size_t units = text.length / 2;
  for (std::size_t i = 0; i < units && i < kEchoed; ++i) {
    char32_t character = unitAt(text, i);
    const bool isHigh = character >= 0xD800 && character <= 0xDBFF;
    if (isHigh && i + 1 < units && i + 1 < kEchoed) {
      const char32_t low = unitAt(text, i + 1);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        character = 0x10000 + ((character - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
    }
    appendUtf8(to, character >= 0xD800 && character <= 0xDFFF ? U'\uFFFD' : character);
  }
}

void appendNarrowEcho(ErrorText &to, const SinkText &text) noexcept {
  char piece[kEchoed + 1];
  const std::size_t length = text.length < kEchoed ? text.length : kEchoed;
  std::memcpy(piece, text.pBytes, length);
  piece[length] = '\0';
  to.text(piece);
}

}  // namespace

void traceSinking(CallFrame &frame, const SinkText &text) noexcept {
  if (isOff(frame, kEntryRecord)) return;
  const ShownText shownText = shown(text);
  if (text.isWide) {
    frame.traceEntry("Sinking Wide String \"%S\"", shownText.wide);
  } else {
    frame.traceEntry("Sinking Narrow String \"%s\"", shownText.narrow);
  }
}

void traceDeleting(CallFrame &frame, const void *pSunk) noexcept {
  frame.traceEntry("Sink String ptr=%p", pSunk);
}

void traceEmptyList(CallFrame &frame) noexcept {
  frame.trace(kDetail, kLineEmpty, "List empty");
}

void traceSingleEntry(CallFrame &frame, const std::uint8_t *pCopy) noexcept {
  if (isOff(frame, kDetail)) return;
  const ShownText copy = shown(pCopy);
  frame.trace(kDetail, kLineSingle, "Single List Entry=%p string=\"%s\" (L\"%S\")", pCopy,
              copy.narrow, copy.wide);
}

void traceSearchStep(CallFrame &frame, std::int64_t low, std::int64_t high) noexcept {
  frame.trace(kDetail, kLineStep, "Binary Search Lo=%ld Hi=%ld", low, high);
}

void traceComparison(CallFrame &frame, const SinkText &text, const std::uint8_t *pCopy,
                     int order) noexcept {
  if (isOff(frame, kDetail)) return;
  const ShownText input = shown(text);
  const ShownText copy = shown(pCopy);
  if (text.isWide) {
    frame.trace(kDetail, kLineCompare, "PSTssecmp(L\"%S\",L\"%S\"(\"%s\"))= %d", input.wide,
                copy.wide, copy.narrow, order);
  } else {
    frame.trace(kDetail, kLineCompare, "PSTssecmp(\"%s\",\"%s\"(L\"%S\"))= %d", input.narrow,
                copy.narrow, copy.wide, order);
  }
}

void traceFound(CallFrame &frame, std::uint32_t slot, const SinkSlot *pSlot) noexcept {
  if (isOff(frame, kDetail)) return;
  const ShownText copy = shown(pSlot->pCopy);
  frame.trace(kDetail, kLineFound, "Found Element Eid=%ld Sse=%p TxtVal=%p,L\"%S\"(\"%s\")", slot,
              pSlot, pSlot->pCopy, copy.wide, copy.narrow);
}

void traceNotFound(CallFrame &frame, const SinkText &text) noexcept {
  if (isOff(frame, kDetail)) return;
  const ShownText input = shown(text);
  if (text.isWide) {
    frame.trace(kDetail, kLineNotFound, "Not Found Exit string=L\"%S\"", input.wide);
  } else {
    frame.trace(kDetail, kLineNotFound, "Not Found Exit string=\"%s\"", input.narrow);
  }
}

void traceRoom(CallFrame &frame, const SinkText &text, const SinkRoom &room) noexcept {
  frame.trace(kDetail, kLineRoom, "wideflag=%d, TLenOrig=%ld TLen=%ld GLen=%ld,GBlk=%ld",
              text.isWide ? 1 : 0, room.textLen, room.closedLen, room.reservedLen, room.granules());
}

void traceRun(CallFrame &frame, const SinkRun &run, const SinkRoom &room) noexcept {
  const std::uint32_t scanIdx = run.firstGranule / 8;
  frame.trace(kDetail, kLineSpace, "Sink String space starts at %p", run.pSegment->pSpace);
  frame.trace(kDetail, kLineAligned, "Aligned Sink String ptr=%p", run.address());
  frame.trace(kDetail, kLineScan, "ScanIdx=%ld CMap=%ld Gblk=%ld BSlot=%ld", scanIdx, scanIdx + 1,
              room.granules(), run.firstGranule % 8);
}

void traceOutOfSpace(CallFrame &frame, const SinkText &text, const SinkRoom &room) noexcept {
  const ErrorText record = ErrorText("OUT OF SPACE: wideflag=")
                               .decimal(text.isWide ? 1 : 0)
                               .text(", TLenOrig=")
                               .decimal(static_cast<std::int64_t>(room.textLen))
                               .text(" TLen=")
                               .decimal(static_cast<std::int64_t>(room.closedLen))
                               .text(" GLen=")
                               .decimal(static_cast<std::int64_t>(room.reservedLen))
                               .text(",GBlk=")
                               .decimal(static_cast<std::int64_t>(room.granules()));
  frame.traceException(kLineNoSpace, record.c_str());
}

void traceInsertState(CallFrame &frame, const MEMProcessBlock &process, const SinkPlace &place,
                      const void *pCopy) noexcept {
  frame.trace(kDetail, kLineInsert,
              "Insert Fnd=%ld Act=%ld Used=%ld 1st=%ld End=%ld Free=%ld Sse=%p", place.slot,
              process.Act, process.Used, process.First, process.End, process.Free, pCopy);
}

void traceInsertEmpty(CallFrame &frame, std::uint32_t slot, const SinkSlot *pSlot) noexcept {
  frame.trace(kDetail, kLineInsertEmpty, "Insert into Empty List Eid=%ld Sse=%p", slot, pSlot);
}

void traceInsertFirst(CallFrame &frame, std::uint32_t slot, const SinkSlot *pSlot) noexcept {
  frame.trace(kDetail, kLineInsertFirst, "Insert As 1st in List Eid=%ld Sse=%p", slot, pSlot);
}

void traceInsertLast(CallFrame &frame, std::uint32_t slot, std::uint32_t garbage,
                     const SinkSlot *pSlot) noexcept {
  frame.trace(kDetail, kLineInsertLast, "Insert Last in List Eid=%ld Garbarge=%ld Sse=%p", slot,
              garbage, pSlot);
}

void traceInsertInside(CallFrame &frame, std::uint32_t movedSlots, const SinkSlot *pTo,
                       const SinkSlot *pFrom, const SinkSlot *pSlot) noexcept {
  frame.trace(kDetail, kLineMoveSlots, "Internal Add Expand Slot MoveL=%ld MoveT=%p MoveS=%p",
              std::uint64_t{movedSlots} * sizeof(SinkSlot), pTo, pFrom);
  frame.trace(kDetail, kLineInsertInside, "Internal Add pSse=%p", pSlot);
}

// A width of at least one character gives a blank for an empty input.
void echoInput(CallFrame &frame, const SinkText &text, Echo echo) noexcept {
  const bool marksWide = echo == Echo::ofSinking && text.isWide;
  ErrorText record(marksWide ? "Error Exit Text(WIDE)=" : "Error Exit Text=");
  if (text.length == 0) {
    record.text(" ");
  } else if (text.isWide) {
    appendWideEcho(record, text);
  } else {
    appendNarrowEcho(record, text);
  }
  if (echo == Echo::ofSinking) {
    const std::size_t characters = text.isWide ? text.length / 2 : text.length;
    record.text(" ").text(characters > kEchoed ? " (truncated)" : "");
  }
  frame.setMessage(record.c_str());
  frame.traceException(kLineEcho, record.c_str());
}

}  // namespace memlib
