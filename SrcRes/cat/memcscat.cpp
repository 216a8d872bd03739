// Concatenation buffers: wide text that grows with each append.
#include <cstring>
#include <limits>

#include "frame/callframe.h"
#include "frame/threadareas.h"
#include "platform/textscan.h"
#include "qj7mem00/memcat.h"

namespace memlib {

namespace {

constexpr EntryPoint kCatOpen{"MEM_CatOpen", kSourceCat, 122, 139};
constexpr EntryPoint kCatClose{"MEM_CatClose", kSourceCat, 181, 196};
constexpr EntryPoint kCat{"MEM_Cat", kSourceCat, 251, 273};
constexpr EntryPoint kMemCat{"MEM_MemCat", kSourceCat, 0, 389};  // writes no entry record

constexpr std::int32_t kLineLongText = 254;
constexpr std::size_t kLongText = 512;  // least characters of a text traced as a wide record

constexpr char kMark = 'A';
constexpr std::uint32_t kMaxStringLen = 0x7FFFFFFF;  // bytes
constexpr char kAppendFailed[] = "MemCatStdStringFail";

constexpr std::int16_t kTextSubPool = 0;

char16_t *getText(std::uint32_t size) noexcept {
  return static_cast<char16_t *>(functionVector().MEM_Alloc(size, kTextSubPool));
}

// Marks in the thread block that MEM_Cat reports the failures of MEM_MemCat.
void setInCat(const CallFrame &frame, bool inCat) noexcept {
  MEMThreadBlock *pThreadBlk = threadBlock(frame);
  if (pThreadBlk == nullptr) return;
  std::uint32_t &flags = pThreadBlk->Flags;
  flags = inCat ? flags | MEM_THREAD_IN_CAT : flags & ~std::uint32_t{MEM_THREAD_IN_CAT};
}

bool isInCat(const CallFrame &frame) noexcept {
  const MEMThreadBlock *pThreadBlk = threadBlock(frame);
  return pThreadBlk != nullptr && (pThreadBlk->Flags & MEM_THREAD_IN_CAT) != 0;
}

// The failure exit of MEM_MemCat.
std::int16_t failAppend(CallFrame &frame, std::uint32_t code, const ErrorText &text) noexcept {
  const std::int16_t result = isInCat(frame) ? frame.failForCaller(code, text.c_str())
                                             : frame.fail({.code = code,
                                                           .text = text.c_str(),
                                                           .wording = Wording::composed,
                                                           .reported = Reported::messageText});
  setInCat(frame, false);
  return result;
}

std::int16_t failStringSize(CallFrame &frame) noexcept {
  return failAppend(frame, MEMERR_CATSTRSIZE,
                    ErrorText("MemCat String area >= ").decimal(kMaxStringLen));
}

std::int16_t failStorage(CallFrame &frame) noexcept {
  return failAppend(frame, MEMERR_CATAMEM, ErrorText("Memory Alloc failed"));
}

// The smallest multiple of the step that is greater than `need`.
std::uint32_t grownLen(std::uint64_t need) noexcept {
  return static_cast<std::uint32_t>((need / MEM_CAT_STEP + 1) * MEM_CAT_STEP);
}

std::size_t bytesOf(std::size_t characters) noexcept {
  return characters * sizeof(char16_t);
}

// Appends the text and its terminator. The text may be part of the buffer.
void append(MEMCatCB &cat, const char16_t *pText, std::uint32_t length) noexcept {
  std::memmove(cat.pText + cat.Len, pText, bytesOf(std::size_t{length} + 1));
  cat.Len += length;
}

// Appends into new storage of `newLen` bytes. The old storage is freed last because the text may be
// in it.
void appendMoved(MEMCatCB &cat, char16_t *pNew, std::uint32_t newLen, const char16_t *pText,
                 std::uint32_t length) noexcept {
  char16_t *const pOld = cat.pText;
  const std::uint32_t oldLen = cat.BlkLen;
  std::memcpy(pNew, pOld, bytesOf(std::size_t{cat.Len} + 1));
  cat.pText = pNew;
  cat.BlkLen = newLen;
  cat.Mark = kMark;
  append(cat, pText, length);
  functionVector().MEM_Free(pOld, oldLen, kTextSubPool);
}

// Characters before the terminator, as MEM_MemCat expects them. A text too long for the type is too
// long for any buffer.
std::int32_t textLength(const char16_t *pText) noexcept {
  constexpr std::size_t kMost = std::numeric_limits<std::int32_t>::max();
  const std::size_t length = wideLength(pText);
  return static_cast<std::int32_t>(length < kMost ? length : kMost);
}

void traceText(CallFrame &frame, const char16_t *pText, std::size_t length) noexcept {
  if (length >= kLongText) {
    frame.traceWide(kEntryRecord, kLineLongText, pText);
  } else {
    frame.traceEntry("%S", pText);
  }
}

}  // namespace

std::int16_t MEM_CatOpen(MEMCatCB *pCatCB) noexcept {
  CallFrame frame(kCatOpen, ErrorArea::clear);
  frame.traceEntry("MEM_CAT_CB=%08X", pCatCB);
  if (pCatCB != nullptr) pCatCB->pText = getText(MEM_CAT_FIRST_LEN);
  if (pCatCB == nullptr || pCatCB->pText == nullptr) {
    return frame.fail({.code = MEMERR_CATAMEM, .text = "AcqMemCatExtString"});
  }
  pCatCB->BlkLen = MEM_CAT_FIRST_LEN;
  pCatCB->Len = 0;
  pCatCB->Mark = kMark;
  return frame.succeed();
}

std::int16_t MEM_CatClose(MEMCatCB *pCatCB) noexcept {
  CallFrame frame(kCatClose, ErrorArea::clear);
  frame.traceEntry("MEM_CAT_CB=%08X,String=%08X", pCatCB,
                   pCatCB != nullptr ? pCatCB->pText : nullptr);
  if (pCatCB == nullptr) {
    return frame.fail({.code = MEM_CAT_CLOSE_ERROR, .text = "FreeMemCatExtString"});
  }
  if (pCatCB->BlkLen > kMaxStringLen) {
    return frame.fail({.code = MEM_CAT_CLOSE_ERROR,
                       .text = "FreeMemCatExtString",
                       .detail = "pCatCB->BlkLen>LONG_MAX"});
  }
  if (pCatCB->pText != nullptr) {
    functionVector().MEM_Free(pCatCB->pText, pCatCB->BlkLen, kTextSubPool);
    pCatCB->pText = nullptr;
  }
  return frame.succeed();
}

std::int16_t MEM_Cat(MEMCatCB *pCatCB, const char16_t *pText) noexcept {
  CallFrame frame(kCat, ErrorArea::clear);
  if (pText == nullptr) return frame.fail({.code = MEMERR_CATSTDSTR, .text = kAppendFailed});
  const std::int32_t length = textLength(pText);
  traceText(frame, pText, static_cast<std::size_t>(length));
  setInCat(frame, true);
  const std::int16_t result = functionVector().MEM_MemCat(pCatCB, pText, length);
  setInCat(frame, false);
  if (result != 0) return frame.fail({.code = MEMERR_CATSTDSTR, .text = kAppendFailed});
  return frame.succeed();
}

std::int16_t MEM_MemCat(MEMCatCB *pCatCB, const char16_t *pText, std::int32_t Len) noexcept {
  CallFrame frame(kMemCat, ErrorArea::clear);
  if (pCatCB == nullptr) return failStorage(frame);
  if (pCatCB->BlkLen >= kMaxStringLen) return failStringSize(frame);
  if (pText == nullptr) return failAppend(frame, MEMERR_CATSTDSTR, ErrorText(kAppendFailed));
  const auto length = static_cast<std::uint32_t>(Len);  // negative: longer than any text
  const std::uint64_t need = (std::uint64_t{length} + pCatCB->Len + 1) * sizeof(char16_t);
  if (need > kMaxStringLen) return failStringSize(frame);
  if (pCatCB->pText == nullptr) return failStorage(frame);
  if (need <= pCatCB->BlkLen) {
    append(*pCatCB, pText, length);
    return frame.succeed();
  }
  const std::uint32_t newLen = grownLen(need);
  char16_t *pNew = getText(newLen);
  if (pNew == nullptr) return failStorage(frame);
  appendMoved(*pCatCB, pNew, newLen, pText, length);
  return frame.succeed();
}

}  // namespace memlib
