// Unpacking: the choice between the two ways.
#include "pack/unpack/pointer_fields.h"
#include "pack/unpack/unpack_ways.h"

namespace memlib {

namespace {

constexpr std::int32_t kLineIncompatible = 1122;
constexpr std::int32_t kLineSwitching = 1125;

bool layoutsAgree(const PackControlBlock &file, const PackControlBlock &callers) noexcept {
  if (!callers.exists() || rootChildOffset(file, 0) != rootChildOffset(callers, 0)) return false;
  return file.count() < kSecondChildCompared ||
         rootChildOffset(file, 1) == rootChildOffset(callers, 1);
}

}  // namespace

Outcome unpackChain(CallFrame &frame, const PackControlBlock &callers, MemPackBlock *&pFirst,
                    void *&pRoot) noexcept {
  ChainReader chain;
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

}  // namespace memlib
