#include "port/read/struct_index.h"

#include <cstring>

#include "frame/hostaccess.h"
#include "platform/check.h"
#include "port/port_defs.h"

namespace memlib {

namespace {

constexpr std::int16_t kAreaKB = 10;
constexpr std::uint16_t kSubPool = 0;

}  // namespace

bool StructIndex::open(std::uint32_t count) noexcept {
  HMEMHEAP hHeap = nullptr;
  if (functionVector().MEM_HeapOpen(&hHeap, kAreaKB, kSubPool) != 0) return false;
  hHeap_ = hHeap;
  count_ = count;
  const std::int64_t length = std::int64_t{count} * static_cast<std::int64_t>(sizeof(void *));
  pStructs_ = static_cast<void **>(heapEntry(hHeap_, length));
  if (pStructs_ == nullptr) return false;
  pWaiting_ = static_cast<WaitingField **>(heapEntry(hHeap_, length));
  if (pWaiting_ == nullptr) return false;
  std::memset(pStructs_, 0, static_cast<std::size_t>(length));
  std::memset(pWaiting_, 0, static_cast<std::size_t>(length));
  return true;
}

// Stores the address of the next waiting field in the field, and the field's address in the table.
bool StructIndex::wait(std::uint32_t index, std::byte *pField) noexcept {
  if (index >= count_) return false;
  auto *pNode = static_cast<WaitingField *>(heapEntry(hHeap_, sizeof(WaitingField)));
  if (pNode == nullptr) return false;
  *pNode = {pField, pWaiting_[index]};
  pWaiting_[index] = pNode;
  storeAs(pField, pStructs_[index]);
  pStructs_[index] = pField;
  return true;
}

void StructIndex::settle(std::uint32_t index, void *pStruct) noexcept {
  MEM_ASSERT(index == present_);
  present_ = index + 1;
  for (const WaitingField *pNode = pWaiting_[index]; pNode != nullptr; pNode = pNode->pNext) {
    storeAs(pNode->pField, pStruct);
  }
  pStructs_[index] = pStruct;
}

}  // namespace memlib
