#include "heap/heap_parts.h"

namespace memlib {

std::int16_t failComposed(CallFrame &frame, const HeapKind &kind, std::uint32_t code,
                          const ErrorText &text) noexcept {
  return frame.fail({.code = code,
                     .text = text.c_str(),
                     .wording = Wording::composed,
                     .marksComponent = kind.marksComponent});
}

std::int16_t failStorage(CallFrame &frame, const HeapKind &kind, const char *pText) noexcept {
  return failComposed(frame, kind, MEMERR_HEAPAMEM, ErrorText(pText));
}

std::int16_t failAreaLen(CallFrame &frame, const HeapKind &kind, std::int16_t AreaLen) noexcept {
  return failComposed(frame, kind, MEMERR_HEAPSIZE,
                      ErrorText("Invalid Area Length=").decimal(AreaLen));
}

std::int16_t allocChain(CallFrame &frame, const HeapKind &kind, HMEMHEAP hMemHeap,
                        const EntryChain &chain, void **ppEntry) noexcept {
  if (chain.NumEnties < 1) {
    return failComposed(frame, kind, MEMERR_HEAPNUME,
                        ErrorText("Num of entries=").decimal(chain.NumEnties).text(" too small"));
  }
  if (chain.LinkOff < 0) {
    return failComposed(frame, kind, MEMERR_HEAPLOFF,
                        ErrorText("Link offset=").decimal(chain.LinkOff).text(" less than zero"));
  }
  const auto linkOff = static_cast<std::size_t>(chain.LinkOff);
  void *pFirst = nullptr;
  void *pLast = nullptr;
  for (std::int32_t i = 0; i < chain.NumEnties; ++i) {
    void *pEntry = nullptr;
    if ((functionVector().*kind.entrySlot)(hMemHeap, chain.Len, &pEntry) != 0) {
      return frame.finish(-1);
    }
    if (pFirst == nullptr) {
      pFirst = pEntry;
    } else {
      storeAs(bytesAt(pLast, linkOff), pEntry);
    }
    pLast = pEntry;
  }
  storeAs<void *>(bytesAt(pLast, linkOff), nullptr);
  *ppEntry = pFirst;
  return frame.succeed();
}

}  // namespace memlib
