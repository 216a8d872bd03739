#include "pack/unpack/chain_reader.h"

#include <algorithm>
#include <bit>

#include "pack/unpack/chain_text.h"

namespace memlib {

namespace {

constexpr std::uint32_t kFirstContentOff = 2;
constexpr std::uint16_t kOffsetsEnd = 0x8000;  // offsets in relative pointers have 15 bits
constexpr std::uint32_t kBitsPerWord = 64;
constexpr std::uint32_t kWordLen = kBitsPerWord / 8;

std::uint32_t roundUp(std::uint64_t value, std::uint32_t multiple) noexcept {
  return static_cast<std::uint32_t>((value + multiple - 1) / multiple * multiple);
}

std::uint32_t wordsFor(std::uint32_t used) noexcept {
  return roundUp(used, kBitsPerWord) / kBitsPerWord;
}

}  // namespace

Outcome ChainReader::open(MemPackBlock *pFirst) noexcept {
  if (pFirst == nullptr) return badBlockCount(0);
  if (Outcome failed = file_.open(pFirst)) return failed;
  if (Outcome failed = listBlocks(pFirst)) return failed;
  if (Outcome failed = obtainWork()) return failed;
  return copyControlBlock();
}

Outcome ChainReader::listBlocks(MemPackBlock *pFirst) noexcept {
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

// At most 32,767 blocks of 65,535 bytes with two bits for each byte: no sum here reaches 2^32.
Outcome ChainReader::obtainWork() noexcept {
  for (std::int32_t i = 0; i < blockCount_; ++i) wordCount_ += wordsFor(usedLenInFile(i));
  const std::uint32_t listLen = static_cast<std::uint32_t>(blockCount_) * sizeof(BlockExtent);
  const std::uint32_t cbLen =
      roundUp(static_cast<std::uint64_t>(MEM_PACK_CB_LEN(file_.count())), 8);
  if (!work_.obtainUnset(listLen + cbLen + 2 * wordCount_ * kWordLen)) {
    return failure(MEMERR_PACKAMEM, ErrorText("UnpackBlkMemAllocFail"));
  }
  controlBlock_ = PackControlBlock(work_.as<MemPackCB>(listLen));
  pClaims_ = work_.as<std::uint64_t>(listLen + cbLen);
  pTexts_ = pClaims_ + wordCount_;
  listExtents();
  return {};
}

void ChainReader::listExtents() noexcept {
  auto *pExtents = work_.as<BlockExtent>();
  std::uint32_t word = 0;
  for (std::int32_t i = 0; i < blockCount_; ++i) {
    const std::uint16_t used = usedLenInFile(i);
    pExtents[i] = {word, used, std::min(used, kOffsetsEnd)};
    word += wordsFor(used);
  }
}

std::uint16_t ChainReader::usedLenInFile(std::int32_t block) const noexcept {
  return file_.number<std::uint16_t>(bytesAt(blocks()[block], offsetof(MemPackBlock, UsedLen)));
}

Outcome ChainReader::copyControlBlock() noexcept {
  auto *pCopy = work_.as<std::byte>(static_cast<std::size_t>(blockCount_) * sizeof(BlockExtent));
  storeAs(pCopy, static_cast<std::int16_t>(file_.count()));
  pCopy += sizeof(std::int16_t);
  for (std::int32_t i = 0; i < descriptorsPresent(file_.count()); ++i) {
    const MemPackDescriptor descriptor = file_.descriptor(i);
    storeAs(pCopy, descriptor);
    pCopy += sizeof descriptor;
    const bool isUsed = i < file_.count();
    if (isUsed && !controlBlock_.hasValidCounts(descriptor)) return file_.badKind(i);
  }
  return {};
}

Outcome ChainReader::locateRoot(ContentPlace &root) const noexcept {
  if (file_.endOff() < usedLen(0)) {
    root = {.block = 0, .offset = file_.endOff()};
    return {};
  }
  root = {.block = 1, .offset = kFirstContentOff};
  if (blockCount_ < 2) return badBlockNumber(root.block);
  if (root.offset >= usedLen(root.block)) return badOffset(root.offset);
  return {};
}

Outcome ChainReader::follow(const void *pRelPtr, ContentPlace &target) const noexcept {
  const std::int32_t block = file_.number<std::int16_t>(pRelPtr);
  const std::int32_t offset = file_.number<std::int16_t>(bytesAt(pRelPtr, sizeof(std::int16_t)));
  if (block < 0 || block >= blockCount_) return badBlockNumber(block);
  target = {.block = block, .offset = static_cast<std::uint32_t>(offset)};
  if (offset < 0 || target.offset >= usedLen(block)) return badOffset(target.offset);
  return {};
}

Outcome ChainReader::measureSegment(const MemPackDescriptor &descriptor, const ContentPlace &place,
                                    std::uint32_t &length) const noexcept {
  if (descriptor.Type == MEM_PACK_STRING) return measureText(place, 1, length);
  std::int32_t measured = descriptor.FixedLen;
  if (descriptor.Type != MEM_PACK_FIXED) {
    if (!holds(place, kLengthWordLen)) return badOffset(place.offset);
    measured = lengthByWord(descriptor, file_.number<std::uint16_t>(at(place)));
    if (measured < kLengthWordLen) return badOffset(place.offset);
  }
  if (!holds(place, static_cast<std::uint32_t>(measured))) return badOffset(place.offset);
  length = static_cast<std::uint32_t>(measured);
  return {};
}

Outcome ChainReader::measureText(const ContentPlace &place, std::uint32_t unitLen,
                                 std::uint32_t &length) const noexcept {
  length = textLength(at(place), usedLen(place.block) - place.offset, unitLen);
  return length == 0 ? badOffset(place.offset) : Outcome{};
}

void ChainReader::startClaims() noexcept {
  std::memset(pClaims_, 0, std::size_t{2} * wordCount_ * kWordLen);
}

bool ChainReader::claim(const ContentPlace &place, std::uint32_t length) noexcept {
  MEM_ASSERT(holds(place, length));
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

// Continues word by word of the bits, up to the terminator or to text that is known to end. A
// claimed terminator cannot change, even if the bytes before it do.
Outcome ChainReader::takeNarrowText(const ContentPlace &place) noexcept {
  const std::uint32_t used = usedLen(place.block);
  ContentPlace next = place;
  while (next.offset < used) {
    std::uint64_t &word = pTexts_[firstWord(place.block) + next.offset / kBitsPerWord];
    const std::uint32_t bit = next.offset % kBitsPerWord;
    const std::uint32_t inWord = std::min(used - next.offset, kBitsPerWord - bit);
    const auto unknown =
        std::min(inWord, static_cast<std::uint32_t>(std::countr_zero(word >> bit)));
    if (unknown == 0) return {};
    const std::uint32_t length = textLength<1>(at(next), unknown);
    const std::uint32_t looked = length == 0 ? unknown : length;
    word |= (~std::uint64_t{0} >> (kBitsPerWord - looked)) << bit;
    next.offset += looked;
    if (length == 0) continue;
    --next.offset;
    return claim(next, 1) ? Outcome{} : reachedTwice();
  }
  return badOffset(place.offset);
}

}  // namespace memlib
