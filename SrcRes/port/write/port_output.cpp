#include "port/write/port_output.h"

#include <algorithm>

#include "frame/hostaccess.h"
#include "heap/heapblocks.h"
#include "platform/check.h"

namespace memlib {

namespace {

constexpr std::size_t kDigits = 10;  // of each number in the header

void putNumber(char *pTo, std::uint32_t value) noexcept {
  for (std::size_t i = kDigits; i-- > 0; value /= 10) {
    pTo[i] = static_cast<char>('0' + value % 10);
  }
}

}  // namespace

MEMPortChunk *PortOutput::obtainChunk() const noexcept {
  void *pEntry = nullptr;
  const std::int32_t length = capacity_ + MEM_PORT_CHUNK_OVERHEAD;
  if (functionVector().MEM_HeapAllocEntryLong(hMemHeap_, length, &pEntry) != 0) return nullptr;
  auto *pChunk = static_cast<MEMPortChunk *>(pEntry);
  pChunk->pNext = nullptr;
  pChunk->Used = 0;
  return pChunk;
}

bool PortOutput::start(HMEMHEAP hMemHeap, std::int32_t capacity) noexcept {
  MEM_ASSERT(capacity >= 1);
  if (capacity > INT32_MAX - MEM_PORT_CHUNK_OVERHEAD) return false;
  hMemHeap_ = hMemHeap;
  capacity_ = capacity;
  readHandle(hMemHeap);
  pFirst_ = obtainChunk();
  if (pFirst_ == nullptr) return false;
  begin(pFirst_);
  return true;
}

void PortOutput::begin(MEMPortChunk *pChunk) noexcept {
  pCurrent_ = pChunk;
  pNext_ = pChunk->Text;
  // The header can hold at most 2^32 - 1 characters.
  pEnd_ = pNext_ + std::min<std::size_t>(static_cast<std::size_t>(capacity_), UINT32_MAX - total_);
}

bool PortOutput::addChunk() noexcept {
  noteUsed();
  if (total() == UINT32_MAX) return false;
  MEMPortChunk *pChunk = obtainChunk();
  if (pChunk == nullptr) return false;
  total_ = total();
  pCurrent_->pNext = pChunk;
  begin(pChunk);
  return true;
}

bool PortOutput::appendAcross(std::string_view text) noexcept {
  while (!text.empty()) {
    if (pNext_ == pEnd_ && !addChunk()) return false;
    const std::size_t fitting = std::min(text.size(), room());
    std::memcpy(pNext_, text.data(), fitting);
    pNext_ += fitting;
    text.remove_prefix(fitting);
  }
  return true;
}

void PortOutput::clearSpill() noexcept {
  if (pCurrent_ != nullptr) std::memset(pNext_, 0, std::min(kSpill, room()));
}

// "(" total "," structures ")"
void PortOutput::writeHeader(std::uint32_t structures) noexcept {
  char *pText = pFirst_->Text;
  pText[0] = '(';
  putNumber(pText + 1, total());
  pText[1 + kDigits] = ',';
  putNumber(pText + 2 + kDigits, structures);
  pText[2 + 2 * kDigits] = ')';
}

}  // namespace memlib
