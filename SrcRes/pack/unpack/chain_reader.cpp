#include "pack/unpack/chain_reader.h"

#include <algorithm>
#include <bit>

#include "pack/unpack/text_length.h"

namespace mem {

namespace {

constexpr std::uint32_t kVersionOff = 10;  // block offsets in block 0
constexpr std::uint32_t kControlBlockOff = 14;
constexpr std::uint32_t kHeadLen = 6;  // used length and version, in used-length terms
constexpr std::uint32_t kFirstContentOff = 2;
constexpr std::uint16_t kOffsetsEnd = 0x8000;  // offsets in relative pointers have 15 bits
constexpr std::uint32_t kBitsPerWord = 64;
constexpr std::uint32_t kWordLen = kBitsPerWord / 8;

constexpr std::uint16_t kEbcdicC = 0xC3;
constexpr std::uint16_t kEbcdicF = 0xC6;
constexpr std::uint16_t kEbcdicS = 0xE2;
constexpr std::uint16_t kEbcdicW = 0xE6;
constexpr std::uint16_t kEbcdicV = 0xE5;
constexpr std::uint16_t kEbcdicX = 0xE7;

// The ASCII letter of an EBCDIC one that has a meaning.
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

std::uint32_t wordsFor(std::uint32_t used) noexcept {
  return roundUp(used, kBitsPerWord) / kBitsPerWord;
}

}  // namespace

Outcome PackedChain::open(MemPackBlock *pFirst) noexcept {
  if (pFirst == nullptr) return badBlockCount(0);
  if (Outcome failed = readVersion(pFirst)) return failed;
  if (Outcome failed = readControlBlockLen(pFirst)) return failed;
  if (Outcome failed = listBlocks(pFirst)) return failed;
  if (Outcome failed = obtainWork()) return failed;
  return copyControlBlock();
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

Outcome PackedChain::readControlBlockLen(MemPackBlock *pFirst) noexcept {
  pFileControlBlock_ = bytesAt(pFirst, kControlBlockOff);
  const std::uint32_t used = number<std::uint16_t>(&pFirst->UsedLen);
  if (used < kHeadLen + sizeof(std::int16_t)) return badDescriptor(pFileControlBlock_);
  descriptorCount_ = number<std::int16_t>(pFileControlBlock_);
  if (descriptorCount_ < 1) return badDescriptor(pFileControlBlock_);
  controlBlockLen_ = static_cast<std::uint32_t>(
      sizeof(std::int16_t) +
      static_cast<std::size_t>(descriptorsPresent(descriptorCount_)) * layoutOf(version_).length);
  if (controlBlockLen_ > used - kHeadLen) return badDescriptor(pFileControlBlock_);
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
  void **pEntry = blockTable_.as<void *>();
  for (MemPackBlock *pBlock = pFirst; pBlock != nullptr; pBlock = pBlock->pNext) *pEntry++ = pBlock;
  return {};
}

// At most 32,767 blocks of 65,535 bytes, two bits each: every sum here stays below 2^32.
Outcome PackedChain::obtainWork() noexcept {
  for (std::int32_t i = 0; i < blockCount_; ++i) wordCount_ += wordsFor(usedLenInFile(i));
  const std::uint32_t listLen = static_cast<std::uint32_t>(blockCount_) * sizeof(BlockExtent);
  const std::uint32_t cbLen =
      roundUp(static_cast<std::uint64_t>(MEM_PACK_CB_LEN(descriptorCount_)), 8);
  if (!work_.obtainUnset(listLen + cbLen + 2 * wordCount_ * kWordLen)) {
    return failure(MEMERR_PACKAMEM, ErrorText("UnpackBlkMemAllocFail"));
  }
  controlBlock_ = PackControlBlock(work_.as<MemPackCB>(listLen));
  pClaims_ = work_.as<std::uint64_t>(listLen + cbLen);
  pTexts_ = pClaims_ + wordCount_;
  listExtents();
  return {};
}

void PackedChain::listExtents() noexcept {
  auto *pExtents = work_.as<BlockExtent>();
  std::uint32_t word = 0;
  for (std::int32_t i = 0; i < blockCount_; ++i) {
    const std::uint16_t used = usedLenInFile(i);
    pExtents[i] = {word, used, std::min(used, kOffsetsEnd)};
    word += wordsFor(used);
  }
}

std::uint16_t PackedChain::usedLenInFile(std::int32_t block) const noexcept {
  return number<std::uint16_t>(bytesAt(blocks()[block], offsetof(MemPackBlock, UsedLen)));
}

Outcome PackedChain::copyControlBlock() noexcept {
  auto *pCopy = work_.as<std::byte>(static_cast<std::size_t>(blockCount_) * sizeof(BlockExtent));
  storeAs(pCopy, static_cast<std::int16_t>(descriptorCount_));
  for (std::int32_t i = 0; i < descriptorsPresent(descriptorCount_); ++i) {
    const MemPackDescriptor descriptor = readDescriptor(descriptorInFile(i));
    storeAs(pCopy + sizeof(std::int16_t) + static_cast<std::size_t>(i) * sizeof descriptor,
            descriptor);
    if (i < descriptorCount_ && !controlBlock_.hasValidCounts(descriptor)) {
      return badDescriptor(descriptorInFile(i));
    }
  }
  return {};
}

std::byte *PackedChain::descriptorInFile(std::int32_t index) const noexcept {
  return pFileControlBlock_ + sizeof(std::int16_t) +
         static_cast<std::size_t>(index) * layoutOf(version_).length;
}

PackFailure PackedChain::badKind(std::uint16_t kind) const noexcept {
  return badDescriptor(descriptorInFile(kind));
}

// A descriptor of either layout as a native one of the current layout. Counts that are out of range
// are kept, so that the checks see them; their entries are not used. All writers with EBCDIC
// letters are big-endian, whatever their version is written in; elsewhere these are numbers like
// others.
MemPackDescriptor PackedChain::readDescriptor(const std::byte *pFrom) const noexcept {
  const DescriptorLayout &layout = layoutOf(version_);
  MemPackDescriptor native{};
  if (!version_.isOldLayout) std::memcpy(&native, pFrom, sizeof native);
  const auto type = number<std::uint16_t>(pFrom);
  native.Type = version_.isBigEndian ? asciiKind(type) : type;
  native.FixedLen = number<std::uint16_t>(pFrom + 2);
  native.SiblingOff = number<std::int16_t>(pFrom + 4);
  native.ChildCount = number<std::int16_t>(pFrom + 6);
  native.ReferenceCount = number<std::int16_t>(pFrom + 8);
  if (native.ChildCount > layout.maxChildren) native.ChildCount = MEM_PACK_MAX_CHILDREN + 1;
  const std::int32_t childCount = native.ChildCount <= layout.maxChildren ? native.ChildCount : 0;
  for (std::int32_t i = 0; i < childCount; ++i) {
    const std::byte *pChild = pFrom + layout.childrenOff + static_cast<std::size_t>(i) * 4;
    native.Children[i] = {number<std::uint16_t>(pChild), number<std::int16_t>(pChild + 2)};
  }
  const std::int32_t referenceCount =
      native.ReferenceCount <= MEM_PACK_MAX_REFERENCES ? native.ReferenceCount : 0;
  for (std::int32_t i = 0; i < referenceCount; ++i) {
    native.References[i] =
        number<std::int16_t>(pFrom + layout.referencesOff + static_cast<std::size_t>(i) * 2);
  }
  return native;
}

bool PackedChain::hasForeignLength(const MemPackDescriptor &descriptor) const noexcept {
  return version_.isBigEndian && (descriptor.Type == kEbcdicV || descriptor.Type == kEbcdicX);
}

// The count, and of each used kind the five header fields and the used entries.
void PackedChain::swapControlBlock() const noexcept {
  if (!isSwapped_ || version_.isOldLayout) return;
  storeAs(pFileControlBlock_, static_cast<std::int16_t>(descriptorCount_));
  const UsedKinds used(controlBlock_);
  for (std::int32_t i = 0; i < controlBlock_.present(); ++i) {
    if (used.contains(i)) swapDescriptor(controlBlock_.descriptor(i), descriptorInFile(i));
  }
}

void PackedChain::swapDescriptor(const MemPackDescriptor &native, std::byte *pTo) noexcept {
  for (std::size_t field = 0; field < kCurrentLayout.childrenOff; field += 2) {
    storeAs(pTo + field, byteSwapped(loadAs<std::uint16_t>(pTo + field)));
  }
  const auto children = usedChildren(native);
  if (!children.empty()) {
    std::memcpy(pTo + kCurrentLayout.childrenOff, children.data(), children.size_bytes());
  }
  const auto references = usedReferences(native);
  if (!references.empty()) {
    std::memcpy(pTo + kCurrentLayout.referencesOff, references.data(), references.size_bytes());
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
  std::int32_t measured = descriptor.FixedLen;
  if (descriptor.Type != MEM_PACK_FIXED) {
    constexpr std::int32_t kLengthWord = sizeof(std::uint16_t);
    if (!holds(place, kLengthWord)) return badOffset(place.offset);
    measured = descriptor.Type == MEM_PACK_COUNTED ? number<std::int16_t>(at(place)) + kLengthWord
                                                   : number<std::uint16_t>(at(place));
    if (measured < kLengthWord) return badOffset(place.offset);
  }
  if (!holds(place, static_cast<std::uint32_t>(measured))) return badOffset(place.offset);
  length = static_cast<std::uint32_t>(measured);
  return {};
}

Outcome PackedChain::measureText(const ContentPlace &place, std::uint32_t unitLen,
                                 std::uint32_t &length) const noexcept {
  const std::uint32_t room = usedLen(place.block) - place.offset;
  switch (unitLen) {
    case 1:
      length = textLength<std::uint8_t>(at(place), room);
      break;
    case 2:
      length = textLength<std::uint16_t>(at(place), room);
      break;
    default:
      length = textLength<std::uint32_t>(at(place), room);
      break;
  }
  return length == 0 ? badOffset(place.offset) : Outcome{};
}

void PackedChain::startClaims() noexcept {
  std::memset(pClaims_, 0, std::size_t{2} * wordCount_ * kWordLen);
}

bool PackedChain::claim(const ContentPlace &place, std::uint32_t length) noexcept {
  std::uint64_t *pWord = pClaims_ + firstWord(place.block) + place.offset / kBitsPerWord;
  std::uint32_t bit = place.offset % kBitsPerWord;
  for (std::uint32_t rest = length; rest > 0; ++pWord, bit = 0) {
    const std::uint32_t step = std::min(rest, kBitsPerWord - bit);
    const std::uint64_t mask = (~std::uint64_t{0} >> (kBitsPerWord - step)) << bit;
    if ((*pWord & mask) != 0) return false;
    *pWord |= mask;
    rest -= step;
  }
  return true;
}

// Goes on word by word of the bits, up to the terminator or to text that is known to end. A claimed
// terminator stays what it is, whatever becomes of the bytes in front of it.
Outcome PackedChain::takeNarrowText(const ContentPlace &place) noexcept {
  const std::uint32_t used = usedLen(place.block);
  ContentPlace next = place;
  while (next.offset < used) {
    std::uint64_t &word = pTexts_[firstWord(place.block) + next.offset / kBitsPerWord];
    const std::uint32_t bit = next.offset % kBitsPerWord;
    const std::uint32_t inWord = std::min(used - next.offset, kBitsPerWord - bit);
    const auto unknown =
        std::min(inWord, static_cast<std::uint32_t>(std::countr_zero(word >> bit)));
    if (unknown == 0) return {};
    const std::uint32_t length = textLength<std::uint8_t>(at(next), unknown);
    const std::uint32_t looked = length == 0 ? unknown : length;
    word |= (~std::uint64_t{0} >> (kBitsPerWord - looked)) << bit;
    next.offset += looked;
    if (length == 0) continue;
    --next.offset;
    return claim(next, 1) ? Outcome{} : reachedTwice();
  }
  return badOffset(place.offset);
}

}  // namespace mem
