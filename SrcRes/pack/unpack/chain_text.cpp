#include "pack/unpack/chain_text.h"

#include <algorithm>

#include "base/copybytes.h"
#include "base/utfconvert.h"
#include "frame/hostaccess.h"
#include "pack/unpack/chain_reader.h"

namespace memlib {

namespace {

// Code pages of the host's conversion service.
constexpr std::uint16_t kPageUtf16 = 1200;
constexpr std::uint16_t kPageUtf32 = 12000;

constexpr std::uint32_t kAreaLen = 32768;
constexpr std::uint32_t kUtf16Len = 2;

template <class Unit>
void swapUnits(std::byte *pText, std::uint32_t length) noexcept {
  for (std::uint32_t offset = 0; offset < length; offset += sizeof(Unit)) {
    storeAs(pText + offset, byteSwapped(loadAs<Unit>(pText + offset)));
  }
}

// Uses the host's conversion service (RuntimeServices slot 158) or, if that is null, the library's
// own.
std::uint16_t convertText(const void *pIn, void *pOut) noexcept {
  const auto convert = runtimeServices().ConvertText;
  if (convert == nullptr) return utf32ToUtf16(pIn, pOut, kAreaLen);
  return convert(kPageUtf32, kPageUtf16, pIn, -1, pOut, kAreaLen);
}

}  // namespace

std::uint32_t textLength(const std::byte *pText, std::uint32_t room,
                         std::uint32_t unitLen) noexcept {
  if (unitLen == 1) return textLength<1>(pText, room);
  return unitLen == kUtf16Len ? textLength<kUtf16Len>(pText, room) : textLength<4>(pText, room);
}

Outcome TextConverter::convert(std::byte *pText, std::uint32_t length) noexcept {
  const bool isUtf16 = chain_.wideSize() == kUtf16Len;
  if (chain_.isSwapped()) {
    isUtf16 ? swapUnits<std::uint16_t>(pText, length) : swapUnits<std::uint32_t>(pText, length);
  }
  return isUtf16 ? Outcome{} : narrowUnits(pText, length);
}

Outcome TextConverter::narrowUnits(std::byte *pText, std::uint32_t length) noexcept {
  if (!area_.exists() && !area_.obtain(kAreaLen)) {
    return failure(MEMERR_PACKAMEM, ErrorText("UnpackBlkMemAllocFail"));
  }
  auto *pArea = area_.as<std::byte>();
  const std::uint16_t code = convertText(pText, pArea);
  // A correct conversion never makes the text longer.
  const std::uint32_t end = textLength(pArea, std::min(length, kAreaLen), kUtf16Len);
  if (code != 0 || end == 0) {
    return failure(
        MEMERR_PACKUTF,
        ErrorText("UTF32 to UTF16 Conversion err=").decimal(static_cast<std::int16_t>(code)));
  }
  copyBytes(pText, pArea, end);
  return {};
}

}  // namespace memlib
