#include "port/port_defs.h"

#include <algorithm>
#include <cstring>

#include "base/bytes.h"
#include "frame/hostaccess.h"
#include "platform/check.h"
#include "platform/textscan.h"

namespace memlib {

namespace {

constexpr std::int64_t kWideUnit = 2;

bool applyText(const MEMFieldDef &field, std::byte *pField) noexcept {
  const char *pText = field.Default.pText;
  if (pText == nullptr) return true;
  const auto length = static_cast<std::int64_t>(std::strlen(pText));
  if (length >= field.Length && field.NoTruncate != 0) return false;
  if (field.Length < 1) return true;
  const auto last = static_cast<std::size_t>(field.Length - 1);
  // One byte more: the terminator.
  std::memcpy(pField, pText, std::min(last, static_cast<std::size_t>(length) + 1));
  pField[last] = std::byte{0};
  return true;
}

// The test for truncation compares units with bytes. Callers' definitions rely on it.
bool applyWideText(const MEMFieldDef &field, std::byte *pField) noexcept {
  const char16_t *pText = field.Default.pWide;
  if (pText == nullptr) return true;
  const auto length = static_cast<std::int64_t>(wideLength(pText));
  if (length >= field.Length && field.NoTruncate != 0) return false;
  if (field.Length < kWideUnit) return true;
  const std::int64_t last = field.Length / kWideUnit - 1;
  std::memcpy(pField, pText, static_cast<std::size_t>(std::min(last, length + 1) * kWideUnit));
  storeAs(pField + last * kWideUnit, char16_t{0});
  return true;
}

}  // namespace

const MEMStructDef *findStructDef(const MEMStructDef *pDefs, std::uint32_t StructID) noexcept {
  if (pDefs == nullptr) return nullptr;
  for (const MEMStructDef *pDef = pDefs; static_cast<std::int32_t>(pDef->StructID) >= 1; ++pDef) {
    if (pDef->StructID == StructID) return pDef;
  }
  return nullptr;
}

bool applyDefault(const MEMFieldDef &field, std::byte *pField) noexcept {
  MEM_ASSERT(pField != nullptr);
  switch (field.Type) {
    case MEM_PORT_CHARSZ:
      return applyText(field, pField);
    case MEM_PORT_WCHARSZ:
      return applyWideText(field, pField);
    case MEM_PORT_PSTR:
    case MEM_PORT_WPSTR:
      storeAs(pField, field.Default.pBytes);
      return true;
    case MEM_PORT_SHORT:
    case MEM_PORT_USHORT:
      storeAs(pField, field.Default.Short);
      return true;
    case MEM_PORT_LONG:
    case MEM_PORT_ULONG:
    case MEM_PORT_UBIGINT:  // the upper half stays as it was allocated
    case MEM_PORT_BIGINT:
      storeAs(pField, field.Default.Long);
      return true;
    default:
      if (field.Default.pBytes != nullptr && field.Length > 0) {
        std::memcpy(pField, field.Default.pBytes, static_cast<std::size_t>(field.Length));
      }
      return true;
  }
}

void *heapEntry(HMEMHEAP hMemHeap, std::int64_t length) noexcept {
  if (length > INT32_MAX || length < INT32_MIN) return nullptr;
  void *pEntry = nullptr;
  const std::int16_t status =
      functionVector().MEM_HeapAllocEntryLong(hMemHeap, static_cast<std::int32_t>(length), &pEntry);
  return status == 0 ? pEntry : nullptr;
}

}  // namespace memlib
