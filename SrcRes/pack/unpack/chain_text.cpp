#include "pack/unpack/chain_text.h"

#include <algorithm>

#include "base/bytes.h"
#include "frame/hostaccess.h"
#include "pack/unpack/chain_reader.h"

namespace memlib {

namespace {

// Code pages of the host's conversion service.
constexpr std::uint16_t kPageUtf16 = 1200;
constexpr std::uint16_t kPageUtf32 = 12000;

constexpr std::uint32_t kAreaLen = 32768;
constexpr std::uint32_t kUtf16Len = 2;

constexpr char32_t kLastCharacter = 0x10FFFF;
constexpr char32_t kFirstSupplementary = 0x10000;

template <class Unit>
void swapUnits(std::byte *pText, std::uint32_t length) noexcept {
  for (std::uint32_t offset = 0; offset < length; offset += sizeof(Unit)) {
    storeAs(pText + offset, byteSwapped(loadAs<Unit>(pText + offset)));
  }
}

bool isSurrogate(char32_t unit) noexcept {
  return unit >= 0xD800 && unit <= 0xDFFF;
}

// Writes one character as one or two units. Returns the units, 0 when there is no room.
std::int32_t putUtf16(char32_t character, std::byte *pOut, std::int32_t roomUnits) noexcept {
  if (character < kFirstSupplementary) {
    if (roomUnits < 1) return 0;
    storeAs(pOut, static_cast<char16_t>(character));
    return 1;
  }
  if (roomUnits < 2) return 0;
  const char32_t rest = character - kFirstSupplementary;
  storeAs(pOut, static_cast<char16_t>(0xD800 + (rest >> 10)));
  storeAs(pOut + sizeof(char16_t), static_cast<char16_t>(0xDC00 + (rest & 0x3FF)));
  return 2;
}

// Converts terminated UTF-32 into at most `outLen` bytes of UTF-16, both native. Returns 0 or a
// code as the host's conversion service does.
std::uint16_t utf32ToUtf16(const void *pIn, void *pOut, std::int32_t outLen) noexcept {
  constexpr std::uint16_t kBadInput = 1;  // a value that is not a character
  constexpr std::uint16_t kNoRoom = 2;
  const auto *pFrom = static_cast<const std::byte *>(pIn);
  auto *pTo = static_cast<std::byte *>(pOut);
  std::int32_t roomUnits = outLen / 2;
  for (;; pFrom += sizeof(char32_t)) {
    const auto character = loadAs<char32_t>(pFrom);
    if (character > kLastCharacter || isSurrogate(character)) return kBadInput;
    const std::int32_t units = putUtf16(character, pTo, roomUnits);
    if (units == 0) return kNoRoom;
    if (character == 0) return 0;
    pTo += static_cast<std::size_t>(units) * sizeof(char16_t);
    roomUnits -= units;
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
