#include "memcport_lookahead.h"

#include "bytes.h"
#include "memchash.h"
#include "memchash_index.h"
#include "memcport_writer.h"
#include "platform.h"

namespace mem {

void PortLookahead::open(HMEMHASH hRegistry) noexcept {
  if (functionVector().MEM_HashOpen == MEM_HashOpen) {
    pRegistry_ = reinterpret_cast<const MEMHashCtlBlk *>(hRegistry);
  }
}

void PortLookahead::ask(const MEMPortRef &ref) noexcept {
  const MEMPortRef *pNear = ref.pNext;
  if (pNear == nullptr) return;
  const MEMPortRef *pFar = pNear->pNext;
  if (pFar == nullptr) return;
  askForTargets(*pFar);
  pFar = pFar->pNext;
  if (pFar != nullptr) pFar = pFar->pNext;
  if (pFar != nullptr) pFar = pFar->pNext;
  if (pFar != nullptr) MEM_PREFETCH(pFar->pStruct);
}

void PortLookahead::askForTargets(const MEMPortRef &ref) const noexcept {
  const StructPlan *pPlan = plans_.find(ref.StructID);
  if (pPlan == nullptr) return;
  const HashIndex *pIndex = pRegistry_ == nullptr ? nullptr : HashIndex::of(frame_, *pRegistry_);
  const auto *pStruct = static_cast<const std::byte *>(ref.pStruct);
  const FieldStep *pStep = pPlan->pSteps;
  for (const FieldStep *const pEnd = pStep + pPlan->steps; pStep != pEnd; ++pStep) {
    if (pStep->type == MEM_PORT_PSTR) {
      MEM_PREFETCH(loadAs<const char *>(pStruct + pStep->offset));
    } else if (pStep->type == MEM_PORT_PNT && pIndex != nullptr) {
      MEM_PREFETCH(pIndex->slotOf(pStruct + pStep->offset)->pNode);
    }
  }
}

}  // namespace mem
