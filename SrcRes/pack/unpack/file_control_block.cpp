#include "pack/unpack/file_control_block.h"

#include <algorithm>

#include "frame/hostaccess.h"

namespace memlib {

namespace {

constexpr std::uint32_t kVersionOff = 10;  // block offsets in block 0
constexpr std::uint32_t kControlBlockOff = 14;

constexpr PackVersion kVersions[] = {
    {{'0', '1', '0', '0'}, true, 2, false},
    {{'0', '1', '0', '1'}, true, 2, true},
    {{'0', '2', '0', '0'}, false, 2, false},
    {{'0', '2', '0', '1'}, false, 2, true},
    {{'0', '2', '2', '0'}, false, 2, false},
    {{'0', '2', '2', '1'}, false, 2, true},
    {{'0', '2', '4', '0'}, false, 4, false},
    {{'0', '2', '4', '1'}, false, 4, true},
    // EBCDIC "0100", "0200" and "0300": always a big-endian writer.
    {{0xF0, 0xF1, 0xF0, 0xF0}, true, 2, true},
    {{0xF0, 0xF2, 0xF0, 0xF0}, false, 2, true},
    {{0xF0, 0xF3, 0xF0, 0xF0}, false, 2, true},
};

// True when the first character is a digit, in ASCII or EBCDIC.
bool startsLikeVersion(const void *pText) noexcept {
  const unsigned char first = *static_cast<const unsigned char *>(pText);
  return (first >= '0' && first <= '9') || (first >= 0xF0 && first <= 0xF9);
}

// The row of the table for this version, or null.
const PackVersion *findVersion(const void *pText) noexcept {
  const auto *pRow = std::ranges::find_if(kVersions, [pText](const PackVersion &row) {
    return std::memcmp(row.text, pText, kPackVersionLen) == 0;
  });
  return pRow == std::end(kVersions) ? nullptr : pRow;
}

constexpr std::uint16_t kEbcdicV = 0xE5;
constexpr std::uint16_t kEbcdicX = 0xE7;

// Converts the EBCDIC letters that have a meaning to ASCII.
std::uint16_t asciiKind(std::uint16_t type) noexcept {
  switch (type) {
    case 0xC3:
      return MEM_PACK_COUNTED;
    case 0xC6:
      return MEM_PACK_FIXED;
    case 0xE2:
      return MEM_PACK_STRING;
    case 0xE6:
      return MEM_PACK_WIDE_STRING;
    default:
      return type;
  }
}

}  // namespace

Outcome FileControlBlock::open(MemPackBlock *pFirst) noexcept {
  if (Outcome failed = readVersion(pFirst)) return failed;
  pBytes_ = bytesAt(pFirst, kControlBlockOff);
  const std::uint32_t used = number<std::uint16_t>(&pFirst->UsedLen);
  if (used < kHeadLen + sizeof(std::int16_t)) return badDescriptor(pBytes_);
  count_ = number<std::int16_t>(pBytes_);
  if (count_ < 1 || endOff() > used) return badDescriptor(pBytes_);
  return {};
}

Outcome FileControlBlock::readVersion(const MemPackBlock *pFirst) noexcept {
  const void *pText = bytesAt(pFirst, kVersionOff);
  if (!startsLikeVersion(pText)) return badDescriptor(pText);
  pVersion_ = findVersion(pText);
  if (pVersion_ == nullptr) {
    return failure(MEMERR_PACKCBVR, ErrorText("MemPackCBstructIDVersion=").pointer(pText));
  }
  isSwapped_ = pVersion_->isBigEndian != platformIsBigEndian();
  return {};
}

// All writers with EBCDIC letters are big-endian, even if their version is in ASCII. In chains of
// other writers these values are ordinary numbers.
MemPackDescriptor FileControlBlock::descriptor(std::int32_t index) const noexcept {
  MEM_ASSERT(index >= 0 && index < descriptorsPresent(count_));
  const std::byte *pFrom = at(index);
  MemPackDescriptor native{};
  if (!version().isOldLayout) std::memcpy(&native, pFrom, sizeof native);
  const auto type = number<std::uint16_t>(pFrom);
  native.Type = version().isBigEndian ? asciiKind(type) : type;
  native.FixedLen = number<std::uint16_t>(pFrom + 2);
  native.SiblingOff = number<std::int16_t>(pFrom + 4);
  native.ChildCount = number<std::int16_t>(pFrom + 6);
  native.ReferenceCount = number<std::int16_t>(pFrom + 8);
  if (native.ChildCount > layout().maxChildren) native.ChildCount = MEM_PACK_MAX_CHILDREN + 1;
  const std::byte *pEntry = pFrom + layout().childrenOff;
  const std::size_t childCount = usedChildren(native).size();
  for (std::size_t i = 0; i < childCount; ++i, pEntry += sizeof(MemPackChild)) {
    native.Children[i] = {number<std::uint16_t>(pEntry), number<std::int16_t>(pEntry + 2)};
  }
  pEntry = pFrom + layout().referencesOff;
  const std::size_t referenceCount = usedReferences(native).size();
  for (std::size_t i = 0; i < referenceCount; ++i, pEntry += sizeof(std::int16_t)) {
    native.References[i] = number<std::int16_t>(pEntry);
  }
  return native;
}

bool FileControlBlock::hasForeignLength(const MemPackDescriptor &descriptor) const noexcept {
  return version().isBigEndian && (descriptor.Type == kEbcdicV || descriptor.Type == kEbcdicX);
}

void FileControlBlock::swap(const PackControlBlock &native) const noexcept {
  if (!isSwapped_ || version().isOldLayout) return;
  storeAs(pBytes_, static_cast<std::int16_t>(count_));
  const UsedKinds used(native);
  for (std::int32_t i = 0; i < native.present(); ++i) {
    if (!used.contains(i)) continue;
    std::byte *const pTo = at(i);
    for (std::size_t field = 0; field < kCurrentLayout.childrenOff; field += 2) {
      storeAs(pTo + field, byteSwapped(loadAs<std::uint16_t>(pTo + field)));
    }
    storeUsedEntries(native.descriptor(i), kCurrentLayout, pTo);
  }
}

}  // namespace memlib
