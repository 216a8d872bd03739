#include "memcpack_chain.h"

#include <algorithm>

namespace mem {

namespace {

constexpr std::uint32_t kVersionOff = 10;  // block offsets in block 0
constexpr std::uint32_t kControlBlockOff = 14;
constexpr std::uint32_t kHeadLen = 6;  // used length and version, in used-length terms
constexpr std::uint32_t kFirstContentOff = 2;
constexpr std::uint32_t kBitsPerWord = 64;

constexpr std::uint16_t kEbcdicC = 0xC3;
constexpr std::uint16_t kEbcdicF = 0xC6;
constexpr std::uint16_t kEbcdicS = 0xE2;
constexpr std::uint16_t kEbcdicW = 0xE6;

std::uint16_t asciiKind(std::uint16_t type) noexcept {
  switch (type) {
    case kEbcdicC:
      return MEM_PACK_COUNTED;
    case kEbcdicF:
      return MEM_PACK_FIXED;
    case kEbcdicS:
      return MEM_PACK_STRING;
    case kEbcdicW:
      return MEM_PACK_WIDE_STRING;
    default:
      return type;
  }
}

// Block offsets of the entries in a descriptor of either layout.
struct DescriptorLayout {
  std::uint32_t length;
  std::uint32_t childrenOff;
  std::uint32_t referencesOff;
  std::int16_t maxChildren;
};
constexpr DescriptorLayout kCurrentLayout{122, 10, 106, MEM_PACK_MAX_CHILDREN};
constexpr DescriptorLayout kOldLayout{kOldDescriptorLen, 10, 42, kOldMaxChildren};

const DescriptorLayout &layoutOf(const PackVersion &version) noexcept {
  return version.isOldLayout ? kOldLayout : kCurrentLayout;
}

std::int32_t descriptorsPresent(std::int32_t count) noexcept {
  return std::max<std::int32_t>(count, MEM_PACK_MIN_DESCRIPTORS);
}

std::uint32_t roundUp(std::uint64_t value, std::uint32_t multiple) noexcept {
  return static_cast<std::uint32_t>((value + multiple - 1) / multiple * multiple);
}

}  // namespace

Outcome PackedChain::open(MemPackBlock *pFirst) noexcept {
  if (pFirst == nullptr) return badBlockCount(0);
  if (Outcome failed = readVersion(pFirst)) return failed;
  if (Outcome failed = readControlBlockLen(pFirst)) return failed;
  if (Outcome failed = listBlocks(pFirst)) return failed;
  if (Outcome failed = obtainWork()) return failed;
  return copyControlBlock(pFirst);
}

Outcome PackedChain::readVersion(const MemPackBlock *pFirst) noexcept {
  const void *pVersion = bytesAt(pFirst, kVersionOff);
  if (!startsLikeVersion(pVersion)) return badDescriptor(pVersion);
  const std::optional<PackVersion> version = findVersion(pVersion);
  if (!version) {
    return failure(MEMERR_PACKCBVR, ErrorText("MemPackCBstructIDVersion=").pointer(pVersion));
  }
  version_ = *version;
  isSwapped_ = version_.isBigEndian != platformIsBigEndian();
  return {};
}

Outcome PackedChain::readControlBlockLen(const MemPackBlock *pFirst) noexcept {
  const void *pControlBlock = bytesAt(pFirst, kControlBlockOff);
  const std::uint32_t used = number<std::uint16_t>(&pFirst->UsedLen);
  if (used < kHeadLen + sizeof(std::int16_t)) return badDescriptor(pControlBlock);
  descriptorCount_ = number<std::int16_t>(pControlBlock);
  if (descriptorCount_ < 1) return badDescriptor(pControlBlock);
  controlBlockLen_ = static_cast<std::uint32_t>(
      sizeof(std::int16_t) +
      static_cast<std::size_t>(descriptorsPresent(descriptorCount_)) * layoutOf(version_).length);
  if (controlBlockLen_ > used - kHeadLen) return badDescriptor(pControlBlock);
  return {};
}

Outcome PackedChain::listBlocks(MemPackBlock *pFirst) noexcept {
  std::int32_t count = 0;
  for (const MemPackBlock *pBlock = pFirst; pBlock != nullptr; pBlock = pBlock->pNext) {
    if (++count > MEM_PACK_MAX_BLOCKS) return badBlockCount(count);
  }
  blockCount_ = count;
  if (!blockTable_.obtain(static_cast<std::uint32_t>(count) * 8)) {
    return failure(MEMERR_PACKAMEM, ErrorText("BlockPtrTblCallocFail"));
  }
  void **pEntry = blocks();
  for (MemPackBlock *pBlock = pFirst; pBlock != nullptr; pBlock = pBlock->pNext) *pEntry++ = pBlock;
  return {};
}

// At most 32,767 blocks of 65,535 bits: every sum here stays below 2^32.
Outcome PackedChain::obtainWork() noexcept {
  std::uint32_t words = 1;  // claims look one byte beyond the last bit
  for (std::int32_t i = 0; i < blockCount_; ++i) {
    const std::uint32_t used =
        number<std::uint16_t>(bytesAt(blocks()[i], offsetof(MemPackBlock, UsedLen)));
    words += roundUp(used, kBitsPerWord) / kBitsPerWord;
  }
  const std::uint32_t listLen = static_cast<std::uint32_t>(blockCount_) * 8;
  const std::uint32_t cbLen =
      roundUp(static_cast<std::uint64_t>(MEM_PACK_CB_LEN(descriptorCount_)), 8);
  if (!work_.obtain(listLen + cbLen + words * 8)) {
    return failure(MEMERR_PACKAMEM, ErrorText("UnpackBlkMemAllocFail"));
  }
  controlBlock_ = PackControlBlock(work_.as<MemPackCB>(listLen));
  pBits_ = work_.as<std::uint8_t>(listLen + cbLen);
  std::uint32_t word = 0;
  for (std::int32_t i = 0; i < blockCount_; ++i) {
    const std::uint32_t used =
        number<std::uint16_t>(bytesAt(blocks()[i], offsetof(MemPackBlock, UsedLen)));
    usedLens()[i] = used;
    bitStarts()[i] = word;
    word += roundUp(used, kBitsPerWord) / kBitsPerWord;
  }
  return {};
}

Outcome PackedChain::copyControlBlock(MemPackBlock *pFirst) noexcept {
  auto *pCopy = work_.as<std::byte>(static_cast<std::size_t>(blockCount_) * 8);
  const DescriptorLayout &layout = layoutOf(version_);
  std::byte *pControlBlock = bytesAt(pFirst, kControlBlockOff);
  storeAs(pCopy, static_cast<std::int16_t>(descriptorCount_));
  for (std::int32_t i = 0; i < descriptorsPresent(descriptorCount_); ++i) {
    const auto index = static_cast<std::size_t>(i);
    const std::byte *pFrom = pControlBlock + sizeof(std::int16_t) + index * layout.length;
    const MemPackDescriptor descriptor = readDescriptor(pFrom);
    storeAs(pCopy + sizeof(std::int16_t) + index * sizeof descriptor, descriptor);
    if (i < descriptorCount_ && !controlBlock_.hasValidCounts(descriptor)) {
      return badDescriptor(pFrom);
    }
  }
  if (isSwapped_ && !version_.isOldLayout) swapInPlace(pControlBlock);
  return {};
}

// A descriptor of either layout as a native one of the current layout. Counts that are out of range
// are kept, so that the checks see them; their entries are not read.
MemPackDescriptor PackedChain::readDescriptor(const std::byte *pFrom) const noexcept {
  const DescriptorLayout &layout = layoutOf(version_);
  MemPackDescriptor native{};
  native.Type = asciiKind(number<std::uint16_t>(pFrom));
  native.FixedLen = number<std::uint16_t>(pFrom + 2);
  native.SiblingOff = number<std::int16_t>(pFrom + 4);
  native.ChildCount = number<std::int16_t>(pFrom + 6);
  native.ReferenceCount = number<std::int16_t>(pFrom + 8);
  if (native.ChildCount > layout.maxChildren) native.ChildCount = MEM_PACK_MAX_CHILDREN + 1;
  const std::int16_t childCount = native.ChildCount <= layout.maxChildren ? native.ChildCount : 0;
  for (std::int16_t i = 0; i < childCount; ++i) {
    const std::byte *pChild = pFrom + layout.childrenOff + static_cast<std::size_t>(i) * 4;
    native.Children[i] = {number<std::uint16_t>(pChild), number<std::int16_t>(pChild + 2)};
  }
  const std::int16_t referenceCount =
      native.ReferenceCount <= MEM_PACK_MAX_REFERENCES ? native.ReferenceCount : 0;
  for (std::int16_t i = 0; i < referenceCount; ++i) {
    native.References[i] =
        number<std::int16_t>(pFrom + layout.referencesOff + static_cast<std::size_t>(i) * 2);
  }
  return native;
}

// The count, and of each descriptor the five header fields and the used entries.
// REQUIRES: the copy of the control block is complete and valid.
void PackedChain::swapInPlace(std::byte *pControlBlock) const noexcept {
  storeAs(pControlBlock, static_cast<std::int16_t>(descriptorCount_));
  for (std::int32_t i = 0; i < descriptorCount_; ++i) {
    std::byte *pTo =
        pControlBlock + sizeof(std::int16_t) + static_cast<std::size_t>(i) * kCurrentLayout.length;
    const MemPackDescriptor &native = controlBlock_.descriptor(i);
    for (std::size_t field = 0; field < kCurrentLayout.childrenOff; field += 2) {
      storeAs(pTo + field, byteSwapped(loadAs<std::uint16_t>(pTo + field)));
    }
    const auto used = children(native);
    if (!used.empty()) {
      std::memcpy(pTo + kCurrentLayout.childrenOff, used.data(), used.size_bytes());
    }
    const auto usedReferences = references(native);
    if (!usedReferences.empty()) {
      std::memcpy(pTo + kCurrentLayout.referencesOff, usedReferences.data(),
                  usedReferences.size_bytes());
    }
  }
}

Outcome PackedChain::locateRoot(ContentPlace &root) const noexcept {
  const std::uint32_t behindControlBlock = controlBlockLen_ + kHeadLen;
  if (behindControlBlock < usedLen(0)) {
    root = {.block = 0, .offset = behindControlBlock};
    return {};
  }
  root = {.block = 1, .offset = kFirstContentOff};
  if (blockCount_ < 2) return badBlockNumber(root.block);
  if (root.offset >= usedLen(root.block)) return badOffset(root.offset);
  return {};
}

Outcome PackedChain::follow(const void *pRelPtr, ContentPlace &target) const noexcept {
  const std::int32_t block = number<std::int16_t>(pRelPtr);
  const std::int32_t offset = number<std::int16_t>(bytesAt(pRelPtr, sizeof(std::int16_t)));
  if (block < 0 || block >= blockCount_) return badBlockNumber(block);
  target = {.block = block, .offset = static_cast<std::uint32_t>(offset)};
  if (offset < 0 || target.offset >= usedLen(block)) return badOffset(target.offset);
  return {};
}

Outcome PackedChain::measureSegment(const MemPackDescriptor &descriptor, const ContentPlace &place,
                                    std::uint32_t &length) const noexcept {
  if (descriptor.Type == MEM_PACK_STRING) return measureText(place, 1, length);
  std::int32_t measured = 0;
  if (descriptor.Type == MEM_PACK_FIXED) {
    measured = descriptor.FixedLen;
  } else {
    if (!holds(place, sizeof(std::uint16_t))) return badOffset(place.offset);
    measured = descriptor.Type == MEM_PACK_COUNTED ? number<std::int16_t>(at(place)) + 2
                                                   : number<std::uint16_t>(at(place));
  }
  if (measured < 0 || !holds(place, static_cast<std::uint32_t>(measured))) {
    return badOffset(place.offset);
  }
  length = static_cast<std::uint32_t>(measured);
  return {};
}

Outcome PackedChain::measureText(const ContentPlace &place, std::uint32_t unitLen,
                                 std::uint32_t &length) const noexcept {
  const std::uint32_t room = usedLen(place.block) - place.offset;
  const std::byte *pText = at(place);
  const std::uint32_t zero = 0;
  for (std::uint32_t end = unitLen; end <= room; end += unitLen) {
    if (std::memcmp(pText + end - unitLen, &zero, unitLen) == 0) {
      length = end;
      return {};
    }
  }
  return badOffset(place.offset);
}

bool PackedChain::claim(const ContentPlace &place, std::uint32_t length) noexcept {
  std::uint64_t bit = std::uint64_t{bitStarts()[place.block]} * kBitsPerWord + place.offset;
  for (std::uint32_t rest = length; rest > 0;) {
    const std::uint32_t step = std::min<std::uint32_t>(rest, 8);
    std::uint8_t *pByte = pBits_ + bit / 8;
    const auto mask = static_cast<std::uint32_t>(((1U << step) - 1) << (bit % 8));
    const auto low = static_cast<std::uint8_t>(mask);
    const auto high = static_cast<std::uint8_t>(mask >> 8);
    if ((pByte[0] & low) != 0 || (pByte[1] & high) != 0) return false;
    pByte[0] = static_cast<std::uint8_t>(pByte[0] | low);
    pByte[1] = static_cast<std::uint8_t>(pByte[1] | high);
    bit += step;
    rest -= step;
  }
  return true;
}

void PackedChain::seal(const ContentPlace &place) noexcept {
  const std::uint64_t bit = std::uint64_t{bitStarts()[place.block]} * kBitsPerWord + place.offset;
  pBits_[bit / 8] = static_cast<std::uint8_t>(pBits_[bit / 8] | (1U << (bit % 8)));
}

}  // namespace mem
