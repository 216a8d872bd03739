#include "port/write/lookahead.h"

#include <atomic>

#include "base/bytes.h"
#include "hash/owned_table.h"
#include "platform/platform.h"
#include "port/write/port_writer.h"

namespace memlib {

namespace {

// How many structures ahead of those whose texts are prefetched the structures themselves are
// prefetched: their data must have arrived by then.
constexpr int kStructuresAhead = 3;

// The reference `count` places later in the queue, or null.
const MEMPortRef *behind(const MEMPortRef *pRef, int count) noexcept {
  for (; pRef != nullptr && count > 0; --count) pRef = pRef->pNext;
  return pRef;
}

// Prefetching null is as slow as any unmapped address.
const void *orElse(const void *pWanted, const void *pOther) noexcept {
  return pWanted != nullptr ? pWanted : pOther;
}

// Keeps the order of stores and loads as a fault handler of the same thread sees it.
void keepOrder() noexcept {
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace

// Prefetches each structure, then what it points to, then the registry's entries of these, each a
// few structures later.
void PortLookahead::ask(const MEMPortRef &ref) noexcept {
  const MEMPortRef *pNear = ref.pNext;
  const MEMPortRef *pMiddle = behind(pNear, 1);
  if (pMiddle == nullptr || isStopped_) return;
  if (const MEMPortRef *pFar = behind(pMiddle, kStructuresAhead)) MEM_PREFETCH(pFar->pStruct);
  isAsking_ = true;
  keepOrder();
  const KeyLookahead *pIndex = indexToAskAhead(frame_, hRegistry_);
  askForTexts(*pMiddle, pIndex);
  if (pIndex != nullptr) askForEntries(*pNear, *pIndex);
  keepOrder();
  isAsking_ = false;
}

// Prefetches the texts of a structure, and the places of its pointers in the registry's index.
void PortLookahead::askForTexts(const MEMPortRef &ref, const KeyLookahead *pIndex) const noexcept {
  const StructPlan *pPlan = plans_.find(ref.StructID);
  if (pPlan == nullptr) return;
  const auto *pStruct = static_cast<const std::byte *>(ref.pStruct);
  for (const std::int32_t offset : pPlan->texts) {
    MEM_PREFETCH(orElse(loadAs<const void *>(pStruct + offset), pStruct));
  }
  if (pIndex != nullptr) {
    for (const std::int32_t offset : pPlan->pointers) pIndex->wantSlot(pStruct + offset);
  }
  keepOrder();  // compilers drop calls of functions that only prefetch
}

void PortLookahead::askForEntries(const MEMPortRef &ref, const KeyLookahead &index) const noexcept {
  const StructPlan *pPlan = plans_.find(ref.StructID);
  if (pPlan == nullptr) return;
  const auto *pStruct = static_cast<const std::byte *>(ref.pStruct);
  for (const std::int32_t offset : pPlan->pointers) {
    index.wantRecord(pStruct + offset, offsetof(MEMPortRef, sequence));
  }
}

}  // namespace memlib
