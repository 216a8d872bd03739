// Unpacking: the choice between the two ways.
#include "frame/callframe.h"
#include "pack/pack_failure.h"
#include "pack/unpack/exact.h"
#include "pack/unpack/pointer_fields.h"
#include "pack/unpack/repack.h"

namespace mem {

namespace {

constexpr EntryPoint kUnpack{"MEM_Unpack", kSourcePack, 1004, 1688};
constexpr std::int32_t kLineIncompatible = 1122;
constexpr std::int32_t kLineSwitching = 1125;

bool layoutsAgree(const PackControlBlock &file, const PackControlBlock &callers) noexcept {
  if (!callers.exists() || rootChildOffset(file, 0) != rootChildOffset(callers, 0)) return false;
  return file.count() < kSecondChildCompared ||
         rootChildOffset(file, 1) == rootChildOffset(callers, 1);
}

// Everything between entry and exit, so that all work storage is back before a failure is recorded.
// `pFirst` and `pRoot` are written on success only.
Outcome unpack(CallFrame &frame, const PackControlBlock &callers, MemPackBlock *&pFirst,
               void *&pRoot) noexcept {
  PackedChain chain;
  if (Outcome failed = chain.open(pFirst)) return failed;
  ContentPlace root{};
  if (Outcome failed = chain.locateRoot(root)) return failed;
  if (layoutsAgree(chain.controlBlock(), callers)) {
    if (Outcome failed = unpackInPlace(chain, root)) return failed;
    pRoot = chain.at(root);
    return {};
  }
  frame.trace(kExitRecord, kLineIncompatible,
              "The file written mode and current platform mode is incompatible");
  frame.trace(kExitRecord, kLineSwitching,
              "Switching to imcompatibility mode of processing to unpack the file contents "
              "correctly");
  return repack(frame, chain, root, callers, pFirst, pRoot);
}

}  // namespace

std::int16_t MEM_Unpack(MemPackBlock **ppFirstBlk, void **ppRoot,
                        const MemPackCB *pPackCB) noexcept {
  CallFrame frame(kUnpack, ErrorArea::clear);
  MemPackBlock *pFirst = ppFirstBlk == nullptr ? nullptr : *ppFirstBlk;
  frame.traceEntry("Unpack Entry 1stBlk=%08X", pFirst);
  void *pRoot = nullptr;
  if (const Outcome failed = unpack(frame, PackControlBlock(pPackCB), pFirst, pRoot)) {
    return finishFailed(frame, *failed);
  }
  *ppFirstBlk = pFirst;
  if (ppRoot != nullptr) *ppRoot = pRoot;
  return frame.succeed();
}

}  // namespace mem
