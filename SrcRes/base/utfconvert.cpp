#include "base/utfconvert.h"

#include "base/bytes.h"

namespace memlib {

namespace {

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

}  // namespace

std::uint16_t utf32ToUtf16(const void *pIn, void *pOut, std::int32_t outLen) noexcept {
  const auto *pFrom = static_cast<const std::byte *>(pIn);
  auto *pTo = static_cast<std::byte *>(pOut);
  std::int32_t roomUnits = outLen / 2;
  for (;; pFrom += sizeof(char32_t)) {
    const auto character = loadAs<char32_t>(pFrom);
    if (character > kLastCharacter || isSurrogate(character)) return kConvertBadInput;
    const std::int32_t units = putUtf16(character, pTo, roomUnits);
    if (units == 0) return kConvertNoRoom;
    if (character == 0) return 0;
    pTo += static_cast<std::size_t>(units) * sizeof(char16_t);
    roomUnits -= units;
  }
}

}  // namespace memlib
