// Storage services: the library's general allocation by subpool.
#include "frame/callframe.h"

namespace memlib {

namespace {

constexpr EntryPoint kAlloc{"MemAlloc", kSourceServ, 117, 133};
constexpr EntryPoint kFree{"MEM_Free", kSourceServ, 175, 182};
constexpr EntryPoint kInitQTRFTbls{"MEM_InitQTRFTbls", kSourceServ, 228, 0};

constexpr std::int16_t kSecondKindOfPool0 = -256;  // since 0 has no negative

// The host's subpool number: the absolute value, taken in 16 bits, so that -32768 becomes 32768.
std::uint16_t hostSubPool(std::int16_t SubPool) noexcept {
  if (SubPool == kSecondKindOfPool0) return 0;
  const auto bits = static_cast<std::uint16_t>(SubPool);
  return SubPool < 0 ? static_cast<std::uint16_t>(0 - bits) : bits;
}

std::uint16_t storageKind(std::int16_t SubPool) noexcept {
  return static_cast<std::uint16_t>(SubPool < 0 ? 2 : 1);
}

}  // namespace

void *MEM_Alloc(std::uint32_t Size, std::int16_t SubPool) noexcept {
  CallFrame frame(kAlloc, ErrorArea::keep);
  processBlock();  // hosts rely on a GetAnchor call in every storage call
  frame.clearErrorArea();
  frame.traceEntry("Parms: Size=%ld, SubPool=%hd", Size, SubPool);
  void *pArea = nullptr;
  runtimeServices().GetStorage(&pArea, Size, hostSubPool(SubPool), storageKind(SubPool));
  frame.traceExit("2:Return=%lX", pArea);
  return pArea;
}

void MEM_Free(void *pArea, std::uint32_t Size, std::int16_t SubPool) noexcept {
  CallFrame frame(kFree, ErrorArea::keep);
  processBlock();
  frame.traceEntry("Parms: pArea=%lX, SubPool=%hd", pArea, SubPool);
  runtimeServices().FreeStorage(pArea, Size, hostSubPool(SubPool));
  frame.traceExit("2:Return=VOID");
}

std::int16_t MEM_InitQTRFTbls() noexcept {
  CallFrame frame(kInitQTRFTbls, ErrorArea::clear);
  frame.traceEntry("Init QTRF Tables entered");
  return frame.fail({.code = MEMERR_NOT_SUPPORTED,
                     .text = "InitQTRFTbls called in non-ZRX environment",
                     .wording = Wording::composed,
                     .innerCode = 0,
                     .reported = Reported::messageText});
}

}  // namespace memlib
