#include "base/utfconvert.h"

#include "base/bytes.h"
#include "frame/hostaccess.h"

namespace mem {

namespace {

// Code pages of the host's conversion service.
constexpr std::uint16_t kPageUtf16 = 1200;
constexpr std::uint16_t kPageUtf32 = 12000;

constexpr char32_t kLastCharacter = 0x10FFFF;
constexpr char32_t kFirstSupplementary = 0x10000;

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

std::uint16_t convertHere(const std::byte *pIn, std::byte *pOut, std::int32_t outLen) noexcept {
  std::int32_t roomUnits = outLen / 2;
  for (;; pIn += sizeof(char32_t)) {
    const auto character = loadAs<char32_t>(pIn);
    if (character > kLastCharacter || isSurrogate(character)) return kConvertBadInput;
    const std::int32_t units = putUtf16(character, pOut, roomUnits);
    if (units == 0) return kConvertNoRoom;
    if (character == 0) return 0;
    pOut += static_cast<std::size_t>(units) * sizeof(char16_t);
    roomUnits -= units;
  }
}

}  // namespace

std::uint16_t convertUtf32ToUtf16(const void *pIn, void *pOut, std::int32_t outLen) noexcept {
  if (const auto convert = runtimeServices().ConvertText) {
    return convert(kPageUtf32, kPageUtf16, pIn, -1, pOut, outLen);
  }
  return convertHere(static_cast<const std::byte *>(pIn), static_cast<std::byte *>(pOut), outLen);
}

}  // namespace mem
