// Entry points of packing and unpacking.
#include "frame/callframe.h"
#include "frame/outcome.h"
#include "pack/packer.h"
#include "pack/unpack/unpack_ways.h"

namespace memlib {

namespace {

constexpr EntryPoint kPack{"MEM_Pack", kSourcePack, 402, 911};
constexpr EntryPoint kUnpack{"MEM_Unpack", kSourcePack, 1004, 1688};

}  // namespace

std::int16_t MEM_Pack(const MemPackCB *pPackCB, const void *pRoot, std::int32_t BlkLen,
                      MemPackBlock **ppFirstBlk) noexcept {
  CallFrame frame(kPack, ErrorArea::clear);
  frame.traceEntry("Parms: BlkLen=%ld", BlkLen);
  Packer packer(frame, pPackCB, pRoot, BlkLen, ppFirstBlk);
  if (const Outcome &failed = packer.run()) {
    {
      const ErrorAreaKeeper keeper(frame);
      if (packer.hasTable()) packer.closeTable();
    }
    return finishWith(frame, *failed);
  }
  if (packer.closeTable() != 0) {
    // The chain is complete; only the table could not be closed.
    frame.traceExit("HashClose Return=FAILED");
    return frame.finish(0);
  }
  return frame.succeed();
}

std::int16_t MEM_Unpack(MemPackBlock **ppFirstBlk, void **ppRoot,
                        const MemPackCB *pPackCB) noexcept {
  CallFrame frame(kUnpack, ErrorArea::clear);
  MemPackBlock *pFirst = ppFirstBlk == nullptr ? nullptr : *ppFirstBlk;
  frame.traceEntry("Unpack Entry 1stBlk=%08X", pFirst);
  void *pRoot = nullptr;
  if (const Outcome failed = unpackChain(frame, PackControlBlock(pPackCB), pFirst, pRoot)) {
    return finishWith(frame, *failed);
  }
  *ppFirstBlk = pFirst;
  if (ppRoot != nullptr) *ppRoot = pRoot;
  return frame.succeed();
}

}  // namespace memlib
