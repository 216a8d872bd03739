#include "memcport_output.h"

#include <algorithm>
#include <cstring>

#include "hostaccess.h"

namespace mem {

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
  if (capacity > INT32_MAX - MEM_PORT_CHUNK_OVERHEAD) return false;
  hMemHeap_ = hMemHeap;
  capacity_ = capacity;
  pFirst_ = pCurrent_ = obtainChunk();
  return pFirst_ != nullptr;
}

bool PortOutput::append(std::string_view text) noexcept {
  if (text.size() > UINT32_MAX - total_) return false;  // no header could tell the length
  while (!text.empty()) {
    if (pCurrent_->Used == capacity_) {
      MEMPortChunk *pChunk = obtainChunk();
      if (pChunk == nullptr) return false;
      pCurrent_->pNext = pChunk;
      pCurrent_ = pChunk;
    }
    const auto used = static_cast<std::size_t>(pCurrent_->Used);
    const std::size_t step = std::min(text.size(), static_cast<std::size_t>(capacity_) - used);
    std::memcpy(static_cast<char *>(pCurrent_->Text) + used, text.data(), step);
    pCurrent_->Used += static_cast<std::int32_t>(step);
    total_ += static_cast<std::uint32_t>(step);
    text.remove_prefix(step);
  }
  return true;
}

bool PortOutput::appendReversed(std::uint64_t value) noexcept {
  char digits[20];
  std::size_t count = 0;
  for (; value != 0; value /= 10) digits[count++] = static_cast<char>('0' + value % 10);
  return append(std::string_view(digits, count));
}

// "(" total "," structures ")"
void PortOutput::writeHeader(std::uint32_t structures) noexcept {
  char *pText = pFirst_->Text;
  pText[0] = '(';
  putNumber(pText + 1, total_);
  pText[1 + kDigits] = ',';
  putNumber(pText + 2 + kDigits, structures);
  pText[2 + 2 * kDigits] = ')';
}

}  // namespace mem
