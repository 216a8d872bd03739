// A packed chain of any writer, as the unpacker reads it. Every byte may be hostile: every place is
// checked against the used lengths before it is followed, and no byte is changed twice.
#pragma once

#include <cstdint>
#include <span>

#include "base/bytes.h"
#include "pack/pack_descriptors.h"
#include "pack/unpack/file_control_block.h"
#include "pack/unpack/workstorage.h"

namespace memlib {

// The place of a content byte: block number, and offset from block offset 8.
struct ContentPlace {
  std::int32_t block;
  std::uint32_t offset;
};

inline StepFailure badBlockNumber(std::int32_t block) noexcept {
  return failure(MEMERR_PACKRBLK,
                 ErrorText("Invalid Relative Blk=").decimal(static_cast<std::int16_t>(block)));
}

inline StepFailure badOffset(std::uint32_t offset) noexcept {
  return failure(MEMERR_PACKROFF,
                 ErrorText("Invalid Relative Offset=").decimal(static_cast<std::int16_t>(offset)));
}

inline StepFailure reachedTwice() noexcept {
  return failure(MEMERR_PACKCYCL, ErrorText("RecursiveStructure"));
}

// What the reader knows of a block besides its address.
struct BlockExtent {
  std::uint32_t firstWord;  // index of the first word of the block's bits
  std::uint16_t used;
  std::uint16_t reachable;  // end of the content offsets that a relative pointer can have
};

// Lengths, block addresses and descriptors are copied when the chain is opened, because a hostile
// segment may overlap them.
class ChainReader {
 public:
  // Reads version, control block and block list of the chain at `pFirst`, which may be null.
  // Changes nothing.
  Outcome open(MemPackBlock *pFirst) noexcept;

  // REQUIRES for the rest: opened.
  const FileControlBlock &file() const noexcept { return file_; }
  std::uint32_t wideSize() const noexcept { return file_.version().wideSize; }
  bool isSwapped() const noexcept { return file_.isSwapped(); }
  std::int32_t blockCount() const noexcept { return blockCount_; }
  // Native copy in the current layout.
  const PackControlBlock &controlBlock() const noexcept { return controlBlock_; }

  Outcome locateRoot(ContentPlace &root) const noexcept;

  // One for each block.
  void *const *blocks() const noexcept { return blockTable_.as<void *>(); }
  const BlockExtent *extents() const noexcept { return work_.as<BlockExtent>(); }

  std::uint32_t usedLen(std::int32_t block) const noexcept {
    MEM_ASSERT(block >= 0 && block < blockCount_);
    return extents()[block].used;
  }
  std::byte *at(const ContentPlace &place) const noexcept {
    return bytesAt(blocks()[place.block], std::size_t{8} + place.offset);
  }
  // True when `length` bytes from `place` on are within the block's used length.
  bool holds(const ContentPlace &place, std::uint64_t length) const noexcept {
    const std::uint32_t used = usedLen(place.block);
    return place.offset <= used && length <= used - place.offset;
  }

  // Reads a relative pointer that is not null and checks its target.
  Outcome follow(const void *pRelPtr, ContentPlace &target) const noexcept;

  // Bytes of the segment at `place`. Fails unless it ends within its block.
  Outcome measureSegment(const MemPackDescriptor &descriptor, const ContentPlace &place,
                         std::uint32_t &length) const noexcept;

  // Bytes of the text at `place` with its terminator. Fails unless it ends within its block. Units
  // are those of the writer: 1 byte, or 2 or 4 for wide text.
  Outcome measureText(const ContentPlace &place, std::uint32_t unitLen,
                      std::uint32_t &length) const noexcept;

  // The storage of the bits below, free for other use until startClaims(): uninitialised, at least
  // a quarter of the content's length, aligned for 64-bit words.
  std::span<std::byte> scratch() const noexcept {
    return {reinterpret_cast<std::byte *>(pClaims_),
            std::size_t{2} * wordCount_ * sizeof *pClaims_};
  }

  // Clears all claims. REQUIRED once before claim() and takeNarrowText().
  void startClaims() noexcept;

  // Claims bytes for one use. False when one of them has been claimed before.
  // REQUIRES: holds(place, length).
  bool claim(const ContentPlace &place, std::uint32_t length) noexcept;

  // Checks that narrow text ends in its block and claims its terminator. Any number of pointers may
  // point to the text or into it: no byte of text is checked twice.
  Outcome takeNarrowText(const ContentPlace &place) noexcept;

 private:
  std::uint32_t firstWord(std::int32_t block) const noexcept { return extents()[block].firstWord; }

  Outcome listBlocks(MemPackBlock *pFirst) noexcept;
  Outcome obtainWork() noexcept;
  void listExtents() noexcept;
  std::uint16_t usedLenInFile(std::int32_t block) const noexcept;
  Outcome copyControlBlock() noexcept;

  FileControlBlock file_;
  std::int32_t blockCount_ = 0;
  std::uint32_t wordCount_ = 0;  // of the claims, and of the texts
  std::uint64_t *pClaims_ = nullptr;
  std::uint64_t *pTexts_ = nullptr;
  PackControlBlock controlBlock_{nullptr};
  WorkStorage blockTable_;
  // Extents of the blocks, control block, and two bits for each content byte: claimed; and part of
  // narrow text that is known to end.
  WorkStorage work_;
};

}  // namespace memlib
